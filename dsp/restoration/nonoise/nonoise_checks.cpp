// Self-checks of the noise-print family: a captured tone reads its analytic magnitude; a print of
// white noise lets the reduction remove that noise and keep a tone; cleaned plus removed output
// rebuilds the input; reduction 0 is a pure delay. Expectations are analytic (a sine's windowed
// magnitude, a delayed copy, level ratios), on a mono 44.1 kHz signal of a few seconds.

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

CheckOutcome CapturedToneReadsItsWindowedMagnitude() {
    // A sine of amplitude a centred on bin 93 peaks at a/2 times the window's sum, times the 4/N
    // scale. The sum is taken here in long double from the window's definition: v(k) for k = 0 ...
    // N/2 − 2 twice (the middle term over N − 1), plus 1 at N/2; about 0.35875·N − 2.
    const double a = 0.5;
    const int bin = 93;
    const long double pi = std::numbers::pi_v<long double>;
    long double sum = 1.0L;
    for (int k = 0; k <= kN / 2 - 2; ++k)
        sum += 2.0L * (0.35875L - 0.48829L * std::cos(2 * pi * k / kN) + 0.14128L * std::cos(4 * pi * k / (kN - 1)) -
                       0.01168L * std::cos(6 * pi * k / kN));
    std::vector<float> x(2 * kN);
    for (std::size_t n = 0; n < x.size(); ++n)
        x[n] = static_cast<float>(a * std::cos(2.0 * std::numbers::pi * bin * static_cast<double>(n) / kN));
    MonoRecord record;
    Capture(x, x.size(), &record.p);
    const double measured = record.p.binMax[0][bin];
    const double expected = static_cast<double>(a / 2 * sum * 4 / kN);
    const double error = std::fabs(measured / expected - 1.0);
    return {error <= 1e-5,
            Format("bin %d reads %.3g (expect %.3g, relative error %.3g, bound 1e-5)", bin, measured, expected, error)};
}

CheckOutcome PrintedNoiseIsRemovedAndToneKept() {
    std::vector<float> x = Programme();
    MonoRecord record;
    Capture(x, kNoiseOnly, &record.p);
    const std::vector<float> y = Reduce(&record.p, x);
    const std::size_t d = kN;  // latency
    const std::size_t noiseFrom = 4410, noiseTo = 59535, toneFrom = 88200;
    const double reductionDb = 10.0 * std::log10(MeanSquare(x.data() + noiseFrom, noiseTo - noiseFrom) /
                                                 MeanSquare(y.data() + noiseFrom + d, noiseTo - noiseFrom));
    const double toneDb =
        20.0 * std::log10(ToneAmplitude(y.data() + toneFrom + d, kFrames - toneFrom - d, 1000.0, kRate) /
                          ToneAmplitude(x.data() + toneFrom, kFrames - toneFrom - d, 1000.0, kRate));
    const bool ok = reductionDb >= 20.0 && std::fabs(toneDb) <= 0.5;
    return {ok, Format("noise-only stretch falls by %.3g dB (bound 20); 1 kHz tone changes by %.3g dB (bound 0.5)",
                       reductionDb, toneDb)};
}

CheckOutcome CleanedPlusRemovedIsTheDelayedInput() {
    std::vector<float> x = Programme();
    MonoRecord record;
    Capture(x, kNoiseOnly, &record.p);
    const std::vector<float> cleaned = Reduce(&record.p, x);
    record.p.outputMode = 2;
    const std::vector<float> removed = Reduce(&record.p, x);
    record.p.outputMode = 1;
    record.p.reductionDb = 0.0;
    const std::vector<float> bypassed = Reduce(&record.p, x);
    double sumError = 0.0, bypassError = 0.0;
    for (std::size_t n = kN; n < x.size(); ++n) {
        const double delayed = x[n - kN];
        sumError = std::max(sumError, std::fabs(cleaned[n] + removed[n] - delayed));
        bypassError = std::max(bypassError, std::fabs(bypassed[n] - delayed));
    }
    const bool ok = sumError <= 1e-4 && bypassError <= 1e-5;
    return {ok, Format("cleaned + removed against the input delayed by 4096: max error %.3g (bound 1e-4); reduction 0 "
                       "against it: %.3g (bound 1e-5)",
                       sumError, bypassError)};
}

}  // namespace

void AddNoNoiseChecks(CheckSuite& suite) {
    suite.Add("nonoise", "captured tone reads its windowed magnitude", CapturedToneReadsItsWindowedMagnitude);
    suite.Add("nonoise", "printed noise removed, tone kept", PrintedNoiseIsRemovedAndToneKept);
    suite.Add("nonoise", "cleaned plus removed is the delayed input; 0 dB is a delay",
              CleanedPlusRemovedIsTheDelayedInput);
}

}  // namespace dsp::checks
