#pragma once
// What the real-time benchmarks share: the rate counters every one of them reports, test audio of
// tones over noise, and a driver that streams whole channels through a block processor.
//
// Counters (SetRates): x_realtime = seconds of audio handled per second of wall time;
// samples_per_second counts every channel's samples; items_per_second counts frames.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "support/signals.h"

namespace kesta::bench {

using kesta::test::Channels;

// Sets the three rate counters for `frames` frames of `channels` channels at `sampleRate`,
// handled once per iteration.
inline void SetRates(benchmark::State& state, std::size_t frames, int channels, double sampleRate) {
    const double iterations = static_cast<double>(state.iterations());
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(frames));
    state.counters["x_realtime"] =
        benchmark::Counter(iterations * static_cast<double>(frames) / sampleRate, benchmark::Counter::kIsRate);
    state.counters["samples_per_second"] =
        benchmark::Counter(iterations * static_cast<double>(frames) * channels, benchmark::Counter::kIsRate);
}

struct Tone {
    double frequency;
    double amplitude;
    double phase = 0.0;
};

// Gaussian noise of RMS `noiseRms` (seed `seed + c` on channel c) with the tones `tonesOf(c)` (a
// std::vector<Tone>) added on each channel c, in the order given.
template <typename TonesOf>
Channels TonesOverNoise(int channels, std::size_t frames, double sampleRate, uint64_t seed, double noiseRms,
                        TonesOf&& tonesOf) {
    Channels x;
    for (int c = 0; c < channels; ++c) {
        kesta::test::Signal s = kesta::test::GaussianNoise(frames, seed + static_cast<uint64_t>(c), noiseRms);
        for (const Tone& tone : tonesOf(c)) {
            const kesta::test::Signal t =
                kesta::test::Sine(frames, tone.frequency, sampleRate, tone.amplitude, tone.phase);
            for (std::size_t n = 0; n < frames; ++n)
                s[n] += t[n];
        }
        x.push_back(std::move(s));
    }
    return x;
}

// The most channels StreamBlocks drives.
inline constexpr int kMaxChannels = 8;

// One pass of `in` (at most kMaxChannels channels, each as long as channel 0) into `out` in blocks
// of `block` frames, the last one shorter: process(inPointers, outPointers, channels, frames) once
// per block.
template <typename Process>
void StreamBlocks(const Channels& in, Channels& out, int block, Process&& process) {
    assert(in.size() <= static_cast<std::size_t>(kMaxChannels) && out.size() >= in.size());
    const int channels = static_cast<int>(in.size());
    const std::size_t frames = in.empty() ? 0 : in[0].size();
    float* inPtrs[kMaxChannels];
    float* outPtrs[kMaxChannels];
    for (std::size_t pos = 0; pos < frames; pos += static_cast<std::size_t>(block)) {
        for (int c = 0; c < channels; ++c) {
            inPtrs[c] = const_cast<float*>(in[static_cast<std::size_t>(c)].data()) + pos;
            outPtrs[c] = out[static_cast<std::size_t>(c)].data() + pos;
        }
        const int n = static_cast<int>(std::min<std::size_t>(static_cast<std::size_t>(block), frames - pos));
        process(inPtrs, outPtrs, channels, n);
    }
}

}  // namespace kesta::bench
