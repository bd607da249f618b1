// The hiss reducer's per-bin loops, built once per instruction set (kesta_add_kernels): eight
// bins at a time where the build has AVX, four with SSE2 (x86-64) or NEON (arm64), the rest in
// the scalar form, with the same operations in the same order, so every build gives the same bits.

#include "dsp/restoration/nohiss/hiss_kernels.h"

#if defined(KESTA_NOHISS_PORTABLE_ONLY)
// Defined by hand to build the loops without SIMD on any target.
#elif defined(__SSE2__) || defined(_M_X64)
#include <immintrin.h>
#define KESTA_NOHISS_SSE2 1
#elif defined(__aarch64__) || defined(_M_ARM64)
#include <arm_neon.h>
#define KESTA_NOHISS_NEON 1
#endif

namespace dsp::nohiss::kernels::KESTADSP_ISA {

namespace {

void Magnitudes(const float* re, const float* im, float* m, int from, int to, float divisor) {
    int k = from;
#if defined(__AVX__)
    const __m256 d8 = _mm256_set1_ps(divisor);
    for (; k + 8 <= to; k += 8) {
        const __m256 r = _mm256_loadu_ps(re + k);
        const __m256 i = _mm256_loadu_ps(im + k);
        const __m256 power = _mm256_add_ps(_mm256_mul_ps(r, r), _mm256_mul_ps(i, i));
        _mm256_storeu_ps(m + k, _mm256_div_ps(_mm256_sqrt_ps(power), d8));
    }
#endif
#if defined(KESTA_NOHISS_SSE2)
    const __m128 d = _mm_set1_ps(divisor);
    for (; k + 4 <= to; k += 4) {
        const __m128 r = _mm_loadu_ps(re + k);
        const __m128 i = _mm_loadu_ps(im + k);
        const __m128 power = _mm_add_ps(_mm_mul_ps(r, r), _mm_mul_ps(i, i));
        _mm_storeu_ps(m + k, _mm_div_ps(_mm_sqrt_ps(power), d));
    }
#elif defined(KESTA_NOHISS_NEON)
    const float32x4_t d = vdupq_n_f32(divisor);
    for (; k + 4 <= to; k += 4) {
        const float32x4_t r = vld1q_f32(re + k);
        const float32x4_t i = vld1q_f32(im + k);
        const float32x4_t power = vaddq_f32(vmulq_f32(r, r), vmulq_f32(i, i));
        vst1q_f32(m + k, vdivq_f32(vsqrtq_f32(power), d));
    }
#endif
    scalar::Magnitudes(re, im, m, k, to, divisor);
}

void ApplyGains(float* re, float* im, const float* S, const float* T, int from, int to, const GainRule& rule) {
    int k = from;
#if defined(__AVX__)
    const __m256 G8 = _mm256_set1_ps(rule.floorGain);
    const __m256 oneMinusG8 = _mm256_set1_ps(rule.oneMinusFloorGain);
    const __m256 r8 = _mm256_set1_ps(rule.kneeRatio);
    const __m256 one8 = _mm256_set1_ps(1.0f);
    for (; k + 8 <= to; k += 8) {
        const __m256 t = _mm256_loadu_ps(T + k);
        const __m256 s = _mm256_loadu_ps(S + k);
        const __m256 lo = _mm256_mul_ps(r8, t);
        const __m256 knee =
            _mm256_add_ps(G8, _mm256_div_ps(_mm256_mul_ps(oneMinusG8, _mm256_sub_ps(s, lo)), _mm256_sub_ps(t, lo)));
        const __m256 inKnee = _mm256_cmp_ps(s, lo, _CMP_GE_OQ);
        const __m256 below = _mm256_or_ps(_mm256_and_ps(inKnee, knee), _mm256_andnot_ps(inKnee, G8));
        const __m256 pass = _mm256_cmp_ps(s, t, _CMP_GE_OQ);
        const __m256 g = _mm256_or_ps(_mm256_and_ps(pass, one8), _mm256_andnot_ps(pass, below));
        _mm256_storeu_ps(re + k, _mm256_mul_ps(_mm256_loadu_ps(re + k), g));
        _mm256_storeu_ps(im + k, _mm256_mul_ps(_mm256_loadu_ps(im + k), g));
    }
#endif
#if defined(KESTA_NOHISS_SSE2)
    const __m128 G = _mm_set1_ps(rule.floorGain);
    const __m128 oneMinusG = _mm_set1_ps(rule.oneMinusFloorGain);
    const __m128 r = _mm_set1_ps(rule.kneeRatio);
    const __m128 one = _mm_set1_ps(1.0f);
    for (; k + 4 <= to; k += 4) {
        const __m128 t = _mm_loadu_ps(T + k);
        const __m128 s = _mm_loadu_ps(S + k);
        const __m128 lo = _mm_mul_ps(r, t);
        // Every candidate is formed and the right one selected; where the knee is not selected
        // its division may see 0/0, which is discarded.
        const __m128 knee = _mm_add_ps(G, _mm_div_ps(_mm_mul_ps(oneMinusG, _mm_sub_ps(s, lo)), _mm_sub_ps(t, lo)));
        const __m128 inKnee = _mm_cmpge_ps(s, lo);
        const __m128 below = _mm_or_ps(_mm_and_ps(inKnee, knee), _mm_andnot_ps(inKnee, G));
        const __m128 pass = _mm_cmpge_ps(s, t);
        const __m128 g = _mm_or_ps(_mm_and_ps(pass, one), _mm_andnot_ps(pass, below));
        _mm_storeu_ps(re + k, _mm_mul_ps(_mm_loadu_ps(re + k), g));
        _mm_storeu_ps(im + k, _mm_mul_ps(_mm_loadu_ps(im + k), g));
    }
#elif defined(KESTA_NOHISS_NEON)
    const float32x4_t G = vdupq_n_f32(rule.floorGain);
    const float32x4_t oneMinusG = vdupq_n_f32(rule.oneMinusFloorGain);
    const float32x4_t r = vdupq_n_f32(rule.kneeRatio);
    const float32x4_t one = vdupq_n_f32(1.0f);
    for (; k + 4 <= to; k += 4) {
        const float32x4_t t = vld1q_f32(T + k);
        const float32x4_t s = vld1q_f32(S + k);
        const float32x4_t lo = vmulq_f32(r, t);
        const float32x4_t knee = vaddq_f32(G, vdivq_f32(vmulq_f32(oneMinusG, vsubq_f32(s, lo)), vsubq_f32(t, lo)));
        const float32x4_t below = vbslq_f32(vcgeq_f32(s, lo), knee, G);
        const float32x4_t g = vbslq_f32(vcgeq_f32(s, t), one, below);
        vst1q_f32(re + k, vmulq_f32(vld1q_f32(re + k), g));
        vst1q_f32(im + k, vmulq_f32(vld1q_f32(im + k), g));
    }
#endif
    scalar::ApplyGains(re, im, S, T, k, to, rule);
}

void SmoothPair(float* SA, float* SB, const float* mA, const float* mB, int from, int to, float d, float oneMinusD) {
#if defined(KESTA_NOHISS_SSE2)
    // Lanes 0 and 1 carry rows A and B; lanes 2 and 3 stay zero.
    auto pair = [](const float* a, const float* b) { return _mm_unpacklo_ps(_mm_load_ss(a), _mm_load_ss(b)); };
    const __m128 c01 = _mm_set1_ps(0.1f);
    const __m128 c02 = _mm_set1_ps(0.2f);
    const __m128 c04 = _mm_set1_ps(0.4f);
    const __m128 c008 = _mm_set1_ps(0.08f);
    const __m128 c092 = _mm_set1_ps(0.92f);
    const __m128 vd = _mm_set1_ps(d);
    const __m128 v1d = _mm_set1_ps(oneMinusD);
    __m128 s2 = pair(SA + from - 2, SB + from - 2);  // this frame's S[k-2]
    __m128 s1 = pair(SA + from - 1, SB + from - 1);  // this frame's S[k-1]
    for (int k = from; k < to; ++k) {
        const __m128 s = pair(SA + k, SB + k);
        const __m128 m = pair(mA + k, mB + k);
        const __m128 n1 = pair(SA + k + 1, SB + k + 1);
        const __m128 n2 = pair(SA + k + 2, SB + k + 2);
        __m128 q = _mm_add_ps(_mm_mul_ps(c01, s2), _mm_mul_ps(c02, s1));
        q = _mm_add_ps(q, _mm_mul_ps(c04, m));
        q = _mm_add_ps(q, _mm_mul_ps(c02, n1));
        q = _mm_add_ps(q, _mm_mul_ps(c01, n2));
        const __m128 decay = _mm_add_ps(_mm_mul_ps(s, vd), _mm_mul_ps(v1d, q));
        const __m128 attack = _mm_add_ps(_mm_mul_ps(s, c008), _mm_mul_ps(q, c092));
        const __m128 falls = _mm_cmple_ps(q, s);
        const __m128 next = _mm_or_ps(_mm_and_ps(falls, decay), _mm_andnot_ps(falls, attack));
        _mm_store_ss(SA + k, next);
        _mm_store_ss(SB + k, _mm_shuffle_ps(next, next, _MM_SHUFFLE(1, 1, 1, 1)));
        s2 = s1;
        s1 = next;
    }
#else
    float a2 = SA[from - 2], a1 = SA[from - 1];
    float b2 = SB[from - 2], b1 = SB[from - 1];
    for (int k = from; k < to; ++k) {
        const float qa = 0.1f * a2 + 0.2f * a1 + 0.4f * mA[k] + 0.2f * SA[k + 1] + 0.1f * SA[k + 2];
        const float qb = 0.1f * b2 + 0.2f * b1 + 0.4f * mB[k] + 0.2f * SB[k + 1] + 0.1f * SB[k + 2];
        const float sa = SA[k], sb = SB[k];
        const float da = sa * d + oneMinusD * qa, ua = sa * 0.08f + qa * 0.92f;
        const float db = sb * d + oneMinusD * qb, ub = sb * 0.08f + qb * 0.92f;
        a2 = a1;
        a1 = qa <= sa ? da : ua;
        b2 = b1;
        b1 = qb <= sb ? db : ub;
        SA[k] = a1;
        SB[k] = b1;
    }
#endif
}

}  // namespace

const HissKernels& HissKernelTable() {
    static constexpr HissKernels table{&Magnitudes, &ApplyGains, &SmoothPair};
    return table;
}

}  // namespace dsp::nohiss::kernels::KESTADSP_ISA
