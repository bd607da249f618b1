// Smoke self-check of the graphic equaliser: a boosted band reaches its gain at its centre,
// measured on a processed sine.

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
    const double gainDb = ToDb(LevelAt(std::span<const float>(y).subspan(steady), frequency, rate) / 0.25);
    return {std::fabs(gainDb - 12.0) <= 0.5,
            Format("band 1 kHz at +12 dB measures %.3f dB at %.0f Hz (bound 12 +- 0.5)", gainDb, frequency)};
}

}  // namespace

void AddGraphicChecks(CheckSuite& suite) {
    suite.Add("graphic", "+12 dB band measures 12 dB at its centre", BoostedBandReachesItsGainAtCentre);
}

}  // namespace dsp::checks
