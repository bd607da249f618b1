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
// 10 log10(sum ref^2 / sum (test - ref)^2) over the common length; +inf when they are equal.
double SnrDb(std::span<const float> reference, std::span<const float> test);

// Amplitude (peak, not RMS) of the sinusoid of `frequency` in x: a least-squares fit of
// a sin + b cos at that frequency, weighted by a Blackman-Harris window over x. A pure tone at the
// frequency is measured exactly on any length; other components leak in only through the window's
// sidelobes (below -92 dB from about 4 / duration Hz away), so a tone can be measured beside a much
// louder one.
double LevelAt(std::span<const float> x, double frequency, double sampleRate);

// The lag d in [-maxLag, maxLag] maximising sum a[n] * b[n + d]: b lags a by d frames.
int CrossCorrelationLag(std::span<const float> a, std::span<const float> b, int maxLag);

}  // namespace kesta::test
