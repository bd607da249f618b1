// Smoke self-check of the parametric equaliser: the curve it draws, with both cut filters, the
// shelves and two bands on, matches the gain measured on processed sines.

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include "dsp/check_measures.h"
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
        const double measured = ToDb(LevelAt(std::span<const float>(x).subspan(12000), f, kRate) / 0.5);
        const double drawn = 20.0 * std::log10(static_cast<double>(eq.ComputeFilterResponse(f)));
        worst = std::max(worst, std::fabs(measured - drawn));
    }
    return {worst <= 0.1, Format("both cut filters, shelves and two bands at 5 frequencies: worst |drawn - measured| = "
                                 "%.2e dB (bound %.1f)",
                                 worst, 0.1)};
}

}  // namespace

void AddParametricChecks(CheckSuite& suite) {
    suite.Add("parametric", "drawn curve matches processed sines", DrawnCurveMatchesProcessedSines);
}

}  // namespace dsp::checks
