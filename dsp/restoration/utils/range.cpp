#include "dsp/range.h"

#include <algorithm>

namespace dsp::utils {

bool CompareLowerBound(const Range& a, const Range& b) {
    return a.start < b.start;
}

void ShrinkRangeVector(std::vector<Range>& ranges) {
    const auto lastLive = std::find_if(ranges.rbegin(), ranges.rend(), [](const Range& r) { return r.length != 0; });
    ranges.erase(lastLive.base(), ranges.end());
}

}  // namespace dsp::utils
