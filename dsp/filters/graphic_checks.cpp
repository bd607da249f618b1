// Self-checks of the graphic equaliser: flat settings are a pure delay of the stated latency, a
// boosted band reaches its gain at its centre (measured on a processed sine), and the single-band
// update lands on the impulse a full redesign builds.

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include "dsp/check_measures.h"
#include "dsp/graphic.h"
#include "dsp/self_checks.h"

namespace dsp::checks {

namespace {

std::vector<float> Run(Graphic& eq, const std::vector<float>& input) {
    std::vector<float> output(input.size());
    float* in = const_cast<float*>(input.data());
    float* out = output.data();
    eq.Process(&in, &out, 1, static_cast<int>(input.size()));
    return output;
}

CheckOutcome FlatIsPureDelay() {
    Graphic eq;
    eq.SetChannels(1);
    const int latency = eq.GetLatency();
    std::vector<float> x(static_cast<std::size_t>(latency) + 5000);
    for (std::size_t i = 0; i < x.size(); ++i)
        x[i] = static_cast<float>(0.5 * std::sin(0.37 * static_cast<double>(i)) +
                                  0.3 * std::cos(0.0113 * static_cast<double>(i * i % 7919)));
    const std::vector<float> y = Run(eq, x);
    double worst = 0.0;
    for (std::size_t i = 0; i < y.size(); ++i) {
        const double expected = i >= static_cast<std::size_t>(latency) ? x[i - latency] : 0.0;
        worst = std::max(worst, std::fabs(y[i] - expected));
    }
    const double bound = 1e-6;
    return {worst <= bound, Format("max |y[n] - x[n - latency]| = %.2e (bound %.0e), all bands at 0 dB", worst, bound)};
}

CheckOutcome BoostedBandReachesItsGainAtCentre() {
    Graphic eq;
    eq.SetChannels(1);
    eq.SetParameter(Graphic::kFirstBand + 5, 12.0f);  // the 1 kHz octave
    const double rate = 44100.0, frequency = 1000.0;
    const std::size_t steady = static_cast<std::size_t>(eq.GetLatency()) + 2000;
    std::vector<float> x(steady + 16384);
    for (std::size_t i = 0; i < x.size(); ++i)
        x[i] = static_cast<float>(0.25 * std::sin(2.0 * std::numbers::pi * frequency * static_cast<double>(i) / rate));
    const std::vector<float> y = Run(eq, x);
    const double gainDb =
        20.0 * std::log10(ToneAmplitude(y.data() + steady, y.size() - steady, frequency, rate) / 0.25);
    return {std::fabs(gainDb - 12.0) <= 0.5,
            Format("band 1 kHz at +12 dB measures %.3f dB at %.0f Hz (bound 12 +- 0.5)", gainDb, frequency)};
}

CheckOutcome SingleBandUpdateMatchesRedesign() {
    Graphic incremental;
    incremental.SetParameter(Graphic::kBandLayout, 2.0f);
    incremental.SetParameter(Graphic::kFirstBand + 3, -6.0f);
    incremental.SetParameter(Graphic::kFirstBand + 17, 9.0f);
    incremental.UpdateImpulses();
    incremental.SetParameter(Graphic::kFirstBand + 17, -4.5f);
    incremental.UpdateImpulses();

    Graphic full;
    full.SetParameter(Graphic::kBandLayout, 2.0f);
    full.SetParameter(Graphic::kFirstBand + 3, -6.0f);
    full.SetParameter(Graphic::kFirstBand + 17, -4.5f);
    full.UpdateImpulses();

    double worst = 0.0;
    for (int i = 0; i < full.GetImpulseLength(); ++i)
        worst = std::max(worst, std::fabs(incremental.GetImpulse()[i] - full.GetImpulse()[i]));
    return {worst <= 1e-9, Format("max tap difference %.2e (bound %.0e)", worst, 1e-9)};
}

}  // namespace

void AddGraphicChecks(CheckSuite& suite) {
    suite.Add("graphic", "flat settings are a pure delay of the latency", FlatIsPureDelay);
    suite.Add("graphic", "+12 dB band measures 12 dB at its centre", BoostedBandReachesItsGainAtCentre);
    suite.Add("graphic", "single-band update equals a full redesign", SingleBandUpdateMatchesRedesign);
}

}  // namespace dsp::checks
