// Clipping detection and repair speed: FindClipping (both passes) and RepairClipping (default
// record: fill-in, -12 dB, limiter) on ten seconds of stereo 44.1 kHz: tones over noise, clipped
// lightly (about 1 % of the samples in runs) and heavily (at half the peak: about a third).
//
// Counters: x_realtime = seconds of audio handled per second of wall time; samples_per_second
// counts every channel's samples; clipped_percent = share of samples inside the runs.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "bench_support.h"
#include "dsp/noclip.h"
#include "support/signals.h"

namespace {

using dsp::noclip::FindClipping;
using dsp::noclip::NOCLIPPING;
using dsp::noclip::RepairClipping;
using kesta::bench::Tone;
using kesta::test::Channels;

constexpr double kRate = 44100.0;
constexpr int kChannels = 2;
constexpr std::size_t kFrames = 10 * 44100;

// Peak about 0.95; clipped at `level`.
Channels Clipped(float level) {
    Channels x = kesta::bench::TonesOverNoise(kChannels, kFrames, kRate, 900, 0.01, [](int c) {
        return std::vector<Tone>{{82.0 + 5 * c, 0.5}, {247.0, 0.25, 1.0}, {659.0, 0.1, 2.0}, {1760.0, 0.05, 0.3}};
    });
    for (auto& s : x)
        for (float& v : s)
            v = std::clamp(v, -level, level);
    return x;
}

NOCLIPPING StereoRecord() {
    NOCLIPPING r;
    dsp::noclip::SetDefaultParameter(&r);
    dsp::noclip::AllocateArrays(&r);
    return r;
}

std::vector<std::vector<dsp::utils::Range>> Find(const Channels& x) {
    const NOCLIPPING r = StereoRecord();
    FindClipping find(&r);
    find.SetSelection(0, static_cast<long long>(kFrames));
    find.Start(nullptr);
    const int block = find.GetDesiredBlockSize();
    for (long long pos = 0; !find.IsCompleted();) {
        float* data[kChannels] = {const_cast<float*>(x[0].data()) + pos, const_cast<float*>(x[1].data()) + pos};
        const int n = static_cast<int>(std::min<long long>(block, static_cast<long long>(kFrames) - pos));
        find.Analyze(data, kChannels, n);
        pos = pos + n >= static_cast<long long>(kFrames) ? 0 : pos + n;
    }
    find.Done();
    return find.GetParam()->foundClips;
}

double ClippedPercent(const std::vector<std::vector<dsp::utils::Range>>& runs) {
    double samples = 0.0;
    for (const auto& list : runs)
        for (const auto& r : list)
            samples += r.length;
    return 100.0 * samples / (kChannels * static_cast<double>(kFrames));
}

void BM_FindClippingStereo(benchmark::State& state) {
    const Channels x = Clipped(static_cast<float>(state.range(0)) / 100.0f);
    std::vector<std::vector<dsp::utils::Range>> runs;
    for (auto _ : state) {
        runs = Find(x);
        benchmark::DoNotOptimize(runs.data());
    }
    kesta::bench::SetRates(state, kFrames, kChannels, kRate);
    state.counters["clipped_percent"] = ClippedPercent(runs);
}

void BM_RepairClippingStereo(benchmark::State& state) {
    const Channels x = Clipped(static_cast<float>(state.range(0)) / 100.0f);
    NOCLIPPING r = StereoRecord();
    const auto runs = Find(x);
    Channels y = x;
    for (auto _ : state) {
        r.repairClips = runs;
        RepairClipping repair(&r);
        repair.SetSelection(0, static_cast<long long>(kFrames));
        repair.Start();
        kesta::bench::StreamBlocks(
            x, y, 4096, [&](float** in, float** out, int channels, int n) { repair.Process(in, out, channels, n); });
        benchmark::DoNotOptimize(y[0].data());
    }
    kesta::bench::SetRates(state, kFrames, kChannels, kRate);
    state.counters["clipped_percent"] = ClippedPercent(runs);
}

}  // namespace

// Argument: the clip level in hundredths (85: light clipping, 48: at about half the peak).
BENCHMARK(BM_FindClippingStereo)->Arg(85)->Arg(48)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RepairClippingStereo)->Arg(85)->Arg(48)->Unit(benchmark::kMillisecond);
