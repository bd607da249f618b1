#pragma once
// A take for the noise and hiss reduction tests: seeded white noise throughout, tones from the end
// of a noise-only lead-in on, and measures of what processing did to each.

#include <cstdint>
#include <vector>

#include "audio_fixtures.h"

namespace kesta_test {

struct NoisyTake {
    Audio noisy;         // what kesta is given
    Audio tones;         // the tones alone (silent during the lead-in)
    int64_t leadIn = 0;  // frames of noise alone
};

// Stereo, 44.1 kHz, `seconds` long, white noise of RMS `noiseRms` (seeded, a different stream per
// channel), tones after `leadInSeconds`: 440 Hz (0.2) and 1500 Hz (0.1) in channel 1, 660 Hz (0.2)
// and 2500 Hz (0.1) in channel 2. Float files hold the values exactly; integer files are quantised.
NoisyTake MakeNoisyTake(int format, double seconds = 4.0, double leadInSeconds = 1.5, double noiseRms = 0.01);

// The tone frequencies of each channel of MakeNoisyTake.
std::vector<double> ToneFrequencies(int channel);

// RMS in dB of x[from ... to-1].
double RmsDb(const std::vector<double>& x, int64_t from, int64_t to);

// The sinusoid at `hz` in x[from ... to-1], by correlation with a cosine and a sine.
struct ToneFit {
    double amplitude = 0.0;
    double phase = 0.0;  // radians, of A·cos(ωn + phase)
};
ToneFit FitTone(const std::vector<double>& x, int rate, double hz, int64_t from, int64_t to);
// a - b wrapped into [-pi, pi].
double PhaseDifference(double a, double b);

}  // namespace kesta_test
