// Amplitude statistics on signals whose figures follow from their construction: a quantised sine
// with an offset, a hard-clipped sine, two levels in whole 50 ms windows, 24-bit and float noise,
// digital silence; then the analyzer protocol. (Block partitions, copies and allocation: the
// analyzer property suite.)

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <numbers>
#include <vector>

#include "dsp/levels.h"
#include "support/signals.h"

namespace {

using dsp::FindLevels;
using dsp::Stats;
using namespace kesta::test;

constexpr int kRate = 48000;
constexpr double kInf = std::numeric_limits<double>::infinity();

// x rounded to a signed integer format of `bits` bits (full scale 1), 0 for none.
Signal Quantised(Signal x, int bits) {
    const double scale = std::ldexp(1.0, bits - 1);
    for (float& v : x)
        v = static_cast<float>(std::round(v * scale) / scale);
    return x;
}

// Runs FindLevels over x in blocks of 4096 frames.
Stats Measure(const Channels& x) {
    constexpr std::size_t kBlock = 4096;
    FindLevels levels(kRate);
    levels.SetSelection(0, static_cast<long long>(x[0].size()));
    levels.Start(nullptr);
    std::vector<float*> p(x.size());
    std::size_t at = 0;
    while (!levels.IsCompleted()) {
        const int n = static_cast<int>(std::min(kBlock, x[0].size() - at));
        for (std::size_t c = 0; c < x.size(); ++c)
            p[c] = const_cast<float*>(x[c].data()) + at;
        levels.Analyze(p.data(), static_cast<int>(x.size()), n);
        at += static_cast<std::size_t>(n);
    }
    levels.Done();
    return levels.GetStats();
}

double Db(double linear) {
    return 20.0 * std::log10(linear);
}

TEST(FindLevels, FiguresOfSignalsBuiltToHaveThem) {
    const std::size_t second = kRate;
    // 1 kHz at 0.5 plus 0.1, 16-bit: mean 0.1, peak 0.6, mean square 0.01 + 0.125, two crossings
    // a period (the offset is under the amplitude).
    Signal offsetSine = Sine(second, 1000.0, kRate, 0.5);
    for (float& v : offsetSine)
        v += 0.1f;
    offsetSine = Quantised(offsetSine, 16);
    const Stats a = Measure({offsetSine});
    EXPECT_EQ(a.numChannels, 1);
    EXPECT_NEAR(a.channel[0].dcOffset, 0.1, 1e-4);
    EXPECT_NEAR(a.channel[0].peakDb, Db(0.6), 1e-3);
    EXPECT_NEAR(a.channel[0].rmsDb, Db(std::sqrt(0.135)), 1e-3);
    EXPECT_NEAR(a.channel[0].crestFactorDb, Db(0.6 / std::sqrt(0.135)), 1e-3);
    EXPECT_NEAR(static_cast<double>(a.channel[0].zeroCrossings), 2000.0, 1.0);
    EXPECT_EQ(a.channel[0].bitDepth, 16);
    EXPECT_EQ(a.channel[0].fullScaleCount, 0);
    EXPECT_NEAR(a.channel[0].maximum, 0.6, 1e-4);
    EXPECT_NEAR(a.channel[0].minimum, -0.4, 1e-4);

    // 1 kHz at 2.0, 0.1 rad off the sample grid, clipped to +-1: |sin| >= 1/2 a third of each
    // half period, 16 of its 24 samples (no sample falls near the edges), in flat runs of 16.
    Signal clipped = Sine(second, 1000.0, kRate, 2.0, 0.1);
    for (float& v : clipped)
        v = std::clamp(v, -1.0f, 1.0f);
    const Stats b = Measure({clipped});
    EXPECT_EQ(b.channel[0].fullScaleCount, 32000);
    EXPECT_EQ(b.channel[0].longestRun, 16);
    EXPECT_EQ(b.channel[0].peakDb, 0.0);
    EXPECT_GT(b.channel[0].bitDepth, 24);  // sine values, not on any integer grid

    // One second at 0.5 then one at 0.05 (whole 50 ms windows of whole periods): the loudest and
    // quietest windows are each level's sine RMS. The second channel is 24-bit noise.
    Signal steps = Sine(2 * second, 1000.0, kRate, 1.0);
    for (std::size_t n = 0; n < steps.size(); ++n)
        steps[n] *= n < second ? 0.5f : 0.05f;
    const Stats c = Measure({steps, Quantised(WhiteNoise(2 * second, 3, 0.9), 24)});
    EXPECT_EQ(c.numChannels, 2);
    EXPECT_NEAR(c.channel[0].loudestRmsDb, Db(0.5 / std::sqrt(2.0)), 1e-3);
    EXPECT_NEAR(c.channel[0].quietestRmsDb, Db(0.05 / std::sqrt(2.0)), 1e-3);
    EXPECT_EQ(c.channel[1].bitDepth, 24);

    // Digital silence.
    const Stats d = Measure({Signal(1000, 0.0f)});
    EXPECT_EQ(d.channel[0].peakDb, -kInf);
    EXPECT_EQ(d.channel[0].rmsDb, -kInf);
    EXPECT_EQ(d.channel[0].quietestRmsDb, -kInf);
    EXPECT_EQ(d.channel[0].crestFactorDb, 0.0);
    EXPECT_EQ(d.channel[0].bitDepth, 0);
    EXPECT_EQ(d.channel[0].longestRun, 1000);
    EXPECT_EQ(d.channel[0].zeroCrossings, 0);
}

TEST(FindLevels, ProgressRunsToTheSelectionLength) {
    FindLevels levels(kRate);
    levels.SetSelection(1000, 500);
    levels.Start(nullptr);
    Signal x(250, 0.5f);
    float* p[1] = {x.data()};
    EXPECT_EQ(levels.Analyze(p, 1, 250), 250);
    EXPECT_FALSE(levels.IsCompleted());
    EXPECT_EQ(levels.GetProgress(), 50.0f);
    levels.Analyze(p, 1, 250);
    EXPECT_TRUE(levels.IsCompleted());
    levels.Done();
    EXPECT_EQ(levels.GetStats().channel[0].frames, 500);
    // Shorter than one 50 ms window: that stretch is the window.
    EXPECT_NEAR(levels.GetStats().channel[0].loudestRmsDb, Db(0.5), 1e-9);
}

}  // namespace
