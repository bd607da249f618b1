#include "block_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "announced_length.h"
#include "errors.h"
#include "sndfile_reason.h"

namespace kesta {

namespace {

// How messages name an input: 'take.wav', or standard input for "-".
std::string Shown(const std::string& path) {
    return path == "-" ? "standard input" : Quoted(path);
}

[[noreturn]] void ThrowOpenFailure(const std::string& path, int error) {
    const std::string what = "cannot open input " + Shown(path);
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

// Standard input is read once, by one reader: "-" may name only one input of a run.
int OpenStandardInput() {
    static bool taken = false;
    if (taken)
        throw UsageError("standard input can be read only once", "'-' names two inputs", "give the others as files");
    if (::isatty(STDIN_FILENO))
        throw InputError("cannot read standard input", "it is a terminal",
                         "pipe or redirect audio into kesta, such as kesta info - < take.wav");
    taken = true;
    return ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
}

int OpenForReading(const std::string& path, struct stat& info) {
    const int fd = path == "-" ? OpenStandardInput() : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) ThrowOpenFailure(path, errno);
    if (::fstat(fd, &info) != 0) {
        const int error = errno;
        ::close(fd);
        ThrowOpenFailure(path, error);
    }
    if (S_ISDIR(info.st_mode)) {
        ::close(fd);
        throw InputError("cannot read input " + Shown(path), "it is a directory", "give an audio file");
    }
    if (S_ISREG(info.st_mode) && info.st_size == 0) {
        ::close(fd);
        throw InputError("cannot read input " + Shown(path), "the file is empty", "give an audio file");
    }
    return fd;
}

}  // namespace

BlockReader::BlockReader(std::string path) : mPath(std::move(path)), mShown(Shown(mPath)) {
    struct stat info {};
    const int fd = OpenForReading(mPath, info);
    mIdentity = FileIdentity::Of(info);

    SF_INFO sfinfo{};
    // libsndfile owns the descriptor from here, and closes it even when it fails to open.
    mFile = sf_open_fd(fd, SFM_READ, &sfinfo, SF_TRUE);
    if (mFile == nullptr)
        throw InputError(
            "cannot read " + mShown + " as audio", SndfileReason(nullptr),
            "is it an audio file? kesta reads WAV, AIFF, FLAC, Ogg, MP3 and the other formats of libsndfile");
    if (sfinfo.channels < 1 || sfinfo.samplerate < 1) {
        sf_close(mFile);
        mFile = nullptr;
        throw InputError("cannot read " + mShown + " as audio",
                         "its header gives " + std::to_string(sfinfo.channels) + " channels at " +
                             std::to_string(sfinfo.samplerate) + " Hz",
                         "the file is damaged; try to recover it with another tool");
    }

    mFormat = {sfinfo.format, sfinfo.samplerate, sfinfo.channels};
    mSeekable = sfinfo.seekable != 0;
    if (sfinfo.frames >= 0 && sfinfo.frames != SF_COUNT_MAX) mHeaderFrames = sfinfo.frames;
    if (S_ISREG(info.st_mode)) {
        // libsndfile announces what a cut-short WAV or AIFF still holds; the header says more.
        const AnnouncedLength announced = ReadAnnouncedLength(fd, info.st_size, mFormat);
        if (announced.frames && (!mHeaderFrames || *announced.frames > *mHeaderFrames))
            mHeaderFrames = announced.frames;
        mEndMissing = announced.endMissing;
        if (announced.dataOffsetInsideHeader) {
            sf_close(mFile);
            mFile = nullptr;
            throw InputError("cannot read " + mShown + " as audio",
                             "its header puts the audio at byte " + std::to_string(*announced.dataOffsetInsideHeader) +
                                 ", inside the 24-byte header",
                             "the file is damaged; convert it with another tool and use the copy");
        }
    }
    ChooseLayout();
}

void BlockReader::ChooseLayout() {
    const int bits = IntegerSampleBits(mFormat.sndfileFormat);
    mLayout = bits > 0 ? SampleLayout::Int32 : SampleLayout::Float;
    const std::optional<SampleLayout> raw = PlainLayout(mFormat.sndfileFormat);
    if (raw && sf_command(mFile, SFC_RAW_DATA_NEEDS_ENDSWAP, nullptr, 0) == SF_FALSE) {
        mRaw = true;
        mLayout = *raw;
    }
    mDecode = PickSampleKernels().decode[int(mLayout)];
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
    ReadMarkersAndChunks(mFile, metadata);
    return metadata;
}

bool BlockReader::Read(AudioBlock& block) {
    const int channels = mFormat.channels;
    const std::size_t wanted = block.Capacity();
    const std::size_t frameBytes = std::size_t(channels) * std::size_t(LayoutBytes(mLayout));
    const std::size_t bytes = wanted * frameBytes;
    const void* samples = nullptr;
    sf_count_t got = 0;
    if (mRaw) {
        got = sf_count_t(FillRaw(bytes, frameBytes) / frameBytes);
        got = std::min(got, sf_count_t(wanted));
        samples = mRawChunk.data() + mRawStart;
        mRawStart += std::size_t(got) * frameBytes;
    } else {
        if (mInterleaved.size() * sizeof(int32_t) < bytes) mInterleaved.resize((bytes + 3) / 4);
        samples = mInterleaved.data();
        if (mLayout == SampleLayout::Int32)
            got = sf_readf_int(mFile, mInterleaved.data(), sf_count_t(wanted));
        else
            got = sf_readf_float(mFile, reinterpret_cast<float*>(mInterleaved.data()), sf_count_t(wanted));
    }
    if (got < sf_count_t(wanted) && sf_error(mFile) != SF_ERR_NO_ERROR)
        throw InputError("cannot read " + mShown + " after frame " + std::to_string(mFramesRead), SndfileReason(mFile),
                         "the file may be damaged or truncated");
    if (got < 0) got = 0;
    if (mFramesInFile && (mFramesRead + got > *mFramesInFile || (got == 0 && mFramesRead < *mFramesInFile)))
        throw InputError("cannot read " + mShown + " a second time",
                         "it gives other frames than on the first reading (its header is damaged)",
                         "convert it with another tool and use the copy");
    if (got == 0 && !mFramesInFile) mFramesInFile = mFramesRead;

    const std::size_t frames = std::size_t(got);
    mChannels.resize(std::size_t(channels));
    for (int c = 0; c < channels; ++c)
        mChannels[std::size_t(c)] = block.Channel(c);
    mDecode(samples, mChannels.data(), channels, frames);
    block.SetFrames(frames);
    mFramesRead += int64_t(frames);
    return frames > 0;
}

std::size_t BlockReader::FillRaw(std::size_t bytes, std::size_t frameBytes) {
    std::size_t held = mRawEnd - mRawStart;
    if (held >= bytes || mRawEnded) return held;
    // What is left moves to the front, and one large read fills the rest: a few calls per megabyte
    // however small the blocks are. Raw reads take whole frames.
    const std::size_t size = std::max(bytes, kRawChunkBytes / frameBytes * frameBytes);
    if (mRawChunk.size() < size) mRawChunk.resize(size);
    std::memmove(mRawChunk.data(), mRawChunk.data() + mRawStart, held);
    mRawStart = 0;
    while (held < bytes && !mRawEnded) {
        const sf_count_t got = sf_read_raw(mFile, mRawChunk.data() + held, sf_count_t(size - held));
        if (got <= 0) mRawEnded = true;
        if (got > 0) held += std::size_t(got);
    }
    mRawEnd = held;
    return held;
}

std::optional<std::string> BlockReader::LengthWarning() const {
    if (mEndMissing)
        return mShown + " stops after " + std::to_string(mFramesRead) +
               " frames without the mark that ends its stream (it is probably truncated)";
    if (!mHeaderFrames || *mHeaderFrames == mFramesRead) return std::nullopt;
    return "the header of " + mShown + " announces " + std::to_string(*mHeaderFrames) + " frames but the file holds " +
           std::to_string(mFramesRead) + (mFramesRead < *mHeaderFrames ? " (it is probably truncated)" : "");
}

void BlockReader::Rewind() {
    const auto refuse = [&](const std::string& why) {
        throw InputError("cannot read " + mShown + " a second time", why, "give kesta a regular file that stays put");
    };
    if (!mSeekable) refuse("it cannot be rewound (a pipe or stream)");
    if (mPath == "-") {
        if (sf_seek(mFile, 0, SEEK_SET) != 0) refuse("it cannot be rewound (a pipe or stream)");
        mFramesRead = 0;
        DropRawChunk();
        return;
    }
    // A fresh open rather than a seek: a decoder seeking back in a damaged compressed stream can
    // resynchronise elsewhere and give other samples, where a new one decodes as the first did.
    const int fd = ::open(mPath.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat info {};
    if (fd < 0 || ::fstat(fd, &info) != 0 || !(FileIdentity::Of(info) == mIdentity)) {
        if (fd >= 0) ::close(fd);
        refuse("it was moved, replaced or made unreadable during the first pass");
    }
    SF_INFO sfinfo{};
    SNDFILE* again = sf_open_fd(fd, SFM_READ, &sfinfo, SF_TRUE);
    if (again == nullptr || sfinfo.format != mFormat.sndfileFormat || sfinfo.channels != mFormat.channels) {
        if (again != nullptr) sf_close(again);
        refuse("it reads differently when opened again");
    }
    sf_close(mFile);
    mFile = again;
    mFramesRead = 0;
    DropRawChunk();
}

}  // namespace kesta
