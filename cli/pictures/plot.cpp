#include "plot.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <new>

#include "errors.h"
#include "io/safe_output.h"

namespace kesta {

namespace {

const Rgb kInk{0.15, 0.15, 0.17};
const Rgb kGrid{0.80, 0.80, 0.82};
constexpr double kLabelSize = 12.0;
constexpr double kTitleSize = 13.0;

std::string Printed(const char* format, double value) {
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

// The smallest of 1, 2, 5 times a power of ten that is at least `rough`.
double RoundStep(double rough) {
    const double decade = std::pow(10.0, std::floor(std::log10(rough)));
    for (double m : {1.0, 2.0, 5.0, 10.0})
        if (m * decade >= rough * (1.0 - 1e-9)) return m * decade;
    return 10.0 * decade;
}

// Ticks at the multiples of `step` inside the scale.
std::vector<double> Multiples(double low, double high, double step) {
    std::vector<double> values;
    for (double k = std::ceil(low / step - 1e-9); k * step <= high + step * 1e-9; k += 1.0)
        values.push_back(std::fabs(k * step) < step * 1e-9 ? 0.0 : k * step);
    return values;
}

std::string HertzLabel(double hz) {
    return hz >= 1000.0 ? Printed("%gk", hz / 1000.0) : Printed("%g", hz);
}

std::string ClockLabel(double seconds) {
    const long long whole = std::llround(seconds);
    char text[32];
    if (whole >= 3600)
        std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60, whole % 60);
    else
        std::snprintf(text, sizeof text, "%lld:%02lld", whole / 60, whole % 60);
    return text;
}

cairo_status_t WriteToDescriptor(void* closure, const unsigned char* data, unsigned int length) {
    const int fd = *static_cast<int*>(closure);
    while (length > 0) {
        const ssize_t wrote = ::write(fd, data, length);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote <= 0) return CAIRO_STATUS_WRITE_ERROR;
        data += wrote;
        length -= unsigned(wrote);
    }
    return CAIRO_STATUS_SUCCESS;
}

void SetColour(cairo_t* cr, const Rgb& colour) {
    Cairo().set_source_rgb(cr, colour.r, colour.g, colour.b);
}

}  // namespace

double AxisScale::Fraction(double value) const {
    if (logarithmic) return std::log(value / low) / std::log(high / low);
    return (value - low) / (high - low);
}

double AxisScale::ValueAt(double fraction) const {
    if (logarithmic) return low * std::pow(high / low, fraction);
    return low + fraction * (high - low);
}

bool UsesClockTime(double seconds) {
    return seconds >= 180.0;
}

std::string TimeAxisTitle(double seconds) {
    return UsesClockTime(seconds) ? "Time (min:s)" : "Time (s)";
}

std::vector<Tick> TimeTicks(double seconds, double pixels, double spacing) {
    const double rough = seconds / std::max(1.0, pixels / spacing);
    std::vector<Tick> ticks;
    if (!(rough > 0.0)) return {{0.0, "0"}};
    if (UsesClockTime(seconds)) {
        double step = 3600.0 * RoundStep(rough / 3600.0);
        for (double s : {1.0, 2.0, 5.0, 10.0, 15.0, 30.0, 60.0, 120.0, 300.0, 600.0, 900.0, 1800.0})
            if (s >= rough) {
                step = s;
                break;
            }
        for (double v : Multiples(0.0, seconds, step))
            ticks.push_back({v, ClockLabel(v)});
        return ticks;
    }
    const double step = RoundStep(rough);
    const int decimals = step >= 1.0 ? 0 : int(std::ceil(-std::log10(step) - 1e-9));
    char format[16];
    std::snprintf(format, sizeof format, "%%.%df", decimals);
    for (double v : Multiples(0.0, seconds, step))
        ticks.push_back({v, Printed(format, v)});
    return ticks;
}

std::vector<Tick> LinearTicks(const AxisScale& scale, double pixels, double spacing) {
    const double step = RoundStep((scale.high - scale.low) / std::max(1.0, pixels / spacing));
    std::vector<Tick> ticks;
    for (double v : Multiples(scale.low, scale.high, step))
        ticks.push_back({v, Printed("%g", v)});
    return ticks;
}

std::vector<Tick> FrequencyTicks(const AxisScale& scale, double pixels, double spacing) {
    if (!scale.logarithmic) {
        std::vector<Tick> ticks = LinearTicks(scale, pixels, spacing);
        for (Tick& tick : ticks)
            tick.label = HertzLabel(tick.value);
        return ticks;
    }
    // 1-2-5 in each decade while they stay `spacing` apart, else the decades alone.
    const double decadePixels = pixels / std::log10(scale.high / scale.low);
    const bool fine = decadePixels * std::log10(2.5) >= spacing;
    std::vector<Tick> ticks;
    for (double decade = std::pow(10.0, std::floor(std::log10(scale.low))); decade <= scale.high; decade *= 10.0)
        for (double m : {1.0, 2.0, 5.0}) {
            const double v = m * decade;
            if ((m == 1.0 || fine) && v >= scale.low * (1 - 1e-9) && v <= scale.high * (1 + 1e-9))
                ticks.push_back({v, HertzLabel(v)});
        }
    return ticks;
}

Rgb LevelColour(double fraction) {
    struct Stop {
        double at;
        Rgb colour;
    };
    static const Stop stops[] = {{0.00, {0.00, 0.00, 0.02}}, {0.15, {0.10, 0.05, 0.33}}, {0.35, {0.45, 0.10, 0.50}},
                                 {0.55, {0.80, 0.22, 0.35}}, {0.75, {0.98, 0.52, 0.13}}, {0.90, {0.99, 0.84, 0.33}},
                                 {1.00, {1.00, 1.00, 0.88}}};
    const double t = std::clamp(std::isnan(fraction) ? 0.0 : fraction, 0.0, 1.0);
    for (std::size_t i = 1; i < std::size(stops); ++i)
        if (t <= stops[i].at) {
            const Stop &a = stops[i - 1], &b = stops[i];
            const double u = (t - a.at) / (b.at - a.at);
            return {a.colour.r + u * (b.colour.r - a.colour.r), a.colour.g + u * (b.colour.g - a.colour.g),
                    a.colour.b + u * (b.colour.b - a.colour.b)};
        }
    return stops[std::size(stops) - 1].colour;
}

Canvas::Canvas(int width, int height)
    : mWidth(width),
      mHeight(height),
      mSurface(Cairo().image_surface_create(CAIRO_FORMAT_RGB24, width, height)),
      mContext(Cairo().create(mSurface)) {
    if (Cairo().surface_status(mSurface) == CAIRO_STATUS_NO_MEMORY ||
        Cairo().status(mContext) == CAIRO_STATUS_NO_MEMORY) {
        Cairo().destroy(mContext);
        Cairo().surface_destroy(mSurface);
        throw std::bad_alloc();
    }
    Fill({1.0, 1.0, 1.0});
}

Canvas::~Canvas() {
    Cairo().destroy(mContext);
    Cairo().surface_destroy(mSurface);
}

void Canvas::Fill(const Rgb& colour) {
    SetColour(mContext, colour);
    Cairo().paint(mContext);
}

double Canvas::TextWidth(const std::string& text, double size, bool bold) {
    Cairo().select_font_face(mContext, "sans-serif", CAIRO_FONT_SLANT_NORMAL,
                             bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
    Cairo().set_font_size(mContext, size);
    cairo_text_extents_t extents;
    Cairo().text_extents(mContext, text.c_str(), &extents);
    return extents.x_advance;
}

void Canvas::Text(double x, double y, const std::string& text, double size, const Rgb& colour, double alignX,
                  double alignY, bool bold) {
    TextWidth(text, size, bold);  // selects the font
    cairo_text_extents_t extents;
    Cairo().text_extents(mContext, text.c_str(), &extents);
    // alignY: 0 puts the text's top at y, 0.5 its middle, 1 its baseline-free bottom.
    Cairo().move_to(mContext, x - alignX * extents.x_advance, y - extents.y_bearing - alignY * extents.height);
    SetColour(mContext, colour);
    Cairo().show_text(mContext, text.c_str());
}

void Canvas::VerticalText(double x, double y, const std::string& text, double size, const Rgb& colour) {
    Cairo().save(mContext);
    Cairo().translate(mContext, x, y);
    Cairo().rotate(mContext, -M_PI / 2);
    Text(0.0, 0.0, text, size, colour, 0.5, 0.5);
    Cairo().restore(mContext);
}

void Canvas::BottomAxis(const Rect& area, const AxisScale& scale, const std::vector<Tick>& ticks,
                        const std::string& title) {
    Cairo().set_line_width(mContext, 1.0);
    SetColour(mContext, kInk);
    for (const Tick& tick : ticks) {
        const double x = std::round(area.x + scale.Fraction(tick.value) * area.width) + 0.5;
        Cairo().move_to(mContext, x, area.Bottom());
        Cairo().line_to(mContext, x, area.Bottom() + 5.0);
        Cairo().stroke(mContext);
        Text(x, area.Bottom() + 8.0, tick.label, kLabelSize, kInk, 0.5);
    }
    Text(area.x + area.width / 2, area.Bottom() + 26.0, title, kTitleSize, kInk, 0.5);
}

void Canvas::LeftAxis(const Rect& area, const AxisScale& scale, const std::vector<Tick>& ticks,
                      const std::string& title, bool grid) {
    Cairo().set_line_width(mContext, 1.0);
    for (const Tick& tick : ticks) {
        const double y = std::round(area.Bottom() - scale.Fraction(tick.value) * area.height) + 0.5;
        if (grid) {
            SetColour(mContext, kGrid);
            Cairo().move_to(mContext, area.x, y);
            Cairo().line_to(mContext, area.Right(), y);
            Cairo().stroke(mContext);
        }
        SetColour(mContext, kInk);
        Cairo().move_to(mContext, area.x - 5.0, y);
        Cairo().line_to(mContext, area.x, y);
        Cairo().stroke(mContext);
        Text(area.x - 8.0, y, tick.label, kLabelSize, kInk, 1.0, 0.5);
    }
    VerticalText(area.x - 52.0, area.y + area.height / 2, title, kTitleSize, kInk);
    SetColour(mContext, kInk);
    Cairo().rectangle(mContext, area.x - 0.5, area.y - 0.5, area.width + 1.0, area.height + 1.0);
    Cairo().stroke(mContext);
}

void Canvas::LevelLegend(const Rect& bar, double bottomDb, double topDb, const std::string& title) {
    Pixels pixels(int(bar.width), int(bar.height));
    for (int y = 0; y < pixels.Height(); ++y)
        for (int x = 0; x < pixels.Width(); ++x)
            pixels.Set(x, y, LevelColour(1.0 - (y + 0.5) / pixels.Height()));
    Paint(pixels, bar);
    SetColour(mContext, kInk);
    Cairo().set_line_width(mContext, 1.0);
    Cairo().rectangle(mContext, bar.x - 0.5, bar.y - 0.5, bar.width + 1.0, bar.height + 1.0);
    Cairo().stroke(mContext);
    const AxisScale scale{bottomDb, topDb, false};
    for (const Tick& tick : LinearTicks(scale, bar.height, 28.0)) {
        const double y = std::round(bar.Bottom() - scale.Fraction(tick.value) * bar.height) + 0.5;
        Cairo().move_to(mContext, bar.Right(), y);
        Cairo().line_to(mContext, bar.Right() + 4.0, y);
        Cairo().stroke(mContext);
        Text(bar.Right() + 7.0, y, tick.label, kLabelSize, kInk, 0.0, 0.5);
    }
    Text(bar.x + bar.width / 2, bar.y - 18.0, title, kTitleSize, kInk, 0.5);
}

Canvas::Pixels::Pixels(int width, int height)
    : mSurface(Cairo().image_surface_create(CAIRO_FORMAT_RGB24, std::max(width, 1), std::max(height, 1))),
      mWidth(width),
      mHeight(height),
      mStride(Cairo().image_surface_get_stride(mSurface)),
      mData(Cairo().image_surface_get_data(mSurface)) {
    if (mData == nullptr) {
        Cairo().surface_destroy(mSurface);
        throw std::bad_alloc();
    }
}

Canvas::Pixels::~Pixels() {
    Cairo().surface_destroy(mSurface);
}

void Canvas::Pixels::Set(int x, int y, const Rgb& colour) {
    const auto byte = [](double v) { return uint32_t(std::lround(std::clamp(v, 0.0, 1.0) * 255.0)); };
    auto* pixel = reinterpret_cast<uint32_t*>(mData + std::ptrdiff_t(y) * mStride) + x;
    *pixel = (byte(colour.r) << 16) | (byte(colour.g) << 8) | byte(colour.b);
}

void Canvas::Paint(Pixels& pixels, const Rect& area) {
    Cairo().surface_mark_dirty(pixels.Surface());
    Cairo().save(mContext);
    Cairo().set_source_surface(mContext, pixels.Surface(), area.x, area.y);
    Cairo().rectangle(mContext, area.x, area.y, pixels.Width(), pixels.Height());
    Cairo().fill(mContext);
    Cairo().restore(mContext);
}

void Canvas::WritePng(SafeOutput& output) {
    Cairo().surface_flush(mSurface);
    int fd = output.Descriptor();
    if (Cairo().surface_write_to_png_stream(mSurface, WriteToDescriptor, &fd) != CAIRO_STATUS_SUCCESS)
        throw OutputError("cannot write " + Quoted(output.Target()), "the disk is full or failed",
                          "free some space or choose another place");
}

}  // namespace kesta
