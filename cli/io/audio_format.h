#pragma once
// The format of an audio file (a libsndfile container and encoding, a sample rate and a channel
// count), its names for people, and the choice of an output's format.

#include <optional>
#include <string>

#include "sample_kernels.h"

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
// Whether libsndfile can write `sndfileFormat` with the channels and rate of `like`: tried on a
// file in memory, since its format check accepts some pairs it cannot open (MP3 inside WAV).
bool Writable(int sndfileFormat, const AudioFormat& like);
// Bytes one sample takes in an uncompressed encoding (PCM, float, u-law, A-law); 0 for codecs.
int BytesPerSample(int sndfileFormat);
// True for 32- and 64-bit float encodings, which keep samples beyond full scale.
bool IsFloatEncoding(int sndfileFormat);
// How the samples of a container that stores them uncoded (WAV, AIFF, CAF, ...) lie in its data, for
// 16-, 24-, 32-bit PCM and 32-bit float; nullopt otherwise. Their byte order is libsndfile's to tell
// (SFC_RAW_DATA_NEEDS_ENDSWAP).
std::optional<SampleLayout> PlainLayout(int sndfileFormat);

// The format an output gets: the input's when the output's name has no extension, else the
// container its extension names (out.flac, out.wav, out.aiff, out.ogg, ...), with the input's
// encoding when that container can hold it, or else 24-bit PCM (16-bit where 24 does not fit):
// a lossy or codec-coded input becomes PCM in a lossless container. Throws a usage error for an
// extension that names no format kesta writes (out.raw), or when nothing fits (for example more
// channels than the container allows).
AudioFormat ChooseOutputFormat(const AudioFormat& input, const std::string& outputPath);

}  // namespace kesta
