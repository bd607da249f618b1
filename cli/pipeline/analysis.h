#pragma once
// Analysis passes before the stream: a library analyzer reading a region of a file as its calling
// protocol asks.
//
//   capture.SetSelection(start, frames);                  // the command checks what it answers
//   RunAnalysis(capture, reader, {start, frames}, channels, progress, endsEarly);
//   ... capture.GetParam() holds the result ...
//
// A single-pass analyzer gets GetDesiredBlockSize() frames (fewer at the region's end) from the
// position it moves to: it may step less than a block, so its blocks overlap. A multi-pass analyzer
// reads the region once per pass, each pass from the region's start again and GetLatency() frames
// past its end (silence where the file ends). The file is read forward only, one block held at a
// time (frames before the region are read and dropped); a pass that must go back rewinds it.

#include <cstdint>
#include <functional>

#include "io/block_reader.h"
#include "progress.h"

namespace dsp {
class DSPAnalyzer;
}

namespace kesta {

struct AnalysisRegion {
    int64_t start = 0;
    int64_t frames = 0;
};

// Called when the file ends at frame `end`, inside the region; may throw. Without it, the region
// reads as silence after the file's end.
using EndsEarly = std::function<void(int64_t end)>;

// Runs every pass of `analyzer` (started here, its selection already set to the region) over the
// region of `reader`, handing it `channels` channels (a mono file serves every channel), then calls
// Done. Advances `progress` by the frames read, every pass counted. Returns the Analyze calls made.
int RunAnalysis(dsp::DSPAnalyzer& analyzer, BlockReader& reader, const AnalysisRegion& region, int channels,
                Progress& progress, const EndsEarly& endsEarly = nullptr);

}  // namespace kesta
