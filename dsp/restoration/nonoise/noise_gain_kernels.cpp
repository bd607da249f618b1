// The noise reducer's gains pass, built once per instruction set (kesta_add_kernels). SSE2 and AVX
// double divide, min and conversions are correctly rounded like the scalar form, and every
// candidate of a choice is computed and the applicable one selected (a discarded quotient may be
// inf or NaN; nothing traps), so every build gives BinGain's results bit for bit.

#include "dsp/restoration/nonoise/noise_reducer.h"

#if defined(__SSE2__) || defined(_M_X64)
#include <immintrin.h>
#endif

namespace dsp::nonoise::detail::KESTADSP_ISA {

namespace {

#if defined(__AVX__)
// A bitwise select: the blend instruction's builtin is folded by some compilers into a generic
// vector choice that they then take apart lane by lane.
inline __m256d Select4(__m256d mask, __m256d a, __m256d b) {  // mask ? a : b
    return _mm256_or_pd(_mm256_and_pd(mask, a), _mm256_andnot_pd(mask, b));
}

// Four bins at a time from `k`; returns the first bin left over.
int Apply4(float* re, float* im, const NOISEREDUCER::Tables& t, int k, int n) {
    const __m256d one = _mm256_set1_pd(1.0);
    const __m256d zero = _mm256_setzero_pd();
    for (; k + 4 <= n; k += 4) {
        const __m256d m = _mm256_loadu_pd(t.magnitude + k);
        const __m256d lo = _mm256_loadu_pd(t.lo + k);
        const __m256d hi = _mm256_loadu_pd(t.hi + k);
        const __m256d inside = _mm256_add_pd(
            m,
            _mm256_mul_pd(_mm256_div_pd(_mm256_sub_pd(m, lo), _mm256_loadu_pd(t.kneeWidth + k)), _mm256_sub_pd(hi, m)));
        __m256d target = Select4(_mm256_cmp_pd(m, hi, _CMP_GE_OQ), hi, inside);
        target = Select4(_mm256_cmp_pd(m, lo, _CMP_LT_OQ), m, target);
        const __m256d r = _mm256_min_pd(_mm256_div_pd(target, m), _mm256_loadu_pd(t.ceiling + k));
        const __m256d gain = Select4(_mm256_cmp_pd(m, zero, _CMP_EQ_OQ), one, _mm256_sub_pd(one, r));
        _mm_storeu_ps(re + k, _mm256_cvtpd_ps(_mm256_mul_pd(_mm256_cvtps_pd(_mm_loadu_ps(re + k)), gain)));
        _mm_storeu_ps(im + k, _mm256_cvtpd_ps(_mm256_mul_pd(_mm256_cvtps_pd(_mm_loadu_ps(im + k)), gain)));
    }
    return k;
}
#endif

#if defined(__SSE2__) || defined(_M_X64)
inline __m128d Select2(__m128d mask, __m128d a, __m128d b) {  // mask ? a : b
    return _mm_or_pd(_mm_and_pd(mask, a), _mm_andnot_pd(mask, b));
}

// Two bins at a time from `k`; returns the first bin left over.
int Apply2(float* re, float* im, const NOISEREDUCER::Tables& t, int k, int n) {
    const __m128d one = _mm_set1_pd(1.0);
    for (; k + 2 <= n; k += 2) {
        const __m128d m = _mm_loadu_pd(t.magnitude + k);
        const __m128d lo = _mm_loadu_pd(t.lo + k);
        const __m128d hi = _mm_loadu_pd(t.hi + k);
        const __m128d inside =
            _mm_add_pd(m, _mm_mul_pd(_mm_div_pd(_mm_sub_pd(m, lo), _mm_loadu_pd(t.kneeWidth + k)), _mm_sub_pd(hi, m)));
        __m128d target = Select2(_mm_cmpge_pd(m, hi), hi, inside);
        target = Select2(_mm_cmplt_pd(m, lo), m, target);
        // min(r, t/m) keeps r unless t/m is smaller, which is minpd(t/m, r).
        const __m128d r = _mm_min_pd(_mm_div_pd(target, m), _mm_loadu_pd(t.ceiling + k));
        const __m128d gain = Select2(_mm_cmpeq_pd(m, _mm_setzero_pd()), one, _mm_sub_pd(one, r));
        for (float* x : {re + k, im + k}) {
            const __m128d v = _mm_cvtps_pd(_mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(x))));
            _mm_storel_epi64(reinterpret_cast<__m128i*>(x), _mm_castps_si128(_mm_cvtpd_ps(_mm_mul_pd(v, gain))));
        }
    }
    return k;
}
#endif

void Apply(float* re, float* im, const NOISEREDUCER::Tables& t, int n) {
    int k = 0;
#if defined(__AVX__)
    k = Apply4(re, im, t, k, n);
#endif
#if defined(__SSE2__) || defined(_M_X64)
    k = Apply2(re, im, t, k, n);
#endif
    for (; k < n; ++k) {
        const double gain = BinGain(t.magnitude[k], t.lo[k], t.hi[k], t.kneeWidth[k], t.ceiling[k]);
        re[k] = static_cast<float>(re[k] * gain);
        im[k] = static_cast<float>(im[k] * gain);
    }
}

}  // namespace

const GainKernels& GainKernelTable() {
    static constexpr GainKernels table{&Apply};
    return table;
}

}  // namespace dsp::nonoise::detail::KESTADSP_ISA
