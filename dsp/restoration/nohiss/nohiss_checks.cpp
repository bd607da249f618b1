// Smoke self-check of the hiss family: a floor captured from hiss and the default threshold rule
// take the hiss down by at least 10 dB while a tone keeps its level.

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include "dsp/check_measures.h"
#include "dsp/nohiss.h"
#include "dsp/self_checks.h"

namespace dsp::checks {

namespace {

using nohiss::CaptureNoiseFloor;
using nohiss::NOHISS;
using nohiss::NoHissProcess;

constexpr double kRate = 44100.0;
constexpr int kN = 4096;

// A mono default record with arrays, released on scope exit.
struct MonoRecord {
    NOHISS r{};
    MonoRecord() {
        nohiss::SetDefaultParameter(&r);
        r.channels = 1;
        nohiss::AllocateArrays(&r);
    }
    MonoRecord(const MonoRecord&) = delete;
    MonoRecord& operator=(const MonoRecord&) = delete;
    ~MonoRecord() { nohiss::FreeArrays(&r); }
};

void AddTone(std::vector<float>& x, std::size_t from, double f, double amplitude) {
    for (std::size_t i = from; i < x.size(); ++i)
        x[i] += static_cast<float>(amplitude * std::sin(2.0 * std::numbers::pi * f * static_cast<double>(i) / kRate));
}

// Streams x (plus one frame of silence) from Resume; returns the output aligned with x.
std::vector<float> RunAligned(NoHissProcess& process, std::vector<float> x) {
    const std::size_t frames = x.size();
    x.resize(frames + kN, 0.0f);
    std::vector<float> y(x.size(), 0.0f);
    process.Resume();
    for (std::size_t pos = 0; pos < x.size(); pos += 2048) {
        const int n = static_cast<int>(std::min<std::size_t>(2048, x.size() - pos));
        process.Process(x.data() + pos, y.data() + pos, n);
    }
    return std::vector<float>(y.begin() + kN, y.end());
}

CheckOutcome DefaultThresholdsRemoveHissAndKeepATone() {
    // 1 s of hiss alone (captured), then 1.5 s of the same hiss with a 1 kHz tone 20 dB above it.
    const std::size_t lead = 44100, frames = lead + 66150;
    std::vector<float> x = UniformNoise(frames, 99u, 0.02);
    AddTone(x, lead, 1000.0, 0.1);

    MonoRecord rec;
    CaptureNoiseFloor capture(&rec.r);
    capture.SetSelection(0, static_cast<long long>(lead));
    capture.Start(nullptr);
    std::vector<float> block(kN);
    float* data[1] = {block.data()};
    for (long long pos = 0; !capture.IsCompleted();) {
        const int n = static_cast<int>(std::min<long long>(kN, static_cast<long long>(lead) - pos));
        std::copy_n(x.begin() + pos, n, block.begin());
        pos += capture.Analyze(data, 1, n);
    }
    capture.Done();

    MonoRecord thresholds;
    nohiss::CopyParameter(capture.GetParam(), &thresholds.r);
    nohiss::ComputeThresholdsFromFloor(&thresholds.r);
    NoHissProcess process(&thresholds.r);
    const std::vector<float> y = RunAligned(process, x);

    // Hiss in the hiss-only stretch after the first frame; the tone over its steady part.
    const std::span<const float> in(x), out(y);
    const double hissDb = ToDb(Rms(in.subspan(kN, lead - kN)) / Rms(out.subspan(kN, lead - kN)));
    const std::size_t toneFrom = lead + kN;
    const double toneDb =
        ToDb(LevelAt(out.subspan(toneFrom), 1000.0, kRate) / LevelAt(in.subspan(toneFrom), 1000.0, kRate));
    const bool ok = hissDb >= 10.0 && std::fabs(toneDb) < 1.0;
    return {ok, Format("hiss reduced by %.4g dB (expect >= 10); tone changed by %.4g dB (expect within +-1)", hissDb,
                       toneDb)};
}

}  // namespace

void AddNoHissChecks(CheckSuite& suite) {
    suite.Add("hiss reduction", "default thresholds remove hiss and keep a tone",
              DefaultThresholdsRemoveHissAndKeepATone);
}

}  // namespace dsp::checks
