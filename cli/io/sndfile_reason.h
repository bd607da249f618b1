#pragma once
// libsndfile's explanation of its last failure, shaped to sit inside a kesta error line:
// "System error : No space left on device." becomes "no space left on device".

#include <sndfile.h>

#include <cctype>
#include <string>

namespace kesta {

inline std::string SndfileReason(SNDFILE* file) {
    std::string text = sf_strerror(file);
    for (const std::string prefix : {"System error : ", "Error : ", "error : "})
        if (text.compare(0, prefix.size(), prefix) == 0) text.erase(0, prefix.size());
    while (!text.empty() && (text.back() == '.' || text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    if (text.size() > 1 && std::isupper(static_cast<unsigned char>(text[0])) &&
        !std::isupper(static_cast<unsigned char>(text[1])))
        text[0] = char(std::tolower(static_cast<unsigned char>(text[0])));
    return text.empty() ? "unknown libsndfile error" : text;
}

}  // namespace kesta
