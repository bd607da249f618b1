// Look-ahead limiter speed: HardLimit on ten seconds of stereo 44.1 kHz white noise at full scale
// with +20 dB of input gain (the limiter works on nearly every frame), linked and unlinked, and on
// silence (the window maximum is rebuilt whenever the held peak leaves: every frame of silence).
//
// Counters: x_realtime = seconds of audio handled per second of wall time; samples_per_second
// counts every channel's samples.

#include <benchmark/benchmark.h>

#include <cstddef>

#include "bench_support.h"
#include "dsp/hard_limit.h"
#include "support/signals.h"

namespace {

constexpr double kRate = 44100.0;
constexpr int kChannels = 2;
constexpr std::size_t kFrames = 10 * 44100;

// Argument 0: loud noise, unlinked; 1: loud noise, linked; 2: silence, linked.
void BM_HardLimitStereo(benchmark::State& state) {
    const int mode = static_cast<int>(state.range(0));
    const kesta::test::Channels x =
        mode == 2 ? kesta::test::ZeroChannels(kChannels, kFrames) : kesta::test::NoiseChannels(kChannels, kFrames, 31);
    kesta::test::Channels y = x;
    dsp::HardLimit limiter;
    limiter.SetParameter(dsp::HardLimit::kInputGain, 20.0f);
    limiter.SetParameter(dsp::HardLimit::kLink, mode == 0 ? 0.0f : 1.0f);
    limiter.Resume();
    for (auto _ : state) {
        kesta::bench::StreamBlocks(x, y, 4096,
                                   [&](float** in, float** out, int, int n) { limiter.Process(in, out, n); });
        benchmark::DoNotOptimize(y[0].data());
    }
    kesta::bench::SetRates(state, kFrames, kChannels, kRate);
}

}  // namespace

BENCHMARK(BM_HardLimitStereo)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);
