#include "block_writer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <utility>

#include "errors.h"
#include "pipeline/units.h"
#include "sndfile_reason.h"

namespace kesta {

BlockWriter::BlockWriter(int fd, std::string displayPath, const AudioFormat& format, bool synced)
    : mPath(std::move(displayPath)), mFormat(format), mFd(fd), mSynced(synced) {
    SF_INFO info{};
    info.samplerate = format.sampleRate;
    info.channels = format.channels;
    info.format = format.sndfileFormat;
    if (sf_format_check(&info) == 0)
        throw OutputError("cannot write " + Quoted(mPath) + " as " + DescribeFormat(format.sndfileFormat),
                          "libsndfile cannot write that format with " + std::to_string(format.channels) +
                              " channel(s) at " + std::to_string(format.sampleRate) + " Hz",
                          "choose another output format by the output's extension");

    // libsndfile gets a descriptor of its own (it may close it even on failure); both share one open file.
    const int own = ::dup(fd);
    if (own < 0) throw OutputError("cannot write " + Quoted(mPath), SystemReason(errno), "");
    mFile = sf_open_fd(own, SFM_WRITE, &info, SF_TRUE);
    if (mFile == nullptr)
        throw OutputError("cannot write " + Quoted(mPath) + " as " + DescribeFormat(format.sndfileFormat),
                          SndfileReason(nullptr), "choose another output format by the output's extension");

    mFrameLimit = FrameLimit(format);
    mIntegerBits = IntegerSampleBits(format.sndfileFormat);
    mFloatEncoding = IsFloatEncoding(format.sndfileFormat);
    // Integer samples that lie plainly in the file in the machine's byte order are encoded here and
    // written raw; float data goes through libsndfile, which keeps the PEAK chunk of float files.
    mLayout = mIntegerBits > 0 ? SampleLayout::Int32 : SampleLayout::Float;
    const std::optional<SampleLayout> plain = PlainLayout(format.sndfileFormat);
    if (plain && *plain != SampleLayout::Float &&
        sf_command(mFile, SFC_RAW_DATA_NEEDS_ENDSWAP, nullptr, 0) == SF_FALSE) {
        mRaw = true;
        mLayout = *plain;
    }
    mKernels = &PickSampleKernels();
    // Float data converted by libsndfile itself (companded and lossy encodings) must saturate, not wrap.
    sf_command(mFile, SFC_SET_CLIPPING, nullptr, mFloatEncoding ? SF_FALSE : SF_TRUE);
}

BlockWriter::~BlockWriter() {
    if (mFile != nullptr) sf_close(mFile);
}

std::vector<std::string> BlockWriter::SetMetadata(const AudioMetadata& metadata) {
    for (const auto& [id, value] : metadata.strings)
        sf_set_string(mFile, id, value.c_str());
    if (metadata.broadcast) {
        SF_BROADCAST_INFO broadcast = *metadata.broadcast;
        sf_command(mFile, SFC_SET_BROADCAST_INFO, &broadcast, sizeof(broadcast));
    }
    if (mFormat.Container() == SF_FORMAT_WAV || mFormat.Container() == SF_FORMAT_WAVEX) mMarkerNames = metadata.markers;
    return WriteMarkersAndChunks(mFile, mFormat, mPath, metadata);
}

std::optional<int64_t> BlockWriter::FrameLimit(const AudioFormat& format) {
    const int container = format.Container();
    if (container != SF_FORMAT_WAV && container != SF_FORMAT_WAVEX && container != SF_FORMAT_AIFF) return std::nullopt;
    const int bytes = BytesPerSample(format.sndfileFormat);
    if (bytes == 0 || format.channels < 1) return std::nullopt;     // compressed encodings: not worth a guess
    const int64_t room = int64_t(0xFFFFFFFF) - (int64_t(1) << 16);  // the 32-bit size fields, less room for headers
    return room / (int64_t(bytes) * format.channels);
}

void BlockWriter::ExpectFrames(int64_t frames) const {
    if (mFrameLimit && frames > *mFrameLimit) ThrowTooLong();
}

void BlockWriter::ThrowTooLong() const {
    throw OutputError("cannot write " + Quoted(mPath) + " as " + ContainerName(mFormat.sndfileFormat),
                      "the audio is longer than its 4 GiB size limit",
                      "name the output .rf64, .w64, .caf or .flac to use a container without that limit");
}

NonFiniteSampleError::NonFiniteSampleError(const std::string& path, int64_t frame, int channel, int sampleRate,
                                           float value)
    : CliError(kExitFault, "a sample that is not finite reached " + Quoted(path), "", ""),
      mPosition("frame " + std::to_string(frame) + " (" + FormatClock(double(frame) / sampleRate, true) +
                "), channel " + std::to_string(channel + 1) + " of " + Quoted(path)),
      mValue(std::isnan(value) ? "nan" : (value < 0 ? "-inf" : "inf")) {}

CliError NonFiniteSampleError::ForCommand(const std::string& command) const {
    return CliError(kExitFault, "kesta " + command + " stopped at " + mPosition,
                    "the processed audio holds a sample that is " + mValue,
                    "nothing was written; if the input holds such samples, repair them, else please report "
                    "this with the command line");
}

void BlockWriter::Write(AudioBlock& block) {
    const int channels = mFormat.channels;
    const std::size_t frames = block.Frames();
    if (frames == 0) return;
    ExpectFrames(mFramesWritten + int64_t(frames));
    const std::size_t bytes = frames * std::size_t(channels) * std::size_t(LayoutBytes(mLayout));
    // Raw samples gather behind those not yet written, so the file gets them in large writes.
    if (mRaw && mPendingBytes + bytes > mPending.size()) {
        FlushPending();
        mPending.resize(std::max({mPending.size(), bytes, kRawChunkBytes}));
    } else if (!mRaw && mPending.size() < bytes) {
        mPending.resize(bytes);
    }
    unsigned char* encoded = mPending.data() + (mRaw ? mPendingBytes : 0);
    mChannels.resize(std::size_t(channels));
    for (int c = 0; c < channels; ++c)
        mChannels[std::size_t(c)] = block.Channel(c);

    EncodeTally tally{mUnclippedPeak};
    mKernels->encode[int(mLayout)](mChannels.data(), encoded, channels, frames, mIntegerBits, tally);
    if (tally.nonFinite) {
        for (int c = 0; c < channels; ++c) {
            const float* in = block.Channel(c);
            for (std::size_t i = 0; i < frames; ++i)
                if (!std::isfinite(in[i]))
                    throw NonFiniteSampleError(mPath, mFramesWritten + int64_t(i), c, mFormat.sampleRate, in[i]);
        }
    }

    if (mRaw) {
        mPendingBytes += bytes;
        mPendingFrames += int64_t(frames);
    } else {
        const sf_count_t written =
            mLayout == SampleLayout::Int32
                ? sf_writef_int(mFile, reinterpret_cast<const int*>(encoded), sf_count_t(frames))
                : sf_writef_float(mFile, reinterpret_cast<const float*>(encoded), sf_count_t(frames));
        if (written != sf_count_t(frames)) ThrowWriteFailure();
    }
    mFramesWritten += int64_t(frames);
    mUnclippedPeak = tally.peak;
    // Integer and lossy encodings saturate at full scale (libsndfile clips the lossy ones): the block
    // is left as they keep it.
    if (!mFloatEncoding) {
        mClipped += tally.beyond;
        for (int c = 0; c < channels; ++c)
            mKernels->saturate(block.Channel(c), frames);
    }
}

void BlockWriter::FlushPending() {
    if (mPendingBytes == 0) return;
    if (sf_write_raw(mFile, mPending.data(), sf_count_t(mPendingBytes)) != sf_count_t(mPendingBytes))
        ThrowWriteFailure();
#ifdef __linux__
    // Only a request to start: a failure shows in the owner's sync.
    if (mSynced) {
        const off_t end = ::lseek(mFd, 0, SEEK_CUR);
        if (end >= off_t(mPendingBytes))
            ::sync_file_range(mFd, end - off_t(mPendingBytes), off_t(mPendingBytes), SYNC_FILE_RANGE_WRITE);
    }
#endif
    mPendingBytes = 0;
    mPendingFrames = 0;
}

void BlockWriter::Finish() {
    if (mFile != nullptr) FlushPending();
    SNDFILE* file = mFile;
    mFile = nullptr;
    if (file != nullptr && sf_close(file) != 0) ThrowWriteFailure();
    if (!AppendMarkerNames(mFd, mMarkerNames))
        throw OutputError("cannot write " + Quoted(mPath), "adding the marker names failed: " + SystemReason(errno),
                          "check the free space and that the disk is writable");
}

void BlockWriter::ThrowWriteFailure() const {
    throw OutputError(
        "cannot write " + Quoted(mPath) + " after frame " + std::to_string(mFramesWritten - mPendingFrames),
        SndfileReason(mFile), "check the free space and that the disk is writable");
}

}  // namespace kesta
