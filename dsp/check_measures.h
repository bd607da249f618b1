#pragma once
// Measurements and text shared by the library's self-checks (not exported): the printf-style
// detail line, a tone's amplitude, RMS and mean square of a stretch, and deterministic test noise.

#include <cstddef>
#include <cstdint>
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

// Amplitude of the tone of `frequency` in x[0 ... count) by least squares on sin and cos under a
// Blackman-Harris weight, which keeps components far from `frequency` out. Exact for a pure tone
// of that frequency; the result does not depend on where the tone's phase starts. count >= 2.
double ToneAmplitude(const float* x, std::size_t count, double frequency, double sampleRate);

// Mean of the squares of x[0 ... count), summed in double; count >= 1.
double MeanSquare(const float* x, std::size_t count);
// Square root of MeanSquare.
double Rms(const float* x, std::size_t count);

// Uniform noise in [-amplitude, amplitude) from a fixed linear congruential sequence started at
// `seed`: the same values on every platform.
std::vector<float> UniformNoise(std::size_t frames, uint32_t seed, double amplitude);

}  // namespace dsp::checks
