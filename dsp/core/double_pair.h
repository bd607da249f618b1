#pragma once
// DoublePair: two doubles side by side in one vector register (SSE2 on x86-64, NEON on arm64,
// two plain doubles elsewhere), for running two channels of a recursion at once.
//
// Every operation is the one IEEE operation on each lane (no fused multiply-add: the library is
// built with -ffp-contract=off, and no intrinsic here fuses), so each lane gives the bits of the
// same expression evaluated in scalar double. Conversions round to nearest like the scalar casts
// and follow the same flush-to-zero / denormals-are-zero mode.
//
// Header-only and private to the library. Not for kernel sources built per instruction set (see
// kernel_dispatch.h): its inline functions would be compiled once per set.

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define KESTA_DOUBLE_PAIR_SSE2 1
#elif defined(__aarch64__) || defined(_M_ARM64)
#include <arm_neon.h>
#define KESTA_DOUBLE_PAIR_NEON 1
#endif

namespace dsp::detail {

#if defined(KESTA_DOUBLE_PAIR_SSE2)

struct DoublePair {
    __m128d v;
};
inline DoublePair operator+(DoublePair a, DoublePair b) {
    return {_mm_add_pd(a.v, b.v)};
}
inline DoublePair operator-(DoublePair a, DoublePair b) {
    return {_mm_sub_pd(a.v, b.v)};
}
inline DoublePair operator*(DoublePair a, DoublePair b) {
    return {_mm_mul_pd(a.v, b.v)};
}
inline DoublePair MakePair(double left, double right) {
    return {_mm_set_pd(right, left)};
}
inline double Left(DoublePair p) {
    return _mm_cvtsd_f64(p.v);
}
inline double Right(DoublePair p) {
    return _mm_cvtsd_f64(_mm_unpackhi_pd(p.v, p.v));
}
// (double)*left, (double)*right.
inline DoublePair LoadFloats(const float* left, const float* right) {
    return {_mm_cvtps_pd(_mm_unpacklo_ps(_mm_load_ss(left), _mm_load_ss(right)))};
}
// *left = (float)lane 0, *right = (float)lane 1.
inline void StoreFloats(DoublePair p, float* left, float* right) {
    const __m128 f = _mm_cvtpd_ps(p.v);
    _mm_store_ss(left, f);
    _mm_store_ss(right, _mm_shuffle_ps(f, f, 1));
}
// (double)(float)x on each lane.
inline DoublePair RoundToFloat(DoublePair p) {
    return {_mm_cvtps_pd(_mm_cvtpd_ps(p.v))};
}

#elif defined(KESTA_DOUBLE_PAIR_NEON)

struct DoublePair {
    float64x2_t v;
};
inline DoublePair operator+(DoublePair a, DoublePair b) {
    return {vaddq_f64(a.v, b.v)};
}
inline DoublePair operator-(DoublePair a, DoublePair b) {
    return {vsubq_f64(a.v, b.v)};
}
inline DoublePair operator*(DoublePair a, DoublePair b) {
    return {vmulq_f64(a.v, b.v)};
}
inline DoublePair MakePair(double left, double right) {
    return {vsetq_lane_f64(right, vdupq_n_f64(left), 1)};
}
inline double Left(DoublePair p) {
    return vgetq_lane_f64(p.v, 0);
}
inline double Right(DoublePair p) {
    return vgetq_lane_f64(p.v, 1);
}
inline DoublePair LoadFloats(const float* left, const float* right) {
    return {vcvt_f64_f32(vld1_lane_f32(right, vld1_dup_f32(left), 1))};
}
inline void StoreFloats(DoublePair p, float* left, float* right) {
    const float32x2_t f = vcvt_f32_f64(p.v);
    vst1_lane_f32(left, f, 0);
    vst1_lane_f32(right, f, 1);
}
inline DoublePair RoundToFloat(DoublePair p) {
    return {vcvt_f64_f32(vcvt_f32_f64(p.v))};
}

#else

struct DoublePair {
    double l, r;
};
inline DoublePair operator+(DoublePair a, DoublePair b) {
    return {a.l + b.l, a.r + b.r};
}
inline DoublePair operator-(DoublePair a, DoublePair b) {
    return {a.l - b.l, a.r - b.r};
}
inline DoublePair operator*(DoublePair a, DoublePair b) {
    return {a.l * b.l, a.r * b.r};
}
inline DoublePair MakePair(double left, double right) {
    return {left, right};
}
inline double Left(DoublePair p) {
    return p.l;
}
inline double Right(DoublePair p) {
    return p.r;
}
inline DoublePair LoadFloats(const float* left, const float* right) {
    return {static_cast<double>(*left), static_cast<double>(*right)};
}
inline void StoreFloats(DoublePair p, float* left, float* right) {
    *left = static_cast<float>(p.l);
    *right = static_cast<float>(p.r);
}
inline DoublePair RoundToFloat(DoublePair p) {
    return {static_cast<double>(static_cast<float>(p.l)), static_cast<double>(static_cast<float>(p.r))};
}

#endif

}  // namespace dsp::detail
