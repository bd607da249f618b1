// Self-checks of the hiss reducer: with no thresholds the process is a pure delay of one frame; a
// tone under the knee is scaled by the floor gain 10^(-reductionDb/40); a silent capture reads
// -400 dB; and the tool's default threshold rule takes hiss down by at least 10 dB while a tone
// keeps its level. Expectations are analytic (a delayed copy, a known gain, a tone's amplitude).

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <numbers>
#include <string>
#include <vector>

#include "dsp/nohiss.h"
#include "dsp/self_checks.h"

namespace dsp::checks {

namespace {

using nohiss::CaptureNoiseFloor;
using nohiss::NOHISS;
using nohiss::NoHissProcess;

constexpr double kRate = 44100.0;
constexpr int kN = 4096;

std::string Format(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.4g", value);
    return text;
}

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

// Uniform noise in [-amplitude, amplitude) from a fixed linear congruential sequence.
std::vector<float> Noise(std::size_t frames, uint32_t seed, double amplitude) {
    std::vector<float> x(frames);
    uint32_t state = seed;
    for (float& v : x) {
        state = state * 1664525u + 1013904223u;
        v = static_cast<float>(amplitude * (static_cast<double>(state) / 2147483648.0 - 1.0));
    }
    return x;
}

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

// Amplitude of the tone at f in x[from, to) by least squares on sin and cos under a
// Blackman-Harris weight (keeps other components out).
double ToneAmplitude(const std::vector<float>& x, std::size_t from, std::size_t to, double f) {
    const double w0 = 2.0 * std::numbers::pi * f / kRate;
    const std::size_t n = to - from;
    double ss = 0, cc = 0, sc = 0, xs = 0, xc = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const double t = 2.0 * std::numbers::pi * static_cast<double>(i) / static_cast<double>(n - 1);
        const double w = 0.35875 - 0.48829 * std::cos(t) + 0.14128 * std::cos(2 * t) - 0.01168 * std::cos(3 * t);
        const double s = std::sin(w0 * static_cast<double>(from + i));
        const double c = std::cos(w0 * static_cast<double>(from + i));
        const double v = x[from + i];
        ss += w * s * s;
        cc += w * c * c;
        sc += w * s * c;
        xs += w * v * s;
        xc += w * v * c;
    }
    const double det = ss * cc - sc * sc;
    const double a = (xs * cc - xc * sc) / det;
    const double b = (xc * ss - xs * sc) / det;
    return std::sqrt(a * a + b * b);
}

double Rms(const std::vector<float>& x, std::size_t from, std::size_t to) {
    double sum = 0.0;
    for (std::size_t i = from; i < to; ++i)
        sum += static_cast<double>(x[i]) * x[i];
    return std::sqrt(sum / static_cast<double>(to - from));
}

CheckOutcome ZeroThresholdsAreADelayOfOneFrame() {
    MonoRecord rec;
    NoHissProcess process(&rec.r);
    const std::vector<float> x = Noise(20000, 4242u, 0.9);
    const std::vector<float> y = RunAligned(process, x);
    double error = 0.0;
    for (std::size_t i = 0; i < x.size(); ++i)
        error = std::max(error, std::fabs(static_cast<double>(y[i]) - x[i]));
    const bool ok = error <= 1e-5 && process.GetLatency() == kN;
    return {ok, "latency " + std::to_string(process.GetLatency()) + " (expect 4096); max error against the input " +
                    "delayed by 4096 " + Format(error) + " (bound 1e-5)"};
}

CheckOutcome ToneUnderTheKneeIsScaledByTheFloorGain() {
    MonoRecord rec;
    std::fill_n(rec.r.thresholdRows[0], kN, 1.0f);
    NoHissProcess process(&rec.r);
    std::vector<float> x(30000, 0.0f);
    AddTone(x, 0, 3000.0, 0.01);
    const std::vector<float> y = RunAligned(process, x);
    const double measuredDb = 20.0 * std::log10(ToneAmplitude(y, kN, x.size(), 3000.0) / 0.01);
    const double expectedDb = -24.0 / 2.0;  // 20 log10(10^(-24/40))
    const bool ok = std::fabs(measuredDb - expectedDb) <= 0.02;
    return {ok, "tone below the knee " + Format(measuredDb) + " dB (expect " + Format(expectedDb) + " +- 0.02)"};
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
    return {ok,
            "floor level " + Format(level) + " dB (expect -400); largest floor entry " + Format(peak) + " (expect 0)"};
}

CheckOutcome DefaultThresholdsRemoveHissAndKeepATone() {
    // 1 s of hiss alone (captured), then 1.5 s of the same hiss with a 1 kHz tone 20 dB above it.
    const std::size_t lead = 44100, frames = lead + 66150;
    std::vector<float> x = Noise(frames, 99u, 0.02);
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
    const double hissDb = 20.0 * std::log10(Rms(x, kN, lead) / Rms(y, kN, lead));
    const double toneDb =
        20.0 * std::log10(ToneAmplitude(y, lead + kN, frames, 1000.0) / ToneAmplitude(x, lead + kN, frames, 1000.0));
    const bool ok = hissDb >= 10.0 && std::fabs(toneDb) < 1.0;
    return {ok, "hiss reduced by " + Format(hissDb) + " dB (expect >= 10); tone changed by " + Format(toneDb) +
                    " dB (expect within +-1)"};
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
