// AVX2+FMA FFT kernels, compiled with -mavx2 -mfma and chosen at run time.
//
// Same algorithm as the portable kernels (Stockham autosort, radix-4 decimation-in-frequency
// passes, inverse by swapping real and imaginary parts), with every pass written for 8-float /
// 4-double vectors on the split arrays:
//  - pass 0 (stride 1) runs over p, with twiddles stored per block of vectors, and transposes its
//    four outputs in registers so that y[4p + k] is written with whole-vector stores;
//  - pass 1 in float (stride 4) covers two values of p per vector, with twiddles stored already
//    repeated over each half, and swaps 128-bit halves to store;
//  - later passes (stride of at least a vector) broadcast the three twiddles of each p;
//  - an odd order ends in a twiddle-free radix-8 pass (or radix 2 where that does not fit).
// These loops are bound by vector loads and stores, not arithmetic, so the design counts memory
// operations: radix 4 is what the sixteen registers hold without spilling, and the work arrays
// are placed so that their streams do not pile into one cache set with the caller's.
// Sizes too small for whole vectors (below 32 floats or 16 doubles) run a scalar pass.
//
// Nothing here may be shared with other translation units: the unit does not include the plan
// classes of fft_kernel.h (their inline members would be emitted here, compiled for AVX2), keeps
// all code in an anonymous namespace, uses no standard-library templates, and exposes only tables
// of plain functions that fft_kernel_dispatch.cpp wraps.

#include <immintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "dsp/fft/fft_kernel_internal.h"

#if defined(_MSC_VER) && !defined(__clang__)
#define KESTA_INLINE __forceinline
#else
#define KESTA_INLINE inline __attribute__((always_inline))
#endif

namespace dsp::fft::avx2 {
namespace {

// Keeps a loaded vector in its register. Without it GCC folds the same load into several
// arithmetic instructions, and the loads and stores of vectors are what bounds these loops.
#if defined(__GNUC__) || defined(__clang__)
#define KESTA_PIN(v) __asm__("" : "+x"(v))
#else
#define KESTA_PIN(v) ((void)0)
#endif

using std::size_t;

// ---------------------------------------------------------------------------------------------
// Vector traits.

struct F32 {
    using T = float;
    using V = __m256;
    static constexpr size_t W = 8;
    static KESTA_INLINE V Load(const T* p) { return _mm256_loadu_ps(p); }
    static KESTA_INLINE void Store(T* p, V v) { _mm256_storeu_ps(p, v); }
    static KESTA_INLINE V Bcast(const T* p) { return _mm256_broadcast_ss(p); }
    static KESTA_INLINE V Set1(T x) { return _mm256_set1_ps(x); }
    static KESTA_INLINE V Add(V a, V b) { return _mm256_add_ps(a, b); }
    static KESTA_INLINE V Sub(V a, V b) { return _mm256_sub_ps(a, b); }
    static KESTA_INLINE V Mul(V a, V b) { return _mm256_mul_ps(a, b); }
    static KESTA_INLINE V FMAdd(V a, V b, V c) { return _mm256_fmadd_ps(a, b, c); }
    static KESTA_INLINE V FMSub(V a, V b, V c) { return _mm256_fmsub_ps(a, b, c); }
    static KESTA_INLINE V FNMAdd(V a, V b, V c) { return _mm256_fnmadd_ps(a, b, c); }
    static KESTA_INLINE V Reverse(V v) {
        return _mm256_permutevar8x32_ps(v, _mm256_setr_epi32(7, 6, 5, 4, 3, 2, 1, 0));
    }
    // y[4i + k] = vk[i] for i < 8: 32 values.
    static KESTA_INLINE void StoreTransposed4(T* y, V v0, V v1, V v2, V v3) {
        const V t0 = _mm256_unpacklo_ps(v0, v1);
        const V t1 = _mm256_unpackhi_ps(v0, v1);
        const V t2 = _mm256_unpacklo_ps(v2, v3);
        const V t3 = _mm256_unpackhi_ps(v2, v3);
        const V u0 = _mm256_shuffle_ps(t0, t2, 0x44);  // i = 0 | 4
        const V u1 = _mm256_shuffle_ps(t0, t2, 0xEE);  // i = 1 | 5
        const V u2 = _mm256_shuffle_ps(t1, t3, 0x44);  // i = 2 | 6
        const V u3 = _mm256_shuffle_ps(t1, t3, 0xEE);  // i = 3 | 7
        Store(y, _mm256_permute2f128_ps(u0, u1, 0x20));
        Store(y + 8, _mm256_permute2f128_ps(u2, u3, 0x20));
        Store(y + 16, _mm256_permute2f128_ps(u0, u1, 0x31));
        Store(y + 24, _mm256_permute2f128_ps(u2, u3, 0x31));
    }
    // (re[i], im[i]) from 2W interleaved values.
    static KESTA_INLINE void LoadDeinterleaved(const T* p, V* re, V* im) {
        const V a = Load(p);
        const V b = Load(p + 8);
        const V lo = _mm256_permute2f128_ps(a, b, 0x20);
        const V hi = _mm256_permute2f128_ps(a, b, 0x31);
        *re = _mm256_shuffle_ps(lo, hi, 0x88);
        *im = _mm256_shuffle_ps(lo, hi, 0xDD);
    }
    static KESTA_INLINE void StoreInterleaved(T* p, V re, V im) {
        const V lo = _mm256_unpacklo_ps(re, im);
        const V hi = _mm256_unpackhi_ps(re, im);
        Store(p, _mm256_permute2f128_ps(lo, hi, 0x20));
        Store(p + 8, _mm256_permute2f128_ps(lo, hi, 0x31));
    }
};

struct F64 {
    using T = double;
    using V = __m256d;
    static constexpr size_t W = 4;
    static KESTA_INLINE V Load(const T* p) { return _mm256_loadu_pd(p); }
    static KESTA_INLINE void Store(T* p, V v) { _mm256_storeu_pd(p, v); }
    static KESTA_INLINE V Bcast(const T* p) { return _mm256_broadcast_sd(p); }
    static KESTA_INLINE V Set1(T x) { return _mm256_set1_pd(x); }
    static KESTA_INLINE V Add(V a, V b) { return _mm256_add_pd(a, b); }
    static KESTA_INLINE V Sub(V a, V b) { return _mm256_sub_pd(a, b); }
    static KESTA_INLINE V Mul(V a, V b) { return _mm256_mul_pd(a, b); }
    static KESTA_INLINE V FMAdd(V a, V b, V c) { return _mm256_fmadd_pd(a, b, c); }
    static KESTA_INLINE V FMSub(V a, V b, V c) { return _mm256_fmsub_pd(a, b, c); }
    static KESTA_INLINE V FNMAdd(V a, V b, V c) { return _mm256_fnmadd_pd(a, b, c); }
    static KESTA_INLINE V Reverse(V v) { return _mm256_permute4x64_pd(v, 0x1B); }
    static KESTA_INLINE void StoreTransposed4(T* y, V v0, V v1, V v2, V v3) {
        const V t0 = _mm256_unpacklo_pd(v0, v1);  // v0[0] v1[0] | v0[2] v1[2]
        const V t1 = _mm256_unpackhi_pd(v0, v1);  // v0[1] v1[1] | v0[3] v1[3]
        const V t2 = _mm256_unpacklo_pd(v2, v3);
        const V t3 = _mm256_unpackhi_pd(v2, v3);
        Store(y, _mm256_permute2f128_pd(t0, t2, 0x20));
        Store(y + 4, _mm256_permute2f128_pd(t1, t3, 0x20));
        Store(y + 8, _mm256_permute2f128_pd(t0, t2, 0x31));
        Store(y + 12, _mm256_permute2f128_pd(t1, t3, 0x31));
    }
    static KESTA_INLINE void LoadDeinterleaved(const T* p, V* re, V* im) {
        const V a = Load(p);
        const V b = Load(p + 4);
        const V lo = _mm256_permute2f128_pd(a, b, 0x20);  // r0 i0 r2 i2
        const V hi = _mm256_permute2f128_pd(a, b, 0x31);  // r1 i1 r3 i3
        *re = _mm256_unpacklo_pd(lo, hi);
        *im = _mm256_unpackhi_pd(lo, hi);
    }
    static KESTA_INLINE void StoreInterleaved(T* p, V re, V im) {
        const V lo = _mm256_unpacklo_pd(re, im);  // r0 i0 | r2 i2
        const V hi = _mm256_unpackhi_pd(re, im);  // r1 i1 | r3 i3
        Store(p, _mm256_permute2f128_pd(lo, hi, 0x20));
        Store(p + 4, _mm256_permute2f128_pd(lo, hi, 0x31));
    }
};

// ---------------------------------------------------------------------------------------------
// The radix-4 butterfly on vectors: (a, b, c, d) -> y0 ... y3 before twiddles,
//   y0 = (a + c) + (b + d),  y1 = (a - c) - i (b - d),  y2 = (a + c) - (b + d),
//   y3 = (a - c) + i (b - d).

template <class S>
struct Quad {
    typename S::V r[4];
    typename S::V i[4];
};

template <class S>
KESTA_INLINE void Butterfly(Quad<S>& q) {
    using V = typename S::V;
    for (int k = 0; k < 4; ++k) {
        KESTA_PIN(q.r[k]);
        KESTA_PIN(q.i[k]);
    }
    const V apcr = S::Add(q.r[0], q.r[2]), apci = S::Add(q.i[0], q.i[2]);
    const V amcr = S::Sub(q.r[0], q.r[2]), amci = S::Sub(q.i[0], q.i[2]);
    const V bpdr = S::Add(q.r[1], q.r[3]), bpdi = S::Add(q.i[1], q.i[3]);
    const V bmdr = S::Sub(q.r[1], q.r[3]), bmdi = S::Sub(q.i[1], q.i[3]);
    q.r[0] = S::Add(apcr, bpdr);
    q.i[0] = S::Add(apci, bpdi);
    q.r[1] = S::Add(amcr, bmdi);
    q.i[1] = S::Sub(amci, bmdr);
    q.r[2] = S::Sub(apcr, bpdr);
    q.i[2] = S::Sub(apci, bpdi);
    q.r[3] = S::Sub(amcr, bmdi);
    q.i[3] = S::Add(amci, bmdr);
}

// (r + i im) * (wr + i wi)
template <class S>
KESTA_INLINE void Twiddle(typename S::V& r, typename S::V& im, typename S::V wr, typename S::V wi) {
    const typename S::V nr = S::FMSub(r, wr, S::Mul(im, wi));
    const typename S::V ni = S::FMAdd(r, wi, S::Mul(im, wr));
    r = nr;
    im = ni;
}

// Twiddle tables: per pass, the factors of y1, y2, y3 as (w1r, w1i, w2r, w2i, w3r, w3i). Pass 0
// stores them per block of W values of p (6 vectors per block); pass 1 in float stores, per pair
// of p, each factor repeated over a 128-bit half; later passes store 6 scalars per p.

// Pass 0: s = 1, m >= W.
template <class S>
void PassFirst(size_t m, const typename S::T* tw, const typename S::T* xr, const typename S::T* xi, typename S::T* yr,
               typename S::T* yi) {
    constexpr size_t W = S::W;
    for (size_t p = 0; p < m; p += W, tw += 6 * W) {
        Quad<S> q;
        for (int k = 0; k < 4; ++k) {
            q.r[k] = S::Load(xr + p + k * m);
            q.i[k] = S::Load(xi + p + k * m);
        }
        Butterfly<S>(q);
        Twiddle<S>(q.r[1], q.i[1], S::Load(tw), S::Load(tw + W));
        Twiddle<S>(q.r[2], q.i[2], S::Load(tw + 2 * W), S::Load(tw + 3 * W));
        Twiddle<S>(q.r[3], q.i[3], S::Load(tw + 4 * W), S::Load(tw + 5 * W));
        S::StoreTransposed4(yr + 4 * p, q.r[0], q.r[1], q.r[2], q.r[3]);
        S::StoreTransposed4(yi + 4 * p, q.i[0], q.i[1], q.i[2], q.i[3]);
    }
}

// Pass 1 in float: s = 4, m >= 2; each vector holds q = 0..3 for p and p + 1.
void PassStride4(size_t m, const float* tw, const float* xr, const float* xi, float* yr, float* yi) {
    using S = F32;
    const size_t sm = 4 * m;
    for (size_t p = 0; p < m; p += 2, tw += 48) {
        Quad<S> q;
        for (size_t k = 0; k < 4; ++k) {
            q.r[k] = S::Load(xr + 4 * p + k * sm);
            q.i[k] = S::Load(xi + 4 * p + k * sm);
        }
        Butterfly<S>(q);
        Twiddle<S>(q.r[1], q.i[1], S::Load(tw), S::Load(tw + 8));
        Twiddle<S>(q.r[2], q.i[2], S::Load(tw + 16), S::Load(tw + 24));
        Twiddle<S>(q.r[3], q.i[3], S::Load(tw + 32), S::Load(tw + 40));
        float* r = yr + 16 * p;
        float* i = yi + 16 * p;
        S::Store(r, _mm256_permute2f128_ps(q.r[0], q.r[1], 0x20));
        S::Store(r + 8, _mm256_permute2f128_ps(q.r[2], q.r[3], 0x20));
        S::Store(r + 16, _mm256_permute2f128_ps(q.r[0], q.r[1], 0x31));
        S::Store(r + 24, _mm256_permute2f128_ps(q.r[2], q.r[3], 0x31));
        S::Store(i, _mm256_permute2f128_ps(q.i[0], q.i[1], 0x20));
        S::Store(i + 8, _mm256_permute2f128_ps(q.i[2], q.i[3], 0x20));
        S::Store(i + 16, _mm256_permute2f128_ps(q.i[0], q.i[1], 0x31));
        S::Store(i + 24, _mm256_permute2f128_ps(q.i[2], q.i[3], 0x31));
    }
}

// Passes with s >= W.
template <class S>
void PassGeneric(size_t m, size_t s, const typename S::T* tw, const typename S::T* xr, const typename S::T* xi,
                 typename S::T* yr, typename S::T* yi) {
    using T = typename S::T;
    const size_t sm = s * m;
    for (size_t p = 0; p < m; ++p, tw += 6) {
        const typename S::V w1r = S::Bcast(tw), w1i = S::Bcast(tw + 1);
        const typename S::V w2r = S::Bcast(tw + 2), w2i = S::Bcast(tw + 3);
        const typename S::V w3r = S::Bcast(tw + 4), w3i = S::Bcast(tw + 5);
        const T* ar = xr + s * p;
        const T* ai = xi + s * p;
        T* or_ = yr + 4 * s * p;
        T* oi = yi + 4 * s * p;
        for (size_t j = 0; j < s; j += S::W) {
            Quad<S> q;
            for (size_t k = 0; k < 4; ++k) {
                q.r[k] = S::Load(ar + j + k * sm);
                q.i[k] = S::Load(ai + j + k * sm);
            }
            Butterfly<S>(q);
            Twiddle<S>(q.r[1], q.i[1], w1r, w1i);
            Twiddle<S>(q.r[2], q.i[2], w2r, w2i);
            Twiddle<S>(q.r[3], q.i[3], w3r, w3i);
            for (size_t k = 0; k < 4; ++k) {
                S::Store(or_ + j + k * s, q.r[k]);
                S::Store(oi + j + k * s, q.i[k]);
            }
        }
    }
}

// The last pass writes either split arrays, or (for the inverse real transform, run as a forward
// transform on swapped parts) one interleaved array of (im, re) pairs.
template <class S, bool SwappedInterleaved>
struct Output {
    typename S::T* re;
    typename S::T* im;
    KESTA_INLINE void Put(size_t at, typename S::V r, typename S::V i) const {
        if constexpr (SwappedInterleaved) {
            S::StoreInterleaved(re + 2 * at, i, r);
        } else {
            S::Store(re + at, r);
            S::Store(im + at, i);
        }
    }
};

// Last radix-4 pass: m = 1, s = N/4, no twiddles.
template <class S, class Out>
void PassLast4(size_t s, const typename S::T* xr, const typename S::T* xi, Out out) {
    for (size_t j = 0; j < s; j += S::W) {
        Quad<S> q;
        for (size_t k = 0; k < 4; ++k) {
            q.r[k] = S::Load(xr + j + k * s);
            q.i[k] = S::Load(xi + j + k * s);
        }
        Butterfly<S>(q);
        for (size_t k = 0; k < 4; ++k)
            out.Put(j + k * s, q.r[k], q.i[k]);
    }
}

// Last radix-2 pass of an odd order too small for the radix-8 one: m = 1, s = N/2.
template <class S, class Out>
void PassLast2(size_t s, const typename S::T* xr, const typename S::T* xi, Out out) {
    for (size_t j = 0; j < s; j += S::W) {
        const typename S::V ar = S::Load(xr + j), ai = S::Load(xi + j);
        const typename S::V br = S::Load(xr + j + s), bi = S::Load(xi + j + s);
        out.Put(j, S::Add(ar, br), S::Add(ai, bi));
        out.Put(j + s, S::Sub(ar, br), S::Sub(ai, bi));
    }
}

// Last radix-8 pass of an odd order: m = 1, s = N/8, no twiddles. With a_k = x_k + x_(k+4) and
// b_k = x_k - x_(k+4), the even outputs are the 4-point transform of a and the odd ones that of
// b_k w8^k (w8 = exp(-i pi/4)). Sixteen inputs do not fit the registers next to the work, so the
// odd half loads its inputs again instead of spilling them.
template <class S, class Out>
void PassLast8(size_t s, const typename S::T* xr, const typename S::T* xi, Out out) {
    using T = typename S::T;
    using V = typename S::V;
    const V h = S::Set1(T(0.707106781186547524400844362104849039L));
    const V mh = S::Set1(T(-0.707106781186547524400844362104849039L));
    for (size_t j = 0; j < s; j += S::W) {
        Quad<S> q;
        for (size_t k = 0; k < 4; ++k) {
            q.r[k] = S::Add(S::Load(xr + j + k * s), S::Load(xr + j + (k + 4) * s));
            q.i[k] = S::Add(S::Load(xi + j + k * s), S::Load(xi + j + (k + 4) * s));
        }
        Butterfly<S>(q);
        for (size_t l = 0; l < 4; ++l)
            out.Put(j + 2 * l * s, q.r[l], q.i[l]);
        for (size_t k = 0; k < 4; ++k) {
            q.r[k] = S::Sub(S::Load(xr + j + k * s), S::Load(xr + j + (k + 4) * s));
            q.i[k] = S::Sub(S::Load(xi + j + k * s), S::Load(xi + j + (k + 4) * s));
        }
        // b1 (1 - i)/sqrt2, b2 (-i), b3 (-1 - i)/sqrt2
        const V b1r = q.r[1], b1i = q.i[1];
        q.r[1] = S::Mul(S::Add(b1r, b1i), h);
        q.i[1] = S::Mul(S::Sub(b1i, b1r), h);
        const V b2r = q.r[2];
        q.r[2] = q.i[2];
        q.i[2] = S::Sub(S::Set1(T(0)), b2r);
        const V b3r = q.r[3], b3i = q.i[3];
        q.r[3] = S::Mul(S::Sub(b3i, b3r), h);
        q.i[3] = S::Mul(S::Add(b3r, b3i), mh);
        Butterfly<S>(q);
        for (size_t l = 0; l < 4; ++l)
            out.Put(j + (2 * l + 1) * s, q.r[l], q.i[l]);
    }
}

// Pass 0 for the real transforms, which see the half-length complex sequence interleaved:
// z[n] = (in[2n], in[2n + 1]).
template <class S>
void PassFirstInterleaved(size_t m, const typename S::T* tw, const typename S::T* in, typename S::T* yr,
                          typename S::T* yi) {
    constexpr size_t W = S::W;
    for (size_t p = 0; p < m; p += W, tw += 6 * W) {
        Quad<S> q;
        for (size_t k = 0; k < 4; ++k)
            S::LoadDeinterleaved(in + 2 * (p + k * m), &q.r[k], &q.i[k]);
        Butterfly<S>(q);
        Twiddle<S>(q.r[1], q.i[1], S::Load(tw), S::Load(tw + W));
        Twiddle<S>(q.r[2], q.i[2], S::Load(tw + 2 * W), S::Load(tw + 3 * W));
        Twiddle<S>(q.r[3], q.i[3], S::Load(tw + 4 * W), S::Load(tw + 5 * W));
        S::StoreTransposed4(yr + 4 * p, q.r[0], q.r[1], q.r[2], q.r[3]);
        S::StoreTransposed4(yi + 4 * p, q.i[0], q.i[1], q.i[2], q.i[3]);
    }
}

// Scalar pass for sizes below a vector: m butterflies of stride s (radix 4), or the radix-2 pass.
template <typename T>
void PassScalar(int radix, size_t m, size_t s, const T* tw, const T* xr, const T* xi, T* yr, T* yi) {
    if (radix == 2) {
        for (size_t q = 0; q < s; ++q) {
            const T ar = xr[q], ai = xi[q], br = xr[q + s], bi = xi[q + s];
            yr[q] = ar + br;
            yi[q] = ai + bi;
            yr[q + s] = ar - br;
            yi[q + s] = ai - bi;
        }
        return;
    }
    const size_t sm = s * m;
    for (size_t p = 0; p < m; ++p) {
        for (size_t q = 0; q < s; ++q) {
            const size_t x0 = q + s * p;
            T r[4], im[4];
            for (size_t k = 0; k < 4; ++k) {
                r[k] = xr[x0 + k * sm];
                im[k] = xi[x0 + k * sm];
            }
            const T apcr = r[0] + r[2], apci = im[0] + im[2];
            const T amcr = r[0] - r[2], amci = im[0] - im[2];
            const T bpdr = r[1] + r[3], bpdi = im[1] + im[3];
            const T bmdr = r[1] - r[3], bmdi = im[1] - im[3];
            T o_r[4] = {apcr + bpdr, amcr + bmdi, apcr - bpdr, amcr - bmdi};
            T o_i[4] = {apci + bpdi, amci - bmdr, apci - bpdi, amci + bmdr};
            const size_t y0 = q + s * 4 * p;
            yr[y0] = o_r[0];
            yi[y0] = o_i[0];
            for (size_t k = 1; k < 4; ++k) {
                T wr = 1, wi = 0;
                if (tw != nullptr) {
                    wr = tw[6 * p + 2 * (k - 1)];
                    wi = tw[6 * p + 2 * (k - 1) + 1];
                }
                yr[y0 + k * s] = o_r[k] * wr - o_i[k] * wi;
                yi[y0 + k * s] = o_r[k] * wi + o_i[k] * wr;
            }
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Plan storage (no standard containers in this unit).

template <typename T>
class AlignedArray {
public:
    AlignedArray() = default;
    ~AlignedArray() { detail::FreeAligned(mData); }
    AlignedArray(const AlignedArray&) = delete;
    AlignedArray& operator=(const AlignedArray&) = delete;
    void Allocate(size_t n) {
        detail::FreeAligned(mData);
        mData = nullptr;
        mData = static_cast<T*>(detail::AllocateAligned((n == 0 ? 1 : n) * sizeof(T)));
        std::memset(static_cast<void*>(mData), 0, (n == 0 ? 1 : n) * sizeof(T));
    }
    T* Data() const { return mData; }

private:
    T* mData = nullptr;
};

// How a pass's twiddles are laid out: per block of W values of p (pass 0), per pair of p with
// each factor repeated four times (float pass with s = 4), or six scalars per p.
enum class TwLayout { Blocks, Pairs, Scalars };

enum class PassKind { First, Stride4, Generic, Last4, Last2, Last8, Scalar };

struct Pass {
    PassKind kind;
    int radix;  // 2, 4 or 8
    size_t m;   // butterflies per stride
    size_t s;   // stride
    size_t tw;  // offset of the twiddles in the table, or kNoTwiddle
    TwLayout layout;
};

constexpr size_t kNoTwiddle = ~size_t{0};
constexpr int kMaxPasses = 32;

template <class S>
class ComplexKernel {
public:
    using T = typename S::T;
    static constexpr size_t W = S::W;
    // Distance between the split arrays in the work buffer beyond N, so that the arrays do not
    // share cache sets and the loads of one do not wait on stores to another at the same 4 KiB
    // offset.
    static constexpr size_t kSkew = 320 / sizeof(T);
    // The work arrays start at one of four 1 KiB windows of a 4 KiB page, chosen per call away
    // from the caller's arrays (see WorkBase).
    static constexpr size_t kWindow = 1024 / sizeof(T);

    explicit ComplexKernel(int order) : mN(size_t{1} << order) {
        const bool vector = mN >= 4 * W;
        size_t stages = 0;  // radix-4 stages
        while ((size_t{1} << (2 * (stages + 1))) <= mN)
            ++stages;
        const bool odd = (size_t{1} << (2 * stages)) != mN;
        // An odd order ends in a radix-8 pass when its stride holds whole vectors and its eight
        // streams per array do not all fall in one cache set (stride below 4 KiB); else radix 2.
        const bool last8 = odd && vector && mN / 8 >= W && (mN / 8) * sizeof(T) < 4096;
        const size_t radix4 = last8 ? stages - 1 : stages;

        size_t total = 0;
        for (size_t i = 0; i < radix4; ++i) {
            const size_t s = size_t{1} << (2 * i);
            const size_t m = mN / (4 * s);
            Pass pass{PassKind::Scalar, 4, m, s, kNoTwiddle, TwLayout::Scalars};
            if (vector) {
                if (m == 1)
                    pass.kind = PassKind::Last4;
                else if (s == 1)
                    pass = Pass{PassKind::First, 4, m, s, 0, TwLayout::Blocks};
                else if (s < W)
                    pass = Pass{PassKind::Stride4, 4, m, s, 0, TwLayout::Pairs};
                else
                    pass.kind = PassKind::Generic;
            }
            if (m > 1) {
                pass.tw = total;
                const size_t count = pass.layout == TwLayout::Pairs ? 24 * m : 6 * m;
                total += (count + 15) & ~size_t{15};  // keep every table 64-byte aligned
            }
            mPasses[mCount++] = pass;
        }
        if (last8) {
            mPasses[mCount++] = Pass{PassKind::Last8, 8, 1, mN / 8, kNoTwiddle, TwLayout::Scalars};
        } else if (odd) {
            mPasses[mCount++] =
                Pass{vector ? PassKind::Last2 : PassKind::Scalar, 2, 1, mN / 2, kNoTwiddle, TwLayout::Scalars};
        }
        mTw.Allocate(total);
        for (int i = 0; i < mCount; ++i)
            Fill(mPasses[i]);
    }

    // Two split areas of N complex values, skewed, and room to shift them by up to 3 windows.
    size_t WorkElements() const { return 4 * (mN + kSkew) + 3 * kWindow; }

    void Run(const T* ir, const T* ii, T* orr, T* oi, T* work) const { RunImpl<false, false>(ir, ii, orr, oi, work); }
    // Forward transform of the complex sequence held interleaved in `in` (2N values).
    void RunFromInterleaved(const T* in, T* orr, T* oi, T* work) const {
        RunImpl<true, false>(in, nullptr, orr, oi, work);
    }
    // Transform of (ir, ii) written to `out` as (im, re) pairs: with the parts swapped on input
    // this is the inverse transform, interleaved.
    void RunToSwappedInterleaved(const T* ir, const T* ii, T* out, T* work) const {
        RunImpl<false, true>(ir, ii, out, nullptr, work);
    }

private:
    template <bool InIL, bool OutIL>
    void RunImpl(const T* ir, const T* ii, T* orr, T* oi, T* work) const {
        if (mCount == 0) {
            const T r = ir[0];
            const T i = InIL ? ir[1] : ii[0];
            if (OutIL) {
                orr[0] = i;
                orr[1] = r;
            } else {
                orr[0] = r;
                oi[0] = i;
            }
            return;
        }
        const size_t stride = mN + kSkew;
        work += WorkBase(work, ir, ii, orr, oi);
        T* aR = work;
        T* aI = work + stride;
        T* bR = work + 2 * stride;
        T* bI = work + 3 * stride;
        const bool vecFirst = mPasses[0].kind == PassKind::First;
        const PassKind lastKind = mPasses[mCount - 1].kind;
        const bool vecLast = lastKind == PassKind::Last4 || lastKind == PassKind::Last2 || lastKind == PassKind::Last8;
        const T* sr = ir;
        const T* si = ii;
        if (InIL && !vecFirst) {
            for (size_t n = 0; n < mN; ++n) {
                bR[n] = ir[2 * n];
                bI[n] = ir[2 * n + 1];
            }
            sr = bR;
            si = bI;
        }
        // Where the passes whose parity matches the last one write: the output itself, which for
        // interleaved output serves as two split halves until the last pass.
        T* scratchR = orr;
        T* scratchI = OutIL ? orr + mN : oi;
        T* finalR = orr;
        T* finalI = oi;
        if (OutIL && !vecLast) {
            finalR = bR;
            finalI = bI;
        }
        const bool inPlace = !InIL && !OutIL && (ir == orr || ii == oi);
        for (int i = 0; i < mCount; ++i) {
            const bool last = i == mCount - 1;
            T* dr;
            T* di;
            // The last pass lands in the output; earlier ones alternate with the work buffer. A
            // pass cannot run in place, so an in-place first pass goes to a second area.
            if (((mCount - 1 - i) & 1) == 0) {
                dr = last ? finalR : scratchR;
                di = last ? finalI : scratchI;
                if (i == 0 && inPlace) {
                    dr = bR;
                    di = bI;
                }
            } else {
                dr = aR;
                di = aI;
            }
            const Pass& pass = mPasses[i];
            if (InIL && i == 0 && vecFirst) {
                PassFirstInterleaved<S>(pass.m, mTw.Data() + pass.tw, ir, dr, di);
            } else if (OutIL && last && vecLast) {
                const Output<S, true> out{orr, nullptr};
                if (pass.kind == PassKind::Last4)
                    PassLast4<S>(pass.s, sr, si, out);
                else if (pass.kind == PassKind::Last8)
                    PassLast8<S>(pass.s, sr, si, out);
                else
                    PassLast2<S>(pass.s, sr, si, out);
            } else {
                RunPass(pass, sr, si, dr, di);
            }
            sr = dr;
            si = di;
        }
        if (OutIL) {
            if (!vecLast) {
                for (size_t n = 0; n < mN; ++n) {
                    orr[2 * n] = bI[n];
                    orr[2 * n + 1] = bR[n];
                }
            }
        } else if (sr != orr) {
            std::memcpy(orr, sr, mN * sizeof(T));
            std::memcpy(oi, si, mN * sizeof(T));
        }
    }

    // Large arrays from the system allocator tend to start at the same offset within a page, and
    // a pass touching several streams whose addresses agree modulo 4 KiB overloads one set of the
    // L1 cache. Places the work arrays (which span under 1 KiB of offsets) in the window of the
    // page that holds the fewest of the caller's arrays, the outputs counting double.
    static size_t WorkBase(const T* work, const T* ir, const T* ii, const T* orr, const T* oi) {
        auto window = [](const void* p) { return (reinterpret_cast<std::uintptr_t>(p) >> 10) & 3; };
        int load[4] = {0, 0, 0, 0};
        const size_t home = window(work);
        const void* ins[2] = {ir, ii};
        const void* outs[2] = {orr, oi};
        for (const void* p : ins)
            if (p != nullptr) load[(window(p) - home) & 3] += 1;
        for (const void* p : outs)
            if (p != nullptr) load[(window(p) - home) & 3] += 2;
        size_t best = 0;
        for (size_t w = 1; w < 4; ++w)
            if (load[w] < load[best]) best = w;
        return best * kWindow;
    }

    void RunPass(const Pass& pass, const T* xr, const T* xi, T* yr, T* yi) const {
        const T* tw = pass.tw == kNoTwiddle ? nullptr : mTw.Data() + pass.tw;
        switch (pass.kind) {
            case PassKind::First:
                PassFirst<S>(pass.m, tw, xr, xi, yr, yi);
                break;
            case PassKind::Stride4:
                if constexpr (W == 8) PassStride4(pass.m, tw, xr, xi, yr, yi);
                break;
            case PassKind::Generic:
                PassGeneric<S>(pass.m, pass.s, tw, xr, xi, yr, yi);
                break;
            case PassKind::Last4:
                PassLast4<S>(pass.s, xr, xi, Output<S, false>{yr, yi});
                break;
            case PassKind::Last2:
                PassLast2<S>(pass.s, xr, xi, Output<S, false>{yr, yi});
                break;
            case PassKind::Last8:
                PassLast8<S>(pass.s, xr, xi, Output<S, false>{yr, yi});
                break;
            case PassKind::Scalar:
                PassScalar<T>(pass.radix, pass.m, pass.s, tw, xr, xi, yr, yi);
                break;
        }
    }

    // Twiddles of a pass with m butterflies per stride: w^p, w^2p, w^3p with w = exp(-2 pi i/4m).
    void Fill(const Pass& pass) {
        if (pass.tw == kNoTwiddle) return;
        T* tw = mTw.Data() + pass.tw;
        const size_t m = pass.m;
        const long long n = static_cast<long long>(4 * m);
        for (size_t p = 0; p < m; ++p) {
            T w[6];
            for (int k = 1; k <= 3; ++k)
                detail::UnitRoot(k * static_cast<long long>(p), n, &w[2 * (k - 1)], &w[2 * k - 1]);
            switch (pass.layout) {
                case TwLayout::Blocks: {
                    const size_t block = p / W, lane = p % W;
                    for (int c = 0; c < 6; ++c)
                        tw[block * 6 * W + c * W + lane] = w[c];
                    break;
                }
                case TwLayout::Pairs: {
                    const size_t block = p / 2, half = p % 2;
                    for (int c = 0; c < 6; ++c)
                        for (int l = 0; l < 4; ++l)
                            tw[block * 48 + c * 8 + half * 4 + l] = w[c];
                    break;
                }
                case TwLayout::Scalars:
                    for (int c = 0; c < 6; ++c)
                        tw[6 * p + c] = w[c];
                    break;
            }
        }
    }

    size_t mN;
    Pass mPasses[kMaxPasses];
    int mCount = 0;
    AlignedArray<T> mTw;
};

template <class S>
class Avx2ComplexPlan {
public:
    using T = typename S::T;
    explicit Avx2ComplexPlan(int order) : mKernel(order) {}
    std::size_t WorkBufferBytes() const { return mKernel.WorkElements() * sizeof(T); }
    void Forward(const T* inRe, const T* inIm, T* outRe, T* outIm, void* work) const {
        mKernel.Run(inRe, inIm, outRe, outIm, static_cast<T*>(work));
    }
    void Inverse(const T* inRe, const T* inIm, T* outRe, T* outIm, void* work) const {
        mKernel.Run(inIm, inRe, outIm, outRe, static_cast<T*>(work));
    }

private:
    ComplexKernel<S> mKernel;
};

// ---------------------------------------------------------------------------------------------
// Real transforms: N = 2M points through the M-point complex transform of z[n] = x[2n] + i x[2n+1]
// and the split step (see the portable kernel for the formulas). The split step pairs bins k and
// M - k: a vector of k ascending meets a reversed vector of M - k descending.

template <class S>
class Avx2RealPlan {
public:
    using T = typename S::T;
    using V = typename S::V;
    static constexpr size_t W = S::W;
    static constexpr size_t kSkew = ComplexKernel<S>::kSkew;

    explicit Avx2RealPlan(int order) : mN(size_t{1} << order), mM(mN / 2), mHalf(order > 0 ? order - 1 : 0) {
        const size_t quarter = mM / 2;
        mV.Allocate(2 * (quarter + W + 1));
        T* vr = mV.Data();
        T* vi = vr + quarter + W + 1;
        for (size_t k = 0; k <= quarter && mM >= 2; ++k) {
            T wr, wi;
            detail::UnitRoot(static_cast<long long>(k), static_cast<long long>(mN), &wr, &wi);
            vr[k] = wi * T(0.5);  // v = -i w / 2
            vi[k] = -wr * T(0.5);
        }
        mVi = vi;
    }

    std::size_t WorkBufferBytes() const { return (2 * (mM + kSkew) + mHalf.WorkElements()) * sizeof(T); }

    void Forward(const T* in, T* out, void* work) const {
        if (mN == 1) {
            const T x = in[0];
            out[0] = x;
            out[1] = 0;
            out[2] = 0;
            return;
        }
        T* Zr = static_cast<T*>(work);
        T* Zi = Zr + mM + kSkew;
        mHalf.RunFromInterleaved(in, Zr, Zi, Zi + mM + kSkew);
        Post(Zr, Zi, out);
    }

    void Inverse(const T* in, T* out, void* work) const {
        if (mN == 1) {
            out[0] = in[0];
            return;
        }
        T* Zr = static_cast<T*>(work);
        T* Zi = Zr + mM + kSkew;
        Pre(in, Zr, Zi);
        mHalf.RunToSwappedInterleaved(Zi, Zr, out, Zi + mM + kSkew);
    }

private:
    void Post(const T* Zr, const T* Zi, T* out) const {
        const T* vr = mV.Data();
        const T* vi = mVi;
        const T z0r = Zr[0], z0i = Zi[0];
        out[0] = z0r + z0i;
        out[1] = 0;
        out[2 * mM] = z0r - z0i;
        out[2 * mM + 1] = 0;
        const size_t half = mM / 2;
        size_t k = 1;
        // Vector blocks k ... k + W - 1 whose partners M - k lie strictly above them.
        const V h = S::Set1(T(0.5));
        for (; k + W - 1 < half; k += W) {
            const size_t j = mM - k - (W - 1);  // lowest partner index in this block
            const V ar = S::Load(Zr + k), ai = S::Load(Zi + k);
            const V br = S::Reverse(S::Load(Zr + j));
            const V bi = S::Reverse(S::Load(Zi + j));  // conj: subtract instead of add below
            const V sr = S::Mul(h, S::Add(ar, br)), si = S::Mul(h, S::Sub(ai, bi));
            const V dr = S::Sub(ar, br), di = S::Add(ai, bi);
            const V wr = S::Load(vr + k), wi = S::Load(vi + k);
            const V tr = S::FMSub(wr, dr, S::Mul(wi, di));
            const V ti = S::FMAdd(wr, di, S::Mul(wi, dr));
            S::StoreInterleaved(out + 2 * k, S::Add(sr, tr), S::Add(si, ti));
            S::StoreInterleaved(out + 2 * j, S::Reverse(S::Sub(sr, tr)), S::Reverse(S::Sub(ti, si)));
        }
        for (; k <= half; ++k) {
            const size_t j = mM - k;
            const T ar = Zr[k], ai = Zi[k], br = Zr[j], bi = -Zi[j];
            const T sr = T(0.5) * (ar + br), si = T(0.5) * (ai + bi);
            const T dr = ar - br, di = ai - bi;
            const T tr = vr[k] * dr - vi[k] * di;
            const T ti = vr[k] * di + vi[k] * dr;
            out[2 * k] = sr + tr;
            out[2 * k + 1] = si + ti;
            out[2 * j] = sr - tr;
            out[2 * j + 1] = ti - si;
        }
    }

    void Pre(const T* in, T* Zr, T* Zi) const {
        const T* vr = mV.Data();
        const T* vi = mVi;
        const T x0 = in[0], xm = in[2 * mM];
        Zr[0] = x0 + xm;
        Zi[0] = x0 - xm;
        const size_t half = mM / 2;
        size_t k = 1;
        const V two = S::Set1(T(2)), mtwo = S::Set1(T(-2));
        for (; k + W - 1 < half; k += W) {
            const size_t j = mM - k - (W - 1);
            V xkr, xki, xjr, xji;
            S::LoadDeinterleaved(in + 2 * k, &xkr, &xki);
            S::LoadDeinterleaved(in + 2 * j, &xjr, &xji);
            xjr = S::Reverse(xjr);
            xji = S::Reverse(xji);
            const V sr = S::Add(xkr, xjr), si = S::Sub(xki, xji);
            const V dr = S::Sub(xkr, xjr), di = S::Add(xki, xji);
            const V ur = S::Mul(two, S::Load(vr + k)), ui = S::Mul(mtwo, S::Load(vi + k));
            const V tr = S::FMSub(ur, dr, S::Mul(ui, di));
            const V ti = S::FMAdd(ur, di, S::Mul(ui, dr));
            S::Store(Zr + k, S::Add(sr, tr));
            S::Store(Zi + k, S::Add(si, ti));
            S::Store(Zr + j, S::Reverse(S::Sub(sr, tr)));
            S::Store(Zi + j, S::Reverse(S::Sub(ti, si)));
        }
        for (; k <= half; ++k) {
            const size_t j = mM - k;
            const T xkr = in[2 * k], xki = in[2 * k + 1];
            const T xjr = in[2 * j], xji = in[2 * j + 1];
            const T sr = xkr + xjr, si = xki - xji;
            const T dr = xkr - xjr, di = xki + xji;
            const T ur = T(2) * vr[k], ui = T(-2) * vi[k];
            const T tr = ur * dr - ui * di;
            const T ti = ur * di + ui * dr;
            Zr[k] = sr + tr;
            Zi[k] = si + ti;
            Zr[j] = sr - tr;
            Zi[j] = ti - si;
        }
    }

    size_t mN;
    size_t mM;
    ComplexKernel<S> mHalf;
    AlignedArray<T> mV;
    const T* mVi = nullptr;
};

// Plain-function tables over the plans above; the plan classes the library hands out wrap them
// in fft_kernel_dispatch.cpp.
template <class P, typename T>
constexpr detail::ComplexOps<T> MakeComplexOps() {
    return {
        [](int order) -> void* { return new P(order); },
        [](void* plan) { delete static_cast<P*>(plan); },
        [](const void* plan) { return static_cast<const P*>(plan)->WorkBufferBytes(); },
        [](const void* plan, const T* ir, const T* ii, T* orr, T* oi, void* work) {
            static_cast<const P*>(plan)->Forward(ir, ii, orr, oi, work);
        },
        [](const void* plan, const T* ir, const T* ii, T* orr, T* oi, void* work) {
            static_cast<const P*>(plan)->Inverse(ir, ii, orr, oi, work);
        },
    };
}

template <class P, typename T>
constexpr detail::RealOps<T> MakeRealOps() {
    return {
        [](int order) -> void* { return new P(order); },
        [](void* plan) { delete static_cast<P*>(plan); },
        [](const void* plan) { return static_cast<const P*>(plan)->WorkBufferBytes(); },
        [](const void* plan, const T* in, T* out, void* work) { static_cast<const P*>(plan)->Forward(in, out, work); },
        [](const void* plan, const T* in, T* out, void* work) { static_cast<const P*>(plan)->Inverse(in, out, work); },
    };
}

// Constant-initialised, so usable from any static initialiser.
constexpr detail::ComplexOps<float> kComplexF32 = MakeComplexOps<Avx2ComplexPlan<F32>, float>();
constexpr detail::ComplexOps<double> kComplexF64 = MakeComplexOps<Avx2ComplexPlan<F64>, double>();
constexpr detail::RealOps<float> kRealF32 = MakeRealOps<Avx2RealPlan<F32>, float>();
constexpr detail::RealOps<double> kRealF64 = MakeRealOps<Avx2RealPlan<F64>, double>();

}  // namespace

const detail::ComplexOps<float>& ComplexOps(float) {
    return kComplexF32;
}
const detail::ComplexOps<double>& ComplexOps(double) {
    return kComplexF64;
}
const detail::RealOps<float>& RealOps(float) {
    return kRealF32;
}
const detail::RealOps<double>& RealOps(double) {
    return kRealF64;
}

}  // namespace dsp::fft::avx2
