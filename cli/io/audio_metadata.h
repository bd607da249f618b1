#pragma once
// The descriptive data an output carries over from its input: the text tags (title, artist, ...)
// and, for broadcast WAV, the broadcast extension (description, originator, time reference).

#include <sndfile.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kesta {

struct AudioMetadata {
    std::vector<std::pair<int, std::string>> strings;  // SF_STR_* id, value
    std::optional<SF_BROADCAST_INFO> broadcast;
};

}  // namespace kesta
