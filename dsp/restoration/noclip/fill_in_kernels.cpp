// The fill-in's dot products, autocorrelation and banded solve, built once per instruction set (kesta_add_kernels):
// four doubles at a time where the build has AVX, two with SSE2 (x86-64), the rest in plain
// arithmetic, always in the order fill_in_kernels.h gives.

#include "dsp/restoration/noclip/fill_in_kernels.h"

#include <algorithm>
#include <cmath>

#if defined(__AVX__)
#include <immintrin.h>
#endif

namespace dsp::fillin::KESTADSP_ISA {

namespace {

#if defined(__AVX__)
__m256d Load4(const double* x) {
    return _mm256_loadu_pd(x);
}
__m256d Load4(const float* x) {
    return _mm256_cvtps_pd(_mm_loadu_ps(x));
}
#endif

// The sum of a[i] b[i], b in double or single precision (taken exactly as a double).
template <typename B>
double DotOf(const double* a, const B* b, int n) {
    int i = 0;
    double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
#if defined(__AVX__)
    __m256d sum = _mm256_setzero_pd();
    for (; i + 4 <= n; i += 4)
        sum = _mm256_add_pd(sum, _mm256_mul_pd(_mm256_loadu_pd(a + i), Load4(b + i)));
    alignas(32) double lanes[4];
    _mm256_store_pd(lanes, sum);
    s0 = lanes[0], s1 = lanes[1], s2 = lanes[2], s3 = lanes[3];
#else
    for (; i + 4 <= n; i += 4) {
        s0 += a[i] * static_cast<double>(b[i]);
        s1 += a[i + 1] * static_cast<double>(b[i + 1]);
        s2 += a[i + 2] * static_cast<double>(b[i + 2]);
        s3 += a[i + 3] * static_cast<double>(b[i + 3]);
    }
#endif
    for (; i < n; ++i)
        s0 += a[i] * static_cast<double>(b[i]);
    return (s0 + s1) + (s2 + s3);
}

double Dot(const double* a, const double* b, int n) {
    return DotOf(a, b, n);
}

double DotFloat(const double* a, const float* b, int n) {
    return DotOf(a, b, n);
}

// r[k] += Dot(w + k, w, n - k) for k < lags, summed exactly as Dot sums. With AVX four lags at a
// time share each load of w[i ... i + 3]: their first vector steps run together, then each lag
// finishes its own vector steps and its tail.
void Autocorrelation(const double* w, int n, int lags, double* r) {
    int k = 0;
#if defined(__AVX__)
    for (; k + 4 <= lags; k += 4) {
        __m256d sum[4] = {_mm256_setzero_pd(), _mm256_setzero_pd(), _mm256_setzero_pd(), _mm256_setzero_pd()};
        const int together = std::max(0, (n - k - 3) / 4 * 4);  // whole vectors of the shortest of the four
        for (int i = 0; i < together; i += 4) {
            const __m256d x = _mm256_loadu_pd(w + i);
            for (int j = 0; j < 4; ++j)
                sum[j] = _mm256_add_pd(sum[j], _mm256_mul_pd(_mm256_loadu_pd(w + i + k + j), x));
        }
        for (int j = 0; j < 4; ++j) {
            const int length = n - k - j;
            int i = together;
            for (; i + 4 <= length; i += 4)
                sum[j] = _mm256_add_pd(sum[j], _mm256_mul_pd(_mm256_loadu_pd(w + i + k + j), _mm256_loadu_pd(w + i)));
            alignas(32) double lanes[4];
            _mm256_store_pd(lanes, sum[j]);
            double s0 = lanes[0];
            for (; i < length; ++i)
                s0 += w[i + k + j] * w[i];
            r[k + j] += (s0 + lanes[1]) + (lanes[2] + lanes[3]);
        }
    }
#endif
    for (; k < lags; ++k)
        r[k] += Dot(w + k, w, n - k);
}

// x[j] -= f * y[j] for j < n. With AVX in whole vectors: up to three entries past n are written
// too (x and y have room for them; what lands there is never read).
void SubtractScaled(double* x, const double* y, double f, int n) {
#if defined(__AVX__)
    const __m256d f4 = _mm256_set1_pd(f);
    for (int j = 0; j < n; j += 4)
        _mm256_storeu_pd(x + j, _mm256_sub_pd(_mm256_loadu_pd(x + j), _mm256_mul_pd(f4, _mm256_loadu_pd(y + j))));
#else
    for (int j = 0; j < n; ++j)
        x[j] -= f * y[j];
#endif
}

// Column by column, each column's update of the rows below it a run of independent products
// (unknowns more than p apart never meet); then L y = rhs forwards and L^T x = y backwards. The
// diagonal is kept as its reciprocal: one division per unknown instead of one per entry, which
// otherwise wait on the divider one after another.
bool SolveBanded(double* band, double* column, double* rhs, int count, int p) {
    const int stride = BandStride(p);
    auto row = [&](int a) { return band + a * stride + p - a; };  // row(a)[k] = L[a][k]
    for (int k = 0; k < count; ++k) {
        double* lk = row(k);
        if (!(lk[k] > 0.0)) return false;
        const double inverse = 1.0 / std::sqrt(lk[k]);
        lk[k] = inverse;
        const int below = std::min(count - 1, k + p) - k;
        for (int i = 1; i <= below; ++i) {
            row(k + i)[k] *= inverse;
            column[i] = row(k + i)[k];
        }
        // Row k + i's entries k + 1 ... k + i; past them lies the row's room, then the next row.
        for (int i = 1; i <= below; ++i)
            SubtractScaled(row(k + i) + k + 1, column + 1, column[i], i);
    }
    for (int a = 0; a < count; ++a) {
        const int from = std::max(0, a - p);
        rhs[a] = (rhs[a] - Dot(row(a) + from, rhs + from, a - from)) * row(a)[a];
    }
    for (int a = count - 1; a >= 0; --a) {
        double sum = rhs[a];
        for (int k = a + 1; k <= std::min(count - 1, a + p); ++k)
            sum -= row(k)[a] * rhs[k];
        rhs[a] = sum * row(a)[a];
    }
    return true;
}

}  // namespace

const FillInKernels& FillInKernelTable() {
    static const FillInKernels table{Dot, DotFloat, Autocorrelation, SolveBanded};
    return table;
}

}  // namespace dsp::fillin::KESTADSP_ISA
