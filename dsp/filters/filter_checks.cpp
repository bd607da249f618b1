// Self-checks of the filter sections, the desk filter and the second-order IIR filter. Each one
// processes a signal with the library and compares the result with an expectation computed here:
// a sine's measured gain against the designed response, the glide's exact length, the identity
// filter, and the two realisations of one biquad against each other.

#include <cmath>
#include <cstdint>
#include <numbers>
#include <string>
#include <vector>

#include "dsp/check_measures.h"
#include "dsp/desk_filter.h"
#include "dsp/filter_section.h"
#include "dsp/second_order_iir_filter.h"
#include "dsp/self_checks.h"

namespace dsp::checks {

namespace {

constexpr const char* kFamily = "filters";

// A second-order high shelf in a desk filter (+12 dB at 2 kHz, 48 kHz): the gain of 1 kHz, 2 kHz
// and 6 kHz sines after settling agrees with computeResponse within 0.02 dB. The least-squares
// fit over the 9600-sample measurement is exact for a pure tone.
CheckOutcome CheckShelfGainAgainstResponse() {
    constexpr double rate = 48000.0;
    constexpr std::size_t settle = 9600, measure = 9600;
    fDeskFilter desk;
    desk.ShiftGears(kFilterHighShelf, true, false);
    desk.Setup(static_cast<float>(rate), 2000.0f, 12.0f, 1.0f, 0.0f, 0.0f);
    desk.TerminateRamp();
    double worst = 0.0;
    std::string detail;
    for (double f : {1000.0, 2000.0, 6000.0}) {
        desk.ClearState();
        std::vector<float> x(settle + measure);
        for (std::size_t n = 0; n < x.size(); ++n)
            x[n] = static_cast<float>(0.5 * std::sin(2.0 * std::numbers::pi * f * n / rate));
        desk.processInplace(x.data(), static_cast<int>(x.size()));
        const double measuredDb = 20.0 * std::log10(ToneAmplitude(x.data() + settle, measure, f, rate) / 0.5);
        const double designedDb = 20.0 * std::log10(desk.computeResponse(static_cast<float>(f), 1.0f));
        worst = std::fmax(worst, std::fabs(measuredDb - designedDb));
        detail += Format("%g Hz: %.3f dB vs %.3f dB; ", f, measuredDb, designedDb);
    }
    const double bound = 0.02;
    return {worst <= bound, detail + Format("worst %.4f dB (bound %.2f)", worst, bound)};
}

// The glide after SetupCoefficients lasts exactly rampLength samples (1323 by default) and ends
// on the target coefficients bit for bit.
CheckOutcome CheckGlideLength() {
    fPARA section;
    section.SetupCoefficients(44100.0f, 1000.0f, 9.0f, 2.0f, 0.0f, 0.0f);
    section.enable();
    const int32_t length = section.getRampLength();
    int processed = 0;
    while (section.IsRamping() && processed < 100000) {
        section.processOneSample(0.25f);
        ++processed;
    }
    const bool exact = section.runningCoefficients() == section.targetCoefficients();
    const bool passed = length == 1323 && processed == length && exact;
    return {passed, Format("ramp length %d (expect 1323), glide lasted %d samples, running == target: %s",
                           static_cast<int>(length), processed, exact ? "yes" : "no")};
}

// SecondOrderIIRFilter with b0 = 1 and everything else 0 passes noise through bit for bit.
CheckOutcome CheckSecondOrderIdentity() {
    const std::vector<float> x = UniformNoise(4096, 7u, 0.5);
    std::vector<float> y(x.size());
    SecondOrderIIRFilter filter;
    SecondOrderIIRCoefficients c;
    c.b0 = 1.0;
    filter.SetCoefficients(c);
    filter.Process(x.data(), y.data(), x.size());
    std::size_t mismatches = 0;
    for (std::size_t n = 0; n < x.size(); ++n)
        mismatches += x[n] != y[n] ? 1 : 0;
    return {mismatches == 0, Format("%zu of %zu samples differ from the input (expect 0)", mismatches, x.size())};
}

// A double-precision peak run in state-variable form gives the direct-form output after settling.
CheckOutcome CheckStateVariableAgreesWithDirectForm() {
    dPARA direct, stateVariable;
    for (dPARA* s : {&direct, &stateVariable}) {
        s->setStateVariable(s == &stateVariable);
        s->Setup(48000.0f, 3000.0f, -9.0f, 1.5f, 0.0f, 0.0f);
        s->TerminateRamp();
    }
    const std::vector<float> x = UniformNoise(8192, 11u, 0.5);
    std::vector<double> a(x.begin(), x.end()), b(x.begin(), x.end());
    direct.dprocessInplace(a.data(), static_cast<int>(a.size()));
    stateVariable.dprocessInplace(b.data(), static_cast<int>(b.size()));
    double worst = 0.0;
    for (std::size_t n = 2048; n < a.size(); ++n)
        worst = std::fmax(worst, std::fabs(a[n] - b[n]));
    const double bound = 1e-9;
    return {worst <= bound, Format("max |direct - state-variable| = %.3g (bound %.0e)", worst, bound)};
}

}  // namespace

void AddFilterChecks(CheckSuite& suite) {
    suite.Add(kFamily, "second-order shelf gain matches its response", CheckShelfGainAgainstResponse);
    suite.Add(kFamily, "coefficient glide lasts the ramp length", CheckGlideLength);
    suite.Add(kFamily, "second-order IIR identity", CheckSecondOrderIdentity);
    suite.Add(kFamily, "state-variable form equals direct form", CheckStateVariableAgreesWithDirectForm);
}

}  // namespace dsp::checks
