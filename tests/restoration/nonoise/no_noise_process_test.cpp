// NoNoiseProcess: geometry and windows; end-to-end reduction of a captured noise print on a
// programme of tones; residual output; block-size invariance; stereo against two single-channel
// runs; the ceiling rules (plain ceiling, the 1 dB floor, the 0 dB bypass, the unclamped ceiling
// that mutes or flips a bin); smoothing off; the gain rule's design half and the per-frame
// kernels; stream control; Process making no allocation.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <new>
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

// A default record with arrays, freed by the destructor.
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
    // Every bin of every channel gets the same statistics.
    void SetFlat(double avg, double mx, double mn) {
        for (int c = 0; c < p.channels; ++c)
            for (int k = 0; k < p.fftSize; ++k) {
                p.binRms[c][k] = avg;
                p.binMax[c][k] = mx;
                p.binMin[c][k] = mn;
            }
    }
    NONOISE p;
};

Channels Stream(NoNoiseProcess& process, const Channels& x, int block) {
    process.Resume();
    const int channels = static_cast<int>(x.size());
    return kesta::test::RunInBlocks(
        x, [&](float** in, float** out, int n) { process.Process(in, out, channels, n); }, block);
}

// The programme: per channel three steady tones and one glide, each of amplitude 0.1 and entering
// (with a 10 ms fade) after 1.5 s of noise alone; Gaussian white noise 30 dB below one tone's RMS
// throughout.
struct Programme {
    static constexpr std::size_t kNoiseOnly = 66150;  // 1.5 s
    static constexpr std::size_t kFrames = 198450;    // 4.5 s
    static constexpr double kAmplitude = 0.1;
    static constexpr double kSteady[2][3] = {{440.0, 1250.0, 3100.0}, {620.0, 1750.0, 4400.0}};
    static constexpr double kGlide[2][2] = {{1500.0, 2800.0}, {2000.0, 4000.0}};

    Programme() {
        const double noiseRms = kAmplitude / std::sqrt(2.0) * std::pow(10.0, -30.0 / 20.0);
        const std::size_t toneFrames = kFrames - kNoiseOnly;
        for (int c = 0; c < 2; ++c) {
            Signal tones(kFrames, 0.0f);
            std::vector<Signal> parts;
            for (double f : kSteady[c])
                parts.push_back(kesta::test::Sine(toneFrames, f, kRate, kAmplitude));
            parts.push_back(kesta::test::LogSweep(toneFrames, kGlide[c][0], kGlide[c][1], kRate, kAmplitude));
            for (const Signal& part : parts)
                for (std::size_t n = 0; n < toneFrames; ++n) {
                    const double fade = n < 441 ? 0.5 - 0.5 * std::cos(std::numbers::pi * n / 441.0) : 1.0;
                    tones[kNoiseOnly + n] += static_cast<float>(part[n] * fade);
                }
            const Signal noise = kesta::test::GaussianNoise(kFrames, 77 + static_cast<uint64_t>(c), noiseRms);
            clean.push_back(tones);
            noisy.push_back(kesta::test::Mix(tones, noise));
        }
    }
    Channels clean;
    Channels noisy;
};

const Programme& TheProgramme() {
    static const Programme programme;
    return programme;
}

// A print captured from the programme's noise-only first 1.5 s, as a host takes it.
struct CapturedPrint {
    CapturedPrint() {
        Channels x = TheProgramme().noisy;
        CaptureNoisePrint capture(&record.p);
        EXPECT_TRUE(capture.SetSelection(0, Programme::kNoiseOnly));
        capture.Start(nullptr);
        std::size_t pos = 0;
        while (!capture.IsCompleted()) {
            float* ptrs[2] = {x[0].data() + pos, x[1].data() + pos};
            pos += static_cast<std::size_t>(capture.Analyze(ptrs, 2, capture.GetDesiredBlockSize()));
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

std::span<const float> Segment(const Signal& x, std::size_t from, std::size_t to) {
    return std::span<const float>(x).subspan(from, to - from);
}

double Power(std::span<const float> x) {
    const double r = kesta::test::Rms(x);
    return r * r;
}

// max |y[n + latency] − gain · x[n]| over the whole stream, and the leading latency is silent.
double MaxErrorAgainstDelayed(const Signal& x, const Signal& y, double gain) {
    double error = 0.0;
    for (std::size_t n = 0; n + kLatency < y.size(); ++n)
        error = std::max(error, std::fabs(static_cast<double>(y[n + kLatency]) - gain * x[n]));
    for (std::size_t n = 0; n < kLatency; ++n)
        error = std::max(error, std::fabs(static_cast<double>(y[n])));
    return error;
}

// ---- geometry and windows -----------------------------------------------------------------------

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
    auto v = [&](int k) {
        return 0.35875L - 0.48829L * std::cos(2 * pi * k / kN) + 0.14128L * std::cos(4 * pi * k / (kN - 1)) -
               0.01168L * std::cos(6 * pi * k / kN);
    };
    EXPECT_EQ(process.Analysis()[0], 0.0f);
    EXPECT_EQ(process.Synthesis()[0], 0.0f);
    EXPECT_EQ(process.Analysis()[kN / 2], 1.0f);
    EXPECT_EQ(process.Synthesis()[kN / 2], 1.0f / kN);
    for (int n = 1; n < kN; ++n) {
        if (n == kN / 2) continue;
        const long double w = v(n < kN / 2 ? n - 1 : kN - 1 - n);
        ASSERT_NEAR(process.Analysis()[n], w, 1e-7L * w) << n;
        ASSERT_NEAR(process.Synthesis()[n], 1.0L / kN / w, 1e-7L / kN / w) << n;
    }

    // (V − 1)·N/V first, then halved: 6·1024/7 = 877, 877/2 = 438. A single-channel set-up
    // rebuilds the engine from the print it is given.
    Record other(3, 1024);
    NoNoiseProcess single;
    single.InitAsSingleChannel(&other.p, 2);
    EXPECT_EQ(single.GetFrameLength(), 1024);
    EXPECT_EQ(single.GetNumChannels(), 1);
    EXPECT_EQ(single.GetOutputOffset(), 438);
    EXPECT_EQ(single.GetCrossfadeLength(), 146);
    EXPECT_EQ(single.GetParam()->channels, 1);
}

// ---- end to end -----------------------------------------------------------------------------------

TEST(NoNoiseProcess, CapturedPrintRemovesTheNoiseKeepsTheTonesAndTheResidualAddsBack) {
    const Programme& prog = TheProgramme();
    NoNoiseProcess cleaner(&ThePrint());
    NoNoiseProcess remover(&ThePrint());
    remover.GetParam()->outputMode = 2;
    const Channels y = Stream(cleaner, prog.noisy, 4096);
    const Channels removed = Stream(remover, prog.noisy, 4096);

    // Input spans (output spans are kLatency later): noise alone 0.1 ... 1.35 s (clear of the
    // tones' onset and its frame), tones 2.0 ... 4.4 s.
    const std::size_t noiseFrom = 4410, noiseTo = 59535, toneFrom = 88200, toneTo = 194040;
    auto in = [&](const Signal& s, std::size_t a, std::size_t b) { return Segment(s, a, b); };
    auto out = [&](const Signal& s, std::size_t a, std::size_t b) { return Segment(s, a + kLatency, b + kLatency); };
    for (int c = 0; c < 2; ++c) {
        SCOPED_TRACE(c);
        const Signal& x = prog.noisy[c];
        const double noiseDb = 10.0 * std::log10(Power(in(x, noiseFrom, noiseTo)) / Power(out(y[c], noiseFrom, noiseTo)));
        EXPECT_GE(noiseDb, 20.0);
        for (double f : Programme::kSteady[c]) {
            const double before = kesta::test::LevelAt(in(x, toneFrom, toneTo), f, kRate);
            const double after = kesta::test::LevelAt(out(y[c], toneFrom, toneTo), f, kRate);
            EXPECT_LT(std::fabs(20.0 * std::log10(after / before)), 0.5) << f << " Hz";
        }
        // All four tones together (the glide too) keep their level, and the output is closer to
        // the clean programme than the input was.
        const double levelDb =
            10.0 * std::log10(Power(out(y[c], toneFrom, toneTo)) / Power(in(x, toneFrom, toneTo)));
        EXPECT_LT(std::fabs(levelDb), 0.5);
        const auto clean = in(prog.clean[c], toneFrom, toneTo);
        EXPECT_GT(kesta::test::SnrDb(clean, out(y[c], toneFrom, toneTo)),
                  kesta::test::SnrDb(clean, in(x, toneFrom, toneTo)));

        // Cleaned + removed is the delayed input; the removed part of pure noise is nearly all of it.
        EXPECT_LE(MaxErrorAgainstDelayed(x, kesta::test::Mix(y[c], removed[c]), 1.0), 1e-4);
        EXPECT_GT(10.0 * std::log10(Power(out(removed[c], noiseFrom, noiseTo)) / Power(in(x, noiseFrom, noiseTo))),
                  -0.5);
    }
}

TEST(NoNoiseProcess, BlockPartitionDoesNotChangeOutput) {
    // Two seconds that hold the noise-only stretch's end and the tones' start.
    const Programme& prog = TheProgramme();
    Channels x;
    for (const Signal& s : prog.noisy)
        x.emplace_back(s.begin() + 44100, s.begin() + 132300);
    NoNoiseProcess process(&ThePrint());
    const Channels reference = Stream(process, x, 4096);
    for (int block : {1, 13, 65536})
        EXPECT_TRUE(Stream(process, x, block) == reference) << "blocks of " << block;
    process.Resume();
    const Channels random = kesta::test::RunInRandomBlocks(
        x, [&](float** i, float** o, int n) { process.Process(i, o, 2, n); }, 5000, 9);
    EXPECT_TRUE(random == reference);
}

TEST(NoNoiseProcess, StereoRunMatchesTwoSingleChannelRuns) {
    const Programme& prog = TheProgramme();
    NONOISE print = ThePrint();  // shallow: read only
    NoNoiseProcess stereo(&print);
    const Channels y = Stream(stereo, prog.noisy, 4096);
    for (int c = 0; c < 2; ++c) {
        NoNoiseProcess mono;
        mono.InitAsSingleChannel(&print, c);
        const Channels m = Stream(mono, Channels{prog.noisy[c]}, 4096);
        EXPECT_LE(kesta::test::MaxAbsDiff(m[0], y[c]), 1e-5) << c;

        // Taking the channel into an existing single-channel processor gives the same.
        NoNoiseProcess other;
        other.InitAsSingleChannel(&print, 1 - c);
        other.SetParamFromMultiChannelParam(&print, c);
        EXPECT_TRUE(Stream(other, Channels{prog.noisy[c]}, 4096) == m) << c;
    }
}

// ---- the ceiling rules --------------------------------------------------------------------------------

TEST(NoNoiseProcess, FlatPrintsGiveEveryBinTheGainOfTheRule) {
    // With binRms = binMax enormous every bin of the noise is below the knee (lo = T·avg/mx = mx),
    // so t/m = 1 and the gain is 1 − min(r, 1) everywhere: the output is the delayed input times
    // that gain. The gains are the rules evaluated here.
    const Channels x = kesta::test::NoiseChannels(2, 30000, 5, 0.3);
    auto plain = [](double db) { return std::pow(10.0, -db / 20.0); };  // 1 − R
    const double R = 1.0 - plain(40.0);
    const double lifted = R + (1.0 - R) * 5.0 / 2.0;  // binMax/binMin = 2: above 1
    struct Case {
        const char* what;
        double avg, mx, mn;
        double reductionDb, precisionExponent, transitionDb;
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
        // A knee from 1e-9 to 1e6 (exponent 0, 300 dB): t/m is close to 2 for every bin, so r is
        // the lifted ceiling and the gain 1 − r < 0 turns the signal over.
        {"ceiling above 1 flips inside the knee", 7.5e-10, 1e-9, 5e-10, 40.0, 0.0, 300.0, 1, 1.0 - lifted},
    };
    for (const Case& tc : cases) {
        Record record;
        record.SetFlat(tc.avg, tc.mx, tc.mn);
        record.p.reductionDb = tc.reductionDb;
        record.p.precisionExponent = tc.precisionExponent;
        record.p.transitionDb = tc.transitionDb;
        record.p.outputMode = static_cast<int16_t>(tc.outputMode);
        NoNoiseProcess process(&record.p);
        const Channels y = Stream(process, x, 4096);
        for (int c = 0; c < 2; ++c)
            EXPECT_LE(MaxErrorAgainstDelayed(x[c], y[c], tc.gain), 1e-6 * std::max(std::fabs(tc.gain), 0.01))
                << tc.what;
        if (tc.gain == 0.0) {
            EXPECT_EQ(kesta::test::Peak(y[0]), 0.0) << tc.what;
        }
    }
}

TEST(NoNoiseProcess, SmoothingOffMakesEveryFrameIndependentOfThePast) {
    // A prefix of whole hops (2L = 1170 frames) keeps the frame grid on x; once the frames no
    // longer reach into the prefix, only the smoothing memory could tell the runs apart.
    const Programme& prog = TheProgramme();
    Channels x, prefixed;
    const std::size_t prefix = 10 * 1170;
    for (int c = 0; c < 2; ++c) {
        x.emplace_back(prog.noisy[c].begin() + 60000, prog.noisy[c].begin() + 100000);
        Signal p(prog.noisy[c].begin() + 100000, prog.noisy[c].begin() + 100000 + prefix);
        p.insert(p.end(), x.back().begin(), x.back().end());
        prefixed.push_back(p);
    }
    for (double percent : {0.0, 65.0}) {
        NoNoiseProcess process(&ThePrint());
        process.GetParam()->smoothingPercent = percent;
        const Channels a = Stream(process, x, 4096);
        const Channels b = Stream(process, prefixed, 4096);
        bool same = true;
        for (int c = 0; c < 2; ++c)
            same = same && std::equal(a[c].begin() + 2 * kN, a[c].end(), b[c].begin() + 2 * kN + prefix);
        EXPECT_EQ(same, percent == 0.0) << percent << "%";
    }
}

// ---- the gain rule: design and per-frame kernel ----------------------------------------------

TEST(NoNoiseGainRule, ThresholdKneeAndCeilingFollowThePrint) {
    using dsp::nonoise::detail::MakeBinRule;
    using dsp::nonoise::detail::ReductionCeiling;
    EXPECT_NEAR(ReductionCeiling(40.0), 0.99, 1e-15);
    EXPECT_EQ(ReductionCeiling(0.5), ReductionCeiling(1.0));
    EXPECT_EQ(ReductionCeiling(-6.0), ReductionCeiling(1.0));
    EXPECT_NEAR(ReductionCeiling(0.0), 1.0 - 1e-5, 1e-15);  // off: the ceiling of 100 dB

    // The threshold polynomial, evaluated here in long double: mn at s = 0, mx at s = 1, the
    // square term signed by s, clipped at 0. Spread 1 and exponent 0 make lo = hi = T.
    const double avg = 0.3, mx = 0.8, mn = 0.1, R = 0.99;
    for (double s : {0.0, 0.25, 0.5, 1.0, 1.5, -0.05, -0.5, -3.0}) {
        const long double sgn = s > 0 ? 1 : (s < 0 ? -1 : 0), ls = s;
        const long double T = std::max(
            sgn * ls * ls * (4 * avg - mx - 3 * mn) + ls * (2 * mx + 2 * mn - 4 * avg) + mn, 0.0L);
        const auto rule = MakeBinRule(avg, mx, mn, s, 1.0, 0.0, R);
        EXPECT_NEAR(rule.lo, static_cast<double>(T), 1e-15) << s;
        EXPECT_EQ(rule.hi, rule.lo) << s;
    }
    EXPECT_EQ(MakeBinRule(avg, mx, mn, 0.0, 1.0, 0.0, R).lo, mn);
    EXPECT_EQ(MakeBinRule(avg, mx, mn, -3.0, 1.0, 0.0, R).lo, 0.0);

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
    EXPECT_EQ(rule.lo, 0.0);
    EXPECT_EQ(rule.hi, 0.0);
}

// One channel's frame through the rule as it reads: the magnitude; the smoothing over a row with
// four guard bins each side (q from this frame's bins k − 2, k − 1 and the last frame's k + 1,
// k + 2, left to right; a falling q decays, a rising one is followed at 0.93); the target from the
// knee; the gain 1 − min(r, t/m). Counts the rising and falling bins.
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
            m = q <= P[k] ? P[k] * decay + (1.0 - decay) * q : P[k] * 0.07 + q * 0.93;
            P[k] = m;
        }
        const double lo = ch.lo[k], hi = ch.hi[k];
        const double t = m < lo ? m : (m >= hi ? hi : m + ((m - lo) / (hi - lo)) * (hi - m));
        const double g = m == 0.0 ? 1.0 : 1.0 - std::min(ch.ceiling[k], t / m);
        ch.re[k] = static_cast<float>(a * g);
        ch.im[k] = static_cast<float>(b * g);
    }
}

TEST(NoNoiseGainRule, FrameKernelFollowsTheRuleBitForBitOnEveryPath) {
    using dsp::nonoise::NOISEREDUCER;
    using dsp::nonoise::detail::KernelPath;
    using dsp::nonoise::detail::Smoothing;
    constexpr int n = 257;  // odd: every vector path has a tail
    const double scale = 4.0 / 512, decay = 0.65;
    kesta::test::Random random(3);
    // Knees around the magnitudes' range, some empty, some with a ceiling above 1; a zero bin.
    auto makeChannel = [&]() {
        ChannelCase ch;
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
        return ch;
    };

    for (int lanes : {1, 2}) {
        for (Smoothing mode : {Smoothing::Off, Smoothing::Seed, Smoothing::Run}) {
            SCOPED_TRACE(testing::Message() << lanes << " lanes, mode " << static_cast<int>(mode));
            std::vector<ChannelCase> input;
            for (int lane = 0; lane < lanes; ++lane)
                input.push_back(makeChannel());
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
            if (mode == Smoothing::Run) {
                EXPECT_GT(rises, 20);
                EXPECT_GT(falls, 20);
            }

            for (KernelPath path : {KernelPath::Best, KernelPath::Sse2, KernelPath::Portable}) {
                const int pathIndex = static_cast<int>(path);
                std::vector<ChannelCase> got = input;
                std::vector<double> row((n + 8) * lanes);  // interleaved by lane
                std::vector<std::vector<double>> width(lanes), scratch(lanes, std::vector<double>(n));
                NOISEREDUCER::Group g;
                g.lanes = lanes;
                g.smoothed = row.data() + 4 * lanes;
                for (int lane = 0; lane < lanes; ++lane) {
                    for (int k = 0; k < n + 8; ++k)
                        row[k * lanes + lane] = input[lane].row[k];
                    for (int k = 0; k < n; ++k)
                        width[lane].push_back(got[lane].hi[k] - got[lane].lo[k]);
                    g.lane[lane] = {got[lane].lo.data(), got[lane].hi.data(), width[lane].data(),
                                    got[lane].ceiling.data(), scratch[lane].data()};
                }
                float* re[2] = {got[0].re.data(), got[lanes - 1].re.data()};
                float* im[2] = {got[0].im.data(), got[lanes - 1].im.data()};
                dsp::nonoise::detail::ReduceGroup(re, im, g, n, scale, mode, decay, 1.0 - decay, path);
                for (int lane = 0; lane < lanes; ++lane) {
                    EXPECT_TRUE(got[lane].re == expected[lane].re) << "path " << pathIndex << " lane " << lane;
                    EXPECT_TRUE(got[lane].im == expected[lane].im) << "path " << pathIndex << " lane " << lane;
                    for (int k = 0; k < n + 8; ++k)
                        ASSERT_EQ(row[k * lanes + lane], expected[lane].row[k]) << "path " << pathIndex;
                }
            }
        }
    }
}

// ---- stream control ---------------------------------------------------------------------------------

TEST(NoNoiseProcess, ResumeRestartsCopiesContinueAndSuspendBypasses) {
    const Programme& prog = TheProgramme();
    Channels x;
    for (const Signal& s : prog.noisy)
        x.emplace_back(s.begin() + 50000, s.begin() + 110000);
    NoNoiseProcess process(&ThePrint());
    const Channels first = Stream(process, x, 4096);
    EXPECT_TRUE(Stream(process, x, 4096) == first);  // Resume re-seeds the smoothing

    // Copies taken mid-stream go on exactly like the original.
    process.Resume();
    const int half = 30000;
    Channels in = x, out = kesta::test::ZeroChannels(2, 60000);
    auto feed = [&](NoNoiseProcess& p, Channels& o, int from, int count) {
        float* i[2] = {in[0].data() + from, in[1].data() + from};
        float* q[2] = {o[0].data() + from, o[1].data() + from};
        p.Process(i, q, 2, count);
    };
    feed(process, out, 0, half);
    NoNoiseProcess copy(process);
    NoNoiseProcess assigned;
    assigned = process;
    for (NoNoiseProcess* p : {&copy, &assigned}) {
        Channels o = out;
        feed(*p, o, half, 60000 - half);
        EXPECT_TRUE(o == first);
    }

    // Suspend drops the working state: frames pass unprocessed (the delayed input).
    process.Resume();
    process.Suspend();
    const Channels bypassed =
        kesta::test::RunInBlocks(x, [&](float** i, float** o, int n) { process.Process(i, o, 2, n); }, 4096);
    for (int c = 0; c < 2; ++c)
        EXPECT_LE(MaxErrorAgainstDelayed(x[c], bypassed[c], 1.0), 1e-6);
}

TEST(NoNoiseProcess, ParameterChangedAppliesAnEditedRecord) {
    const Channels x = kesta::test::NoiseChannels(2, 30000, 5, 0.3);
    Record record;
    record.SetFlat(1e3, 1e3, 0.0);  // every bin below the knee: gain 1 − R
    NoNoiseProcess process(&record.p);
    process.Resume();
    Channels in = x, y = kesta::test::ZeroChannels(2, 30000);
    for (int from : {0, 15000}) {
        if (from > 0) {
            process.GetParam()->reductionDb = 20.0;
            process.ParameterChanged();
        }
        float* i[2] = {in[0].data() + from, in[1].data() + from};
        float* o[2] = {y[0].data() + from, y[1].data() + from};
        process.Process(i, o, 2, 15000);
    }
    // Output from frames taken before the change is at −40 dB, from frames after it at −20 dB.
    for (int c = 0; c < 2; ++c) {
        for (std::size_t n = kLatency + 1000; n < 10000; ++n)
            ASSERT_NEAR(y[c][n], 0.01 * x[c][n - kLatency], 1e-6) << n;
        for (std::size_t n = 15000 + 2 * kLatency; n < 30000; ++n)
            ASSERT_NEAR(y[c][n], 0.1 * x[c][n - kLatency], 1e-6) << n;
    }

    // A print without a second channel (the record as constructed, at 40 dB): that channel
    // passes unprocessed.
    process.SetParamFromMultiChannelParam(&record.p, 0);
    const Channels z = Stream(process, x, 4096);
    EXPECT_LE(MaxErrorAgainstDelayed(x[0], z[0], 0.01), 1e-6);
    EXPECT_LE(MaxErrorAgainstDelayed(x[1], z[1], 1.0), 1e-6);
}

TEST(NoNoiseProcess, ProcessDoesNotAllocate) {
    const Channels x = kesta::test::NoiseChannels(2, 30000, 5, 0.3);
    for (int mode : {1, 2}) {
        NoNoiseProcess process(&ThePrint());
        process.GetParam()->outputMode = static_cast<int16_t>(mode);
        process.Resume();
        Channels in = x, out = kesta::test::ZeroChannels(2, x[0].size());
        kesta::test::AllocationCounter allocations;
        for (std::size_t pos = 0; pos < x[0].size(); pos += 1000) {
            float* i[2] = {in[0].data() + pos, in[1].data() + pos};
            float* o[2] = {out[0].data() + pos, out[1].data() + pos};
            process.Process(i, o, 2, static_cast<int>(std::min<std::size_t>(1000, x[0].size() - pos)));
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
