#include <algorithm>
#include <cmath>
#include <cstddef>

#include "dsp/noclip.h"

namespace dsp {

void CFillIn::Init(int length, int /*reserved*/) {
    mContext = std::max(8, length / 2);
    mMaxSpan = mContext / 2;
    mOrder = std::min(24, mContext / 2);
    const std::size_t p1 = static_cast<std::size_t>(mOrder) + 1;
    const std::size_t span = static_cast<std::size_t>(mMaxSpan);
    mWindow.assign(span + 2 * static_cast<std::size_t>(mContext), 0.0);  // the context's weights, then the window
    mAutocorrelation.assign(p1, 0.0);
    mCoefficients.assign(p1, 0.0);
    mScratch.assign(p1, 0.0);
    mCoefCorrelation.assign(p1, 0.0);
    mBand.assign(span * p1, 0.0);
    mRhs.assign(span, 0.0);
    mUnknown.assign(span, 0);
}

bool CFillIn::FillInNow(int first, int last, float* samples, float* /*reservedBuffer*/, float strength,
                        float /*reserved*/, bool* mask) {
    const int n = last - first + 1;
    if (n < 1 || n > mMaxSpan) return false;
    const int K = mContext, p = mOrder, W = n + 2 * K;
    const float* base = samples + first - K;

    // Model: autocorrelation of the two context stretches, each under its own Hann weight (the
    // span's present values play no part), then Levinson-Durbin for the prediction error filter b
    // (b[0] = 1). A white floor 70 dB down keeps the recursion well conditioned on pure tones.
    std::fill(mAutocorrelation.begin(), mAutocorrelation.end(), 0.0);
    for (int side = 0; side < 2; ++side) {
        const float* from = side == 0 ? base : samples + last + 1;
        for (int j = 0; j < K; ++j) {
            const double hann = 0.5 - 0.5 * std::cos(2.0 * 3.14159265358979323846 * (j + 0.5) / K);
            mWindow[j] = hann * from[j];
        }
        for (int k = 0; k <= p; ++k) {
            double sum = 0.0;
            for (int j = k; j < K; ++j)
                sum += mWindow[j] * mWindow[j - k];
            mAutocorrelation[k] += sum;
        }
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
    for (int j = 0; j <= p; ++j) {
        double sum = 0.0;
        for (int i = 0; i + j <= p; ++i)
            sum += b[i] * b[i + j];
        mCoefCorrelation[j] = sum;
    }

    // Unknowns: the span's samples (those the mask names); everything else in the window is known.
    for (int j = 0; j < W; ++j)
        mWindow[j] = base[j];
    int count = 0;
    for (int i = 0; i < n; ++i)
        if (mask == nullptr || mask[i]) mUnknown[count++] = K + i;
    if (count == 0) return false;

    // The prediction error summed over every output that sees an unknown is a quadratic form whose
    // matrix is c[|u - v|] on the unknowns (the context is at least the order wide, so no output is
    // cut off by the window); the known samples move to the right-hand side.
    const int p1 = p + 1;
    const double* c = mCoefCorrelation.data();
    for (int a = 0; a < count; ++a) {
        const int u = mUnknown[a];
        double rhs = 0.0;
        for (int j = std::max(0, u - p); j <= std::min(W - 1, u + p); ++j) {
            const bool unknown = j >= K && j < K + n && (mask == nullptr || mask[j - K]);
            if (!unknown) rhs -= c[std::abs(j - u)] * mWindow[j];
        }
        mRhs[a] = rhs;
    }
    // Banded Cholesky: L[a][a - d] at mBand[a * p1 + d].
    double* L = mBand.data();
    for (int a = 0; a < count; ++a) {
        for (int d = std::min(p, a); d >= 0; --d) {
            const int bIndex = a - d;
            const int gap = mUnknown[a] - mUnknown[bIndex];
            double sum = gap <= p ? c[gap] : 0.0;
            for (int k = std::max(0, a - p); k < bIndex; ++k) {
                if (bIndex - k > p) continue;
                sum -= L[a * p1 + (a - k)] * L[bIndex * p1 + (bIndex - k)];
            }
            if (d == 0) {
                if (!(sum > 0.0)) return false;
                L[a * p1] = std::sqrt(sum);
            } else {
                L[a * p1 + d] = sum / L[bIndex * p1];
            }
        }
    }
    for (int a = 0; a < count; ++a) {  // forward: L y = rhs
        double sum = mRhs[a];
        for (int k = std::max(0, a - p); k < a; ++k)
            sum -= L[a * p1 + (a - k)] * mRhs[k];
        mRhs[a] = sum / L[a * p1];
    }
    for (int a = count - 1; a >= 0; --a) {  // backward: L^T x = y
        double sum = mRhs[a];
        for (int k = a + 1; k <= std::min(count - 1, a + p); ++k)
            sum -= L[k * p1 + (k - a)] * mRhs[k];
        mRhs[a] = sum / L[a * p1];
    }
    const double share = static_cast<double>(strength) / 100.0;
    for (int a = 0; a < count; ++a) {
        float& s = samples[first + mUnknown[a] - K];
        s = static_cast<float>(s + share * (mRhs[a] - s));
    }
    return true;
}

}  // namespace dsp
