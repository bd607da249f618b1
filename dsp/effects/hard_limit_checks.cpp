// Self-checks of the look-ahead limiter: loud noise never leaves above the ceiling and the first
// 20 ms are silence; an impulse is met by a straight gain ramp that reaches ceiling / peak on the
// frame that outputs it. Expectations are analytic (the ceiling, the ramp j * peak / (L - 1)).

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "dsp/check_measures.h"
#include "dsp/hard_limit.h"
#include "dsp/self_checks.h"

namespace dsp::checks {

namespace {

CheckOutcome LoudNoiseStaysUnderTheCeiling() {
    HardLimit limiter;
    limiter.SetParameter(HardLimit::kInputGain, 20.0f);
    const std::size_t frames = 44100;
    std::vector<float> left = UniformNoise(frames, 11u, 1.0), right = UniformNoise(frames, 12u, 1.0);
    std::vector<float> outLeft(frames), outRight(frames);
    float* in[2] = {left.data(), right.data()};
    float* out[2] = {outLeft.data(), outRight.data()};
    limiter.Process(in, out, static_cast<int>(frames));
    const double ceiling = static_cast<float>(std::pow(10.0, -0.1 / 20.0));  // the ceiling as stored
    double peak = 0.0, lead = 0.0;
    for (std::size_t i = 0; i < frames; ++i) {
        const double m = std::max(std::fabs(outLeft[i]), std::fabs(outRight[i]));
        peak = std::max(peak, m);
        if (i < 882) lead = std::max(lead, m);
    }
    const bool ok = peak <= ceiling && lead == 0.0 && limiter.GetLatency() == 882;
    return {ok, Format("peak %.9g (ceiling %.9g) at +20 dB input; first 882 frames peak %g (expect 0); latency %d",
                       peak, ceiling, lead, limiter.GetLatency())};
}

// Channel 0 holds one impulse of 1.0, channel 1 a constant 0.0005 under the -60 dB ceiling; the
// linked gain is read from channel 1. The envelope of channel 0 rises by 1 / (L - 1) per frame from
// the frame the impulse enters the look-ahead window, so the gain is ceiling * (L - 1) / j there.
CheckOutcome ImpulseGainRampsToCeilingOverPeak() {
    HardLimit limiter;
    limiter.SetParameter(HardLimit::kCeiling, -60.0f);
    const int latency = limiter.GetLatency();
    const std::size_t at = 44100, frames = at + static_cast<std::size_t>(latency) + 10;
    const float level = 0.0005f;
    std::vector<float> impulse(frames, 0.0f), steady(frames, level), y0(frames), y1(frames);
    impulse[at] = 1.0f;
    float* in[2] = {impulse.data(), steady.data()};
    float* out[2] = {y0.data(), y1.data()};
    limiter.Process(in, out, static_cast<int>(frames));
    const int L = limiter.GetLookAheadFrames();
    const double ceiling = static_cast<float>(std::pow(10.0, -60.0 / 20.0));  // as stored
    const std::size_t output = at + static_cast<std::size_t>(latency);
    double worst = 0.0;
    for (int j = 0; j <= L; ++j) {  // j frames into the ramp; j = L is the impulse's own frame
        const std::size_t i = output - static_cast<std::size_t>(L) + static_cast<std::size_t>(j);
        const double envelope = j == 0 ? 0.0 : std::min(1.0, j / static_cast<double>(L - 1));
        const double expected = envelope <= ceiling ? 1.0 : ceiling / envelope;
        worst = std::max(worst, std::fabs(y1[i] / level / expected - 1.0));
    }
    const bool ok = worst <= 1e-4 && std::fabs(y0[output]) <= ceiling;
    return {ok, Format("largest relative gain error over the ramp %.3g (bound 1e-4); impulse out %.6g (ceiling %.6g)",
                       worst, static_cast<double>(y0[output]), ceiling)};
}

}  // namespace

void AddHardLimitChecks(CheckSuite& suite) {
    suite.Add("limiter", "noise at +20 dB never exceeds the ceiling", LoudNoiseStaysUnderTheCeiling);
    suite.Add("limiter", "impulse gain ramps to ceiling / peak", ImpulseGainRampsToCeilingOverPeak);
}

}  // namespace dsp::checks
