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

#include "dsp/core/cpu.h"
#include "dsp/desk_filter.h"
#include "dsp/filter_section.h"

namespace dsp::detail {

struct SectionLanes {
    // Sections left[k] on x0 and right[k] on x1, k = 0 ... count - 1 in order, in place. `isa`
    // picks the build of the lanes' loop (every build gives the same bits).
    static void ProcessPair(FilterSection* const* left, FilterSection* const* right, int count, float* x0, float* x1,
                            int n, Isa isa = Isa::Best);
    // The section a desk filter holds.
    static FilterSection& Held(fDeskFilter& slot) { return *slot.mSection; }
};

// One enabled double-precision section of both chains, as the lanes' loops take it: running
// coefficients and memory, [0] the left channel and [1] the right (s1, s2 of the state-variable
// form in x1, x2).
struct LaneSectionData {
    enum Form : int { FirstOrder, StateVariable, DirectForm };
    alignas(16) double k[FilterCoefficient::Count][2];
    alignas(16) double x1[2];
    alignas(16) double x2[2];
    alignas(16) double y1[2];
    alignas(16) double y2[2];
    Form form;
};

constexpr int kMaxLaneSections = 16;

namespace avx2 {
// Sections two by two in the four lanes of one register, the second of a pair a sample behind the
// first (section_lanes_avx2.cpp; built only where the library carries AVX2 kernels).
void RunSectionLanes(LaneSectionData* sections, int count, float* x0, float* x1, int n);
}  // namespace avx2

}  // namespace dsp::detail
