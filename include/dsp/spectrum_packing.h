#pragma once
// Two real channels through one complex transform. With z = a + i*b for real signals a (channel
// ch) and b (channel ch + 1), Z[k] = A[k] + i*B[k], and the conjugate symmetry of A and B separates
// them: A[k] = (Z[k] + conj Z[n-k]) / 2, B[k] = (Z[k] - conj Z[n-k]) / 2i.

#include "dsp/kestadsp_export.h"

namespace dsp {

// Writes all n bins of A into outRe[ch]/outIm[ch] and of B into outRe[ch+1]/outIm[ch+1].
// Returns n/2.
KESTADSP_API int SplitComplexSpectrumToLR(float* re, float* im, int ch, float** outRe, float** outIm, int n);
KESTADSP_API int SplitComplexSpectrumToLR(double* re, double* im, int ch, double** outRe, double** outIm, int n);

// The inverse packing: builds the n-point spectrum of a + i*b from bins 0 ... n/2 of channels ch
// and ch + 1, so one inverse complex transform yields a in the real and b in the imaginary part.
KESTADSP_API void CombineLRSpectrumToComplex(int ch, float** inRe, float** inIm, float* outRe, float* outIm, int n);

}  // namespace dsp
