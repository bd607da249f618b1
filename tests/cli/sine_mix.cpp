#include "sine_mix.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "noisy_take.h"

namespace kesta_test {

Audio SineMix(int channels, int rate, double seconds, const std::vector<double>& hz) {
    Audio audio;
    audio.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    audio.rate = rate;
    const auto frames = std::size_t(std::llround(seconds * rate));
    for (int c = 0; c < channels; ++c) {
        std::vector<double> x(frames, 0.0);
        for (std::size_t n = 0; n < frames; ++n) {
            double sum = 0.0;
            for (double f : hz)
                sum += 0.2 / (c + 1) * std::sin(2.0 * std::numbers::pi * f * double(n) / rate + f / 1000.0 + c);
            x[n] = double(float(sum));  // exactly what the float file holds
        }
        audio.channels.push_back(std::move(x));
    }
    return audio;
}

ToneChange MeasureChange(const std::vector<double>& in, const std::vector<double>& out, int rate, double hz) {
    const auto frames = int64_t(std::min(in.size(), out.size()));
    const int64_t from = frames / 4, to = frames - frames / 4;
    const ToneFit before = FitTone(in, rate, hz, from, to), after = FitTone(out, rate, hz, from, to);
    return {20.0 * std::log10(after.amplitude / before.amplitude), PhaseDifference(after.phase, before.phase)};
}

double LargestDifference(const Audio& in, const Audio& out) {
    double worst = 0.0;
    for (std::size_t c = 0; c < in.channels.size(); ++c)
        for (std::size_t i = 0; i < in.channels[c].size(); ++i)
            worst = std::max(worst, std::fabs(out.channels[c][i] - in.channels[c][i]));
    return worst;
}

}  // namespace kesta_test
