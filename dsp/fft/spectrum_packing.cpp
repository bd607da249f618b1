#include "dsp/spectrum_packing.h"

#include <type_traits>

#include "dsp/fft/spectrum_packing_internal.h"

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define KESTADSP_PACKING_SSE2 1
#endif

namespace dsp {

namespace {

#ifdef KESTADSP_PACKING_SSE2
// Four bins k ... k + 3 at a time, with their partners n − k ... n − k − 3 loaded and stored in
// reverse. The same operations in the same order as the scalar loops: the same bits.

inline __m128 Reversed(__m128 v) {
    return _mm_shuffle_ps(v, v, _MM_SHUFFLE(0, 1, 2, 3));
}

inline __m128 Negated(__m128 v) {
    return _mm_xor_ps(v, _mm_set1_ps(-0.0f));
}

// Bins 1 ... returns the first bin left for the scalar loop.
template <bool kWriteMirror>
int SplitFourAtATime(const float* re, const float* im, float* aRe, float* aIm, float* bRe, float* bIm, int n) {
    const int h = n / 2;
    const __m128 half = _mm_set1_ps(0.5f);
    int k = 1;
    for (; k + 4 <= h; k += 4) {
        const int j = n - k - 3;
        const __m128 reK = _mm_loadu_ps(re + k);
        const __m128 imK = _mm_loadu_ps(im + k);
        const __m128 reJ = Reversed(_mm_loadu_ps(re + j));
        const __m128 imJ = Reversed(_mm_loadu_ps(im + j));
        const __m128 ar = _mm_add_ps(_mm_mul_ps(reK, half), _mm_mul_ps(reJ, half));
        const __m128 ai = _mm_sub_ps(_mm_mul_ps(imK, half), _mm_mul_ps(imJ, half));
        const __m128 br = _mm_add_ps(_mm_mul_ps(imK, half), _mm_mul_ps(imJ, half));
        const __m128 bi = _mm_sub_ps(_mm_mul_ps(reJ, half), _mm_mul_ps(reK, half));
        _mm_storeu_ps(aRe + k, ar);
        _mm_storeu_ps(aIm + k, ai);
        _mm_storeu_ps(bRe + k, br);
        _mm_storeu_ps(bIm + k, bi);
        if constexpr (kWriteMirror) {
            _mm_storeu_ps(aRe + j, Reversed(ar));
            _mm_storeu_ps(aIm + j, Reversed(Negated(ai)));
            _mm_storeu_ps(bRe + j, Reversed(br));
            _mm_storeu_ps(bIm + j, Reversed(Negated(bi)));
        }
    }
    return k;
}

int CombineFourAtATime(const float* aRe, const float* aIm, const float* bRe, const float* bIm, float* outRe,
                       float* outIm, int n) {
    const int h = n / 2;
    int k = 1;
    for (; k + 4 <= h; k += 4) {
        const int j = n - k - 3;
        const __m128 ar = _mm_loadu_ps(aRe + k);
        const __m128 ai = _mm_loadu_ps(aIm + k);
        const __m128 br = _mm_loadu_ps(bRe + k);
        const __m128 bi = _mm_loadu_ps(bIm + k);
        _mm_storeu_ps(outRe + k, _mm_sub_ps(ar, bi));
        _mm_storeu_ps(outRe + j, Reversed(_mm_add_ps(ar, bi)));
        _mm_storeu_ps(outIm + k, _mm_add_ps(ai, br));
        _mm_storeu_ps(outIm + j, Reversed(_mm_sub_ps(br, ai)));
    }
    return k;
}
#endif

// Bins above n/2 mirror the lower ones; the streaming engines read only bins 0 ... n/2 and skip
// writing the mirror.
template <typename T, bool kWriteMirror>
int SplitSpectrum(const T* re, const T* im, int ch, T** outRe, T** outIm, int n) {
    const int h = n / 2;
    T* aRe = outRe[ch];
    T* aIm = outIm[ch];
    T* bRe = outRe[ch + 1];
    T* bIm = outIm[ch + 1];
    // DC and Nyquist of a real signal are real: a's sit in the real part of Z, b's in the imaginary.
    aRe[0] = re[0];
    bRe[0] = im[0];
    aIm[0] = 0;
    bIm[0] = 0;
    aRe[h] = re[h];
    bRe[h] = im[h];
    aIm[h] = 0;
    bIm[h] = 0;
    if (h < 2) return h;
    const T half = T(0.5);
    int k = 1;
#ifdef KESTADSP_PACKING_SSE2
    // In place (an output array that is also an input) stays correct: a block reads all its bins
    // before it writes them, and no other block touches them.
    if constexpr (std::is_same_v<T, float>) k = SplitFourAtATime<kWriteMirror>(re, im, aRe, aIm, bRe, bIm, n);
#endif
    for (; k < h; ++k) {
        const int j = n - k;
        // Each half is taken before the sum, in the element type.
        const T ar = re[k] * half + re[j] * half;
        const T ai = im[k] * half - im[j] * half;
        const T br = im[k] * half + im[j] * half;
        const T bi = re[j] * half - re[k] * half;
        aRe[k] = ar;
        aIm[k] = ai;
        bRe[k] = br;
        bIm[k] = bi;
        if constexpr (kWriteMirror) {
            aRe[j] = ar;
            aIm[j] = -ai;
            bRe[j] = br;
            bIm[j] = -bi;
        }
    }
    return h;
}

}  // namespace

int SplitComplexSpectrumToLR(float* re, float* im, int ch, float** outRe, float** outIm, int n) {
    return SplitSpectrum<float, true>(re, im, ch, outRe, outIm, n);
}

int SplitComplexSpectrumToLR(double* re, double* im, int ch, double** outRe, double** outIm, int n) {
    return SplitSpectrum<double, true>(re, im, ch, outRe, outIm, n);
}

namespace detail {

int SplitToHalfSpectra(const float* re, const float* im, int ch, float** outRe, float** outIm, int n) {
    return SplitSpectrum<float, false>(re, im, ch, outRe, outIm, n);
}

}  // namespace detail

void CombineLRSpectrumToComplex(int ch, float** inRe, float** inIm, float* outRe, float* outIm, int n) {
    const int h = n / 2;
    const float* aRe = inRe[ch];
    const float* aIm = inIm[ch];
    const float* bRe = inRe[ch + 1];
    const float* bIm = inIm[ch + 1];
    outRe[0] = aRe[0];
    outIm[0] = bRe[0];
    outRe[h] = aRe[h];
    outIm[h] = bRe[h];
    if (h < 2) return;
    int k = 1;
#ifdef KESTADSP_PACKING_SSE2
    k = CombineFourAtATime(aRe, aIm, bRe, bIm, outRe, outIm, n);
#endif
    for (; k < h; ++k) {
        const int j = n - k;
        outRe[k] = aRe[k] - bIm[k];
        outRe[j] = aRe[k] + bIm[k];
        outIm[k] = aIm[k] + bRe[k];
        outIm[j] = bRe[k] - aIm[k];
    }
}

}  // namespace dsp
