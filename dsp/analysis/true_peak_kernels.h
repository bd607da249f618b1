#pragma once
// The interpolation of the true-peak meter (not exported), built once per instruction set
// (true_peak_kernels.cpp) and picked for the CPU. Every build sums the taps of an interpolated
// value in the same order with separate products and sums, so all give the same bits.

#include "dsp/core/kernel_dispatch.h"

namespace dsp::detail {

inline constexpr int kTruePeakTaps = 12;

struct TruePeakKernels {
    // The largest magnitude of sum_k taps[p][k] * w[i + 11 - k] over i in [0, n) and the phases
    // p listed in `phases` (`phaseCount` of them); w holds 11 samples of history, then n samples.
    // `peak` is the largest so far and is returned when nothing exceeds it.
    float (*interpolatedPeak)(const float* w, int n, const float (*taps)[kTruePeakTaps], const int* phases,
                              int phaseCount, float peak);
    // The largest |x[i]| over [0, n), or `peak` if larger.
    float (*samplePeak)(const float* x, int n, float peak);
};

namespace portable {
const TruePeakKernels& TruePeakKernelTable();
}
namespace avx2 {
const TruePeakKernels& TruePeakKernelTable();
}

}  // namespace dsp::detail
