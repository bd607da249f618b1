// AdaptiveNoise: the tracked noise against known stationary and changing levels, what the
// reduction leaves of noise, hum lines and a sustained tone, and the streaming guarantees (block
// partition, copies, allocation, extreme inputs).

#include "dsp/adaptive_noise.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

#include "dsp/restoration/adaptive/adaptive_kernels.h"
#include "restoration/restoration_setup.h"
#include "support/metrics.h"
#include "support/music.h"

namespace {

using dsp::AdaptiveNoise;
using kesta::test::Channels;
using kesta::test::GaussianNoise;
using kesta::test::kRate;
using kesta::test::Mix;
using kesta::test::Part;
using kesta::test::Signal;
using kesta::test::Sine;
using kesta::test::Stream;

constexpr int kRateHz = 44100;

// Mean over bins 8 ... bins − 8 of the tracked noise, in dB (power).
double TrackedDb(const AdaptiveNoise& process, int channel) {
    const int bins = process.GetFrameLength() / 2 + 1;
    double sum = 0.0;
    for (int k = 8; k < bins - 8; ++k)
        sum += process.GetNoisePower(channel, k);
    return 10.0 * std::log10(sum / (bins - 16));
}

// Gaussian noise of RMS `rms` whose level steps by `stepDb` after `before` frames.
Signal SteppedNoise(std::size_t before, std::size_t after, double rms, double stepDb, uint64_t seed) {
    Signal x = GaussianNoise(before + after, seed, rms);
    const double g = std::pow(10.0, stepDb / 20.0);
    for (std::size_t i = before; i < x.size(); ++i)
        x[i] = static_cast<float>(x[i] * g);
    return x;
}

TEST(AdaptiveNoise, GeometryFollowsTheSampleRate) {
    EXPECT_EQ(AdaptiveNoise::FrameLengthFor(44100), 1024);
    EXPECT_EQ(AdaptiveNoise::FrameLengthFor(48000), 1024);
    EXPECT_EQ(AdaptiveNoise::FrameLengthFor(16000), 256);
    EXPECT_EQ(AdaptiveNoise::FrameLengthFor(8000), 256);
    EXPECT_EQ(AdaptiveNoise::FrameLengthFor(96000), 2048);
    AdaptiveNoise process(3, kRateHz);
    EXPECT_EQ(process.GetLatency(), 1024);
    EXPECT_EQ(process.GetNumChannels(), 3);
}

TEST(AdaptiveNoise, TrackedNoiseConvergesToKnownLevels) {
    // The tracked per-sample power of white Gaussian noise must reach σ² after a steady start,
    // after a rise and after a fall of the level: within 1 dB, and within 1.5 dB after a rise (the
    // applied estimate is the lower of the tracker and its ceiling and may settle a little low).
    struct Case {
        const char* name;
        double rms;
        double stepDb;
        double secondsAfter;
    };
    const Case cases[] = {
        {"steady -40 dBFS", 0.01, 0.0, 2.0}, {"steady -10 dBFS", 0.316, 0.0, 2.0}, {"rise by 6 dB", 0.01, 6.0, 4.0},
        {"rise by 12 dB", 0.01, 12.0, 6.0},  {"fall by 20 dB", 0.1, -20.0, 1.5},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::size_t before = 2 * kRateHz, after = std::size_t(c.secondsAfter * kRateHz);
        AdaptiveNoise process(1, kRateHz);
        Stream(process, {SteppedNoise(before, after, c.rms, c.stepDb, 11)});
        const double expected = 20.0 * std::log10(c.rms) + c.stepDb;
        EXPECT_NEAR(TrackedDb(process, 0), expected, c.stepDb > 0.0 ? 1.5 : 1.0);
    }
}

TEST(AdaptiveNoise, NoiseFallsByTheReductionWhileToneAndHumBehaveAsTheyShould) {
    // Channel 0: white noise throughout, a 1 kHz tone 20 dB above the noise's level in its band
    // entering after 2 s and held for 6 s. Channel 1: the same noise with hum (50 Hz and five
    // harmonics, each 30 dB above the noise in its bin) from the start.
    const std::size_t frames = 8 * kRateHz, toneStart = 2 * kRateHz;
    const double noiseRms = 0.003;
    // Under a 1024-point Hann window noise of variance σ² gives bins of power σ²·Σw² = 384σ², a
    // sine of amplitude A on a bin |X|² = (A·Σw/2)² = (256A)²: A = σ·√(384·10^(dB/10))/256.
    const double toneAmp = noiseRms * std::sqrt(384.0 * 100.0) / 256.0;
    const double humAmp = noiseRms * std::sqrt(384.0 * 1000.0) / 256.0;
    Signal noise0 = GaussianNoise(frames, 5, noiseRms), noise1 = GaussianNoise(frames, 6, noiseRms);
    Signal tone = Sine(frames - toneStart, 1000.0, kRate, toneAmp);
    Signal toneFull(toneStart, 0.0f);
    toneFull.insert(toneFull.end(), tone.begin(), tone.end());
    Signal hum(frames, 0.0f);
    for (int h = 1; h <= 6; ++h)
        hum = Mix(hum, Sine(frames, 50.0 * h, kRate, humAmp));
    const double reduction = 30.0;
    AdaptiveNoise process(2, kRateHz, reduction);
    const Channels in = {Mix(noise0, toneFull), Mix(noise1, hum)};
    Channels out = Stream(process, in);
    const std::size_t lat = 1024;
    auto outPart = [&](int c, std::size_t from, std::size_t n) { return Part(out[c], from + lat, n); };

    // The noise alone (seconds 1 to 2 of channel 0), less the tone's leakage.
    const double noiseDrop = kesta::test::ToDb(kesta::test::Rms(outPart(0, kRateHz, kRateHz / 2)) /
                                               kesta::test::Rms(Part(in[0], kRateHz, kRateHz / 2)));
    EXPECT_LT(noiseDrop, -(reduction - 3.0));
    // The tone keeps its level (within 1 dB) over its last two seconds.
    const std::size_t late = frames - 2 * kRateHz - lat;
    const double toneIn = kesta::test::LevelAt(Part(in[0], late, kRateHz), 1000.0, kRate);
    const double toneOut = kesta::test::LevelAt(outPart(0, late, kRateHz), 1000.0, kRate);
    EXPECT_NEAR(kesta::test::ToDb(toneOut / toneIn), 0.0, 1.0);
    // Hum lines fall by the reduction less 3 dB.
    for (int h = 1; h <= 6; ++h) {
        SCOPED_TRACE(50 * h);
        const double humIn = kesta::test::LevelAt(Part(in[1], 4 * kRateHz, 2 * kRateHz), 50.0 * h, kRate);
        const double humOut = kesta::test::LevelAt(outPart(1, 4 * kRateHz, 2 * kRateHz), 50.0 * h, kRate);
        EXPECT_LT(kesta::test::ToDb(humOut / humIn), -(reduction - 3.0));
    }
}

TEST(AdaptiveNoise, HeldNoteIsNeitherLearnedNorAttenuated) {
    // A note of eight harmonics of 220 Hz enters white noise after 2 s and is held for 8 s, its
    // partials from 36 dB down to 15 dB above the noise in their bins (3 dB less per harmonic).
    // Played steadily, with a tremolo, or restruck every second with a decay (a piano-like
    // envelope), it must keep its level and leave the tracked noise where the noise is.
    struct Case {
        const char* name;
        double tremolo;  // depth of a 5 Hz amplitude modulation
        double decay;    // per-second decay of a note struck every second (0: none)
    };
    const Case cases[] = {{"steady", 0.0, 0.0}, {"tremolo", 0.25, 0.0}, {"restruck", 0.0, 3.0}};
    const std::size_t frames = 10 * kRateHz, start = 2 * kRateHz;
    const double noiseRms = 0.003, f0 = 220.0;
    constexpr int kHarmonics = 8;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Signal note(frames, 0.0f);
        double amp[kHarmonics + 1] = {};
        for (int h = 1; h <= kHarmonics; ++h) {
            // Same relation of tone and noise bins as above: A = σ·√(384·10^(dB/10))/256.
            amp[h] = noiseRms * std::sqrt(384.0 * std::pow(10.0, (39.0 - 3.0 * h) / 10.0)) / 256.0;
            for (std::size_t i = start; i < frames; ++i) {
                const double t = double(i - start) / kRateHz;
                double envelope = 1.0 + c.tremolo * std::sin(2.0 * std::numbers::pi * 5.0 * t);
                // A struck note starts 6 dB over the steady note and decays by `decay` per second.
                if (c.decay > 0.0) envelope = 2.0 * std::exp(-c.decay * (t - std::floor(t)));
                note[i] += static_cast<float>(envelope * amp[h] * std::sin(2.0 * std::numbers::pi * f0 * h * t));
            }
        }
        const Signal in = Mix(GaussianNoise(frames, 21, noiseRms), note);
        AdaptiveNoise process(1, kRateHz, 30.0);
        const Signal out = Stream(process, {in})[0];
        // The tracker has seen the note for 8 s: the noise must still read its true level.
        EXPECT_NEAR(TrackedDb(process, 0), 20.0 * std::log10(noiseRms), 1.5);
        // Over the last three seconds each partial at least 20 dB over the noise keeps its level
        // within 1.5 dB, and the note as a whole within 1 dB.
        const std::size_t from = frames - 3 * kRateHz - 1024, lat = 1024;
        double inEnergy = 0.0, outEnergy = 0.0;
        for (int h = 1; h <= kHarmonics; ++h) {
            SCOPED_TRACE(h);
            const double a = kesta::test::LevelAt(Part(in, from, 3 * kRateHz), f0 * h, kRate);
            const double b = kesta::test::LevelAt(Part(out, from + lat, 3 * kRateHz), f0 * h, kRate);
            inEnergy += a * a;
            outEnergy += b * b;
            if (39.0 - 3.0 * h >= 20.0) {
                EXPECT_NEAR(kesta::test::ToDb(b / a), 0.0, 1.5);
            }
        }
        EXPECT_NEAR(10.0 * std::log10(outEnergy / inEnergy), 0.0, 1.0);
    }
}

TEST(AdaptiveNoise, HeldChordFarOverQuietNoiseKeepsItsPartialsWhole) {
    // Eight partials of 196.7 Hz, between bins, held 25 and 40 dB over white noise: each spreads
    // over its main lobe, and the gains on the lobe's flanks decide as much as the one at its peak.
    // What the reduction takes from the chord, plus the noise it must leave in the partials' bins,
    // stays 10 dB under the noise that came in.
    const std::size_t lead = kRateHz, frames = 6 * kRateHz;
    Signal clean(frames, 0.0f);
    for (int h = 1; h <= 8; ++h)
        clean = Mix(clean, Sine(frames, 196.7 * h, kRate, 0.2 / h));
    std::fill_n(clean.begin(), lead, 0.0f);
    for (const double snrDb : {25.0, 40.0}) {
        SCOPED_TRACE(snrDb);
        const double rms = kesta::test::Rms(Part(clean, lead, frames - lead)) * std::pow(10.0, -snrDb / 20.0);
        const Signal noise = GaussianNoise(frames, 41, rms);
        AdaptiveNoise process(1, kRateHz);
        const Signal out = Stream(process, {Mix(clean, noise)})[0];
        double error = 0.0, noisePower = 0.0;
        for (std::size_t i = 2 * lead; i + 1024 < frames; ++i) {
            const double d = double(out[i + 1024]) - clean[i];
            error += d * d;
            noisePower += double(noise[i]) * noise[i];
        }
        EXPECT_LT(10.0 * std::log10(error / noisePower), -10.0);
    }
}

// Gaussian noise through two resonances (120 Hz, Q 4, and 900 Hz, Q 2) over a white floor 26 dB
// down, its level swelling ±3 dB at 0.2 Hz: a fan.
Signal FanNoise(std::size_t frames, uint64_t seed) {
    const Signal white = GaussianNoise(frames, seed, 1.0);
    Signal x(frames);
    double s1[2] = {}, s2[2] = {};
    auto resonator = [](double* s, double f, double q, double in) {
        const double r = std::exp(-std::numbers::pi * f / q / kRateHz);
        const double y = in + 2.0 * r * std::cos(2.0 * std::numbers::pi * f / kRateHz) * s[0] - r * r * s[1];
        s[1] = s[0];
        s[0] = y;
        return y * (1.0 - r);
    };
    for (std::size_t i = 0; i < frames; ++i) {
        const double swell = std::pow(10.0, 3.0 / 20.0 * std::sin(2.0 * std::numbers::pi * 0.2 * double(i) / kRateHz));
        x[i] = static_cast<float>(swell * (resonator(s1, 120.0, 4.0, white[i]) +
                                           0.5 * resonator(s2, 900.0, 2.0, white[i]) + 0.05 * white[i]));
    }
    return x;
}

TEST(AdaptiveNoise, PausesSinkUnderTheFloorWhileTheBurstsKeepTheirShape) {
    // Vowel-like bursts (ten harmonics of 180 Hz, 0.3 s on, 0.7 s off) 10 dB over white noise,
    // over rumble (white noise integrated with a 10 Hz corner, whose lowest bins throw up bursts
    // far over their mean) and over a fan that swells faster than the estimate may rise. From
    // 0.3 s after each burst to the next, steady noise must sink 15 dB under the reduction (the
    // pause floor); the swelling fan, which keeps some frames in doubt, at least to the reduction
    // less 4 dB. While a burst sounds, from its first sample, the error must stay 10 dB under it
    // (the pause floor has let go at the onset).
    const std::size_t frames = 9 * kRateHz, period = kRateHz, on = std::size_t(0.3 * kRateHz);
    Signal bursts(frames, 0.0f);
    for (std::size_t i = kRateHz; i < frames; ++i) {
        const std::size_t into = (i - kRateHz) % period;
        if (into >= on) continue;
        const double t = double(i) / kRateHz, ramp = std::min({1.0, into / 441.0, (on - into) / 441.0});
        for (int h = 1; h <= 10; ++h)
            bursts[i] += static_cast<float>(ramp * 0.1 / h * std::sin(2.0 * std::numbers::pi * 180.0 * h * t));
    }
    const double burstRms = kesta::test::Rms(Part(bursts, kRateHz, on));
    Signal white = GaussianNoise(frames, 51, 1.0), rumble(frames);
    const double leak = std::exp(-2.0 * std::numbers::pi * 10.0 / kRateHz);
    double y = 0.0;
    for (std::size_t i = 0; i < frames; ++i)
        rumble[i] = static_cast<float>(y = leak * y + white[i]);
    Signal fan = FanNoise(frames, 52);
    const double reduction = 30.0;
    const struct {
        const Signal* noise;
        double pauseDb;
    } cases[] = {{&white, -(reduction + 15.0)}, {&rumble, -(reduction + 15.0)}, {&fan, -(reduction - 4.0)}};
    for (const auto& [noise, pauseDb] : cases) {
        SCOPED_TRACE(noise == &white ? "white" : noise == &rumble ? "rumble" : "fan");
        const double scale = burstRms / kesta::test::Rms(*noise) * std::pow(10.0, -10.0 / 20.0);
        Signal in(frames);
        for (std::size_t i = 0; i < frames; ++i)
            in[i] = static_cast<float>(bursts[i] + scale * (*noise)[i]);
        AdaptiveNoise process(1, kRateHz, reduction);
        const Signal out = Stream(process, {in})[0];
        double inPause = 0.0, outPause = 0.0, burst = 0.0, error = 0.0;
        for (std::size_t i = 2 * kRateHz; i + 1024 < frames; ++i) {
            const std::size_t into = (i - kRateHz) % period;
            const double o = out[i + 1024];
            if (into < on) {
                burst += double(bursts[i]) * bursts[i];
                error += (o - bursts[i]) * (o - bursts[i]);
            } else if (into >= on + std::size_t(0.3 * kRateHz)) {
                inPause += double(in[i]) * in[i];
                outPause += o * o;
            }
        }
        EXPECT_LT(10.0 * std::log10(outPause / inPause), pauseDb);
        EXPECT_LT(10.0 * std::log10(error / burst), -10.0);
    }
}

TEST(AdaptiveNoise, NoiseFallsFromTheFirstFrame) {
    // Noise alone from the first sample, white and brown (rumble): the first 50 ms already fall
    // by the reduction less 3 dB, the estimate taking in the frame it reduces.
    const std::size_t frames = kRateHz;
    Signal white = GaussianNoise(frames, 71, 0.01), brown(frames);
    const double leak = std::exp(-2.0 * std::numbers::pi * 10.0 / kRateHz);
    double y = 0.0;
    for (std::size_t i = 0; i < frames; ++i)
        brown[i] = static_cast<float>(y = leak * y + 0.02 * white[i]);
    const double reduction = 30.0;
    AdaptiveNoise process(2, kRateHz, reduction);
    const Channels in = {white, brown};
    const Channels out = Stream(process, in);
    for (int c = 0; c < 2; ++c) {
        SCOPED_TRACE(c);
        const std::size_t head = kRateHz / 20;
        const double drop =
            kesta::test::ToDb(kesta::test::Rms(Part(out[c], 1024, head)) / kesta::test::Rms(Part(in[c], 0, head)));
        EXPECT_LT(drop, -(reduction - 3.0));
    }
}

TEST(AdaptiveNoise, RenderedMusicGetsCleanerAndIsNotLearned) {
    // Piano, bass and drums with their reverberation keep many bins busy for seconds at a time.
    // After a second of white noise alone, the music enters 10 and 20 dB above it: the output must
    // be closer to the clean music than the input is, and the tracker must still read the noise's
    // level at the end.
    const Channels music = kesta::test::RenderMusic(kRateHz, 12.0, 7);
    if (music.empty()) GTEST_SKIP() << "fluidsynth or its soundfont is not installed";
    const std::size_t lead = kRateHz, frames = lead + music[0].size();
    for (const double snrDb : {10.0, 20.0}) {
        SCOPED_TRACE(snrDb);
        const double rms = kesta::test::Rms(music[0]) * std::pow(10.0, -snrDb / 20.0);
        Channels clean(2, Signal(frames, 0.0f));
        Channels in(2);
        for (int c = 0; c < 2; ++c) {
            std::copy(music[c].begin(), music[c].end(), clean[c].begin() + lead);
            in[c] = Mix(clean[c], GaussianNoise(frames, 31 + c, rms));
        }
        AdaptiveNoise process(2, kRateHz);
        const Channels out = Stream(process, in);
        for (int c = 0; c < 2; ++c) {
            SCOPED_TRACE(c);
            // Error power against the clean music while it plays.
            auto errorDb = [&](const Signal& y, std::size_t delay) {
                double e = 0.0;
                for (std::size_t i = lead; i + delay < y.size(); ++i) {
                    const double d = double(y[i + delay]) - clean[c][i];
                    e += d * d;
                }
                return 10.0 * std::log10(e);
            };
            EXPECT_LT(errorDb(out[c], 1024), errorDb(in[c], 0) - 1.0);
            EXPECT_NEAR(TrackedDb(process, c), 20.0 * std::log10(rms), 2.0);
        }
    }
}

// A string pad with no pause: four-note chords of six harmonics each, changing every 2 s with a
// 0.3 s crossfade, every partial with a slight vibrato of its own.
Signal Pad(std::size_t frames) {
    const int chords[4][4] = {{48, 55, 64, 67}, {45, 52, 60, 64}, {41, 53, 57, 60}, {43, 50, 59, 62}};
    double f0[4][4];
    for (int c = 0; c < 4; ++c)
        for (int n = 0; n < 4; ++n)
            f0[c][n] = 440.0 * std::pow(2.0, (chords[c][n] - 69) / 12.0);
    Signal x(frames, 0.0f);
    const double period = 2.0, fade = 0.3, twoPi = 2.0 * std::numbers::pi;
    for (std::size_t i = 0; i < frames; ++i) {
        const double t = double(i) / kRateHz;
        const int c = int(t / period);
        const double weightNext = std::clamp((t - c * period - (period - fade)) / fade, 0.0, 1.0);
        double v = 0.0;
        for (int which = 0; which < 2; ++which) {
            const double weight = which == 0 ? 1.0 - weightNext : weightNext;
            if (weight == 0.0) continue;
            for (int n = 0; n < 4; ++n) {
                const double vibrato = 1.0 + 0.002 * std::sin(twoPi * (5.0 + 0.3 * n) * t);
                for (int h = 1; h <= 6; ++h)
                    v += weight / h * std::sin(twoPi * f0[(c + which) % 4][n] * h * t * vibrato);
            }
        }
        x[i] = static_cast<float>(0.02 * v);
    }
    return x;
}

TEST(AdaptiveNoise, MusicOverASwellingFanIsNotLearned) {
    // A pad that never pauses lifts most of the band for 16 s, and the fan under it swells by
    // ±3 dB. The estimate must not climb into the music: the tracked noise at the end stays within
    // 1.5 dB of what the same tracker reads for the fan alone.
    const std::size_t lead = kRateHz, frames = 17 * kRateHz;
    Signal clean = Pad(frames);
    std::fill_n(clean.begin(), lead, 0.0f);
    const double rms = kesta::test::Rms(Part(clean, lead, frames - lead)) * std::pow(10.0, -15.0 / 20.0);
    const Signal fan = FanNoise(frames, 61);
    const double scale = rms / kesta::test::Rms(fan);
    Signal in(frames), fanOnly(frames);
    for (std::size_t i = 0; i < frames; ++i) {
        fanOnly[i] = static_cast<float>(scale * fan[i]);
        in[i] = clean[i] + fanOnly[i];
    }
    AdaptiveNoise process(1, kRateHz), alone(1, kRateHz);
    Stream(process, {in});
    Stream(alone, {fanOnly});
    // Over 300 Hz ... 8 kHz.
    double tracked = 0.0, truth = 0.0;
    for (int k = 7; k < 186; ++k) {
        tracked += process.GetNoisePower(0, k);
        truth += alone.GetNoisePower(0, k);
    }
    EXPECT_LT(10.0 * std::log10(tracked / truth), 1.5);
}

TEST(AdaptiveNoise, KernelBuildsGiveTheSameBits) {
    // Every row filled with values over many decades (the polynomial exp and log see their whole
    // range), then each build runs a frame: the portable and the vector builds must agree exactly.
    using namespace dsp::adaptive;
    if (!dsp::detail::IsaAvailable(dsp::detail::Isa::Avx2Fma)) GTEST_SKIP() << "one build only";
    constexpr int n = 203;  // not a multiple of any vector width
    struct Run {
        std::vector<float> data = std::vector<float>(20 * n);
        float* Row(int r) { return data.data() + r * n; }
    };
    kesta::test::Random random(3);
    Run runs[2];
    for (float& v : runs[0].data)
        v = static_cast<float>(std::pow(10.0, 8.0 * random.Uniform() - 5.0));
    runs[1] = runs[0];
    const FrameConstants k{0.985f, -3.45f, 0.85f, 0.93f, 0.89f, 0.97f, 1.02f};
    const dsp::detail::Isa isas[2] = {dsp::detail::Isa::Portable, dsp::detail::Isa::Avx2Fma};
    for (int i = 0; i < 2; ++i) {
        Run& r = runs[i];
        const ChannelRows rows{r.Row(0), r.Row(1), r.Row(2), r.Row(3), r.Row(4),
                               r.Row(5), r.Row(6), r.Row(7), r.Row(8), r.Row(9)};
        const FrameRows frame{r.Row(10), r.Row(11), r.Row(12), r.Row(13), r.Row(14), r.Row(15), r.Row(16), r.Row(19)};
        const AdaptiveKernels& kernels = AdaptiveKernelsFor(isas[i]);
        kernels.prepare(r.Row(17), r.Row(18), rows, frame, n, k);
        kernels.apply(r.Row(17), r.Row(18), rows, frame, n, k);
        kernels.track(rows, frame, n, k, 0);
        kernels.track(rows, frame, n, k, 3);
        kernels.limit(rows, n, 1.01f, 0.99f, 4.0f, 1.02f);
    }
    EXPECT_TRUE(runs[0].data == runs[1].data);
}

TEST(AdaptiveNoise, ExtremeInputsGiveFiniteOutput) {
    const std::size_t frames = kRateHz;
    struct Case {
        const char* name;
        Signal x;
    };
    Signal dc(frames, 0.5f), impulses(frames, 0.0f);
    for (std::size_t i = 1000; i < frames; i += 7919)
        impulses[i] = (i / 7919) % 2 ? 1.0f : -1.0f;
    const Case cases[] = {{"silence", Signal(frames, 0.0f)},
                          {"dc", dc},
                          {"full-scale noise", kesta::test::WhiteNoise(frames, 3, 1.0)},
                          {"impulses", impulses},
                          {"noise then silence", Mix(SteppedNoise(frames / 2, 0, 0.5, 0.0, 4), Signal(frames, 0.0f))}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        AdaptiveNoise process(1, kRateHz, 120.0);
        const Signal y = Stream(process, {c.x}, 777)[0];
        bool finite = true;
        for (float v : y)
            finite = finite && std::isfinite(v);
        EXPECT_TRUE(finite);
        EXPECT_LE(kesta::test::Peak(y), 2.0 * kesta::test::Peak(c.x) + 1e-30);
    }
}

TEST(AdaptiveNoise, ZeroReductionPassesTheInputDelayed) {
    const Signal x = GaussianNoise(20000, 8, 0.2);
    AdaptiveNoise process(1, kRateHz, 0.0);
    const Signal y = Stream(process, {x}, 1000)[0];
    EXPECT_LT(kesta::test::MaxAbsDiff(Part(y, 1024, x.size() - 1024), Part(x, 0, x.size() - 1024)), 1e-5);
}

}  // namespace
