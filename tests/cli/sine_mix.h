#pragma once
// Steady sines for the equaliser tests: a file of a few tones, and what processing did to each.

#include <vector>

#include "audio_fixtures.h"

namespace kesta_test {

// `seconds` of 32-bit float WAV at `rate`: in every channel a sine of each frequency in `hz`,
// amplitude 0.2 / (channel + 1), phase hz / 1000 + channel radians (channels differ in level and
// phase, so a swapped or mixed channel shows).
Audio SineMix(int channels, int rate, double seconds, const std::vector<double>& hz);

// How a tone at `hz` changed from `in` to `out`, fitted over the middle half of the file.
struct ToneChange {
    double db = 0.0;     // level change
    double phase = 0.0;  // phase change, radians in [-pi, pi]
};
ToneChange MeasureChange(const std::vector<double>& in, const std::vector<double>& out, int rate, double hz);

// The largest |out - in| over all samples (the files must have the same shape).
double LargestDifference(const Audio& in, const Audio& out);

}  // namespace kesta_test
