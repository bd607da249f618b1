#pragma once
// Test signals shared by tests and benchmarks, and a driver that streams multichannel audio
// through any block processor. Everything is deterministic: noise comes from a seeded generator of
// our own (not <random> distributions, whose output differs between standard libraries).

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace kesta::test {

using Signal = std::vector<float>;
using Channels = std::vector<Signal>;  // non-interleaved: one Signal per channel

// Small, fast, seedable generator (SplitMix64). The same seed gives the same stream everywhere.
class Random {
public:
    explicit Random(uint64_t seed) : mState(seed) {}
    uint64_t Next();
    // Uniform in [0, 1) with 53 random bits.
    double Uniform();
    // Uniform integer in [lo, hi].
    int UniformInt(int lo, int hi);
    // Standard normal (Box-Muller).
    double Gaussian();

private:
    uint64_t mState;
};

// Uniform white noise in [-amplitude, amplitude).
Signal WhiteNoise(std::size_t frames, uint64_t seed, double amplitude = 1.0);
// Gaussian white noise with the given RMS.
Signal GaussianNoise(std::size_t frames, uint64_t seed, double rms);
// amplitude * sin(2 pi f n / rate + phase), evaluated in double.
Signal Sine(std::size_t frames, double frequency, double sampleRate, double amplitude = 1.0, double phase = 0.0);
// Exponential sweep from f0 to f1 Hz over the whole length.
Signal LogSweep(std::size_t frames, double f0, double f1, double sampleRate, double amplitude = 1.0);
// Zeros with one sample of `amplitude` at `position`.
Signal Impulse(std::size_t frames, std::size_t position, double amplitude = 1.0);

// x scaled by `gain` and delayed by `delay` frames (zeros in front), same length as x.
Signal Delayed(std::span<const float> x, std::size_t delay, double gain = 1.0);
// a + b sample by sample (the shorter is zero-extended).
Signal Mix(std::span<const float> a, std::span<const float> b);

// `channels` independent noise channels (seeds seed, seed + 1, ...).
Channels NoiseChannels(int channels, std::size_t frames, uint64_t seed, double amplitude = 1.0);
Channels ZeroChannels(int channels, std::size_t frames);
// Frames [from, to) of every channel.
Channels Slice(const Channels& x, std::size_t from, std::size_t to);

// ---- Streaming -------------------------------------------------------------------------------

// One call of a block processor: `frames` frames from `in` to `out` (one pointer per channel).
using BlockFunction = std::function<void(float** in, float** out, int frames)>;

// Streams `input` through `process` in blocks of `blockSize` (the last one shorter) and returns
// the output, the same shape as the input. Output buffers start zeroed.
Channels RunInBlocks(const Channels& input, const BlockFunction& process, int blockSize);
// The same with block lengths drawn uniformly from [1, maxBlock] by a seeded generator.
Channels RunInRandomBlocks(const Channels& input, const BlockFunction& process, int maxBlock, uint64_t seed);

}  // namespace kesta::test
