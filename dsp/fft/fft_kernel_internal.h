#pragma once
// Shared plumbing of the FFT kernels: the factories each kernel translation unit exposes to the
// dispatcher, and the few helpers they share.
//
// The AVX2 kernels live in a translation unit compiled with -mavx2 -mfma. Anything that unit
// emits as an inline or template function could be picked by the linker for callers on any CPU,
// so every helper here is a plain out-of-line function defined in a baseline translation unit
// (fft_kernel_dispatch.cpp), and the kernel units keep their own code in their own namespaces.

#include <cstddef>

#include "dsp/fft/fft_kernel.h"

namespace dsp::fft::detail {

// 64-byte aligned storage for twiddle tables. Throws std::bad_alloc like operator new.
void* AllocateAligned(std::size_t bytes);
void FreeAligned(void* p) noexcept;

// exp(-2 pi i k / n), evaluated in long double with exact values on the axes, then rounded.
void UnitRoot(long long k, long long n, double* re, double* im);
void UnitRoot(long long k, long long n, float* re, float* im);

}  // namespace dsp::fft::detail

namespace dsp::fft::portable {

ComplexPlan<float>* NewComplexPlan(int order, float);
ComplexPlan<double>* NewComplexPlan(int order, double);
RealPlan<float>* NewRealPlan(int order, float);
RealPlan<double>* NewRealPlan(int order, double);

}  // namespace dsp::fft::portable

#if defined(KESTADSP_HAVE_AVX2_KERNEL)
namespace dsp::fft::avx2 {

ComplexPlan<float>* NewComplexPlan(int order, float);
ComplexPlan<double>* NewComplexPlan(int order, double);
RealPlan<float>* NewRealPlan(int order, float);
RealPlan<double>* NewRealPlan(int order, double);

}  // namespace dsp::fft::avx2
#endif
