// Hiss reduction speed: NoHissProcess on ten seconds of stereo 44.1 kHz (tones in hiss, thresholds
// from a captured floor by the dehiss tool's default rule, so every region of the gain rule is
// visited), in host-sized blocks; and CaptureNoiseFloor over the same audio. Each reports samples
// per second (frames x channels) and x_realtime = audio seconds / wall seconds on one core.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "dsp/nohiss.h"
#include "support/signals.h"

namespace {

using dsp::nohiss::CaptureNoiseFloor;
using dsp::nohiss::NOHISS;
using dsp::nohiss::NoHissProcess;
using kesta::test::Channels;

constexpr double kRate = 44100.0;
constexpr int kChannels = 2;
constexpr std::size_t kFrames = 10 * 44100;

// Hiss at -40 dBFS RMS with three tones 20, 30 and 40 dB above it.
const Channels& Audio() {
    static const Channels audio = [] {
        Channels x(kChannels);
        for (int c = 0; c < kChannels; ++c) {
            x[static_cast<std::size_t>(c)] = kesta::test::GaussianNoise(kFrames, 500 + static_cast<uint64_t>(c), 0.01);
            const double tones[3][2] = {{440.0, 0.1}, {1000.0, 0.03}, {2500.0, 0.01}};
            for (const auto& tone : tones) {
                const kesta::test::Signal s = kesta::test::Sine(kFrames, tone[0], kRate, tone[1], 0.5 * c);
                for (std::size_t i = 0; i < kFrames; ++i)
                    x[static_cast<std::size_t>(c)][i] += s[i];
            }
        }
        return x;
    }();
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

void Report(benchmark::State& state, std::size_t frames) {
    const double audioSeconds = static_cast<double>(frames) / kRate;
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(frames) * kChannels);
    state.counters["x_realtime"] = benchmark::Counter(audioSeconds, benchmark::Counter::kIsIterationInvariantRate);
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
    std::vector<float*> inP(kChannels), outP(kChannels);
    for (auto _ : state) {
        process.Resume();
        for (std::size_t pos = 0; pos < kFrames; pos += static_cast<std::size_t>(block)) {
            const int n = static_cast<int>(std::min<std::size_t>(static_cast<std::size_t>(block), kFrames - pos));
            for (int c = 0; c < kChannels; ++c) {
                inP[static_cast<std::size_t>(c)] = in[static_cast<std::size_t>(c)].data() + pos;
                outP[static_cast<std::size_t>(c)] = out[static_cast<std::size_t>(c)].data() + pos;
            }
            process.Process(inP.data(), outP.data(), kChannels, n);
        }
        benchmark::DoNotOptimize(out[0].data());
        benchmark::ClobberMemory();
    }
    Report(state, kFrames);
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
    Report(state, kFrames);
    dsp::nohiss::FreeArrays(&record);
}
BENCHMARK(BM_CaptureNoiseFloorStereo)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
