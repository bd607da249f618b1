// Run-time choice of FFT kernel (from the CPU, dsp/core/cpu.h) and the helpers the kernel
// translation units share. This unit is compiled for the baseline instruction set only.

#include <cmath>
#include <memory>
#include <new>

#include "dsp/core/aligned_memory.h"
#include "dsp/fft/fft_kernel.h"
#include "dsp/fft/fft_kernel_internal.h"

namespace dsp::fft {

namespace detail {

void* AllocateAligned(std::size_t bytes) {
    return dsp::detail::AllocateAlignedBytes(bytes == 0 ? dsp::detail::kAlignment : bytes).release();
}

void FreeAligned(void* p) noexcept {
    dsp::detail::AlignedDeleter{}(p);
}

namespace {

// exp(-2 pi i k / n) in long double. The turn fraction k/n is folded into the first octant
// (exact for the power-of-two n the kernels use), so sine and cosine are only evaluated on
// angles up to pi/4 and the points on the axes come out exactly 0 and +-1.
void UnitRootLong(long long k, long long n, long double* re, long double* im) {
    k %= n;
    if (k < 0) k += n;
    long double x = static_cast<long double>(k) / static_cast<long double>(n);  // [0, 1)
    const bool conj = x > 0.5L;  // exp(-2 pi i (1 - x)) = conj(exp(-2 pi i x))
    if (conj) x = 1.0L - x;
    const bool negCos = x > 0.25L;  // cos(pi - a) = -cos a, sin(pi - a) = sin a
    if (negCos) x = 0.5L - x;
    const bool swap = x > 0.125L;  // cos(pi/2 - a) = sin a
    if (swap) x = 0.25L - x;
    const long double pi = 3.141592653589793238462643383279502884L;
    const long double a = 2.0L * pi * x;
    long double c = std::cos(a);
    long double s = std::sin(a);
    if (swap) {
        const long double t = c;
        c = s;
        s = t;
    }
    if (negCos) c = -c;
    *re = c;
    *im = conj ? s : -s;
}

}  // namespace

void UnitRoot(long long k, long long n, double* re, double* im) {
    long double r, i;
    UnitRootLong(k, n, &r, &i);
    *re = static_cast<double>(r);
    *im = static_cast<double>(i);
}

void UnitRoot(long long k, long long n, float* re, float* im) {
    long double r, i;
    UnitRootLong(k, n, &r, &i);
    *re = static_cast<float>(r);
    *im = static_cast<float>(i);
}

}  // namespace detail

namespace {

#if defined(KESTADSP_HAVE_AVX2)
// Plans of a kernel compiled for a particular instruction set, reached through its function table.
template <typename T>
class ComplexOpsPlan final : public ComplexPlan<T> {
public:
    ComplexOpsPlan(int order, const detail::ComplexOps<T>& ops) : mOrder(order), mOps(ops), mPlan(ops.create(order)) {}
    ~ComplexOpsPlan() override { mOps.destroy(mPlan); }
    ComplexOpsPlan(const ComplexOpsPlan&) = delete;
    ComplexOpsPlan& operator=(const ComplexOpsPlan&) = delete;
    int Order() const override { return mOrder; }
    std::size_t WorkBufferBytes() const override { return mOps.workBytes(mPlan); }
    void Forward(const T* inRe, const T* inIm, T* outRe, T* outIm, void* work) const override {
        mOps.forward(mPlan, inRe, inIm, outRe, outIm, work);
    }
    void Inverse(const T* inRe, const T* inIm, T* outRe, T* outIm, void* work) const override {
        mOps.inverse(mPlan, inRe, inIm, outRe, outIm, work);
    }

private:
    int mOrder;
    const detail::ComplexOps<T>& mOps;
    void* mPlan;
};

template <typename T>
class RealOpsPlan final : public RealPlan<T> {
public:
    RealOpsPlan(int order, const detail::RealOps<T>& ops) : mOrder(order), mOps(ops), mPlan(ops.create(order)) {}
    ~RealOpsPlan() override { mOps.destroy(mPlan); }
    RealOpsPlan(const RealOpsPlan&) = delete;
    RealOpsPlan& operator=(const RealOpsPlan&) = delete;
    int Order() const override { return mOrder; }
    std::size_t WorkBufferBytes() const override { return mOps.workBytes(mPlan); }
    void Forward(const T* in, T* out, void* work) const override { mOps.forward(mPlan, in, out, work); }
    void Inverse(const T* in, T* out, void* work) const override { mOps.inverse(mPlan, in, out, work); }

private:
    int mOrder;
    const detail::RealOps<T>& mOps;
    void* mPlan;
};
#endif

template <typename T>
ComplexPlan<T>* NewComplex(int order, Isa isa) {
#if defined(KESTADSP_HAVE_AVX2)
    if (isa == Isa::Avx2Fma) return new ComplexOpsPlan<T>(order, avx2::ComplexOps(T{}));
#endif
    (void)isa;
    return portable::NewComplexPlan(order, T{});
}

template <typename T>
RealPlan<T>* NewReal(int order, Isa isa) {
#if defined(KESTADSP_HAVE_AVX2)
    if (isa == Isa::Avx2Fma) return new RealOpsPlan<T>(order, avx2::RealOps(T{}));
#endif
    (void)isa;
    return portable::NewRealPlan(order, T{});
}

bool Resolve(int order, Isa* isa) {
    if (order < 0 || order > kMaxOrder) return false;
    if (*isa == Isa::Best) *isa = dsp::detail::BestIsa();
    return dsp::detail::IsaAvailable(*isa);
}

}  // namespace

template <typename T>
std::unique_ptr<ComplexPlan<T>> ComplexPlan<T>::Create(int order, Isa isa) {
    if (!Resolve(order, &isa)) return nullptr;
    return std::unique_ptr<ComplexPlan<T>>(NewComplex<T>(order, isa));
}

template <typename T>
std::unique_ptr<RealPlan<T>> RealPlan<T>::Create(int order, Isa isa) {
    if (!Resolve(order, &isa)) return nullptr;
    return std::unique_ptr<RealPlan<T>>(NewReal<T>(order, isa));
}

template std::unique_ptr<ComplexPlan<float>> ComplexPlan<float>::Create(int, Isa);
template std::unique_ptr<ComplexPlan<double>> ComplexPlan<double>::Create(int, Isa);
template std::unique_ptr<RealPlan<float>> RealPlan<float>::Create(int, Isa);
template std::unique_ptr<RealPlan<double>> RealPlan<double>::Create(int, Isa);

}  // namespace dsp::fft
