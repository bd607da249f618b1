#pragma once
// The resampler's inner loop: one output sample is the dot product of a table row with the input
// window, every output of every channel, so it is built once per instruction set
// (resample_kernels.cpp) and picked for the CPU.
//
// The sum is spread over 16 lanes (tap j into lane j mod 16) and the lanes are added in one fixed
// tree, without fused multiply-adds, so every build gives the same bits.

#include "dsp/core/kernel_dispatch.h"

namespace dsp::detail {

struct ResampleKernels {
    // sum of taps[j] * x[j] for j < count; count is a multiple of 8.
    double (*dot)(const double* taps, const double* x, int count);
    // dot(a, x) and dot(b, x) with the same bits, reading x once (two phases of one window).
    void (*dot2)(const double* a, const double* b, const double* x, int count, double* ya, double* yb);
};

namespace portable {
const ResampleKernels& ResampleKernelTable();
}
namespace avx2 {
const ResampleKernels& ResampleKernelTable();
}

// The build `isa` asks for (Best: the fastest this CPU runs).
const ResampleKernels& ResampleKernelsFor(Isa isa = Isa::Best);

}  // namespace dsp::detail
