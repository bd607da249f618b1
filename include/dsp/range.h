#pragma once
// dsp::utils::Range: a stretch of damaged samples on one channel, the record the click and clipping
// tools pass between their analyzers, the host and their processors.
//
// `start` is an absolute frame index (the host's position, not relative to any block), `length` a
// frame count, and `done` says whether a repair has taken the range: 0 = not yet, 1 = taken (a
// processor marks a range once and never repairs it again). Lists of ranges are kept in ascending
// order of start (CompareLowerBound is the ordering for std::sort and std::lower_bound).

#include <cstdint>
#include <vector>

#include "dsp/kestadsp_export.h"

namespace dsp::utils {

struct Range {
    int64_t start = 0;
    int32_t length = 0;
    int32_t done = 0;
};

// True when a begins before b (a.start < b.start); ranges with equal starts are equivalent.
KESTADSP_API bool CompareLowerBound(const Range& a, const Range& b);

// Drops the trailing run of ranges whose length is 0: everything up to and including the last
// range of non-zero length is kept, zero-length ranges before it included.
KESTADSP_API void ShrinkRangeVector(std::vector<Range>& ranges);

}  // namespace dsp::utils
