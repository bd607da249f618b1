// Smoke self-check of the filter sections: a desk filter's measured sine gains against the response
// it draws.

#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include "dsp/check_measures.h"
#include "dsp/desk_filter.h"
#include "dsp/filter_section.h"
#include "dsp/self_checks.h"

namespace dsp::checks {

namespace {

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
        const double measuredDb = ToDb(LevelAt(std::span<const float>(x).subspan(settle, measure), f, rate) / 0.5);
        const double designedDb = 20.0 * std::log10(desk.computeResponse(static_cast<float>(f), 1.0f));
        worst = std::fmax(worst, std::fabs(measuredDb - designedDb));
        detail += Format("%g Hz: %.3f dB vs %.3f dB; ", f, measuredDb, designedDb);
    }
    const double bound = 0.02;
    return {worst <= bound, detail + Format("worst %.4f dB (bound %.2f)", worst, bound)};
}

}  // namespace

void AddFilterChecks(CheckSuite& suite) {
    suite.Add("filters", "second-order shelf gain matches its response", CheckShelfGainAgainstResponse);
}

}  // namespace dsp::checks
