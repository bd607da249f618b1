// Smoke self-check of the noise-print family: a print captured from white noise lets the
// reduction remove that noise and keep a tone, on a mono 44.1 kHz signal of a few seconds.

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include "dsp/check_measures.h"
#include "dsp/nonoise.h"
#include "dsp/self_checks.h"

namespace dsp::checks {

namespace {

using nonoise::NONOISE;

constexpr int kN = 4096;
constexpr double kRate = 44100.0;
constexpr std::size_t kNoiseOnly = 66150;  // 1.5 s
constexpr std::size_t kFrames = 154350;    // 3.5 s

// Mono record with arrays and defaults; freed on scope exit.
struct MonoRecord {
    MonoRecord() {
        nonoise::SetDefaultParameter(&p);
        p.channels = 1;
        nonoise::AllocateArrays(&p);
    }
    ~MonoRecord() { nonoise::FreeArrays(&p); }
    MonoRecord(const MonoRecord&) = delete;
    MonoRecord& operator=(const MonoRecord&) = delete;
    NONOISE p;
};

// Captures a print of x[0 ... length) into `record`.
void Capture(std::vector<float>& x, std::size_t length, NONOISE* record) {
    nonoise::CaptureNoisePrint capture(record);
    capture.SetSelection(0, static_cast<long long>(length));
    capture.Start(nullptr);
    for (std::size_t pos = 0; !capture.IsCompleted();) {
        float* data = x.data() + pos;
        pos += static_cast<std::size_t>(capture.Analyze(&data, 1, capture.GetDesiredBlockSize()));
    }
    capture.Done();
    nonoise::CopyNoNoise(capture.GetParam(), record, false);
}

std::vector<float> Reduce(const NONOISE* record, std::vector<float> x) {
    nonoise::NoNoiseProcess process(record);
    process.Resume();
    std::vector<float> y(x.size(), 0.0f);
    for (std::size_t pos = 0; pos < x.size(); pos += 4096) {
        const int n = static_cast<int>(std::min<std::size_t>(4096, x.size() - pos));
        float* in = x.data() + pos;
        float* out = y.data() + pos;
        process.Process(&in, &out, 1, n);
    }
    return y;
}

// Noise 30 dB below a 0.2-amplitude tone at 1 kHz that enters after the noise-only stretch.
std::vector<float> Programme() {
    // Uniform noise of RMS r has amplitude r sqrt(3).
    const double noiseRms = 0.2 / std::sqrt(2.0) * std::pow(10.0, -30.0 / 20.0);
    std::vector<float> x = UniformNoise(kFrames, 4242u, noiseRms * std::sqrt(3.0));
    for (std::size_t n = kNoiseOnly; n < kFrames; ++n)
        x[n] += static_cast<float>(0.2 * std::sin(2.0 * std::numbers::pi * 1000.0 * static_cast<double>(n) / kRate));
    return x;
}

CheckOutcome PrintedNoiseIsRemovedAndToneKept() {
    std::vector<float> x = Programme();
    MonoRecord record;
    Capture(x, kNoiseOnly, &record.p);
    const std::vector<float> y = Reduce(&record.p, x);
    const std::size_t d = kN;  // latency
    const std::size_t noiseFrom = 4410, noiseTo = 59535, toneFrom = 88200;
    const std::span<const float> in(x), out(y);
    const double reductionDb =
        ToDb(Rms(in.subspan(noiseFrom, noiseTo - noiseFrom)) / Rms(out.subspan(noiseFrom + d, noiseTo - noiseFrom)));
    const double toneDb = ToDb(LevelAt(out.subspan(toneFrom + d), 1000.0, kRate) /
                               LevelAt(in.subspan(toneFrom, kFrames - toneFrom - d), 1000.0, kRate));
    const bool ok = reductionDb >= 20.0 && std::fabs(toneDb) <= 0.5;
    return {ok, Format("noise-only stretch falls by %.3g dB (bound 20); 1 kHz tone changes by %.3g dB (bound 0.5)",
                       reductionDb, toneDb)};
}

}  // namespace

void AddNoNoiseChecks(CheckSuite& suite) {
    suite.Add("nonoise", "printed noise removed, tone kept", PrintedNoiseIsRemovedAndToneKept);
}

}  // namespace dsp::checks
