#pragma once
// Streams an audio file through libsndfile as blocks of non-interleaved float channels, so any
// length of file needs memory for one block. Integer files are scaled exactly (a 16-bit sample s
// reads as s / 32768), so a file read and written again unchanged is bit-identical.

#include <sndfile.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "audio_block.h"
#include "audio_format.h"
#include "audio_metadata.h"
#include "file_identity.h"
#include "sample_kernels.h"

namespace kesta {

class BlockReader {
public:
    static constexpr std::size_t kDefaultBlockFrames = 4096;

    // Opens the file, or standard input for "-" (once in a run); throws an input error (missing,
    // unreadable, a directory, not audio).
    explicit BlockReader(std::string path);
    ~BlockReader();
    BlockReader(const BlockReader&) = delete;
    BlockReader& operator=(const BlockReader&) = delete;

    const std::string& Path() const { return mPath; }
    const AudioFormat& Format() const { return mFormat; }
    // The file that was opened, to keep outputs off it.
    FileIdentity Identity() const { return mIdentity; }
    // The length the file's header states (more than it holds when it was cut short); nullopt when
    // it is not known in advance (a pipe).
    std::optional<int64_t> HeaderFrames() const { return mHeaderFrames; }
    bool Seekable() const { return mSeekable; }
    AudioMetadata Metadata() const;

    // A block shaped for this file.
    AudioBlock MakeBlock(std::size_t frames = kDefaultBlockFrames) const {
        return AudioBlock(mFormat.channels, frames);
    }

    // Fills the block with the next frames (up to its capacity) and returns true, or returns false
    // with an empty block once the file is exhausted. Throws an input error on a read failure.
    bool Read(AudioBlock& block);
    // Frames delivered since the file was opened or last rewound.
    int64_t FramesRead() const { return mFramesRead; }
    // Once the whole file is read: a warning when it holds another length than its header
    // announces, or its stream stops without its end mark (a cut-short Ogg); nullopt otherwise.
    std::optional<std::string> LengthWarning() const;
    // Starts again from the first frame, for a further pass over the file.
    void Rewind();

    // Raw samples are read this many bytes at a time (or a block's, when larger).
    static constexpr std::size_t kRawChunkBytes = std::size_t(1) << 18;

private:
    void ChooseLayout();
    // Makes the raw chunk hold at least `bytes` unread bytes (whole frames of `frameBytes`), unless
    // the file ends first; returns the unread bytes it holds.
    std::size_t FillRaw(std::size_t bytes, std::size_t frameBytes);
    void DropRawChunk() { mRawStart = mRawEnd = 0, mRawEnded = false; }

    std::string mPath;
    std::string mShown;  // the file as messages name it
    SNDFILE* mFile = nullptr;
    AudioFormat mFormat;
    FileIdentity mIdentity;
    std::optional<int64_t> mHeaderFrames;
    bool mSeekable = false;
    bool mEndMissing = false;
    // How blocks are read: raw bytes decoded here where the file's samples lie plainly in the
    // machine's byte order (no conversion in libsndfile), else libsndfile's int or float frames.
    bool mRaw = false;
    SampleLayout mLayout = SampleLayout::Float;
    DecodeSamples mDecode = nullptr;
    int64_t mFramesRead = 0;
    // Frames the first pass found; a later pass that finds another count throws (a damaged header
    // can make a rewound file read differently).
    std::optional<int64_t> mFramesInFile;
    std::vector<int32_t> mInterleaved;     // a block of the file's frames as libsndfile decoded them
    std::vector<unsigned char> mRawChunk;  // raw samples as read, unread from mRawStart to mRawEnd
    std::size_t mRawStart = 0, mRawEnd = 0;
    bool mRawEnded = false;  // the file's samples are all in the chunk
    std::vector<float*> mChannels;
};

}  // namespace kesta
