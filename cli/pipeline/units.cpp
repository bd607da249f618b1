#include "units.h"

#include <cmath>
#include <cstdio>
#include <limits>

namespace kesta {

double LinearToDb(double linear) {
    return linear > 0.0 ? 20.0 * std::log10(linear) : -std::numeric_limits<double>::infinity();
}

double DbToLinear(double db) {
    return std::pow(10.0, db / 20.0);
}

std::string FormatDb(double db, int decimals, bool showPlus) {
    if (std::isinf(db)) return db < 0 ? "-inf" : "+inf";
    if (std::isnan(db)) return "nan";
    char text[64];
    std::snprintf(text, sizeof(text), showPlus ? "%+.*f" : "%.*f", decimals, db);
    return text;
}

namespace {

std::string Clock(int64_t millis, bool showMillis) {
    const int64_t hours = millis / 3600000, minutes = millis / 60000 % 60, seconds = millis / 1000 % 60;
    char text[64];
    if (showMillis)
        std::snprintf(text, sizeof(text), "%lld:%02lld:%02lld.%03lld", (long long)hours, (long long)minutes,
                      (long long)seconds, (long long)(millis % 1000));
    else if (hours > 0)
        std::snprintf(text, sizeof(text), "%lld:%02lld:%02lld", (long long)hours, (long long)minutes,
                      (long long)seconds);
    else
        std::snprintf(text, sizeof(text), "%lld:%02lld", (long long)minutes, (long long)seconds);
    return text;
}

}  // namespace

std::string FormatLength(int64_t frames, int sampleRate) {
    if (sampleRate <= 0 || frames < 0) return "?";
    // Integer arithmetic, so long files are exact: the nearest millisecond.
    const int64_t whole = frames / sampleRate, rest = frames % sampleRate;
    const int64_t millis = whole * 1000 + (rest * 1000 + sampleRate / 2) / sampleRate;
    return Clock(millis, true);
}

std::string FormatClock(double seconds, bool millis) {
    if (!(seconds >= 0.0)) seconds = 0.0;
    return Clock(int64_t(std::llround(seconds * (millis ? 1000.0 : 1.0))) * (millis ? 1 : 1000), millis);
}

std::string FormatElapsed(double seconds) {
    char text[64];
    if (seconds < 0.01)
        std::snprintf(text, sizeof(text), "%.2f ms", seconds * 1e3);
    else if (seconds < 1.0)
        std::snprintf(text, sizeof(text), "%.1f ms", seconds * 1e3);
    else
        std::snprintf(text, sizeof(text), "%.2f s", seconds);
    return text;
}

}  // namespace kesta
