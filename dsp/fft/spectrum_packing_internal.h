#pragma once
// The two-channel split for engines that read only bins 0 ... n/2 of each channel: the same
// arithmetic as SplitComplexSpectrumToLR, bit for bit, without writing the mirrored upper bins.

namespace dsp::detail {

int SplitToHalfSpectra(const float* re, const float* im, int ch, float** outRe, float** outIm, int n);

}  // namespace dsp::detail
