// NoHissProcess: geometry and constants, the gain rule and smoothing bin by bin, SIMD kernels,
// bins 0..2, residual output, block-size and channel-layout independence, no allocation, and the
// dehiss rule on tones in white hiss.

#include <fftw3.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

#include "dsp/nohiss.h"
#include "dsp/restoration/nohiss/hiss_kernels.h"
#include "support/allocation_counter.h"
#include "support/metrics.h"
#include "support/signals.h"

namespace {

using dsp::OverlapSave;
using dsp::nohiss::CaptureNoiseFloor;
using dsp::nohiss::NOHISS;
using dsp::nohiss::NoHissProcess;
using kesta::test::Channels;
using kesta::test::Signal;

constexpr double kRate = 44100.0;
constexpr int kN = 4096;

// Defaults in double: floor gain 10^(-24/40), knee ratio 10^(-7/20).
const double kG = std::pow(10.0, -24.0 / 40.0);
const double kR = std::pow(10.0, -7.0 / 20.0);

struct OwnedRecord {
    NOHISS r{};
    explicit OwnedRecord(int channels, int fftSize = kN) {
        dsp::nohiss::SetDefaultParameter(&r);
        r.channels = channels;
        r.fftSize = fftSize;
        dsp::nohiss::AllocateArrays(&r);
    }
    OwnedRecord(const OwnedRecord&) = delete;
    OwnedRecord& operator=(const OwnedRecord&) = delete;
    ~OwnedRecord() { dsp::nohiss::FreeArrays(&r); }
    void FlatThresholds(int channel, float t) { std::fill_n(r.thresholdRows[channel], r.fftSize, t); }
};

// Exposes the spectral hook so a test can hand it spectra of its own.
class ProbeProcess : public NoHissProcess {
public:
    using NoHissProcess::NoHissProcess;
    void Spectrum(float** re, float** im, int channels, int bins) { OnSpectrum(re, im, channels, bins); }
};

Channels RunFromResume(NoHissProcess& process, const Channels& input, int blockSize) {
    process.Resume();
    return kesta::test::RunInBlocks(
        input, [&](float** in, float** out, int n) { process.Process(in, out, static_cast<int>(input.size()), n); },
        blockSize);
}

// Input followed by one frame of silence, so the delayed output covers all of it.
Channels Padded(Channels x) {
    for (Signal& s : x)
        s.resize(s.size() + kN, 0.0f);
    return x;
}

Channels Slice(const Channels& x, std::size_t from, std::size_t to) {
    Channels out;
    for (const Signal& s : x)
        out.emplace_back(s.begin() + from, s.begin() + to);
    return out;
}

std::span<const float> Part(const Signal& x, std::size_t from, std::size_t count) {
    return std::span<const float>(x).subspan(from, count);
}

// Expected gain of a bin from its smoothed magnitude and threshold, in double.
double ExpectedGain(double s, double t) {
    const double lo = kR * t;
    if (s >= t) return 1.0;
    if (s >= lo) return kG + (1.0 - kG) * (s - lo) / (t - lo);
    return kG;
}

TEST(NoHissProcess, DefaultRecordBuildsTheEngineAndConstants) {
    OwnedRecord rec(2);
    NoHissProcess process(&rec.r);
    EXPECT_EQ(process.GetFrameLength(), 4096);
    EXPECT_EQ(process.GetNumChannels(), 2);
    EXPECT_EQ(process.GetOutputOffset(), 1638);
    EXPECT_EQ(process.GetCrossfadeLength(), 819);
    EXPECT_EQ(process.GetWindowType(), OverlapSave::Hamming);
    EXPECT_EQ(process.GetLatency(), 4096);
    EXPECT_NEAR(process.GetFloorGain(), std::pow(10.0, -0.6), 1e-7);
    EXPECT_NEAR(process.GetKneeRatio(), std::pow(10.0, -0.35), 1e-6);

    // The default constructor holds the default record.
    NoHissProcess byDefault;
    EXPECT_EQ(byDefault.GetFrameLength(), 4096);
    EXPECT_EQ(byDefault.GetNumChannels(), 2);
    EXPECT_EQ(byDefault.GetParam()->reductionDb, 24.0f);

    // Edits reach the constants through ParameterChanged.
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
    OwnedRecord rec(1, N);
    rec.FlatThresholds(0, 1.0f);
    for (int k = 0; k < 3; ++k)
        rec.r.thresholdRows[0][k] = 1e6f;
    ProbeProcess process(&rec.r);
    process.Resume();

    // Magnitudes m (scaled |X|/(N/4)) across every region: above T, at T, in the knee, at lo,
    // below lo, zero; then a second frame that rises in some bins and falls in others.
    const double lo = kR;
    const std::vector<double> first = {2.0,  0.7,  0.9,  1.5,  1.0,  0.999, 0.8, 0.6, lo,  0.3,  0.05,
                                       0.0,  1.2,  0.5,  0.46, 0.47, 3.0,   0.1, 0.2, 0.9, 0.95, 0.4,
                                       0.55, 0.65, 0.75, 0.85, 1.1,  0.3,   0.2, 0.1, 0.6, 0.7,  0.8};
    std::vector<double> second(first.size());
    for (std::size_t k = 0; k < first.size(); ++k)
        second[k] = k % 3 == 0 ? first[k] * 1.8 : first[k] * 0.4;

    std::vector<double> S(bins + 4, 0.0);  // reference smoothing, S[k] at index k + 2
    for (int frame = 0; frame < 2; ++frame) {
        SCOPED_TRACE("frame " + std::to_string(frame));
        const std::vector<double>& m = frame == 0 ? first : second;
        std::vector<float> re(bins), im(bins);
        for (int k = 0; k < bins; ++k) {
            const double phase = 0.37 * k + frame;
            re[k] = static_cast<float>(m[k] * (N / 4.0) * std::cos(phase));
            im[k] = static_cast<float>(m[k] * (N / 4.0) * std::sin(phase));
        }
        const std::vector<float> re0 = re, im0 = im;
        float* rp[1] = {re.data()};
        float* ip[1] = {im.data()};
        process.Spectrum(rp, ip, 1, bins);

        for (int k = 0; k < bins; ++k) {
            if (k < 3) {
                EXPECT_EQ(re[k], re0[k]) << "bin " << k;
                EXPECT_EQ(im[k], im0[k]) << "bin " << k;
                continue;
            }
            const double mk = std::hypot(static_cast<double>(re0[k]), static_cast<double>(im0[k])) / (N / 4.0);
            double& s = S[k + 2];
            if (frame == 0) {
                s = mk;  // the first frame after Resume stores m
            } else {
                const double q = 0.1 * S[k] + 0.2 * S[k + 1] + 0.4 * mk + 0.2 * S[k + 3] + 0.1 * S[k + 4];
                s = q <= s ? s * 0.65 + 0.35 * q : s * 0.08 + q * 0.92;
            }
            const double g = ExpectedGain(s, 1.0);
            EXPECT_NEAR(re[k], re0[k] * g, 2e-6 * (N / 4.0)) << "bin " << k << " S " << s;
            EXPECT_NEAR(im[k], im0[k] * g, 2e-6 * (N / 4.0)) << "bin " << k << " S " << s;
        }
    }
}

TEST(NoHissKernels, SimdLoopsGiveTheBitsOfTheScalarDefinition) {
    // Random spectra, smoothed values and thresholds, with the ties of the gain rule planted
    // (S = T, S = lo, T = 0, S = 0) and a range whose length is not a multiple of the lane count.
    namespace kernels = dsp::nohiss::kernels;
    constexpr int size = 2049 + 8, from = 3, to = 2049;
    kesta::test::Random random(77);
    const kernels::GainRule rule{static_cast<float>(kG), static_cast<float>(1.0 - kG), static_cast<float>(kR)};
    std::vector<float> re(size), im(size), S(size), T(size), m(size);
    for (int k = 0; k < size; ++k) {
        re[k] = static_cast<float>(random.Gaussian() * 3.0);
        im[k] = static_cast<float>(random.Gaussian() * 3.0);
        S[k] = static_cast<float>(random.Uniform());
        T[k] = static_cast<float>(random.Uniform());
        switch (k % 7) {
            case 0:
                S[k] = T[k];
                break;
            case 1:
                S[k] = rule.kneeRatio * T[k];
                break;
            case 2:
                T[k] = 0.0f;
                break;
            case 3:
                S[k] = 0.0f;
                break;
            default:
                break;
        }
    }

    std::vector<float> mScalar(size, -1.0f), mSimd(size, -1.0f);
    kernels::scalar::Magnitudes(re.data(), im.data(), mScalar.data(), from, to, 1024.0f);
    kernels::Magnitudes(re.data(), im.data(), mSimd.data(), from, to, 1024.0f);
    EXPECT_EQ(mSimd, mScalar);

    std::vector<float> reScalar = re, imScalar = im, reSimd = re, imSimd = im;
    kernels::scalar::ApplyGains(reScalar.data(), imScalar.data(), S.data(), T.data(), from, to, rule);
    kernels::ApplyGains(reSimd.data(), imSimd.data(), S.data(), T.data(), from, to, rule);
    EXPECT_EQ(reSimd, reScalar);
    EXPECT_EQ(imSimd, imScalar);

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
    kernels::SmoothPair(rowA.data() + 4, rowB.data() + 4, mScalar.data(), mB.data(), from, to, 0.65f, 0.35f);
    EXPECT_EQ(rowA, scalarA);
    EXPECT_EQ(rowB, scalarB);
}

TEST(NoHissProcess, Bins0To2PassUnchangedEvenUnderHugeThresholds) {
    // DC and a sine on bin 1 keep their energy in bins 0..2 (the window's main lobe); every other
    // bin would be cut to G. Only the window's tiny leakage above bin 2 may be touched.
    OwnedRecord rec(1);
    rec.FlatThresholds(0, 1e9f);
    NoHissProcess process(&rec.r);
    const std::size_t frames = 30000;
    Signal x = kesta::test::Sine(frames, kRate / kN, kRate, 0.4);
    for (float& v : x)
        v += 0.3f;
    const Channels input{x};
    const Channels out = RunFromResume(process, input, 2048);
    const Signal expected = kesta::test::Delayed(x, kN);
    EXPECT_LE(kesta::test::MaxAbsDiff(Part(out[0], 2 * kN, frames - 2 * kN), Part(expected, 2 * kN, frames - 2 * kN)),
              1e-3);
}

// Thresholds near the level of full-scale noise, so gains spread over the whole knee.
void KneeThresholds(OwnedRecord& rec) {
    for (int c = 0; c < rec.r.channels; ++c)
        for (int k = 0; k < rec.r.fftSize; ++k)
            rec.r.thresholdRows[c][k] = static_cast<float>(3e-3 * (1.0 + 0.5 * c) * (1.0 + k / 4096.0));
}

TEST(NoHissProcess, ResidualOutputPlusCleanedOutputIsTheDelayedInput) {
    OwnedRecord rec(2);
    const Channels input = Padded(kesta::test::NoiseChannels(2, 40000, 77, 0.1));
    NoHissProcess passThrough(&rec.r);  // zero thresholds: a pure delay of one frame
    const Channels delayed = RunFromResume(passThrough, input, 1000);
    KneeThresholds(rec);
    NoHissProcess cleaned(&rec.r);
    rec.r.outputMode = 2;
    NoHissProcess residual(&rec.r);
    const Channels a = RunFromResume(cleaned, input, 3000);
    const Channels b = RunFromResume(residual, input, 3000);
    for (std::size_t c = 0; c < 2; ++c) {
        const Signal expected = kesta::test::Delayed(input[c], kN);
        EXPECT_LE(kesta::test::MaxAbsDiff(delayed[c], expected), 1e-5);
        EXPECT_LE(kesta::test::MaxAbsDiff(kesta::test::Mix(a[c], b[c]), expected), 1e-4);
        // Neither output is trivial: the gains did remove something.
        EXPECT_GT(kesta::test::Rms(b[c]), 0.1 * kesta::test::Rms(input[c]));
        EXPECT_GT(kesta::test::Rms(a[c]), 0.1 * kesta::test::Rms(input[c]));
    }
}

TEST(NoHissProcess, OutputDoesNotDependOnBlockSizeResumeOrCopy) {
    OwnedRecord rec(2);
    KneeThresholds(rec);
    const Channels input = kesta::test::NoiseChannels(2, 70000, 5, 0.1);
    NoHissProcess process(&rec.r);
    const Channels reference = RunFromResume(process, input, 4096);
    for (int block : {13, 4096, 65536})
        EXPECT_EQ(RunFromResume(process, input, block), reference) << "blocks of " << block;
    // Frame by frame over the first 12000 frames (the output so far depends only on them).
    const Channels ones = RunFromResume(process, Slice(input, 0, 12000), 1);
    for (std::size_t c = 0; c < 2; ++c)
        EXPECT_TRUE(std::equal(ones[c].begin(), ones[c].end(), reference[c].begin())) << "channel " << c;

    // A copy taken mid-stream continues exactly like the original.
    auto stream = [](NoHissProcess& p) { return [&p](float** in, float** out, int n) { p.Process(in, out, 2, n); }; };
    process.Resume();
    kesta::test::RunInBlocks(Slice(input, 0, 35000), stream(process), 1000);
    NoHissProcess copy(process);
    NoHissProcess assigned;
    assigned = process;
    const Channels second = Slice(input, 35000, 70000);
    for (NoHissProcess* p : {&process, &copy, &assigned}) {
        const Channels tail = kesta::test::RunInBlocks(second, stream(*p), 1000);
        for (std::size_t c = 0; c < 2; ++c)
            EXPECT_TRUE(std::equal(tail[c].begin(), tail[c].end(), reference[c].begin() + 35000)) << "channel " << c;
    }
}

TEST(NoHissProcess, StereoMatchesTwoSingleChannelRuns) {
    OwnedRecord rec(2);
    KneeThresholds(rec);
    const Channels input = Padded(kesta::test::NoiseChannels(2, 30000, 31, 0.1));
    NoHissProcess stereo(&rec.r);
    const Channels both = RunFromResume(stereo, input, 2500);
    NoHissProcess mono;
    for (std::size_t c = 0; c < 2; ++c) {
        mono.InitAsSingleChannel(&rec.r, static_cast<int>(c));
        EXPECT_EQ(mono.GetNumChannels(), 1);
        EXPECT_LE(kesta::test::MaxAbsDiff(RunFromResume(mono, {input[c]}, 2500)[0], both[c]), 1e-5) << c;
    }
    // Switching the channel without rebuilding takes the other row.
    mono.SetParamFromMultiChannelParam(&rec.r, 0);
    EXPECT_EQ(mono.GetNumChannels(), 1);
    EXPECT_EQ(mono.GetParam()->thresholdRows[0][100], rec.r.thresholdRows[0][100]);
}

TEST(NoHissProcess, ProcessDoesNotAllocate) {
    OwnedRecord rec(2);
    KneeThresholds(rec);
    NoHissProcess process(&rec.r);
    Channels input = kesta::test::NoiseChannels(2, 20000, 8, 0.1), output = kesta::test::ZeroChannels(2, 20000);
    process.Resume();
    kesta::test::AllocationCounter allocations;
    for (int pos = 0; pos < 20000; pos += 1000) {
        float* in[2] = {input[0].data() + pos, input[1].data() + pos};
        float* out[2] = {output[0].data() + pos, output[1].data() + pos};
        process.Process(in, out, 2, 1000);
    }
    EXPECT_EQ(allocations.Count(), 0);
}

// Hann-windowed periodogram power, averaged over half-overlapping segments, summed over bins
// whose centre lies in [f0, f1].
double BandPower(std::span<const float> x, double f0, double f1) {
    constexpr int M = 8192;
    std::vector<double> in(M), window(M);
    fftw_complex* out = fftw_alloc_complex(M / 2 + 1);
    fftw_plan plan = fftw_plan_dft_r2c_1d(M, in.data(), out, FFTW_ESTIMATE);
    for (int i = 0; i < M; ++i)
        window[static_cast<std::size_t>(i)] = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * i / M);
    double total = 0.0;
    int segments = 0;
    for (std::size_t s = 0; s + M <= x.size(); s += M / 2, ++segments) {
        for (int i = 0; i < M; ++i)
            in[static_cast<std::size_t>(i)] = x[s + static_cast<std::size_t>(i)] * window[static_cast<std::size_t>(i)];
        fftw_execute(plan);
        for (int k = 0; k <= M / 2; ++k) {
            const double f = k * kRate / M;
            if (f >= f0 && f <= f1) total += out[k][0] * out[k][0] + out[k][1] * out[k][1];
        }
    }
    fftw_destroy_plan(plan);
    fftw_free(out);
    return total / std::max(segments, 1);
}

TEST(NoHissDehiss, DefaultRuleRemovesHissWithoutDullingTones) {
    // One second of hiss alone to capture the floor, then three tones in the same hiss: -20, -30
    // and -40 dBFS against hiss of -40 dBFS RMS. Floor -> ComputeThresholdsFromFloor (defaults)
    // -> process, as the dehiss tool does.
    const std::size_t lead = 44100, body = 3 * 44100;
    const std::vector<double> tones = {440.0, 1000.0, 2500.0};
    const std::vector<double> amplitudes = {0.1, 0.03, 0.01};
    Signal x = kesta::test::GaussianNoise(lead + body, 2024, 0.01);
    for (std::size_t t = 0; t < tones.size(); ++t) {
        const Signal tone = kesta::test::Sine(body, tones[t], kRate, amplitudes[t]);
        for (std::size_t i = 0; i < body; ++i)
            x[lead + i] += tone[i];
    }

    OwnedRecord rec(1);
    CaptureNoiseFloor capture(&rec.r);
    capture.SetSelection(0, static_cast<long long>(lead));
    capture.Start(nullptr);
    Signal block(kN);
    float* data[1] = {block.data()};
    for (long long pos = 0; !capture.IsCompleted();) {
        // The host hands over only what lies inside the selection.
        const int n = static_cast<int>(std::min<long long>(kN, static_cast<long long>(lead) - pos));
        std::copy_n(x.begin() + pos, n, block.begin());
        pos += capture.Analyze(data, 1, n);
    }
    capture.Done();

    OwnedRecord thresholds(1);
    dsp::nohiss::CopyParameter(capture.GetParam(), &thresholds.r);
    dsp::nohiss::ComputeThresholdsFromFloor(&thresholds.r);
    NoHissProcess process(&thresholds.r);
    const Channels out = RunFromResume(process, Padded({x}), 4096);

    // Steady state of the tone section, output aligned with the input.
    const std::size_t from = lead + 8192, count = body - 8192;
    const auto in = Part(x, from, count);
    const auto cleaned = Part(out[0], from + kN, count);
    for (auto [f0, f1] : {std::pair{1200.0, 2200.0}, std::pair{4000.0, 10000.0}, std::pair{12000.0, 20000.0}}) {
        const double reductionDb = 10.0 * std::log10(BandPower(in, f0, f1) / BandPower(cleaned, f0, f1));
        EXPECT_GE(reductionDb, 10.0) << f0 << "-" << f1 << " Hz";
        EXPECT_LE(reductionDb, -20.0 * std::log10(kG) + 0.1) << "no more than the floor gain allows";
    }
    for (std::size_t t = 0; t < tones.size(); ++t) {
        const double changeDb = kesta::test::ToDb(kesta::test::LevelAt(cleaned, tones[t], kRate) /
                                                  kesta::test::LevelAt(in, tones[t], kRate));
        EXPECT_LT(std::fabs(changeDb), 1.0) << tones[t] << " Hz";
    }
}

}  // namespace
