// Range ordering and the trimming of trailing empty ranges.

#include "dsp/range.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using dsp::utils::Range;

std::vector<int32_t> Lengths(const std::vector<Range>& ranges) {
    std::vector<int32_t> out;
    for (const Range& r : ranges)
        out.push_back(r.length);
    return out;
}

TEST(Range, ShrinkDropsOnlyTheTrailingEmptyRun) {
    struct Case {
        std::vector<int32_t> in, kept;
    };
    const Case cases[] = {
        {{}, {}},         {{0, 0, 0}, {}},
        {{3, 5}, {3, 5}}, {{3, 0, 5, 0, 0}, {3, 0, 5}},  // an empty range before the last live one stays
        {{0, 7}, {0, 7}}, {{-2, 0}, {-2}},               // any non-zero length counts as live
    };
    for (const Case& c : cases) {
        std::vector<Range> ranges;
        for (int32_t len : c.in)
            ranges.push_back({100, len, 0});
        dsp::utils::ShrinkRangeVector(ranges);
        EXPECT_EQ(Lengths(ranges), c.kept) << "from " << c.in.size() << " ranges";
    }
}

TEST(Range, OrderIsByStartOnly) {
    EXPECT_TRUE(dsp::utils::CompareLowerBound({5, 100, 1}, {6, 1, 0}));
    EXPECT_FALSE(dsp::utils::CompareLowerBound({6, 1, 0}, {5, 100, 1}));
    EXPECT_FALSE(dsp::utils::CompareLowerBound({5, 1, 0}, {5, 9, 1}));  // equal starts are equivalent

    // Sorting and binary search with it find a range by its start.
    std::vector<Range> ranges = {{40, 2, 0}, {-3, 1, 0}, {1LL << 40, 4, 0}, {7, 5, 0}};
    std::sort(ranges.begin(), ranges.end(), dsp::utils::CompareLowerBound);
    const std::vector<int64_t> starts = {ranges[0].start, ranges[1].start, ranges[2].start, ranges[3].start};
    EXPECT_EQ(starts, (std::vector<int64_t>{-3, 7, 40, 1LL << 40}));
    const auto at = std::lower_bound(ranges.begin(), ranges.end(), Range{8, 0, 0}, dsp::utils::CompareLowerBound);
    EXPECT_EQ(at->start, 40);
}

}  // namespace
