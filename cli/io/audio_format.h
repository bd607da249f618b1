#pragma once
// The format of an audio file (a libsndfile container and encoding, a sample rate and a channel
// count), its names for people, and the choice of an output's format.

#include <string>

namespace kesta {

struct AudioFormat {
    int sndfileFormat = 0;  // SF_FORMAT_<container> | SF_FORMAT_<encoding>
    int sampleRate = 0;
    int channels = 0;

    int Container() const;
    int Encoding() const;
};

// "WAV", "FLAC", "AIFF", ...
std::string ContainerName(int sndfileFormat);
// "PCM 16-bit", "32-bit float", "Vorbis", ...
std::string EncodingName(int sndfileFormat);
// "WAV (PCM 16-bit)"
std::string DescribeFormat(int sndfileFormat);

// Bits per sample of an encoding that stores integer samples exactly (linear PCM, lossless
// integer codecs); 0 for float, companded and lossy encodings.
int IntegerSampleBits(int sndfileFormat);
// True for 32- and 64-bit float encodings, which keep samples beyond full scale.
bool IsFloatEncoding(int sndfileFormat);

// The format an output gets: the input's, unless the output's name ends in the extension of
// another container (out.flac, out.wav, out.aiff, out.ogg, ...), which then selects that container
// with the input's encoding when it can hold it, or the nearest encoding it can. Throws a usage
// error when nothing fits (for example more channels than the container allows).
AudioFormat ChooseOutputFormat(const AudioFormat& input, const std::string& outputPath);

}  // namespace kesta
