// Quiet stretches inserted into a programme of tones and noise are found where they were put, and
// removing them leaves exactly the rest: every frame away from a join is the input's own, and the
// crossfade at a join steps no further than the audio around it does.

#include "dsp/silence.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "support/signals.h"

namespace {

using dsp::nosilence::DeleteSilence;
using dsp::nosilence::FindSilence;
using dsp::nosilence::NOSILENCE;
using dsp::utils::Range;
using namespace kesta::test;

constexpr int kRate = 44100;

struct Gap {
    double at;      // seconds
    double length;  // seconds
};

long long Frame(double seconds) {
    return std::llround(seconds * kRate);
}

// Two channels of tones and noise around -15 dBFS with the gaps replaced by a -75 dBFS noise floor.
Channels Programme(double seconds, const std::vector<Gap>& gaps, uint64_t seed = 1) {
    const auto frames = static_cast<std::size_t>(Frame(seconds));
    Channels x(2);
    for (int c = 0; c < 2; ++c) {
        x[c] = Mix(Mix(Sine(frames, 440.0 + 97.0 * c, kRate, 0.2), Sine(frames, 1234.0, kRate, 0.1, c)),
                   GaussianNoise(frames, seed + c, 0.02));
        const Signal floor = GaussianNoise(frames, seed + 10 + c, std::pow(10.0, -75.0 / 20.0));
        for (const Gap& g : gaps)
            for (long long i = Frame(g.at); i < std::min<long long>(Frame(g.at + g.length), frames); ++i)
                x[c][i] = floor[i];
    }
    return x;
}

std::vector<std::vector<Range>> Find(const Channels& x, const NOSILENCE& settings, long long start = 0) {
    FindSilence find(settings, kRate, static_cast<int>(x.size()));
    find.SetSelection(start, static_cast<long long>(x[0].size()));
    find.Start(nullptr);
    RunInRandomBlocks(
        x, [&](float** in, float**, int frames) { find.Analyze(in, static_cast<int>(x.size()), frames); }, 5000, 3);
    EXPECT_TRUE(find.IsCompleted());
    find.Done();
    std::vector<std::vector<Range>> lists;
    for (int l = 0; l < find.GetListCount(); ++l)
        lists.push_back(find.GetRanges(l));
    return lists;
}

NOSILENCE Settings(double thresholdDb = -50.0, double hysteresisDb = 3.0, bool linked = true) {
    NOSILENCE s;
    s.thresholdDb = thresholdDb;
    s.hysteresisDb = hysteresisDb;
    s.minimumSeconds = 0.2;
    s.holdSeconds = 0.01;
    s.linked = linked;
    return s;
}

void ExpectGapsFound(const std::vector<Range>& found, const std::vector<Gap>& gaps, long long offset = 0) {
    const long long tolerance = Frame(0.010);
    ASSERT_EQ(found.size(), gaps.size());
    for (std::size_t k = 0; k < gaps.size(); ++k) {
        EXPECT_NEAR(found[k].start, offset + Frame(gaps[k].at), tolerance) << "gap " << k;
        EXPECT_NEAR(found[k].start + found[k].length, offset + Frame(gaps[k].at + gaps[k].length), tolerance)
            << "gap " << k;
    }
}

TEST(FindSilence, InsertedGapsAreFoundWithinTenMilliseconds) {
    // The 0.1 s gap is shorter than the minimum; the last runs to the end of the selection.
    const std::vector<Gap> gaps = {{0.5, 0.3}, {1.5, 1.0}, {3.0, 0.1}, {4.0, 0.25}, {5.1, 0.4}};
    const Channels x = Programme(5.5, gaps);
    const std::vector<Gap> reported = {gaps[0], gaps[1], gaps[3], gaps[4]};
    const auto linked = Find(x, Settings(), 1000000);
    ASSERT_EQ(linked.size(), 1u);
    ExpectGapsFound(linked[0], reported, 1000000);

    // A gap in one channel only is silence of that channel, not of the pair.
    Channels y = x;
    for (long long i = Frame(2.7); i < Frame(2.95); ++i)
        y[1][i] = 0.0f;
    ExpectGapsFound(Find(y, Settings())[0], reported);
    const auto each = Find(y, Settings(-50.0, 3.0, false));
    ASSERT_EQ(each.size(), 2u);
    ExpectGapsFound(each[0], reported);
    ExpectGapsFound(each[1], {gaps[0], gaps[1], {2.7, 0.25}, gaps[3], gaps[4]});
}

TEST(FindSilence, HysteresisCarriesAStretchThroughAFloorAboveTheThreshold) {
    // A gap that begins quiet and then wanders 2 dB above the -50 dBFS threshold.
    Channels x = Programme(2.0, {{0.5, 1.0}});
    const Signal wander = WhiteNoise(x[0].size(), 5, std::pow(10.0, -48.0 / 20.0));
    for (auto& channel : x)
        for (long long i = Frame(0.55); i < Frame(1.5); ++i)
            channel[i] = wander[i];
    ExpectGapsFound(Find(x, Settings(-50.0, 3.0))[0], {{0.5, 1.0}});
    // Without hysteresis the stretch ends where the floor rises and is too short to report.
    EXPECT_TRUE(Find(x, Settings(-50.0, 0.0))[0].empty());
}

// The input frames that survive `cuts`, and whether each lies within `fade` frames before a removed
// one (where a crossfade may blend it), from a mask made without the processor.
struct Kept {
    std::vector<long long> frames;
    std::vector<bool> nearCut;
};

Kept KeptFrames(std::size_t frames, const std::vector<Range>& cuts, int fade) {
    std::vector<bool> removed(frames, false);
    for (const Range& r : cuts)
        for (long long i = std::max<long long>(0, r.start); i < std::min<long long>(r.start + r.length, frames); ++i)
            removed[i] = true;
    Kept kept;
    long long nextRemoved = static_cast<long long>(frames) + fade + 1;
    for (long long i = static_cast<long long>(frames) - 1; i >= 0; --i) {
        if (removed[i]) {
            nextRemoved = i;
            continue;
        }
        kept.frames.push_back(i);
        kept.nearCut.push_back(nextRemoved - i <= fade);
    }
    std::reverse(kept.frames.begin(), kept.frames.end());
    std::reverse(kept.nearCut.begin(), kept.nearCut.end());
    return kept;
}

Channels Delete(const Channels& x, const std::vector<Range>& cuts, int fade, int block, long long* removed) {
    DeleteSilence del(cuts, 0, static_cast<long long>(x[0].size()), fade, 2);
    del.Start();
    Channels y(2);
    Channels out(2, Signal(static_cast<std::size_t>(block)));
    for (std::size_t at = 0; at < x[0].size(); at += static_cast<std::size_t>(block)) {
        const int n = static_cast<int>(std::min<std::size_t>(static_cast<std::size_t>(block), x[0].size() - at));
        float* in[2] = {const_cast<float*>(x[0].data()) + at, const_cast<float*>(x[1].data()) + at};
        float* o[2] = {out[0].data(), out[1].data()};
        del.Process(in, o, 2, n);
        EXPECT_LE(del.GetLastOutputFrames(), n);
        for (int c = 0; c < 2; ++c)
            y[c].insert(y[c].end(), out[c].begin(), out[c].begin() + del.GetLastOutputFrames());
    }
    *removed = del.GetRemovedFrames();
    EXPECT_EQ(del.OutputFramesFor(static_cast<long long>(x[0].size())), del.GetOutputLength());
    return y;
}

TEST(DeleteSilence, OutputIsTheInputLessTheRangesWithOnlyTheJoinsBlended) {
    const Channels x = Programme(1.0, {});
    const int fade = 200;
    struct Case {
        const char* name;
        std::vector<Range> cuts;
    };
    const Case cases[] = {
        {"two cuts", {{5000, 3000, 0}, {20000, 111, 0}}},
        {"at the start and to the end", {{0, 4000, 0}, {40000, 4100, 0}}},
        {"overlapping, touching, unsorted", {{30000, 500, 0}, {10000, 2000, 0}, {11500, 1000, 0}, {12500, 10, 0}}},
        {"closer than the fade", {{9000, 1000, 0}, {10050, 3000, 0}, {13100, 2000, 0}}},
        {"shorter than the fade", {{7000, 12, 0}, {7100, 1, 0}}},
        {"beyond the stream", {{-50, 100, 0}, {44000, 900, 0}}},
    };
    for (const Case& test : cases) {
        const Kept kept = KeptFrames(x[0].size(), test.cuts, fade);
        long long removed = 0;
        const Channels y = Delete(x, test.cuts, fade, 997, &removed);
        ASSERT_EQ(y[0].size(), kept.frames.size()) << test.name;
        EXPECT_EQ(removed, static_cast<long long>(x[0].size() - kept.frames.size())) << test.name;
        for (std::size_t j = 0; j < kept.frames.size(); ++j)
            for (int c = 0; c < 2; ++c)
                if (!kept.nearCut[j]) {
                    ASSERT_EQ(y[c][j], x[c][kept.frames[j]]) << test.name << ", output frame " << j;
                }
        long long again = 0;
        EXPECT_EQ(Delete(x, test.cuts, fade, 1, &again), y) << test.name;
    }
}

TEST(DeleteSilence, GapsFoundAndRemovedLeaveNoClickAtTheJoins) {
    const std::vector<Gap> gaps = {{0.3, 0.4}, {1.2, 0.25}, {2.0, 0.6}};
    const Channels x = Programme(3.0, gaps, 9);
    const std::vector<Range> found = Find(x, Settings())[0];
    ASSERT_EQ(found.size(), gaps.size());
    const int fade = Frame(0.005);
    long long removed = 0;
    const Channels y = Delete(x, found, fade, 4096, &removed);
    long long total = 0;
    for (const Range& r : found)
        total += r.length;
    ASSERT_EQ(removed, total);
    ASSERT_EQ(static_cast<long long>(y[0].size()), static_cast<long long>(x[0].size()) - total);

    auto largestStep = [](const Signal& s, long long from, long long to) {
        float step = 0.0f;
        for (long long i = std::max(1LL, from); i < std::min<long long>(to, s.size()); ++i)
            step = std::max(step, std::fabs(s[i] - s[i - 1]));
        return step;
    };
    long long removedBefore = 0;
    for (const Range& r : found) {
        const long long join = r.start - removedBefore;  // first output frame after the cut
        for (int c = 0; c < 2; ++c) {
            const float local = std::max(largestStep(x[c], r.start - 2 * fade, r.start + fade),
                                         largestStep(x[c], r.start + r.length - fade, r.start + r.length + 2 * fade));
            EXPECT_LE(largestStep(y[c], join - 2 * fade, join + 2 * fade), local) << "join at " << join;
        }
        removedBefore += r.length;
    }
}

}  // namespace
