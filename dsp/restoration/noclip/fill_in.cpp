#include <algorithm>
#include <cmath>
#include <cstddef>
#include <initializer_list>

#include "dsp/noclip.h"

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
    mScratch.assign(p1, 0.0);
    mCoefCorrelation.assign(p1, 0.0);
    mBand.assign(span * p1, 0.0);
    mModelContext.assign(2 * static_cast<std::size_t>(mContext), 0.0f);
    mModelValid = false;
    mRhs.assign(span, 0.0);
    mUnknown.assign(span, 0);
}

namespace {

// The sum of a[i] b[i] for i < n, in four interleaved running sums added in a fixed order: a
// single sum would wait on every addition before the next.
double Dot(const double* a, const double* b, int n) {
    double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
    int i = 0;
    for (; i + 4 <= n; i += 4) {
        s0 += a[i] * b[i];
        s1 += a[i + 1] * b[i + 1];
        s2 += a[i + 2] * b[i + 2];
        s3 += a[i + 3] * b[i + 3];
    }
    for (; i < n; ++i)
        s0 += a[i] * b[i];
    return (s0 + s1) + (s2 + s3);
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
        for (int k = 0; k <= p; ++k)
            mAutocorrelation[k] += Dot(mWindow.data() + k, mWindow.data(), K - k);
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
    for (int j = 0; j < W; ++j)
        mWindow[j] = base[j];
    int count = 0;
    for (int i = 0; i < n; ++i)
        if (mask == nullptr || mask[i]) mUnknown[count++] = K + i;
    if (count == 0) return false;

    // The prediction error summed over every output that sees an unknown is a quadratic form whose
    // matrix is c[|u - v|] on the unknowns (the context is at least the order wide, so no output is
    // cut off by the window); the known samples move to the right-hand side. Without a mask only
    // the unknowns within the order of the span's ends see a known sample.
    const int p1 = p + 1;
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
            for (int j = lo; j <= hi; ++j) {
                const bool unknown = j >= K && j < K + n && mask[j - K];
                if (!unknown) rhs -= c[std::abs(j - u)] * mWindow[j];
            }
        }
        mRhs[a] = rhs;
    }
    // Banded Cholesky, column by column, each column's update of the rows below it a run of
    // independent products (unknowns more than the order apart never meet in one output). Row a
    // holds L[a][k] for k = a - p ... a at mBand[a * p1 + k - a + p], so that rows run forwards.
    double* L = mBand.data();
    auto row = [&](int a) { return L + a * p1 + p - a; };  // row(a)[k] = L[a][k]
    for (int a = 0; a < count; ++a) {
        double* la = row(a);
        for (int k = std::max(0, a - p); k <= a; ++k) {
            const int gap = mUnknown[a] - mUnknown[k];
            la[k] = gap <= p ? c[gap] : 0.0;
        }
    }
    double* column = mScratch.data();  // L[k + 1 ... k + p][k]
    for (int k = 0; k < count; ++k) {
        double* lk = row(k);
        if (!(lk[k] > 0.0)) return false;
        lk[k] = std::sqrt(lk[k]);
        const int below = std::min(count - 1, k + p) - k;
        for (int i = 1; i <= below; ++i) {
            row(k + i)[k] /= lk[k];
            column[i] = row(k + i)[k];
        }
        for (int i = 1; i <= below; ++i) {
            double* la = row(k + i) + k;
            const double f = column[i];
            for (int j = 1; j <= i; ++j)
                la[j] -= f * column[j];
        }
    }
    for (int a = 0; a < count; ++a) {  // forward: L y = rhs
        const int from = std::max(0, a - p);
        mRhs[a] = (mRhs[a] - Dot(row(a) + from, mRhs.data() + from, a - from)) / row(a)[a];
    }
    for (int a = count - 1; a >= 0; --a) {  // backward: L^T x = y
        double sum = mRhs[a];
        for (int k = a + 1; k <= std::min(count - 1, a + p); ++k)
            sum -= row(k)[a] * mRhs[k];
        mRhs[a] = sum / row(a)[a];
    }
    const double share = static_cast<double>(strength) / 100.0;
    for (int a = 0; a < count; ++a) {
        float& s = samples[first + mUnknown[a] - K];
        s = static_cast<float>(s + share * (mRhs[a] - s));
    }
    return true;
}

}  // namespace dsp
