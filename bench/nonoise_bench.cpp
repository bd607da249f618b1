// Noise-print noise reduction on one core: NoNoiseProcess streaming stereo (and mono) 44.1 kHz
// audio at the default settings, and CaptureNoisePrint taking a print from a stereo selection.
//
// Counters: x_realtime = seconds of audio handled per second of wall time; samples_per_second
// counts every channel's samples; items_per_second counts frames.
//
//   kesta_bench_restoration --benchmark_filter=NoNoise

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "bench_support.h"
#include "dsp/nonoise.h"
#include "dsp/restoration/nonoise/noise_reducer.h"
#include "support/signals.h"

namespace {

using dsp::nonoise::NONOISE;
using kesta::bench::SetRates;
using kesta::bench::Tone;
using kesta::test::Channels;

constexpr double kRate = 44100.0;
constexpr std::size_t kSeconds = 10;
constexpr std::size_t kFrames = kSeconds * static_cast<std::size_t>(kRate);

// Tones over white noise 30 dB down, per channel a different set.
Channels MakeProgramme(int channels) {
    return kesta::bench::TonesOverNoise(channels, kFrames, kRate, 21, 0.1 * 0.0316, [](int c) {
        return std::vector<Tone>{{330.0 + 100.0 * c, 0.1}, {1200.0 + 150.0 * c, 0.1}, {2900.0 + 300.0 * c, 0.1}};
    });
}

// A print of `channels` channels taken from the first two seconds of noise alone.
struct Print {
    explicit Print(int channels) {
        dsp::nonoise::SetDefaultParameter(&record);
        record.channels = static_cast<int16_t>(channels);
        dsp::nonoise::AllocateArrays(&record);
        Channels noise;
        for (int c = 0; c < channels; ++c)
            noise.push_back(kesta::test::GaussianNoise(88200, 21 + static_cast<uint64_t>(c), 0.1 * 0.0316));
        dsp::nonoise::CaptureNoisePrint capture(&record);
        capture.SetSelection(0, 88200);
        capture.Start(nullptr);
        std::vector<float*> ptrs(static_cast<std::size_t>(channels));
        for (std::size_t pos = 0; !capture.IsCompleted();) {
            for (int c = 0; c < channels; ++c)
                ptrs[static_cast<std::size_t>(c)] = noise[static_cast<std::size_t>(c)].data() + pos;
            pos += static_cast<std::size_t>(capture.Analyze(ptrs.data(), channels, capture.GetDesiredBlockSize()));
        }
        capture.Done();
        dsp::nonoise::CopyNoNoise(capture.GetParam(), &record, false);
    }
    ~Print() { dsp::nonoise::FreeArrays(&record); }
    Print(const Print&) = delete;
    Print& operator=(const Print&) = delete;
    NONOISE record;
};

// args: channels, block size, outputMode
void BM_NoNoiseProcess(benchmark::State& state) {
    const int channels = static_cast<int>(state.range(0));
    const int block = static_cast<int>(state.range(1));
    const Print print(channels);
    NONOISE record = print.record;  // shallow: the processor takes its own copy
    record.outputMode = static_cast<int16_t>(state.range(2));
    dsp::nonoise::NoNoiseProcess process(&record);
    Channels in = MakeProgramme(channels);
    Channels out = kesta::test::ZeroChannels(channels, kFrames);
    process.Resume();
    for (auto _ : state) {
        kesta::bench::StreamBlocks(in, out, block,
                                   [&process](float** i, float** o, int c, int n) { process.Process(i, o, c, n); });
        benchmark::DoNotOptimize(out[0].data());
        benchmark::ClobberMemory();
    }
    SetRates(state, kFrames, channels, kRate);
}
BENCHMARK(BM_NoNoiseProcess)
    ->ArgNames({"channels", "block", "outputMode"})
    ->Args({2, 4096, 1})
    ->Args({2, 512, 1})
    ->Args({2, 4096, 2})
    ->Args({1, 4096, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The per-frame kernel alone on one stereo frame of the default size (2049 bins per channel):
// the serial smoothing pass and the gains pass, on each code path. Counter: ns per bin and channel.
void BM_NoNoiseFrameKernel(benchmark::State& state) {
    using dsp::nonoise::NOISEREDUCER;
    using dsp::nonoise::detail::KernelPath;
    using dsp::nonoise::detail::Smoothing;
    const auto path = static_cast<KernelPath>(state.range(0));
    const auto mode = static_cast<Smoothing>(state.range(1));
    constexpr int n = 2049;
    kesta::test::Random random(7);
    std::vector<float> re[2], im[2];
    std::vector<double> tables[2][5], row((2 * n + 8) * 2);
    NOISEREDUCER::Group g;
    g.lanes = 2;
    g.smoothed = row.data() + 8;
    for (double& v : row)
        v = 0.004 * random.Uniform();
    for (int lane = 0; lane < 2; ++lane) {
        for (int k = 0; k < n; ++k) {
            re[lane].push_back(static_cast<float>(random.Uniform() - 0.5));
            im[lane].push_back(static_cast<float>(random.Uniform() - 0.5));
            const double lo = 0.003 * random.Uniform(), hi = lo * (1.0 + 3.0 * random.Uniform());
            tables[lane][0].push_back(lo);
            tables[lane][1].push_back(hi);
            tables[lane][2].push_back(hi - lo);
            tables[lane][3].push_back(0.99);
            tables[lane][4].push_back(0.0);
        }
        g.lane[lane] = {tables[lane][0].data(), tables[lane][1].data(), tables[lane][2].data(), tables[lane][3].data(),
                        tables[lane][4].data()};
    }
    // Each pass scales the spectrum down; it is restored before the next (a 32 KB copy, timed
    // too) so the values never drift towards zero and subnormals.
    const std::vector<float> re0[2] = {re[0], re[1]}, im0[2] = {im[0], im[1]};
    float* rePtr[2] = {re[0].data(), re[1].data()};
    float* imPtr[2] = {im[0].data(), im[1].data()};
    for (auto _ : state) {
        for (int lane = 0; lane < 2; ++lane) {
            std::copy(re0[lane].begin(), re0[lane].end(), re[lane].begin());
            std::copy(im0[lane].begin(), im0[lane].end(), im[lane].begin());
        }
        dsp::nonoise::detail::ReduceGroup(rePtr, imPtr, g, n, 4.0 / 4096, mode, 0.65, 0.35, path);
        benchmark::ClobberMemory();
    }
    state.counters["ns_per_bin"] = benchmark::Counter(static_cast<double>(state.iterations()) * 2 * n,
                                                      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_NoNoiseFrameKernel)
    ->ArgNames({"path", "smoothing"})
    ->Args({0, 2})
    ->Args({1, 2})
    ->Args({2, 2})
    ->Args({0, 0});

// A print from a stereo selection of 10 s: (441000 − 4096 − 1) / 1365 = 320 snapshots.
void BM_CaptureNoisePrint(benchmark::State& state) {
    const int channels = 2;
    NONOISE record;
    dsp::nonoise::SetDefaultParameter(&record);
    dsp::nonoise::AllocateArrays(&record);
    Channels x = MakeProgramme(channels);
    std::vector<float*> ptrs(channels);
    for (auto _ : state) {
        dsp::nonoise::CaptureNoisePrint capture(&record);
        capture.SetSelection(0, static_cast<long long>(kFrames));
        capture.Start(nullptr);
        for (std::size_t pos = 0; !capture.IsCompleted();) {
            for (int c = 0; c < channels; ++c)
                ptrs[static_cast<std::size_t>(c)] = x[static_cast<std::size_t>(c)].data() + pos;
            pos += static_cast<std::size_t>(capture.Analyze(ptrs.data(), channels, capture.GetDesiredBlockSize()));
        }
        capture.Done();
        benchmark::DoNotOptimize(capture.GetParam()->binRms[0][100]);
    }
    SetRates(state, kFrames, channels, kRate);
    dsp::nonoise::FreeArrays(&record);
}
BENCHMARK(BM_CaptureNoisePrint)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
