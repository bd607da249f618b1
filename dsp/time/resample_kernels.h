#pragma once
// The resampler's inner loop: one output sample is the dot product of a table row with the input
// window, every output of every channel, so it is built once per instruction set
// (resample_kernels.cpp) and picked for the CPU.
//
// A sum is spread over 16 lanes (tap j into lane j mod 16, in tap order) and the lanes are added
// in one fixed tree in double, without fused multiply-adds, so every build gives the same bits and
// an output's bits depend only on its row and its window, never on which outputs were computed
// beside it.

#include <cstddef>

#include "dsp/core/kernel_dispatch.h"

namespace dsp::detail {

struct ResampleKernels {
    // sum of taps[j] * x[j] for j < count, in double; count is a multiple of 8.
    double (*dot)(const double* taps, const float* x, int count);
    // out[i * outStep] = (float)dot(taps, x + i * xStep, count) for i < windows: every window one
    // row meets in a stretch of input, the row read once for several windows.
    void (*dotWindows)(const double* taps, const float* x, std::ptrdiff_t xStep, int windows, int count, float* out,
                       std::ptrdiff_t outStep);
    // The same with the row in single precision: products and lane sums in float, the 16 lane
    // sums then added in double as above. About 24 bits: enough under a stop band of 140 dB.
    // The row need not be aligned (the caller moves it to align the windows instead).
    void (*dotWindowsSingle)(const float* taps, const float* x, std::ptrdiff_t xStep, int windows, int count,
                             float* out, std::ptrdiff_t outStep);
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
