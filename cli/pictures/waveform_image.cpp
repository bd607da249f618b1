#include "waveform_image.h"

#include <algorithm>
#include <cmath>

#include "io/block_reader.h"
#include "pipeline/progress.h"

namespace kesta {

namespace {

constexpr double kLeft = 78.0, kRight = 24.0, kTitle = 32.0, kGap = 18.0, kAxis = 56.0, kSmallestPanel = 40.0;
const Rgb kInk{0.15, 0.15, 0.17};
const Rgb kWave{0.30, 0.52, 0.82};
const Rgb kWaveRms{0.10, 0.25, 0.52};
const Rgb kClick{0.86, 0.08, 0.10};
const Rgb kClip{0.96, 0.56, 0.02};

// A small triangle pointing down (at the top of a panel) or up (at its bottom), its tip at (x, y).
void Triangle(cairo_t* cr, double x, double y, bool down, const Rgb& colour) {
    const double h = down ? 7.0 : -7.0;
    Cairo().move_to(cr, x, y + h);
    Cairo().line_to(cr, x - 4.5, y);
    Cairo().line_to(cr, x + 4.5, y);
    Cairo().close_path(cr);
    Cairo().set_source_rgb(cr, colour.r, colour.g, colour.b);
    Cairo().fill(cr);
}

// The marks of one channel: a faint band over the stretch and a triangle at the panel's edge.
void DrawMarks(Canvas& canvas, const Rect& area, const std::vector<Mark>& marks, int channel, int64_t frames, bool top,
               const Rgb& colour) {
    cairo_t* cr = canvas.Context();
    const double perFrame = area.width / double(frames);
    Cairo().set_source_rgba(cr, colour.r, colour.g, colour.b, 0.28);
    for (const Mark& mark : marks) {
        if (mark.channel != channel + 1) continue;
        const double x0 = std::floor(area.x + mark.start * perFrame);
        const double x1 = std::max(x0 + 1.0, std::ceil(area.x + (mark.start + mark.length) * perFrame));
        Cairo().rectangle(cr, x0, area.y, std::min(x1, area.Right()) - x0, area.height);
    }
    Cairo().fill(cr);
    for (const Mark& mark : marks)
        if (mark.channel == channel + 1)
            Triangle(cr, area.x + (mark.start + mark.length / 2.0) * perFrame, top ? area.y : area.Bottom(), top,
                     colour);
}

}  // namespace

Envelope MeasureEnvelope(BlockReader& reader, int64_t frames, int columns, Progress& progress) {
    const int channels = reader.Format().channels;
    Envelope e;
    e.columns = columns;
    e.low.assign(std::size_t(channels), std::vector<float>(std::size_t(columns), 0.0f));
    e.high = e.low;
    e.rms = e.low;
    std::vector<std::vector<double>> squares(std::size_t(channels), std::vector<double>(std::size_t(columns), 0.0));
    std::vector<int64_t> counts(std::size_t(columns), 0);

    AudioBlock block = reader.MakeBlock();
    int64_t position = 0;
    while (position < frames && reader.Read(block)) {
        const int64_t n = std::min<int64_t>(int64_t(block.Frames()), frames - position);
        for (int64_t i = 0; i < n; ++i) {
            const std::size_t column = std::size_t((position + i) * columns / frames);
            const bool first = counts[column]++ == 0;
            for (int c = 0; c < channels; ++c) {
                const float v = block.Channel(c)[i];
                float& low = e.low[std::size_t(c)][column];
                float& high = e.high[std::size_t(c)][column];
                low = first ? v : std::min(low, v);
                high = first ? v : std::max(high, v);
                squares[std::size_t(c)][column] += double(v) * v;
                e.peak = std::max(e.peak, double(std::fabs(v)));
            }
        }
        position += n;
        progress.Advance(n);
    }
    for (int c = 0; c < channels; ++c)
        for (std::size_t x = 0; x < std::size_t(columns); ++x) {
            if (counts[x] > 0) {
                e.rms[std::size_t(c)][x] = float(std::sqrt(squares[std::size_t(c)][x] / double(counts[x])));
            } else if (x > 0 && int64_t(x) * frames < position * columns) {
                e.low[std::size_t(c)][x] = e.low[std::size_t(c)][x - 1];
                e.high[std::size_t(c)][x] = e.high[std::size_t(c)][x - 1];
                e.rms[std::size_t(c)][x] = e.rms[std::size_t(c)][x - 1];
                counts[x] = counts[x - 1];  // so a later empty column repeats it too
            }
        }
    return e;
}

int SmallestWaveformHeight(int channels) {
    return int(kTitle + kAxis + channels * kSmallestPanel + (channels - 1) * kGap);
}

void DrawWaveform(Canvas& canvas, const std::string& title, BlockReader& reader, int64_t frames, const Marks& marks,
                  bool showMarkLegend, bool showProgress) {
    const int channels = reader.Format().channels;
    const double rate = reader.Format().sampleRate;
    const double width = std::floor(canvas.Width() - kLeft - kRight);
    const double panel = std::floor((canvas.Height() - kTitle - kAxis - (channels - 1) * kGap) / channels);

    Envelope e;
    {
        Progress progress("waveform", frames, int(rate), showProgress);
        e = MeasureEnvelope(reader, frames, int(width), progress);
    }
    // Full scale is ±1; louder float files get an axis that reaches their peak.
    const double reach = e.peak <= 1.0 ? 1.0 : std::ceil(e.peak * 2.0) / 2.0;
    const AxisScale amplitude{-reach, reach, false};
    const AxisScale time{0.0, double(frames) / rate, false};
    cairo_t* cr = canvas.Context();

    canvas.Text(kLeft, 10.0, title, 13.0, kInk, 0.0, 0.0, true);
    if (showMarkLegend) {
        const std::string clicks = "clicks found: " + std::to_string(marks.clicks.size());
        const std::string clips = "clipped runs found: " + std::to_string(marks.clips.size());
        const double right = kLeft + width;
        canvas.Text(right, 11.0, clips, 12.0, kInk, 1.0);
        const double clipsMark = right - canvas.TextWidth(clips, 12.0) - 10.0;
        Triangle(cr, clipsMark, 21.0, false, kClip);
        const double clicksEnd = clipsMark - 22.0;
        canvas.Text(clicksEnd, 11.0, clicks, 12.0, kInk, 1.0);
        Triangle(cr, clicksEnd - canvas.TextWidth(clicks, 12.0) - 10.0, 13.0, true, kClick);
    }

    for (int c = 0; c < channels; ++c) {
        const Rect area{kLeft, kTitle + c * (panel + kGap), width, panel};
        canvas.LeftAxis(area, amplitude, LinearTicks(amplitude, area.height, 28.0),
                        channels == 1 ? "Amplitude (FS)" : "Ch " + std::to_string(c + 1) + " (FS)", true);
        DrawMarks(canvas, area, marks.clips, c, frames, false, kClip);
        DrawMarks(canvas, area, marks.clicks, c, frames, true, kClick);
        const auto y = [&](double v) { return area.Bottom() - amplitude.Fraction(v) * area.height; };
        for (int pass = 0; pass < 2; ++pass) {
            const Rgb& colour = pass == 0 ? kWave : kWaveRms;
            Cairo().set_source_rgb(cr, colour.r, colour.g, colour.b);
            for (int x = 0; x < e.columns; ++x) {
                const double top =
                    pass == 0 ? e.high[std::size_t(c)][std::size_t(x)] : e.rms[std::size_t(c)][std::size_t(x)];
                const double bottom = pass == 0 ? e.low[std::size_t(c)][std::size_t(x)] : -top;
                const double y0 = std::floor(y(top)), y1 = std::max(y0 + 1.0, std::ceil(y(bottom)));
                Cairo().rectangle(cr, area.x + x, y0, 1.0, y1 - y0);
            }
            Cairo().fill(cr);
        }
        if (c == channels - 1)
            canvas.BottomAxis(area, time, TimeTicks(time.high, area.width), TimeAxisTitle(time.high));
    }
}

}  // namespace kesta
