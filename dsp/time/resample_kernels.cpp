// Resampler dot products, built once per instruction set (kesta_add_kernels). Lane l of the 16
// accumulates taps l, l + 16, l + 32, ...; the lanes are then added as
// s[l] = (a[l] + a[l + 4]) + (a[l + 8] + a[l + 12]) and (s[0] + s[2]) + (s[1] + s[3]), which is
// the order the AVX2 build's four 4-wide accumulators give naturally.

#include "dsp/time/resample_kernels.h"

#if defined(__AVX2__)
#include <immintrin.h>
#endif

namespace dsp::detail::KESTADSP_ISA {

namespace {

#if defined(__AVX2__)
double Reduce(__m256d a0, __m256d a1, __m256d a2, __m256d a3) {
    const __m256d s = _mm256_add_pd(_mm256_add_pd(a0, a1), _mm256_add_pd(a2, a3));
    const __m128d t = _mm_add_pd(_mm256_castpd256_pd128(s), _mm256_extractf128_pd(s, 1));
    return _mm_cvtsd_f64(_mm_add_sd(t, _mm_unpackhi_pd(t, t)));
}

double Dot(const double* taps, const double* x, int count) {
    __m256d a0 = _mm256_setzero_pd(), a1 = _mm256_setzero_pd();
    __m256d a2 = _mm256_setzero_pd(), a3 = _mm256_setzero_pd();
    int j = 0;
    for (; j + 16 <= count; j += 16) {
        a0 = _mm256_add_pd(a0, _mm256_mul_pd(_mm256_load_pd(taps + j), _mm256_loadu_pd(x + j)));
        a1 = _mm256_add_pd(a1, _mm256_mul_pd(_mm256_load_pd(taps + j + 4), _mm256_loadu_pd(x + j + 4)));
        a2 = _mm256_add_pd(a2, _mm256_mul_pd(_mm256_load_pd(taps + j + 8), _mm256_loadu_pd(x + j + 8)));
        a3 = _mm256_add_pd(a3, _mm256_mul_pd(_mm256_load_pd(taps + j + 12), _mm256_loadu_pd(x + j + 12)));
    }
    if (j < count) {
        a0 = _mm256_add_pd(a0, _mm256_mul_pd(_mm256_load_pd(taps + j), _mm256_loadu_pd(x + j)));
        a1 = _mm256_add_pd(a1, _mm256_mul_pd(_mm256_load_pd(taps + j + 4), _mm256_loadu_pd(x + j + 4)));
    }
    return Reduce(a0, a1, a2, a3);
}

void Dot2(const double* a, const double* b, const double* x, int count, double* ya, double* yb) {
    __m256d a0 = _mm256_setzero_pd(), a1 = _mm256_setzero_pd(), a2 = _mm256_setzero_pd(), a3 = _mm256_setzero_pd();
    __m256d b0 = _mm256_setzero_pd(), b1 = _mm256_setzero_pd(), b2 = _mm256_setzero_pd(), b3 = _mm256_setzero_pd();
    int j = 0;
    for (; j + 16 <= count; j += 16) {
        const __m256d x0 = _mm256_loadu_pd(x + j), x1 = _mm256_loadu_pd(x + j + 4);
        const __m256d x2 = _mm256_loadu_pd(x + j + 8), x3 = _mm256_loadu_pd(x + j + 12);
        a0 = _mm256_add_pd(a0, _mm256_mul_pd(_mm256_load_pd(a + j), x0));
        b0 = _mm256_add_pd(b0, _mm256_mul_pd(_mm256_load_pd(b + j), x0));
        a1 = _mm256_add_pd(a1, _mm256_mul_pd(_mm256_load_pd(a + j + 4), x1));
        b1 = _mm256_add_pd(b1, _mm256_mul_pd(_mm256_load_pd(b + j + 4), x1));
        a2 = _mm256_add_pd(a2, _mm256_mul_pd(_mm256_load_pd(a + j + 8), x2));
        b2 = _mm256_add_pd(b2, _mm256_mul_pd(_mm256_load_pd(b + j + 8), x2));
        a3 = _mm256_add_pd(a3, _mm256_mul_pd(_mm256_load_pd(a + j + 12), x3));
        b3 = _mm256_add_pd(b3, _mm256_mul_pd(_mm256_load_pd(b + j + 12), x3));
    }
    if (j < count) {
        const __m256d x0 = _mm256_loadu_pd(x + j), x1 = _mm256_loadu_pd(x + j + 4);
        a0 = _mm256_add_pd(a0, _mm256_mul_pd(_mm256_load_pd(a + j), x0));
        b0 = _mm256_add_pd(b0, _mm256_mul_pd(_mm256_load_pd(b + j), x0));
        a1 = _mm256_add_pd(a1, _mm256_mul_pd(_mm256_load_pd(a + j + 4), x1));
        b1 = _mm256_add_pd(b1, _mm256_mul_pd(_mm256_load_pd(b + j + 4), x1));
    }
    *ya = Reduce(a0, a1, a2, a3);
    *yb = Reduce(b0, b1, b2, b3);
}
#else
double Dot(const double* taps, const double* x, int count) {
    double a[16] = {};
    int j = 0;
    for (; j + 16 <= count; j += 16)
        for (int l = 0; l < 16; ++l)
            a[l] += taps[j + l] * x[j + l];
    if (j < count)
        for (int l = 0; l < 8; ++l)
            a[l] += taps[j + l] * x[j + l];
    double s[4];
    for (int l = 0; l < 4; ++l)
        s[l] = (a[l] + a[l + 4]) + (a[l + 8] + a[l + 12]);
    return (s[0] + s[2]) + (s[1] + s[3]);
}

void Dot2(const double* a, const double* b, const double* x, int count, double* ya, double* yb) {
    *ya = Dot(a, x, count);
    *yb = Dot(b, x, count);
}
#endif

}  // namespace

const ResampleKernels& ResampleKernelTable() {
    static constexpr ResampleKernels table{&Dot, &Dot2};
    return table;
}

}  // namespace dsp::detail::KESTADSP_ISA
