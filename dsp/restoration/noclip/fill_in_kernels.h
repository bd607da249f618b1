#pragma once
// The fill-in's inner loops (not exported), built once per instruction set (fill_in_kernels.cpp,
// see dsp/core/kernel_dispatch.h): dot products, autocorrelation and the banded Cholesky solve. Every build does
// the same correctly rounded operations in the same order (no fused multiply-add): a dot product
// is four running sums, each of every fourth product, added as (s0 + s1) + (s2 + s3) at the end,
// however many of them a vector holds; the Cholesky updates are independent products. So every
// build gives the same bits.

#include "dsp/core/cpu.h"

namespace dsp::fillin {

// Rows of the band matrix lie BandStride(p) apart: the p + 1 entries of a row and room for three
// more, so that a row's update runs in whole vectors (what lands past the row's diagonal is never read).
constexpr int BandStride(int p) {
    return p + 4;
}

struct FillInKernels {
    // The sum of a[i] b[i] for i < n.
    double (*dot)(const double* a, const double* b, int n);
    // The same with b in single precision (each b[i] taken exactly as a double).
    double (*dotFloat)(const double* a, const float* b, int n);
    // r[k] += dot(w + k, w, n - k) for k < lags: the autocorrelation of w, each lag summed as dot
    // sums it.
    void (*autocorrelation)(const double* w, int n, int lags, double* r);
    // Solves A x = rhs in place for the symmetric positive-definite band matrix A of half-width p
    // (count unknowns). Row a of `band` holds A[a][k] for k = a - p ... a at
    // band[a * BandStride(p) + k - a + p] on entry and the Cholesky factor's row on return (its
    // diagonal entry as the reciprocal); `column` is scratch of BandStride(p). False when A is not
    // positive definite (rhs is then left part-solved).
    bool (*solveBanded)(double* band, double* column, double* rhs, int count, int p);
};

namespace portable {
const FillInKernels& FillInKernelTable();
}
namespace avx2 {
const FillInKernels& FillInKernelTable();
}

const FillInKernels& FillInKernelsFor(detail::Isa isa = detail::Isa::Best);

}  // namespace dsp::fillin
