// Our meters beside libebur128 (an independent implementation of the same recommendations) on
// seeded noise, tones and rendered music at 44.1, 48 and 96 kHz: integrated loudness within
// 0.05 LU, loudness range within 0.1 LU, true peak within 0.1 dB. libebur128 takes the range from
// a short-term value every second (the first edition of the range measure), so ours is read with
// the same hop here. The noise is band-limited to 16 kHz: the two true-peak interpolators differ
// by design close to the Nyquist frequency, where programme material has next to nothing. Skipped
// where libebur128 (or, for the music, fluidsynth) is not installed.

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <numbers>
#include <string>
#include <vector>

#include "dsp/loudness.h"
#include "support/ebur128_reading.h"
#include "support/music.h"
#include "support/signals.h"

namespace {

using namespace kesta::test;

struct Reading {
    double integrated, range, truePeakDb;
};

Reading Ours(const Channels& x, int rate) {
    dsp::Itu1770 meter(rate, static_cast<int>(x.size()));
    meter.SetLoudnessRangeHop(1000);
    dsp::TruePeak peak(rate, static_cast<int>(x.size()));
    std::vector<const float*> p(x.size());
    for (std::size_t at = 0; at < x[0].size(); at += 4096) {
        const int n = static_cast<int>(std::min<std::size_t>(4096, x[0].size() - at));
        for (std::size_t c = 0; c < x.size(); ++c)
            p[c] = x[c].data() + at;
        meter.Process(p.data(), static_cast<int>(x.size()), n);
        peak.Process(p.data(), static_cast<int>(x.size()), n);
    }
    return {meter.GetIntegrated(), meter.GetLoudnessRange(), 20.0 * std::log10(peak.GetTruePeak())};
}

// Noise low-passed at 16 kHz (a Blackman-windowed sinc of 95 taps) whose level moves in 2 s
// steps over 12 dB, so the range and both gates have work.
Channels SteppedNoise(int rate, uint64_t seed) {
    const Channels white = NoiseChannels(2, static_cast<std::size_t>(rate) * 16, seed, 0.6);
    const int half = 47;
    std::vector<double> h(2 * half + 1);
    const double cutoff = 16000.0 / rate;
    for (int k = -half; k <= half; ++k) {
        const double sinc = k == 0 ? cutoff : std::sin(std::numbers::pi * cutoff * k) / (std::numbers::pi * k);
        h[static_cast<std::size_t>(k + half)] = sinc * (0.42 + 0.5 * std::cos(std::numbers::pi * k / half) +
                                                        0.08 * std::cos(2 * std::numbers::pi * k / half));
    }
    Channels x = ZeroChannels(2, white[0].size());
    for (std::size_t c = 0; c < 2; ++c)
        for (std::size_t n = 2 * half; n < x[c].size(); ++n) {
            double sum = 0.0;
            for (std::size_t k = 0; k < h.size(); ++k)
                sum += h[k] * white[c][n - k];
            x[c][n] = static_cast<float>(sum);
        }
    for (std::size_t n = 0; n < x[0].size(); ++n) {
        const double db = -3.0 * static_cast<double>((n / (2 * static_cast<std::size_t>(rate))) % 5);
        const double g = std::pow(10.0, db / 20.0);
        x[0][n] = static_cast<float>(x[0][n] * g), x[1][n] = static_cast<float>(x[1][n] * g * 0.7);
    }
    return x;
}

// Tones from 60 Hz to 15 kHz in 3 s steps at falling levels, left and right a little apart.
Channels ToneSteps(int rate) {
    Channels x(2);
    const double frequencies[] = {60, 250, 1000, 3000, 8000, 15000};
    for (std::size_t i = 0; i < 6; ++i) {
        const double amplitude = 0.8 * std::pow(10.0, -4.0 * static_cast<double>(i) / 20.0);
        const Signal left = Sine(static_cast<std::size_t>(rate) * 3, frequencies[i], rate, amplitude, 0.3);
        const Signal right = Sine(static_cast<std::size_t>(rate) * 3, frequencies[i] * 1.01, rate, amplitude * 0.8);
        x[0].insert(x[0].end(), left.begin(), left.end());
        x[1].insert(x[1].end(), right.begin(), right.end());
    }
    return x;
}

TEST(LoudnessBesideLibebur128, NoiseTonesAndMusicAgree) {
#if !KESTA_HAVE_EBUR128
    GTEST_SKIP() << "libebur128 is not installed";
#else
    for (const int rate : {44100, 48000, 96000}) {
        struct Named {
            std::string name;
            Channels x;
        };
        std::vector<Named> signals = {{"stepped noise", SteppedNoise(rate, 17)}, {"tone steps", ToneSteps(rate)}};
        Channels music = RenderMusic(rate, 24.0, 3);
        if (!music.empty())
            signals.push_back({"music", std::move(music)});
        else
            std::printf("music skipped: fluidsynth or its soundfont is not installed\n");
        for (const Named& s : signals) {
            const Reading ours = Ours(s.x, rate);
            const Ebur128Reading theirs = MeasureWithEbur128(s.x, rate);
            EXPECT_NEAR(ours.integrated, theirs.integrated, 0.05) << s.name << " at " << rate;
            EXPECT_NEAR(ours.range, theirs.range, 0.1) << s.name << " at " << rate;
            EXPECT_NEAR(ours.truePeakDb, theirs.truePeakDb, 0.1) << s.name << " at " << rate;
        }
    }
#endif
}

}  // namespace
