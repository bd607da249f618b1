// The factorisation noise reducer: the print against the closed-form one-atom factorisation,
// what the process leaves of noise, hum lines and tones, its bypass and residual outputs, the
// kernel builds bit for bit, and the record's copies.

#include "dsp/dnz.h"

#include <fftw3.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

#include "dsp/fft_window.h"
#include "dsp/restoration/dnz/nmf_kernels.h"
#include "restoration/restoration_setup.h"
#include "support/metrics.h"

namespace {

using dsp::dnz::DNZ;
using dsp::dnz::DNZNoisePrint;
using dsp::dnz::DNZProcess;
using kesta::test::Channels;
using kesta::test::GaussianNoise;
using kesta::test::LevelAt;
using kesta::test::Owned;
using kesta::test::Part;
using kesta::test::Rms;
using kesta::test::Signal;
using kesta::test::Stream;

constexpr double kRateHz = 44100.0;

// Gaussian noise through a one-pole low-pass: a spectrum with a shape.
Signal ColouredNoise(std::size_t frames, uint64_t seed, double rms) {
    Signal x = GaussianNoise(frames, seed, rms);
    double y = 0.0;
    for (float& v : x)
        v = static_cast<float>(y = 0.7 * y + 0.3 * v);
    return x;
}

// 50 Hz and its harmonics to 1 kHz, falling as 1/h, and a little white noise.
Signal Hum(std::size_t frames, uint64_t seed, double amplitude) {
    Signal x = GaussianNoise(frames, seed, amplitude * 0.02);
    for (std::size_t i = 0; i < frames; ++i) {
        double v = 0.0;
        for (int h = 1; h <= 20; ++h)
            v += std::sin(2.0 * std::numbers::pi * 50.0 * h * double(i) / kRateHz + 0.3 * h) / h;
        x[i] += static_cast<float>(amplitude * v);
    }
    return x;
}

// A fan: white noise through a narrow resonance at 120 Hz and a broad one at 900 Hz, over a
// little of the white noise itself.
Signal Fan(std::size_t frames, uint64_t seed, double rms) {
    const Signal w = GaussianNoise(frames, seed, 1.0);
    Signal x(frames);
    double low[2] = {}, high[2] = {};
    auto resonate = [](double* state, double frequency, double q, double in) {
        const double r = std::exp(-std::numbers::pi * frequency / q / kRateHz);
        const double y =
            in + 2.0 * r * std::cos(2.0 * std::numbers::pi * frequency / kRateHz) * state[0] - r * r * state[1];
        state[1] = state[0];
        state[0] = y;
        return y * (1.0 - r);
    };
    for (std::size_t i = 0; i < frames; ++i)
        x[i] =
            static_cast<float>(resonate(low, 120.0, 4.0, w[i]) + 0.5 * resonate(high, 900.0, 2.0, w[i]) + 0.05 * w[i]);
    const double scale = rms / Rms(x);
    for (float& v : x)
        v = static_cast<float>(v * scale);
    return x;
}

// A print with `atoms` noise atoms learned from x.
struct Print {
    Print(const Channels& x, int fftSize, int atoms, int maxFrames = 400) : owned(int(x.size()), fftSize) {
        FreeArrays(&owned.r);
        owned.r.noiseAtoms = static_cast<int16_t>(atoms);
        owned.r.maxFrames = maxFrames;
        AllocateArrays(&owned.r);
        DNZNoisePrint capture(&owned.r);
        offsets = kesta::test::RunCapture(capture, x, 0, static_cast<long long>(x[0].size()));
        dsp::dnz::CopyDNZ(capture.GetParam(), &owned.r, false);
    }
    Owned<DNZ> owned;
    std::vector<std::size_t> offsets;
};

TEST(DNZNoisePrint, SelectionGivesTheSpectraItAsksFor) {
    constexpr int N = 512;
    struct Case {
        long long length;
        int maxFrames;
        bool accepted;
        std::size_t frames;
        long long hop;
    };
    const Case cases[] = {
        {N - 1, 400, false, 0, 0},
        {N, 400, true, 1, N},
        {N + N / 2, 400, true, 2, N / 2},
        {10 * N, 400, true, 19, N / 2},
        {10 * N + 7, 5, true, 5, (9 * N + 7) / 4},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.length);
        const Print print({GaussianNoise(std::size_t(c.length), 3, 0.1)}, N, 2, c.maxFrames);
        ASSERT_EQ(print.offsets.size(), c.frames);
        EXPECT_EQ(print.owned.r.frameCount, c.accepted ? int(c.frames) : 0);
        if (c.frames > 1) {
            EXPECT_EQ(static_cast<long long>(print.offsets[1] - print.offsets[0]), c.hop);
        }
    }
}

// With one atom the divergence is least when the atom is the mean magnitude spectrum (the
// rank-one optimum of the Kullback-Leibler factorisation is the product of the marginals), so
// the print must give that spectrum's shape, measured here with FFTW in double precision.
TEST(DNZNoisePrint, OneAtomIsTheMeanMagnitudeSpectrum) {
    constexpr int N = 1024, bins = N / 2 + 1;
    const Signal x = ColouredNoise(20 * N, 7, 0.1);
    const Print print({x}, N, 1);
    ASSERT_EQ(print.offsets.size(), 39u);
    std::vector<float> window(N);
    dsp::GetFFTWindow(window.data(), N, 1.0, dsp::kWindowHann | dsp::kWindowMirror | dsp::kWindowFloatOutput, 140.0);
    std::vector<double> in(N), mean(bins, 0.0);
    std::vector<fftw_complex> out(bins);
    const fftw_plan plan = fftw_plan_dft_r2c_1d(N, in.data(), out.data(), FFTW_ESTIMATE);
    double loudest = 0.0;
    for (std::size_t offset : print.offsets) {
        for (int i = 0; i < N; ++i)
            in[std::size_t(i)] = double(x[offset + std::size_t(i)]) * window[std::size_t(i)];
        fftw_execute(plan);
        double sum = 0.0;
        for (int k = 0; k < bins; ++k) {
            const double m = std::hypot(out[std::size_t(k)][0], out[std::size_t(k)][1]);
            mean[std::size_t(k)] += m;
            sum += m;
        }
        loudest = std::max(loudest, sum);
    }
    fftw_destroy_plan(plan);
    double total = 0.0;
    for (double m : mean)
        total += m;
    const float* atom = print.owned.r.noiseDictionary[0];
    double worst = 0.0;
    for (int k = 1; k < bins - 1; ++k)
        worst = std::max(worst, std::abs(atom[k] / (mean[std::size_t(k)] / total) - 1.0));
    EXPECT_LT(worst, 1e-3);
    EXPECT_NEAR(print.owned.r.noiseCeiling[0] / loudest, 1.0, 1e-4);
}

// Steady-state levels after the process, measured past its first second.
struct Reduced {
    Reduced(const Signal& noise, const Signal& programme, double reductionDb) {
        Print print({noise}, 2048, 4);
        print.owned.r.reductionDb = reductionDb;
        DNZProcess process(&print.owned.r);
        const Signal padded = kesta::test::Mix(programme, Signal(programme.size() + 2048, 0.0f));
        out = Stream(process, {padded})[0];
        out.erase(out.begin(), out.begin() + 2048);
    }
    Signal out;
};

TEST(DNZProcess, NoiseAndHumFallByTheReductionAndTonesStay) {
    const std::size_t frames = 3 * 44100, from = 44100, count = frames - 44100 - 22050;
    struct Case {
        const char* name;
        double reductionDb;
        bool hum;
    };
    const Case cases[] = {{"white 30 dB", 30, false}, {"hum 20 dB", 20, true}, {"hum 40 dB", 40, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Signal print = c.hum ? Hum(frames, 1, 0.05) : GaussianNoise(frames, 1, 0.02);
        const Signal noise = c.hum ? Hum(frames, 2, 0.05) : GaussianNoise(frames, 2, 0.02);
        const Reduced alone(print, noise, c.reductionDb);
        if (c.hum) {
            for (int h = 1; h <= 10; ++h) {
                SCOPED_TRACE(h);
                const double before = LevelAt(Part(noise, from, count), 50.0 * h, kRateHz);
                const double after = LevelAt(Part(alone.out, from, count), 50.0 * h, kRateHz);
                EXPECT_LT(20.0 * std::log10(after / before), -(c.reductionDb - 3.0));
            }
        } else {
            EXPECT_LT(20.0 * std::log10(Rms(Part(alone.out, from, count)) / Rms(Part(noise, from, count))),
                      -(c.reductionDb - 3.0));
        }
        // A tone 20 dB over the noise passes within 1 dB.
        const Signal tone = kesta::test::Sine(frames, 1234.5, kRateHz, 0.1);
        const Reduced mixed(print, kesta::test::Mix(noise, tone), c.reductionDb);
        EXPECT_NEAR(20.0 * std::log10(LevelAt(Part(mixed.out, from, count), 1234.5, kRateHz) /
                                      LevelAt(Part(tone, from, count), 1234.5, kRateHz)),
                    0.0, 1.0);
    }
}

// Before and after a note the reducer goes well below the reduction, and the note keeps its level.
TEST(DNZProcess, PausesFallFurtherThanTheReductionAndTheNoteKeepsItsLevel) {
    constexpr double kReductionDb = 30.0;
    const std::size_t frames = 4 * 44100, noteFrom = 44100, noteTo = 2 * 44100;
    const Signal print = GaussianNoise(frames, 1, 0.02), noise = GaussianNoise(frames, 2, 0.02);
    Signal note = kesta::test::Sine(frames, 440.0, kRateHz, 0.2);
    for (std::size_t i = 0; i < frames; ++i)
        if (i < noteFrom || i >= noteTo) note[i] = 0.0f;
    const Reduced mixed(print, kesta::test::Mix(noise, note), kReductionDb);
    // After the note, from 0.2 s on; and before it, from the start of the stream.
    for (std::size_t from : {noteTo + 8820, std::size_t(0)}) {
        const std::size_t count = from < noteFrom ? noteFrom - from - 4410 : frames - from - 22050;
        EXPECT_LT(20.0 * std::log10(Rms(Part(mixed.out, from, count)) / Rms(Part(noise, from, count))),
                  -(kReductionDb + 20.0))
            << from;
    }
    const std::size_t from = noteFrom + 11025, count = noteTo - from - 11025;
    EXPECT_NEAR(20.0 * std::log10(LevelAt(Part(mixed.out, from, count), 440.0, kRateHz) /
                                  LevelAt(Part(note, from, count), 440.0, kRateHz)),
                0.0, 1.0);
}

// In a chord, a held note on the fan's resonance, a few dB over the fan there, keeps its level: the noise
// atoms may not re-mix to explain it as louder noise.
TEST(DNZProcess, ANoteOnTheNoisesResonanceKeepsItsLevel) {
    const std::size_t frames = 4 * 44100, from = 2 * 44100, count = 44100;
    const Signal print = Fan(frames, 1, 0.02), noise = Fan(frames, 2, 0.02);
    Signal note = kesta::test::Sine(frames, 110.0, kRateHz, 0.1);
    std::fill(note.begin(), note.begin() + 44100, 0.0f);
    // A chord's upper notes, far from the resonance, make the frames programme.
    const Signal upper = kesta::test::Mix(kesta::test::Sine(frames, 1650.0, kRateHz, 0.1),
                                          kesta::test::Sine(frames, 2475.0, kRateHz, 0.1));
    Signal chord = kesta::test::Mix(note, upper);
    std::fill(chord.begin(), chord.begin() + 44100, 0.0f);
    const Reduced mixed(print, kesta::test::Mix(noise, chord), 30.0);
    EXPECT_NEAR(20.0 * std::log10(LevelAt(Part(mixed.out, from, count), 110.0, kRateHz) /
                                  LevelAt(Part(note, from, count), 110.0, kRateHz)),
                0.0, 3.0);
}

TEST(DNZProcess, BypassAndResidualAddUpToTheDelayedInput) {
    constexpr int N = 2048;
    const Signal noise = GaussianNoise(60000, 4, 0.05);
    const Signal x = kesta::test::Mix(noise, kesta::test::Sine(60000, 440.0, kRateHz, 0.2));
    Print print({noise}, N, 4);
    DNZProcess cleaned(&print.owned.r);
    print.owned.r.outputMode = 2;
    DNZProcess residual(&print.owned.r);
    print.owned.r.reductionDb = 0.0;
    DNZProcess bypass(&print.owned.r);
    const Signal c = Stream(cleaned, {x})[0], r = Stream(residual, {x})[0], b = Stream(bypass, {x})[0];
    const Signal delayed = kesta::test::Delayed(x, N);
    EXPECT_LT(kesta::test::MaxAbsDiff(b, delayed), 1e-5);
    EXPECT_LT(kesta::test::MaxAbsDiff(kesta::test::Mix(c, r), delayed), 1e-5);
    EXPECT_GT(Rms(Part(r, 2 * N, 50000)), 0.02);  // the residual holds the noise
}

TEST(DNZKernels, EveryBuildGivesTheSameBits) {
    if (!dsp::detail::IsaAvailable(dsp::detail::Isa::Avx2Fma)) GTEST_SKIP() << "one build only";
    const dsp::dnz::NmfKernels& a = dsp::dnz::NmfKernelsFor(dsp::detail::Isa::Portable);
    const dsp::dnz::NmfKernels& b = dsp::dnz::NmfKernelsFor(dsp::detail::Isa::Avx2Fma);
    ASSERT_NE(&a, &b);
    constexpr int n = 1032, count = 7;  // one group of four atoms and three more
    const Signal atoms = kesta::test::WhiteNoise(std::size_t(count) * n, 1, 1.0);
    const Signal r = kesta::test::WhiteNoise(n, 2, 1.0), h = kesta::test::WhiteNoise(count, 3, 1.0);
    std::vector<float> outA(n), outB(n), gA(count), gB(count);
    a.combine(atoms.data(), n, count, h.data(), outA.data(), n);
    b.combine(atoms.data(), n, count, h.data(), outB.data(), n);
    EXPECT_EQ(outA, outB);
    a.ratio(r.data(), atoms.data(), 0.25f, outA.data(), n);
    b.ratio(r.data(), atoms.data(), 0.25f, outB.data(), n);
    EXPECT_EQ(outA, outB);
    a.project(atoms.data(), n, count, r.data(), gA.data(), n);
    b.project(atoms.data(), n, count, r.data(), gB.data(), n);
    EXPECT_EQ(gA, gB);
    std::vector<float> accA(atoms.begin(), atoms.end()), accB = accA;
    a.accumulate(accA.data(), n, count, h.data(), r.data(), n);
    b.accumulate(accB.data(), n, count, h.data(), r.data(), n);
    EXPECT_EQ(accA, accB);
    // An odd length, so the tail past the vectors is taken too.
    std::vector<float> wA(atoms.begin(), atoms.begin() + n - 3), wB = wA;
    std::vector<float> numA(atoms.begin() + n, atoms.begin() + 2 * n - 3), numB = numA;
    a.learn(wA.data(), numA.data(), r.data(), 0.9f, 0.3f, 2.5f, 0.2f, n - 3);
    b.learn(wB.data(), numB.data(), r.data(), 0.9f, 0.3f, 2.5f, 0.2f, n - 3);
    EXPECT_EQ(numA, numB);
    EXPECT_EQ(wA, wB);
}

TEST(DNZRecord, CopiesAreDeepAndInvalidShapesHoldNoArrays) {
    Owned<DNZ> record(2, 512);
    record.r.noiseDictionary[1][5] = 0.25f;
    record.r.noiseCeiling[1] = 3.0f;
    record.r.reductionDb = 17.0;
    DNZ* clone = dsp::dnz::CloneDNZ(&record.r);
    EXPECT_NE(clone->noiseDictionary, record.r.noiseDictionary);
    EXPECT_EQ(clone->noiseDictionary[1][5], 0.25f);
    EXPECT_EQ(clone->noiseCeiling[1], 3.0f);
    EXPECT_EQ(clone->reductionDb, 17.0);
    dsp::dnz::FreeArrays(clone);
    delete clone;
    for (auto shape : {std::pair{0, 512}, std::pair{33, 512}, std::pair{2, 1000}, std::pair{2, 128}}) {
        Owned<DNZ> bad(shape.first, shape.second);
        EXPECT_EQ(bad.r.noiseDictionary, nullptr);
        EXPECT_EQ(bad.r.noiseCeiling, nullptr);
    }
    EXPECT_EQ(dsp::dnz::FrameLengthFor(44100), 2048);
    EXPECT_EQ(dsp::dnz::FrameLengthFor(48000), 2048);
    EXPECT_EQ(dsp::dnz::FrameLengthFor(96000), 4096);
    EXPECT_EQ(dsp::dnz::FrameLengthFor(8000), 512);
}

}  // namespace
