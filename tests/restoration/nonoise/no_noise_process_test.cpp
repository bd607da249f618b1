// NoNoiseProcess: geometry and windows, end-to-end reduction of a captured print, residual
// output, block-size, copy and channel-layout invariance, the ceiling rules and edits mid-stream,
// smoothing, no allocation in Process, the gain rule and the frame kernel on every path.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <tuple>
#include <vector>

#include "dsp/nonoise.h"
#include "dsp/restoration/nonoise/noise_reducer.h"
#include "restoration/restoration_setup.h"
#include "support/metrics.h"

namespace {

using dsp::nonoise::CaptureNoisePrint;
using dsp::nonoise::NONOISE;
using dsp::nonoise::NoNoiseProcess;
using dsp::nonoise::detail::KernelPath;
using dsp::nonoise::detail::Smoothing;
using kesta::test::Channels;
using kesta::test::kRate;
using kesta::test::Part;
using kesta::test::Programme;
using kesta::test::Signal;
using kesta::test::Slice;
using kesta::test::Stream;
using Record = kesta::test::Owned<NONOISE>;

constexpr int kN = 4096;
constexpr std::size_t kLatency = kN;

void SetFlat(NONOISE& p, double avg, double mx, double mn) {
    for (int c = 0; c < p.channels; ++c) {
        std::fill_n(p.binRms[c], p.fftSize, avg);
        std::fill_n(p.binMax[c], p.fftSize, mx);
        std::fill_n(p.binMin[c], p.fftSize, mn);
    }
}

// The tones of the programme with white noise 30 dB below one tone's RMS.
const Channels& TheProgramme() {
    static const Programme programme(-30.0);
    return programme.x;
}

// A print captured from the programme's noise-only first 1.5 s.
const NONOISE& ThePrint() {
    static const struct CapturedPrint {
        CapturedPrint() {
            CaptureNoisePrint capture(&record.r);
            EXPECT_FALSE(kesta::test::RunCapture(capture, TheProgramme(), 0, Programme::kNoiseOnly).empty());
            dsp::nonoise::CopyNoNoise(capture.GetParam(), &record.r, false);
        }
        Record record{2, kN};
    } print;
    return print.record.r;
}

// max |y[n + latency] − gain · x[n]|, with the leading latency required silent.
double ErrorAgainstDelayed(const Signal& x, const Signal& y, double gain = 1.0) {
    return kesta::test::MaxAbsDiff(y, kesta::test::Delayed(x, kLatency, gain));
}

class WindowProbe : public NoNoiseProcess {
public:
    using NoNoiseProcess::NoNoiseProcess;
    const float* Analysis() const { return mAnalysisWindow; }
};

TEST(NoNoiseProcess, EngineGeometryAndWindowsFollowTheRecord) {
    Record defaults(2, kN);
    WindowProbe process(&defaults.r);
    EXPECT_EQ(std::tuple(process.GetFrameLength(), process.GetNumChannels(), process.GetOutputOffset(),
                         process.GetCrossfadeLength(), static_cast<int>(process.GetWindowType()), process.GetLatency()),
              std::tuple(4096, 2, 1755, 585, 5, 4096));

    // The print's window, so frames are measured as the print was. (Its reciprocal for synthesis
    // shows in every output; the flat-print cases below pin it down.)
    process.Resume();
    const std::vector<double> w = kesta::test::PrintWindow(kN);
    for (int n = 0; n < kN; ++n)
        ASSERT_NEAR(process.Analysis()[n], w[n], 1e-7 * w[n]) << n;

    // (V − 1)·N/V, then halved: 6·1024/7 = 877, 877/2 = 438. A single-channel set-up rebuilds the
    // engine from its print.
    Record other(3, 1024);
    NoNoiseProcess single;
    single.InitAsSingleChannel(&other.r, 2);
    EXPECT_EQ(std::tuple(single.GetFrameLength(), single.GetNumChannels(), single.GetOutputOffset(),
                         single.GetCrossfadeLength(), single.GetParam()->channels),
              std::tuple(1024, 1, 438, 146, 1));
}

TEST(NoNoiseProcess, CapturedPrintRemovesTheNoiseKeepsTheTonesAndTheResidualAddsBack) {
    const Channels& x = TheProgramme();
    NoNoiseProcess cleaner(&ThePrint());
    NoNoiseProcess remover(&ThePrint());
    remover.GetParam()->outputMode = 2;
    const Channels y = Stream(cleaner, x);
    const Channels removed = Stream(remover, x);

    // Input spans: noise alone 0.1 ... 1.35 s, tones 2.0 ... 4.4 s; the output is kLatency later.
    const std::size_t noiseFrom = 4410, noiseCount = 55125, toneFrom = 88200, toneCount = 105840;
    auto in = [&](const Signal& s) { return Part(s, toneFrom, toneCount); };
    auto out = [&](const Signal& s) { return Part(s, toneFrom + kLatency, toneCount); };
    for (int c = 0; c < 2; ++c) {
        SCOPED_TRACE(c);
        EXPECT_GE(kesta::test::ToDb(kesta::test::Rms(Part(x[c], noiseFrom, noiseCount)) /
                                    kesta::test::Rms(Part(y[c], noiseFrom + kLatency, noiseCount))),
                  20.0);
        for (double f : Programme::kSteady[c])
            EXPECT_LT(std::fabs(kesta::test::ToDb(kesta::test::LevelAt(out(y[c]), f, kRate) /
                                                  kesta::test::LevelAt(in(x[c]), f, kRate))),
                      0.5)
                << f << " Hz";
        // All four tones together, the glide too, keep their level.
        EXPECT_LT(std::fabs(kesta::test::ToDb(kesta::test::Rms(out(y[c])) / kesta::test::Rms(in(x[c])))), 0.5);
        EXPECT_LE(ErrorAgainstDelayed(x[c], kesta::test::Mix(y[c], removed[c])), 1e-4);
    }
}

TEST(NoNoiseProcess, ResumeRestartsAndChannelLayoutDoesNotMatter) {
    // Two seconds holding the noise-only stretch's end and the tones' start.
    const Channels x = Slice(TheProgramme(), 44100, 132300);
    NONOISE print = ThePrint();  // shallow: read only
    NoNoiseProcess process(&print);
    const Channels reference = Stream(process, x, 4096);
    EXPECT_TRUE(Stream(process, x, 13) == reference);

    // Each channel alone through a single-channel process gives the same, and so does one that
    // takes the channel into its existing engine.
    for (int c = 0; c < 2; ++c) {
        NoNoiseProcess mono, other;
        mono.InitAsSingleChannel(&print, c);
        const Channels m = Stream(mono, {x[c]});
        EXPECT_LE(kesta::test::MaxAbsDiff(m[0], reference[c]), 1e-5) << c;
        other.InitAsSingleChannel(&print, 1 - c);
        other.SetParamFromMultiChannelParam(&print, c);
        EXPECT_TRUE(Stream(other, {x[c]}) == m) << c;
    }

    // Suspend drops the working state: frames of a new stream pass unprocessed.
    process.Resume();
    process.Suspend();
    const Channels bypassed = kesta::test::RunInBlocks(
        x, [&](float** in, float** out, int n) { process.Process(in, out, 2, n); }, 4096);
    for (int c = 0; c < 2; ++c)
        EXPECT_LE(ErrorAgainstDelayed(x[c], bypassed[c]), 1e-6);
}

TEST(NoNoiseProcess, FlatPrintsGiveEveryBinTheGainOfTheRuleAndEditsApplyMidStream) {
    // binRms = binMax enormous puts every bin below the knee (t/m = 1): the gain is 1 − min(r, 1)
    // everywhere, so the output is the delayed input times that gain. Each case is set through
    // ParameterChanged on the running stream; frames taken after the edit follow it.
    auto plain = [](double db) { return std::pow(10.0, -db / 20.0); };  // 1 − R
    const double R = 1.0 - plain(40.0);
    struct Case {
        const char* what;
        double avg, mx, mn, reductionDb, precisionExponent, transitionDb;
        int outputMode;
        double gain;
    };
    const Case cases[] = {
        {"binMin 0: plain ceiling", 1e3, 1e3, 0.0, 40.0, 1.0, 0.0, 1, plain(40.0)},
        {"20 dB", 1e3, 1e3, 0.0, 20.0, 1.0, 0.0, 1, plain(20.0)},
        {"0.5 dB acts as 1", 1e3, 1e3, 0.0, 0.5, 1.0, 0.0, 1, plain(1.0)},
        {"-20 dB acts as 1", 1e3, 1e3, 0.0, -20.0, 1.0, 0.0, 1, plain(1.0)},
        {"0 dB: bypass", 1e3, 1e3, 0.0, 0.0, 1.0, 0.0, 1, 1.0},
        {"0 dB: bypass even for the residual", 1e3, 1e3, 0.0, 0.0, 1.0, 0.0, 2, 1.0},
        {"residual of 20 dB", 1e3, 1e3, 0.0, 20.0, 1.0, 0.0, 2, 1.0 - plain(20.0)},
        // A knee from 1e-9 to 1e6 (exponent 0, 300 dB): t/m is near 2, so r is the lifted ceiling
        // (binMax/binMin = 2) and the gain 1 − r < 0 turns the signal over.
        {"ceiling above 1 flips inside the knee", 7.5e-10, 1e-9, 5e-10, 40.0, 0.0, 300.0, 1,
         1.0 - (R + (1.0 - R) * 5.0 / 2.0)},
    };
    constexpr std::size_t kSegment = 15000;
    Channels x = kesta::test::NoiseChannels(2, kSegment * std::size(cases), 5, 0.3), y = x;
    Record record(2, kN);
    NoNoiseProcess process(&record.r);
    process.Resume();
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const Case& tc = cases[i];
        NONOISE& p = *process.GetParam();
        SetFlat(p, tc.avg, tc.mx, tc.mn);
        std::tie(p.reductionDb, p.precisionExponent, p.transitionDb) =
            std::tuple(tc.reductionDb, tc.precisionExponent, tc.transitionDb);
        p.outputMode = static_cast<int16_t>(tc.outputMode);
        process.ParameterChanged();
        float* in[2] = {x[0].data() + i * kSegment, x[1].data() + i * kSegment};
        float* out[2] = {y[0].data() + i * kSegment, y[1].data() + i * kSegment};
        process.Process(in, out, 2, kSegment);
    }
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const double gain = cases[i].gain, tolerance = 1e-6 * std::max(std::fabs(gain), 0.01);
        for (int c = 0; c < 2; ++c)
            for (std::size_t n = i * kSegment + 2 * kLatency; n < (i + 1) * kSegment; ++n)
                ASSERT_NEAR(y[c][n], gain * x[c][n - kLatency], tolerance) << cases[i].what << ", frame " << n;
    }
}

TEST(NoNoiseProcess, SmoothingOffMakesEveryFrameIndependentOfThePast) {
    // A prefix of whole hops (2L = 1170 frames) keeps the frame grid; once the frames no longer
    // reach into it only the smoothing memory could tell the runs apart.
    const std::size_t prefix = 10 * 1170;
    const Channels x = Slice(TheProgramme(), 60000, 100000);
    Channels prefixed = Slice(TheProgramme(), 100000, 100000 + prefix);
    for (int c = 0; c < 2; ++c)
        prefixed[c].insert(prefixed[c].end(), x[c].begin(), x[c].end());
    for (double percent : {0.0, 65.0}) {
        NoNoiseProcess process(&ThePrint());
        process.GetParam()->smoothingPercent = percent;
        const Channels a = Stream(process, x), b = Stream(process, prefixed);
        bool same = true;
        for (int c = 0; c < 2; ++c)
            same = same && std::equal(a[c].begin() + 2 * kN, a[c].end(), b[c].begin() + 2 * kN + prefix);
        EXPECT_EQ(same, percent == 0.0) << percent << "%";
    }
}

TEST(NoNoiseGainRule, ThresholdKneeAndCeilingFollowThePrint) {
    using dsp::nonoise::detail::MakeBinRule;
    const double avg = 0.3, mx = 0.8, mn = 0.1, R = 0.99;
    EXPECT_NEAR(dsp::nonoise::detail::ReductionCeiling(40.0), R, 1e-15);
    // The threshold ±s²(4·avg − mx − 3·mn) + s(2·mx + 2·mn − 4·avg) + mn, here ±0.1·s² + 0.6·s + 0.1:
    // mn at s = 0, mx at s = 1, the square term signed by s, clipped at 0. Spread 1 and exponent 0
    // make lo = hi = T.
    for (auto [s, T] : {std::pair{0.0, 0.1}, {0.5, 0.425}, {1.0, 0.8}, {1.5, 1.225}, {-0.05, 0.06975}, {-0.5, 0.0}}) {
        const auto rule = MakeBinRule(avg, mx, mn, s, 1.0, 0.0, R);
        EXPECT_NEAR(rule.lo, T, 1e-14) << s;
        EXPECT_EQ(rule.hi, rule.lo) << s;
    }
    // Defaults (s = 1, spread 1, exponent 1): hi = T = mx, lo = T·avg/mx.
    auto rule = MakeBinRule(avg, mx, mn, 1.0, 1.0, 1.0, R);
    EXPECT_NEAR(rule.hi, mx, 1e-15);
    EXPECT_NEAR(rule.lo, avg, 1e-15);
    EXPECT_NEAR(rule.ceiling, R + (1 - R) * 5.0 / 8.0, 1e-15);
    // A 6 dB spread outweighing the ratio's narrowing puts the knee above T.
    const double spread = std::pow(10.0, 6.0 / 20.0);
    rule = MakeBinRule(avg, mx, mn, 1.0, spread, 0.5, R);
    EXPECT_NEAR(rule.lo, mx, 1e-15);
    EXPECT_NEAR(rule.hi, mx * std::sqrt(avg / mx) * spread, 1e-14);
    // binMin 0: the plain ceiling; a ratio below 5 lifts it past 1; binMax 0 skips the ratio.
    EXPECT_EQ(MakeBinRule(avg, mx, 0.0, 1.0, 1.0, 1.0, R).ceiling, R);
    EXPECT_NEAR(MakeBinRule(avg, mx, 0.4, 1.0, 1.0, 1.0, R).ceiling, 1.015, 1e-15);
    rule = MakeBinRule(0.0, 0.0, 0.0, 1.0, spread, 1.0, R);
    EXPECT_EQ(rule.lo + rule.hi, 0.0);
}

// One channel of a frame with its knee tables.
struct Lane {
    std::vector<float> re, im;
    std::vector<double> lo, hi, width, ceiling, scratch;
};

double Magnitude(const Lane& ch, int k, double scale) {
    const double a = ch.re[k], b = ch.im[k];
    return std::sqrt(a * a + b * b) * scale;
}

// The rule on one lane: magnitude; smoothing over its row P (every `stride`-th value; q from this
// frame's k − 2, k − 1 and the last frame's k + 1, k + 2; falling decays, rising follows at 0.93);
// target from the knee; gain 1 − min(r, t/m).
void ReferenceFrame(Lane& ch, double* P, int stride, double scale, Smoothing mode, double decay) {
    for (int k = 0; k < static_cast<int>(ch.re.size()); ++k) {
        double m = Magnitude(ch, k, scale);
        double& p = P[k * stride];
        if (mode == Smoothing::Seed) p = m;
        if (mode == Smoothing::Run) {
            const double q = 0.1 * P[(k - 2) * stride] + 0.2 * P[(k - 1) * stride] + 0.4 * m +
                             0.2 * P[(k + 1) * stride] + 0.1 * P[(k + 2) * stride];
            m = p = q <= p ? p * decay + (1.0 - decay) * q : p * 0.07 + q * 0.93;
        }
        const double lo = ch.lo[k], hi = ch.hi[k];
        const double t = m < lo ? m : (m >= hi ? hi : m + ((m - lo) / (hi - lo)) * (hi - m));
        const double g = m == 0.0 ? 1.0 : 1.0 - std::min(ch.ceiling[k], t / m);
        ch.re[k] = static_cast<float>(ch.re[k] * g);
        ch.im[k] = static_cast<float>(ch.im[k] * g);
    }
}

// Knees around the magnitudes' range, some empty, some with a ceiling above 1; a zero bin; a raw
// magnitude exactly on a lower knee edge (bin 9) and one on an empty knee with a ceiling above 1
// (bin 14), ties wherever the raw magnitude decides.
Lane RandomLane(kesta::test::Random& random, int n, double scale) {
    Lane ch;
    for (int k = 0; k < n; ++k) {
        ch.re.push_back(static_cast<float>(random.Uniform() - 0.5));
        ch.im.push_back(static_cast<float>(random.Uniform() - 0.5));
        ch.lo.push_back(0.003 * random.Uniform());
        ch.hi.push_back(k % 7 == 0 ? ch.lo.back() : ch.lo.back() * (1.0 + 3.0 * random.Uniform()));
        ch.ceiling.push_back(k % 5 == 0 ? 1.015 : 0.9 + 0.09 * random.Uniform());
    }
    ch.re[3] = ch.im[3] = 0.0f;
    ch.lo[9] = Magnitude(ch, 9, scale);
    ch.hi[9] = 2.0 * ch.lo[9];
    ch.lo[14] = ch.hi[14] = Magnitude(ch, 14, scale);
    ch.ceiling[14] = 1.2;
    for (int k = 0; k < n; ++k)
        ch.width.push_back(ch.hi[k] - ch.lo[k]);
    ch.scratch.resize(n);
    return ch;
}

TEST(NoNoiseGainRule, FrameKernelFollowsTheRuleBitForBitOnEveryPath) {
    constexpr int n = 257;  // odd: every vector path has a tail
    const double scale = 4.0 / 512, decay = 0.65;
    kesta::test::Random random(3);
    for (int lanes : {1, 2}) {
        for (Smoothing mode : {Smoothing::Off, Smoothing::Seed, Smoothing::Run}) {
            SCOPED_TRACE(testing::Message() << lanes << " lanes, mode " << static_cast<int>(mode));
            // The smoothing rows, interleaved by lane, with four zero guard bins each side.
            std::vector<double> row((n + 8) * lanes, 0.0);
            for (int i = 4 * lanes; i < (n + 4) * lanes; ++i)
                row[i] = 0.004 * random.Uniform();
            std::vector<Lane> input;
            for (int lane = 0; lane < lanes; ++lane)
                input.push_back(RandomLane(random, n, scale));
            std::vector<Lane> expected = input;
            std::vector<double> expectedRow = row;
            for (int lane = 0; lane < lanes; ++lane)
                ReferenceFrame(expected[lane], expectedRow.data() + 4 * lanes + lane, lanes, scale, mode, decay);

            for (KernelPath path : {KernelPath::Best, KernelPath::Sse2, KernelPath::Portable}) {
                SCOPED_TRACE(static_cast<int>(path));
                std::vector<Lane> got = input;
                std::vector<double> gotRow = row;
                dsp::nonoise::NOISEREDUCER::Group g;
                g.lanes = lanes;
                g.smoothed = gotRow.data() + 4 * lanes;
                for (int lane = 0; lane < lanes; ++lane) {
                    Lane& ch = got[lane];
                    g.lane[lane] = {ch.lo.data(), ch.hi.data(), ch.width.data(), ch.ceiling.data(), ch.scratch.data()};
                }
                float* re[2] = {got[0].re.data(), got[lanes - 1].re.data()};
                float* im[2] = {got[0].im.data(), got[lanes - 1].im.data()};
                dsp::nonoise::detail::ReduceGroup(re, im, g, n, scale, mode, decay, 1.0 - decay, path);
                EXPECT_TRUE(gotRow == expectedRow);
                for (int lane = 0; lane < lanes; ++lane)
                    EXPECT_TRUE(got[lane].re == expected[lane].re && got[lane].im == expected[lane].im) << lane;
            }
        }
    }
}

}  // namespace
