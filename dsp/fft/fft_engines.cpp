#include <bit>
#include <new>

#include "dsp/core/aligned_memory.h"
#include "dsp/fft.h"
#include "dsp/fft/fft_kernel.h"

namespace dsp {

int FFTOrderFromSize(int size) {
    // Scanning from the least significant bit stops at the first set bit for a power of two, so
    // the order of any other size is the position of its lowest set bit.
    if (size == 0) return -1;
    return std::countr_zero(static_cast<unsigned int>(size));
}

namespace detail {

namespace {

// A work-buffer size of 0 from the plan still gets a usable scratch block.
constexpr std::size_t kDefaultWorkBufferBytes = 16384;

template <typename Plan>
std::shared_ptr<void> MakePlan(int order) {
    std::unique_ptr<Plan> plan = Plan::Create(order);
    return std::shared_ptr<void>(std::shared_ptr<Plan>(std::move(plan)));
}

template <typename Plan>
std::size_t WorkBytesOf(const std::shared_ptr<void>& spec) {
    return spec ? static_cast<const Plan*>(spec.get())->WorkBufferBytes() : 0;
}

}  // namespace

FFTEngineState::~FFTEngineState() = default;

void FFTEngineState::DeInit() {
    mSpec.reset();
    mWorkBuffer.reset();
    mSize = 0;
    mInitialized = false;
}

namespace {

// The plan of `kind` for `order` and the scratch bytes its transforms need (at least a usable
// default block when the plan asks for none or there is no plan).
std::shared_ptr<void> MakeSpec(int order, FFTEngineState::PlanKind kind) {
    switch (kind) {
        case FFTEngineState::PlanKind::ComplexFloat:
            return MakePlan<fft::ComplexPlan<float>>(order);
        case FFTEngineState::PlanKind::ComplexDouble:
            return MakePlan<fft::ComplexPlan<double>>(order);
        case FFTEngineState::PlanKind::RealFloat:
            return MakePlan<fft::RealPlan<float>>(order);
        case FFTEngineState::PlanKind::RealDouble:
            return MakePlan<fft::RealPlan<double>>(order);
    }
    return nullptr;
}

std::size_t ScratchBytes(const std::shared_ptr<void>& spec, FFTEngineState::PlanKind kind) {
    std::size_t bytes = 0;
    switch (kind) {
        case FFTEngineState::PlanKind::ComplexFloat:
            bytes = WorkBytesOf<fft::ComplexPlan<float>>(spec);
            break;
        case FFTEngineState::PlanKind::ComplexDouble:
            bytes = WorkBytesOf<fft::ComplexPlan<double>>(spec);
            break;
        case FFTEngineState::PlanKind::RealFloat:
            bytes = WorkBytesOf<fft::RealPlan<float>>(spec);
            break;
        case FFTEngineState::PlanKind::RealDouble:
            bytes = WorkBytesOf<fft::RealPlan<double>>(spec);
            break;
    }
    return bytes != 0 ? bytes : kDefaultWorkBufferBytes;
}

}  // namespace

void FFTEngineState::SetUp(int size, PlanKind kind) {
    if (mSize != 0) DeInit();
    mKind = kind;
    mSpec = MakeSpec(FFTOrderFromSize(size), kind);
    // A failed plan is not reported here: the engine counts as set up and its transforms answer
    // with the null-plan status.
    mWorkBuffer = detail::AllocateAlignedShared(ScratchBytes(mSpec, kind));
    mSize = size;
    mInitialized = true;
}

void CopyEngineWithOwnScratch(FFTEngineState& to, const FFTEngineState& from) {
    if (&to == &from) return;
    std::shared_ptr<void> scratch;
    if (from.mWorkBuffer) scratch = AllocateAlignedShared(ScratchBytes(from.mSpec, from.mKind));
    to = from;
    to.mWorkBuffer = std::move(scratch);
}

int FFTEngineState::GetPlanOrder() const {
    if (!mSpec) return -1;
    switch (mKind) {
        case PlanKind::ComplexFloat:
            return static_cast<const fft::ComplexPlan<float>*>(mSpec.get())->Order();
        case PlanKind::ComplexDouble:
            return static_cast<const fft::ComplexPlan<double>*>(mSpec.get())->Order();
        case PlanKind::RealFloat:
            return static_cast<const fft::RealPlan<float>*>(mSpec.get())->Order();
        case PlanKind::RealDouble:
            return static_cast<const fft::RealPlan<double>*>(mSpec.get())->Order();
    }
    return -1;
}

IppStatus FFTEngineState::Ready() const {
    if (!mInitialized) return kFftNotInitialized;
    if (!mSpec) return kFftNullPlan;
    return kFftOk;
}

}  // namespace detail

namespace {

template <typename T>
IppStatus RunComplex(const std::shared_ptr<void>& spec, void* work, T* srcRe, T* srcIm, T* dstRe, T* dstIm,
                     int direction) {
    const auto* plan = static_cast<const fft::ComplexPlan<T>*>(spec.get());
    if (direction == 1)
        plan->Forward(srcRe, srcIm, dstRe, dstIm, work);
    else
        plan->Inverse(srcRe, srcIm, dstRe, dstIm, work);
    return kFftOk;
}

template <typename T>
void ScaleByInverseLength(T* data, int count, int order) {
    const T scale = T(1) / static_cast<T>(std::size_t{1} << order);
    for (int i = 0; i < count; ++i)
        data[i] *= scale;
}

template <typename T>
IppStatus RunRealForwardNormalised(const std::shared_ptr<void>& spec, void* work, const T* src, T* dst) {
    const auto* plan = static_cast<const fft::RealPlan<T>*>(spec.get());
    plan->Forward(src, dst, work);
    const int order = plan->Order();
    ScaleByInverseLength(dst, (1 << order) + 2, order);
    return kFftOk;
}

}  // namespace

IppStatus IppFFT::FFT(double* srcRe, double* srcIm, double* dstRe, double* dstIm, int direction) {
    if (IppStatus s = Ready(); s != kFftOk) return s;
    return RunComplex(mSpec, mWorkBuffer.get(), srcRe, srcIm, dstRe, dstIm, direction);
}

IppStatus IppFFT::FFT(double* re, double* im, int direction) {
    if (IppStatus s = Ready(); s != kFftOk) return s;
    return RunComplex(mSpec, mWorkBuffer.get(), re, im, re, im, direction);
}

IppStatus IppFFT32::FFT(float* srcRe, float* srcIm, float* dstRe, float* dstIm, int direction) {
    if (IppStatus s = Ready(); s != kFftOk) return s;
    return RunComplex(mSpec, mWorkBuffer.get(), srcRe, srcIm, dstRe, dstIm, direction);
}

IppStatus IppFFT32::FFT(float* re, float* im, int direction) {
    if (IppStatus s = Ready(); s != kFftOk) return s;
    return RunComplex(mSpec, mWorkBuffer.get(), re, im, re, im, direction);
}

IppStatus IppFFT32R::FFT(float* src, float* dst, int direction) {
    if (IppStatus s = Ready(); s != kFftOk) return s;
    const auto* plan = static_cast<const fft::RealPlan<float>*>(mSpec.get());
    if (direction == 1)
        plan->Forward(src, dst, mWorkBuffer.get());
    else
        plan->Inverse(src, dst, mWorkBuffer.get());
    return kFftOk;
}

IppStatus IppFFT32R::FFT(float* data, int direction) {
    return FFT(data, data, direction);
}

IppStatus IppFFT32fReal::FFT(float* src, float* dst) {
    if (IppStatus s = Ready(); s != kFftOk) return s;
    return RunRealForwardNormalised(mSpec, mWorkBuffer.get(), src, dst);
}

IppStatus IppFFT64fReal::FFT(double* src, double* dst) {
    if (IppStatus s = Ready(); s != kFftOk) return s;
    return RunRealForwardNormalised(mSpec, mWorkBuffer.get(), src, dst);
}

}  // namespace dsp
