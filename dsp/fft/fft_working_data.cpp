#include <vector>

#include "dsp/core/aligned_memory.h"
#include "dsp/fft.h"
#include "dsp/fft/fft_kernel.h"
#include "dsp/spectrum_packing.h"

namespace dsp {

// A complex plan with its length (a power of two) and its own work buffer. Polymorphic so a
// holder is always destroyed through its own type.
template <typename T>
struct FFTPlanHolder {
    virtual ~FFTPlanHolder() = default;
    std::unique_ptr<fft::ComplexPlan<T>> plan;
    int length = 0;
    detail::AlignedBytes workBuffer;

    void Transform(const T* srcRe, const T* srcIm, T* dstRe, T* dstIm, int32_t direction) const {
        // -1 is the inverse; anything else, 0 included, is the forward transform.
        if (direction == -1)
            plan->Inverse(srcRe, srcIm, dstRe, dstIm, workBuffer.get());
        else
            plan->Forward(srcRe, srcIm, dstRe, dstIm, workBuffer.get());
    }
};

struct FFTPlanHolderF : FFTPlanHolder<float> {};
struct FFTPlanHolderD : FFTPlanHolder<double> {};

FFTWORKINGDATA::~FFTWORKINGDATA() = default;
FFTWORKINGDATA_F::FFTWORKINGDATA_F() = default;
FFTWORKINGDATA_F::~FFTWORKINGDATA_F() = default;
FFTWORKINGDATA_D::FFTWORKINGDATA_D() = default;
FFTWORKINGDATA_D::~FFTWORKINGDATA_D() = default;

int FFTWORKINGDATA_F::PlanLength() const {
    return holder ? holder->length : 0;
}
int FFTWORKINGDATA_D::PlanLength() const {
    return holder ? holder->length : 0;
}

namespace {

constexpr int kMaxWorkingOrder = 30;

// The smallest 2^k, k = 1 ... 30, that is at least n; 0 when n exceeds 2^30.
int WorkingOrderFor(int32_t n) {
    for (int k = 1; k <= kMaxWorkingOrder; ++k)
        if ((int64_t{1} << k) >= n) return k;
    return 0;
}

template <typename Holder>
std::unique_ptr<Holder> MakeHolder(int32_t n) {
    const int order = WorkingOrderFor(n);
    if (order == 0) return nullptr;
    auto holder = std::make_unique<Holder>();
    holder->plan = decltype(holder->plan)::element_type::Create(order);
    if (!holder->plan) return nullptr;
    holder->length = 1 << order;
    // Exactly the size the plan asks for; no fallback block here.
    holder->workBuffer = detail::AllocateAlignedBytes(holder->plan->WorkBufferBytes());
    return holder;
}

const FFTPlanHolderF* FloatHolder(FFTWORKINGDATA& wd) {
    auto* f = dynamic_cast<FFTWORKINGDATA_F*>(&wd);
    return f != nullptr ? f->holder.get() : nullptr;
}

const FFTPlanHolderD* DoubleHolder(FFTWORKINGDATA& wd) {
    auto* d = dynamic_cast<FFTWORKINGDATA_D*>(&wd);
    return d != nullptr ? d->holder.get() : nullptr;
}

}  // namespace

std::unique_ptr<FFTWORKINGDATA_F> CreateFFTWorkingDataF(int32_t n) {
    auto wd = std::make_unique<FFTWORKINGDATA_F>();
    wd->holder = MakeHolder<FFTPlanHolderF>(n);
    return wd;
}

std::unique_ptr<FFTWORKINGDATA_D> CreateFFTWorkingDataD(int32_t n) {
    auto wd = std::make_unique<FFTWORKINGDATA_D>();
    wd->holder = MakeHolder<FFTPlanHolderD>(n);
    return wd;
}

void LFFTF(float* re, float* im, int32_t /*n*/, int32_t direction, FFTWORKINGDATA& wd) {
    if (const FFTPlanHolderF* holder = FloatHolder(wd)) holder->Transform(re, im, re, im, direction);
}

void LFFTD(double* re, double* im, int32_t /*n*/, int32_t direction, FFTWORKINGDATA& wd) {
    if (const FFTPlanHolderD* holder = DoubleHolder(wd)) holder->Transform(re, im, re, im, direction);
}

void LFFTSD(double* srcRe, double* srcIm, double* dstRe, double* dstIm, int32_t /*n*/, int32_t direction,
            FFTWORKINGDATA& wd) {
    if (const FFTPlanHolderD* holder = DoubleHolder(wd)) holder->Transform(srcRe, srcIm, dstRe, dstIm, direction);
}

void LFFT2CF(float* x, float* y, float* xRe, float* xIm, float* yRe, float* yIm, int32_t n, int32_t direction,
             FFTWORKINGDATA& wd) {
    const FFTPlanHolderF* holder = FloatHolder(wd);
    if (holder == nullptr || direction <= 0 || n < 1) return;
    // The transform writes a whole plan length; the split reads n bins of it.
    const std::size_t tempLength = static_cast<std::size_t>(std::max<int32_t>(n, holder->length));
    std::vector<float> zRe(tempLength, 0.0f), zIm(tempLength, 0.0f);
    holder->plan->Forward(x, y, zRe.data(), zIm.data(), holder->workBuffer.get());
    float* outRe[2] = {xRe, yRe};
    float* outIm[2] = {xIm, yIm};
    SplitComplexSpectrumToLR(zRe.data(), zIm.data(), 0, outRe, outIm, n);
    xIm[0] = 0.0f;
}

}  // namespace dsp
