// Window products, built once per instruction set (kesta_add_kernels); the compiler vectorises
// each loop for the set it is built for. Contraction is off, so out += a·b is a rounded product
// then a rounded sum in every build.

#include "dsp/fft/window_kernels.h"

namespace dsp::detail::KESTADSP_ISA {

namespace {

void Multiply(const float* a, const float* b, float* out, int n) {
    for (int i = 0; i < n; ++i)
        out[i] = a[i] * b[i];
}

void AddProduct(const float* a, const float* b, float* out, int n) {
    for (int i = 0; i < n; ++i)
        out[i] += a[i] * b[i];
}

void SubtractProduct(const float* a, const float* b, float* out, int n) {
    for (int i = 0; i < n; ++i)
        out[i] -= a[i] * b[i];
}

}  // namespace

const WindowKernels& WindowKernelTable() {
    static constexpr WindowKernels table{&Multiply, &AddProduct, &SubtractProduct};
    return table;
}

}  // namespace dsp::detail::KESTADSP_ISA
