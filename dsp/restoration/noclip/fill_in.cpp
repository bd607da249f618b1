#include <algorithm>
#include <cmath>
#include <cstddef>
#include <initializer_list>

#include "dsp/core/kernel_dispatch.h"
#include "dsp/noclip.h"
#include "dsp/restoration/noclip/fill_in_kernels.h"

namespace dsp {

void CFillIn::Init(int length, int /*reserved*/) {
    mMaxSpan = std::max(4, length / 2);
    mContext = 4 * mMaxSpan;
    mOrder = std::min(32, mContext / 2);
    const std::size_t p1 = static_cast<std::size_t>(mOrder) + 1;
    const std::size_t span = static_cast<std::size_t>(mMaxSpan);
    mWindow.assign(span + 2 * static_cast<std::size_t>(mContext), 0.0);  // the context's weights, then the window
    mHann.resize(static_cast<std::size_t>(mContext));
    for (int j = 0; j < mContext; ++j)
        mHann[static_cast<std::size_t>(j)] = 0.5 - 0.5 * std::cos(2.0 * 3.14159265358979323846 * (j + 0.5) / mContext);
    mAutocorrelation.assign(p1, 0.0);
    mCoefficients.assign(p1, 0.0);
    mScratch.assign(static_cast<std::size_t>(fillin::BandStride(mOrder)), 0.0);
    mCoefCorrelation.assign(p1, 0.0);
    mBand.assign(span * static_cast<std::size_t>(fillin::BandStride(mOrder)), 0.0);
    mModelContext.assign(2 * static_cast<std::size_t>(mContext), 0.0f);
    mModelValid = false;
    mRhs.assign(span, 0.0);
    mUnknown.assign(span, 0);
}

namespace fillin {

const FillInKernels& FillInKernelsFor(detail::Isa isa) {
    static const FillInKernels& best =
        detail::PickKernels(portable::FillInKernelTable(), KESTADSP_AVX2_TABLE(avx2::FillInKernelTable()));
    if (isa == detail::Isa::Best) return best;
    return detail::PickKernels(portable::FillInKernelTable(), KESTADSP_AVX2_TABLE(avx2::FillInKernelTable()), isa);
}

}  // namespace fillin

namespace {

double Dot(const double* a, const double* b, int n) {
    return fillin::FillInKernelsFor().dot(a, b, n);
}

}  // namespace

// The model: autocorrelation of the two context stretches, each under its own Hann weight (the
// span's present values play no part), then Levinson-Durbin for the prediction error filter b
// (b[0] = 1) and its autocorrelation. A white floor 70 dB down keeps the recursion well
// conditioned on pure tones. The model depends on the context alone: a call with the context of
// the last (the clipping repair's masked pass) reuses it.
bool CFillIn::FitModel(int first, int last, const float* samples) {
    const int K = mContext, p = mOrder;
    const float* before = samples + first - K;
    const float* after = samples + last + 1;
    if (mModelValid && std::equal(before, before + K, mModelContext.begin()) &&
        std::equal(after, after + K, mModelContext.begin() + K))
        return true;
    mModelValid = false;
    std::fill(mAutocorrelation.begin(), mAutocorrelation.end(), 0.0);
    for (const float* from : {before, after}) {
        for (int j = 0; j < K; ++j)
            mWindow[j] = mHann[j] * from[j];
        fillin::FillInKernelsFor().autocorrelation(mWindow.data(), K, p + 1, mAutocorrelation.data());
    }
    if (!(mAutocorrelation[0] > 1e-20)) return false;
    mAutocorrelation[0] *= 1.0 + 1e-7;
    double* b = mCoefficients.data();
    std::fill(mCoefficients.begin(), mCoefficients.end(), 0.0);
    b[0] = 1.0;
    double error = mAutocorrelation[0];
    for (int i = 1; i <= p; ++i) {
        double acc = mAutocorrelation[i];
        for (int j = 1; j < i; ++j)
            acc += b[j] * mAutocorrelation[i - j];
        const double k = -acc / error;
        std::copy(b, b + i, mScratch.begin());
        for (int j = 1; j < i; ++j)
            b[j] = mScratch[j] + k * mScratch[i - j];
        b[i] = k;
        error *= 1.0 - k * k;
        if (!(error > 0.0)) return false;
    }
    for (int j = 0; j <= p; ++j)
        mCoefCorrelation[j] = Dot(b, b + j, p + 1 - j);
    std::copy(before, before + K, mModelContext.begin());
    std::copy(after, after + K, mModelContext.begin() + K);
    mModelValid = true;
    return true;
}

bool CFillIn::FillInNow(int first, int last, float* samples, float* /*reservedBuffer*/, float strength,
                        float /*reserved*/, bool* mask) {
    const int n = last - first + 1;
    if (n < 1 || n > mMaxSpan) return false;
    if (!FitModel(first, last, samples)) return false;
    const int K = mContext, p = mOrder, W = n + 2 * K;
    const float* base = samples + first - K;

    // Unknowns: the span's samples (those the mask names); everything else in the window is known.
    // Only the samples within the order of the span take part.
    for (int j = K - p; j < K + n + p; ++j)
        mWindow[j] = base[j];
    int count = 0;
    for (int i = 0; i < n; ++i)
        if (mask == nullptr || mask[i]) mUnknown[count++] = K + i;
    if (count == 0) return false;
    // With a mask the unknowns are zeroed in the window, so that every sample within the order of
    // an unknown can be summed into its right-hand side: the unknowns add nothing.
    if (mask != nullptr)
        for (int a = 0; a < count; ++a)
            mWindow[mUnknown[a]] = 0.0;

    // The prediction error summed over every output that sees an unknown is a quadratic form whose
    // matrix is c[|u - v|] on the unknowns (the context is at least the order wide, so no output is
    // cut off by the window); the known samples move to the right-hand side. Without a mask only
    // the unknowns within the order of the span's ends see a known sample.
    const double* c = mCoefCorrelation.data();
    for (int a = 0; a < count; ++a) {
        const int u = mUnknown[a];
        double rhs = 0.0;
        const int lo = std::max(0, u - p), hi = std::min(W - 1, u + p);
        if (mask == nullptr) {
            for (int j = lo; j < std::min(K, hi + 1); ++j)
                rhs -= c[u - j] * mWindow[j];
            for (int j = std::max(K + n, lo); j <= hi; ++j)
                rhs -= c[j - u] * mWindow[j];
        } else {
            for (int j = lo; j < u; ++j)
                rhs -= c[u - j] * mWindow[j];
            for (int j = u; j <= hi; ++j)
                rhs -= c[j - u] * mWindow[j];
        }
        mRhs[a] = rhs;
    }
    // The matrix, row a holding L[a][k] for k = a - p ... a at mBand[a * stride + k - a + p] so that
    // rows run forwards (the room after each row zeroed); then the banded Cholesky solve.
    const int stride = fillin::BandStride(p);
    double* L = mBand.data();
    for (int a = 0; a < count; ++a) {
        double* la = L + a * stride + p - a;
        if (mask == nullptr) {  // the span's samples in a row: entry k is c[a - k]
            for (int k = std::max(0, a - p); k <= a; ++k)
                la[k] = c[a - k];
        } else {
            for (int k = std::max(0, a - p); k <= a; ++k) {
                const int gap = mUnknown[a] - mUnknown[k];
                la[k] = gap <= p ? c[gap] : 0.0;
            }
        }
        std::fill(la + a + 1, L + (a + 1) * stride, 0.0);
    }
    if (!fillin::FillInKernelsFor().solveBanded(L, mScratch.data(), mRhs.data(), count, p)) return false;
    const double share = static_cast<double>(strength) / 100.0;
    for (int a = 0; a < count; ++a) {
        float& s = samples[first + mUnknown[a] - K];
        s = static_cast<float>(share == 1.0 ? mRhs[a] : s + share * (mRhs[a] - s));
    }
    return true;
}

}  // namespace dsp
