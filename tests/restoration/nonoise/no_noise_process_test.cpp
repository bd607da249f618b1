// NoNoiseProcess: geometry and windows, end-to-end reduction of a captured print, residual
// output, block-size invariance, stereo against single-channel runs, the ceiling rules, the gain
// rule and frame kernels, stream control, no allocation in Process.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <span>
#include <vector>

#include "dsp/nonoise.h"
#include "dsp/restoration/nonoise/noise_reducer.h"
#include "dsp/self_checks.h"
#include "support/allocation_counter.h"
#include "support/metrics.h"
#include "support/signals.h"

namespace {

using dsp::nonoise::CaptureNoisePrint;
using dsp::nonoise::NONOISE;
using dsp::nonoise::NoNoiseProcess;
using kesta::test::Channels;
using kesta::test::Signal;

constexpr double kRate = 44100.0;
constexpr int kN = 4096;
constexpr std::size_t kLatency = kN;

struct Record {
    explicit Record(int channels = 2, int fftSize = kN) {
        dsp::nonoise::SetDefaultParameter(&p);
        p.channels = static_cast<int16_t>(channels);
        p.fftSize = static_cast<int16_t>(fftSize);
        dsp::nonoise::AllocateArrays(&p);
    }
    ~Record() { dsp::nonoise::FreeArrays(&p); }
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;
    void SetFlat(double avg, double mx, double mn) {
        for (int c = 0; c < p.channels; ++c) {
            std::fill_n(p.binRms[c], p.fftSize, avg);
            std::fill_n(p.binMax[c], p.fftSize, mx);
            std::fill_n(p.binMin[c], p.fftSize, mn);
        }
    }
    NONOISE p;
};

Channels Stream(NoNoiseProcess& process, const Channels& x, int block = 4096) {
    process.Resume();
    const int channels = static_cast<int>(x.size());
    return kesta::test::RunInBlocks(
        x, [&](float** in, float** out, int n) { process.Process(in, out, channels, n); }, block);
}

// Per channel three steady tones and a glide of amplitude 0.1, entering with a 10 ms fade after
// 1.5 s of noise alone; Gaussian white noise 30 dB below one tone's RMS throughout.
struct Programme {
    static constexpr std::size_t kNoiseOnly = 66150;
    static constexpr std::size_t kFrames = 198450;
    static constexpr double kSteady[2][3] = {{440.0, 1250.0, 3100.0}, {620.0, 1750.0, 4400.0}};
    static constexpr double kGlide[2][2] = {{1500.0, 2800.0}, {2000.0, 4000.0}};

    Programme() {
        const double noiseRms = 0.1 / std::sqrt(2.0) * std::pow(10.0, -30.0 / 20.0);
        const std::size_t toneFrames = kFrames - kNoiseOnly;
        for (int c = 0; c < 2; ++c) {
            std::vector<Signal> parts;
            for (double f : kSteady[c])
                parts.push_back(kesta::test::Sine(toneFrames, f, kRate, 0.1));
            parts.push_back(kesta::test::LogSweep(toneFrames, kGlide[c][0], kGlide[c][1], kRate, 0.1));
            Signal x = kesta::test::GaussianNoise(kFrames, 77 + c, noiseRms);
            for (const Signal& part : parts)
                for (std::size_t n = 0; n < toneFrames; ++n) {
                    const double fade = n < 441 ? 0.5 - 0.5 * std::cos(std::numbers::pi * n / 441.0) : 1.0;
                    x[kNoiseOnly + n] += static_cast<float>(part[n] * fade);
                }
            noisy.push_back(x);
        }
    }
    Channels noisy;
};

const Channels& TheProgramme() {
    static const Programme programme;
    return programme.noisy;
}

// A print captured from the programme's noise-only first 1.5 s.
struct CapturedPrint {
    CapturedPrint() {
        Channels x = TheProgramme();
        CaptureNoisePrint capture(&record.p);
        EXPECT_TRUE(capture.SetSelection(0, Programme::kNoiseOnly));
        capture.Start(nullptr);
        for (std::size_t pos = 0; !capture.IsCompleted();) {
            float* ptrs[2] = {x[0].data() + pos, x[1].data() + pos};
            pos += capture.Analyze(ptrs, 2, capture.GetDesiredBlockSize());
        }
        capture.Done();
        dsp::nonoise::CopyNoNoise(capture.GetParam(), &record.p, false);
    }
    Record record;
};

const NONOISE& ThePrint() {
    static const CapturedPrint print;
    return print.record.p;
}

Channels Slice(const Channels& x, std::size_t from, std::size_t to) {
    Channels out;
    for (const Signal& s : x)
        out.emplace_back(s.begin() + from, s.begin() + to);
    return out;
}

double Power(const Signal& x, std::size_t from, std::size_t to) {
    const double r = kesta::test::Rms(std::span<const float>(x).subspan(from, to - from));
    return r * r;
}

// max |y[n + latency] − gain · x[n]|, with the leading latency required silent.
double MaxErrorAgainstDelayed(const Signal& x, const Signal& y, double gain) {
    double error = 0.0;
    for (std::size_t n = 0; n < y.size(); ++n)
        error = std::max(error, std::fabs(y[n] - (n < kLatency ? 0.0 : gain * x[n - kLatency])));
    return error;
}

class WindowProbe : public NoNoiseProcess {
public:
    using NoNoiseProcess::NoNoiseProcess;
    const float* Analysis() const { return mAnalysisWindow; }
    const float* Synthesis() const { return mSynthesisWindow; }
};

TEST(NoNoiseProcess, EngineGeometryAndWindowsFollowTheRecord) {
    Record defaults;
    WindowProbe process(&defaults.p);
    EXPECT_EQ(process.GetFrameLength(), 4096);
    EXPECT_EQ(process.GetNumChannels(), 2);
    EXPECT_EQ(process.GetOutputOffset(), 1755);
    EXPECT_EQ(process.GetCrossfadeLength(), 585);
    EXPECT_EQ(static_cast<int>(process.GetWindowType()), 5);
    EXPECT_EQ(process.GetLatency(), 4096);

    // The print window (shifted one index, middle term over N − 1) and (1/N)/v for synthesis.
    process.Resume();
    const long double pi = std::numbers::pi_v<long double>;
    EXPECT_EQ(process.Analysis()[0], 0.0f);
    EXPECT_EQ(process.Synthesis()[0], 0.0f);
    EXPECT_EQ(process.Analysis()[kN / 2], 1.0f);
    EXPECT_EQ(process.Synthesis()[kN / 2], 1.0f / kN);
    for (int n = 1; n < kN; ++n) {
        if (n == kN / 2) continue;
        const long double k = n < kN / 2 ? n - 1 : kN - 1 - n;
        const long double w = 0.35875L - 0.48829L * std::cos(2 * pi * k / kN) +
                              0.14128L * std::cos(4 * pi * k / (kN - 1)) - 0.01168L * std::cos(6 * pi * k / kN);
        ASSERT_NEAR(process.Analysis()[n], w, 1e-7L * w) << n;
        ASSERT_NEAR(process.Synthesis()[n], 1.0L / kN / w, 1e-7L / kN / w) << n;
    }

    // (V − 1)·N/V, then halved: 6·1024/7 = 877, 877/2 = 438. A single-channel set-up rebuilds the
    // engine from its print.
    Record other(3, 1024);
    NoNoiseProcess single;
    single.InitAsSingleChannel(&other.p, 2);
    EXPECT_EQ(single.GetFrameLength(), 1024);
    EXPECT_EQ(single.GetNumChannels(), 1);
    EXPECT_EQ(single.GetOutputOffset(), 438);
    EXPECT_EQ(single.GetCrossfadeLength(), 146);
    EXPECT_EQ(single.GetParam()->channels, 1);
}

TEST(NoNoiseProcess, CapturedPrintRemovesTheNoiseKeepsTheTonesAndTheResidualAddsBack) {
    const Channels& x = TheProgramme();
    NoNoiseProcess cleaner(&ThePrint());
    NoNoiseProcess remover(&ThePrint());
    remover.GetParam()->outputMode = 2;
    const Channels y = Stream(cleaner, x);
    const Channels removed = Stream(remover, x);

    // Input spans: noise alone 0.1 ... 1.35 s, tones 2.0 ... 4.4 s; the output is kLatency later.
    const std::size_t noiseFrom = 4410, noiseTo = 59535, toneFrom = 88200, toneTo = 194040;
    auto in = [&](const Signal& s) { return std::span<const float>(s).subspan(toneFrom, toneTo - toneFrom); };
    auto out = [&](const Signal& s) { return std::span<const float>(s).subspan(toneFrom + kLatency, toneTo - toneFrom); };
    for (int c = 0; c < 2; ++c) {
        SCOPED_TRACE(c);
        EXPECT_GE(10.0 * std::log10(Power(x[c], noiseFrom, noiseTo) /
                                    Power(y[c], noiseFrom + kLatency, noiseTo + kLatency)),
                  20.0);
        for (double f : Programme::kSteady[c])
            EXPECT_LT(std::fabs(20.0 * std::log10(kesta::test::LevelAt(out(y[c]), f, kRate) /
                                                  kesta::test::LevelAt(in(x[c]), f, kRate))),
                      0.5)
                << f << " Hz";
        // All four tones together, the glide too, keep their level.
        EXPECT_LT(std::fabs(20.0 * std::log10(kesta::test::Rms(out(y[c])) / kesta::test::Rms(in(x[c])))), 0.5);
        EXPECT_LE(MaxErrorAgainstDelayed(x[c], kesta::test::Mix(y[c], removed[c]), 1.0), 1e-4);
    }
}

TEST(NoNoiseProcess, BlockPartitionAndResumeDoNotChangeOutput) {
    // Two seconds holding the noise-only stretch's end and the tones' start.
    const Channels x = Slice(TheProgramme(), 44100, 132300);
    NoNoiseProcess process(&ThePrint());
    const Channels reference = Stream(process, x, 4096);
    for (int block : {1, 13, 4096, 65536})
        EXPECT_TRUE(Stream(process, x, block) == reference) << "blocks of " << block;
}

TEST(NoNoiseProcess, StereoRunMatchesTwoSingleChannelRuns) {
    const Channels& x = TheProgramme();
    NONOISE print = ThePrint();  // shallow: read only
    NoNoiseProcess stereo(&print);
    const Channels y = Stream(stereo, x);
    for (int c = 0; c < 2; ++c) {
        NoNoiseProcess mono;
        mono.InitAsSingleChannel(&print, c);
        const Channels m = Stream(mono, Channels{x[c]});
        EXPECT_LE(kesta::test::MaxAbsDiff(m[0], y[c]), 1e-5) << c;
        // Taking the channel into an existing single-channel processor gives the same.
        NoNoiseProcess other;
        other.InitAsSingleChannel(&print, 1 - c);
        other.SetParamFromMultiChannelParam(&print, c);
        EXPECT_TRUE(Stream(other, Channels{x[c]}) == m) << c;
    }
}

TEST(NoNoiseProcess, FlatPrintsGiveEveryBinTheGainOfTheRule) {
    // binRms = binMax enormous puts every bin below the knee (t/m = 1): the gain is 1 − min(r, 1)
    // everywhere, so the output is the delayed input times that gain.
    const Channels x = kesta::test::NoiseChannels(2, 30000, 5, 0.3);
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
        {"12 dB", 1e3, 1e3, 0.0, 12.0, 1.0, 0.0, 1, plain(12.0)},
        {"0.5 dB acts as 1", 1e3, 1e3, 0.0, 0.5, 1.0, 0.0, 1, plain(1.0)},
        {"-20 dB acts as 1", 1e3, 1e3, 0.0, -20.0, 1.0, 0.0, 1, plain(1.0)},
        {"0 dB: bypass", 1e3, 1e3, 0.0, 0.0, 1.0, 0.0, 1, 1.0},
        {"0 dB: bypass even for the residual", 1e3, 1e3, 0.0, 0.0, 1.0, 0.0, 2, 1.0},
        {"ceiling above 1 mutes below the knee", 1e3, 1e3, 500.0, 40.0, 1.0, 0.0, 1, 0.0},
        // A knee from 1e-9 to 1e6 (exponent 0, 300 dB): t/m is near 2, so r is the lifted ceiling
        // (binMax/binMin = 2) and the gain 1 − r < 0 turns the signal over.
        {"ceiling above 1 flips inside the knee", 7.5e-10, 1e-9, 5e-10, 40.0, 0.0, 300.0, 1,
         1.0 - (R + (1.0 - R) * 5.0 / 2.0)},
    };
    for (const Case& tc : cases) {
        Record record;
        record.SetFlat(tc.avg, tc.mx, tc.mn);
        record.p.reductionDb = tc.reductionDb;
        record.p.precisionExponent = tc.precisionExponent;
        record.p.transitionDb = tc.transitionDb;
        record.p.outputMode = static_cast<int16_t>(tc.outputMode);
        NoNoiseProcess process(&record.p);
        const Channels y = Stream(process, x);
        for (int c = 0; c < 2; ++c)
            EXPECT_LE(MaxErrorAgainstDelayed(x[c], y[c], tc.gain), 1e-6 * std::max(std::fabs(tc.gain), 0.01))
                << tc.what;
        if (tc.gain == 0.0) {
            EXPECT_EQ(kesta::test::Peak(y[0]), 0.0) << tc.what;
        }
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
    // The threshold polynomial in long double: mn at s = 0, mx at s = 1, the square term signed by
    // s, clipped at 0. Spread 1 and exponent 0 make lo = hi = T.
    for (double s : {0.0, 0.25, 0.5, 1.0, 1.5, -0.05, -0.5, -3.0}) {
        const long double sgn = s > 0 ? 1 : (s < 0 ? -1 : 0), ls = s;
        const long double T = std::max(
            sgn * ls * ls * (4 * avg - mx - 3 * mn) + ls * (2 * mx + 2 * mn - 4 * avg) + mn, 0.0L);
        const auto rule = MakeBinRule(avg, mx, mn, s, 1.0, 0.0, R);
        EXPECT_NEAR(rule.lo, static_cast<double>(T), 1e-15) << s;
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

// One channel's frame through the rule: magnitude; smoothing over a row with four guard bins each
// side (q from this frame's k − 2, k − 1 and the last frame's k + 1, k + 2; falling decays, rising
// follows at 0.93); target from the knee; gain 1 − min(r, t/m).
struct ChannelCase {
    std::vector<float> re, im;
    std::vector<double> row, lo, hi, ceiling;
};

void ReferenceFrame(ChannelCase& ch, int n, double scale, dsp::nonoise::detail::Smoothing mode, double decay,
                    int& rises, int& falls) {
    using dsp::nonoise::detail::Smoothing;
    double* P = ch.row.data() + 4;
    for (int k = 0; k < n; ++k) {
        const double a = ch.re[k], b = ch.im[k];
        double m = std::sqrt(a * a + b * b) * scale;
        if (mode == Smoothing::Seed) P[k] = m;
        if (mode == Smoothing::Run) {
            const double q = 0.1 * P[k - 2] + 0.2 * P[k - 1] + 0.4 * m + 0.2 * P[k + 1] + 0.1 * P[k + 2];
            (q <= P[k] ? falls : rises)++;
            m = P[k] = q <= P[k] ? P[k] * decay + (1.0 - decay) * q : P[k] * 0.07 + q * 0.93;
        }
        const double lo = ch.lo[k], hi = ch.hi[k];
        const double t = m < lo ? m : (m >= hi ? hi : m + ((m - lo) / (hi - lo)) * (hi - m));
        const double g = m == 0.0 ? 1.0 : 1.0 - std::min(ch.ceiling[k], t / m);
        ch.re[k] = static_cast<float>(a * g);
        ch.im[k] = static_cast<float>(b * g);
    }
}

TEST(NoNoiseGainRule, FrameKernelFollowsTheRuleBitForBitOnEveryPath) {
    using dsp::nonoise::detail::KernelPath;
    using dsp::nonoise::detail::Smoothing;
    constexpr int n = 257;  // odd: every vector path has a tail
    const double scale = 4.0 / 512, decay = 0.65;
    kesta::test::Random random(3);
    for (int lanes : {1, 2}) {
        for (Smoothing mode : {Smoothing::Off, Smoothing::Seed, Smoothing::Run}) {
            SCOPED_TRACE(testing::Message() << lanes << " lanes, mode " << static_cast<int>(mode));
            // Knees around the magnitudes' range, some empty, some with a ceiling above 1; a zero bin.
            std::vector<ChannelCase> input(lanes);
            for (ChannelCase& ch : input) {
                ch.row.assign(n + 8, 0.0);
                for (int k = 0; k < n; ++k) {
                    ch.re.push_back(static_cast<float>(random.Uniform() - 0.5));
                    ch.im.push_back(static_cast<float>(random.Uniform() - 0.5));
                    ch.row[k + 4] = 0.004 * random.Uniform();
                    ch.lo.push_back(0.003 * random.Uniform());
                    ch.hi.push_back(k % 7 == 0 ? ch.lo.back() : ch.lo.back() * (1.0 + 3.0 * random.Uniform()));
                    ch.ceiling.push_back(k % 5 == 0 ? 1.015 : 0.9 + 0.09 * random.Uniform());
                }
                ch.re[3] = ch.im[3] = 0.0f;
            }
            if (mode == Smoothing::Off) {
                // Raw magnitudes exactly on a lower knee edge (bin 9) and on an empty knee with a
                // ceiling above 1 (bin 14).
                auto raw = [&](int k) {
                    const double a = input[0].re[k], b = input[0].im[k];
                    return std::sqrt(a * a + b * b) * scale;
                };
                input[0].lo[9] = raw(9);
                input[0].hi[9] = 2.0 * raw(9);
                input[0].lo[14] = input[0].hi[14] = raw(14);
                input[0].ceiling[14] = 1.2;
            }
            std::vector<ChannelCase> expected = input;
            int rises = 0, falls = 0;
            for (ChannelCase& ch : expected)
                ReferenceFrame(ch, n, scale, mode, decay, rises, falls);
            EXPECT_TRUE(mode != Smoothing::Run || (rises > 20 && falls > 20));

            for (KernelPath path : {KernelPath::Best, KernelPath::Sse2, KernelPath::Portable}) {
                SCOPED_TRACE(static_cast<int>(path));
                std::vector<ChannelCase> got = input;
                std::vector<double> row((n + 8) * lanes), width(n * lanes), scratch(n * lanes);
                dsp::nonoise::NOISEREDUCER::Group g;
                g.lanes = lanes;
                g.smoothed = row.data() + 4 * lanes;  // interleaved by lane
                for (int lane = 0; lane < lanes; ++lane) {
                    ChannelCase& ch = got[lane];
                    for (int k = 0; k < n + 8; ++k)
                        row[k * lanes + lane] = ch.row[k];
                    for (int k = 0; k < n; ++k)
                        width[lane * n + k] = ch.hi[k] - ch.lo[k];
                    g.lane[lane] = {ch.lo.data(), ch.hi.data(), &width[lane * n], ch.ceiling.data(), &scratch[lane * n]};
                }
                float* re[2] = {got[0].re.data(), got[lanes - 1].re.data()};
                float* im[2] = {got[0].im.data(), got[lanes - 1].im.data()};
                dsp::nonoise::detail::ReduceGroup(re, im, g, n, scale, mode, decay, 1.0 - decay, path);
                for (int lane = 0; lane < lanes; ++lane) {
                    EXPECT_TRUE(got[lane].re == expected[lane].re && got[lane].im == expected[lane].im) << lane;
                    for (int k = 0; k < n + 8; ++k)
                        ASSERT_EQ(row[k * lanes + lane], expected[lane].row[k]) << "lane " << lane;
                }
            }
        }
    }
}

TEST(NoNoiseProcess, CopiesContinueAndSuspendBypasses) {
    const Channels x = Slice(TheProgramme(), 50000, 110000);
    NoNoiseProcess process(&ThePrint());
    const Channels tail = Slice(Stream(process, x), 30000, 60000);
    auto run = [](NoNoiseProcess& p, const Channels& in) {
        return kesta::test::RunInBlocks(in, [&](float** i, float** o, int n) { p.Process(i, o, 2, n); }, 4096);
    };
    Stream(process, Slice(x, 0, 30000));
    NoNoiseProcess copy(process);
    NoNoiseProcess assigned;
    assigned = process;
    EXPECT_TRUE(run(copy, Slice(x, 30000, 60000)) == tail);
    EXPECT_TRUE(run(assigned, Slice(x, 30000, 60000)) == tail);

    // Suspend drops the working state: frames pass unprocessed.
    process.Resume();
    process.Suspend();
    const Channels bypassed = run(process, x);
    for (int c = 0; c < 2; ++c)
        EXPECT_LE(MaxErrorAgainstDelayed(x[c], bypassed[c], 1.0), 1e-6);
}

TEST(NoNoiseProcess, ParameterChangedAppliesAnEditedRecordMidStream) {
    Channels x = kesta::test::NoiseChannels(2, 30000, 5, 0.3);
    Record record;
    record.SetFlat(1e3, 1e3, 0.0);  // every bin below the knee: gain 1 − R
    NoNoiseProcess process(&record.p);
    process.Resume();
    Channels y = kesta::test::ZeroChannels(2, 30000);
    for (int from : {0, 15000}) {
        process.GetParam()->reductionDb = from == 0 ? 40.0 : 20.0;
        process.ParameterChanged();
        float* i[2] = {x[0].data() + from, x[1].data() + from};
        float* o[2] = {y[0].data() + from, y[1].data() + from};
        process.Process(i, o, 2, 15000);
    }
    // Frames taken before the change come out at −40 dB, frames after it at −20 dB.
    for (int c = 0; c < 2; ++c) {
        for (std::size_t n = kLatency + 1000; n < 10000; ++n)
            ASSERT_NEAR(y[c][n], 0.01 * x[c][n - kLatency], 1e-6) << n;
        for (std::size_t n = 15000 + 2 * kLatency; n < 30000; ++n)
            ASSERT_NEAR(y[c][n], 0.1 * x[c][n - kLatency], 1e-6) << n;
    }
}

TEST(NoNoiseProcess, ProcessDoesNotAllocate) {
    Channels x = kesta::test::NoiseChannels(2, 30000, 5, 0.3), out = kesta::test::ZeroChannels(2, 30000);
    for (int mode : {1, 2}) {
        NoNoiseProcess process(&ThePrint());
        process.GetParam()->outputMode = static_cast<int16_t>(mode);
        process.Resume();
        kesta::test::AllocationCounter allocations;
        for (std::size_t pos = 0; pos < 30000; pos += 1000) {
            float* i[2] = {x[0].data() + pos, x[1].data() + pos};
            float* o[2] = {out[0].data() + pos, out[1].data() + pos};
            process.Process(i, o, 2, 1000);
        }
        EXPECT_EQ(allocations.Count(), 0) << "outputMode " << mode;
    }
}

TEST(NoNoiseSelfChecks, AllPass) {
    dsp::checks::CheckSuite suite;
    dsp::checks::AddNoNoiseChecks(suite);
    ASSERT_GE(suite.Size(), 3u);
    for (const auto& result : suite.Run())
        EXPECT_TRUE(result.outcome.passed) << result.name << ": " << result.outcome.detail;
}

}  // namespace
