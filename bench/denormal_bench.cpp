// Speed of every recursive or spectral processor on a decaying tail into silence, relative to its
// speed on programme material. A tail is where unguarded recursions fall into denormal numbers,
// which many CPUs handle a hundred times slower than normal ones; the goal is a tail handled at
// least 90 % as fast as programme.
//
// Both signals are two seconds of stereo 44.1 kHz in 512-frame blocks through one object that
// keeps streaming from iteration to iteration. Programme: tones over noise. Tail: 100 ms of the
// same programme, then the programme fading exponentially through the denormal range to exact
// zeros over 500 ms, then silence; every iteration starts again with the burst, so every iteration
// meets the decay. Output: one Google Benchmark line per class and signal, then a table of
// tail speed / programme speed.

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench_support.h"
#include "dsp/adaptive_noise.h"
#include "dsp/desk_filter.h"
#include "dsp/graphic.h"
#include "dsp/hard_limit.h"
#include "dsp/noclick.h"
#include "dsp/noclip.h"
#include "dsp/nohiss.h"
#include "dsp/nonoise.h"
#include "dsp/parametric.h"
#include "dsp/resample.h"
#include "dsp/second_order_iir_filter.h"
#include "dsp/stereo_expander.h"

namespace {

using kesta::bench::Tone;
using kesta::test::Channels;

constexpr double kRate = 44100.0;
constexpr int kChannels = 2;
constexpr std::size_t kFrames = 2 * 44100;
constexpr int kBlock = 512;

const Channels& Programme() {
    static const Channels audio = kesta::bench::TonesOverNoise(kChannels, kFrames, kRate, 900, 0.02, [](int c) {
        return std::vector<Tone>{{220.0 + 110.0 * c, 0.3}, {1800.0, 0.05, 0.3 * c}, {7000.0, 0.02}};
    });
    return audio;
}

const Channels& Tail() {
    static const Channels audio = [] {
        constexpr std::size_t kBurst = 4410, kDecay = 22050;
        // Down by 10^-42 over the decay: past the smallest normal float (about 1.2e-38) and on
        // to exact zero.
        const double step = std::pow(10.0, -42.0 / kDecay);
        Channels x = Programme();
        for (auto& s : x) {
            double gain = 1.0;
            for (std::size_t n = kBurst; n < kFrames; ++n) {
                gain = n < kBurst + kDecay ? gain * step : 0.0;
                s[n] = static_cast<float>(s[n] * gain);
            }
        }
        return x;
    }();
    return audio;
}

// A processor behind one call: channel pointers in and out, frames; it owns what it needs.
using Runner = std::function<void(float** in, float** out, int frames)>;

template <class T>
Runner Processing(std::shared_ptr<T> p) {
    return [p](float** in, float** out, int n) { p->Process(in, out, kChannels, n); };
}

template <class T>
Runner PerChannel(std::shared_ptr<std::vector<T>> objects, void (*one)(T&, float*, float*, int)) {
    return [objects, one](float** in, float** out, int n) {
        for (std::size_t c = 0; c < objects->size(); ++c)
            one((*objects)[c], in[c], out[c], n);
    };
}

Runner MakeParametric() {
    using dsp::Parametric;
    auto p = std::make_shared<Parametric>();
    p->SetChannels(kChannels);
    p->SetParameter(Parametric::kLowShelfGain, 6.0f);
    p->SetParameter(Parametric::kHighShelfGain, -6.0f);
    p->SetParameter(Parametric::kHighPassOn, 1.0f);
    p->SetParameter(Parametric::kLowPassOn, 1.0f);
    for (int band = 0; band < Parametric::kBandCount; ++band) {
        p->SetParameter(Parametric::BandParameter(band, Parametric::kBandGain), band % 2 ? -9.0f : 9.0f);
        p->SetParameter(Parametric::BandParameter(band, Parametric::kBandOn), 1.0f);
    }
    p->SetSampleRate(static_cast<int>(kRate));
    p->Resume();
    return Processing(p);
}

Runner MakeGraphic() {
    using dsp::Graphic;
    auto p = std::make_shared<Graphic>();
    p->SetChannels(kChannels);
    p->SetSampleRate(static_cast<int>(kRate));
    for (int band = 0; band < Graphic::kMaxBands; ++band)
        p->SetParameter(Graphic::kFirstBand + band, static_cast<float>((band * 7) % 25 - 12));
    p->UpdateImpulses();
    return Processing(p);
}

Runner MakeDeskFilter(bool doublePrecision, bool stateVariable) {
    auto filters = std::make_shared<std::vector<dsp::fDeskFilter>>(kChannels);
    for (dsp::fDeskFilter& f : *filters) {
        f.ShiftGears(dsp::kFilterPeak, doublePrecision, false);
        f.setStateVariable(stateVariable);
        f.Setup(static_cast<float>(kRate), 120.0f, 9.0f, 4.0f, 0.0f, 0.0f);
    }
    return PerChannel<dsp::fDeskFilter>(filters, [](dsp::fDeskFilter& f, float* x, float* y, int n) {
        std::copy_n(x, n, y);
        f.processInplace(y, n);
    });
}

Runner MakeResonator() {
    auto filters = std::make_shared<std::vector<dsp::SecondOrderIIRFilter>>(kChannels);
    const double radius = 0.999, angle = 0.02;
    dsp::SecondOrderIIRCoefficients k;
    k.a1 = -2.0 * radius * std::cos(angle);
    k.a2 = radius * radius;
    k.b0 = 1.0 - radius;
    k.b2 = -(1.0 - radius);
    for (auto& f : *filters)
        f.SetCoefficients(k);
    return PerChannel<dsp::SecondOrderIIRFilter>(
        filters, [](dsp::SecondOrderIIRFilter& f, float* x, float* y, int n) { f.Process(x, y, std::size_t(n)); });
}

Runner MakeHardLimit() {
    auto p = std::make_shared<dsp::HardLimit>();
    p->SetChannels(kChannels);
    p->SetSampleRate(static_cast<int>(kRate));
    p->SetParameter(dsp::HardLimit::kInputGain, 12.0f);
    p->Resume();
    return [p](float** in, float** out, int n) { p->Process(in, out, n); };
}

Runner MakeStereoExpander() {
    auto p = std::make_shared<dsp::StereoExpanderDSP>();
    p->SetChannels(kChannels);
    p->SetSampleRate(static_cast<int>(kRate));
    p->SetParameter(dsp::StereoExpanderDSP::kWidth, 170.0f);
    p->Resume();
    return [p](float** in, float** out, int n) { p->Process(in, out, n); };
}

Runner MakeNoNoise() {
    using dsp::nonoise::NONOISE;
    auto record = std::shared_ptr<NONOISE>(new NONOISE, [](NONOISE* r) {
        dsp::nonoise::FreeArrays(r);
        delete r;
    });
    dsp::nonoise::SetDefaultParameter(record.get());
    record->channels = kChannels;
    record->fftSize = 2048;
    dsp::nonoise::AllocateArrays(record.get());
    // The programme's noise: flat, about its per-bin magnitude, spread an octave each way.
    const double level = 0.02 * std::sqrt(2048.0) / 2.0;
    for (int c = 0; c < kChannels; ++c)
        for (int k = 0; k < record->fftSize; ++k) {
            record->binMin[c][k] = 0.5 * level;
            record->binRms[c][k] = level;
            record->binMax[c][k] = 2.0 * level;
        }
    auto p = std::make_shared<dsp::nonoise::NoNoiseProcess>(record.get());
    p->Resume();
    auto keep = std::make_shared<std::pair<std::shared_ptr<NONOISE>, decltype(p)>>(record, p);
    return [keep](float** in, float** out, int n) { keep->second->Process(in, out, kChannels, n); };
}

Runner MakeNoHiss() {
    using dsp::nohiss::NOHISS;
    auto record = std::shared_ptr<NOHISS>(new NOHISS, [](NOHISS* r) {
        dsp::nohiss::FreeArrays(r);
        delete r;
    });
    dsp::nohiss::SetDefaultParameter(record.get());
    record->channels = kChannels;
    record->fftSize = 2048;
    dsp::nohiss::AllocateArrays(record.get());
    for (int c = 0; c < kChannels; ++c)
        for (int k = 0; k < record->fftSize; ++k)
            record->floorRows[c][k] = 0.02 * std::sqrt(2048.0) / 4.0;
    dsp::nohiss::ComputeThresholdsFromFloor(record.get());
    auto p = std::make_shared<dsp::nohiss::NoHissProcess>(record.get());
    p->Resume();
    auto keep = std::make_shared<std::pair<std::shared_ptr<NOHISS>, decltype(p)>>(record, p);
    return [keep](float** in, float** out, int n) { keep->second->Process(in, out, kChannels, n); };
}

Runner MakeAdaptive() {
    auto p = std::make_shared<dsp::AdaptiveNoise>(kChannels, static_cast<int>(kRate));
    p->Resume();
    return Processing(p);
}

// Short ranges every 2205 frames for far longer than any run streams, so repairs go on throughout.
std::vector<std::vector<dsp::utils::Range>> RepairEverywhere() {
    std::vector<dsp::utils::Range> list;
    for (int64_t at = 3000; at < (int64_t{1} << 27); at += 2205)
        list.push_back({at, 4 + static_cast<int32_t>(at % 7), 0});
    return {list, list};
}

Runner MakeReplaceClicks() {
    dsp::noclick::NOCLICK record;
    dsp::noclick::SetDefaultParameter(&record);
    record.channels = kChannels;
    dsp::noclick::AllocateArrays(&record);
    record.repairClicks = RepairEverywhere();
    auto p = std::make_shared<dsp::noclick::ReplaceClicks>(&record);
    p->SetSelection(0, int64_t{1} << 40);
    p->Start();
    return Processing(p);
}

Runner MakeRepairClipping() {
    dsp::noclip::NOCLIPPING record;
    dsp::noclip::SetDefaultParameter(&record);
    record.channels = kChannels;
    record.useFFT = true;
    dsp::noclip::AllocateArrays(&record);
    record.repairClips = RepairEverywhere();
    auto p = std::make_shared<dsp::noclip::RepairClipping>(&record);
    p->SetSelection(0, int64_t{1} << 40);
    p->Start();
    return Processing(p);
}

Runner MakeResample() {
    auto converters = std::make_shared<std::vector<dsp::Resample>>(kChannels);
    for (auto& r : *converters) {
        r.SetSampleRates(static_cast<int>(kRate), 48000);
        r.Initialize();
    }
    // Output room for the largest block.
    auto room =
        std::make_shared<std::vector<float>>(static_cast<std::size_t>((*converters)[0].GetOutputBufferSize(kBlock)));
    return [converters, room](float** in, float**, int n) {
        for (std::size_t c = 0; c < converters->size(); ++c)
            (*converters)[c].Process(in[c], room->data(), n);
    };
}

const std::vector<std::pair<std::string, std::function<Runner()>>>& Classes() {
    static const std::vector<std::pair<std::string, std::function<Runner()>>> classes = {
        {"Parametric", MakeParametric},
        {"Graphic", MakeGraphic},
        {"fDeskFilter", [] { return MakeDeskFilter(false, false); }},
        {"fDeskFilter double", [] { return MakeDeskFilter(true, false); }},
        {"fDeskFilter state variable", [] { return MakeDeskFilter(false, true); }},
        {"SecondOrderIIRFilter", MakeResonator},
        {"HardLimit", MakeHardLimit},
        {"StereoExpanderDSP", MakeStereoExpander},
        {"NoNoiseProcess", MakeNoNoise},
        {"NoHissProcess", MakeNoHiss},
        {"AdaptiveNoise", MakeAdaptive},
        {"ReplaceClicks", MakeReplaceClicks},
        {"RepairClipping", MakeRepairClipping},
        {"Resample", MakeResample},
    };
    return classes;
}

void Stream(benchmark::State& state, const std::function<Runner()>& make, const Channels& (*signal)()) {
    const Channels& in = signal();
    Channels out(kChannels, kesta::test::Signal(kFrames));
    const Runner run = make();
    for (auto _ : state) {
        kesta::bench::StreamBlocks(in, out, kBlock, [&](float** x, float** y, int, int n) { run(x, y, n); });
        benchmark::DoNotOptimize(out[0].data());
    }
    kesta::bench::SetRates(state, kFrames, kChannels, kRate);
}

// Collects each run's CPU time per iteration by name, for the ratio table (CPU time, so that other
// programs sharing the machine do not enter the ratio).
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs)
            if (run.run_type == Run::RT_Iteration) {
                const std::string name = run.benchmark_name();
                mSeconds[name.substr(0, name.find("/min_time"))] = run.GetAdjustedCPUTime();
            }
        ConsoleReporter::ReportRuns(runs);
    }
    double Seconds(const std::string& name) const {
        const auto at = mSeconds.find(name);
        return at == mSeconds.end() ? 0.0 : at->second;
    }

private:
    std::map<std::string, double> mSeconds;
};

}  // namespace

int main(int argc, char** argv) {
    for (const auto& [name, make] : Classes()) {
        benchmark::RegisterBenchmark((name + "/programme").c_str(),
                                     [make](benchmark::State& s) { Stream(s, make, Programme); })
            ->Unit(benchmark::kMillisecond)
            ->MinTime(0.3);
        benchmark::RegisterBenchmark((name + "/tail").c_str(), [make](benchmark::State& s) { Stream(s, make, Tail); })
            ->Unit(benchmark::kMillisecond)
            ->MinTime(0.3);
    }
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\n%-30s %14s %14s %14s\n", "class", "programme CPU ms", "tail CPU ms", "tail speed");
    for (const auto& [name, make] : Classes()) {
        const double programme = reporter.Seconds(name + "/programme"), tail = reporter.Seconds(name + "/tail");
        if (programme <= 0.0 || tail <= 0.0) continue;
        std::printf("%-30s %14.3f %14.3f %13.0f%%%s\n", name.c_str(), programme, tail, 100.0 * programme / tail,
                    programme / tail < 0.9 ? "  below 90%" : "");
    }
    benchmark::Shutdown();
    return 0;
}
