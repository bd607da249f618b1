#pragma once
// What the picture commands share: their inputs (files of known length, at least two frames), the
// picture's size and name checked before any work, the PNG written whole through SafeOutput, and
// the report of what was drawn.

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "io/block_reader.h"
#include "io/safe_output.h"
#include "pipeline/console.h"

namespace CLI {
class App;
}

namespace kesta {

class Canvas;
class JsonWriter;

struct PictureOptions {
    std::string output;
    int width = 1200;
    int height = kDefaultHeight;
    static constexpr int kDefaultHeight = std::numeric_limits<int>::min();  // not given: the command's default
    bool force = false;
    ReportOptions report;
};
// Adds OUTPUT's --width, --height and --force (and --quiet, --json).
void AddPictureOptions(CLI::App& command, PictureOptions& options, const std::string& defaultHeight);

struct PictureInput {
    std::string path;
    std::unique_ptr<BlockReader> reader;
    int64_t frames = 0;
};
// Opens a file to draw: refused in one line when it is missing, not audio, of unknown length (a
// pipe) or shorter than two frames.
PictureInput OpenPictureInput(const std::string& path);

// Usage errors for a size out of range (`smallestHeight` for what is drawn) or an OUTPUT not named
// .png; a fault when cairo cannot be opened; then the output, refused when it exists (without
// --force) or is one of the inputs.
std::unique_ptr<SafeOutput> PrepareOutput(const PictureOptions& options, int height, int smallestHeight,
                                          const std::vector<SafeOutput::Input>& inputs);

// Writes the canvas as PNG and moves it into place.
void SavePicture(Canvas& canvas, SafeOutput& output);

// "Wrote OUT.png: 1200 x 600 pixels" or the JSON report: command, inputs, output, size, the
// command's own fields (`fields`), warnings, seconds.
void ReportPicture(Console& console, const std::string& command, const std::vector<std::string>& inputs,
                   const PictureOptions& options, int height, double seconds,
                   const std::function<void(JsonWriter&)>& fields, const std::string& textExtra);

}  // namespace kesta
