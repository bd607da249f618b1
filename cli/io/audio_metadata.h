#pragma once
// The descriptive data an output carries over from its input: the text tags (title, artist, ...),
// for broadcast WAV the broadcast extension (description, originator, time reference), markers
// (cue points with their names) and the production data recorders and editors write as XML
// chunks (iXML, axml), kept byte for byte.

#include <sndfile.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "audio_format.h"

namespace kesta {

struct Marker {
    int64_t frame = 0;
    uint32_t id = 0;   // the container's number for it, which names refer to
    std::string name;  // may be empty
};

struct AudioMetadata {
    std::vector<std::pair<int, std::string>> strings;  // SF_STR_* id, value
    std::optional<SF_BROADCAST_INFO> broadcast;
    std::vector<Marker> markers;
    std::vector<std::pair<std::string, std::string>> chunks;  // chunk id, data
};

// Adds the markers and XML chunks of an open file to `metadata`.
void ReadMarkersAndChunks(SNDFILE* file, AudioMetadata& metadata);

// Gives the markers and chunks of `metadata` to `file`, a new output of `format` at `path`, before
// any audio is written; returns, as one warning line, what its container cannot keep (nothing
// when all is kept). Marker names of a WAV output are left to AppendMarkerNames.
std::vector<std::string> WriteMarkersAndChunks(SNDFILE* file, const AudioFormat& format, const std::string& path,
                                               const AudioMetadata& metadata);

// libsndfile writes a WAV's cue points but not their names: once it has finished the file in
// `fd`, this appends them as a LIST/adtl chunk of labels and updates the RIFF size. Returns false
// when the file could not be written.
bool AppendMarkerNames(int fd, const std::vector<Marker>& markers);

}  // namespace kesta
