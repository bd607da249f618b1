// Loudness meter speed beside libebur128 (the anchor, measured in the same binary when installed):
// ten seconds of 48 kHz stereo noise, integrated loudness alone and with the true peak. Each
// meter gets its native layout (ours planar, libebur128 interleaved, prepared outside the timing)
// in blocks of 4096 frames; the meter is made and fed inside the timing, as a file analysis does.
//
// Counters: x_realtime = seconds of audio measured per second of wall time.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <vector>

#include "bench_support.h"
#include "dsp/loudness.h"
#include "support/signals.h"

#if KESTA_HAVE_EBUR128
#include <ebur128.h>
#endif

namespace {

constexpr int kRate = 48000;
constexpr int kChannels = 2;
constexpr std::size_t kFrames = 10 * 48000;
constexpr int kBlock = 4096;

const kesta::test::Channels& Audio() {
    static const kesta::test::Channels x = kesta::test::NoiseChannels(kChannels, kFrames, 41, 0.3);
    return x;
}

// Argument: 0 integrated loudness (and the range, which comes with it), 1 with the true peak.
void BM_Itu1770(benchmark::State& state) {
    const bool withPeak = state.range(0) != 0;
    const kesta::test::Channels& x = Audio();
    for (auto _ : state) {
        dsp::Itu1770 meter(kRate, kChannels);
        dsp::TruePeak peak(kRate, kChannels);
        for (std::size_t at = 0; at < kFrames; at += kBlock) {
            const int n = static_cast<int>(std::min<std::size_t>(kBlock, kFrames - at));
            const float* p[kChannels] = {x[0].data() + at, x[1].data() + at};
            meter.Process(p, kChannels, n);
            if (withPeak) peak.Process(p, kChannels, n);
        }
        benchmark::DoNotOptimize(meter.GetIntegrated());
        benchmark::DoNotOptimize(peak.GetTruePeak());
    }
    kesta::bench::SetRates(state, kFrames, kChannels, kRate);
}
BENCHMARK(BM_Itu1770)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

#if KESTA_HAVE_EBUR128
void BM_Libebur128(benchmark::State& state) {
    const bool withPeak = state.range(0) != 0;
    const kesta::test::Channels& x = Audio();
    std::vector<float> interleaved(kFrames * kChannels);
    for (std::size_t n = 0; n < kFrames; ++n)
        interleaved[2 * n] = x[0][n], interleaved[2 * n + 1] = x[1][n];
    for (auto _ : state) {
        ebur128_state* st = ebur128_init(kChannels, kRate, EBUR128_MODE_I | (withPeak ? EBUR128_MODE_TRUE_PEAK : 0));
        for (std::size_t at = 0; at < kFrames; at += kBlock)
            ebur128_add_frames_float(st, interleaved.data() + at * kChannels,
                                     std::min<std::size_t>(kBlock, kFrames - at));
        double loudness = 0.0;
        ebur128_loudness_global(st, &loudness);
        benchmark::DoNotOptimize(loudness);
        ebur128_destroy(&st);
    }
    kesta::bench::SetRates(state, kFrames, kChannels, kRate);
}
BENCHMARK(BM_Libebur128)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
#endif

}  // namespace
