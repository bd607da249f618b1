// CaptureNoisePrint: how a selection becomes snapshots (count, hop, too-short selections, the
// floor of 8 on maxSnapshots); the capture window with its one-index shift and N − 1 middle term;
// per-bin statistics against a naive DFT of the windowed snapshots in double; odd channel counts;
// Start keeping frameCount.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

#include "dsp/nonoise.h"
#include "support/signals.h"

namespace {

using dsp::nonoise::CaptureNoisePrint;
using dsp::nonoise::NONOISE;
using kesta::test::Channels;

constexpr double kLargestFloat = 3.4028234663852886e38;

// A default record of the given shape with arrays; freed by the destructor.
struct Record {
    Record(int channels, int fftSize, int maxSnapshots = 4000) {
        dsp::nonoise::SetDefaultParameter(&p);
        p.channels = static_cast<int16_t>(channels);
        p.fftSize = static_cast<int16_t>(fftSize);
        p.maxSnapshots = maxSnapshots;
        dsp::nonoise::AllocateArrays(&p);
    }
    ~Record() { dsp::nonoise::FreeArrays(&p); }
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;
    NONOISE p;
};

// The capture window evaluated on its own, in long double: v(k) for k = 0 ... N/2 − 2 with the
// middle term over N − 1 (or N when `middleOverN`), stored at k + 1 (or k when `unshifted`) and
// mirrored; 0 at index 0 and 1 at N/2.
std::vector<long double> ReferenceWindow(int N, bool middleOverN = false, bool unshifted = false) {
    const long double pi = std::numbers::pi_v<long double>;
    auto v = [&](int k) {
        const long double x = k;
        const long double middle = middleOverN ? N : N - 1;
        return 0.35875L - 0.48829L * std::cos(2 * pi * x / N) + 0.14128L * std::cos(4 * pi * x / middle) -
               0.01168L * std::cos(6 * pi * x / N);
    };
    std::vector<long double> w(static_cast<std::size_t>(N), 0.0L);
    w[static_cast<std::size_t>(N / 2)] = 1.0L;
    for (int n = 1; n < N; ++n) {
        if (n == N / 2) continue;
        const int k = n < N / 2 ? (unshifted ? n : n - 1) : (unshifted ? N - n : N - 1 - n);
        w[static_cast<std::size_t>(n)] = v(k);
    }
    return w;
}

// Per-bin statistics of `snapshots` snapshots spaced `hop` apart, each windowed and transformed by
// a naive DFT in double: what a print must hold after Done.
struct ReferencePrint {
    std::vector<std::vector<double>> rms, min, max;
    std::vector<double> dcMin, dcMax;
};

ReferencePrint NaiveCapture(const Channels& x, int N, int snapshots, int hop) {
    const std::vector<long double> wl = ReferenceWindow(N);
    std::vector<double> w(wl.begin(), wl.end());
    std::vector<double> cosTable(static_cast<std::size_t>(N)), sinTable(static_cast<std::size_t>(N));
    for (int j = 0; j < N; ++j) {
        cosTable[static_cast<std::size_t>(j)] = std::cos(2.0 * std::numbers::pi * j / N);
        sinTable[static_cast<std::size_t>(j)] = std::sin(2.0 * std::numbers::pi * j / N);
    }
    const double g = 4.0 / N;
    const std::size_t bins = static_cast<std::size_t>(N / 2 + 1);
    ReferencePrint ref;
    for (const auto& channel : x) {
        std::vector<double> power(bins, 0.0), lo(bins, kLargestFloat), hi(bins, 0.0);
        double dcLo = kLargestFloat, dcHi = 0.0;
        for (int s = 0; s < snapshots; ++s) {
            const float* frame = channel.data() + static_cast<std::size_t>(s) * static_cast<std::size_t>(hop);
            for (std::size_t k = 0; k < bins; ++k) {
                double re = 0.0, im = 0.0;
                for (int n = 0; n < N; ++n) {
                    const std::size_t j = (k * static_cast<std::size_t>(n)) % static_cast<std::size_t>(N);
                    const double v = frame[n] * w[static_cast<std::size_t>(n)];
                    re += v * cosTable[j];
                    im -= v * sinTable[j];
                }
                const double p = re * re + im * im;
                power[k] += p;
                lo[k] = std::min(lo[k], std::sqrt(p) * g);
                hi[k] = std::max(hi[k], std::sqrt(p) * g);
                if (k == 0) {
                    dcLo = std::min(dcLo, std::fabs(re) * g);
                    dcHi = std::max(dcHi, std::fabs(re) * g);
                }
            }
        }
        for (double& p : power)
            p = std::sqrt(p / snapshots) * g;
        ref.rms.push_back(power);
        ref.min.push_back(lo);
        ref.max.push_back(hi);
        ref.dcMin.push_back(dcLo);
        ref.dcMax.push_back(dcHi);
    }
    return ref;
}

// Feeds the capture as a host does: blocks of GetDesiredBlockSize() frames (fewer at the end),
// each starting the returned number of frames after the last. Returns the number of Analyze calls.
int Drive(CaptureNoisePrint& capture, Channels& x, int limit = 100000) {
    const std::size_t frames = x[0].size();
    std::vector<float*> ptrs(x.size());
    std::size_t pos = 0;
    int calls = 0;
    while (!capture.IsCompleted() && calls < limit) {
        for (std::size_t c = 0; c < x.size(); ++c)
            ptrs[c] = x[c].data() + pos;
        const int block = static_cast<int>(std::min<std::size_t>(capture.GetDesiredBlockSize(), frames - pos));
        pos += static_cast<std::size_t>(capture.Analyze(ptrs.data(), static_cast<int>(x.size()), block));
        ++calls;
    }
    return calls;
}

void ExpectMatchesReference(const NONOISE& p, const ReferencePrint& ref, int N) {
    for (std::size_t c = 0; c < ref.rms.size(); ++c) {
        const double scale = *std::max_element(ref.max[c].begin(), ref.max[c].end());
        const double tol = 1e-11 * scale;
        for (int k = 0; k <= N / 2; ++k) {
            const std::size_t i = static_cast<std::size_t>(k);
            ASSERT_NEAR(p.binRms[c][k], ref.rms[c][i], tol) << "channel " << c << " bin " << k;
            ASSERT_NEAR(p.binMin[c][k], ref.min[c][i], tol) << "channel " << c << " bin " << k;
            ASSERT_NEAR(p.binMax[c][k], ref.max[c][i], tol) << "channel " << c << " bin " << k;
        }
        EXPECT_NEAR(p.dcMin[c], ref.dcMin[c], tol) << "channel " << c;
        EXPECT_NEAR(p.dcMax[c], ref.dcMax[c], tol) << "channel " << c;
    }
}

// Channel c: seeded noise plus a tone and a DC offset of its own, so every statistic differs
// between channels.
Channels TestSignal(int channels, std::size_t frames) {
    Channels x;
    for (int c = 0; c < channels; ++c) {
        kesta::test::Signal s = kesta::test::WhiteNoise(frames, 1000 + static_cast<uint64_t>(c), 0.3);
        const kesta::test::Signal tone = kesta::test::Sine(frames, 1500.0 + 700.0 * c, 44100.0, 0.2 + 0.1 * c);
        for (std::size_t n = 0; n < frames; ++n)
            s[n] += tone[n] + 0.05f * static_cast<float>(c + 1);
        x.push_back(s);
    }
    return x;
}

TEST(CaptureNoisePrint, SnapshotCountAndHopFollowTheSelectionLength) {
    struct Case {
        long long length;
        int maxSnapshots;
        int snapshots;
        int hop;
    };
    // N = 4096, N/3 = 1365.
    const Case cases[] = {
        {4096 + 1365, 4000, 1, 1365},
        {441000, 4000, 320, 1365},
        {4096 + 3, 4000, 1, 3},
        {441000, 3, 8, 54613},  // a cap below 8 acts as 8: (441000 − 4096) / 8
    };
    Channels x = kesta::test::ZeroChannels(2, 54613 + 4096);
    for (const Case& tc : cases) {
        Record record(2, 4096, tc.maxSnapshots);
        CaptureNoisePrint capture(&record.p);
        EXPECT_TRUE(capture.SetSelection(0, tc.length)) << tc.length;
        capture.Start(nullptr);
        EXPECT_EQ(capture.GetDesiredBlockSize(), std::max(4096, tc.hop));
        EXPECT_FALSE(capture.IsCompleted());
        EXPECT_EQ(capture.GetProgress(), 0.0f);
        std::vector<float*> ptrs = {x[0].data(), x[1].data()};
        int calls = 0;
        while (!capture.IsCompleted() && calls < 1000) {
            EXPECT_EQ(capture.Analyze(ptrs.data(), 2, capture.GetDesiredBlockSize()), tc.hop);
            ++calls;
            if (2 * calls == tc.snapshots) {
                EXPECT_EQ(capture.GetProgress(), 50.0f);
            }
        }
        EXPECT_EQ(calls, tc.snapshots) << tc.length;
        EXPECT_EQ(capture.GetProgress(), 100.0f);
        EXPECT_EQ(capture.GetParam()->frameCount, tc.snapshots);
    }

    // Too short: snapshots closer than 3 frames, or none at all.
    Record record(2, 4096);
    CaptureNoisePrint capture(&record.p);
    EXPECT_FALSE(capture.SetSelection(0, 4096 + 2));
    EXPECT_FALSE(capture.SetSelection(0, 4096));
    EXPECT_FALSE(capture.SetSelection(100, 1000));
    EXPECT_TRUE(capture.SetSelection(100, 4096 + 3));
}

TEST(CaptureNoisePrint, WindowIsShiftedByOneIndexWithTheMiddleTermOverNMinusOne) {
    // An impulse of height 1 at position n of a snapshot has |X[k]| = w[n] in every bin, so one
    // snapshot per position reads the window off the print.
    constexpr int N = 4096;
    const std::vector<long double> w = ReferenceWindow(N);
    const std::vector<long double> overN = ReferenceWindow(N, true, false);
    const std::vector<long double> unshifted = ReferenceWindow(N, false, true);
    const int positions[] = {0, 1, 2, 512, 1000, 1536, N / 2 - 1, N / 2, N / 2 + 1, 2560, 3000, N - 2, N - 1};

    Record record(1, N);
    CaptureNoisePrint capture(&record.p);
    ASSERT_TRUE(capture.SetSelection(0, N + 3));
    for (int n : positions) {
        Channels x = kesta::test::ZeroChannels(1, N);
        x[0][static_cast<std::size_t>(n)] = 1.0f;
        capture.Start(nullptr);
        Drive(capture, x);
        const NONOISE* p = capture.GetParam();
        const double expected = static_cast<double>(w[static_cast<std::size_t>(n)]) * (4.0 / N);
        for (int k : {0, 1, 333, N / 2}) {
            EXPECT_NEAR(p->binMax[0][k], expected, 1e-15 + 1e-12 * expected) << "position " << n << " bin " << k;
            EXPECT_EQ(p->binMin[0][k], p->binMax[0][k]);
        }
    }
    // The readings above tell the variants apart: at these positions the unshifted window and the
    // one with every term over N differ from the expected value by far more than the tolerance.
    for (int n : {1000, 3000})
        EXPECT_GT(std::fabs(unshifted[n] - w[n]), 1e-5L);
    for (int n : {512, 1536, 2560})
        EXPECT_GT(std::fabs(overN[n] - w[n]), 1e-5L);
}

TEST(CaptureNoisePrint, StatisticsMatchANaiveDftOfTheWindowedSnapshots) {
    constexpr int N = 512;
    // 13 snapshots: (N + 13·170 + 1 − N − 1) / 170 = 13, hop 170.
    const long long length = N + 13 * 170 + 1;
    for (int channels : {2, 3}) {
        SCOPED_TRACE(channels);
        Channels x = TestSignal(channels, static_cast<std::size_t>(length));
        Record record(channels, N);
        record.p.frameCount = 41;  // the capture counts its own snapshots from 0
        CaptureNoisePrint capture(&record.p);
        ASSERT_TRUE(capture.SetSelection(0, length));
        capture.Start(nullptr);
        EXPECT_EQ(capture.GetParam()->binMin[channels - 1][7], kLargestFloat);
        EXPECT_EQ(capture.GetParam()->binMax[channels - 1][7], 0.0);
        EXPECT_EQ(capture.GetParam()->dcMin[0], kLargestFloat);
        ASSERT_EQ(Drive(capture, x), 13);
        ASSERT_EQ(capture.GetParam()->frameCount, 13);
        capture.Done();
        ExpectMatchesReference(*capture.GetParam(), NaiveCapture(x, N, 13, 170), N);
        // Only the real channels carry statistics; the record keeps its shape.
        EXPECT_EQ(capture.GetParam()->channels, channels);
    }
}

TEST(CaptureNoisePrint, StartKeepsFrameCountSoASecondCaptureDividesByBoth) {
    constexpr int N = 256;
    Channels x = TestSignal(2, 4 * N);
    Record record(2, N);
    CaptureNoisePrint capture(&record.p);
    ASSERT_TRUE(capture.SetSelection(0, N + 2 * (N / 3) + 1));  // 2 snapshots, hop 171 / 2 = 85
    capture.Start(nullptr);
    ASSERT_EQ(Drive(capture, x), 2);

    // A copy taken mid-way is independent and finishes the same way.
    CaptureNoisePrint copy(capture);

    // Start again: fresh statistics, but frameCount goes on from 2, so Done divides one
    // snapshot's power by 3.
    ASSERT_TRUE(capture.SetSelection(0, N + 3));  // 1 snapshot
    capture.Start(nullptr);
    ASSERT_EQ(Drive(capture, x), 1);
    EXPECT_EQ(capture.GetParam()->frameCount, 3);
    capture.Done();
    const ReferencePrint once = NaiveCapture(x, N, 1, 3);
    for (int k = 0; k <= N / 2; ++k) {
        const double expected = once.rms[1][static_cast<std::size_t>(k)] / std::sqrt(3.0);
        ASSERT_NEAR(capture.GetParam()->binRms[1][k], expected, 1e-12 * (expected + 1e-3)) << k;
        ASSERT_NEAR(capture.GetParam()->binMax[1][k], once.max[1][static_cast<std::size_t>(k)], 1e-12) << k;
    }

    copy.Done();
    ExpectMatchesReference(*copy.GetParam(), NaiveCapture(x, N, 2, 85), N);
    CaptureNoisePrint assigned(&record.p);
    assigned = copy;
    EXPECT_EQ(assigned.GetParam()->binRms[0][10], copy.GetParam()->binRms[0][10]);
    EXPECT_NE(assigned.GetParam()->binRms[0], copy.GetParam()->binRms[0]);
}

}  // namespace
