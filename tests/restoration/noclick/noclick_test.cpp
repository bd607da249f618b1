// Click detection and repair: the record functions, what the detector reports for the situations
// it must tell apart, and what the repair changes (only the listed samples, each once, towards the
// clean original), block-size invariance and allocation-free streaming.

#include "dsp/noclick.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>
#include <vector>

#include "support/click_support.h"
#include "support/metrics.h"
#include "support/signals.h"

namespace {

using dsp::noclick::NOCLICK;
using dsp::utils::Range;
using namespace kesta::test;

constexpr double kRate = 44100.0;

// Notes of four harmonics changing every 0.25 s with a short attack, over noise 60 dB down: audio
// an all-pole model follows well, with level changes the local threshold has to track.
Signal Melody(std::size_t frames, uint64_t seed) {
    Random random(seed);
    Signal x = GaussianNoise(frames, seed + 1, 1e-4);
    const std::size_t note = 11025;
    for (std::size_t from = 0; from < frames; from += note) {
        const double f0 = 110.0 * std::pow(2.0, random.UniformInt(0, 24) / 12.0);
        const double level = 0.05 + 0.25 * random.Uniform();
        for (std::size_t i = 0; i < note && from + i < frames; ++i) {
            const double t = static_cast<double>(i) / kRate;
            const double release = std::min(1.0, static_cast<double>(note - i) / 441.0);
            const double envelope = level * std::min(1.0, t / 0.01) * release * std::exp(-2.0 * t);
            double v = 0.0;
            for (int h = 1; h <= 4; ++h)
                v += std::sin(2.0 * std::numbers::pi * f0 * h * t) / h;
            x[from + i] += static_cast<float>(envelope * v);
        }
    }
    return x;
}

std::size_t CountRanges(const RangeLists& lists) {
    std::size_t n = 0;
    for (const auto& l : lists)
        n += l.size();
    return n;
}

TEST(NoClickRecord, DefaultsAllocationAndCopies) {
    NOCLICK a;
    a.threshold = 1.0;
    a.channels = 5;
    dsp::noclick::SetDefaultParameter(&a);
    EXPECT_EQ(a.sampleRate, 44100.0f);
    EXPECT_EQ(a.channels, 2);
    EXPECT_EQ(a.threshold, 55.0);
    EXPECT_EQ(a.complexity, 16);
    dsp::noclick::AllocateArrays(&a);
    ASSERT_EQ(a.foundClicks.size(), 2u);
    ASSERT_EQ(a.repairClicks.size(), 2u);
    a.foundClicks[1] = {{10, 3, 0}};
    a.repairClicks[0] = {{20, 4, 1}};

    for (bool clearFound : {true, false}) {
        NOCLICK b = ClickRecord(3);
        b.foundClicks[2] = {{1, 1, 0}};
        dsp::noclick::CopyParameter(&a, &b, clearFound);
        EXPECT_EQ(b.channels, 2);
        ASSERT_EQ(b.foundClicks.size(), 2u);
        EXPECT_EQ(b.repairClicks[0].size(), 1u);
        EXPECT_EQ(b.repairClicks[0][0].done, 1);
        EXPECT_EQ(b.foundClicks[1].size(), clearFound ? 0u : 1u);
    }
    dsp::noclick::FreeArrays(&a);
    EXPECT_TRUE(a.foundClicks.empty() && a.repairClicks.empty());
}

// Detection on uniform noise of RMS sigma (the model is flat there, so the prediction error is the
// sample itself): a sample set to k * sigma is flagged when k exceeds (threshold + 25) / 10.
TEST(FindClicks, ReportsWhatStandsOutAndNothingElse) {
    const double sigma = 0.01;
    const std::size_t frames = 20000;
    struct Case {
        const char* what;
        std::vector<std::pair<std::size_t, double>> impulses;  // position, height in sigma
        double threshold;
        long long selectionStart;
        std::vector<Range> expected;  // span of the impulses: a range starts 0 to 2 before and covers it
        bool noise = true;
    };
    const Case cases[] = {
        {"all zero", {}, 55.0, 0, {}, false},
        {"noise alone", {}, 55.0, 0, {}},
        {"isolated impulse", {{9001, 60.0}}, 55.0, 0, {{9001, 1, 0}}},
        {"impulse in silence", {{9001, 60.0}}, 55.0, 0, {{9001, 1, 0}}, false},
        {"two impulses 6 apart merge", {{9001, 60.0}, {9007, 60.0}}, 55.0, 0, {{9001, 7, 0}}},
        {"10 sigma found at T = 8", {{9001, 10.0}}, 55.0, 0, {{9001, 1, 0}}},
        {"6 sigma not found at T = 8", {{9001, 6.0}}, 55.0, 0, {}},
        {"10 sigma not found at T = 12", {{9001, 10.0}}, 95.0, 0, {}},
        {"14 sigma found at T = 12", {{9001, 14.0}}, 95.0, 0, {{9001, 1, 0}}},
        {"range starting at the selection start is not reported", {{5002, 60.0}}, 55.0, 5000, {}},
        {"one sample later it is", {{5003, 60.0}}, 55.0, 5000, {{5003, 1, 0}}},
    };
    for (const Case& c : cases) {
        Channels x = {c.noise ? WhiteNoise(frames, 5, sigma * std::sqrt(3.0)) : Signal(frames, 0.0f)};
        for (auto [pos, height] : c.impulses)
            x[0][pos] = static_cast<float>(height * sigma);
        const RangeLists found = FindAllClicks(x, ClickRecord(1, kRate, c.threshold), c.selectionStart,
                                               static_cast<long long>(frames) - c.selectionStart);
        // Blocks overlap, so a click may be reported twice; the merged list is what was found.
        const std::vector<Range> got = MergeOverlapping(found)[0];
        ASSERT_EQ(got.size(), c.expected.size()) << c.what;
        for (std::size_t i = 0; i < got.size(); ++i) {
            EXPECT_LE(got[i].start, c.expected[i].start) << c.what;
            EXPECT_GE(got[i].start, c.expected[i].start - 2) << c.what;
            EXPECT_GE(got[i].start + got[i].length, c.expected[i].start + c.expected[i].length) << c.what;
            EXPECT_EQ(got[i].done, 0) << c.what;
        }
    }
}

// A train of 4 or more impulses per 1024 samples is a rhythm, wherever it begins and ends relative
// to the overlapping analysis blocks.
TEST(FindClicks, RegularTrainsAreNotClicks) {
    for (std::size_t first : {2000u, 3000u, 4100u})
        for (std::size_t spacing : {150u, 200u, 256u}) {
            Channels x = {WhiteNoise(30000, 7, 0.001)};
            for (std::size_t pos = first; pos < 28000; pos += spacing)
                x[0][pos] = 0.5f;
            EXPECT_EQ(CountRanges(FindAllClicks(x, ClickRecord(1))), 0u) << first << " every " << spacing;
        }
}

TEST(FindClicks, TrainsBetweenSamplesAndClicksAmongThem) {
    // Impulses every 100.5 samples (spacing alternating 100 and 101) are a train too; a click
    // between two of them, off the grid, is still reported.
    Channels x = {WhiteNoise(30000, 8, 0.01 * std::sqrt(3.0))};
    for (int k = 0; k < 200; ++k)
        x[0][5000 + static_cast<std::size_t>(std::lround(k * 100.5))] = 0.6f;
    const RangeLists alone = FindAllClicks(x, ClickRecord(1));
    EXPECT_EQ(CountRanges(alone), 0u);
    x[0][15050 + 40] = 0.6f;
    const RangeLists withClick = MergeOverlapping(FindAllClicks(x, ClickRecord(1)));
    ASSERT_EQ(CountRanges(withClick), 1u);
    EXPECT_EQ(withClick[0][0].start, 15088);
}

// A copy taken half-way through the pass finishes it with the same result as the original.
TEST(FindClicks, CopyContinuesThePass) {
    Channels x = {Melody(100000, 9)};
    InsertClicks(x, 20, 5);
    const NOCLICK record = ClickRecord(1);
    auto first = std::make_unique<dsp::noclick::FindClicks>(&record);
    dsp::noclick::FindClicks& original = *first;
    original.SetSelection(0, 100000);
    original.Start(nullptr);
    std::vector<float> block(2048);
    float* data = block.data();
    auto feed = [&](dsp::noclick::FindClicks& find, std::size_t& pos) {
        for (std::size_t i = 0; i < block.size(); ++i)
            block[i] = pos + i < x[0].size() ? x[0][pos + i] : 0.0f;
        pos += static_cast<std::size_t>(find.Analyze(&data, 1, 2048));
    };
    std::size_t pos = 0;
    while (pos < 50000)
        feed(original, pos);
    dsp::noclick::FindClicks copy(original);
    first.reset();  // the copy owns everything it works on
    while (!copy.IsCompleted())
        feed(copy, pos);
    copy.Done();
    const RangeLists expected = FindAllClicks(x, record), got = copy.GetParam()->foundClicks;
    ASSERT_EQ(got[0].size(), expected[0].size());
    for (std::size_t i = 0; i < got[0].size(); ++i)
        EXPECT_TRUE(got[0][i].start == expected[0][i].start && got[0][i].length == expected[0][i].length) << i;
}

TEST(FindClicks, FindsInsertedClicksInMusicWhateverTheHostBlocks) {
    Channels x = {Melody(441000, 3), Melody(441000, 4)};
    const std::vector<InsertedClick> clicks = InsertClicks(x, 100, 17);
    const RangeLists found = FindAllClicks(x, ClickRecord(2));
    const DetectionScore score = ScoreDetection(clicks, found);
    EXPECT_GE(score.recall, 0.95);
    EXPECT_GE(score.precision, 0.95);
    // Hosts may hand over fewer frames than asked for: the same clicks are found.
    EXPECT_EQ(FindAllClicks(x, ClickRecord(2), 700)[1].size(), found[1].size());
}

// The clean melody, clicks inserted, found and repaired as a host does it (duplicates merged, each
// range extended over the click's decaying tail): the error over the damaged and listed samples
// drops at least 20 dB below the damage, no sample outside the listed ranges changes, and every
// range is marked.
TEST(ReplaceClicks, RepairsOnlyTheListedSamplesTowardsTheOriginal) {
    const Channels clean = {Melody(220500, 5), Melody(220500, 6)};
    Channels damaged = clean;
    const std::vector<InsertedClick> clicks = InsertClicks(damaged, 50, 23);
    NOCLICK record = ClickRecord(2);
    const RangeLists ranges = MergeOverlapping(FindAllClicks(damaged, record), 8);
    const Channels repaired = RepairAll(damaged, record, ranges);

    double before = 0.0, after = 0.0;
    for (std::size_t c = 0; c < 2; ++c) {
        std::vector<bool> listed(clean[c].size(), false);
        std::vector<bool> measured(clean[c].size(), false);
        for (const Range& r : record.repairClicks[c]) {
            EXPECT_EQ(r.done, 1);
            for (long long i = r.start; i < r.start + r.length; ++i)
                listed[static_cast<std::size_t>(i)] = measured[static_cast<std::size_t>(i)] = true;
        }
        for (const InsertedClick& k : clicks)
            if (k.channel == static_cast<int>(c)) std::fill_n(measured.begin() + k.start, k.length, true);
        std::size_t changedOutside = 0;
        for (std::size_t i = 0; i < clean[c].size(); ++i) {
            if (!listed[i]) changedOutside += repaired[c][i] != damaged[c][i];
            if (!measured[i]) continue;
            before += std::pow(static_cast<double>(damaged[c][i]) - clean[c][i], 2);
            after += std::pow(static_cast<double>(repaired[c][i]) - clean[c][i], 2);
        }
        EXPECT_EQ(changedOutside, 0u) << "channel " << c;
    }
    EXPECT_LE(10.0 * std::log10(after / before), -20.0);

    // The done marks stand: a second run over the returned record changes nothing.
    NOCLICK again = record;
    EXPECT_EQ(RepairAll(repaired, again, record.repairClicks), repaired);
}

// A dropout in a sum of two sines (which an all-pole model predicts exactly) is filled with the sines.
TEST(ReplaceClicks, GapInPredictableAudioIsFilledWithTheSignal) {
    Signal s = Mix(Sine(20000, 440.0, kRate, 0.3), Sine(20000, 1230.0, kRate, 0.2, 1.0));
    const Channels clean = {s};
    for (int length : {1, 10, 20}) {
        Channels damaged = clean;
        for (int i = 0; i < length; ++i)
            damaged[0][10000 + static_cast<std::size_t>(i)] = 0.0f;
        NOCLICK record = ClickRecord(1);
        const Channels y = RepairAll(damaged, record, {{{10000, length, 0}}});
        const double err = MaxAbsDiff(std::span<const float>(y[0]).subspan(10000, length),
                                      std::span<const float>(clean[0]).subspan(10000, length));
        EXPECT_LT(err, 1e-3) << "gap of " << length;
    }
}

TEST(ReplaceClicks, RangesOutsideTheWindowAreMarkedButNotApplied) {
    Channels x = {WhiteNoise(30000, 12, 0.1)};
    NOCLICK record = ClickRecord(1);
    // Before the stream, longer than any block can hold, and a normal one after both.
    const RangeLists ranges = {{{-50, 10, 0}, {8000, 5000, 0}, {20000, 10, 0}}};
    const Channels y = RepairAll(x, record, ranges);
    for (const Range& r : record.repairClicks[0])
        EXPECT_EQ(r.done, 1);
    EXPECT_EQ(std::vector<float>(y[0].begin(), y[0].begin() + 20000),
              std::vector<float>(x[0].begin(), x[0].begin() + 20000));
    EXPECT_NE(std::vector<float>(y[0].begin() + 20000, y[0].begin() + 20010),
              std::vector<float>(x[0].begin() + 20000, x[0].begin() + 20010));
}

}  // namespace
