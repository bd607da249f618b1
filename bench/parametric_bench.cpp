// Parametric equaliser on one core: stereo 44.1 kHz through five bands and both shelves (double
// sections), with and without the Butterworth cut filters, on the block path, the per-frame path
// and channel 0's block path; and a decaying tail (a burst falling to silence, so the filters'
// memory decays through the subnormal range) against dense material, to show that the flush-to-zero
// guard keeps tails at full speed.
//
// Counters: x_realtime = seconds of audio handled per second of wall time; samples_per_second
// counts every channel's samples; items_per_second counts frames. BM_ParametricTailVsMusic times
// both inputs in turn and reports tail_over_music = tail speed / music speed (goal >= 0.9).
//
//   kesta_bench_filters --benchmark_filter=Parametric

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <vector>

#include "bench_support.h"
#include "dsp/parametric.h"
#include "support/signals.h"

namespace {

using dsp::Parametric;
using kesta::test::Channels;

constexpr double kRate = 44100.0;
constexpr std::size_t kFrames = 10 * static_cast<std::size_t>(kRate);
constexpr int kBlock = 512;

// Every band and both shelves audible (second-order shelves), optionally both cut filters at
// order 4.
void Configure(Parametric& eq, int channels, bool cutFilters, bool stateVariable) {
    eq.SetChannels(channels);
    eq.SetSampleRate(static_cast<int>(kRate));
    eq.SetParameter(Parametric::kLowShelfFrequency, 120.0f);
    eq.SetParameter(Parametric::kLowShelfGain, 4.0f);
    eq.SetParameter(Parametric::kHighShelfFrequency, 9000.0f);
    eq.SetParameter(Parametric::kHighShelfGain, -3.0f);
    eq.SetParameter(Parametric::kLowShelfSecondOrder, 1.0f);
    eq.SetParameter(Parametric::kHighShelfSecondOrder, 1.0f);
    const float gains[Parametric::kBandCount] = {3.0f, -4.0f, 2.5f, -6.0f, 5.0f};
    for (int k = 0; k < Parametric::kBandCount; ++k)
        eq.SetParameter(Parametric::BandParameter(k, Parametric::kBandGain), gains[k]);
    eq.SetParameter(Parametric::kStateVariable, stateVariable ? 1.0f : 0.0f);
    eq.SetParameter(Parametric::kHighPassOn, cutFilters ? 1.0f : 0.0f);
    eq.SetParameter(Parametric::kHighPassCutoff, 30.0f);
    eq.SetParameter(Parametric::kLowPassOn, cutFilters ? 1.0f : 0.0f);
    eq.SetParameter(Parametric::kLowPassCutoff, 18000.0f);
    eq.Resume();
}

Channels Music(int channels) {
    return kesta::test::NoiseChannels(channels, kFrames, 41, 0.5);
}

// Half a second of noise dying away at 60 dB per 0.1 s, then silence: the filters ring down into
// the subnormal range for most of the ten seconds.
Channels Tail(int channels) {
    Channels x = kesta::test::NoiseChannels(channels, kFrames, 42, 0.5);
    for (auto& channel : x) {
        for (std::size_t i = 0; i < channel.size(); ++i) {
            const double t = static_cast<double>(i) / kRate;
            channel[i] = t < 0.5 ? static_cast<float>(channel[i] * std::pow(10.0, -3.0 * t / 0.1)) : 0.0f;
        }
    }
    return x;
}

// One pass of the whole input through the block path.
void Stream(Parametric& eq, const Channels& in, Channels& out) {
    kesta::bench::StreamBlocks(
        in, out, kBlock, [&eq](float** i, float** o, int channels, int frames) { eq.Process(i, o, channels, frames); });
}

// args: cut filters (0/1), state-variable realisation (0/1), input (0 = music, 1 = tail)
void BM_ParametricStereo(benchmark::State& state) {
    Parametric eq;
    Configure(eq, 2, state.range(0) != 0, state.range(1) != 0);
    const Channels in = state.range(2) != 0 ? Tail(2) : Music(2);
    Channels out = kesta::test::ZeroChannels(2, kFrames);
    for (auto _ : state) {
        Stream(eq, in, out);
        benchmark::DoNotOptimize(out[0].data());
        benchmark::ClobberMemory();
    }
    kesta::bench::SetRates(state, kFrames, 2, kRate);
}
BENCHMARK(BM_ParametricStereo)
    ->ArgNames({"cut", "sv", "tail"})
    ->Args({0, 0, 0})
    ->Args({0, 0, 1})
    ->Args({1, 0, 0})
    ->Args({1, 0, 1})
    ->Args({0, 1, 0})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Channel 0's block path (the single-channel entry point), everything on.
void BM_ParametricMono(benchmark::State& state) {
    Parametric eq;
    Configure(eq, 1, true, false);
    const Channels in = Music(1);
    Channels out = kesta::test::ZeroChannels(1, kFrames);
    for (auto _ : state) {
        for (std::size_t pos = 0; pos < kFrames; pos += kBlock) {
            const int n = static_cast<int>(std::min<std::size_t>(kBlock, kFrames - pos));
            eq.Process(const_cast<float*>(in[0].data()) + pos, out[0].data() + pos, n);
        }
        benchmark::DoNotOptimize(out[0].data());
        benchmark::ClobberMemory();
    }
    kesta::bench::SetRates(state, kFrames, 1, kRate);
}
BENCHMARK(BM_ParametricMono)->Unit(benchmark::kMillisecond)->UseRealTime();

// The per-frame entry point, stereo (shelves and bands; this path has no cut filters).
void BM_ParametricStereoOneSample(benchmark::State& state) {
    Parametric eq;
    Configure(eq, 2, false, false);
    const Channels in = Music(2);
    float frameIn[2], frameOut[2];
    float sink = 0.0f;
    for (auto _ : state) {
        for (std::size_t i = 0; i < kFrames; ++i) {
            frameIn[0] = in[0][i];
            frameIn[1] = in[1][i];
            eq.ProcessOneSample(frameIn, frameOut);
            sink += frameOut[0] + frameOut[1];
        }
        benchmark::DoNotOptimize(sink);
    }
    kesta::bench::SetRates(state, kFrames, 2, kRate);
}
BENCHMARK(BM_ParametricStereoOneSample)->Unit(benchmark::kMillisecond)->UseRealTime();

// Music and tail timed alternately on the same equaliser settings (fresh state for each pass),
// so that both see the same machine conditions. arg: cut filters (0/1).
void BM_ParametricTailVsMusic(benchmark::State& state) {
    const bool cut = state.range(0) != 0;
    const Channels music = Music(2), tail = Tail(2);
    Channels out = kesta::test::ZeroChannels(2, kFrames);
    double musicSeconds = 0.0, tailSeconds = 0.0;
    for (auto _ : state) {
        for (int which = 0; which < 2; ++which) {
            Parametric eq;
            Configure(eq, 2, cut, false);
            const auto t0 = std::chrono::steady_clock::now();
            Stream(eq, which == 0 ? music : tail, out);
            const auto t1 = std::chrono::steady_clock::now();
            benchmark::DoNotOptimize(out[0].data());
            (which == 0 ? musicSeconds : tailSeconds) += std::chrono::duration<double>(t1 - t0).count();
        }
    }
    const double audio = static_cast<double>(state.iterations()) * static_cast<double>(kFrames) / kRate;
    state.counters["music_x_realtime"] = audio / musicSeconds;
    state.counters["tail_x_realtime"] = audio / tailSeconds;
    state.counters["tail_over_music"] = musicSeconds / tailSeconds;
}
BENCHMARK(BM_ParametricTailVsMusic)->ArgName("cut")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
