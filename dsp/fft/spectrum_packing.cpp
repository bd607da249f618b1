#include "dsp/spectrum_packing.h"

#include "dsp/fft/spectrum_packing_internal.h"

namespace dsp {

namespace {

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
    for (int k = 1; k < h; ++k) {
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
    for (int k = 1; k < h; ++k) {
        const int j = n - k;
        outRe[k] = aRe[k] - bIm[k];
        outRe[j] = aRe[k] + bIm[k];
        outIm[k] = aIm[k] + bRe[k];
        outIm[j] = bRe[k] - aIm[k];
    }
}

}  // namespace dsp
