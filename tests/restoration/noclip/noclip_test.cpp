// Clipping: the record's housekeeping; detection of runs by the level rules (table of small cases,
// runs across blocks, tones clipped at half their peak against runs read off the unclipped tone);
// repair of clipped tones against the unclipped original, with every sample outside the runs
// untouched, at any block size, with the gain stage and limiter, and past ranges too long for a
// block; the fill-in engine on a gap in a tone, and its banded solve against a dense one in every
// build.

#include "dsp/noclip.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "dsp/restoration/noclip/fill_in_kernels.h"
#include "support/metrics.h"
#include "support/signals.h"

namespace {

using dsp::noclip::FindClipping;
using dsp::noclip::NOCLIPPING;
using dsp::noclip::RepairClipping;
using dsp::utils::Range;
using namespace kesta::test;

constexpr double kRate = 44100.0;

NOCLIPPING Record(int channels) {
    NOCLIPPING r;
    dsp::noclip::SetDefaultParameter(&r);
    r.channels = channels;
    dsp::noclip::AllocateArrays(&r);
    return r;
}

// Both passes over x from selection start `start` in blocks of `block` frames; the found ranges.
std::vector<std::vector<Range>> Find(const NOCLIPPING& record, const Channels& x, int block = 4096,
                                     long long start = 0) {
    FindClipping find(&record);
    const long long frames = static_cast<long long>(x[0].size());
    find.SetSelection(start, frames);
    find.Start(nullptr);
    std::vector<float*> data(x.size());
    for (long long pos = 0; !find.IsCompleted();) {
        const int n = static_cast<int>(std::min<long long>(block, frames - pos));
        for (std::size_t c = 0; c < x.size(); ++c)
            data[c] = const_cast<float*>(x[c].data()) + pos;
        find.Analyze(data.data(), static_cast<int>(x.size()), n);
        pos = pos + n >= frames ? 0 : pos + n;
    }
    find.Done();
    return find.GetParam()->foundClips;
}

struct Repaired {
    Channels y;  // aligned with the input
    std::vector<std::vector<Range>> ranges;
};

// Repairs `ranges` in x in one block, the latency's worth of zeros fed at the end and the output
// realigned.
Repaired Repair(NOCLIPPING record, const Channels& x, const std::vector<std::vector<Range>>& ranges, long pre = 320,
                long post = 320) {
    record.repairClips = ranges;
    RepairClipping repair(&record, pre, post);
    repair.SetSelection(0, static_cast<long long>(x[0].size()));
    repair.Start();
    const std::size_t latency = static_cast<std::size_t>(repair.GetLatency()), frames = x[0].size();
    Channels padded = x;
    for (Signal& s : padded)
        s.resize(frames + latency, 0.0f);
    const int channels = static_cast<int>(x.size());
    auto block = [&](float** in, float** out, int n) { repair.Process(in, out, channels, n); };
    const Channels y = RunInBlocks(padded, block, static_cast<int>(padded[0].size()));
    Repaired result{{}, repair.GetParam()->repairClips};
    for (const Signal& s : y)
        result.y.emplace_back(s.begin() + static_cast<std::ptrdiff_t>(latency), s.end());
    return result;
}

Signal Clip(const Signal& x, float level) {
    Signal y = x;
    for (float& v : y)
        v = std::clamp(v, -level, level);
    return y;
}

TEST(NoClipRecord, DefaultsAndCopies) {
    NOCLIPPING r = Record(3);
    EXPECT_EQ(r.fftSize, 32);
    EXPECT_EQ(r.minRunLength, 3);
    EXPECT_EQ(r.gainDb, -12.0f);
    EXPECT_FALSE(r.useFFT);
    EXPECT_EQ(r.tolerancePercent, 10.0f);
    EXPECT_TRUE(r.useLimiter);
    EXPECT_EQ(r.fillInMargin, 64);
    EXPECT_EQ(r.foundClips.size(), 3u);
    EXPECT_EQ(r.repairClips.size(), 3u);
    r.foundClips[1].push_back({5, 3, 0});
    r.repairClips[2].push_back({9, 4, 1});
    for (const bool empty : {true, false}) {
        NOCLIPPING copy = Record(1);
        dsp::noclip::CopyParameter(&r, &copy, empty);
        EXPECT_EQ(copy.channels, 3);
        ASSERT_EQ(copy.foundClips.size(), 3u);
        EXPECT_EQ(copy.foundClips[1].size(), empty ? 0u : 1u);
        ASSERT_EQ(copy.repairClips[2].size(), 1u);
        EXPECT_EQ(copy.repairClips[2][0].start, 9);
    }
    dsp::noclip::FreeArrays(&r);
    EXPECT_TRUE(r.foundClips.empty() && r.repairClips.empty() && r.maxLevel.empty());
}

// Each case: a short channel (peak 1 unless said otherwise), the runs expected.
TEST(FindClipping, RunsFollowTheLevelRules) {
    struct Case {
        const char* what;
        Signal x;
        std::vector<Range> expected;
        int minRun = 3;
    };
    const Case cases[] = {
        {"three at the top", {0.1f, 0.95f, 1.0f, 0.92f, 0.2f}, {{1, 3, 0}}},
        {"two are too few", {0.1f, 1.0f, 1.0f, 0.2f, -0.3f}, {}},
        {"just outside the tolerance", {0.1f, 1.0f, 0.89f, 1.0f, 0.2f}, {}},
        {"bottom run, top run", {-1.0f, -0.95f, -0.99f, 0.0f, 0.97f, 0.9f, 1.0f, 0.5f}, {{0, 3, 0}, {4, 3, 0}}},
        {"top meets bottom", {1.0f, 1.0f, 1.0f, -1.0f, -1.0f, -1.0f, 0.0f}, {{0, 3, 0}, {3, 3, 0}}},
        {"quiet channel", {0.05f, 0.06f, 0.06f, 0.06f, 0.0f, -0.06f}, {}},
        {"run at the end", {0.0f, 0.5f, 1.0f, 1.0f, 0.98f, 1.0f}, {{2, 4, 0}}},
        {"longer minimum", {0.0f, 1.0f, 1.0f, 1.0f, 0.0f, 1.0f, 1.0f, 1.0f, 1.0f}, {{5, 4, 0}}, 4},
    };
    for (const Case& k : cases) {
        NOCLIPPING r = Record(1);
        r.minRunLength = k.minRun;
        for (const int block : {1, 2, 4096}) {
            const auto found = Find(r, Channels{k.x}, block, 1000);
            std::vector<Range> expected = k.expected;
            for (Range& e : expected)
                e.start += 1000;  // positions are absolute
            ASSERT_EQ(found[0].size(), expected.size()) << k.what << ", blocks of " << block;
            for (std::size_t i = 0; i < expected.size(); ++i) {
                EXPECT_EQ(found[0][i].start, expected[i].start) << k.what;
                EXPECT_EQ(found[0][i].length, expected[i].length) << k.what;
            }
        }
    }
}

// A tone of peak 0.9 clipped at 0.45: the runs are exactly the stretches where the unclipped tone
// reaches 0.405 (10 % of the 0.45 peak below it) in magnitude, on either side.
TEST(FindClipping, TonesClippedAtHalfTheirPeak) {
    for (const double f : {100.0, 997.0, 3001.0}) {
        const Signal clean = Sine(20000, f, kRate, 0.9, 0.3);
        const auto found = Find(Record(1), Channels{Clip(clean, 0.45f)}, 1000);
        const float edge = 0.45f - 0.45f * 10.0f / 100.0f;
        std::vector<Range> expected;
        for (std::size_t i = 0; i < clean.size();) {
            const int side = clean[i] >= edge ? 1 : clean[i] <= -edge ? -1 : 0;
            std::size_t j = i + 1;
            while (side != 0 && j < clean.size() && (side > 0 ? clean[j] >= edge : clean[j] <= -edge))
                ++j;
            if (side != 0 && j - i >= 3) expected.push_back({static_cast<long long>(i), static_cast<int>(j - i), 0});
            i = j;
        }
        ASSERT_EQ(found[0].size(), expected.size()) << f;
        for (std::size_t i = 0; i < expected.size(); ++i)
            ASSERT_TRUE(found[0][i].start == expected[i].start && found[0][i].length == expected[i].length)
                << f << " Hz, run " << i;
    }
}

// Error over the runs against the unclipped tone, before and after the repair (0 dB gain, no
// limiter), and every sample outside the runs unchanged; with the fill-in on and off.
TEST(RepairClipping, ClippedTonesComeBackCloseToTheOriginal) {
    struct Case {
        double frequency;
        int margin;
        double minimumDb;  // error reduction over the runs
    };
    // The redraw follows value and slope, not curvature (taken from three samples, curvature sends
    // long runs of real audio far past their true peaks), so a pure tone's lost arc comes back
    // with about a fifth of the error it had clipped (14 dB).
    const Case cases[] = {{100.0, 64, 12.0}, {440.0, 64, 12.0},  {997.0, 64, 12.0},
                          {997.0, 0, 12.0},  {3001.0, 64, 10.0}, {3001.0, 16, 8.0}};
    for (const Case& k : cases) {
        const Signal clean = Sine(30000, k.frequency, kRate, 0.9, 0.3);
        const Signal clipped = Clip(clean, 0.45f);
        NOCLIPPING r = Record(1);
        r.gainDb = 0.0f;
        r.useLimiter = false;
        r.fillInMargin = k.margin;
        const auto ranges = Find(r, Channels{clipped});
        const Repaired out = Repair(r, Channels{clipped}, ranges);
        std::vector<char> inRun(clean.size(), 0);
        for (const Range& range : out.ranges[0]) {
            EXPECT_EQ(range.done, 1);
            std::fill_n(inRun.begin() + range.start, range.length, 1);
        }
        double before = 0.0, after = 0.0;
        std::size_t changedOutside = 0;
        for (std::size_t i = 0; i < clean.size(); ++i) {
            if (inRun[i]) {
                before += std::pow(clipped[i] - clean[i], 2.0);
                after += std::pow(out.y[0][i] - clean[i], 2.0);
            } else {
                changedOutside += out.y[0][i] != clipped[i];
            }
        }
        EXPECT_GE(10.0 * std::log10(before / after), k.minimumDb) << k.frequency << " Hz, margin " << k.margin;
        EXPECT_EQ(changedOutside, 0u) << k.frequency << " Hz";
    }
}

// Stereo programme (tones and noise, clipped), the default record (fill-in, -12 dB, limiter), with
// and without the spectral method: the limiter holds the ceiling, and without it the gain is exact
// outside the runs.
TEST(RepairClipping, GainIsExactOutsideTheRunsAndTheLimiterHoldsTheCeiling) {
    Channels clean = NoiseChannels(2, 40000, 5, 0.05);
    for (int c = 0; c < 2; ++c) {
        const Signal tone = Sine(40000, 180.0 + 70 * c, kRate, 1.2);
        for (std::size_t i = 0; i < tone.size(); ++i)
            clean[c][i] += tone[i];
    }
    Channels clipped;
    for (const Signal& s : clean)
        clipped.push_back(Clip(s, 0.7f));
    for (const bool fft : {false, true}) {
        NOCLIPPING r = Record(2);
        r.useFFT = fft;
        r.fftSize = 64;
        const auto ranges = Find(r, clipped);
        ASSERT_GT(ranges[0].size(), 20u);
        const Repaired whole = Repair(r, clipped, ranges);
        const float ceiling = static_cast<float>(std::pow(10.0, -0.1 / 20.0));
        for (const Signal& s : whole.y)
            EXPECT_LE(Peak(s), ceiling);

        // Without the limiter the output is the input times 10^(-12/20) outside the runs.
        r.useLimiter = false;
        const Repaired plain = Repair(r, clipped, ranges);
        const float gain = static_cast<float>(std::pow(10.0, -12.0 / 20.0));
        std::size_t off = 0;
        for (int c = 0; c < 2; ++c) {
            std::vector<char> inRun(clipped[c].size(), 0);
            for (const Range& range : plain.ranges[c])
                std::fill_n(inRun.begin() + range.start, range.length, 1);
            for (std::size_t i = 0; i < inRun.size(); ++i)
                off += !inRun[i] && plain.y[c][i] != clipped[c][i] * gain;
        }
        EXPECT_EQ(off, 0u);
    }
}

TEST(RepairClipping, LatencyAndRangesThatDoNotFitABlock) {
    long long pre = 0, post = 0;
    RepairClipping::GetPrePostRoll(pre, post);
    EXPECT_EQ(pre, 320);
    EXPECT_EQ(post, 320);
    NOCLIPPING r = Record(1);
    EXPECT_EQ(RepairClipping(&r).GetLatency(), 1280 + 882);
    r.sampleRate = 48000.0f;
    EXPECT_EQ(RepairClipping(&r).GetLatency(), 1280 + 960);
    r.useLimiter = false;
    EXPECT_EQ(RepairClipping(&r).GetLatency(), 1280);

    // A 600-sample run cannot be held with its margins by one block: it is passed over (not done,
    // untouched), and the runs after it are still repaired.
    Signal x = Clip(Sine(8000, 200.0, kRate, 0.6), 0.5f);
    std::fill(x.begin() + 2000, x.begin() + 2600, 0.5f);
    r.gainDb = 0.0f;
    const auto ranges = Find(r, Channels{x});
    const Repaired out = Repair(r, Channels{x}, ranges);
    int longRuns = 0;
    for (const Range& range : out.ranges[0]) {
        const bool tooLong = range.length > 512;
        longRuns += tooLong;
        EXPECT_EQ(range.done, tooLong ? 0 : 1) << range.start;
        const bool same =
            std::equal(x.begin() + range.start, x.begin() + range.start + range.length, out.y[0].begin() + range.start);
        // Runs with good context on both sides come out changed (one right after the long run and
        // one at the very end may be held at their observed level).
        if (tooLong || (range.start > 2700 && range.start < 7900)) {
            EXPECT_EQ(same, tooLong) << range.start;
        }
    }
    EXPECT_EQ(longRuns, 1);
}

// With rolls shorter than the defaults the fill-in's context (twice its length on each side) does
// not reach past every run of a block: such runs are redrawn without it, and nothing is read from
// outside the buffer (the sanitizer build checks the reads). The repair still reduces the error,
// if coarsely where the rolls are much shorter than the low-pass that gives the redraw its slopes.
TEST(RepairClipping, ShortRollsKeepTheFillInInsideTheBuffer) {
    const Signal clean = Sine(20000, 440.0, kRate, 0.9, 0.3);
    const Signal clipped = Clip(clean, 0.45f);
    const std::pair<long, double> cases[] = {{100, 1.0}, {160, 6.0}, {250, 6.0}};  // roll, dB at least
    for (const auto& [roll, minimumDb] : cases) {
        NOCLIPPING r = Record(1);
        r.gainDb = 0.0f;
        r.useLimiter = false;
        const Repaired out = Repair(r, Channels{clipped}, Find(r, Channels{clipped}), roll, roll);
        double before = 0.0, after = 0.0;
        for (std::size_t i = 0; i < clean.size(); ++i) {
            before += std::pow(clipped[i] - clean[i], 2.0);
            after += std::pow(out.y[0][i] - clean[i], 2.0);
        }
        EXPECT_GE(10.0 * std::log10(before / after), minimumDb) << roll;
    }
}

TEST(CFillIn, GapInAToneIsFilledFromItsSurroundings) {
    const Signal clean = Sine(600, 1234.0, kRate, 0.8, 1.0);
    for (const int gap : {4, 12, 30}) {
        Signal x = clean;
        std::fill(x.begin() + 300, x.begin() + 300 + gap, 0.0f);
        dsp::CFillIn fill;
        fill.Init(128, 0);
        ASSERT_TRUE(fill.FillInNow(300, 299 + gap, x.data(), nullptr, 100.0f, 0.0f, nullptr));
        EXPECT_LT(MaxAbsDiff(x, clean), gap > 12 ? 2e-2 : 2e-3) << gap;

        // Masked: only the named samples change; half strength goes half way.
        Signal y = clean;
        bool mask[30];
        for (int i = 0; i < gap; ++i) {
            mask[i] = i % 2 == 0;
            if (mask[i]) y[300 + i] = 0.0f;
        }
        ASSERT_TRUE(fill.FillInNow(300, 299 + gap, y.data(), nullptr, 50.0f, 0.0f, mask));
        for (int i = 0; i < gap; ++i)
            EXPECT_NEAR(y[300 + i], mask[i] ? 0.5 * clean[300 + i] : clean[300 + i], mask[i] ? 1e-3 : 0.0) << gap;
    }
    dsp::CFillIn small;
    small.Init(16, 0);
    Signal x = clean;
    EXPECT_FALSE(small.FillInNow(300, 308, x.data(), nullptr, 100.0f, 0.0f, nullptr));  // 9 > 16 / 2
    EXPECT_EQ(x, clean);
}

// A band matrix of the fill-in's kind (the autocorrelation of a filter, plus a little on the
// diagonal), sizes that are and are not multiples of the vector widths, half-widths wider and
// narrower than the system: each build's solution against Gaussian elimination on the dense
// matrix in long double, and the builds against each other bit for bit.
TEST(CFillIn, BandedSolveMatchesADenseSolveInEveryBuild) {
    using dsp::detail::Isa;
    struct Case {
        int count, p;
    };
    const Case cases[] = {{1, 4}, {7, 32}, {33, 32}, {64, 32}, {61, 5}};
    Random random(11);
    for (const Case& k : cases) {
        std::vector<double> filter(static_cast<std::size_t>(k.p) + 1);
        for (double& f : filter)
            f = random.Gaussian();
        auto c = [&](int gap) {  // sum of filter[i] filter[i + gap]
            double sum = gap == 0 ? 1e-3 : 0.0;
            for (int i = 0; i + gap <= k.p; ++i)
                sum += filter[static_cast<std::size_t>(i)] * filter[static_cast<std::size_t>(i + gap)];
            return sum;
        };
        const int n = k.count;
        std::vector<double> rhs(static_cast<std::size_t>(n));
        for (double& v : rhs)
            v = random.Gaussian();

        std::vector<long double> dense(static_cast<std::size_t>(n * (n + 1)));
        auto at = [&](int r, int col) -> long double& { return dense[static_cast<std::size_t>(r * (n + 1) + col)]; };
        for (int r = 0; r < n; ++r) {
            for (int col = 0; col < n; ++col)
                at(r, col) = std::abs(r - col) <= k.p ? c(std::abs(r - col)) : 0.0L;
            at(r, n) = rhs[static_cast<std::size_t>(r)];
        }
        for (int col = 0; col < n; ++col)
            for (int r = col + 1; r < n; ++r) {
                const long double f = at(r, col) / at(col, col);
                for (int j = col; j <= n; ++j)
                    at(r, j) -= f * at(col, j);
            }
        std::vector<long double> expected(static_cast<std::size_t>(n));
        for (int r = n - 1; r >= 0; --r) {
            long double sum = at(r, n);
            for (int j = r + 1; j < n; ++j)
                sum -= at(r, j) * expected[static_cast<std::size_t>(j)];
            expected[static_cast<std::size_t>(r)] = sum / at(r, r);
        }

        std::vector<std::vector<double>> solutions;
        for (const Isa isa : {Isa::Portable, Isa::Avx2Fma}) {
            if (!dsp::detail::IsaAvailable(isa)) continue;
            const int stride = dsp::fillin::BandStride(k.p);
            std::vector<double> band(static_cast<std::size_t>(n * stride)), column(static_cast<std::size_t>(stride));
            for (int a = 0; a < n; ++a)
                for (int j = std::max(0, a - k.p); j <= a; ++j)
                    band[static_cast<std::size_t>(a * stride + j - a + k.p)] = c(a - j);
            std::vector<double> x = rhs;
            ASSERT_TRUE(dsp::fillin::FillInKernelsFor(isa).solveBanded(band.data(), column.data(), x.data(), n, k.p));
            long double largest = 0.0L, worst = 0.0L;
            for (int i = 0; i < n; ++i) {
                largest = std::max(largest, std::fabs(expected[static_cast<std::size_t>(i)]));
                worst =
                    std::max(worst, std::fabs(x[static_cast<std::size_t>(i)] - expected[static_cast<std::size_t>(i)]));
            }
            EXPECT_LT(static_cast<double>(worst / largest), 1e-9) << n << " unknowns, half-width " << k.p;
            solutions.push_back(x);
        }
        if (solutions.size() == 2) {
            EXPECT_TRUE(solutions[0] == solutions[1]) << n << " unknowns";
        }

        // The dot product, whose four running sums every build keeps alike (also with single-precision
        // samples), and the autocorrelation, each lag of which is summed as the dot product sums it.
        std::vector<double> a(static_cast<std::size_t>(n) + 3), b(a.size());
        for (std::size_t i = 0; i < a.size(); ++i)
            a[i] = random.Gaussian(), b[i] = random.Gaussian();
        const int size = static_cast<int>(a.size()), lags = std::min(size + 2, 2 * k.p + 3);
        const auto& portable = dsp::fillin::FillInKernelsFor(Isa::Portable);
        std::vector<double> byDot(static_cast<std::size_t>(lags), 0.5);
        for (int lag = 0; lag < lags; ++lag)
            byDot[static_cast<std::size_t>(lag)] += portable.dot(a.data() + std::min(lag, size), a.data(), size - lag);
        for (const Isa isa : {Isa::Portable, Isa::Avx2Fma}) {
            if (!dsp::detail::IsaAvailable(isa)) continue;
            const auto& kernels = dsp::fillin::FillInKernelsFor(isa);
            EXPECT_EQ(portable.dot(a.data(), b.data(), size), kernels.dot(a.data(), b.data(), size));
            std::vector<float> single(b.begin(), b.end());
            std::vector<double> widened(single.begin(), single.end());
            EXPECT_EQ(kernels.dotFloat(a.data(), single.data(), size), portable.dot(a.data(), widened.data(), size));
            std::vector<double> r(static_cast<std::size_t>(lags), 0.5);
            kernels.autocorrelation(a.data(), size, lags, r.data());
            EXPECT_TRUE(r == byDot) << size << " samples, " << lags << " lags";
        }
    }
}

}  // namespace
