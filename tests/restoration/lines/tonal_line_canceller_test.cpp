// TonalLineCanceller: hum lines found and cancelled under a programme that moves, to the first and
// last second; what holds no steady line passed through bit for bit; the same bits for any block
// partition with lines found.

#include "dsp/tonal_line_canceller.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include "dsp/restoration/lines/line_kernels.h"
#include "support/metrics.h"
#include "support/signals.h"

namespace {

using dsp::TonalLineCanceller;
using kesta::test::Channels;
using kesta::test::GaussianNoise;
using kesta::test::Random;
using kesta::test::Signal;

constexpr int kRate = 44100;
constexpr double kPi = std::numbers::pi;

// x through the canceller in blocks of 1 ... maxBlock frames (seeded), the end marked and the
// latency flushed out; the output aligned with x.
Channels Cancel(TonalLineCanceller& canceller, const Channels& x, int maxBlock, uint64_t seed) {
    const int C = int(x.size()), latency = canceller.GetLatency();
    const std::size_t frames = x[0].size();
    Channels in = x, out(x.size(), Signal(frames + std::size_t(latency)));
    for (Signal& s : in)
        s.resize(frames + std::size_t(latency), 0.0f);
    Random random(seed);
    std::vector<float*> ip(x.size()), op(x.size());
    for (std::size_t pos = 0; pos < in[0].size();) {
        if (pos == frames) canceller.MarkEnd();
        std::size_t n = std::size_t(random.UniformInt(1, maxBlock));
        n = std::min(n, (pos < frames ? frames : in[0].size()) - pos);
        for (int c = 0; c < C; ++c)
            ip[std::size_t(c)] = in[std::size_t(c)].data() + pos, op[std::size_t(c)] = out[std::size_t(c)].data() + pos;
        canceller.Process(ip.data(), op.data(), C, int(n));
        pos += n;
    }
    for (Signal& s : out)
        s.erase(s.begin(), s.begin() + latency);
    return out;
}

// Power at `hz` of a Hann-windowed projection over frames [from, to) of x.
double LinePower(const std::vector<double>& x, double hz, std::size_t from, std::size_t to) {
    double re = 0.0, im = 0.0;
    const double n = double(to - from);
    for (std::size_t i = from; i < to; ++i) {
        const double w = 0.5 - 0.5 * std::cos(2.0 * kPi * (double(i - from) + 0.5) / n);
        const double phase = 2.0 * kPi * std::fmod(hz * double(i) / kRate, 1.0);
        re += w * x[i] * std::cos(phase);
        im -= w * x[i] * std::sin(phase);
    }
    return re * re + im * im;
}

// 50 Hz and its harmonics 2 ... 10 at 0.1/h, phases from the seed.
std::vector<double> Hum(std::size_t frames, uint64_t seed) {
    Random random(seed);
    double phase[11];
    for (double& p : phase)
        p = 2.0 * kPi * random.Uniform();
    std::vector<double> hum(frames);
    for (std::size_t i = 0; i < frames; ++i)
        for (int h = 1; h <= 10; ++h)
            hum[i] += 0.1 / h * std::sin(2.0 * kPi * 50.0 * h * double(i) / kRate + phase[h]);
    return hum;
}

// What is not a line: notes of 0.4 s (370 and 525 Hz in turn, with gaps: 20 Hz and more from a hum line), a glide
// from 1.5 to 3 kHz and a little noise.
Signal Programme(std::size_t frames, uint64_t seed) {
    const Signal noise = GaussianNoise(frames, seed, 1e-3);
    Signal x(frames);
    for (std::size_t i = 0; i < frames; ++i) {
        const double t = double(i) / kRate;
        const int note = int(t / 0.5);
        const double in = t - note * 0.5;
        const double f = note % 2 == 0 ? 370.0 : 525.0;
        const double envelope = in < 0.4 ? std::sin(kPi * in / 0.4) : 0.0;
        const double glide = 1500.0 * std::pow(2.0, t / (double(frames) / kRate));
        x[i] = float(
            0.2 * envelope * std::sin(2.0 * kPi * f * t) +
            0.05 * std::sin(2.0 * kPi * 1500.0 * (double(frames) / kRate) / std::log(2.0) * (glide / 1500.0 - 1.0)) +
            noise[i]);
    }
    return x;
}

// The notes sound 20 and 25 Hz from two of the lines and 20 dB over them: those two are held
// to about 30 dB, the rest fall about 40.
TEST(TonalLineCanceller, HumFallsThirtyDecibelsUnderAProgrammeToTheEnds) {
    const std::size_t frames = 10 * kRate;
    const std::vector<double> hum = Hum(frames, 3);
    const Signal programme = Programme(frames, 4);
    Channels x(1, Signal(frames));
    for (std::size_t i = 0; i < frames; ++i)
        x[0][i] = float(hum[i] + programme[i]);
    TonalLineCanceller canceller(1, kRate);
    const Channels y = Cancel(canceller, x, 3000, 5);

    ASSERT_EQ(canceller.GetLineCount(0), 10);
    std::vector<double> found;
    for (int i = 0; i < 10; ++i)
        found.push_back(canceller.GetLineFrequency(0, i));
    std::sort(found.begin(), found.end());
    for (int h = 1; h <= 10; ++h)
        EXPECT_NEAR(found[std::size_t(h - 1)], 50.0 * h, 0.01) << "harmonic " << h;

    // What is left of each line over the whole file, the first second and the last.
    std::vector<double> residual(frames);
    for (std::size_t i = 0; i < frames; ++i)
        residual[i] = double(y[0][i]) - programme[i];
    const std::size_t second = kRate;
    for (auto [from, to] :
         {std::pair{std::size_t(0), frames}, std::pair{std::size_t(0), second}, std::pair{frames - second, frames}})
        for (int h = 1; h <= 10; ++h) {
            const double left =
                10.0 * std::log10(LinePower(residual, 50.0 * h, from, to) / LinePower(hum, 50.0 * h, from, to));
            EXPECT_LT(left, from == 0 && to == frames ? -30.0 : -25.0)
                << "harmonic " << h << " over frames " << from << " ... " << to;
        }
    // And the programme is kept: all that differs from it lies 30 dB under the hum.
    double error = 0.0, humPower = 0.0;
    for (std::size_t i = 0; i < frames; ++i)
        error += residual[i] * residual[i], humPower += hum[i] * hum[i];
    EXPECT_LT(10.0 * std::log10(error / humPower), -30.0);
}

struct Unsteady {
    std::string name;
    double (*sample)(double t, Random& random);
};

// Nothing here holds its frequency, level and phase for 3 s: no line is found, and the output is
// the input delayed, bit for bit.
TEST(TonalLineCanceller, WhatIsNotSteadyPassesUntouched) {
    const std::vector<Unsteady> rows = {
        {"white noise", [](double, Random& r) { return 0.3 * r.Gaussian(); }},
        {"steady notes of 2 s",
         [](double t, Random&) {
             const double f[] = {220.0, 261.63, 329.63, 392.0, 440.0};
             return 0.3 * std::sin(2.0 * kPi * f[int(t / 2.0) % 5] * t);
         }},
        {"a tone with 5 Hz vibrato",
         [](double t, Random&) {
             return 0.3 * std::sin(2.0 * kPi * (440.0 * t - 0.4 * std::cos(2.0 * kPi * 5.0 * t)));
         }},
        {"a tone swelling 10 dB at 0.5 Hz",
         [](double t, Random&) {
             return 0.3 * std::pow(10.0, 0.25 * std::sin(2.0 * kPi * 0.5 * t)) * std::sin(2.0 * kPi * 440.0 * t);
         }},
        {"a note struck again every 1.5 s",
         [](double t, Random&) {
             const double in = std::fmod(t, 1.5);
             return 0.3 * std::exp(-in) * std::sin(2.0 * kPi * 440.0 * in);
         }},
    };
    for (const Unsteady& row : rows) {
        Random random(7);
        Channels x(2, Signal(10 * kRate));
        for (std::size_t i = 0; i < x[0].size(); ++i)
            for (Signal& s : x)
                s[i] = float(row.sample(double(i) / kRate, random));
        TonalLineCanceller canceller(2, kRate);
        const Channels y = Cancel(canceller, x, 5000, 8);
        EXPECT_EQ(canceller.GetLineCount(0) + canceller.GetLineCount(1), 0) << row.name;
        EXPECT_EQ(x, y) << row.name;
    }
}

TEST(TonalLineCanceller, BlockPartitionDoesNotChangeOutputWithLines) {
    const std::size_t frames = 6 * kRate;
    const std::vector<double> hum = Hum(frames, 9);
    const Signal programme = Programme(frames, 10);
    Channels x(2, Signal(frames));
    for (std::size_t i = 0; i < frames; ++i)
        x[0][i] = float(hum[i] + programme[i]), x[1][i] = float(0.5 * hum[i] - programme[i]);
    TonalLineCanceller whole(2, kRate), pieces(2, kRate);
    const Channels a = Cancel(whole, x, 1 << 20, 1);
    const Channels b = Cancel(pieces, x, 700, 2);
    EXPECT_GT(whole.GetLineCount(0), 5);
    EXPECT_EQ(a, b);
    // Resume starts over: the same bits again.
    pieces.Resume();
    EXPECT_EQ(Cancel(pieces, x, 3, 3), a);
}

// The heterodyne kernel against the sums and the rebuilt line in double, for every build the CPU
// runs, and every build giving the same bits.
TEST(LineKernels, HeterodyneMatchesDoubleAndEveryBuildAgrees) {
    constexpr int n = 1024;
    const double f = 0.0113378, theta = 0.7;  // cycles per frame, start phase
    const Signal x = GaussianNoise(n, 11, 0.5);
    dsp::lines::LinePhasor p;
    for (int j = 0; j < 8; ++j)
        p.re[j] = float(std::cos(theta + 2.0 * kPi * f * j)), p.im[j] = float(std::sin(theta + 2.0 * kPi * f * j));
    p.stepRe = float(std::cos(2.0 * kPi * f * 8)), p.stepIm = float(std::sin(2.0 * kPi * f * 8));
    const dsp::lines::LineRamp ramp{0.3f, -0.2f, 1e-4f, 2e-4f};

    double wantRe = 0.0, wantIm = 0.0;
    Signal want(n);
    for (int i = 0; i < n; ++i) {
        const double a = theta + 2.0 * kPi * f * i, t = i + 0.5;
        wantRe += x[std::size_t(i)] * std::cos(a), wantIm -= x[std::size_t(i)] * std::sin(a);
        want[std::size_t(i)] =
            float(x[std::size_t(i)] - ((ramp.ar + ramp.gr * t) * std::cos(a) - (ramp.ai + ramp.gi * t) * std::sin(a)));
    }
    std::vector<std::pair<Signal, Signal>> results;
    for (auto isa : {dsp::detail::Isa::Portable, dsp::detail::Isa::Avx2Fma}) {
        if (!dsp::detail::IsaAvailable(isa)) continue;
        const dsp::lines::LineKernels& k = dsp::lines::LineKernelsFor(isa);
        Signal dst = x, sums(16), plain(16);
        k.heterodyne(x.data(), dst.data(), n, p, ramp, sums.data(), sums.data() + 8);
        k.heterodyne(x.data(), nullptr, n, p, ramp, plain.data(), plain.data() + 8);
        EXPECT_EQ(sums, plain) << "the sums do not depend on the rebuilding";
        double re = 0.0, im = 0.0;
        for (int j = 0; j < 8; ++j)
            re += sums[std::size_t(j)], im += sums[std::size_t(8 + j)];
        EXPECT_NEAR(re, wantRe, 2e-3) << dsp::detail::IsaName(isa);
        EXPECT_NEAR(im, wantIm, 2e-3) << dsp::detail::IsaName(isa);
        EXPECT_LT(kesta::test::MaxAbsDiff(dst, want), 2e-5) << dsp::detail::IsaName(isa);
        results.emplace_back(dst, sums);
    }
    for (const auto& r : results)
        EXPECT_EQ(r, results.front());
}

}  // namespace
