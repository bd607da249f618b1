#pragma once
// The window products of the frame engine: they run on every sample of every frame, so they are
// built once per instruction set (window_kernels.cpp) and picked for the CPU (a product of two
// floats is the same in every build).

#include "dsp/core/kernel_dispatch.h"

namespace dsp::detail {

struct WindowKernels {
    void (*multiply)(const float* a, const float* b, float* out, int n);         // out = a·b
    void (*addProduct)(const float* a, const float* b, float* out, int n);       // out += a·b
    void (*subtractProduct)(const float* a, const float* b, float* out, int n);  // out −= a·b
};

namespace portable {
const WindowKernels& WindowKernelTable();
}
namespace avx2 {
const WindowKernels& WindowKernelTable();
}

}  // namespace dsp::detail
