// Look-ahead limiter: the parameter table's rules, latency and silence at several rates, the gain
// ramp and release around an impulse (linked and unlinked) against the closed-form envelope, and
// loud streams against a plain frame-by-frame transcription of the limiter's definition (with a
// full window scan where the class keeps block maxima), over block partitions and parameter changes.

#include "dsp/hard_limit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "support/signals.h"

namespace {

using dsp::HardLimit;
using namespace kesta::test;

// The limiter's definition, frame by frame, with the look-ahead maximum rescanned in full whenever
// the held peak leaves the window.
class ReferenceLimiter {
public:
    ReferenceLimiter(int channels, int rate, double ceilingDb, double gainDb, double lookMs, double releaseMs,
                     bool link)
        : C(channels),
          B(static_cast<int>(rate * 0.02)),
          delay(C * B, 0.0f),
          peaks(C * B, 0.0f),
          gain(C, 1.0f),
          env(C, 1.0f),
          held(C, 0.0f),
          heldAt(C, 0) {
        Set(rate, ceilingDb, gainDb, lookMs, releaseMs, link);
    }
    void Set(int rate, double ceilingDb, double gainDb, double lookMs, double releaseMs, bool link) {
        const int l = static_cast<int>(lookMs / 1000.0 * rate + 0.5);
        L = l == 0 ? 1 : std::min(l, B - 1);
        ceiling = static_cast<float>(std::pow(10.0, ceilingDb / 20.0));
        inGain = static_cast<float>(std::pow(10.0, gainDb / 20.0));
        release = static_cast<float>(std::exp(std::log(0.15) / (rate * releaseMs / 1000.0)));
        linked = link;
    }
    void Frame(const float* in, float* out) {
        float largest = 0.0f;
        for (int c = 0; c < C; ++c) {
            const float* pk = &peaks[c * B];
            if (heldAt[c] == (p + B - 1) % B) {
                held[c] = -1.0f;
                for (int i = 0; i < L; ++i)
                    if (pk[(p + i) % B] > held[c]) held[c] = pk[(p + i) % B], heldAt[c] = (p + i) % B;
            } else if (pk[(p + L - 1) % B] > held[c]) {
                held[c] = pk[(p + L - 1) % B], heldAt[c] = (p + L - 1) % B;
            }
            if (held[c] > env[c]) {
                const int d = std::max(1, ((heldAt[c] - p) % B + B) % B);
                env[c] = env[c] + (held[c] - env[c]) / static_cast<float>(d);
            } else if (held[c] <= env[c] * release) {
                env[c] = env[c] * release;
            }
            largest = std::max(largest, env[c]);
        }
        for (int c = 0; c < C; ++c) {
            const float e = linked ? largest : env[c];
            gain[c] = e <= ceiling ? 1.0f : ceiling / e;
            const float x = in[c] * inGain;
            float y = delay[c * B + p] * gain[c];
            delay[c * B + p] = x;
            peaks[c * B + p] = std::fabs(x);
            out[c] = std::fabs(y) > ceiling ? (y > 0 ? ceiling : -ceiling) : y;
        }
        p = (p + 1) % B;
    }

private:
    int C, B, L = 1, p = 0;
    std::vector<float> delay, peaks, gain, env, held;
    std::vector<int> heldAt;
    float ceiling = 1, inGain = 1, release = 1;
    bool linked = true;
};

Channels Limit(HardLimit& limiter, const Channels& x, int maxBlock, uint64_t seed) {
    return RunInRandomBlocks(
        x, [&](float** in, float** out, int n) { limiter.Process(in, out, n); }, maxBlock, seed);
}

TEST(HardLimit, ParameterTableReplacesOutOfRangeValuesByTheMidpoint) {
    struct Case {
        int index;
        float value, stored;
    };
    const Case cases[] = {
        {HardLimit::kLookAhead, 30.0f, 12.5f}, {HardLimit::kLookAhead, 4.9f, 12.5f},
        {HardLimit::kLookAhead, 20.0f, 20.0f}, {HardLimit::kLink, 0.5f, 1.0f},
        {HardLimit::kLink, 2.0f, 0.0f},        {HardLimit::kLink, 0.49f, 0.0f},
        {HardLimit::kLink, -0.5f, 0.0f},       {HardLimit::kCeiling, 0.5f, -50.0f},
        {HardLimit::kCeiling, -3.0f, -3.0f},   {HardLimit::kInputGain, -101.0f, -25.0f},
        {HardLimit::kRelease, 201.0f, 120.0f}, {HardLimit::kRelease, NAN, 120.0f},
    };
    for (const Case& k : cases) {
        HardLimit limiter;
        limiter.SetParameter(k.index, k.value);
        EXPECT_EQ(limiter.GetParameter(k.index), k.stored) << "index " << k.index << " value " << k.value;
    }
    HardLimit limiter;
    const float defaults[] = {-0.1f, 0.0f, 7.0f, 100.0f, 1.0f};
    for (int i = 0; i < HardLimit::kParameterCount; ++i)
        EXPECT_EQ(limiter.GetParameter(i), defaults[i]) << i;
    limiter.SetParameter(5, 3.0f);
    EXPECT_EQ(limiter.GetParameter(5), 0.0f);
    float lo = 7, hi = 7;
    limiter.GetBounds(5, lo, hi);
    EXPECT_EQ(lo, 7.0f);
    limiter.GetBounds(HardLimit::kLink, lo, hi);
    EXPECT_EQ(lo, -0.5f);
    EXPECT_EQ(hi, 1.49f);
}

TEST(HardLimit, QuietAudioLeavesExactlyOneLatencyLateAndUnchanged) {
    for (const int rate : {44100, 48000, 96000, 8000}) {
        HardLimit limiter;
        limiter.SetSampleRate(rate);
        limiter.SetChannels(3);
        const std::size_t latency = static_cast<std::size_t>(rate) / 50;
        ASSERT_EQ(limiter.GetLatency(), static_cast<int>(latency)) << rate;
        Channels x;
        for (int c = 0; c < 3; ++c)
            x.push_back(Sine(5 * latency, 300.0 + 200 * c, rate, 0.9));  // below the -0.1 dB ceiling
        const Channels y = Limit(limiter, x, 700, 1);
        for (int c = 0; c < 3; ++c)
            EXPECT_EQ(y[c], Delayed(x[c], latency)) << "rate " << rate << " channel " << c;
    }
}

// Channel 0: one impulse of height A after a second of silence; channel 1: a constant under the
// ceiling, through which the gain applied to channel 1 is read. The envelope of channel 0 is the
// straight line j A / (L - 1), j frames after the impulse enters the look-ahead window, up to A one
// frame before the impulse leaves; then it releases as A r^k with r = 0.15^(1 / release frames).
TEST(HardLimit, ImpulseGainRampsDownThenReleases) {
    const double A = 1.0, ceilingDb = -60.0, level = 0.0004;
    const double ceiling = std::pow(10.0, ceilingDb / 20.0);
    for (const bool linked : {true, false}) {
        HardLimit limiter;
        limiter.SetParameter(HardLimit::kCeiling, static_cast<float>(ceilingDb));
        limiter.SetParameter(HardLimit::kLookAhead, 5.0f);
        limiter.SetParameter(HardLimit::kRelease, 40.0f);
        limiter.SetParameter(HardLimit::kLink, linked ? 1.0f : 0.0f);
        const std::size_t at = 44100, latency = 882, L = 221, releaseFrames = 1764;
        const std::size_t out = at + latency, frames = out + 2 * releaseFrames;
        Channels x = {Impulse(frames, at, A), Signal(frames, static_cast<float>(level))};
        const Channels y = Limit(limiter, x, 512, 2);
        ASSERT_EQ(limiter.GetLookAheadFrames(), static_cast<int>(L));

        for (std::size_t i = out - L - 50; i < frames; ++i) {
            double envelope = 0.0;
            if (i > out - L && i < out) envelope = A * static_cast<double>(i - (out - L)) / (L - 1);
            if (i >= out) envelope = A * std::pow(0.15, static_cast<double>(i - out) / releaseFrames);
            const double expected = linked && envelope > ceiling ? ceiling / envelope : 1.0;
            ASSERT_NEAR(y[1][i] / level, expected, 2e-4 * expected) << "linked " << linked << " frame " << i;
        }
        EXPECT_NEAR(y[0][out], ceiling, 1e-6 * ceiling);  // the impulse itself comes out at the ceiling
        EXPECT_EQ(y[0][out - 1], 0.0f);
    }
}

TEST(HardLimit, LoudStreamsFollowTheDefinitionAtAnyBlockSize) {
    struct Case {
        int channels, rate;
        double ceilingDb, gainDb, lookMs, releaseMs;
        bool link;
    };
    const Case cases[] = {
        {2, 44100, -0.1, 20.0, 7.0, 100.0, true},
        {3, 48000, -6.0, 12.0, 20.0, 40.0, false},
        {1, 22050, -20.0, 0.0, 5.0, 200.0, true},
    };
    for (const Case& k : cases) {
        const std::size_t frames = static_cast<std::size_t>(k.rate);
        Channels x = NoiseChannels(k.channels, frames, 40 + k.channels);
        for (std::size_t i = frames / 3; i < frames / 2; ++i)  // silence and a steady level inside
            for (Signal& s : x)
                s[i] = i < frames * 5 / 12 ? 0.0f : 0.25f;
        HardLimit limiter;
        limiter.SetSampleRate(k.rate);
        limiter.SetChannels(k.channels);
        const float values[] = {float(k.ceilingDb), float(k.gainDb), float(k.lookMs), float(k.releaseMs),
                                k.link ? 1.0f : 0.0f};
        for (int i = 0; i < HardLimit::kParameterCount; ++i)
            limiter.SetParameter(i, values[i]);
        ReferenceLimiter reference(k.channels, k.rate, k.ceilingDb, k.gainDb, k.lookMs, k.releaseMs, k.link);

        // The whole stream at one setting; then a replay in which the look-ahead (to 11 ms: longer
        // or shorter) and the ceiling change half way.
        const std::size_t half = frames / 2;
        HardLimit copy = limiter;
        const Channels y = Limit(limiter, x, 4096, 3);
        Channels expected(k.channels, Signal(frames));
        std::vector<float> in(k.channels), out(k.channels);
        for (std::size_t i = 0; i < frames; ++i) {
            if (i == half) {
                reference.Set(k.rate, k.ceilingDb - 3.0, k.gainDb, 11.0, k.releaseMs, k.link);
            }
            for (int c = 0; c < k.channels; ++c)
                in[c] = x[c][i];
            reference.Frame(in.data(), out.data());
            for (int c = 0; c < k.channels; ++c)
                expected[c][i] = out[c];
        }
        // Replay through the copy in two streams around the change, in random blocks.
        const Channels first = Limit(copy, Slice(x, 0, half), 333, 4);
        copy.SetParameter(HardLimit::kCeiling, static_cast<float>(k.ceilingDb - 3.0));
        copy.SetParameter(HardLimit::kLookAhead, static_cast<float>(11.0));
        const Channels second = Limit(copy, Slice(x, half, frames), 1, 5);
        const float ceiling = static_cast<float>(std::pow(10.0, k.ceilingDb / 20.0));  // the stored ceiling
        for (int c = 0; c < k.channels; ++c) {
            Signal joined = first[c];
            joined.insert(joined.end(), second[c].begin(), second[c].end());
            EXPECT_EQ(joined, expected[c]) << "rate " << k.rate << " channel " << c;
            EXPECT_EQ(Slice(y, 0, half)[c], Slice(expected, 0, half)[c]);
            for (float v : y[c])
                ASSERT_LE(std::fabs(v), ceiling);
        }
    }
}

// Shapes that a window maximum gets wrong if it gets anything wrong: long falls (the held peak
// leaves every frame), rises, plateaus of equal values (the earliest must win), sawtooths whose
// period is near the look-ahead, silence, and NaN and infinity bursts; with the look-ahead moved
// up and down several times. Compared bit for bit (NaN included) with the definition.
TEST(HardLimit, AdversarialShapesFollowTheDefinitionBitForBit) {
    const int rate = 44100;
    const std::size_t frames = 40000;
    Channels all(3, Signal(frames));
    Random random(77);
    for (std::size_t i = 0; i < frames; ++i) {
        const std::size_t stretch = i / 4000, t = i % 4000;
        const float u = static_cast<float>(t) / 4000.0f;
        float v = 0.0f;
        switch (stretch % 8) {
            case 0:
                v = 2.0f * (1.0f - u);
                break;  // long fall
            case 1:
                v = 2.0f * u;
                break;  // rise
            case 2:
                v = 0.5f * static_cast<float>(1 + (t / 150) % 3);
                break;  // plateaus, ties
            case 3:
                v = static_cast<float>(t % 308) / 100.0f;
                break;  // sawtooth near L
            case 4:
                v = static_cast<float>(310 - t % 310) / 100.0f;
                break;  // falling sawtooth
            case 5:
                v = 0.0f;
                break;  // silence
            case 6:
                v = static_cast<float>(random.UniformInt(0, 3));
                break;  // few levels, ties
            default:
                v = static_cast<float>(3.0 * random.Uniform() - 1.5);
                break;
        }
        for (int c = 0; c < 3; ++c)
            all[c][i] = (c == 1 ? -v : v) * (c == 2 ? 0.7f : 1.0f);
    }
    for (std::size_t i = 26000; i < 26400; i += 97)
        all[0][i] = std::numeric_limits<float>::quiet_NaN();
    for (std::size_t i = 20500; i < 20800; ++i)
        all[2][i] = std::numeric_limits<float>::quiet_NaN();
    all[1][23000] = std::numeric_limits<float>::infinity();

    const double looks[] = {7.0, 15.0, 5.0, 20.0, 7.0};  // ms, changed every 8000 frames
    for (const auto& [channels, link] : {std::pair{3, true}, {3, false}, {2, true}, {2, false}}) {
        SCOPED_TRACE(std::to_string(channels) + (link ? " channels, linked" : " channels, unlinked"));
        const Channels x(all.begin(), all.begin() + channels);
        HardLimit limiter;
        limiter.SetChannels(channels);
        limiter.SetParameter(HardLimit::kInputGain, 6.0f);
        limiter.SetParameter(HardLimit::kLink, link ? 1.0f : 0.0f);
        ReferenceLimiter reference(channels, rate, -0.1, 6.0, looks[0], 100.0, link);
        Channels expected(channels, Signal(frames)), got(channels, Signal(frames));
        std::vector<float> in(channels), out(channels);
        for (std::size_t i = 0; i < frames; ++i) {
            if (i % 8000 == 0) reference.Set(rate, -0.1, 6.0, looks[i / 8000], 100.0, link);
            for (int c = 0; c < channels; ++c)
                in[c] = x[c][i];
            reference.Frame(in.data(), out.data());
            for (int c = 0; c < channels; ++c)
                expected[c][i] = out[c];
        }
        for (std::size_t part = 0; part < 5; ++part) {
            limiter.SetParameter(HardLimit::kLookAhead, static_cast<float>(looks[part]));
            const Channels y = Limit(limiter, Slice(x, part * 8000, (part + 1) * 8000), 700, 90 + part);
            for (int c = 0; c < channels; ++c)
                std::copy(y[c].begin(), y[c].end(), got[c].begin() + static_cast<std::ptrdiff_t>(part * 8000));
        }
        for (int c = 0; c < channels; ++c)
            EXPECT_EQ(std::memcmp(got[c].data(), expected[c].data(), frames * sizeof(float)), 0) << "channel " << c;
    }
}

}  // namespace
