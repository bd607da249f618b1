// AVX2+FMA FFT kernels, compiled with -mavx2 -mfma and chosen at run time.
//
// Same algorithm as the portable kernels (Stockham autosort, radix-4 decimation-in-frequency
// passes, a twiddle-free radix-2 pass last when the order is odd, inverse by swapping real and
// imaginary parts), with every pass written for 8-float / 4-double vectors on the split arrays:
//  - pass 0 (stride 1) runs over p, with twiddles stored per block of vectors, and transposes its
//    four outputs in registers so that y[4p + k] is written with whole-vector stores;
//  - pass 1 in float (stride 4) covers two values of p per vector, with twiddles stored already
//    repeated over each half, and swaps 128-bit halves to store;
//  - later passes (stride of at least a vector) broadcast the three twiddles of each p.
// Sizes too small for whole vectors (below 32 floats or 16 doubles) run a scalar pass.
//
// Nothing here may be shared with other translation units: all code is in an anonymous namespace
// and uses no standard-library templates; only the four factories are visible.

#include <immintrin.h>

#include <cstddef>
#include <cstring>

#include "dsp/fft/fft_kernel_internal.h"

#if defined(_MSC_VER) && !defined(__clang__)
#define KESTA_INLINE __forceinline
#else
#define KESTA_INLINE inline __attribute__((always_inline))
#endif

namespace dsp::fft::avx2 {
namespace {

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
KESTA_INLINE void Twiddle(typename S::V& r, typename S::V& im, typename S::V wr,
                          typename S::V wi) {
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
void PassFirst(size_t m, const typename S::T* tw, const typename S::T* xr,
               const typename S::T* xi, typename S::T* yr, typename S::T* yi) {
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
void PassStride4(size_t m, const float* tw, const float* xr, const float* xi, float* yr,
                 float* yi) {
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
void PassGeneric(size_t m, size_t s, const typename S::T* tw, const typename S::T* xr,
                 const typename S::T* xi, typename S::T* yr, typename S::T* yi) {
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

// Last radix-4 pass: m = 1, s = N/4, no twiddles.
template <class S>
void PassLast4(size_t s, const typename S::T* xr, const typename S::T* xi, typename S::T* yr,
               typename S::T* yi) {
    for (size_t j = 0; j < s; j += S::W) {
        Quad<S> q;
        for (size_t k = 0; k < 4; ++k) {
            q.r[k] = S::Load(xr + j + k * s);
            q.i[k] = S::Load(xi + j + k * s);
        }
        Butterfly<S>(q);
        for (size_t k = 0; k < 4; ++k) {
            S::Store(yr + j + k * s, q.r[k]);
            S::Store(yi + j + k * s, q.i[k]);
        }
    }
}

// Last radix-2 pass of an odd order: m = 1, s = N/2.
template <class S>
void PassLast2(size_t s, const typename S::T* xr, const typename S::T* xi, typename S::T* yr,
               typename S::T* yi) {
    for (size_t j = 0; j < s; j += S::W) {
        const typename S::V ar = S::Load(xr + j), ai = S::Load(xi + j);
        const typename S::V br = S::Load(xr + j + s), bi = S::Load(xi + j + s);
        S::Store(yr + j, S::Add(ar, br));
        S::Store(yi + j, S::Add(ai, bi));
        S::Store(yr + j + s, S::Sub(ar, br));
        S::Store(yi + j + s, S::Sub(ai, bi));
    }
}

// Scalar pass for sizes below a vector: m butterflies of stride s (radix 4), or the radix-2 pass.
template <typename T>
void PassScalar(int radix, size_t m, size_t s, const T* tw, const T* xr, const T* xi, T* yr,
                T* yi) {
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

enum class PassKind { First, Stride4, Generic, Last4, Last2, Scalar };

struct Pass {
    PassKind kind;
    int radix;
    size_t m;
    size_t s;
    size_t tw;  // offset into the twiddle table, or kNoTwiddle
};

constexpr size_t kNoTwiddle = ~size_t{0};
constexpr int kMaxPasses = 32;

template <class S>
class ComplexKernel {
public:
    using T = typename S::T;

    explicit ComplexKernel(int order) : mN(size_t{1} << order) {
        // The vector passes need m >= W in pass 0 and, in float, m >= 2 in the stride-4 pass.
        const bool vector = mN >= 4 * S::W;
        size_t total = 0;
        size_t s = 1;
        size_t n = mN;
        // First count the twiddle space, then fill.
        while (n >= 4) {
            const size_t m = n / 4;
            Pass pass{PassKind::Scalar, 4, m, s, kNoTwiddle};
            if (vector) {
                if (m == 1)
                    pass.kind = PassKind::Last4;
                else if (s == 1)
                    pass.kind = PassKind::First;
                else if (s < S::W)
                    pass.kind = PassKind::Stride4;
                else
                    pass.kind = PassKind::Generic;
            }
            if (m > 1) {
                pass.tw = total;
                const size_t count = pass.kind == PassKind::Stride4 ? 6 * m * 4 : 6 * m;
                total += (count + 15) & ~size_t{15};
            }
            mPasses[mCount++] = pass;
            s *= 4;
            n /= 4;
        }
        if (n == 2) mPasses[mCount++] = Pass{vector ? PassKind::Last2 : PassKind::Scalar, 2, 1, s, kNoTwiddle};
        mTw.Allocate(total);
        for (int i = 0; i < mCount; ++i) FillTwiddles(mPasses[i]);
    }

    size_t WorkElements() const { return 4 * mN; }

    void Run(const T* ir, const T* ii, T* orr, T* oi, T* work) const {
        if (mCount == 0) {
            const T r = ir[0], i = ii[0];
            orr[0] = r;
            oi[0] = i;
            return;
        }
        T* aR = work;
        T* aI = work + mN;
        T* bR = work + 2 * mN;
        T* bI = work + 3 * mN;
        const bool inPlace = ir == orr || ii == oi;
        const T* sr = ir;
        const T* si = ii;
        for (int i = 0; i < mCount; ++i) {
            T* dr;
            T* di;
            // The last pass lands in the output; earlier ones alternate with the work buffer. A
            // pass cannot run in place, so an in-place first pass goes to a second work area.
            if (((mCount - 1 - i) & 1) == 0) {
                dr = orr;
                di = oi;
                if (i == 0 && inPlace) {
                    dr = bR;
                    di = bI;
                }
            } else {
                dr = aR;
                di = aI;
            }
            RunPass(mPasses[i], sr, si, dr, di);
            sr = dr;
            si = di;
        }
        if (sr != orr) {
            std::memcpy(orr, sr, mN * sizeof(T));
            std::memcpy(oi, si, mN * sizeof(T));
        }
    }

private:
    void RunPass(const Pass& pass, const T* xr, const T* xi, T* yr, T* yi) const {
        const T* tw = pass.tw == kNoTwiddle ? nullptr : mTw.Data() + pass.tw;
        switch (pass.kind) {
            case PassKind::First:
                PassFirst<S>(pass.m, tw, xr, xi, yr, yi);
                break;
            case PassKind::Stride4:
                if constexpr (S::W == 8) PassStride4(pass.m, tw, xr, xi, yr, yi);
                break;
            case PassKind::Generic:
                PassGeneric<S>(pass.m, pass.s, tw, xr, xi, yr, yi);
                break;
            case PassKind::Last4:
                PassLast4<S>(pass.s, xr, xi, yr, yi);
                break;
            case PassKind::Last2:
                PassLast2<S>(pass.s, xr, xi, yr, yi);
                break;
            case PassKind::Scalar:
                PassScalar<T>(pass.radix, pass.m, pass.s, tw, xr, xi, yr, yi);
                break;
        }
    }

    void FillTwiddles(const Pass& pass) {
        if (pass.tw == kNoTwiddle) return;
        T* tw = mTw.Data() + pass.tw;
        const size_t m = pass.m;
        const long long n = static_cast<long long>(4 * m);
        for (size_t p = 0; p < m; ++p) {
            T w[6];
            for (int k = 1; k <= 3; ++k)
                detail::UnitRoot(k * static_cast<long long>(p), n, &w[2 * (k - 1)], &w[2 * k - 1]);
            switch (pass.kind) {
                case PassKind::First: {
                    const size_t block = p / S::W, lane = p % S::W;
                    for (int c = 0; c < 6; ++c) tw[block * 6 * S::W + c * S::W + lane] = w[c];
                    break;
                }
                case PassKind::Stride4: {
                    const size_t block = p / 2, half = p % 2;
                    for (int c = 0; c < 6; ++c)
                        for (int l = 0; l < 4; ++l) tw[block * 48 + c * 8 + half * 4 + l] = w[c];
                    break;
                }
                default:
                    for (int c = 0; c < 6; ++c) tw[6 * p + c] = w[c];
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
class Avx2ComplexPlan final : public ComplexPlan<typename S::T> {
public:
    using T = typename S::T;
    explicit Avx2ComplexPlan(int order) : mOrder(order), mKernel(order) {}
    int Order() const override { return mOrder; }
    std::size_t WorkBufferBytes() const override { return mKernel.WorkElements() * sizeof(T); }
    void Forward(const T* inRe, const T* inIm, T* outRe, T* outIm, void* work) const override {
        mKernel.Run(inRe, inIm, outRe, outIm, static_cast<T*>(work));
    }
    void Inverse(const T* inRe, const T* inIm, T* outRe, T* outIm, void* work) const override {
        mKernel.Run(inIm, inRe, outIm, outRe, static_cast<T*>(work));
    }

private:
    int mOrder;
    ComplexKernel<S> mKernel;
};

// ---------------------------------------------------------------------------------------------
// Real transforms: N = 2M points through the M-point complex transform of z[n] = x[2n] + i x[2n+1]
// and the split step (see the portable kernel for the formulas). The split step pairs bins k and
// M - k: a vector of k ascending meets a reversed vector of M - k descending.

template <class S>
class Avx2RealPlan final : public RealPlan<typename S::T> {
public:
    using T = typename S::T;
    using V = typename S::V;
    static constexpr size_t W = S::W;

    explicit Avx2RealPlan(int order)
        : mOrder(order), mN(size_t{1} << order), mM(mN / 2), mHalf(order > 0 ? order - 1 : 0) {
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

    int Order() const override { return mOrder; }
    std::size_t WorkBufferBytes() const override {
        return (4 * mM + mHalf.WorkElements()) * sizeof(T);
    }

    void Forward(const T* in, T* out, void* work) const override {
        if (mN == 1) {
            const T x = in[0];
            out[0] = x;
            out[1] = 0;
            out[2] = 0;
            return;
        }
        T* zr = static_cast<T*>(work);
        T* zi = zr + mM;
        T* Zr = zi + mM;
        T* Zi = Zr + mM;
        T* cw = Zi + mM;
        Deinterleave(in, zr, zi);
        mHalf.Run(zr, zi, Zr, Zi, cw);
        Post(Zr, Zi, out);
    }

    void Inverse(const T* in, T* out, void* work) const override {
        if (mN == 1) {
            out[0] = in[0];
            return;
        }
        T* Zr = static_cast<T*>(work);
        T* Zi = Zr + mM;
        T* zr = Zi + mM;
        T* zi = zr + mM;
        T* cw = zi + mM;
        Pre(in, Zr, Zi);
        mHalf.Run(Zi, Zr, zi, zr, cw);
        Interleave(zr, zi, out);
    }

private:
    void Deinterleave(const T* in, T* zr, T* zi) const {
        size_t n = 0;
        for (; n + W <= mM; n += W) {
            V r, i;
            S::LoadDeinterleaved(in + 2 * n, &r, &i);
            S::Store(zr + n, r);
            S::Store(zi + n, i);
        }
        for (; n < mM; ++n) {
            zr[n] = in[2 * n];
            zi[n] = in[2 * n + 1];
        }
    }

    void Interleave(const T* zr, const T* zi, T* out) const {
        size_t n = 0;
        for (; n + W <= mM; n += W) S::StoreInterleaved(out + 2 * n, S::Load(zr + n), S::Load(zi + n));
        for (; n < mM; ++n) {
            out[2 * n] = zr[n];
            out[2 * n + 1] = zi[n];
        }
    }

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

    int mOrder;
    size_t mN;
    size_t mM;
    ComplexKernel<S> mHalf;
    AlignedArray<T> mV;
    const T* mVi = nullptr;
};

}  // namespace

ComplexPlan<float>* NewComplexPlan(int order, float) { return new Avx2ComplexPlan<F32>(order); }
ComplexPlan<double>* NewComplexPlan(int order, double) { return new Avx2ComplexPlan<F64>(order); }
RealPlan<float>* NewRealPlan(int order, float) { return new Avx2RealPlan<F32>(order); }
RealPlan<double>* NewRealPlan(int order, double) { return new Avx2RealPlan<F64>(order); }

}  // namespace dsp::fft::avx2
