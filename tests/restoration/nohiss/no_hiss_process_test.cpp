// NoHissProcess: geometry and constants, the gain rule and smoothing bin by bin (bins 0..2 left
// alone), SIMD kernels, residual output, block-size, copy and channel-layout independence, no
// allocation, and the dehiss rule on tones in white hiss.

#include <fftw3.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <tuple>
#include <vector>

#include "dsp/nohiss.h"
#include "dsp/restoration/nohiss/hiss_kernels.h"
#include "restoration/restoration_setup.h"
#include "support/metrics.h"

namespace {

using dsp::OverlapSave;
using dsp::nohiss::CaptureNoiseFloor;
using dsp::nohiss::NOHISS;
using dsp::nohiss::NoHissProcess;
using kesta::test::Channels;
using kesta::test::kRate;
using kesta::test::Part;
using kesta::test::Programme;
using kesta::test::Signal;
using kesta::test::Slice;
using kesta::test::Stream;
using Record = kesta::test::Owned<NOHISS>;

constexpr int kN = 4096;

// Defaults in double: floor gain 10^(-24/40), knee ratio 10^(-7/20).
const double kG = std::pow(10.0, -24.0 / 40.0);
const double kR = std::pow(10.0, -7.0 / 20.0);

// Exposes the spectral hook so a test can hand it spectra of its own.
class ProbeProcess : public NoHissProcess {
public:
    using NoHissProcess::NoHissProcess;
    void Spectrum(float** re, float** im, int channels, int bins) { OnSpectrum(re, im, channels, bins); }
};

TEST(NoHissProcess, DefaultRecordBuildsTheEngineAndEditsReachTheConstants) {
    Record rec(2, kN);
    NoHissProcess process(&rec.r);
    EXPECT_EQ(std::tuple(process.GetFrameLength(), process.GetNumChannels(), process.GetOutputOffset(),
                         process.GetCrossfadeLength(), process.GetWindowType(), process.GetLatency()),
              std::tuple(4096, 2, 1638, 819, OverlapSave::Hamming, 4096));
    // The default constants are checked through the gain rule below.
    process.GetParam()->reductionDb = 40.0f;
    process.GetParam()->kneeDb = 3.0f;
    process.ParameterChanged();
    EXPECT_NEAR(process.GetFloorGain(), 0.1, 1e-7);
    EXPECT_NEAR(process.GetKneeRatio(), std::pow(10.0, -3.0 / 20.0), 1e-6);
}

TEST(NoHissProcess, GainRuleAndSmoothingMatchTheFormulasBinByBin) {
    // N = 64 (33 bins), one channel, every threshold 1 except bins 0..2, which would be cut to G
    // if they were processed at all.
    constexpr int N = 64, bins = N / 2 + 1;
    Record rec(1, N);
    std::fill_n(rec.r.thresholdRows[0], N, 1.0f);
    std::fill_n(rec.r.thresholdRows[0], 3, 1e6f);
    ProbeProcess process(&rec.r);
    process.Resume();

    // Magnitudes m (scaled |X|/(N/4)) across every region: above T, at T, in the knee, at lo,
    // below lo, zero; then a second frame that rises in some bins and falls in others.
    const std::vector<double> first = {2.0,  0.7,  0.9,  1.5,  1.0,  0.999, 0.8, 0.6, kR,  0.3,  0.05,
                                       0.0,  1.2,  0.5,  0.46, 0.47, 3.0,   0.1, 0.2, 0.9, 0.95, 0.4,
                                       0.55, 0.65, 0.75, 0.85, 1.1,  0.3,   0.2, 0.1, 0.6, 0.7,  0.8};
    std::vector<double> S(bins + 4, 0.0);  // reference smoothing, S[k] at index k + 2
    for (int frame = 0; frame < 2; ++frame) {
        SCOPED_TRACE("frame " + std::to_string(frame));
        std::vector<float> re(bins), im(bins);
        for (int k = 0; k < bins; ++k) {
            const double m = frame == 0 ? first[k] : first[k] * (k % 3 == 0 ? 1.8 : 0.4);
            re[k] = static_cast<float>(m * (N / 4.0) * std::cos(0.37 * k + frame));
            im[k] = static_cast<float>(m * (N / 4.0) * std::sin(0.37 * k + frame));
        }
        const std::vector<float> re0 = re, im0 = im;
        float* rp[1] = {re.data()};
        float* ip[1] = {im.data()};
        process.Spectrum(rp, ip, 1, bins);

        EXPECT_TRUE(std::equal(re.begin(), re.begin() + 3, re0.begin()) &&
                    std::equal(im.begin(), im.begin() + 3, im0.begin()));
        for (int k = 3; k < bins; ++k) {
            const double mk = std::hypot(static_cast<double>(re0[k]), static_cast<double>(im0[k])) / (N / 4.0);
            double& s = S[k + 2];
            if (frame == 0) {
                s = mk;  // the first frame after Resume stores m
            } else {
                const double q = 0.1 * S[k] + 0.2 * S[k + 1] + 0.4 * mk + 0.2 * S[k + 3] + 0.1 * S[k + 4];
                s = q <= s ? s * 0.65 + 0.35 * q : s * 0.08 + q * 0.92;
            }
            const double g = s >= 1.0 ? 1.0 : (s >= kR ? kG + (1.0 - kG) * (s - kR) / (1.0 - kR) : kG);
            EXPECT_NEAR(re[k], re0[k] * g, 2e-6 * (N / 4.0)) << "bin " << k << " S " << s;
            EXPECT_NEAR(im[k], im0[k] * g, 2e-6 * (N / 4.0)) << "bin " << k << " S " << s;
        }
    }
}

TEST(NoHissKernels, EveryBuildGivesTheBitsOfTheScalarDefinition) {
    using dsp::detail::Isa;
    // Random spectra, smoothed values and thresholds, with the ties of the gain rule planted
    // (S = T, S = lo, T = 0, S = 0) and a range whose length is not a multiple of the lane count.
    namespace kernels = dsp::nohiss::kernels;
    constexpr int size = 2049 + 8, from = 3, to = 2049;
    kesta::test::Random random(77);
    const kernels::GainRule rule{static_cast<float>(kG), static_cast<float>(1.0 - kG), static_cast<float>(kR)};
    std::vector<float> re(size), im(size), S(size), T(size);
    for (int k = 0; k < size; ++k) {
        re[k] = static_cast<float>(random.Gaussian() * 3.0);
        im[k] = static_cast<float>(random.Gaussian() * 3.0);
        S[k] = static_cast<float>(random.Uniform());
        T[k] = static_cast<float>(random.Uniform());
        if (k % 7 == 0) S[k] = T[k];
        if (k % 7 == 1) S[k] = rule.kneeRatio * T[k];
        if (k % 7 == 2) T[k] = 0.0f;
        if (k % 7 == 3) S[k] = 0.0f;
    }

    std::vector<float> mScalar(size, -1.0f);
    kernels::scalar::Magnitudes(re.data(), im.data(), mScalar.data(), from, to, 1024.0f);
    std::vector<float> reScalar = re, imScalar = im;
    kernels::scalar::ApplyGains(reScalar.data(), imScalar.data(), S.data(), T.data(), from, to, rule);

    // Rows with guards; values equal to their neighbourhood exercise the q = S tie.
    std::vector<float> rowA(size + 8), rowB(size + 8), mB(size);
    for (int k = 0; k < size + 8; ++k) {
        rowA[k] = static_cast<float>(random.Uniform() * 1e-2);
        rowB[k] = k % 5 == 0 ? 1e-3f : static_cast<float>(random.Uniform() * 1e-2);
    }
    for (int k = 0; k < size; ++k)
        mB[k] = k % 5 == 0 ? 1e-3f : static_cast<float>(random.Uniform() * 1e-2);
    std::vector<float> scalarA = rowA, scalarB = rowB;
    kernels::scalar::SmoothRow(scalarA.data() + 4, mScalar.data(), from, to, 0.65f, 0.35f);
    kernels::scalar::SmoothRow(scalarB.data() + 4, mB.data(), from, to, 0.65f, 0.35f);

    for (Isa isa : {Isa::Portable, Isa::Avx2Fma}) {
        if (!dsp::detail::IsaAvailable(isa)) continue;
        SCOPED_TRACE(dsp::detail::IsaName(isa));
        const kernels::HissKernels& k = kernels::HissKernelsFor(isa);
        std::vector<float> mSimd(size, -1.0f);
        k.magnitudes(re.data(), im.data(), mSimd.data(), from, to, 1024.0f);
        EXPECT_EQ(mSimd, mScalar);

        std::vector<float> reSimd = re, imSimd = im;
        k.applyGains(reSimd.data(), imSimd.data(), S.data(), T.data(), from, to, rule);
        EXPECT_TRUE(reSimd == reScalar && imSimd == imScalar);

        std::vector<float> pairA = rowA, pairB = rowB;
        k.smoothPair(pairA.data() + 4, pairB.data() + 4, mScalar.data(), mB.data(), from, to, 0.65f, 0.35f);
        EXPECT_TRUE(pairA == scalarA && pairB == scalarB);
    }
}

// Two channels of noise and thresholds near its level, so gains spread over the whole knee.
class NoHissStream : public testing::Test {
protected:
    NoHissStream() {
        for (int c = 0; c < 2; ++c)
            for (int k = 0; k < kN; ++k)
                rec.r.thresholdRows[c][k] = static_cast<float>(3e-3 * (1.0 + 0.5 * c) * (1.0 + k / 4096.0));
    }
    Record rec{2, kN};
    const Channels input = kesta::test::NoiseChannels(2, 70000, 5, 0.1);
};

TEST_F(NoHissStream, ResidualOutputPlusCleanedOutputIsTheDelayedInput) {
    NoHissProcess passThrough;  // the default record's zero thresholds: a pure delay of one frame
    const Channels delayed = Stream(passThrough, input, 1000);
    NoHissProcess cleaned(&rec.r);
    rec.r.outputMode = 2;
    NoHissProcess residual(&rec.r);
    const Channels a = Stream(cleaned, input, 3000);
    const Channels b = Stream(residual, input, 3000);
    for (std::size_t c = 0; c < 2; ++c) {
        const Signal expected = kesta::test::Delayed(input[c], kN);
        EXPECT_LE(kesta::test::MaxAbsDiff(delayed[c], expected), 1e-5);
        EXPECT_LE(kesta::test::MaxAbsDiff(kesta::test::Mix(a[c], b[c]), expected), 1e-4);
        // Neither output is trivial: the gains did remove something.
        EXPECT_GT(kesta::test::Rms(b[c]), 0.1 * kesta::test::Rms(input[c]));
        EXPECT_GT(kesta::test::Rms(a[c]), 0.1 * kesta::test::Rms(input[c]));
    }
}

TEST_F(NoHissStream, ResumeRestartsAndChannelLayoutDoesNotMatter) {
    NoHissProcess process(&rec.r);
    const Channels reference = Stream(process, input, 4096);
    EXPECT_EQ(Stream(process, input, 13), reference);

    // Each channel alone through a single-channel process gives the same.
    NoHissProcess mono;
    for (int c = 0; c < 2; ++c) {
        mono.InitAsSingleChannel(&rec.r, c);
        EXPECT_LE(kesta::test::MaxAbsDiff(Stream(mono, {input[c]}, 2500)[0], reference[c]), 1e-5) << c;
    }
    // Switching the channel without rebuilding takes the other row.
    mono.SetParamFromMultiChannelParam(&rec.r, 0);
    EXPECT_EQ(mono.GetNumChannels(), 1);
    EXPECT_EQ(mono.GetParam()->thresholdRows[0][100], rec.r.thresholdRows[0][100]);
}

// Hann-windowed periodogram power, averaged over half-overlapping segments, summed over bins
// whose centre lies in [f0, f1].
double BandPower(std::span<const float> x, double f0, double f1) {
    constexpr int M = 8192;
    std::vector<double> in(M);
    fftw_complex* out = fftw_alloc_complex(M / 2 + 1);
    fftw_plan plan = fftw_plan_dft_r2c_1d(M, in.data(), out, FFTW_ESTIMATE);
    double total = 0.0;
    int segments = 0;
    for (std::size_t s = 0; s + M <= x.size(); s += M / 2, ++segments) {
        for (int i = 0; i < M; ++i)
            in[i] = x[s + i] * (0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * i / M));
        fftw_execute(plan);
        for (int k = static_cast<int>(std::ceil(f0 * M / kRate)); k * kRate / M <= f1; ++k)
            total += out[k][0] * out[k][0] + out[k][1] * out[k][1];
    }
    fftw_destroy_plan(plan);
    fftw_free(out);
    return total / std::max(segments, 1);
}

TEST(NoHissDehiss, DefaultRuleRemovesHissWithoutDullingTones) {
    // The programme's tones in hiss 10 dB above one tone's RMS, which leaves each steady tone about
    // 22 dB above the hiss in its bin. The floor is captured from the hiss-only first 1.5 s, made
    // into thresholds by the default rule and applied, as the dehiss tool does.
    const Channels x = Programme(10.0).x;
    Record rec(2, kN);
    CaptureNoiseFloor capture(&rec.r);
    ASSERT_FALSE(kesta::test::RunCapture(capture, x, 0, Programme::kNoiseOnly).empty());
    dsp::nohiss::CopyParameter(capture.GetParam(), &rec.r);
    dsp::nohiss::ComputeThresholdsFromFloor(&rec.r);
    NoHissProcess process(&rec.r);
    const Channels y = Stream(process, x);

    // The steady part of the tones, output aligned with the input.
    const std::size_t from = Programme::kNoiseOnly + 2 * kN, count = Programme::kFrames - kN - from;
    for (int c = 0; c < 2; ++c) {
        SCOPED_TRACE(c);
        const auto in = Part(x[c], from, count), cleaned = Part(y[c], from + kN, count);
        // Bands clear of every tone and glide of both channels.
        for (auto [f0, f1] : {std::pair{800.0, 1000.0}, std::pair{6000.0, 11000.0}, std::pair{12000.0, 20000.0}}) {
            const double reductionDb = 10.0 * std::log10(BandPower(in, f0, f1) / BandPower(cleaned, f0, f1));
            EXPECT_GE(reductionDb, 10.0) << f0 << "-" << f1 << " Hz";
            EXPECT_LE(reductionDb, -20.0 * std::log10(kG) + 0.1) << "no more than the floor gain allows";
        }
        for (double f : Programme::kSteady[c])
            EXPECT_LT(std::fabs(kesta::test::ToDb(kesta::test::LevelAt(cleaned, f, kRate) /
                                                  kesta::test::LevelAt(in, f, kRate))),
                      0.5)
                << f << " Hz";
    }
}

}  // namespace
