#pragma once
// Measurements on test signals, all accumulated in double (or long double where sums are long).

#include <cstddef>
#include <span>

namespace kesta::test {

// 20 log10(x); -inf for 0.
double ToDb(double linear);

double Rms(std::span<const float> x);
double Peak(std::span<const float> x);
// max |a[n] - b[n]| over the common length.
double MaxAbsDiff(std::span<const float> a, std::span<const float> b);

// Amplitude (peak, not RMS) of the sinusoid of `frequency` in x: a least-squares fit of
// a sin + b cos at that frequency, weighted by a Blackman-Harris window over x. A pure tone at the
// frequency is measured exactly on any length; other components leak in only through the window's
// sidelobes (below -92 dB from about 4 / duration Hz away), so a tone can be measured beside a much
// louder one.
double LevelAt(std::span<const float> x, double frequency, double sampleRate);

}  // namespace kesta::test
