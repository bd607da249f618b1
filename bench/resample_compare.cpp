// Resampler quality and speed beside libsoxr (HQ, VHQ) and libsamplerate (best sinc), on the same
// signals in one run, for 48 -> 44.1, 44.1 -> 48, 96 -> 44.1 and 44.1 -> 96 kHz. The anchors are
// linked here only and are optional: a converter whose library is missing prints as such.
//
// Columns:
//  pass20k  gain of a 20 kHz tone, dB
//  ripple   largest minus smallest gain of 24 tones up to 0.9 x the lower Nyquist frequency, dB
//  a23k..   alias (downsampling: a tone at 23, 30, 40 kHz in the input) or image (upsampling: a
//           tone at input rate minus 23, 30, 40 kHz, whose image lands there) level where it is
//           heard in the output, relative to the tone, dBc ("-" where the tone cannot exist)
//  THD+N    residual of a 1 kHz tone at -6 dBFS after fitting that tone and DC, relative to the
//           tone, over the whole output band, dB
//  Msps     input samples per second of one core's CPU time, millions (median of 5 runs of 8 s of
//           noise, blocks of 4096; the streaming only, each converter's set-up not counted)
// Levels are read by a Kaiser-windowed (beta 20, sidelobes near -190 dB) correlation at the
// frequency, so tones 150 dB apart can be told apart.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <numbers>
#include <string>
#include <vector>

#include "cli/commands/resample_quality.h"
#include "dsp/resample.h"
#include "support/signals.h"

#if defined(KESTA_HAVE_SOXR)
#include <soxr.h>
#endif
#if defined(KESTA_HAVE_SAMPLERATE)
#include <samplerate.h>
#endif

namespace {

using kesta::test::Signal;

constexpr int kBlock = 4096;

enum class Kind { Ours, SoxrHq, SoxrVhq, SampleRateBest };

struct Converter {
    std::string name;
    Kind kind;
    const kesta::ResampleQuality* quality = nullptr;
};

bool Available(Kind kind) {
    switch (kind) {
        case Kind::Ours:
            return true;
        case Kind::SoxrHq:
        case Kind::SoxrVhq:
#if defined(KESTA_HAVE_SOXR)
            return true;
#else
            return false;
#endif
        case Kind::SampleRateBest:
#if defined(KESTA_HAVE_SAMPLERATE)
            return true;
#else
            return false;
#endif
    }
    return false;
}

// CPU time of this thread, s: on a shared machine wall time counts other programs' turns too.
double ThreadSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// The whole of x converted in blocks of kBlock (anchors flushed at the end); `seconds`, when
// given, receives the CPU time of the streaming, after the converter is set up.
Signal Convert(const Converter& c, int source, int dest, const Signal& x, double* seconds = nullptr) {
    Signal out;
    out.reserve(static_cast<std::size_t>(static_cast<double>(x.size()) * dest / source) + 2 * kBlock);
    const int chunkOut = static_cast<int>(static_cast<double>(kBlock) * dest / source) + 64;
    std::vector<float> buffer(static_cast<std::size_t>(chunkOut) + 4096);
    if (c.kind == Kind::Ours) {
        dsp::Resample r;
        kesta::ConfigureResample(r, *c.quality, source, dest);
        r.Initialize();
        const double start = ThreadSeconds();
        for (std::size_t pos = 0; pos < x.size(); pos += kBlock) {
            const int n = static_cast<int>(std::min<std::size_t>(kBlock, x.size() - pos));
            const int made = r.Process(const_cast<float*>(x.data()) + pos, buffer.data(), n);
            out.insert(out.end(), buffer.begin(), buffer.begin() + made);
        }
        if (seconds != nullptr) *seconds = ThreadSeconds() - start;
        return out;
    }
#if defined(KESTA_HAVE_SOXR)
    if (c.kind == Kind::SoxrHq || c.kind == Kind::SoxrVhq) {
        const soxr_quality_spec_t q = soxr_quality_spec(c.kind == Kind::SoxrHq ? SOXR_HQ : SOXR_VHQ, 0);
        const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
        const soxr_runtime_spec_t rt = soxr_runtime_spec(1);
        soxr_error_t error = nullptr;
        soxr_t s = soxr_create(source, dest, 1, &error, &io, &q, &rt);
        if (error != nullptr) return out;
        const double start = ThreadSeconds();
        for (std::size_t pos = 0;;) {
            const std::size_t n = pos < x.size() ? std::min<std::size_t>(kBlock, x.size() - pos) : 0;
            std::size_t used = 0, made = 0;
            soxr_process(s, n > 0 ? x.data() + pos : nullptr, n, &used, buffer.data(), buffer.size(), &made);
            out.insert(out.end(), buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(made));
            pos += used;
            if (n == 0 && made == 0) break;
        }
        if (seconds != nullptr) *seconds = ThreadSeconds() - start;
        soxr_delete(s);
        return out;
    }
#endif
#if defined(KESTA_HAVE_SAMPLERATE)
    if (c.kind == Kind::SampleRateBest) {
        int error = 0;
        SRC_STATE* s = src_new(SRC_SINC_BEST_QUALITY, 1, &error);
        if (s == nullptr) return out;
        SRC_DATA d{};
        d.src_ratio = static_cast<double>(dest) / source;
        const double start = ThreadSeconds();
        for (std::size_t pos = 0;;) {
            const std::size_t n = pos < x.size() ? std::min<std::size_t>(kBlock, x.size() - pos) : 0;
            d.data_in = x.data() + pos;
            d.input_frames = static_cast<long>(n);
            d.data_out = buffer.data();
            d.output_frames = static_cast<long>(buffer.size());
            d.end_of_input = n == 0 ? 1 : 0;
            src_process(s, &d);
            out.insert(out.end(), buffer.begin(), buffer.begin() + d.output_frames_gen);
            pos += static_cast<std::size_t>(d.input_frames_used);
            if (n == 0 && d.output_frames_gen == 0) break;
        }
        if (seconds != nullptr) *seconds = ThreadSeconds() - start;
        src_delete(s);
        return out;
    }
#endif
    return out;
}

// The middle of y, away from both ends (start-up and flush).
std::vector<double> Middle(const Signal& y, int rate) {
    const std::size_t skip = static_cast<std::size_t>(rate / 20);
    if (y.size() < 4 * skip) return {};
    return std::vector<double>(y.begin() + static_cast<std::ptrdiff_t>(skip),
                               y.end() - static_cast<std::ptrdiff_t>(skip));
}

// Amplitude of the sinusoid at `frequency` by a Kaiser-windowed correlation (beta 20).
double Level(const std::vector<double>& y, double frequency, int rate) {
    const std::size_t n = y.size();
    if (n < 2) return 0.0;
    static std::vector<double> window;
    if (window.size() != n) {
        const double beta = 20.0, i0 = std::cyl_bessel_i(0.0, beta);
        window.resize(n);
        for (std::size_t i = 0; i < n; ++i) {
            const double u = 2.0 * static_cast<double>(i) / static_cast<double>(n - 1) - 1.0;
            window[i] = std::cyl_bessel_i(0.0, beta * std::sqrt(std::max(0.0, 1.0 - u * u))) / i0;
        }
    }
    const double w = 2.0 * std::numbers::pi * frequency / rate;
    double re = 0.0, im = 0.0, sum = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
        const double win = window[i];
        re += win * y[i] * std::cos(w * static_cast<double>(i));
        im += win * y[i] * std::sin(w * static_cast<double>(i));
        sum += win;
    }
    return 2.0 * std::hypot(re, im) / sum;
}

double Db(double x) {
    return 20.0 * std::log10(std::max(x, 1e-30));
}

// Gain in dB of a tone at `frequency` of amplitude 0.5 lasting `seconds`.
double Gain(const Converter& c, int source, int dest, double frequency, double seconds) {
    const Signal x = kesta::test::Sine(static_cast<std::size_t>(source * seconds), frequency, source, 0.5);
    return Db(Level(Middle(Convert(c, source, dest, x), dest), frequency, dest) / 0.5);
}

// Where a frequency is heard after sampling at `rate`.
double Fold(double frequency, int rate) {
    double f = std::fmod(frequency, static_cast<double>(rate));
    return f > rate / 2.0 ? rate - f : f;
}

// Alias or image level of `target` Hz in dBc; NaN where the probe tone cannot exist.
double AliasLevel(const Converter& c, int source, int dest, double target) {
    const double tone = source > dest ? target : source - target;
    if (tone <= 0.0 || tone >= source / 2.0) return std::nan("");
    const double heard = Fold(target, dest);
    // An upsampled tone stays in the output; its image must be heard elsewhere.
    if (source < dest && std::fabs(heard - tone) < 50.0) return std::nan("");
    const Signal x = kesta::test::Sine(static_cast<std::size_t>(source), tone, source, 0.5);
    return Db(Level(Middle(Convert(c, source, dest, x), dest), heard, dest) / 0.5);
}

// THD+N of a 1 kHz tone at -6 dBFS: least-squares fit of sin, cos and DC at 1 kHz, residual over
// the fitted tone, as RMS ratios in dB.
double ThdN(const Converter& c, int source, int dest) {
    const Signal x = kesta::test::Sine(static_cast<std::size_t>(source), 1000.0, source, 0.5);
    const std::vector<double> y = Middle(Convert(c, source, dest, x), dest);
    const double w = 2.0 * std::numbers::pi * 1000.0 / dest;
    long double m[3][3] = {}, b[3] = {};
    for (std::size_t i = 0; i < y.size(); ++i) {
        const long double v[3] = {std::sin(w * static_cast<double>(i)), std::cos(w * static_cast<double>(i)), 1.0L};
        for (int r = 0; r < 3; ++r) {
            for (int k = 0; k < 3; ++k)
                m[r][k] += v[r] * v[k];
            b[r] += v[r] * y[i];
        }
    }
    for (int p = 0; p < 3; ++p)  // Gauss-Jordan on the (well-conditioned) normal equations
        for (int r = 0; r < 3; ++r) {
            if (r == p) continue;
            const long double f = m[r][p] / m[p][p];
            for (int k = 0; k < 3; ++k)
                m[r][k] -= f * m[p][k];
            b[r] -= f * b[p];
        }
    const long double a = b[0] / m[0][0], bc = b[1] / m[1][1], dc = b[2] / m[2][2];
    long double residual = 0.0L;
    for (std::size_t i = 0; i < y.size(); ++i) {
        const long double fit =
            a * std::sin(w * static_cast<double>(i)) + bc * std::cos(w * static_cast<double>(i)) + dc;
        residual += (y[i] - fit) * (y[i] - fit);
    }
    const long double toneRms = std::sqrt((a * a + bc * bc) / 2.0L);
    return Db(static_cast<double>(std::sqrt(residual / static_cast<long double>(y.size())) / toneRms));
}

// Millions of input samples per second of CPU time: median of 5 runs over 8 s of noise.
double Speed(const Converter& c, int source, int dest) {
    const Signal x = kesta::test::WhiteNoise(static_cast<std::size_t>(source) * 8, 7, 0.5);
    std::vector<double> rates;
    for (int run = 0; run < 5; ++run) {
        double seconds = 0.0;
        const Signal y = Convert(c, source, dest, x, &seconds);
        if (y.empty()) return std::nan("");
        rates.push_back(static_cast<double>(x.size()) / seconds / 1e6);
    }
    std::sort(rates.begin(), rates.end());
    return rates[2];
}

void PrintCell(double v, int width, int precision) {
    if (std::isnan(v))
        std::printf(" %*s", width, "-");
    else
        std::printf(" %*.*f", width, precision, v);
}

}  // namespace

int main() {
    std::vector<Converter> converters;
    for (const kesta::ResampleQuality& q : kesta::kResampleQualities)
        converters.push_back({std::string("kesta ") + q.name, Kind::Ours, &q});
    converters.push_back({"libsoxr HQ", Kind::SoxrHq});
    converters.push_back({"libsoxr VHQ", Kind::SoxrVhq});
    converters.push_back({"libsamplerate best", Kind::SampleRateBest});

    const std::pair<int, int> conversions[] = {{48000, 44100}, {44100, 48000}, {96000, 44100}, {44100, 96000}};
    for (const auto& [source, dest] : conversions) {
        std::printf("\n%g -> %g kHz\n", source / 1000.0, dest / 1000.0);
        std::printf("%-20s %6s %9s %9s %8s %8s %8s %8s %8s %8s\n", "converter", "order", "pass20k", "ripple", "a23k",
                    "a30k", "a40k", "THD+N", "Msps", "x/std");
        double oursSpeed = std::nan("");
        for (const Converter& c : converters) {
            std::printf("%-20s", c.name.c_str());
            if (!Available(c.kind)) {
                std::printf(" (library not installed)\n");
                continue;
            }
            const int order = c.quality != nullptr ? kesta::DesignResample(*c.quality, source, dest).order : 0;
            if (order > 0)
                std::printf(" %6d", order);
            else
                std::printf(" %6s", "");
            PrintCell(Gain(c, source, dest, 20000.0, 0.5), 9, 5);
            const double edge = 0.9 * std::min(source, dest) / 2.0;
            double lo = 1e9, hi = -1e9;
            for (int i = 1; i <= 24; ++i) {
                const double g = Gain(c, source, dest, edge * i / 24.0, 0.25);
                lo = std::min(lo, g);
                hi = std::max(hi, g);
            }
            PrintCell(hi - lo, 9, 6);
            for (double target : {23000.0, 30000.0, 40000.0})
                PrintCell(AliasLevel(c, source, dest, target), 8, 1);
            PrintCell(ThdN(c, source, dest), 8, 1);
            const double speed = Speed(c, source, dest);
            PrintCell(speed, 8, 2);
            if (c.kind == Kind::Ours && c.quality != nullptr &&
                std::string_view(c.quality->name) == kesta::kDefaultResampleQuality)
                oursSpeed = speed;
            PrintCell(c.kind == Kind::Ours ? std::nan("") : speed / oursSpeed, 8, 2);
            std::printf("\n");
            std::fflush(stdout);
        }
    }
    std::printf("\nx/std: the anchor's speed over kesta %s's (above 1: the anchor is faster).\n",
                std::string(kesta::kDefaultResampleQuality).c_str());
    return 0;
}
