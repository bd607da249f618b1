#pragma once
// The K-weighting of the loudness meter (not exported): its design for a sample rate and the loop
// that runs it over a stretch of samples.

#include "dsp/loudness.h"

namespace dsp::detail {

inline constexpr int kKStateSize = 6;

// The published 48 kHz stage carried to `sampleRate`: the stage is mapped back to its analogue
// prototype through the inverse bilinear transform (s = (1 - z^-1) / (1 + z^-1) at 48 kHz), the
// prototype is rescaled so that the natural frequency of its poles lands where the bilinear
// transform at the new rate puts it (tan(pi f0 / rate)), and it is mapped forward again.
Itu1770::Stage DesignKStage(const Itu1770::Stage& at48k, int sampleRate);

// The two stages for a rate: the high shelf, then the high-pass.
Itu1770::Stage KShelf(int sampleRate);
Itu1770::Stage KHighPass(int sampleRate);

// Runs `count` channels (1 or 2, interleaved for speed) through both stages over frames
// [begin, begin + n) and adds each output's square to squares[c]. state[c] holds kKStateSize
// values per channel (the last two inputs, shelf outputs and outputs).
void RunKWeighting(const Itu1770::Stage& shelf, const Itu1770::Stage& highPass, const float* const* x, int count,
                   int begin, int n, double* const* state, double* squares);

}  // namespace dsp::detail
