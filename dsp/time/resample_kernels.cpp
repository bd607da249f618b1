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
    const __m256d s = _mm256_add_pd(_mm256_add_pd(a0, a1), _mm256_add_pd(a2, a3));
    const __m128d t = _mm_add_pd(_mm256_castpd256_pd128(s), _mm256_extractf128_pd(s, 1));
    return _mm_cvtsd_f64(_mm_add_sd(t, _mm_unpackhi_pd(t, t)));
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
#endif

}  // namespace

const ResampleKernels& ResampleKernelTable() {
    static constexpr ResampleKernels table{&Dot};
    return table;
}

}  // namespace dsp::detail::KESTADSP_ISA
