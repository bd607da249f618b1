// The averaged spectrum against a naive DFT in long double (frames, hop, window, power mean and
// scale), a centred sine's level for every window type, and the drawn-curve filter's measured
// response at the curve's points, its symmetry about the latency it reports.

#include "dsp/frequency_analysis.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <numbers>
#include <vector>

#include "dsp/fft_window.h"
#include "support/metrics.h"
#include "support/signals.h"

namespace {

using dsp::FFTFilt;
using dsp::FrequencyAnalysisWorker;
using namespace kesta::test;

constexpr double kRate = 48000.0;

std::vector<double> Spectrum(const Channels& x, int fftSize, int type, int hop, int channel = -1) {
    FrequencyAnalysisWorker worker;
    worker.Init(fftSize, type, static_cast<int>(x.size()), hop);
    RunInRandomBlocks(
        x, [&](float** in, float**, int frames) { worker.Add(in, static_cast<int>(x.size()), frames); }, 3000, 8);
    worker.Finish();
    std::vector<double> levels(static_cast<std::size_t>(worker.GetBinCount()));
    worker.GetSpectrumDb(channel, levels.data());
    return levels;
}

std::vector<double> Window(int fftSize, int type, double* offset) {
    unsigned int flags = 0;
    FrequencyAnalysisWorker::GetFlagsAndOffsetFromWindowType(type, flags, *offset);
    std::vector<double> w(static_cast<std::size_t>(fftSize));
    dsp::GetFFTWindow(w.data(), fftSize, 1.0, flags, 0.0);
    return w;
}

// The same spectrum from first principles: whole frames `hop` apart (one zero-padded frame when
// there is less than one), each windowed and transformed by a naive DFT in long double.
std::vector<double> NaiveSpectrum(const Channels& x, int fftSize, int type, int hop) {
    double offset = 0.0;
    const std::vector<double> w = Window(fftSize, type, &offset);
    const std::size_t frames = x[0].size();
    const int bins = fftSize / 2 + 1;
    std::vector<long double> power(static_cast<std::size_t>(bins), 0.0L);
    long double count = 0.0L;
    for (const Signal& s : x)
        for (std::size_t start = 0; start == 0 || start + static_cast<std::size_t>(fftSize) <= frames;
             start += static_cast<std::size_t>(hop)) {
            for (int k = 0; k < bins; ++k) {
                long double re = 0.0L, im = 0.0L;
                for (int n = 0; n < fftSize; ++n) {
                    const std::size_t i = start + static_cast<std::size_t>(n);
                    const long double v = i < frames ? static_cast<long double>(w[n]) * s[i] : 0.0L;
                    const long double angle = -2.0L * std::numbers::pi_v<long double> * k * n / fftSize;
                    re += v * std::cos(angle);
                    im += v * std::sin(angle);
                }
                power[static_cast<std::size_t>(k)] +=
                    (re * re + im * im) / (static_cast<long double>(fftSize) * fftSize);
            }
            count += 1.0L;
            if (start + static_cast<std::size_t>(fftSize) > frames) break;
        }
    std::vector<double> levels(static_cast<std::size_t>(bins));
    for (int k = 0; k < bins; ++k) {
        long double amplitude = offset * std::sqrt(power[static_cast<std::size_t>(k)] / count);
        if (k == 0 || k == bins - 1) amplitude /= std::sqrt(2.0L);
        levels[static_cast<std::size_t>(k)] = static_cast<double>(20.0L * std::log10(amplitude));
    }
    return levels;
}

TEST(FrequencyAnalysisWorker, AveragedSpectrumMatchesANaiveDFT) {
    struct Case {
        const char* name;
        std::size_t frames;
        int fftSize;
        int type;
        int hop;
    };
    const Case cases[] = {
        {"Hann, half-frame hop", 1000, 128, FrequencyAnalysisWorker::Hann, 0},
        {"Blackman-Harris, odd hop", 900, 256, FrequencyAnalysisWorker::BlackmanHarris, 77},
        {"Kaiser, no overlap", 700, 64, FrequencyAnalysisWorker::Kaiser180, 64},
        {"shorter than a frame", 90, 128, FrequencyAnalysisWorker::Welch, 0},
    };
    for (const Case& test : cases) {
        Channels x = NoiseChannels(2, test.frames, 21, 0.3);
        x[0] = Mix(x[0], Sine(test.frames, 3000.0, kRate, 0.5));
        x[1][0] += 0.25f;  // a DC step in the second channel
        const int hop = test.hop > 0 ? test.hop : test.fftSize / 2;
        const std::vector<double> expected = NaiveSpectrum(x, test.fftSize, test.type, hop);
        const std::vector<double> got = Spectrum(x, test.fftSize, test.type, test.hop);
        ASSERT_EQ(got.size(), expected.size()) << test.name;
        for (std::size_t k = 0; k < got.size(); ++k)
            ASSERT_NEAR(got[k], expected[k], 1e-6) << test.name << ", bin " << k;
    }
}

TEST(FrequencyAnalysisWorker, ACentredSineReadsItsLevelThroughEveryWindow) {
    constexpr int kSize = 2048;
    constexpr int kBin = 100;
    constexpr double kAmplitude = 0.5;
    const double frequency = kBin * kRate / kSize;
    const Channels x = {Sine(20000, frequency, kRate, kAmplitude, 0.3), Sine(20000, frequency, kRate, kAmplitude, 2.0)};
    const double rmsDb = 20.0 * std::log10(kAmplitude / std::sqrt(2.0));
    for (int type = 0; type <= FrequencyAnalysisWorker::Kaiser180; ++type) {
        const std::vector<double> levels = Spectrum(x, kSize, type, 0);
        double offset = 0.0;
        const std::vector<double> w = Window(kSize, type, &offset);
        if (type < FrequencyAnalysisWorker::Kaiser140) {
            EXPECT_NEAR(levels[kBin], rmsDb, 0.1) << "window " << type;
        } else {
            // The Kaiser offsets stand as given: the reading is off by their ratio to sqrt(2) over
            // the window's mean.
            double mean = 0.0;
            for (double v : w)
                mean += v / kSize;
            EXPECT_NEAR(levels[kBin], rmsDb + 20.0 * std::log10(offset * mean / std::sqrt(2.0)), 0.001)
                << "window " << type;
            EXPECT_NEAR(levels[kBin], rmsDb, 0.2) << "window " << type;
        }
    }
}

TEST(FFTFilt, MeasuredResponseFollowsTheDrawnCurveAtItsPoints) {
    const std::vector<dsp::FFTFiltPoint> curve = {{15000.0, -10.0}, {100.0, 0.0},  {300.0, 6.0}, {1000.0, -3.0},
                                                  {3000.0, -3.0},   {8000.0, 4.0}, {-5.0, 40.0}};
    FFTFilt filter;
    filter.Init(1, kRate, curve);
    const int latency = filter.GetLatency();
    // Between the points the curve is straight on a log axis; beyond them it is flat.
    EXPECT_NEAR(filter.GetCurveDb(std::sqrt(300.0 * 1000.0)), 1.5, 1e-12);
    EXPECT_EQ(filter.GetCurveDb(20.0), 0.0);
    EXPECT_EQ(filter.GetCurveDb(20000.0), -10.0);

    for (const dsp::FFTFiltPoint& p : curve) {
        if (p.frequency <= 0.0) continue;
        filter.Reset();
        const std::size_t frames = static_cast<std::size_t>(latency) + 24000;
        Channels x = {Sine(frames, p.frequency, kRate, 0.25)};
        const Channels y = RunInRandomBlocks(
            x, [&](float** in, float** out, int n) { filter.Process(in, out, 1, n); }, 4096, 5);
        const std::span<const float> settled(y[0].data() + latency + 2000, 20000);
        EXPECT_NEAR(ToDb(LevelAt(settled, p.frequency, kRate) / 0.25), p.gainDb, 0.1) << p.frequency << " Hz";
    }

    // Linear phase: the impulse response is symmetric about the latency it reports.
    filter.Reset();
    const std::size_t frames = 2 * static_cast<std::size_t>(latency) + 1;
    const Channels y = RunInBlocks(
        {Impulse(frames, 0)}, [&](float** in, float** out, int n) { filter.Process(in, out, 1, n); }, 1000);
    const float centre = y[0][static_cast<std::size_t>(latency)];
    EXPECT_GT(centre, 0.5f);
    for (int k = 1; k < (filter.GetTaps() - 1) / 2; ++k)
        ASSERT_NEAR(y[0][static_cast<std::size_t>(latency + k)], y[0][static_cast<std::size_t>(latency - k)],
                    1e-6f * centre)
            << k;
}

}  // namespace
