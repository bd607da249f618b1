#pragma once
// Set-up shared by the noise-print and hiss tests: records that free themselves, streaming from
// Resume, a host-style capture driver, a naive DFT, the noise-print window
// and a synthetic programme of tones in noise.

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <numbers>
#include <span>
#include <vector>

#include "dsp/dsp_analyzer.h"
#include "dsp/overlap_save.h"
#include "support/signals.h"

namespace kesta::test {

inline constexpr double kRate = 44100.0;

// A record with its defaults and arrays for `channels` × `fftSize`, freed on scope exit. The free
// functions are found by argument type, so this serves both record families.
template <class Record>
struct Owned {
    Owned(int channels, int fftSize) {
        SetDefaultParameter(&r);
        r.channels = static_cast<decltype(r.channels)>(channels);
        r.fftSize = static_cast<decltype(r.fftSize)>(fftSize);
        AllocateArrays(&r);
    }
    ~Owned() { FreeArrays(&r); }
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
    Record r{};
};

inline std::span<const float> Part(const Signal& x, std::size_t from, std::size_t count) {
    return std::span<const float>(x).subspan(from, count);
}

// Resume, then x through the process in blocks of `block` frames.
inline Channels Stream(dsp::OverlapSave& process, const Channels& x, int block = 4096) {
    process.Resume();
    const int channels = static_cast<int>(x.size());
    return RunInBlocks(
        x, [&](float** in, float** out, int n) { process.Process(in, out, channels, n); }, block);
}

// Runs a capture over frames [start, start + length) of x as a host does: GetDesiredBlockSize()
// frames from the start, each next block as far on as Analyze says, never reaching past the
// selection end; then Done. Returns the block offsets (none when the selection is refused).
inline std::vector<std::size_t> RunCapture(dsp::DSPAnalyzer& capture, const Channels& x, long long start,
                                           long long length) {
    if (!capture.SetSelection(start, length)) return {};
    capture.Start(nullptr);
    const std::size_t end = start + length;
    Channels block(x.size(), Signal(capture.GetDesiredBlockSize()));
    std::vector<float*> pointers;
    for (Signal& b : block)
        pointers.push_back(b.data());
    std::vector<std::size_t> offsets;
    for (std::size_t pos = start; !capture.IsCompleted() && pos < end;) {
        const std::size_t n = std::min(block[0].size(), end - pos);
        for (std::size_t c = 0; c < x.size(); ++c)
            std::copy_n(x[c].begin() + pos, n, block[c].begin());
        offsets.push_back(pos);
        pos += capture.Analyze(pointers.data(), static_cast<int>(x.size()), static_cast<int>(n));
    }
    capture.Done();
    return offsets;
}

// X[k], k = fromBin ... toBin (entries below fromBin are 0), of x windowed by w, N = w.size();
// frames past x's end read as 0. Summed in long double.
inline std::vector<std::complex<double>> NaiveDft(std::span<const float> x, std::span<const double> w, int fromBin,
                                                  int toBin) {
    const std::size_t N = w.size(), frames = std::min(N, x.size());
    std::vector<long double> cosTable(N), sinTable(N);
    for (std::size_t j = 0; j < N; ++j) {
        cosTable[j] = std::cos(2 * std::numbers::pi_v<long double> * j / N);
        sinTable[j] = std::sin(2 * std::numbers::pi_v<long double> * j / N);
    }
    std::vector<std::complex<double>> X(toBin + 1);
    for (int k = fromBin; k <= toBin; ++k) {
        long double re = 0, im = 0;
        for (std::size_t n = 0; n < frames; ++n) {
            const long double v = static_cast<long double>(x[n]) * w[n];
            re += v * cosTable[(k * n) % N];
            im -= v * sinTable[(k * n) % N];
        }
        X[k] = {static_cast<double>(re), static_cast<double>(im)};
    }
    return X;
}

// The noise-print window, evaluated in long double: v(k) with the middle term over N − 1, stored
// at k + 1 and mirrored; 0 at index 0, 1 at N/2.
inline std::vector<double> PrintWindow(int N) {
    const long double pi = std::numbers::pi_v<long double>;
    std::vector<double> w(N, 0.0);
    for (int n = 1; n < N; ++n) {
        const long double k = n < N / 2 ? n - 1 : N - 1 - n;
        w[n] = 0.35875L - 0.48829L * std::cos(2 * pi * k / N) + 0.14128L * std::cos(4 * pi * k / (N - 1)) -
               0.01168L * std::cos(6 * pi * k / N);
    }
    w[N / 2] = 1.0;
    return w;
}

// Per channel three steady tones and a glide of amplitude 0.1, entering with a 10 ms fade after
// 1.5 s of noise alone; Gaussian white noise `noiseDb` relative to one tone's RMS throughout.
struct Programme {
    static constexpr std::size_t kNoiseOnly = 66150;
    static constexpr std::size_t kFrames = 198450;
    static constexpr double kSteady[2][3] = {{440.0, 1250.0, 3100.0}, {620.0, 1750.0, 4400.0}};
    static constexpr double kGlide[2][2] = {{1500.0, 2800.0}, {2000.0, 4000.0}};

    explicit Programme(double noiseDb) {
        const double noiseRms = 0.1 / std::sqrt(2.0) * std::pow(10.0, noiseDb / 20.0);
        const std::size_t toneFrames = kFrames - kNoiseOnly;
        for (int c = 0; c < 2; ++c) {
            std::vector<Signal> parts;
            for (double f : kSteady[c])
                parts.push_back(Sine(toneFrames, f, kRate, 0.1));
            parts.push_back(LogSweep(toneFrames, kGlide[c][0], kGlide[c][1], kRate, 0.1));
            Signal s = GaussianNoise(kFrames, 77 + c, noiseRms);
            for (const Signal& part : parts)
                for (std::size_t n = 0; n < toneFrames; ++n) {
                    const double fade = n < 441 ? 0.5 - 0.5 * std::cos(std::numbers::pi * n / 441.0) : 1.0;
                    s[kNoiseOnly + n] += static_cast<float>(part[n] * fade);
                }
            x.push_back(s);
        }
    }
    Channels x;
};

}  // namespace kesta::test
