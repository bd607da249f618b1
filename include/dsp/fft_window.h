#pragma once
// Analysis windows for FFT frames.
//
// GetFFTWindow fills `out` with one of nine shapes (the low 8 bits of `flags`) or multiplies the
// existing contents by it. The window occupies `fraction` of the buffer, centred, with gain
// 1/fraction (rounded to float) so a shorter window keeps the same total weight.
//
// Flag bits:
//   0x100   complete the window from its computed rising half (the usual case)
//   0x200, 0x400  lay the window out over 2 x length samples, halves rearranged
//   0x800   replace each non-zero output element by its reciprocal (the resynthesis window)
//   0x1000  `out` holds float (otherwise double)
//   0x2000  marks a frequency-analysis window; no effect here
//   0x4000  multiply the existing contents of `out` by the window
// `attenuation` (dB) is read by the Kaiser shape 8 only. Returns false when the temporary buffer
// cannot be allocated, leaving `out` untouched.

#include "dsp/kestadsp_export.h"

namespace dsp {

enum FFTWindowShape : unsigned int {
    kWindowTriangular = 0,
    kWindowHann = 1,
    kWindowHamming = 2,
    kWindowBlackman = 3,
    kWindowWelch = 4,
    kWindowBlackmanHarris = 5,
    kWindowKaiser140 = 6,
    kWindowKaiser180 = 7,
    kWindowKaiser = 8,
};

inline constexpr unsigned int kWindowMirror = 0x100;
inline constexpr unsigned int kWindowDoubleLength = 0x200;
inline constexpr unsigned int kWindowDoubleLengthAlt = 0x400;
inline constexpr unsigned int kWindowReciprocal = 0x800;
inline constexpr unsigned int kWindowFloatOutput = 0x1000;
inline constexpr unsigned int kWindowAnalysisMark = 0x2000;
inline constexpr unsigned int kWindowMultiply = 0x4000;

KESTADSP_API bool GetFFTWindow(void* out, int length, double fraction, unsigned int flags, double attenuation);

}  // namespace dsp

// The frequency-analysis worker, whose window types map onto these shapes.
#include "dsp/frequency_analysis.h"
