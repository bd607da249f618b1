#pragma once
// The waveform picture: per channel, the smallest and largest sample under each pixel column (and
// the RMS level within it) on an amplitude axis, against time; clicks and clipped runs that a
// repair tool found marked where they lie.

#include <cstdint>
#include <string>
#include <vector>

#include "marks.h"
#include "plot.h"

namespace kesta {

class BlockReader;
class Progress;

// Per channel and pixel column: the lowest and highest sample and the RMS level.
struct Envelope {
    int columns = 0;
    std::vector<std::vector<float>> low, high, rms;
    double peak = 0.0;  // the largest magnitude
};

// Streams the rest of `reader` (a file of `frames` frames) once. Frame i falls in column
// floor(i * columns / frames); a column no frame falls in (a file shorter than the picture is
// wide) repeats the one before.
Envelope MeasureEnvelope(BlockReader& reader, int64_t frames, int columns, Progress& progress);

// The smallest height that gives each of `channels` panels room.
int SmallestWaveformHeight(int channels);

// Draws the whole picture: a title, one panel per channel, the marks and their legend.
void DrawWaveform(Canvas& canvas, const std::string& title, BlockReader& reader, int64_t frames, const Marks& marks,
                  bool showMarkLegend, bool showProgress);

}  // namespace kesta
