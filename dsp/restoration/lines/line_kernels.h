#pragma once
// The line canceller's per-sample loops (not exported), built once per instruction set
// (line_kernels.cpp, see dsp/core/kernel_dispatch.h).
//
// A line's phasor runs in eight lanes: lane j holds e^(2 pi i f (n + j)) for frames n = 0, 8,
// 16, ..., advanced by the turn of eight frames after each step. Every build does the same
// correctly rounded float operations in the same order (no fused multiply-add), so every build
// gives the same bits.

#include "dsp/core/cpu.h"

namespace dsp::lines {

struct LinePhasor {
    float re[8], im[8];    // the phasor of frames 0 ... 7 of the hop
    float stepRe, stepIm;  // the turn of eight frames
};

// A line rebuilt over a hop: amplitude (ar + i ai) + (gr + i gi)(n + 1/2) on frame n, times the
// phasor's real part taken as Re((a + g t) p).
struct LineRamp {
    float ar, ai, gr, gi;
};

struct LineKernels {
    // Over frames n < count (a multiple of 8): sumRe[j] += x[n] Re p[n], sumIm[j] -= x[n] Im p[n]
    // for lane j = n mod 8 (the sums start at zero), and, when dst is not null, dst[n] -= the ramp's
    // line on the same phasor.
    void (*heterodyne)(const float* x, float* dst, int count, const LinePhasor& phasor, const LineRamp& ramp,
                       float* sumRe, float* sumIm);
};

namespace portable {
const LineKernels& LineKernelTable();
}
namespace avx2 {
const LineKernels& LineKernelTable();
}

const LineKernels& LineKernelsFor(detail::Isa isa = detail::Isa::Best);

}  // namespace dsp::lines
