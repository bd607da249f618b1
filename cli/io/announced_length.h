#pragma once
// What a file's container says about its own length, read from the file itself. libsndfile trims
// the length a WAV or AIFF header announces to the data that is really there, and an Ogg stream
// has no length field at all, so a file cut short (an interrupted copy or download) would pass for
// a complete one. These readings let kesta say it was cut short.

#include <sys/types.h>

#include <cstdint>
#include <optional>

#include "audio_format.h"

namespace kesta {

struct AnnouncedLength {
    // The frames the header announces (WAV, RF64, AIFF); nullopt for other containers, for headers
    // that leave the length open (written by a streaming recorder), and for compressed WAV data.
    std::optional<int64_t> frames;
    // An Ogg file whose last page is incomplete or does not mark the end of the stream.
    bool endMissing = false;
    // An AU header whose data offset points inside the header itself. libsndfile starts the first
    // reading after the header but a rewound one at the offset, so two passes would see different
    // frames: such a file is refused.
    std::optional<uint32_t> dataOffsetInsideHeader;
};

// Reads the header (and, for Ogg, the tail) of the open file `fd` of `fileSize` bytes with pread,
// leaving the descriptor's offset alone. A file too damaged to walk gives no announced length.
AnnouncedLength ReadAnnouncedLength(int fd, off_t fileSize, const AudioFormat& format);

}  // namespace kesta
