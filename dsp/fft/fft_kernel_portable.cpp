// Portable FFT kernels: standard C++ written so that compilers vectorise the inner loops with
// whatever the baseline instruction set offers (SSE2 on x86-64, NEON on arm64).
//
// The complex transform is a Stockham autosort FFT: radix-4 decimation-in-frequency passes that
// ping-pong between the output and the work buffer, so no bit-reversal pass is needed, and a final
// twiddle-free radix-2 pass when the order is odd. Pass i has stride s = 4^i and m = N / (4 s)
// butterflies per stride; it reads x[q + s (p + k m)] and writes y[q + s (4 p + k)], so the
// innermost loop over q runs over unit-stride data, and the first pass (s = 1) runs over p.
//
// The inverse transform is the forward one with real and imaginary parts swapped on both sides:
// swapping the parts of z gives i conj(z), and F(i conj(x)) = i conj(F^-1(x)).

#include <cstddef>
#include <cstring>
#include <vector>

#include "dsp/fft/fft_kernel.h"
#include "dsp/fft/fft_kernel_internal.h"

namespace dsp::fft::portable {
namespace {

using std::size_t;

// One radix-4 butterfly on (a, b, c, d) = x[p], x[p + m], x[p + 2m], x[p + 3m]:
//   y0 = (a + c) + (b + d)
//   y1 = (a - c) - i (b - d)
//   y2 = (a + c) - (b + d)
//   y3 = (a - c) + i (b - d)
// The twiddled variants multiply y1, y2, y3 by w^p, w^2p, w^3p (w = exp(-2 pi i / 4m)).

template <typename T>
void Radix4FirstPass(size_t m, const T* __restrict tw, const T* __restrict xr, const T* __restrict xi, T* __restrict yr,
                     T* __restrict yi) {
    const T* __restrict w1r = tw;
    const T* __restrict w1i = tw + m;
    const T* __restrict w2r = tw + 2 * m;
    const T* __restrict w2i = tw + 3 * m;
    const T* __restrict w3r = tw + 4 * m;
    const T* __restrict w3i = tw + 5 * m;
    for (size_t p = 0; p < m; ++p) {
        const T ar = xr[p], ai = xi[p];
        const T br = xr[p + m], bi = xi[p + m];
        const T cr = xr[p + 2 * m], ci = xi[p + 2 * m];
        const T dr = xr[p + 3 * m], di = xi[p + 3 * m];
        const T apcr = ar + cr, apci = ai + ci, amcr = ar - cr, amci = ai - ci;
        const T bpdr = br + dr, bpdi = bi + di, bmdr = br - dr, bmdi = bi - di;
        const T t1r = amcr + bmdi, t1i = amci - bmdr;
        const T t2r = apcr - bpdr, t2i = apci - bpdi;
        const T t3r = amcr - bmdi, t3i = amci + bmdr;
        yr[4 * p] = apcr + bpdr;
        yi[4 * p] = apci + bpdi;
        yr[4 * p + 1] = t1r * w1r[p] - t1i * w1i[p];
        yi[4 * p + 1] = t1r * w1i[p] + t1i * w1r[p];
        yr[4 * p + 2] = t2r * w2r[p] - t2i * w2i[p];
        yi[4 * p + 2] = t2r * w2i[p] + t2i * w2r[p];
        yr[4 * p + 3] = t3r * w3r[p] - t3i * w3i[p];
        yi[4 * p + 3] = t3r * w3i[p] + t3i * w3r[p];
    }
}

template <typename T>
void Radix4Block(size_t s, T w1r, T w1i, T w2r, T w2i, T w3r, T w3i, const T* __restrict ar_, const T* __restrict ai_,
                 const T* __restrict br_, const T* __restrict bi_, const T* __restrict cr_, const T* __restrict ci_,
                 const T* __restrict dr_, const T* __restrict di_, T* __restrict y0r, T* __restrict y0i,
                 T* __restrict y1r, T* __restrict y1i, T* __restrict y2r, T* __restrict y2i, T* __restrict y3r,
                 T* __restrict y3i) {
    for (size_t q = 0; q < s; ++q) {
        const T ar = ar_[q], ai = ai_[q], br = br_[q], bi = bi_[q];
        const T cr = cr_[q], ci = ci_[q], dr = dr_[q], di = di_[q];
        const T apcr = ar + cr, apci = ai + ci, amcr = ar - cr, amci = ai - ci;
        const T bpdr = br + dr, bpdi = bi + di, bmdr = br - dr, bmdi = bi - di;
        const T t1r = amcr + bmdi, t1i = amci - bmdr;
        const T t2r = apcr - bpdr, t2i = apci - bpdi;
        const T t3r = amcr - bmdi, t3i = amci + bmdr;
        y0r[q] = apcr + bpdr;
        y0i[q] = apci + bpdi;
        y1r[q] = t1r * w1r - t1i * w1i;
        y1i[q] = t1r * w1i + t1i * w1r;
        y2r[q] = t2r * w2r - t2i * w2i;
        y2i[q] = t2r * w2i + t2i * w2r;
        y3r[q] = t3r * w3r - t3i * w3i;
        y3i[q] = t3r * w3i + t3i * w3r;
    }
}

template <typename T>
void Radix4BlockNoTwiddle(size_t s, const T* __restrict ar_, const T* __restrict ai_, const T* __restrict br_,
                          const T* __restrict bi_, const T* __restrict cr_, const T* __restrict ci_,
                          const T* __restrict dr_, const T* __restrict di_, T* __restrict y0r, T* __restrict y0i,
                          T* __restrict y1r, T* __restrict y1i, T* __restrict y2r, T* __restrict y2i, T* __restrict y3r,
                          T* __restrict y3i) {
    for (size_t q = 0; q < s; ++q) {
        const T ar = ar_[q], ai = ai_[q], br = br_[q], bi = bi_[q];
        const T cr = cr_[q], ci = ci_[q], dr = dr_[q], di = di_[q];
        const T apcr = ar + cr, apci = ai + ci, amcr = ar - cr, amci = ai - ci;
        const T bpdr = br + dr, bpdi = bi + di, bmdr = br - dr, bmdi = bi - di;
        y0r[q] = apcr + bpdr;
        y0i[q] = apci + bpdi;
        y1r[q] = amcr + bmdi;
        y1i[q] = amci - bmdr;
        y2r[q] = apcr - bpdr;
        y2i[q] = apci - bpdi;
        y3r[q] = amcr - bmdi;
        y3i[q] = amci + bmdr;
    }
}

// Pass with stride s >= 2 (or m == 1): groups of s unit-stride butterflies sharing twiddles.
template <typename T>
void Radix4Pass(size_t m, size_t s, const T* tw, const T* xr, const T* xi, T* yr, T* yi) {
    const size_t sm = s * m;
    if (m == 1) {
        Radix4BlockNoTwiddle(s, xr, xi, xr + sm, xi + sm, xr + 2 * sm, xi + 2 * sm, xr + 3 * sm, xi + 3 * sm, yr, yi,
                             yr + s, yi + s, yr + 2 * s, yi + 2 * s, yr + 3 * s, yi + 3 * s);
        return;
    }
    for (size_t p = 0; p < m; ++p) {
        const T* a_r = xr + s * p;
        const T* a_i = xi + s * p;
        T* y_r = yr + 4 * s * p;
        T* y_i = yi + 4 * s * p;
        Radix4Block(s, tw[p], tw[m + p], tw[2 * m + p], tw[3 * m + p], tw[4 * m + p], tw[5 * m + p], a_r, a_i, a_r + sm,
                    a_i + sm, a_r + 2 * sm, a_i + 2 * sm, a_r + 3 * sm, a_i + 3 * sm, y_r, y_i, y_r + s, y_i + s,
                    y_r + 2 * s, y_i + 2 * s, y_r + 3 * s, y_i + 3 * s);
    }
}

// Final radix-2 pass of an odd order: m = 1, so no twiddles.
template <typename T>
void Radix2LastPass(size_t s, const T* __restrict xr, const T* __restrict xi, T* __restrict yr, T* __restrict yi) {
    for (size_t q = 0; q < s; ++q) {
        const T ar = xr[q], ai = xi[q], br = xr[q + s], bi = xi[q + s];
        yr[q] = ar + br;
        yi[q] = ai + bi;
        yr[q + s] = ar - br;
        yi[q + s] = ai - bi;
    }
}

template <typename T>
class ComplexKernel {
public:
    explicit ComplexKernel(int order) : mN(size_t{1} << order) {
        size_t s = 1;
        size_t n = mN;
        while (n >= 4) {
            const size_t m = n / 4;
            Stage st{4, m, s, mTw.size()};
            if (m > 1) {
                mTw.resize(mTw.size() + 6 * m);
                T* tw = mTw.data() + st.tw;
                for (size_t p = 0; p < m; ++p) {
                    const long long nn = static_cast<long long>(n);
                    const long long pp = static_cast<long long>(p);
                    detail::UnitRoot(pp, nn, &tw[p], &tw[m + p]);
                    detail::UnitRoot(2 * pp, nn, &tw[2 * m + p], &tw[3 * m + p]);
                    detail::UnitRoot(3 * pp, nn, &tw[4 * m + p], &tw[5 * m + p]);
                }
            }
            mStages.push_back(st);
            s *= 4;
            n /= 4;
        }
        if (n == 2) mStages.push_back(Stage{2, 1, s, 0});
    }

    size_t Size() const { return mN; }
    // Two split areas of N complex values.
    size_t WorkElements() const { return 4 * mN; }

    void Run(const T* ir, const T* ii, T* orr, T* oi, T* work) const {
        const size_t count = mStages.size();
        if (count == 0) {
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
        for (size_t i = 0; i < count; ++i) {
            T* dr;
            T* di;
            // The last pass lands in the output; earlier ones alternate with the work buffer. A
            // pass cannot run in place, so an in-place first pass goes to a second work area.
            if (((count - 1 - i) & 1) == 0) {
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
            const Stage& st = mStages[i];
            if (st.radix == 2) {
                Radix2LastPass(st.s, sr, si, dr, di);
            } else if (st.s == 1 && st.m > 1) {
                Radix4FirstPass(st.m, mTw.data() + st.tw, sr, si, dr, di);
            } else {
                Radix4Pass(st.m, st.s, mTw.data() + st.tw, sr, si, dr, di);
            }
            sr = dr;
            si = di;
        }
        if (sr != orr) {
            std::memcpy(orr, sr, mN * sizeof(T));
            std::memcpy(oi, si, mN * sizeof(T));
        }
    }

private:
    struct Stage {
        int radix;
        size_t m;
        size_t s;
        size_t tw;  // offset of w^p, w^2p, w^3p (re and im, m values each) in mTw
    };
    size_t mN;
    std::vector<Stage> mStages;
    std::vector<T> mTw;
};

template <typename T>
class PortableComplexPlan final : public ComplexPlan<T> {
public:
    explicit PortableComplexPlan(int order) : mOrder(order), mKernel(order) {}
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
    ComplexKernel<T> mKernel;
};

// Real transforms of N = 2M points through one M-point complex transform of
// z[n] = x[2n] + i x[2n + 1]. With Z = F(z), A = Z[k], B = conj(Z[M - k]) and w = exp(-2 pi i/N):
//   X[k] = (A + B)/2 + w^k (A - B)/(2i),   X[M - k] = conj((A + B)/2 - w^k (A - B)/(2i)),
// and X[0], X[M] = Re Z[0] +- Im Z[0]. The inverse undoes this (twice over, so that the M-point
// inverse transform returns N x rather than M x).
template <typename T>
class PortableRealPlan final : public RealPlan<T> {
public:
    explicit PortableRealPlan(int order)
        : mOrder(order), mN(size_t{1} << order), mM(mN / 2), mHalf(order > 0 ? order - 1 : 0) {
        const size_t quarter = mM / 2;
        mVr.resize(quarter + 1);
        mVi.resize(quarter + 1);
        for (size_t k = 0; k <= quarter && mM >= 2; ++k) {
            T wr, wi;
            detail::UnitRoot(static_cast<long long>(k), static_cast<long long>(mN), &wr, &wi);
            // v = -i w / 2 for the forward step; the inverse uses u = i conj(w) = (wi, wr).
            mVr[k] = wi * T(0.5);
            mVi[k] = -wr * T(0.5);
        }
    }

    int Order() const override { return mOrder; }
    std::size_t WorkBufferBytes() const override { return (4 * mM + mHalf.WorkElements()) * sizeof(T); }

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
        mHalf.Run(Zi, Zr, zi, zr, cw);  // inverse through the swap of parts
        Interleave(zr, zi, out);
    }

private:
    void Deinterleave(const T* __restrict in, T* __restrict zr, T* __restrict zi) const {
        for (size_t n = 0; n < mM; ++n) {
            zr[n] = in[2 * n];
            zi[n] = in[2 * n + 1];
        }
    }

    void Interleave(const T* __restrict zr, const T* __restrict zi, T* __restrict out) const {
        for (size_t n = 0; n < mM; ++n) {
            out[2 * n] = zr[n];
            out[2 * n + 1] = zi[n];
        }
    }

    void Post(const T* __restrict Zr, const T* __restrict Zi, T* __restrict out) const {
        const T z0r = Zr[0], z0i = Zi[0];
        out[0] = z0r + z0i;
        out[1] = 0;
        out[2 * mM] = z0r - z0i;
        out[2 * mM + 1] = 0;
        const T half = T(0.5);
        for (size_t k = 1; k <= mM / 2; ++k) {
            const size_t j = mM - k;
            const T ar = Zr[k], ai = Zi[k], br = Zr[j], bi = -Zi[j];
            const T sr = half * (ar + br), si = half * (ai + bi);
            const T dr = ar - br, di = ai - bi;
            const T tr = mVr[k] * dr - mVi[k] * di;
            const T ti = mVr[k] * di + mVi[k] * dr;
            out[2 * k] = sr + tr;
            out[2 * k + 1] = si + ti;
            out[2 * j] = sr - tr;
            out[2 * j + 1] = ti - si;
        }
    }

    void Pre(const T* __restrict in, T* __restrict Zr, T* __restrict Zi) const {
        const T x0 = in[0], xm = in[2 * mM];
        Zr[0] = x0 + xm;
        Zi[0] = x0 - xm;
        for (size_t k = 1; k <= mM / 2; ++k) {
            const size_t j = mM - k;
            const T xkr = in[2 * k], xki = in[2 * k + 1];
            const T xjr = in[2 * j], xji = in[2 * j + 1];
            const T sr = xkr + xjr, si = xki - xji;
            const T dr = xkr - xjr, di = xki + xji;
            // u = i conj(w^k) = -2 (vr + i vi) rotated: ur = 2 vr, ui = -2 vi.
            const T ur = T(2) * mVr[k], ui = T(-2) * mVi[k];
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
    ComplexKernel<T> mHalf;
    std::vector<T> mVr;
    std::vector<T> mVi;
};

}  // namespace

ComplexPlan<float>* NewComplexPlan(int order, float) {
    return new PortableComplexPlan<float>(order);
}
ComplexPlan<double>* NewComplexPlan(int order, double) {
    return new PortableComplexPlan<double>(order);
}
RealPlan<float>* NewRealPlan(int order, float) {
    return new PortableRealPlan<float>(order);
}
RealPlan<double>* NewRealPlan(int order, double) {
    return new PortableRealPlan<double>(order);
}

}  // namespace dsp::fft::portable
