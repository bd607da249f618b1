#pragma once
// Drawing for kesta's pictures, on cairo: an image in memory, plot panels with labelled axes, a
// colour scale for levels in dB with its legend, and the PNG written through a SafeOutput (so the
// picture appears whole or not at all).

#include <cstdint>
#include <string>
#include <vector>

#include "cairo_library.h"

namespace kesta {

class SafeOutput;

struct Rgb {
    double r = 0.0, g = 0.0, b = 0.0;
};

// Where an axis puts a value: linear, or logarithmic (frequencies), from `low` to `high`.
struct AxisScale {
    double low = 0.0, high = 1.0;
    bool logarithmic = false;

    // 0 at `low`, 1 at `high`.
    double Fraction(double value) const;
    double ValueAt(double fraction) const;
};

struct Tick {
    double value;
    std::string label;
};
// Ticks at round values ("0.5 s" steps, "2k" Hz, 1-2-5 per decade on a log axis), about
// `pixels` / `spacing` of them along an axis `pixels` long.
// Whether a time axis this long is labelled m:ss rather than in seconds; its title either way.
bool UsesClockTime(double seconds);
std::string TimeAxisTitle(double seconds);
std::vector<Tick> TimeTicks(double seconds, double pixels, double spacing = 110.0);
std::vector<Tick> FrequencyTicks(const AxisScale& scale, double pixels, double spacing = 45.0);
std::vector<Tick> LinearTicks(const AxisScale& scale, double pixels, double spacing);

// The colour of a level: `fraction` 0 (the bottom of the range, near black) to 1 (the top, near
// white), through blue, purple, red, orange and yellow, brightness rising all the way.
Rgb LevelColour(double fraction);

struct Rect {
    double x = 0.0, y = 0.0, width = 0.0, height = 0.0;
    double Right() const { return x + width; }
    double Bottom() const { return y + height; }
};

// An RGB picture in memory.
class Canvas {
public:
    Canvas(int width, int height);
    ~Canvas();
    Canvas(const Canvas&) = delete;
    Canvas& operator=(const Canvas&) = delete;

    cairo_t* Context() { return mContext; }
    int Width() const { return mWidth; }
    int Height() const { return mHeight; }

    void Fill(const Rgb& colour);
    void Text(double x, double y, const std::string& text, double size, const Rgb& colour, double alignX = 0.0,
              double alignY = 0.0, bool bold = false);
    double TextWidth(const std::string& text, double size, bool bold = false);
    // Text turned a quarter turn anticlockwise, centred on (x, y).
    void VerticalText(double x, double y, const std::string& text, double size, const Rgb& colour);

    // Axis lines, ticks and their labels below and to the left of `area`, and the axis titles.
    void BottomAxis(const Rect& area, const AxisScale& scale, const std::vector<Tick>& ticks, const std::string& title);
    void LeftAxis(const Rect& area, const AxisScale& scale, const std::vector<Tick>& ticks, const std::string& title,
                  bool grid);

    // A vertical bar of LevelColour from `bottomDb` to `topDb`, with ticks and "dB" units beside it.
    void LevelLegend(const Rect& bar, double bottomDb, double topDb, const std::string& title);

    // Pixels for a plot area, filled row by row (0 = top), painted on Paint.
    class Pixels {
    public:
        Pixels(int width, int height);
        ~Pixels();
        Pixels(const Pixels&) = delete;
        Pixels& operator=(const Pixels&) = delete;
        int Width() const { return mWidth; }
        int Height() const { return mHeight; }
        void Set(int x, int y, const Rgb& colour);
        cairo_surface_t* Surface() { return mSurface; }

    private:
        cairo_surface_t* mSurface;
        int mWidth, mHeight, mStride;
        unsigned char* mData;
    };
    void Paint(Pixels& pixels, const Rect& area);

    // The image as PNG into the output's temporary file (then Commit it); an output error on failure.
    void WritePng(SafeOutput& output);

private:
    int mWidth, mHeight;
    cairo_surface_t* mSurface;
    cairo_t* mContext;
};

// The bounds the picture commands accept for --width and --height.
inline constexpr int kSmallestPicture = 200;
inline constexpr int kLargestPicture = 8000;

}  // namespace kesta
