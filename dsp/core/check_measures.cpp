#include "dsp/check_measures.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
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

double ToneAmplitude(const float* x, std::size_t count, double frequency, double sampleRate) {
    const double w0 = 2.0 * std::numbers::pi * frequency / sampleRate;
    double ss = 0, cc = 0, sc = 0, xs = 0, xc = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const double t = 2.0 * std::numbers::pi * static_cast<double>(i) / static_cast<double>(count - 1);
        const double w = 0.35875 - 0.48829 * std::cos(t) + 0.14128 * std::cos(2 * t) - 0.01168 * std::cos(3 * t);
        const double s = std::sin(w0 * static_cast<double>(i));
        const double c = std::cos(w0 * static_cast<double>(i));
        const double v = x[i];
        ss += w * s * s;
        cc += w * c * c;
        sc += w * s * c;
        xs += w * v * s;
        xc += w * v * c;
    }
    const double det = ss * cc - sc * sc;
    const double a = (xs * cc - xc * sc) / det;
    const double b = (xc * ss - xs * sc) / det;
    return std::sqrt(a * a + b * b);
}

double MeanSquare(const float* x, std::size_t count) {
    double sum = 0.0;
    for (std::size_t i = 0; i < count; ++i)
        sum += static_cast<double>(x[i]) * x[i];
    return sum / static_cast<double>(count);
}

double Rms(const float* x, std::size_t count) {
    return std::sqrt(MeanSquare(x, count));
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
