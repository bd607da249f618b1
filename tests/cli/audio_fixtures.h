#pragma once
// Audio files the tests make and check themselves, through libsndfile's integer interface so
// that every sample of an integer file is known exactly: a b-bit code c stands for c / 2^(b-1).

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
    std::string title;                          // written as the file's title tag when not empty

    int64_t Frames() const { return channels.empty() ? 0 : int64_t(channels[0].size()); }
};

// Bits of an integer PCM encoding, 0 for float encodings.
int IntegerBits(int format);
// x rounded to the nearest b-bit code and clamped to the code range.
double Quantise(double x, int bits);

// A sine of `amplitude` at `hz`, plus `offset`, quantised to `bits` (0: not quantised).
std::vector<double> Sine(int64_t frames, int rate, double hz, double amplitude, double offset, int bits);

// Stereo 16-bit WAV, 48 kHz, 1 s. Channel 1: a 1 kHz sine of amplitude 0.5. Channel 2: a 440 Hz
// sine of amplitude 0.25 on a DC offset of 0.25, with one spike to -0.75 at frame 1234.
Audio StereoTone16();
// 24-bit FLAC, 44.1 kHz, 0.5 s. Channel 1: a 997 Hz sine of amplitude 0.9. Channel 2: silence.
Audio ToneAndSilence24Flac();

struct Levels {
    double peak = 0.0, rms = 0.0, mean = 0.0;
};
// Levels computed directly from the samples, in long double.
Levels MeasureLevels(const std::vector<double>& samples);
double Db(double linear);

void WriteAudio(const std::filesystem::path& path, const Audio& audio);
Audio ReadAudio(const std::filesystem::path& path);

}  // namespace kesta_test
