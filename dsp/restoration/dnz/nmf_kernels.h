#pragma once
// The matrix products of the factorisation noise reducer (not exported), built once per
// instruction set (nmf_kernels.cpp, see dsp/core/kernel_dispatch.h).
//
// A dictionary is `count` atoms, each a row of `n` floats (n a multiple of 8), `stride` floats
// apart. Every build does the same correctly rounded operations in the same order (no fused
// multiply-add), so every build gives the same bits:
//   - element-wise results (combine, ratio, accumulate, learn) add their terms atom by atom in order;
//   - a dot product (project) keeps eight running sums, sum j holding the products of the
//     elements i with i mod 8 = j, and adds them as ((s0 + s4) + (s2 + s6)) + ((s1 + s5) + (s3 + s7)),
//     however many of them a vector holds.

#include "dsp/core/cpu.h"

namespace dsp::dnz {

struct NmfKernels {
    // out[i] = Σ_k h[k]·atoms[k][i] for i < n (k ascending).
    void (*combine)(const float* atoms, int stride, int count, const float* h, float* out, int n);
    // r[i] = v[i] / max(model[i], floor).
    void (*ratio)(const float* v, const float* model, float floor, float* r, int n);
    // g[k] = Σ_i atoms[k][i]·r[i] for k < count.
    void (*project)(const float* atoms, int stride, int count, const float* r, float* g, int n);
    // acc[k][i] += h[k]·r[i] for k < count.
    void (*accumulate)(float* acc, int stride, int count, const float* h, const float* r, int n);
    // One atom's step on decayed statistics, for i < n (any n):
    //   num[i] = rho·num[i] + (w[i]·r[i])·h;  w[i] = max(num[i]·inverse, floor).
    void (*learn)(float* w, float* num, const float* r, float rho, float h, float inverse, float floor, int n);
};

namespace portable {
const NmfKernels& NmfKernelTable();
}
namespace avx2 {
const NmfKernels& NmfKernelTable();
}

const NmfKernels& NmfKernelsFor(detail::Isa isa = detail::Isa::Best);

}  // namespace dsp::dnz
