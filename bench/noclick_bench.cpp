// Click detection and repair speed on ten seconds of stereo 44.1 kHz: tones over noise with 100
// clicks inserted. FindClicks runs the whole pass as a host does (2048-frame blocks); ReplaceClicks
// repairs the ranges found (merged, each with an 8-frame tail) in host-sized blocks.
//
// Counters: x_realtime = seconds of audio handled per second of wall time; samples_per_second
// counts every channel's samples; items_per_second counts frames.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "bench_support.h"
#include "dsp/noclick.h"
#include "support/click_support.h"
#include "support/signals.h"

namespace {

using dsp::noclick::FindClicks;
using dsp::noclick::NOCLICK;
using dsp::noclick::ReplaceClicks;
using kesta::bench::SetRates;
using kesta::bench::Tone;
using kesta::test::Channels;

constexpr double kRate = 44100.0;
constexpr int kChannels = 2;
constexpr std::size_t kFrames = 10 * 44100;

const Channels& Audio() {
    static const Channels audio = [] {
        Channels x = kesta::bench::TonesOverNoise(kChannels, kFrames, kRate, 700, 0.003, [](int c) {
            return std::vector<Tone>{{220.0, 0.1, 0.5 * c}, {660.0, 0.05, 0.5 * c}, {1900.0, 0.02, 0.5 * c}};
        });
        kesta::test::InsertClicks(x, 100, 41);
        return x;
    }();
    return audio;
}

void BM_FindClicksStereo(benchmark::State& state) {
    NOCLICK record = kesta::test::ClickRecord(kChannels);
    FindClicks find(&record);
    const Channels& x = Audio();
    std::vector<float> zeros(FindClicks::kHop, 0.0f);
    float* data[kChannels];
    for (auto _ : state) {
        find.SetSelection(0, static_cast<long long>(kFrames));
        find.Start(nullptr);
        for (std::size_t pos = 0; !find.IsCompleted();) {
            const bool inside = pos + FindClicks::kHop <= kFrames;
            for (int c = 0; c < kChannels; ++c)
                data[c] = inside ? const_cast<float*>(x[static_cast<std::size_t>(c)].data()) + pos : zeros.data();
            pos += static_cast<std::size_t>(find.Analyze(data, kChannels, FindClicks::kHop));
        }
        find.Done();
        benchmark::DoNotOptimize(find.GetParam()->foundClicks[0].data());
        find.GetParam()->foundClicks.assign(kChannels, {});
    }
    SetRates(state, kFrames, kChannels, kRate);
}
BENCHMARK(BM_FindClicksStereo)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ReplaceClicksStereo(benchmark::State& state) {
    const int block = static_cast<int>(state.range(0));
    NOCLICK record = kesta::test::ClickRecord(kChannels);
    const kesta::test::RangeLists ranges =
        kesta::test::MergeOverlapping(kesta::test::FindAllClicks(Audio(), record), 8);
    ReplaceClicks fix(&record);
    Channels out = kesta::test::ZeroChannels(kChannels, kFrames);
    std::size_t listed = 0;
    for (const auto& l : ranges)
        listed += l.size();
    for (auto _ : state) {
        fix.GetParam()->repairClicks = ranges;  // fresh marks each run
        fix.SetSelection(0, static_cast<long long>(kFrames));
        fix.Start();
        kesta::bench::StreamBlocks(Audio(), out, block,
                                   [&fix](float** i, float** o, int c, int n) { fix.Process(i, o, c, n); });
        benchmark::DoNotOptimize(out[0].data());
        benchmark::ClobberMemory();
    }
    state.counters["ranges"] = static_cast<double>(listed);
    SetRates(state, kFrames, kChannels, kRate);
}
BENCHMARK(BM_ReplaceClicksStereo)->Arg(512)->Arg(4096)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
