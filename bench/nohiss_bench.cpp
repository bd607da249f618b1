// Hiss reduction speed: NoHissProcess on ten seconds of stereo 44.1 kHz (tones in hiss, thresholds
// from a captured floor by the dehiss tool's default rule, so every region of the gain rule is
// visited), in host-sized blocks; and CaptureNoiseFloor over the same audio.
//
// Counters: x_realtime = seconds of audio handled per second of wall time; samples_per_second
// counts every channel's samples; items_per_second counts frames.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "bench_support.h"
#include "dsp/nohiss.h"
#include "support/signals.h"

namespace {

using dsp::nohiss::CaptureNoiseFloor;
using dsp::nohiss::NOHISS;
using dsp::nohiss::NoHissProcess;
using kesta::bench::SetRates;
using kesta::bench::Tone;
using kesta::test::Channels;

constexpr double kRate = 44100.0;
constexpr int kChannels = 2;
constexpr std::size_t kFrames = 10 * 44100;

// Hiss at -40 dBFS RMS with three tones 20, 30 and 40 dB above it.
const Channels& Audio() {
    static const Channels audio = kesta::bench::TonesOverNoise(kChannels, kFrames, kRate, 500, 0.01, [](int c) {
        return std::vector<Tone>{{440.0, 0.1, 0.5 * c}, {1000.0, 0.03, 0.5 * c}, {2500.0, 0.01, 0.5 * c}};
    });
    return audio;
}

// Runs the capture over the first `frames` frames of the audio (its record holds the result).
void Capture(CaptureNoiseFloor& capture, std::size_t frames) {
    const Channels& x = Audio();
    const int N = capture.GetDesiredBlockSize();
    std::vector<float*> data(kChannels);
    capture.SetSelection(0, static_cast<long long>(frames));
    capture.Start(nullptr);
    for (long long pos = 0; !capture.IsCompleted();) {
        for (int c = 0; c < kChannels; ++c)
            data[static_cast<std::size_t>(c)] = const_cast<float*>(x[static_cast<std::size_t>(c)].data()) + pos;
        const int n = static_cast<int>(std::min<long long>(N, static_cast<long long>(kFrames) - pos));
        pos += capture.Analyze(data.data(), kChannels, n);
    }
    capture.Done();
}

void BM_NoHissProcessStereo(benchmark::State& state) {
    const int block = static_cast<int>(state.range(0));
    NOHISS record{};
    dsp::nohiss::SetDefaultParameter(&record);
    dsp::nohiss::AllocateArrays(&record);
    {
        CaptureNoiseFloor capture(&record);
        Capture(capture, 44100);
        dsp::nohiss::CopyParameter(capture.GetParam(), &record);
    }
    dsp::nohiss::ComputeThresholdsFromFloor(&record);
    NoHissProcess process(&record);

    Channels in = Audio();
    Channels out = kesta::test::ZeroChannels(kChannels, kFrames);
    for (auto _ : state) {
        process.Resume();
        kesta::bench::StreamBlocks(in, out, block,
                                   [&process](float** i, float** o, int c, int n) { process.Process(i, o, c, n); });
        benchmark::DoNotOptimize(out[0].data());
        benchmark::ClobberMemory();
    }
    SetRates(state, kFrames, kChannels, kRate);
    dsp::nohiss::FreeArrays(&record);
}
BENCHMARK(BM_NoHissProcessStereo)->Arg(512)->Arg(4096)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CaptureNoiseFloorStereo(benchmark::State& state) {
    NOHISS record{};
    dsp::nohiss::SetDefaultParameter(&record);
    dsp::nohiss::AllocateArrays(&record);
    CaptureNoiseFloor capture(&record);
    for (auto _ : state) {
        Capture(capture, kFrames);
        benchmark::DoNotOptimize(capture.GetParam()->floorRows[0]);
    }
    SetRates(state, kFrames, kChannels, kRate);
    dsp::nohiss::FreeArrays(&record);
}
BENCHMARK(BM_CaptureNoiseFloorStereo)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
