#include "block_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "errors.h"
#include "sndfile_reason.h"

namespace kesta {

namespace {

constexpr float kInt32ToFloat = 1.0f / 2147483648.0f;  // exact: a power of two

[[noreturn]] void ThrowOpenFailure(const std::string& path, int error) {
    const std::string what = "cannot open input " + Quoted(path);
    switch (error) {
        case ENOENT:
            throw InputError(what, "no such file", "check the name and the current directory");
        case EACCES:
            throw InputError(what, "permission denied", "check the file's permissions");
        case ENOTDIR:
            throw InputError(what, "a part of the path is not a directory", "check the path");
        default:
            throw InputError(what, SystemReason(error), "check the path and the file");
    }
}

int OpenForReading(const std::string& path, struct stat& info) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) ThrowOpenFailure(path, errno);
    if (::fstat(fd, &info) != 0) {
        const int error = errno;
        ::close(fd);
        ThrowOpenFailure(path, error);
    }
    if (S_ISDIR(info.st_mode)) {
        ::close(fd);
        throw InputError("cannot read input " + Quoted(path), "it is a directory", "give an audio file");
    }
    if (S_ISREG(info.st_mode) && info.st_size == 0) {
        ::close(fd);
        throw InputError("cannot read input " + Quoted(path), "the file is empty", "give an audio file");
    }
    return fd;
}

}  // namespace

BlockReader::BlockReader(std::string path) : mPath(std::move(path)) {
    struct stat info {};
    const int fd = OpenForReading(mPath, info);
    mIdentity = FileIdentity::Of(info);

    SF_INFO sfinfo{};
    // libsndfile owns the descriptor from here, and closes it even when it fails to open.
    mFile = sf_open_fd(fd, SFM_READ, &sfinfo, SF_TRUE);
    if (mFile == nullptr)
        throw InputError(
            "cannot read " + Quoted(mPath) + " as audio", SndfileReason(nullptr),
            "is it an audio file? kesta reads WAV, AIFF, FLAC, Ogg, MP3 and the other formats of libsndfile");
    if (sfinfo.channels < 1 || sfinfo.samplerate < 1) {
        sf_close(mFile);
        mFile = nullptr;
        throw InputError("cannot read " + Quoted(mPath) + " as audio",
                         "its header gives " + std::to_string(sfinfo.channels) + " channels at " +
                             std::to_string(sfinfo.samplerate) + " Hz",
                         "the file is damaged; try to recover it with another tool");
    }

    mFormat = {sfinfo.format, sfinfo.samplerate, sfinfo.channels};
    mSeekable = sfinfo.seekable != 0;
    if (sfinfo.frames >= 0 && sfinfo.frames != SF_COUNT_MAX) mHeaderFrames = sfinfo.frames;
    mIntegerBits = IntegerSampleBits(sfinfo.format);
}

BlockReader::~BlockReader() {
    if (mFile != nullptr) sf_close(mFile);
}

AudioMetadata BlockReader::Metadata() const {
    AudioMetadata metadata;
    for (int id = SF_STR_FIRST; id <= SF_STR_LAST; ++id) {
        const char* value = sf_get_string(mFile, id);
        if (value != nullptr && *value != '\0') metadata.strings.emplace_back(id, value);
    }
    SF_BROADCAST_INFO broadcast{};
    if (sf_command(mFile, SFC_GET_BROADCAST_INFO, &broadcast, sizeof(broadcast)) == SF_TRUE)
        metadata.broadcast = broadcast;
    return metadata;
}

bool BlockReader::Read(AudioBlock& block) {
    const int channels = mFormat.channels;
    const std::size_t wanted = block.Capacity();
    const std::size_t samples = wanted * std::size_t(channels);
    sf_count_t got = 0;
    if (mIntegerBits > 0) {
        if (mInterleavedInt.size() < samples) mInterleavedInt.resize(samples);
        got = sf_readf_int(mFile, mInterleavedInt.data(), sf_count_t(wanted));
    } else {
        if (mInterleavedFloat.size() < samples) mInterleavedFloat.resize(samples);
        got = sf_readf_float(mFile, mInterleavedFloat.data(), sf_count_t(wanted));
    }
    if (got < sf_count_t(wanted) && sf_error(mFile) != SF_ERR_NO_ERROR)
        throw InputError("cannot read " + Quoted(mPath) + " after frame " + std::to_string(mFramesRead),
                         SndfileReason(mFile), "the file may be damaged or truncated");
    if (got < 0) got = 0;

    const std::size_t frames = std::size_t(got);
    for (int c = 0; c < channels; ++c) {
        float* out = block.Channel(c);
        if (mIntegerBits > 0) {
            const int32_t* in = mInterleavedInt.data() + c;
            for (std::size_t i = 0; i < frames; ++i)
                out[i] = float(in[i * channels]) * kInt32ToFloat;
        } else {
            const float* in = mInterleavedFloat.data() + c;
            for (std::size_t i = 0; i < frames; ++i)
                out[i] = in[i * channels];
        }
    }
    block.SetFrames(frames);
    mFramesRead += int64_t(frames);
    return frames > 0;
}

void BlockReader::Rewind() {
    if (!mSeekable || sf_seek(mFile, 0, SEEK_SET) != 0)
        throw InputError("cannot read " + Quoted(mPath) + " a second time", "it cannot be rewound (a pipe or stream)",
                         "give kesta a regular file");
    mFramesRead = 0;
}

}  // namespace kesta
