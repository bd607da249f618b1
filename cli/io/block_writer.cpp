#include "block_writer.h"

#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <utility>

#include "errors.h"
#include "pipeline/units.h"
#include "sndfile_reason.h"

namespace kesta {

namespace {

// The integer nearest to `v`, ties to even (as llrint in the default rounding mode), without a
// library call: adding 1.5 * 2^52 leaves no fraction bits, so the sum rounds in the FPU. Exact for
// |v| < 2^51.
inline double RoundToEven(double v) {
    constexpr double kShift = 6755399441055744.0;
    return (v + kShift) - kShift;
}

}  // namespace

BlockWriter::BlockWriter(int fd, std::string displayPath, const AudioFormat& format)
    : mPath(std::move(displayPath)), mFormat(format), mFd(fd) {
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

void BlockWriter::Write(const AudioBlock& block) {
    const int channels = mFormat.channels;
    const std::size_t frames = block.Frames();
    if (frames == 0) return;
    ExpectFrames(mFramesWritten + int64_t(frames));
    for (int c = 0; c < channels; ++c) {
        const float* in = block.Channel(c);
        for (std::size_t i = 0; i < frames; ++i)
            if (!std::isfinite(in[i]))
                throw NonFiniteSampleError(mPath, mFramesWritten + int64_t(i), c, mFormat.sampleRate, in[i]);
    }
    const std::size_t samples = frames * std::size_t(channels);

    sf_count_t written = 0;
    if (mIntegerBits > 0) {
        // Round to the encoding's own depth, saturate, then left-justify as libsndfile expects.
        const double scale = std::ldexp(1.0, mIntegerBits - 1);
        const int64_t top = int64_t(scale) - 1, bottom = -int64_t(scale);
        const int64_t justify = int64_t(1) << (32 - mIntegerBits);
        if (mInterleavedInt.size() < samples) mInterleavedInt.resize(samples);
        for (int c = 0; c < channels; ++c) {
            const float* in = block.Channel(c);
            int32_t* out = mInterleavedInt.data() + c;
            for (std::size_t i = 0; i < frames; ++i) {
                // Every sample is finite here, so plain compares limit it as fmin/fmax would.
                const double x = in[i];
                mClipped += std::fabs(x) > 1.0;  // beyond full scale
                int64_t q = int64_t(RoundToEven((x > 2.0 ? 2.0 : (x < -2.0 ? -2.0 : x)) * scale));
                q = q > top ? top : (q < bottom ? bottom : q);
                out[i * channels] = int32_t(q * justify);
            }
        }
        written = sf_writef_int(mFile, mInterleavedInt.data(), sf_count_t(frames));
    } else {
        if (mInterleavedFloat.size() < samples) mInterleavedFloat.resize(samples);
        for (int c = 0; c < channels; ++c) {
            const float* in = block.Channel(c);
            float* out = mInterleavedFloat.data() + c;
            for (std::size_t i = 0; i < frames; ++i) {
                if (!mFloatEncoding && !(std::fabs(in[i]) <= 1.0f)) ++mClipped;
                out[i * channels] = in[i];
            }
        }
        written = sf_writef_float(mFile, mInterleavedFloat.data(), sf_count_t(frames));
    }
    if (written != sf_count_t(frames)) ThrowWriteFailure();
    mFramesWritten += int64_t(frames);
}

void BlockWriter::Finish() {
    SNDFILE* file = mFile;
    mFile = nullptr;
    if (file != nullptr && sf_close(file) != 0) ThrowWriteFailure();
    if (!AppendMarkerNames(mFd, mMarkerNames))
        throw OutputError("cannot write " + Quoted(mPath), "adding the marker names failed: " + SystemReason(errno),
                          "check the free space and that the disk is writable");
}

void BlockWriter::ThrowWriteFailure() const {
    throw OutputError("cannot write " + Quoted(mPath) + " after frame " + std::to_string(mFramesWritten),
                      SndfileReason(mFile), "check the free space and that the disk is writable");
}

}  // namespace kesta
