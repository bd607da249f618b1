// Self-checks of the hiss reducer: with no thresholds the process is a pure delay of one frame; a
// tone under the knee is scaled by the floor gain 10^(-reductionDb/40); a silent capture reads
// -400 dB; and the tool's default threshold rule takes hiss down by at least 10 dB while a tone
// keeps its level. Expectations are analytic (a delayed copy, a known gain, a tone's amplitude).

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

CheckOutcome ZeroThresholdsAreADelayOfOneFrame() {
    MonoRecord rec;
    NoHissProcess process(&rec.r);
    const std::vector<float> x = UniformNoise(20000, 4242u, 0.9);
    const std::vector<float> y = RunAligned(process, x);
    double error = 0.0;
    for (std::size_t i = 0; i < x.size(); ++i)
        error = std::max(error, std::fabs(static_cast<double>(y[i]) - x[i]));
    const bool ok = error <= 1e-5 && process.GetLatency() == kN;
    return {ok, Format("latency %d (expect 4096); max error against the input delayed by 4096 %.4g (bound 1e-5)",
                       process.GetLatency(), error)};
}

CheckOutcome ToneUnderTheKneeIsScaledByTheFloorGain() {
    MonoRecord rec;
    std::fill_n(rec.r.thresholdRows[0], kN, 1.0f);
    NoHissProcess process(&rec.r);
    std::vector<float> x(30000, 0.0f);
    AddTone(x, 0, 3000.0, 0.01);
    const std::vector<float> y = RunAligned(process, x);
    const double measuredDb = 20.0 * std::log10(ToneAmplitude(y.data() + kN, x.size() - kN, 3000.0, kRate) / 0.01);
    const double expectedDb = -24.0 / 2.0;  // 20 log10(10^(-24/40))
    const bool ok = std::fabs(measuredDb - expectedDb) <= 0.02;
    return {ok, Format("tone below the knee %.4g dB (expect %.4g +- 0.02)", measuredDb, expectedDb)};
}

CheckOutcome SilentCaptureReadsMinus400Db() {
    MonoRecord rec;
    CaptureNoiseFloor capture(&rec.r);
    std::vector<float> silence(kN, 0.0f);
    float* data[1] = {silence.data()};
    capture.SetSelection(0, 10000);
    capture.Start(nullptr);
    while (!capture.IsCompleted())
        capture.Analyze(data, 1, kN);
    capture.Done();
    const double level = capture.GetParam()->floorLevel[0];
    const double peak = *std::max_element(capture.GetParam()->floorRows[0], capture.GetParam()->floorRows[0] + kN);
    const bool ok = level == -400.0 && peak == 0.0;
    return {ok, Format("floor level %.4g dB (expect -400); largest floor entry %.4g (expect 0)", level, peak)};
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
    const double hissDb = 20.0 * std::log10(Rms(x.data() + kN, lead - kN) / Rms(y.data() + kN, lead - kN));
    const std::size_t toneFrom = lead + kN;
    const double toneDb = 20.0 * std::log10(ToneAmplitude(y.data() + toneFrom, frames - toneFrom, 1000.0, kRate) /
                                            ToneAmplitude(x.data() + toneFrom, frames - toneFrom, 1000.0, kRate));
    const bool ok = hissDb >= 10.0 && std::fabs(toneDb) < 1.0;
    return {ok, Format("hiss reduced by %.4g dB (expect >= 10); tone changed by %.4g dB (expect within +-1)", hissDb,
                       toneDb)};
}

}  // namespace

void AddNoHissChecks(CheckSuite& suite) {
    suite.Add("hiss reduction", "zero thresholds delay by exactly one frame", ZeroThresholdsAreADelayOfOneFrame);
    suite.Add("hiss reduction", "tone under the knee scaled by 10^(-reduction/40)",
              ToneUnderTheKneeIsScaledByTheFloorGain);
    suite.Add("hiss reduction", "silent capture reads -400 dB", SilentCaptureReadsMinus400Db);
    suite.Add("hiss reduction", "default thresholds remove hiss and keep a tone",
              DefaultThresholdsRemoveHissAndKeepATone);
}

}  // namespace dsp::checks
