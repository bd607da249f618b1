// Resampler: the rate, order and stride rules; setters ignored while initialised; the table against
// the windowed-sinc formula evaluated in long double (with the Kaiser window's 19-term series and
// its wider half-width); tones against the sine evaluated at each output's source time; the
// response at and beyond the cut-off; output counts; bit-identical output over block partitions and
// instruction-set builds; the linear interpolator against straight lines.

#include "dsp/resample.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

#include "dsp/time/resample_kernels.h"
#include "support/metrics.h"
#include "support/signals.h"

namespace {

using dsp::LinearResample;
using dsp::Resample;
using namespace kesta::test;

// Converts x in blocks of `block` and returns the whole output.
Signal Convert(Resample& r, const Signal& x, int block) {
    Signal out;
    std::vector<float> part(static_cast<std::size_t>(r.GetOutputBufferSize(block)));
    for (std::size_t pos = 0; pos < x.size(); pos += static_cast<std::size_t>(block)) {
        const int n = static_cast<int>(std::min<std::size_t>(static_cast<std::size_t>(block), x.size() - pos));
        const int produced = r.Process(const_cast<float*>(x.data()) + pos, part.data(), n);
        EXPECT_LE(produced, r.GetOutputBufferSize(n));
        out.insert(out.end(), part.begin(), part.begin() + produced);
    }
    return out;
}

Resample Configured(int source, int dest, int order = 255, double floor = 150.0) {
    Resample r;
    r.SetSampleRates(source, dest);
    r.SetFilterOrder(order);
    r.SetNoiseFloor(floor);
    r.Initialize();
    return r;
}

TEST(Resample, RatesGivePhasesStepAndLatency) {
    struct Case {
        int source, dest, phases;
        double step;
        int latency;
    };
    // latency = floor(127 * dest / source); above 1000 phases the step is source * 1000 / dest.
    for (const Case& c :
         {Case{48000, 44100, 147, 160.0, 116}, Case{44100, 48000, 160, 147.0, 138}, Case{96000, 44100, 147, 320.0, 58},
          Case{44100, 96000, 320, 147.0, 276}, Case{44100, 47999, 1000, 44100000.0 / 47999.0, 138},
          Case{8000, 8001, 1000, 8000000.0 / 8001.0, 127}}) {
        Resample r;
        r.SetSampleRates(c.source, c.dest);
        EXPECT_EQ(r.GetPhases(), c.phases) << c.source << " -> " << c.dest;
        EXPECT_DOUBLE_EQ(r.GetStep(), c.step) << c.source << " -> " << c.dest;
        EXPECT_EQ(r.GetLatency(), c.latency) << c.source << " -> " << c.dest;
    }
    Resample r;
    EXPECT_EQ(r.GetPhases(), 0);  // a pass-through until rates are set
    EXPECT_EQ(r.GetLatency(), 116);
    r.SetSampleRates(-1, 0);  // neither rate is taken
    EXPECT_EQ(r.GetSourceSampleRate(), 48000.0f);
    EXPECT_EQ(r.GetDestSampleRate(), 44100.0f);
    r.SetSampleRates(44099.6f, 48000.3f, false);  // rounded to whole hertz
    EXPECT_EQ(r.GetSourceSampleRate(), 44100.0f);
    EXPECT_EQ(r.GetPhases(), 160);
    r.SetSampleRates(48000, 48000);
    EXPECT_EQ(r.GetPhases(), 0);
    EXPECT_EQ(r.GetLatency(), 0);
}

TEST(Resample, OrderIsOddAndStrideAMultipleOfEight) {
    struct Case {
        int request, order, stride;
    };
    for (const Case& c : {Case{255, 255, 256}, Case{256, 255, 256}, Case{128, 127, 128}, Case{2, 1, 8}, Case{9, 9, 16},
                          Case{1024, 1023, 1024}, Case{0, 255, 256}, Case{-7, 255, 256}}) {
        Resample r;
        r.SetSampleRates(44100, 48000);
        r.SetFilterOrder(c.request);
        EXPECT_EQ(r.GetFilterOrder(), c.order) << c.request;
        EXPECT_EQ(r.GetStride(), c.stride) << c.request;
        EXPECT_EQ(r.GetLatency(), static_cast<int>(std::floor((c.order - 1) / 2 * 48000.0 / 44100.0))) << c.request;
    }
}

TEST(Resample, SettersAreIgnoredWhileInitialised) {
    Resample r = Configured(44100, 48000, 63);
    r.SetSampleRates(48000, 44100);
    r.SetFilterOrder(31);
    r.SetNyquistShift(1.0);
    r.SetNoiseFloor(90.0);  // not blocked
    EXPECT_EQ(r.GetSourceSampleRate(), 44100.0f);
    EXPECT_EQ(r.GetPhases(), 160);
    EXPECT_EQ(r.GetFilterOrder(), 63);
    EXPECT_EQ(r.GetNyquistShift(), 0.3);
    EXPECT_EQ(r.GetNoiseFloor(), 90.0);
    r.Deinitialize();
    EXPECT_FALSE(r.IsInitialized());
    EXPECT_EQ(r.GetTableRow(0), nullptr);
    r.SetSampleRates(48000, 44100);
    r.SetFilterOrder(31);
    EXPECT_EQ(r.GetPhases(), 147);
    EXPECT_EQ(r.GetFilterOrder(), 31);
}

// The coefficient formula in long double: sinc of pi t / s over the half-width (order - 1) / 2, a
// Kaiser window over the half-width (order + 1) / 2 with I0 cut at 19 terms, or a Blackman window.
long double Coefficient(int order, double offset, long double s, double floor, int j) {
    const long double pi = std::numbers::pi_v<long double>;
    const int h = (order - 1) / 2;
    const long double t = (j - h) - static_cast<long double>(offset);
    const long double a = pi * t / s;
    const long double sinc = a == 0 ? 1.0L : std::sin(a) / a;
    long double w;
    if (floor >= 60) {
        auto i0 = [](long double z) {
            long double sum = 1, term = 1;
            for (int k = 1; k <= 19; ++k) {
                term *= z / 2 / k;
                sum += term * term;
            }
            return sum;
        };
        const long double beta = 0.1102L * (floor - 8.7L), u = t / ((order + 1) / 2);
        w = i0(beta * std::sqrt(1 - u * u)) / i0(beta);
    } else {
        w = 0.42L + 0.5L * std::cos(pi * t / h) + 0.08L * std::cos(2 * pi * t / h);
    }
    return w * sinc / s;
}

TEST(Resample, TableRowsFollowTheWindowedSinc) {
    struct Case {
        int source, dest, order;
        double floor, shift;
    };
    for (const Case& c : {Case{44100, 48000, 31, 150.0, 0.3}, Case{48000, 44100, 33, 150.0, 0.3},
                          Case{48000, 32000, 17, 40.0, 0.3}, Case{32000, 48000, 21, 59.0, 1.0}}) {
        Resample r;
        r.SetSampleRates(c.source, c.dest);
        r.SetFilterOrder(c.order);
        r.SetNoiseFloor(c.floor);
        r.SetNyquistShift(c.shift);
        r.Initialize();
        const long double L = r.GetPhases(), step = r.GetStep(), K = 12.5L / c.order;
        const long double s =
            c.source <= c.dest ? L / (L - c.shift * 0.6L * K * L) : step / (L - (c.shift - 0.31L) * K * step);
        double worst = 0.0;
        for (int i = 0; i < r.GetPhases(); ++i) {
            const double* row = r.GetTableRow(i);
            for (int j = 0; j < r.GetStride(); ++j) {
                const long double expected =
                    j < c.order ? Coefficient(c.order, i / static_cast<double>(L), s, c.floor, j) : 0;
                worst = std::max(worst, static_cast<double>(std::fabs(row[j] - expected)));
            }
        }
        EXPECT_LT(worst, 1e-14) << c.source << " -> " << c.dest << " order " << c.order << " floor " << c.floor;
    }
}

// Output k against the input tone at source time (k - latency) / dest: the largest and the RMS
// difference, once the filter has filled.
struct ToneError {
    double worst = 0.0, rms = 0.0;
};

ToneError DelayedToneError(Resample& r, int source, int dest, double frequency, std::size_t frames) {
    const Signal out = Convert(r, Sine(frames, frequency, source, 0.5), 4096);
    const int latency = r.GetLatency();
    ToneError e;
    std::size_t count = 0;
    for (std::size_t k = static_cast<std::size_t>(2 * latency + 8); k + 8 < out.size(); ++k, ++count) {
        const double t = (static_cast<double>(k) - latency) / dest;
        const double d = std::fabs(out[k] - 0.5 * std::sin(2 * std::numbers::pi * frequency * t));
        e.worst = std::max(e.worst, d);
        e.rms += d * d;
    }
    e.rms = std::sqrt(e.rms / static_cast<double>(count));
    return e;
}

TEST(Resample, TonesComeOutDelayedByExactlyTheLatency) {
    struct Case {
        int source, dest, order;
        double floor, frequency, worst, rms;
    };
    // The double loop's bounds are the float output's rounding for the integer steps; the
    // 1000-phase conversions blend two phases, whose straight line misses the sinc's curvature by
    // about 1e-6 at 1 kHz. Floors to 140 dB run in single precision, whose rounding noise must stay
    // near -140 dB of the tone (an RMS of 3.5e-8), a few times the float output's own.
    for (const Case& c :
         {Case{44100, 48000, 255, 150.0, 1000.0, 1e-7, 2e-8}, Case{48000, 44100, 255, 150.0, 1000.0, 1e-7, 2e-8},
          Case{96000, 44100, 1023, 150.0, 5000.0, 1e-7, 2e-8}, Case{44100, 96000, 255, 150.0, 15000.0, 1e-6, 1e-7},
          Case{44100, 47999, 255, 150.0, 1000.0, 3e-6, 1e-6}, Case{48000, 8000, 255, 150.0, 440.0, 1e-7, 2e-8},
          Case{48000, 44100, 185, 130.0, 1000.0, 3e-7, 4e-8}, Case{44100, 48000, 171, 130.0, 1000.0, 3e-7, 4e-8},
          Case{96000, 44100, 371, 140.0, 5000.0, 3e-7, 4e-8}, Case{96000, 48000, 341, 130.0, 5000.0, 3e-7, 4e-8},
          Case{32000, 48000, 171, 130.0, 1000.0, 3e-7, 4e-8}, Case{44100, 96000, 171, 90.0, 1000.0, 1e-5, 1e-5}}) {
        Resample r = Configured(c.source, c.dest, c.order, c.floor);
        const ToneError e = DelayedToneError(r, c.source, c.dest, c.frequency, static_cast<std::size_t>(c.source / 5));
        EXPECT_LT(e.worst, c.worst) << c.source << " -> " << c.dest << " floor " << c.floor;
        EXPECT_LT(e.rms, c.rms) << c.source << " -> " << c.dest << " floor " << c.floor;
    }
}

TEST(Resample, BlocksOfAnySizeGiveTheSameBits) {
    // Every inner loop: single precision with aligned, unaligned and even steps, double, and
    // blended phases; the block sizes change which windows are computed together and where the
    // held input starts.
    struct Case {
        int source, dest, order;
        double floor;
    };
    const Signal x = WhiteNoise(30000, 31, 0.5);
    for (const Case& c :
         {Case{48000, 44100, 185, 130.0}, Case{44100, 48000, 171, 130.0}, Case{96000, 44100, 371, 90.0},
          Case{44100, 96000, 171, 140.0}, Case{48000, 44100, 241, 150.0}, Case{44100, 47999, 171, 130.0},
          Case{96000, 48000, 341, 130.0}, Case{96000, 16000, 89, 90.0}}) {
        Resample whole = Configured(c.source, c.dest, c.order, c.floor);
        const Signal expected = Convert(whole, x, 100000);
        for (int block : {1, 17, 4096}) {
            Resample r = Configured(c.source, c.dest, c.order, c.floor);
            EXPECT_EQ(Convert(r, x, block), expected) << c.source << " -> " << c.dest << " in blocks of " << block;
        }
        // A copy made mid-stream goes on where the original stands.
        Resample original = Configured(c.source, c.dest, c.order, c.floor);
        Signal joined = Convert(original, Signal(x.begin(), x.begin() + 15000), 4096);
        Resample copy(original);
        const Signal rest = Convert(copy, Signal(x.begin() + 15000, x.end()), 4096);
        joined.insert(joined.end(), rest.begin(), rest.end());
        EXPECT_EQ(joined, expected) << c.source << " -> " << c.dest << " copied mid-stream";
    }
}

TEST(Resample, EqualRatesPassThrough) {
    Resample r;
    r.SetSampleRates(44100, 44100);
    const Signal x = WhiteNoise(1000, 3);
    Signal y(x.size());
    EXPECT_EQ(r.Process(const_cast<float*>(x.data()), y.data(), 1000), 1000);  // no Initialize needed
    EXPECT_EQ(y, x);
    EXPECT_EQ(r.GetLatency(), 0);
}

TEST(Resample, DownsamplingCutsOffAtTheLowerNyquist) {
    // 96 -> 48 kHz: half amplitude (-6.02 dB) at the cut-off source / (2 s), which lies just above
    // 24 kHz (a tone there folds to 48 kHz minus it); the stop band below -(floor) - 6 dB; a larger
    // Nyquist shift lowers the cut-off, and the old one falls deeper into the stop band.
    const int source = 96000, dest = 48000, order = 127;
    const double floor = 100.0, K = 12.5 / order, step = 2.0, L = 1.0;
    const double cutoff = source * (L - (0.3 - 0.31) * K * step) / (2.0 * step);
    auto level = [&](double frequency, double shift) {
        Resample r;
        r.SetSampleRates(source, dest);
        r.SetFilterOrder(order);
        r.SetNoiseFloor(floor);
        r.SetNyquistShift(shift);
        r.Initialize();
        const Signal out = Convert(r, Sine(96000, frequency, source), 100000);
        const double heard = frequency < dest / 2.0 ? frequency : dest - frequency;
        return ToDb(LevelAt(std::span(out).subspan(1000), heard, dest));
    };
    EXPECT_NEAR(level(cutoff, 0.3), -6.02, 0.5);
    EXPECT_LT(level(30000.0, 0.3), -floor - 6.0);
    EXPECT_LT(level(40000.0, 0.3), -floor - 6.0);
    EXPECT_LT(level(cutoff, 3.0), level(cutoff, 0.3) - 6.0);
    EXPECT_GT(level(15000.0, 0.3), -0.001);
}

TEST(Resample, OutputCountIsWithinOneOfTheRatio) {
    for (const auto& [source, dest] : {std::pair{44100, 48000}, std::pair{48000, 44100}, std::pair{96000, 44100},
                                       std::pair{44100, 47999}, std::pair{48000, 1000}}) {
        for (int n : {1, 2, 17, 300, 4096, 44100}) {
            Resample r = Configured(source, dest, 63);
            Signal out(static_cast<std::size_t>(r.GetOutputBufferSize(n)));
            const Signal x = WhiteNoise(static_cast<std::size_t>(n), 5);
            const int produced = r.Process(const_cast<float*>(x.data()), out.data(), n);
            EXPECT_LT(std::fabs(produced - n * static_cast<double>(dest) / source), 1.0)
                << source << " -> " << dest << " n " << n;
        }
    }
}

TEST(Resample, ReinitialisingClearsHistoryAndKeepsOrRebuildsTheTable) {
    const Signal x = WhiteNoise(20000, 12);
    Resample fresh = Configured(44100, 48000, 127);
    const Signal expected = Convert(fresh, x, 20000);

    Resample r = Configured(44100, 48000, 127);
    Convert(r, WhiteNoise(5000, 13), 5000);
    const double* table = r.GetTableRow(0);
    r.Initialize();  // nothing changed: the table stays, the history is cleared
    EXPECT_EQ(r.GetTableRow(0), table);
    EXPECT_EQ(Convert(r, x, 20000), expected);

    r.Deinitialize(true);
    r.SetNoiseFloor(40.0);  // Blackman now: the table is rebuilt
    r.Initialize();
    EXPECT_NE(Convert(r, x, 20000), expected);
}

TEST(Resample, KernelsGiveEachWindowTheSameBitsInEveryBuildAndGroup) {
    // A window's output must not depend on the build or on the windows computed beside it (block
    // partitions regroup them); each precision stays within its rounding of the exact sum.
    using dsp::detail::Isa;
    using dsp::detail::ResampleKernels;
    std::vector<const ResampleKernels*> builds{&dsp::detail::ResampleKernelsFor(Isa::Portable)};
    if (dsp::detail::IsaAvailable(Isa::Avx2Fma)) builds.push_back(&dsp::detail::ResampleKernelsFor(Isa::Avx2Fma));
    constexpr int kMaxTaps = 1024, kWindows = 7, kApart = 147;
    alignas(64) static double taps[kMaxTaps];
    alignas(64) static float tapsSingle[kMaxTaps];
    std::vector<float> x(kMaxTaps + kWindows * kApart + 8);
    Random random(21);
    for (int j = 0; j < kMaxTaps; ++j) {
        taps[j] = random.Gaussian() / (1.0 + std::abs(j - 90));
        tapsSingle[j] = static_cast<float>(taps[j]);
    }
    for (float& v : x)
        v = static_cast<float>(random.Gaussian());
    for (int count : {8, 24, 184, 1024})
        for (int offset : {0, 1, 3}) {
            const float* base = x.data() + offset;
            float alone[2][kWindows];
            for (int i = 0; i < kWindows; ++i) {
                long double exact = 0, exactSingle = 0, size = 0;
                for (int j = 0; j < count; ++j) {
                    exact += static_cast<long double>(taps[j]) * base[i * kApart + j];
                    exactSingle += static_cast<long double>(tapsSingle[j]) * base[i * kApart + j];
                    size += std::fabs(static_cast<long double>(taps[j]) * base[i * kApart + j]);
                }
                builds[0]->dotWindows(taps, base + i * kApart, 0, 1, count, &alone[0][i], 1);
                builds[0]->dotWindowsSingle(tapsSingle, base + i * kApart, 0, 1, count, &alone[1][i], 1);
                const double unit = std::fabs(static_cast<double>(exact)) * 0x1p-24;  // the float output
                EXPECT_NEAR(alone[0][i], static_cast<double>(exact), unit + static_cast<double>(size) * 1e-15);
                EXPECT_NEAR(alone[1][i], static_cast<double>(exactSingle), unit + static_cast<double>(size) * 0x1p-21);
                EXPECT_EQ(builds[0]->dot(taps, base + i * kApart, count),
                          builds.back()->dot(taps, base + i * kApart, count));
            }
            for (const ResampleKernels* k : builds)
                for (int windows : {1, 2, 3, 4, 5, 7}) {
                    float out[2][3 * kWindows];
                    k->dotWindows(taps, base, kApart, windows, count, out[0], 3);
                    k->dotWindowsSingle(tapsSingle, base, kApart, windows, count, out[1], 3);
                    for (int i = 0; i < windows; ++i) {
                        EXPECT_EQ(out[0][3 * i], alone[0][i]) << count << " taps, window " << i << " of " << windows;
                        EXPECT_EQ(out[1][3 * i], alone[1][i]) << count << " taps, window " << i << " of " << windows;
                    }
                }
        }
}

TEST(LinearResample, StraightLinesAreReproducedAtEveryRatio) {
    // A ramp interpolated linearly is exact: output k is the ramp at k * in / out, one input
    // sample earlier unless the latency is eaten, and zero-extended before the stream starts.
    for (const auto& [in, out] :
         {std::pair{44100, 48000}, std::pair{48000, 44100}, std::pair{8000, 44100}, std::pair{3, 1}}) {
        for (bool eat : {false, true}) {
            LinearResample r(in, out);
            r.SetEatLatency(eat);
            EXPECT_EQ(r.GetLatency(), eat ? 0 : static_cast<int>(std::lround(static_cast<double>(out) / in)));
            Signal ramp(20000);
            for (std::size_t i = 0; i < ramp.size(); ++i)
                ramp[i] = static_cast<float>(i) / 1024.0f;
            Signal y, part(20000 * static_cast<std::size_t>(out / in + 2));
            Random random(static_cast<uint64_t>(in + eat));
            for (std::size_t pos = 0; pos < ramp.size();) {
                const int n = std::min(random.UniformInt(1, 700), static_cast<int>(ramp.size() - pos));
                const int expected = r.GetProducedFramesByConversion(n);
                ASSERT_EQ(r.Process(ramp.data() + pos, part.data(), n), expected);
                y.insert(y.end(), part.begin(), part.begin() + expected);
                pos += static_cast<std::size_t>(n);
            }
            const double total = (static_cast<double>(ramp.size()) - (eat ? 1 : 0)) * out / in;
            EXPECT_NEAR(static_cast<double>(y.size()), total, 1.0);
            double worst = 0.0;
            for (std::size_t k = 0; k < y.size(); ++k) {
                const double t = static_cast<double>(k) * in / out - (eat ? 0.0 : 1.0);
                worst = std::max(worst, std::fabs(y[k] - std::max(t, 0.0) / 1024.0));
            }
            EXPECT_LT(worst, 1e-5) << in << " -> " << out << (eat ? " eaten" : "");
        }
    }
}

}  // namespace
