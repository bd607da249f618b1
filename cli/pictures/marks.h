#pragma once
// The clicks and clipped runs to mark on a waveform, read from the reports `kesta declick --report`
// and `kesta declip --report` write (CSV or JSON; which of the two a file is shows in its fields).

#include <cstdint>
#include <string>
#include <vector>

namespace kesta {

struct Mark {
    int channel = 1;  // 1 = first
    int64_t start = 0;
    int64_t length = 1;
};

struct Marks {
    std::vector<Mark> clicks, clips;
};

// Adds the marks of one report file to `marks`. Throws an input error naming the file (and the
// line, for CSV) when it cannot be read or is not such a report.
void ReadMarks(const std::string& path, Marks& marks);

// The same from a report's text, `path` naming it in messages.
void ParseMarks(const std::string& text, const std::string& path, Marks& marks);

}  // namespace kesta
