#pragma once
// Private interface of the library's own FFT kernels. The engine classes of include/dsp/fft.h are
// thin wrappers over these plans.
//
// Conventions every kernel keeps:
//  - sizes are powers of two, N = 2^order, order 0 ... kMaxOrder (order 0 is the identity);
//  - forward is X[k] = sum_n x[n] e^(-2 pi i k n / N), inverse has the + sign; neither is scaled;
//  - complex data is split: separate real and imaginary arrays;
//  - real transforms use CCS packing: N + 2 values, element 2k = Re X[k], 2k + 1 = Im X[k] for
//    k = 0 ... N/2 (so elements 1 and N + 1 are 0);
//  - input and output may be the same arrays (in place) but must not otherwise overlap;
//  - caller arrays carry no alignment guarantee; the work buffer is 64-byte aligned and at least
//    WorkBufferBytes() long;
//  - transforms allocate nothing and keep no state between calls, so one plan can serve several
//    threads that each bring their own work buffer.

#include <cstddef>
#include <memory>

#include "dsp/core/cpu.h"

namespace dsp::fft {

inline constexpr int kMaxOrder = 30;

// Kernels: Portable (plain C++, any CPU) and Avx2Fma, chosen by dsp/core/cpu.h.
using Isa = dsp::detail::Isa;

template <typename T>
class ComplexPlan {
public:
    virtual ~ComplexPlan() = default;
    // Null when the order is outside 0 ... kMaxOrder or `isa` is not available.
    static std::unique_ptr<ComplexPlan> Create(int order, Isa isa = Isa::Best);

    virtual int Order() const = 0;
    virtual std::size_t WorkBufferBytes() const = 0;
    virtual void Forward(const T* inRe, const T* inIm, T* outRe, T* outIm, void* work) const = 0;
    virtual void Inverse(const T* inRe, const T* inIm, T* outRe, T* outIm, void* work) const = 0;
};

template <typename T>
class RealPlan {
public:
    virtual ~RealPlan() = default;
    static std::unique_ptr<RealPlan> Create(int order, Isa isa = Isa::Best);

    virtual int Order() const = 0;
    virtual std::size_t WorkBufferBytes() const = 0;
    // N reals in, N + 2 CCS values out.
    virtual void Forward(const T* in, T* outCcs, void* work) const = 0;
    // N + 2 CCS values in, N reals out (the imaginary parts of bins 0 and N/2 are ignored).
    virtual void Inverse(const T* inCcs, T* out, void* work) const = 0;
};

}  // namespace dsp::fft
