// Graphic equaliser on one core: streaming 44.1 kHz audio through the linear-phase FIR (default
// accuracy N = 1000: 2000 taps, 8192-point transforms, 6194-frame blocks), and the cost of the two
// design paths a host meets when a fader moves (single-band update, full redesign).
//
// Counters: x_realtime = seconds of audio handled per second of wall time; samples_per_second
// counts every channel's samples; items_per_second counts frames.
//
//   kesta_bench_filters --benchmark_filter=Graphic

#include <benchmark/benchmark.h>

#include "bench_support.h"
#include "dsp/graphic.h"
#include "support/signals.h"

namespace {

using dsp::Graphic;
using kesta::bench::SetRates;
using kesta::test::Channels;

constexpr double kRate = 44100.0;
constexpr std::size_t kFrames = 10 * static_cast<std::size_t>(kRate);

// A typical curve: every band of the layout at some gain.
void Configure(Graphic& eq, int layout, int accuracy) {
    eq.SetParameter(Graphic::kAccuracy, static_cast<float>(accuracy));
    eq.SetParameter(Graphic::kBandLayout, static_cast<float>(layout));
    const int bands = 10 * (layout + 1);
    for (int k = 0; k < bands; ++k)
        eq.SetParameter(Graphic::kFirstBand + k, static_cast<float>((k * 7) % 13 - 6));
}

// args: channels, block size, accuracy N, layout
void BM_GraphicProcess(benchmark::State& state) {
    const int channels = static_cast<int>(state.range(0));
    const int block = static_cast<int>(state.range(1));
    Graphic eq;
    eq.SetChannels(channels);
    Configure(eq, static_cast<int>(state.range(3)), static_cast<int>(state.range(2)));
    eq.UpdateImpulses();
    Channels in = kesta::test::NoiseChannels(channels, kFrames, 31, 0.5);
    Channels out = kesta::test::ZeroChannels(channels, kFrames);
    for (auto _ : state) {
        kesta::bench::StreamBlocks(in, out, block,
                                   [&eq](float** i, float** o, int c, int n) { eq.Process(i, o, c, n); });
        benchmark::DoNotOptimize(out[0].data());
        benchmark::ClobberMemory();
    }
    SetRates(state, kFrames, channels, kRate);
}
BENCHMARK(BM_GraphicProcess)
    ->ArgNames({"channels", "block", "N", "layout"})
    ->Args({2, 512, 1000, 0})
    ->Args({2, 4096, 1000, 0})
    ->Args({2, 512, 1000, 2})
    ->Args({1, 512, 1000, 0})
    ->Args({2, 512, 8192, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The per-frame entry point, stereo, N = 1000.
void BM_GraphicProcessOneSample(benchmark::State& state) {
    Graphic eq;
    Configure(eq, 0, 1000);
    eq.UpdateImpulses();
    Channels in = kesta::test::NoiseChannels(2, kFrames, 32, 0.5);
    float frameIn[2], frameOut[2];
    float sink = 0.0f;
    for (auto _ : state) {
        for (std::size_t i = 0; i < kFrames; ++i) {
            frameIn[0] = in[0][i];
            frameIn[1] = in[1][i];
            eq.ProcessOneSample(frameIn, frameOut);
            sink += frameOut[0];
        }
        benchmark::DoNotOptimize(sink);
    }
    SetRates(state, kFrames, 2, kRate);
}
BENCHMARK(BM_GraphicProcessOneSample)->Unit(benchmark::kMillisecond)->UseRealTime();

// One fader move and the redesign it causes. arg: true for a full redesign (the range changes too),
// false for the single-band update.
void BM_GraphicRedesign(benchmark::State& state) {
    const bool full = state.range(0) != 0;
    Graphic eq;
    Configure(eq, 2, 1000);
    eq.UpdateImpulses();
    int step = 0;
    for (auto _ : state) {
        ++step;
        eq.SetParameter(Graphic::kFirstBand + 12, static_cast<float>(step % 2 ? 3 : -3));
        if (full) eq.SetParameter(Graphic::kGainRange, step % 2 ? 40.0f : 48.0f);
        eq.UpdateImpulses();
        benchmark::DoNotOptimize(eq.GetImpulse()[eq.GetImpulseLength() / 2]);
    }
}
BENCHMARK(BM_GraphicRedesign)->ArgName("full")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
