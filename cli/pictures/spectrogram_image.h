#pragma once
// The spectrogram picture: each file's level over time and frequency, from the library's own
// windows and FFT, in colour on a dB scale with its legend; several files stack as panels that
// share the time, frequency and level scales (a before/after pair).

#include <cstdint>
#include <string>
#include <vector>

#include "dsp/fft_window.h"
#include "plot.h"

namespace kesta {

class BlockReader;
class Progress;

struct SpectrogramSettings {
    int fftSize = 2048;
    unsigned int window = dsp::kWindowBlackmanHarris;
    double rangeDb = 120.0;  // the levels shown, down from 0 dBFS
    bool logFrequency = true;
};

// The window names --window takes, with their shape codes.
struct WindowName {
    const char* name;
    unsigned int shape;
};
const std::vector<WindowName>& SpectrogramWindows();

// Levels in dBFS on a grid of `columns` (time) by `rows` (frequency, row 0 at the top): a sine at
// full scale reads 0 dB in its bin. NaN where the file holds nothing (past its end, above half
// its sample rate).
struct LevelGrid {
    int columns = 0, rows = 0;
    std::vector<float> db;  // row-major
    float At(int column, int row) const { return db[std::size_t(row) * std::size_t(columns) + std::size_t(column)]; }
};

// Streams the rest of `reader` (a file of `frames` frames) once. The columns share `seconds` of
// time from the file's start; each holds the mean power of the frames centred in it (at least
// one frame per column that the file reaches, hop at most a quarter frame). Each row holds the
// largest bin it spans, or the level between the two nearest bins where it spans none.
LevelGrid MeasureSpectrogram(BlockReader& reader, int64_t frames, double seconds, const AxisScale& frequencies,
                             int columns, int rows, const SpectrogramSettings& settings, Progress& progress);

// One file to draw: its title and its open reader at its first frame.
struct SpectrogramSource {
    std::string title;
    BlockReader* reader;
    int64_t frames;
};

// Draws every source as a panel, one above the other, over the whole canvas.
void DrawSpectrograms(Canvas& canvas, const std::vector<SpectrogramSource>& sources,
                      const SpectrogramSettings& settings, bool showProgress);

}  // namespace kesta
