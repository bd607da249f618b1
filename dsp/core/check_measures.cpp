#include "dsp/check_measures.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <limits>
#include <numbers>

namespace dsp::checks {

std::string Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string text;
    if (length > 0) {
        text.resize(static_cast<std::size_t>(length));
        std::vsnprintf(text.data(), text.size() + 1, format, again);
    }
    va_end(again);
    return text;
}

double ToDb(double linear) {
    return linear > 0.0 ? 20.0 * std::log10(linear) : -std::numeric_limits<double>::infinity();
}

double Rms(std::span<const float> x) {
    if (x.empty()) return 0.0;
    long double sum = 0.0L;
    for (float v : x)
        sum += static_cast<long double>(v) * v;
    return static_cast<double>(std::sqrt(sum / static_cast<long double>(x.size())));
}

// std::max would drop a NaN; it is passed on instead.
double Peak(std::span<const float> x) {
    double peak = 0.0;
    for (float v : x) {
        const double a = std::fabs(static_cast<double>(v));
        if (std::isnan(a)) return a;
        peak = std::max(peak, a);
    }
    return peak;
}

double MaxAbsDiff(std::span<const float> a, std::span<const float> b) {
    const std::size_t n = std::min(a.size(), b.size());
    double diff = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
        const double d = std::fabs(static_cast<double>(a[i]) - b[i]);
        if (std::isnan(d)) return d;
        diff = std::max(diff, d);
    }
    return diff;
}

double LevelAt(std::span<const float> x, double frequency, double sampleRate) {
    const std::size_t n = x.size();
    if (n < 2) return 0.0;
    const double w0 = 2.0 * std::numbers::pi * frequency / sampleRate;
    const double step = 2.0 * std::numbers::pi / static_cast<double>(n - 1);
    long double ss = 0, cc = 0, sc = 0, xs = 0, xc = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const double t = step * static_cast<double>(i);
        const long double w = 0.35875 - 0.48829 * std::cos(t) + 0.14128 * std::cos(2 * t) - 0.01168 * std::cos(3 * t);
        const long double s = std::sin(w0 * static_cast<double>(i));
        const long double c = std::cos(w0 * static_cast<double>(i));
        ss += w * s * s;
        cc += w * c * c;
        sc += w * s * c;
        xs += w * x[i] * s;
        xc += w * x[i] * c;
    }
    // Normal equations of min sum w (x - a sin - b cos)^2.
    const long double det = ss * cc - sc * sc;
    if (det == 0.0L) return 0.0;  // frequency 0 or Nyquist: only one basis function
    const long double a = (xs * cc - xc * sc) / det;
    const long double b = (xc * ss - xs * sc) / det;
    return static_cast<double>(std::sqrt(a * a + b * b));
}

std::vector<float> UniformNoise(std::size_t frames, uint32_t seed, double amplitude) {
    std::vector<float> x(frames);
    uint32_t state = seed;
    for (float& v : x) {
        state = state * 1664525u + 1013904223u;
        v = static_cast<float>(amplitude * (static_cast<double>(state) / 2147483648.0 - 1.0));
    }
    return x;
}

}  // namespace dsp::checks
