#pragma once
// Audio the tests make and check themselves. Integer files go through libsndfile's integer
// interface, so every sample is known exactly: a b-bit code c stands for c / 2^(b-1).

#include <sndfile.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace kesta_test {

struct Audio {
    int format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    int rate = 48000;
    std::vector<std::vector<double>> channels;  // full scale = 1.0
    std::string title;                          // the title tag, when not empty

    int64_t Frames() const { return channels.empty() ? 0 : int64_t(channels[0].size()); }
};

int IntegerBits(int format);  // 0 for float encodings
double Quantise(double x, int bits);
// offset + amplitude·sin(2π·hz·n/rate), quantised to `bits` (0: not quantised).
std::vector<double> Sine(int64_t frames, int rate, double hz, double amplitude, double offset, int bits);

// Stereo 16-bit WAV, 48 kHz, 1 s: a 1 kHz sine of 0.5; a 440 Hz sine of 0.25 on a DC offset of
// 0.25 with one spike to -0.75 at frame 1234.
Audio StereoTone16();
// 24-bit FLAC, 44.1 kHz, 0.5 s: a 997 Hz sine of 0.9, and silence.
Audio ToneAndSilence24Flac();

struct Levels {
    double peak = 0.0, rms = 0.0, mean = 0.0;
};
Levels MeasureLevels(const std::vector<double>& samples);
double Db(double linear);
double LargestDifference(const Audio& a, const Audio& b);  // max |a - b|, same shape

void WriteAudio(const std::filesystem::path& path, const Audio& audio);
Audio ReadAudio(const std::filesystem::path& path);

// For noise and hiss reduction: stereo, 44.1 kHz, seeded white noise of RMS 0.01 throughout,
// tones from `leadInSeconds` on (ToneFrequencies(c) at 0.2 and 0.1 in channel c).
struct NoisyTake {
    Audio noisy;  // what kesta is given
    Audio tones;  // the tones alone
    int64_t leadIn = 0;
};
NoisyTake MakeNoisyTake(int format, double seconds = 4.0, double leadInSeconds = 1.5);
std::vector<double> ToneFrequencies(int channel);
double RmsDb(const std::vector<double>& x, int64_t from, int64_t to);  // of x[from, to)

// The sinusoid A·cos(2π·hz·n/rate + phase) in x[from, to), by correlation.
struct ToneFit {
    double amplitude = 0.0, phase = 0.0;
};
ToneFit FitTone(const std::vector<double>& x, int rate, double hz, int64_t from, int64_t to);
double PhaseDifference(double a, double b);  // wrapped into [-π, π]

// For the equalisers: 32-bit float WAV with a sine of each of `hz` in every channel, at amplitude
// 0.2 / (c + 1) and phase hz / 1000 + c (a swapped or mixed channel shows).
Audio SineMix(int channels, int rate, double seconds, const std::vector<double>& hz);
// How the tone at `hz` changed from `in` to `out` over the middle half.
struct ToneChange {
    double db = 0.0, phase = 0.0;
};
ToneChange MeasureChange(const std::vector<double>& in, const std::vector<double>& out, int rate, double hz);

}  // namespace kesta_test
