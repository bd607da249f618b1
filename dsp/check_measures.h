#pragma once
// The measurement kit shared by the library's self-checks and the test suite (not exported): the
// printf-style detail line, levels in dB, RMS and peak, the largest difference of two signals, a
// tone's amplitude, and deterministic noise. Sums run in long double; a NaN anywhere makes a
// result NaN, so a bound on it fails.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#if defined(__GNUC__) || defined(__clang__)
#define KESTADSP_PRINTF_FORMAT(formatIndex, firstArgument) __attribute__((format(printf, formatIndex, firstArgument)))
#else
#define KESTADSP_PRINTF_FORMAT(formatIndex, firstArgument)
#endif

namespace dsp::checks {

// printf into a string of whatever length the text needs.
std::string Format(const char* format, ...) KESTADSP_PRINTF_FORMAT(1, 2);

// 20 log10(x); -inf for 0.
double ToDb(double linear);

// Root mean square; 0 for an empty span.
double Rms(std::span<const float> x);
// Largest |x[n]|.
double Peak(std::span<const float> x);
// Largest |a[n] - b[n]| over the common length.
double MaxAbsDiff(std::span<const float> a, std::span<const float> b);

// Amplitude (peak, not RMS) of the sinusoid of `frequency` in x: a least-squares fit of
// a sin + b cos at that frequency, weighted by a Blackman-Harris window over x. A pure tone at the
// frequency is measured exactly on any length, whatever its phase; other components leak in only
// through the window's sidelobes (below -92 dB from about 4 / duration Hz away), so a tone can be
// measured beside a much louder one. 0 for fewer than 2 samples, at DC and at Nyquist.
double LevelAt(std::span<const float> x, double frequency, double sampleRate);

// Uniform noise in [-amplitude, amplitude) from a fixed linear congruential sequence started at
// `seed`: the same values on every platform.
std::vector<float> UniformNoise(std::size_t frames, uint32_t seed, double amplitude);

}  // namespace dsp::checks
