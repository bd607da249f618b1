// True-peak interpolation, built once per instruction set (kesta_add_kernels). The AVX2 build
// computes eight neighbouring interpolated values at once, each summed tap by tap in the portable
// build's order, so both builds return the same peak.

#include "dsp/analysis/true_peak_kernels.h"

#include <cmath>

#if defined(__AVX2__)
#include <immintrin.h>
#endif

namespace dsp::detail::KESTADSP_ISA {

namespace {

constexpr int kHistory = kTruePeakTaps - 1;

inline float Interpolate(const float* w, int i, const float* taps) {
    float sum = 0.0f;
    for (int k = 0; k < kTruePeakTaps; ++k)
        sum += taps[k] * w[i + kHistory - k];
    return sum;
}

float ScalarPeak(const float* w, int begin, int n, const float (*taps)[kTruePeakTaps], const int* phases,
                 int phaseCount, float peak) {
    for (int i = begin; i < n; ++i)
        for (int p = 0; p < phaseCount; ++p) {
            const float m = std::fabs(Interpolate(w, i, taps[phases[p]]));
            if (m > peak) peak = m;
        }
    return peak;
}

float ScalarSamplePeak(const float* x, int begin, int n, float peak) {
    for (int i = begin; i < n; ++i) {
        const float m = std::fabs(x[i]);
        if (m > peak) peak = m;
    }
    return peak;
}

#if defined(__AVX2__)

float HorizontalMax(__m256 v) {
    __m128 m = _mm_max_ps(_mm256_castps256_ps128(v), _mm256_extractf128_ps(v, 1));
    m = _mm_max_ps(m, _mm_movehl_ps(m, m));
    m = _mm_max_ss(m, _mm_shuffle_ps(m, m, 1));
    return _mm_cvtss_f32(m);
}

float InterpolatedPeak(const float* w, int n, const float (*taps)[kTruePeakTaps], const int* phases, int phaseCount,
                       float peak) {
    const __m256 sign = _mm256_set1_ps(-0.0f);
    __m256 best = _mm256_set1_ps(peak);
    int i = 0;
    for (; i + 8 <= n; i += 8) {
        for (int p = 0; p < phaseCount; ++p) {
            const float* h = taps[phases[p]];
            __m256 sum = _mm256_setzero_ps();
            for (int k = 0; k < kTruePeakTaps; ++k)
                sum = _mm256_add_ps(sum, _mm256_mul_ps(_mm256_set1_ps(h[k]), _mm256_loadu_ps(w + i + kHistory - k)));
            best = _mm256_max_ps(_mm256_andnot_ps(sign, sum), best);  // a NaN keeps `best`, as in ScalarPeak
        }
    }
    return ScalarPeak(w, i, n, taps, phases, phaseCount, HorizontalMax(best));
}

float SamplePeak(const float* x, int n, float peak) {
    const __m256 sign = _mm256_set1_ps(-0.0f);
    __m256 best = _mm256_set1_ps(peak);
    int i = 0;
    for (; i + 8 <= n; i += 8)
        best = _mm256_max_ps(_mm256_andnot_ps(sign, _mm256_loadu_ps(x + i)), best);
    return ScalarSamplePeak(x, i, n, HorizontalMax(best));
}

#else

float InterpolatedPeak(const float* w, int n, const float (*taps)[kTruePeakTaps], const int* phases, int phaseCount,
                       float peak) {
    return ScalarPeak(w, 0, n, taps, phases, phaseCount, peak);
}

float SamplePeak(const float* x, int n, float peak) {
    return ScalarSamplePeak(x, 0, n, peak);
}

#endif

}  // namespace

const TruePeakKernels& TruePeakKernelTable() {
    static constexpr TruePeakKernels table{&InterpolatedPeak, &SamplePeak};
    return table;
}

}  // namespace dsp::detail::KESTADSP_ISA
