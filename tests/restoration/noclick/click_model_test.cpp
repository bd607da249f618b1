// The per-channel click engine on one analysis block: where a flagged run's range starts and ends
// at the block's edges, and which part of the block the regular-train test covers.

#include "dsp/restoration/noclick/click_model.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/signals.h"

namespace {

using dsp::noclick::ClickModel;
using dsp::noclick::ClickRun;

constexpr int kOrder = 28;
constexpr int kBlock = 3072;

// Runs of one detection block of uniform noise (16-bit scale, with kOrder samples of history)
// holding full-scale impulses at the given positions.
std::vector<ClickRun> DetectImpulses(const std::vector<int>& positions) {
    ClickModel model;
    EXPECT_TRUE(model.Init(kOrder, kBlock, 44100.0f, {}));
    kesta::test::Signal x = kesta::test::WhiteNoise(kOrder + kBlock, 3, 300.0);
    for (int p : positions)
        x[static_cast<std::size_t>(kOrder + p)] = 20000.0f;
    const int n = model.Detect(x.data() + kOrder, kBlock);
    return {model.Runs(), model.Runs() + n};
}

// A lone impulse is a one-sample run (the flat model of noise leaves no error after it); short
// runs grow by 2 on each side, except that a run starting at 0 or 1 starts at 0 and an end beyond
// N - 2 is held at N.
TEST(ClickModel, ShortRunsWidenWithinTheBlock) {
    const struct {
        int impulse, start, end;
    } cases[] = {
        {0, 0, 3},
        {1, 0, 4},
        {2, 0, 5},
        {500, 498, 503},
        {kBlock - 4, kBlock - 6, kBlock - 1},
        {kBlock - 3, kBlock - 5, kBlock},
        {kBlock - 1, kBlock - 3, kBlock},
    };
    for (const auto& c : cases) {
        const std::vector<ClickRun> runs = DetectImpulses({c.impulse});
        ASSERT_EQ(runs.size(), 1u) << c.impulse;
        EXPECT_EQ(runs[0].start, c.start) << c.impulse;
        EXPECT_EQ(runs[0].end, c.end) << c.impulse;
    }
}

// Train windows start at 0, 256, ... below N - 1024, so the last one ends 256 samples before the
// block's end: four evenly spaced impulses inside it are a train, the same four after it are left
// to the next block (which analyses that stretch again) and come out as runs here.
TEST(ClickModel, TrainWindowsStopShortOfTheBlockEnd) {
    for (int first : {2500, 2830}) {
        const std::vector<ClickRun> runs = DetectImpulses({first, first + 50, first + 100, first + 150});
        EXPECT_EQ(runs.size(), first == 2500 ? 0u : 4u) << first;
    }
}

}  // namespace
