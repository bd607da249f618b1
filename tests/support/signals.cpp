#include "support/signals.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace kesta::test {

uint64_t Random::Next() {
    uint64_t z = (mState += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

double Random::Uniform() {
    return static_cast<double>(Next() >> 11) * 0x1.0p-53;
}

int Random::UniformInt(int lo, int hi) {
    const uint64_t span = static_cast<uint64_t>(static_cast<int64_t>(hi) - lo) + 1;
    return lo + static_cast<int>(Next() % span);
}

double Random::Gaussian() {
    double u1 = Uniform();
    while (u1 <= 0.0)
        u1 = Uniform();
    const double u2 = Uniform();
    return std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * std::numbers::pi * u2);
}

Signal WhiteNoise(std::size_t frames, uint64_t seed, double amplitude) {
    Random random(seed);
    Signal x(frames);
    for (float& v : x)
        v = static_cast<float>(amplitude * (2.0 * random.Uniform() - 1.0));
    return x;
}

Signal GaussianNoise(std::size_t frames, uint64_t seed, double rms) {
    Random random(seed);
    Signal x(frames);
    for (float& v : x)
        v = static_cast<float>(rms * random.Gaussian());
    return x;
}

Signal Sine(std::size_t frames, double frequency, double sampleRate, double amplitude, double phase) {
    Signal x(frames);
    const double w = 2.0 * std::numbers::pi * frequency / sampleRate;
    for (std::size_t n = 0; n < frames; ++n)
        x[n] = static_cast<float>(amplitude * std::sin(w * static_cast<double>(n) + phase));
    return x;
}

Signal LogSweep(std::size_t frames, double f0, double f1, double sampleRate, double amplitude) {
    Signal x(frames);
    if (frames == 0) return x;
    // Phase of an exponential sweep: 2 pi f0 T / ln(f1/f0) * (e^(t/T ln(f1/f0)) - 1).
    const double T = static_cast<double>(frames) / sampleRate;
    const double k = std::log(f1 / f0);
    for (std::size_t n = 0; n < frames; ++n) {
        const double t = static_cast<double>(n) / sampleRate;
        const double phase = k == 0.0 ? 2.0 * std::numbers::pi * f0 * t
                                      : 2.0 * std::numbers::pi * f0 * T / k * (std::exp(t / T * k) - 1.0);
        x[n] = static_cast<float>(amplitude * std::sin(phase));
    }
    return x;
}

Signal Impulse(std::size_t frames, std::size_t position, double amplitude) {
    Signal x(frames, 0.0f);
    if (position < frames) x[position] = static_cast<float>(amplitude);
    return x;
}

Signal Delayed(std::span<const float> x, std::size_t delay, double gain) {
    Signal y(x.size(), 0.0f);
    for (std::size_t n = delay; n < x.size(); ++n)
        y[n] = static_cast<float>(gain * x[n - delay]);
    return y;
}

Signal Mix(std::span<const float> a, std::span<const float> b) {
    Signal y(std::max(a.size(), b.size()), 0.0f);
    for (std::size_t n = 0; n < a.size(); ++n)
        y[n] += a[n];
    for (std::size_t n = 0; n < b.size(); ++n)
        y[n] += b[n];
    return y;
}

Channels NoiseChannels(int channels, std::size_t frames, uint64_t seed, double amplitude) {
    Channels x;
    for (int ch = 0; ch < channels; ++ch)
        x.push_back(WhiteNoise(frames, seed + static_cast<uint64_t>(ch), amplitude));
    return x;
}

Channels Slice(const Channels& x, std::size_t from, std::size_t to) {
    Channels out;
    for (const Signal& s : x)
        out.emplace_back(s.begin() + from, s.begin() + to);
    return out;
}

Channels ZeroChannels(int channels, std::size_t frames) {
    return Channels(static_cast<std::size_t>(channels), Signal(frames, 0.0f));
}

namespace {

template <typename NextBlock>
Channels Run(const Channels& input, const BlockFunction& process, NextBlock nextBlock) {
    const std::size_t frames = input.empty() ? 0 : input[0].size();
    Channels in = input;  // the processor receives non-const pointers
    Channels out = ZeroChannels(static_cast<int>(input.size()), frames);
    std::vector<float*> inPtrs(input.size());
    std::vector<float*> outPtrs(input.size());
    for (std::size_t pos = 0; pos < frames;) {
        const int block = static_cast<int>(std::min<std::size_t>(static_cast<std::size_t>(nextBlock()), frames - pos));
        for (std::size_t ch = 0; ch < input.size(); ++ch) {
            inPtrs[ch] = in[ch].data() + pos;
            outPtrs[ch] = out[ch].data() + pos;
        }
        process(inPtrs.data(), outPtrs.data(), block);
        pos += static_cast<std::size_t>(block);
    }
    return out;
}

}  // namespace

Channels RunInBlocks(const Channels& input, const BlockFunction& process, int blockSize) {
    return Run(input, process, [blockSize] { return std::max(blockSize, 1); });
}

Channels RunInRandomBlocks(const Channels& input, const BlockFunction& process, int maxBlock, uint64_t seed) {
    Random random(seed);
    return Run(input, process, [&random, maxBlock] { return random.UniformInt(1, std::max(maxBlock, 1)); });
}

}  // namespace kesta::test
