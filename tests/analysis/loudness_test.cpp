// Loudness and true peak against the broadcast meter test signals, synthesised here from their
// published descriptions (1 kHz tones at given levels and durations, tones at fractions of the
// sample rate for the true peak), each checked within the published tolerance: ±0.1 LU for
// loudness, ±1 LU for loudness range, +0.2/-0.4 dB for true peak. Beside them: the weighting at
// other rates against the published 48 kHz filter evaluated here, block partitions, allocation.

#include "dsp/loudness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <functional>
#include <numbers>
#include <vector>

#include "dsp/analysis/true_peak_kernels.h"
#include "support/allocation_counter.h"
#include "support/signals.h"

namespace {

using dsp::Itu1770;
using dsp::TruePeak;
using namespace kesta::test;

constexpr double kSilence = -1000.0;  // a segment level meaning digital silence

struct Segment {
    double seconds;
    double dbfs;  // peak level of the 1 kHz tone, or kSilence
};

// A 1 kHz tone through a list of segments (phase running on across them), the same in every one
// of `channels` channels unless `channelDb` gives each channel an offset.
Channels ToneSequence(const std::vector<Segment>& segments, int rate, int channels = 2,
                      const std::vector<double>& channelDb = {}) {
    Channels x(static_cast<std::size_t>(channels));
    std::size_t n = 0;
    const double w = 2.0 * std::numbers::pi * 1000.0 / rate;
    for (const Segment& s : segments) {
        const auto frames = static_cast<std::size_t>(std::llround(s.seconds * rate));
        std::vector<double> gains;
        for (int c = 0; c < channels; ++c) {
            const double db = s.dbfs + (channelDb.empty() ? 0.0 : channelDb[static_cast<std::size_t>(c)]);
            gains.push_back(s.dbfs <= kSilence ? 0.0 : std::pow(10.0, db / 20.0));
        }
        for (std::size_t i = 0; i < frames; ++i) {
            const double v = std::sin(w * static_cast<double>((n + i) % static_cast<std::size_t>(rate)));
            for (std::size_t c = 0; c < x.size(); ++c)
                x[c].push_back(static_cast<float>(gains[c] * v));
        }
        n += frames;
    }
    return x;
}

// Feeds x in blocks of `block` frames, calling `after(framesSoFar)` after each block.
template <typename Meter>
void Feed(Meter& meter, const Channels& x, int block, const std::function<void(std::size_t)>& after = {}) {
    const std::size_t frames = x[0].size();
    std::vector<const float*> p(x.size());
    for (std::size_t at = 0; at < frames; at += static_cast<std::size_t>(block)) {
        const int n = static_cast<int>(std::min<std::size_t>(static_cast<std::size_t>(block), frames - at));
        for (std::size_t c = 0; c < x.size(); ++c)
            p[c] = x[c].data() + at;
        meter.Process(p.data(), static_cast<int>(x.size()), n);
        if (after) after(at + static_cast<std::size_t>(n));
    }
}

TEST(Itu1770, IntegratedLoudnessOfTheToneSequences) {
    struct Case {
        const char* name;
        std::vector<Segment> segments;
        double expected;
    };
    const std::vector<Case> cases = {
        {"1: -23 dBFS", {{20, -23}}, -23.0},
        {"2: -33 dBFS", {{20, -33}}, -33.0},
        {"3: relative gate", {{10, -36}, {60, -23}, {10, -36}}, -23.0},
        {"4: both gates", {{10, -72}, {10, -36}, {60, -23}, {10, -36}, {10, -72}}, -23.0},
        {"5: level steps", {{20, -26}, {20.1, -20}, {20, -26}}, -23.0},
        {"digital silence around", {{5, kSilence}, {20, -23}, {5, kSilence}}, -23.0},
    };
    for (const int rate : {48000, 44100}) {
        for (const Case& c : cases) {
            if (rate != 48000 && c.segments.size() > 1) continue;
            Itu1770 meter(rate, 2);
            Feed(meter, ToneSequence(c.segments, rate), 4096);
            EXPECT_NEAR(meter.GetIntegrated(), c.expected, 0.1) << c.name << " at " << rate;
            if (c.segments.size() == 1) {  // a steady tone: every time scale agrees
                EXPECT_NEAR(meter.GetMomentary(), c.expected, 0.1) << c.name;
                EXPECT_NEAR(meter.GetShortTerm(), c.expected, 0.1) << c.name;
            }
        }
    }
}

TEST(Itu1770, SurroundChannelsCarryTheirWeights) {
    // 5.0 (L R C Ls Rs) at -28, -28, -24, -30, -30 dBFS; and the same with a loud LFE between C and
    // Ls in a 5.1 layout, which is not measured.
    Itu1770 five(48000, 5);
    Feed(five, ToneSequence({{20, 0}}, 48000, 5, {-28, -28, -24, -30, -30}), 4096);
    EXPECT_NEAR(five.GetIntegrated(), -23.0, 0.1);

    Itu1770 six(48000, 6);
    Feed(six, ToneSequence({{20, 0}}, 48000, 6, {-28, -28, -24, -6, -30, -30}), 4096);
    EXPECT_NEAR(six.GetIntegrated(), -23.0, 0.1);
    EXPECT_EQ(six.GetChannelWeight(3), 0.0);
}

TEST(Itu1770, ShortTermAndMomentaryHoldSteadyOverRepeatedSteps) {
    // The 3 s window always holds 1.34 s at -20 and 1.66 s at -30 dBFS; the 400 ms window 0.18 s
    // at -20 and 0.22 s at -30: both read -23 at every refresh once the first window is full.
    struct Case {
        double loud, quiet, settle;
        int repeats;
        bool shortTerm;
    };
    for (const Case& c : {Case{1.34, 1.66, 3.0, 5, true}, Case{0.18, 0.22, 1.0, 25, false}}) {
        std::vector<Segment> segments;
        for (int i = 0; i < c.repeats; ++i)
            segments.push_back({c.loud, -20}), segments.push_back({c.quiet, -30});
        Itu1770 meter(48000, 2);
        double lowest = 0.0, highest = -100.0;
        Feed(meter, ToneSequence(segments, 48000), 480, [&](std::size_t frames) {
            if (static_cast<double>(frames) / 48000.0 < c.settle) return;
            const double v = c.shortTerm ? meter.GetShortTerm() : meter.GetMomentary();
            lowest = std::min(lowest, v), highest = std::max(highest, v);
        });
        EXPECT_NEAR(lowest, -23.0, 0.1) << (c.shortTerm ? "short-term" : "momentary");
        EXPECT_NEAR(highest, -23.0, 0.1) << (c.shortTerm ? "short-term" : "momentary");
    }
}

// Segment i: i * offset of silence, a tone of `length` at `level(i)`, then `tail` of silence.
struct BurstSeries {
    double offset, length;
    double tail;  // negative: length - i * offset (the live-meter series keep segments equal)
    bool shortTerm;
};

std::vector<Segment> Burst(const BurstSeries& s, int i, double level) {
    const double tail = s.tail >= 0 ? s.tail : s.length - i * s.offset;
    return {{i * s.offset, kSilence}, {s.length, level}, {tail, kSilence}};
}

TEST(Itu1770, LargestMomentaryAndShortTermCatchEveryBurst) {
    // Separate files: 20 bursts at -23 dBFS, each starting i * 150 ms (3 s tones) or i * 20 ms
    // (400 ms tones) in: the largest value must be -23 whatever the offset.
    for (const BurstSeries& s : {BurstSeries{0.15, 3.0, 1.0, true}, BurstSeries{0.02, 0.4, 1.0, false}}) {
        for (int i = 0; i < 20; ++i) {
            Itu1770 meter(48000, 2);
            Feed(meter, ToneSequence(Burst(s, i, -23.0), 48000), 1000);
            const double largest = s.shortTerm ? meter.GetMaxShortTerm() : meter.GetMaxMomentary();
            EXPECT_NEAR(largest, -23.0, 0.1) << (s.shortTerm ? "short-term" : "momentary") << " segment " << i;
        }
    }
    // One stream: bursts at -38 + i dBFS, each segment as long as two windows; the largest value
    // within segment i is -38 + i.
    for (const BurstSeries& s : {BurstSeries{0.15, 3.0, -1, true}, BurstSeries{0.02, 0.4, -1, false}}) {
        std::vector<Segment> segments;
        for (int i = 0; i < 20; ++i)
            for (const Segment& part : Burst(s, i, -38.0 + i))
                segments.push_back(part);
        std::vector<double> largest(20, -200.0);
        Itu1770 meter(48000, 2);
        const auto segmentFrames = static_cast<std::size_t>(std::llround(2 * s.length * 48000));
        Feed(meter, ToneSequence(segments, 48000), 480, [&](std::size_t frames) {
            const std::size_t i = (frames - 1) / segmentFrames;
            const double v = s.shortTerm ? meter.GetShortTerm() : meter.GetMomentary();
            if (i < largest.size()) largest[i] = std::max(largest[i], v);
        });
        for (int i = 0; i < 20; ++i)
            EXPECT_NEAR(largest[static_cast<std::size_t>(i)], -38.0 + i, 0.1)
                << (s.shortTerm ? "short-term" : "momentary") << " segment " << i;
    }
}

TEST(Itu1770, LoudnessRangeOfTheToneSequences) {
    struct Case {
        std::vector<Segment> segments;
        double expected;
    };
    const std::vector<Case> cases = {
        {{{20, -20}, {20, -30}}, 10.0},
        {{{20, -20}, {20, -15}}, 5.0},
        {{{20, -40}, {20, -20}}, 20.0},
        {{{20, -50}, {20, -35}, {20, -20}, {20, -35}, {20, -50}}, 15.0},
    };
    for (const Case& c : cases) {
        Itu1770 meter(48000, 2);
        Feed(meter, ToneSequence(c.segments, 48000), 4096);
        EXPECT_NEAR(meter.GetLoudnessRange(), c.expected, 1.0) << "expected " << c.expected;
    }
}

// |H(e^jw)| of a biquad evaluated in long double.
long double Magnitude(const Itu1770::Stage& s, double f, double rate) {
    const std::complex<long double> z1 = std::polar(1.0L, -2.0L * std::numbers::pi_v<long double> * f / rate);
    using L = long double;
    const std::complex<L> num = L(s.b0) + L(s.b1) * z1 + L(s.b2) * z1 * z1;
    const std::complex<L> den = 1.0L + L(s.a1) * z1 + L(s.a2) * z1 * z1;
    return std::abs(num / den);
}

TEST(Itu1770, WeightingAtOtherRatesFollowsThePublishedFilter) {
    // The published 48 kHz stages, evaluated at each frequency, give the loudness a steady stereo
    // tone of amplitude 0.1 should read at any rate (the tone lies well below where the bilinear
    // transform bends the response).
    const Itu1770::Stage shelf{1.53512485958697, -2.69169618940638, 1.19839281085285, -1.69065929318241,
                               0.73248077421585};
    const Itu1770::Stage highPass{1.0, -2.0, 1.0, -1.99004745483398, 0.99007225036621};
    for (const int rate : {44100, 48000, 96000, 192000}) {
        for (const double f : {20.0, 40.0, 100.0, 1000.0, 1500.0, 3000.0, 6000.0}) {
            const double gain = static_cast<double>(Magnitude(shelf, f, 48000) * Magnitude(highPass, f, 48000));
            const double expected = -0.691 + 10.0 * std::log10(2 * 0.005 * gain * gain);
            const Signal tone = Sine(static_cast<std::size_t>(rate) * 2, f, rate, 0.1);
            Itu1770 meter(rate, 2);
            Feed(meter, Channels{tone, tone}, 8192);
            EXPECT_NEAR(meter.GetIntegrated(), expected, 0.01) << f << " Hz at " << rate;
        }
    }
}

// A tone at rate * ratio Hz with the given amplitude and phase in degrees, 10 ms fades at both
// ends, in both channels.
Channels FractionTone(int rate, double ratio, double amplitude, double degrees) {
    Signal x(static_cast<std::size_t>(rate));
    const auto fade = static_cast<std::size_t>(rate / 100);
    for (std::size_t n = 0; n < x.size(); ++n) {
        const double edge = static_cast<double>(std::min({n, x.size() - 1 - n, fade})) / static_cast<double>(fade);
        x[n] = static_cast<float>(
            edge * amplitude *
            std::sin(2.0 * std::numbers::pi * ratio * static_cast<double>(n) + degrees * std::numbers::pi / 180.0));
    }
    return {x, x};
}

// At four times the rate: a tone of rate / 6 at 0.5 holding one period of rate / 4 at 1.0, joined
// at upward zero crossings; low-passed just under the final Nyquist frequency (a Blackman-windowed
// sinc of 383 taps) and kept every fourth sample from `offset`.
Channels InsertedPeriod(int rate, int offset) {
    const int up = 4;
    const std::size_t frames = static_cast<std::size_t>(rate) * up / 2;
    const std::size_t at = frames / 2 / 24 * 24;  // a whole number of periods of rate / 6 (24 samples at 4x)
    std::vector<double> hi(frames);
    for (std::size_t n = 0; n < frames; ++n) {
        const double t = static_cast<double>(n);
        if (n < at)
            hi[n] = 0.5 * std::sin(2.0 * std::numbers::pi * t / 24.0);
        else if (n < at + 16)
            hi[n] = std::sin(2.0 * std::numbers::pi * (t - static_cast<double>(at)) / 16.0);
        else
            hi[n] = 0.5 * std::sin(2.0 * std::numbers::pi * (t - static_cast<double>(at) - 16.0) / 24.0);
    }
    const int half = 191;
    std::vector<double> h(2 * half + 1);
    const double cutoff = 0.45 / up;  // cycles per sample at 4x
    for (int k = -half; k <= half; ++k) {
        const double sinc = k == 0 ? 2 * cutoff : std::sin(2 * std::numbers::pi * cutoff * k) / (std::numbers::pi * k);
        const double w =
            0.42 + 0.5 * std::cos(std::numbers::pi * k / half) + 0.08 * std::cos(2 * std::numbers::pi * k / half);
        h[static_cast<std::size_t>(k + half)] = sinc * w;
    }
    Signal x;
    for (std::size_t n = static_cast<std::size_t>(half + offset); n + half < frames; n += up) {
        double sum = 0.0;
        for (int k = -half; k <= half; ++k)
            sum += h[static_cast<std::size_t>(k + half)] * hi[n - static_cast<std::size_t>(k)];
        x.push_back(static_cast<float>(sum));
    }
    return {x, x};
}

TEST(TruePeak, PeaksBetweenSamplesOfTheTestTones) {
    struct Case {
        const char* name;
        double ratio, amplitude, degrees, expectedDb;
    };
    const Case cases[] = {
        {"15: fs/4, 0 deg", 0.25, 0.5, 0.0, -6.0},         {"16: fs/4, 45 deg", 0.25, 0.5, 45.0, -6.0},
        {"17: fs/6, 60 deg", 1.0 / 6, 0.5, 60.0, -6.0},    {"18: fs/8, 67.5 deg", 0.125, 0.5, 67.5, -6.0},
        {"19: fs/4, 1.41, 45 deg", 0.25, 1.41, 45.0, 3.0},
    };
    for (const int rate : {44100, 48000, 96000}) {
        for (const Case& c : cases) {
            TruePeak meter(rate, 2);
            Feed(meter, FractionTone(rate, c.ratio, c.amplitude, c.degrees), 1000);
            const double db = 20.0 * std::log10(meter.GetTruePeak());
            EXPECT_GE(db, c.expectedDb - 0.4) << c.name << " at " << rate;
            EXPECT_LE(db, c.expectedDb + 0.2) << c.name << " at " << rate;
        }
        for (int offset = 0; offset < 4; ++offset) {
            TruePeak meter(rate, 2);
            Feed(meter, InsertedPeriod(rate, offset), 1000);
            const double db = 20.0 * std::log10(meter.GetTruePeak());
            EXPECT_GE(db, -0.4) << "inserted period, offset " << offset << " at " << rate;
            EXPECT_LE(db, 0.2) << "inserted period, offset " << offset << " at " << rate;
        }
    }
    EXPECT_EQ(TruePeak(44100, 1).GetOversampling(), 4);
    EXPECT_EQ(TruePeak(96000, 1).GetOversampling(), 2);
    EXPECT_EQ(TruePeak(192000, 1).GetOversampling(), 1);
}

TEST(TruePeak, EveryKernelBuildFindsTheSamePeak) {
    using namespace dsp::detail;
    if (!IsaAvailable(Isa::Avx2Fma)) GTEST_SKIP() << "only the portable kernels run on this CPU";
    const TruePeakKernels& portable = PickKernels<TruePeakKernels>(portable::TruePeakKernelTable(), nullptr);
    const TruePeakKernels& avx2 = PickKernels<TruePeakKernels>(
        portable::TruePeakKernelTable(), KESTADSP_AVX2_TABLE(avx2::TruePeakKernelTable()), Isa::Avx2Fma);
    float taps[4][kTruePeakTaps];
    Random random(9);
    for (auto& phase : taps)
        for (float& t : phase)
            t = static_cast<float>(random.Uniform() - 0.5);
    const int phases[3] = {3, 0, 2};
    for (const int n : {1, 7, 8, 9, 100, 1027}) {
        const Signal w = WhiteNoise(static_cast<std::size_t>(n) + kTruePeakTaps - 1, static_cast<uint64_t>(n));
        EXPECT_EQ(portable.interpolatedPeak(w.data(), n, taps, phases, 3, 0.0f),
                  avx2.interpolatedPeak(w.data(), n, taps, phases, 3, 0.0f))
            << n;
        EXPECT_EQ(portable.samplePeak(w.data(), n, 0.25f), avx2.samplePeak(w.data(), n, 0.25f)) << n;
    }
}

TEST(Loudness, BlockPartitionDoesNotChangeResultsAndProcessDoesNotAllocate) {
    // Noise whose level changes every second, over random partitions, against one whole block.
    const int rate = 44100;
    Channels x = NoiseChannels(2, static_cast<std::size_t>(rate) * 12, 5, 0.5);
    for (std::size_t n = 0; n < x[0].size(); ++n) {
        const double g = std::pow(10.0, -static_cast<double>((n / rate) % 4) * 6.0 / 20.0);
        x[0][n] = static_cast<float>(x[0][n] * g), x[1][n] = static_cast<float>(x[1][n] * g * 0.5);
    }
    Itu1770 whole(rate, 2);
    TruePeak wholePeak(rate, 2);
    Feed(whole, x, static_cast<int>(x[0].size()));
    Feed(wholePeak, x, static_cast<int>(x[0].size()));
    for (const uint64_t seed : {1u, 2u}) {
        Itu1770 meter(rate, 2);
        TruePeak peak(rate, 2);
        Random random(seed);
        std::vector<const float*> p(2);
        AllocationCounter allocations;
        for (std::size_t at = 0; at < x[0].size();) {
            const int n = std::min(random.UniformInt(1, 3000), static_cast<int>(x[0].size() - at));
            p[0] = x[0].data() + at, p[1] = x[1].data() + at;
            meter.Process(p.data(), 2, n);
            peak.Process(p.data(), 2, n);
            at += static_cast<std::size_t>(n);
        }
        EXPECT_EQ(allocations.Count(), 0);
        EXPECT_EQ(meter.GetIntegrated(), whole.GetIntegrated());
        EXPECT_EQ(meter.GetLoudnessRange(), whole.GetLoudnessRange());
        EXPECT_EQ(meter.GetMaxMomentary(), whole.GetMaxMomentary());
        EXPECT_EQ(meter.GetMaxShortTerm(), whole.GetMaxShortTerm());
        EXPECT_EQ(peak.GetTruePeak(0), wholePeak.GetTruePeak(0));
        EXPECT_EQ(peak.GetTruePeak(1), wholePeak.GetTruePeak(1));
    }
    EXPECT_GT(whole.GetLoudnessRange(), 3.0);  // the level steps are measured, not gated away
}

TEST(Loudness, SilenceAndResetReadAsNothingMeasured) {
    Itu1770 meter(48000, 2);
    TruePeak peak(48000, 2);
    const Channels tone = ToneSequence({{5, -23}}, 48000);
    Feed(meter, tone, 4096);
    Feed(peak, tone, 4096);
    ASSERT_NEAR(meter.GetIntegrated(), -23.0, 0.1);
    meter.Reset();
    peak.Reset();
    EXPECT_EQ(meter.GetIntegrated(), -INFINITY);
    EXPECT_EQ(meter.GetFrameCount(), 0);

    const Channels silence = ZeroChannels(2, 48000 * 4);
    Feed(meter, silence, 4096);
    Feed(peak, silence, 4096);
    EXPECT_EQ(meter.GetIntegrated(), -INFINITY);
    EXPECT_EQ(meter.GetMomentary(), -INFINITY);
    EXPECT_EQ(meter.GetMaxShortTerm(), -INFINITY);
    EXPECT_EQ(meter.GetLoudnessRange(), 0.0);
    EXPECT_EQ(peak.GetTruePeak(), 0.0);
}

}  // namespace
