#include "noisy_take.h"

#include <cmath>
#include <numbers>
#include <random>

namespace kesta_test {

std::vector<double> ToneFrequencies(int channel) {
    return channel == 0 ? std::vector<double>{440.0, 1500.0} : std::vector<double>{660.0, 2500.0};
}

NoisyTake MakeNoisyTake(int format, double seconds, double leadInSeconds, double noiseRms) {
    constexpr int kRate = 44100;
    const int64_t frames = std::llround(seconds * kRate);
    NoisyTake take;
    take.leadIn = std::llround(leadInSeconds * kRate);
    take.noisy.format = take.tones.format = format;
    take.noisy.rate = take.tones.rate = kRate;
    const int bits = IntegerBits(format);
    const double halfWidth = noiseRms * std::sqrt(3.0);  // uniform on [-w, w] has RMS w/sqrt(3)
    for (int c = 0; c < 2; ++c) {
        std::mt19937 random(1234u + unsigned(c));
        std::vector<double> noisy(static_cast<std::size_t>(frames)), tones(static_cast<std::size_t>(frames), 0.0);
        const std::vector<double> hz = ToneFrequencies(c);
        for (int64_t n = 0; n < frames; ++n) {
            const double noise = (double(random()) / 4294967295.0 * 2.0 - 1.0) * halfWidth;
            double tone = 0.0;
            if (n >= take.leadIn)
                tone = 0.2 * std::sin(2.0 * std::numbers::pi * hz[0] * double(n) / kRate) +
                       0.1 * std::sin(2.0 * std::numbers::pi * hz[1] * double(n) / kRate);
            tones[std::size_t(n)] = tone;
            const double x = tone + noise;
            noisy[std::size_t(n)] = bits > 0 ? Quantise(x, bits) : double(float(x));
        }
        take.noisy.channels.push_back(std::move(noisy));
        take.tones.channels.push_back(std::move(tones));
    }
    return take;
}

double RmsDb(const std::vector<double>& x, int64_t from, int64_t to) {
    long double sum = 0.0L;
    for (int64_t n = from; n < to; ++n)
        sum += (long double)x[std::size_t(n)] * x[std::size_t(n)];
    return 10.0 * std::log10(double(sum / (to - from)));
}

ToneFit FitTone(const std::vector<double>& x, int rate, double hz, int64_t from, int64_t to) {
    long double c = 0.0L, s = 0.0L;
    const double w = 2.0 * std::numbers::pi * hz / rate;
    for (int64_t n = from; n < to; ++n) {
        c += (long double)x[std::size_t(n)] * std::cos(w * double(n));
        s += (long double)x[std::size_t(n)] * std::sin(w * double(n));
    }
    const double scale = 2.0 / double(to - from);
    return {std::hypot(double(c) * scale, double(s) * scale), std::atan2(-double(s), double(c))};
}

double PhaseDifference(double a, double b) {
    return std::remainder(a - b, 2.0 * std::numbers::pi);
}

}  // namespace kesta_test
