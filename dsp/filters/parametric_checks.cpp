// Self-checks of the parametric equaliser: the Butterworth cut filters are 3.01 dB down at their
// cutoff for every order, the drawn curve matches processed sines, and flat or bypassed settings
// pass audio through untouched.

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include "dsp/check_measures.h"
#include "dsp/filters/butterworth.h"
#include "dsp/parametric.h"
#include "dsp/self_checks.h"

namespace dsp::checks {

namespace {

constexpr double kRate = 44100.0;

std::vector<float> Sine(std::size_t n, double frequency, double amplitude) {
    std::vector<float> x(n);
    for (std::size_t i = 0; i < n; ++i)
        x[i] = static_cast<float>(amplitude *
                                  std::sin(2.0 * std::numbers::pi * frequency * static_cast<double>(i) / kRate));
    return x;
}

double ToneAmplitudeFrom(const std::vector<float>& x, std::size_t from, double frequency) {
    return ToneAmplitude(x.data() + from, x.size() - from, frequency, kRate);
}

CheckOutcome CutFiltersAreThreeDbDownAtTheCutoff() {
    const double cutoff = 1000.0, amplitude = 0.5;
    const double expected = -10.0 * std::log10(2.0);
    double worst = 0.0;
    for (const bool lowPass : {true, false}) {
        for (int order = 1; order <= butterworth::kMaxOrder; ++order) {
            butterworth::CutFilter filter;
            // Fitted up to 20 kHz, as the equaliser has them.
            filter.SetDesign(butterworth::DesignCutFilter(lowPass, order, cutoff / kRate, 20000.0 / kRate));
            std::vector<float> x = Sine(20000, cutoff, amplitude);
            filter.ProcessInplace(x.data(), static_cast<int>(x.size()));
            const double db = 20.0 * std::log10(ToneAmplitudeFrom(x, 8000, cutoff) / amplitude);
            worst = std::max(worst, std::fabs(db - expected));
        }
    }
    return {
        worst <= 0.01,
        Format("orders 1-8, high- and low-pass at 1 kHz: worst |gain + 3.0103 dB| = %.2e (bound %.2f)", worst, 0.01)};
}

CheckOutcome DrawnCurveMatchesProcessedSines() {
    Parametric eq;
    eq.SetChannels(1);
    eq.SetParameter(Parametric::kLowShelfFrequency, 150.0f);
    eq.SetParameter(Parametric::kLowShelfGain, 5.0f);
    eq.SetParameter(Parametric::kHighShelfGain, -6.0f);
    eq.SetParameter(Parametric::BandParameter(2, Parametric::kBandGain), 9.0f);   // 800 Hz
    eq.SetParameter(Parametric::BandParameter(3, Parametric::kBandGain), -7.0f);  // 3200 Hz
    eq.SetParameter(Parametric::kHighPassOn, 1.0f);
    eq.SetParameter(Parametric::kHighPassCutoff, 60.0f);
    eq.SetParameter(Parametric::kLowPassOn, 1.0f);
    eq.SetParameter(Parametric::kLowPassCutoff, 12000.0f);
    eq.SetParameter(Parametric::kLowPassOrder, 6.0f);
    eq.Resume();
    double worst = 0.0;
    for (const float f : {40.0f, 150.0f, 800.0f, 3200.0f, 15000.0f}) {
        Parametric run(eq);
        std::vector<float> x = Sine(30000, f, 0.5);
        run.Process(x.data(), x.data(), static_cast<int>(x.size()));
        const double measured = 20.0 * std::log10(ToneAmplitudeFrom(x, 12000, f) / 0.5);
        const double drawn = 20.0 * std::log10(static_cast<double>(eq.ComputeFilterResponse(f)));
        worst = std::max(worst, std::fabs(measured - drawn));
    }
    return {worst <= 0.1, Format("both cut filters, shelves and two bands at 5 frequencies: worst |drawn - measured| = "
                                 "%.2e dB (bound %.1f)",
                                 worst, 0.1)};
}

CheckOutcome FlatAndBypassedPassAudioUntouched() {
    std::vector<float> x(4096);
    for (std::size_t i = 0; i < x.size(); ++i)
        x[i] = static_cast<float>(0.4 * std::sin(0.37 * static_cast<double>(i)) +
                                  0.3 * std::cos(0.0113 * static_cast<double>(i * i % 7919)));
    Parametric flat;
    flat.SetChannels(1);
    std::vector<float> y(x.size());
    flat.Process(x.data(), y.data(), static_cast<int>(x.size()));
    const bool flatExact = y == x;

    Parametric bypassed;
    bypassed.SetChannels(1);
    bypassed.SetParameter(Parametric::BandParameter(0, Parametric::kBandGain), 12.0f);
    bypassed.SetParameter(Parametric::kHighPassOn, 1.0f);
    bypassed.SetParameter(Parametric::kOutputGain, -10.0f);
    bypassed.SetParameter(Parametric::kBypass, 1.0f);
    bypassed.Process(x.data(), y.data(), static_cast<int>(x.size()));
    const bool bypassExact = y == x;
    return {flatExact && bypassExact, Format("flat settings bit-exact: %.0f, bypass bit-exact: %.0f (1 = yes)",
                                             flatExact ? 1.0 : 0.0, bypassExact ? 1.0 : 0.0)};
}

}  // namespace

void AddParametricChecks(CheckSuite& suite) {
    suite.Add("parametric", "Butterworth cut filters are 3.01 dB down at the cutoff",
              CutFiltersAreThreeDbDownAtTheCutoff);
    suite.Add("parametric", "drawn curve matches processed sines", DrawnCurveMatchesProcessedSines);
    suite.Add("parametric", "flat and bypassed settings pass audio untouched", FlatAndBypassedPassAudioUntouched);
}

}  // namespace dsp::checks
