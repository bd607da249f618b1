#pragma once
// Writes blocks of non-interleaved float channels into an audio file through libsndfile. Integer
// encodings get exact rounding to their own bit depth and saturate at full scale (never wrap);
// float encodings keep every value, beyond full scale included. A NaN or infinite sample is never
// written: every command's audio passes here, so this is the last guard against a processor (or an
// input) that produced one. The block holding it is refused whole (NonFiniteSampleError) and the
// command stops before its output is committed.

#include <sndfile.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "audio_block.h"
#include "audio_format.h"
#include "audio_metadata.h"
#include "errors.h"
#include "sample_kernels.h"

namespace kesta {

// A sample that is NaN or infinite reached the writer. main() names the command that was running.
class NonFiniteSampleError : public CliError {
public:
    NonFiniteSampleError(const std::string& path, int64_t frame, int channel, int sampleRate, float value);
    // The refusal's one line, naming `command`.
    CliError ForCommand(const std::string& command) const;

private:
    std::string mPosition, mValue;
};

class BlockWriter {
public:
    // Writes into the open descriptor `fd` (left open: its owner syncs and closes it). Messages
    // name `displayPath`, the file the person asked for. Throws an output error if libsndfile
    // cannot write this format. `synced`: the owner will sync the file, so the disk is set to work
    // on each chunk as soon as it is written and the final sync waits only for the last.
    BlockWriter(int fd, std::string displayPath, const AudioFormat& format, bool synced = false);
    ~BlockWriter();
    BlockWriter(const BlockWriter&) = delete;
    BlockWriter& operator=(const BlockWriter&) = delete;

    const AudioFormat& Format() const { return mFormat; }
    // Carries tags, broadcast data, markers and XML chunks over; call before the first Write.
    // Returns warnings for markers and chunks the output's container cannot keep (text fields it
    // cannot hold are dropped silently).
    [[nodiscard]] std::vector<std::string> SetMetadata(const AudioMetadata& metadata);

    // Fails early, before any work, when `frames` cannot fit the output's container (a WAV or
    // AIFF header cannot describe more than 4 GiB of audio).
    void ExpectFrames(int64_t frames) const;
    // The most frames the container can hold; nullopt when there is no practical limit.
    static std::optional<int64_t> FrameLimit(const AudioFormat& format);

    // Throws an output error if the data does not fit (see ExpectFrames) or cannot be written, and
    // NonFiniteSampleError, writing nothing of the block, if it holds a NaN or infinite sample.
    // Leaves the block as the file keeps it: limited to full scale unless the encoding is float.
    void Write(AudioBlock& block);
    // Completes the file (header, trailing data). The file is whole only once this returns.
    void Finish();

    int64_t FramesWritten() const { return mFramesWritten; }
    // Samples beyond full scale that an integer or lossy encoding had to saturate.
    uint64_t ClippedSamples() const { return mClipped; }
    // The largest magnitude written, before any saturation.
    double UnclippedPeak() const { return mUnclippedPeak; }

    // Raw samples are written this many bytes at a time (or a block's, when larger).
    static constexpr std::size_t kRawChunkBytes = std::size_t(1) << 18;

private:
    void FlushPending();
    [[noreturn]] void ThrowWriteFailure() const;
    [[noreturn]] void ThrowTooLong() const;

    std::string mPath;
    AudioFormat mFormat;
    int mFd;
    bool mSynced;
    std::vector<Marker> mMarkerNames;  // appended by Finish (WAV)
    SNDFILE* mFile = nullptr;
    int mIntegerBits = 0;
    bool mFloatEncoding = false;
    // Raw: integers encoded here in the file's own layout; else libsndfile's int or float frames.
    bool mRaw = false;
    SampleLayout mLayout = SampleLayout::Float;
    const SampleKernels* mKernels = nullptr;
    std::optional<int64_t> mFrameLimit;
    int64_t mFramesWritten = 0;
    uint64_t mClipped = 0;
    double mUnclippedPeak = 0.0;
    // Encoded samples as the file gets them; raw ones wait here until the chunk is full or Finish.
    std::vector<unsigned char> mPending;
    std::size_t mPendingBytes = 0;
    int64_t mPendingFrames = 0;
    std::vector<float*> mChannels;
};

}  // namespace kesta
