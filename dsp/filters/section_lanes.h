#pragma once
// Two channels' chains of filter sections run side by side, one channel in each lane of a vector
// register, with every sample passing through the whole chain before the next one is read.
//
// The lanes evaluate the very expressions of the sections' own loops (filter_section.cpp), in the
// same order and precision, with each section's output rounded to float before the next section
// takes it, so the result is bit for bit that of running each section over each channel in turn.
// What the lanes cannot take runs that way instead:
//   - while any section of either chain glides (its coefficients move every sample), up to the end
//     of the longest glide;
//   - chains whose sections differ between the channels in precision, enabled state or recursion
//     form (the equalisers keep their channels alike, so this is a safeguard, not a path).

#include "dsp/desk_filter.h"
#include "dsp/filter_section.h"

namespace dsp::detail {

struct SectionLanes {
    // Sections left[k] on x0 and right[k] on x1, k = 0 ... count - 1 in order, in place.
    static void ProcessPair(FilterSection* const* left, FilterSection* const* right, int count, float* x0, float* x1,
                            int n);
    // The section a desk filter holds.
    static FilterSection& Held(fDeskFilter& slot) { return *slot.mSection; }
};

}  // namespace dsp::detail
