// Real-time factors of silence finding and removal, the averaged spectrum and the drawn-curve
// filter on 20 s of stereo 44.1 kHz (tones over noise with quiet gaps), one core. Where SoX or
// FFmpeg do the same job (sox silence, sox stat -freq, ffmpeg silencedetect) the same audio is
// written to a WAV file once and the tool is timed on it in the same run: its figure includes
// starting the process and reading the file, ours does not.

#include <benchmark/benchmark.h>
#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_support.h"
#include "dsp/frequency_analysis.h"
#include "dsp/silence.h"

namespace {

using kesta::bench::Channels;
using kesta::bench::SetRates;

constexpr double kRate = 44100.0;
constexpr std::size_t kFrames = 20 * 44100;

// Tones over noise with a 0.8 s gap of a -80 dBFS floor every 3 s.
const Channels& Programme() {
    static const Channels x = [] {
        Channels y = kesta::bench::TonesOverNoise(2, kFrames, kRate, 3, 0.02, [](int c) {
            return std::vector<kesta::bench::Tone>{{440.0 + 110.0 * c, 0.2}, {2500.0, 0.05}};
        });
        const kesta::test::Signal floor = kesta::test::GaussianNoise(kFrames, 99, 1e-4);
        for (auto& s : y)
            for (std::size_t n = 0; n < kFrames; ++n)
                if (n % (3 * 44100) >= 2 * 44100 + 6615) s[n] = floor[n];
        return y;
    }();
    return x;
}

std::vector<float*> Pointers(const Channels& x, std::size_t at) {
    std::vector<float*> p;
    for (const auto& s : x)
        p.push_back(const_cast<float*>(s.data()) + at);
    return p;
}

dsp::nosilence::NOSILENCE Settings() {
    dsp::nosilence::NOSILENCE s;
    s.thresholdDb = -50.0;
    s.minimumSeconds = 0.5;
    return s;
}

std::vector<dsp::utils::Range> FindAll() {
    dsp::nosilence::FindSilence find(Settings(), static_cast<int>(kRate), 2);
    find.SetSelection(0, kFrames);
    find.Start(nullptr);
    for (std::size_t at = 0; at < kFrames; at += 4096)
        find.Analyze(Pointers(Programme(), at).data(), 2, static_cast<int>(std::min<std::size_t>(4096, kFrames - at)));
    find.Done();
    return find.GetRanges(0);
}

void BM_FindSilence(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(FindAll().size());
    SetRates(state, kFrames, 2, kRate);
}
BENCHMARK(BM_FindSilence)->Unit(benchmark::kMillisecond);

void BM_DeleteSilence(benchmark::State& state) {
    const std::vector<dsp::utils::Range> ranges = FindAll();
    Channels out(2, kesta::test::Signal(4096));
    std::vector<float*> o = {out[0].data(), out[1].data()};
    for (auto _ : state) {
        dsp::nosilence::DeleteSilence del(ranges, 0, kFrames, 220, 2);
        del.Start();
        for (std::size_t at = 0; at < kFrames; at += 4096)
            del.Process(Pointers(Programme(), at).data(), o.data(), 2,
                        static_cast<int>(std::min<std::size_t>(4096, kFrames - at)));
        benchmark::DoNotOptimize(out[0][0]);
    }
    SetRates(state, kFrames, 2, kRate);
}
BENCHMARK(BM_DeleteSilence)->Unit(benchmark::kMillisecond);

void BM_FrequencyAnalysisWorker(benchmark::State& state) {
    const int size = static_cast<int>(state.range(0));
    dsp::FrequencyAnalysisWorker worker;
    worker.Init(size, dsp::FrequencyAnalysisWorker::Hann, 2);
    std::vector<double> levels(static_cast<std::size_t>(worker.GetBinCount()));
    for (auto _ : state) {
        worker.Reset();
        for (std::size_t at = 0; at < kFrames; at += 4096) {
            const auto p = Pointers(Programme(), at);
            worker.Add(p.data(), 2, static_cast<int>(std::min<std::size_t>(4096, kFrames - at)));
        }
        worker.Finish();
        worker.GetSpectrumDb(-1, levels.data());
        benchmark::DoNotOptimize(levels[1]);
    }
    SetRates(state, kFrames, 2, kRate);
}
BENCHMARK(BM_FrequencyAnalysisWorker)->Arg(4096)->Arg(32768)->Unit(benchmark::kMillisecond);

void BM_FFTFilt(benchmark::State& state) {
    dsp::FFTFilt filter;
    filter.Init(2, kRate, {{100.0, 0.0}, {300.0, 6.0}, {1000.0, -3.0}, {8000.0, 4.0}, {15000.0, -10.0}});
    Channels out(2, kesta::test::Signal(4096));
    std::vector<float*> o = {out[0].data(), out[1].data()};
    for (auto _ : state) {
        for (std::size_t at = 0; at < kFrames; at += 4096)
            filter.Process(Pointers(Programme(), at).data(), o.data(), 2,
                           static_cast<int>(std::min<std::size_t>(4096, kFrames - at)));
        benchmark::DoNotOptimize(out[0][0]);
    }
    state.counters["taps"] = filter.GetTaps();
    SetRates(state, kFrames, 2, kRate);
}
BENCHMARK(BM_FFTFilt)->Unit(benchmark::kMillisecond);

// The programme as a float WAV file, written once.
const std::string& ProgrammeFile() {
    static const std::string path = [] {
        std::string p = "/tmp/kesta_bench_silence_" + std::to_string(::getpid()) + ".wav";
        SF_INFO info{};
        info.samplerate = static_cast<int>(kRate);
        info.channels = 2;
        info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
        SNDFILE* f = sf_open(p.c_str(), SFM_WRITE, &info);
        std::vector<float> interleaved(2 * kFrames);
        for (std::size_t n = 0; n < kFrames; ++n)
            for (std::size_t c = 0; c < 2; ++c)
                interleaved[2 * n + c] = Programme()[c][n];
        sf_writef_float(f, interleaved.data(), static_cast<sf_count_t>(kFrames));
        sf_close(f);
        std::atexit([] { std::remove(ProgrammeFile().c_str()); });
        return p;
    }();
    return path;
}

// Times a shell command on the programme file ("{}" stands for its path); skipped when the tool
// is missing.
void RunTool(benchmark::State& state, const char* tool, const std::string& pattern) {
    if (std::system((std::string("command -v ") + tool + " >/dev/null 2>&1").c_str()) != 0) {
        state.SkipWithError((std::string(tool) + " is not installed").c_str());
        return;
    }
    std::string command = pattern;
    command.replace(command.find("{}"), 2, ProgrammeFile());
    for (auto _ : state)
        if (std::system(command.c_str()) != 0) {
            state.SkipWithError(("failed: " + command).c_str());
            return;
        }
    SetRates(state, kFrames, 2, kRate);
}

void BM_SoxSilence(benchmark::State& state) {
    RunTool(state, "sox", "sox {} -n silence 1 0.5 -50d -1 0.5 -50d 2>/dev/null");
}
BENCHMARK(BM_SoxSilence)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FfmpegSilencedetect(benchmark::State& state) {
    RunTool(state, "ffmpeg", "ffmpeg -nostdin -v quiet -i {} -af silencedetect=n=-50dB:d=0.5 -f null - 2>/dev/null");
}
BENCHMARK(BM_FfmpegSilencedetect)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FfmpegSilenceremove(benchmark::State& state) {
    RunTool(state, "ffmpeg",
            "ffmpeg -nostdin -v quiet -i {} -af silenceremove=stop_periods=-1:stop_duration=0.5:stop_threshold=-50dB "
            "-f null - 2>/dev/null");
}
BENCHMARK(BM_FfmpegSilenceremove)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_SoxStatFreq(benchmark::State& state) {
    RunTool(state, "sox", "sox {} -n stat -freq >/dev/null 2>&1");
}
BENCHMARK(BM_SoxStatFreq)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
