#pragma once
// Shared plumbing of the FFT kernels: the factories each kernel translation unit exposes to the
// dispatcher, and the few helpers they share.
//
// The AVX2 kernels live in a translation unit compiled with -mavx2 -mfma. Anything that unit
// emits as an inline or template function could be picked by the linker for callers on any CPU,
// so every helper here is a plain out-of-line function defined in a baseline translation unit
// (fft_kernel_dispatch.cpp), and the kernel units keep their own code in their own namespaces.

#include <cstddef>

namespace dsp::fft::detail {

// 64-byte aligned storage for twiddle tables. Throws std::bad_alloc like operator new.
void* AllocateAligned(std::size_t bytes);
void FreeAligned(void* p) noexcept;

// exp(-2 pi i k / n), evaluated in long double with exact values on the axes, then rounded.
void UnitRoot(long long k, long long n, double* re, double* im);
void UnitRoot(long long k, long long n, float* re, float* im);

// A kernel compiled for a particular instruction set is reached through plain functions only, so
// that its translation unit need not see the plan classes (see fft_kernel_avx2.cpp).
template <typename T>
struct ComplexOps {
    void* (*create)(int order);
    void (*destroy)(void* plan);
    std::size_t (*workBytes)(const void* plan);
    void (*forward)(const void* plan, const T* inRe, const T* inIm, T* outRe, T* outIm, void* work);
    void (*inverse)(const void* plan, const T* inRe, const T* inIm, T* outRe, T* outIm, void* work);
};

template <typename T>
struct RealOps {
    void* (*create)(int order);
    void (*destroy)(void* plan);
    std::size_t (*workBytes)(const void* plan);
    void (*forward)(const void* plan, const T* in, T* out, void* work);
    void (*inverse)(const void* plan, const T* in, T* out, void* work);
};

}  // namespace dsp::fft::detail

namespace dsp::fft {
template <typename T>
class ComplexPlan;
template <typename T>
class RealPlan;
}  // namespace dsp::fft

namespace dsp::fft::portable {

ComplexPlan<float>* NewComplexPlan(int order, float);
ComplexPlan<double>* NewComplexPlan(int order, double);
RealPlan<float>* NewRealPlan(int order, float);
RealPlan<double>* NewRealPlan(int order, double);

}  // namespace dsp::fft::portable

#if defined(KESTADSP_HAVE_AVX2)
namespace dsp::fft::avx2 {

const detail::ComplexOps<float>& ComplexOps(float);
const detail::ComplexOps<double>& ComplexOps(double);
const detail::RealOps<float>& RealOps(float);
const detail::RealOps<double>& RealOps(double);

}  // namespace dsp::fft::avx2
#endif
