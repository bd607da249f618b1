// CaptureNoisePrint: snapshot count and hop, the capture window, per-bin statistics against a
// naive DFT in double, Start keeping frameCount, copies.

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

// The capture window in long double: v(k) with the middle term over N − 1, stored at k + 1 and
// mirrored; 0 at index 0, 1 at N/2.
std::vector<long double> ReferenceWindow(int N) {
    const long double pi = std::numbers::pi_v<long double>;
    std::vector<long double> w(N, 0.0L);
    for (int n = 1; n < N; ++n) {
        const long double k = n < N / 2 ? n - 1 : N - 1 - n;
        w[n] = 0.35875L - 0.48829L * std::cos(2 * pi * k / N) + 0.14128L * std::cos(4 * pi * k / (N - 1)) -
               0.01168L * std::cos(6 * pi * k / N);
    }
    w[N / 2] = 1.0L;
    return w;
}

// Per-bin statistics of snapshots spaced `hop` apart, windowed, by a naive DFT in double.
struct ReferencePrint {
    std::vector<std::vector<double>> rms, min, max;
    std::vector<double> dcMin, dcMax;
};

ReferencePrint NaiveCapture(const Channels& x, int N, int snapshots, int hop) {
    const std::vector<long double> wl = ReferenceWindow(N);
    const std::vector<double> w(wl.begin(), wl.end());
    std::vector<double> cosTable(N), sinTable(N);
    for (int j = 0; j < N; ++j) {
        cosTable[j] = std::cos(2.0 * std::numbers::pi * j / N);
        sinTable[j] = std::sin(2.0 * std::numbers::pi * j / N);
    }
    const double g = 4.0 / N;
    const int bins = N / 2 + 1;
    ReferencePrint ref;
    for (const auto& channel : x) {
        std::vector<double> power(bins, 0.0), lo(bins, kLargestFloat), hi(bins, 0.0);
        double dcLo = kLargestFloat, dcHi = 0.0;
        for (int s = 0; s < snapshots; ++s) {
            const float* frame = channel.data() + static_cast<std::size_t>(s) * hop;
            for (int k = 0; k < bins; ++k) {
                double re = 0.0, im = 0.0;
                for (int n = 0; n < N; ++n) {
                    re += frame[n] * w[n] * cosTable[(k * n) % N];
                    im -= frame[n] * w[n] * sinTable[(k * n) % N];
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

// Feeds blocks of GetDesiredBlockSize() frames as a host does; returns the number of Analyze calls.
int Drive(CaptureNoisePrint& capture, Channels& x) {
    std::vector<float*> ptrs(x.size());
    std::size_t pos = 0;
    int calls = 0;
    for (; !capture.IsCompleted(); ++calls) {
        for (std::size_t c = 0; c < x.size(); ++c)
            ptrs[c] = x[c].data() + pos;
        const int block = static_cast<int>(std::min<std::size_t>(capture.GetDesiredBlockSize(), x[0].size() - pos));
        pos += capture.Analyze(ptrs.data(), static_cast<int>(x.size()), block);
    }
    return calls;
}

void ExpectMatchesReference(const NONOISE& p, const ReferencePrint& ref, int N) {
    for (std::size_t c = 0; c < ref.rms.size(); ++c) {
        SCOPED_TRACE(c);
        const double tol = 1e-11 * *std::max_element(ref.max[c].begin(), ref.max[c].end());
        for (int k = 0; k <= N / 2; ++k) {
            ASSERT_NEAR(p.binRms[c][k], ref.rms[c][k], tol) << "bin " << k;
            ASSERT_NEAR(p.binMin[c][k], ref.min[c][k], tol) << "bin " << k;
            ASSERT_NEAR(p.binMax[c][k], ref.max[c][k], tol) << "bin " << k;
        }
        EXPECT_NEAR(p.dcMin[c], ref.dcMin[c], tol);
        EXPECT_NEAR(p.dcMax[c], ref.dcMax[c], tol);
    }
}

// Every channel has noise, a tone and a DC offset of its own.
Channels TestSignal(int channels, std::size_t frames) {
    Channels x;
    for (int c = 0; c < channels; ++c) {
        kesta::test::Signal s = kesta::test::WhiteNoise(frames, 1000 + c, 0.3);
        const kesta::test::Signal tone = kesta::test::Sine(frames, 1500.0 + 700.0 * c, 44100.0, 0.2 + 0.1 * c);
        for (std::size_t n = 0; n < frames; ++n)
            s[n] += tone[n] + 0.05f * (c + 1);
        x.push_back(s);
    }
    return x;
}

TEST(CaptureNoisePrint, SnapshotCountAndHopFollowTheSelectionLength) {
    struct Case {
        long long length;
        int maxSnapshots, snapshots, hop;
    };
    const Case cases[] = {  // N = 4096, N/3 = 1365
        {4096 + 1365, 4000, 1, 1365},
        {441000, 4000, 320, 1365},
        {4096 + 3, 4000, 1, 3},
        {441000, 3, 8, 54613},  // a cap below 8 acts as 8: (441000 − 4096) / 8
    };
    Channels x = kesta::test::ZeroChannels(2, 54613 + 4096);
    float* ptrs[2] = {x[0].data(), x[1].data()};
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.length);
        Record record(2, 4096, tc.maxSnapshots);
        CaptureNoisePrint capture(&record.p);
        EXPECT_TRUE(capture.SetSelection(0, tc.length));
        capture.Start(nullptr);
        EXPECT_EQ(capture.GetDesiredBlockSize(), std::max(4096, tc.hop));
        int calls = 0;
        for (; !capture.IsCompleted() && calls < 1000; ++calls)
            EXPECT_EQ(capture.Analyze(ptrs, 2, capture.GetDesiredBlockSize()), tc.hop);
        EXPECT_EQ(calls, tc.snapshots);
        EXPECT_EQ(capture.GetProgress(), 100.0f);
        EXPECT_EQ(capture.GetParam()->frameCount, tc.snapshots);
    }
    // Too short: snapshots closer than 3 frames, or none at all.
    Record record(2, 4096);
    CaptureNoisePrint capture(&record.p);
    for (long long length : {4096 + 2, 4096, 1000})
        EXPECT_FALSE(capture.SetSelection(100, length)) << length;
}

TEST(CaptureNoisePrint, WindowIsShiftedByOneIndexWithTheMiddleTermOverNMinusOne) {
    // An impulse at position n has |X[k]| = w[n] in every bin: the print reads off the window. An
    // unshifted window or a middle term over N misses these positions by more than 1e-5.
    constexpr int N = 4096;
    const std::vector<long double> w = ReferenceWindow(N);
    Record record(1, N);
    CaptureNoisePrint capture(&record.p);
    ASSERT_TRUE(capture.SetSelection(0, N + 3));
    for (int n : {0, 1, 2, 512, 1000, 1536, N / 2 - 1, N / 2, N / 2 + 1, 2560, 3000, N - 2, N - 1}) {
        Channels x = kesta::test::ZeroChannels(1, N);
        x[0][n] = 1.0f;
        capture.Start(nullptr);
        Drive(capture, x);
        const double expected = static_cast<double>(w[n]) * (4.0 / N);
        for (int k : {0, 1, 333, N / 2}) {
            EXPECT_NEAR(capture.GetParam()->binMax[0][k], expected, 1e-15 + 1e-12 * expected) << n << " bin " << k;
            EXPECT_EQ(capture.GetParam()->binMin[0][k], capture.GetParam()->binMax[0][k]);
        }
    }
}

TEST(CaptureNoisePrint, StatisticsMatchANaiveDftOfTheWindowedSnapshots) {
    constexpr int N = 512;
    const long long length = N + 13 * 170 + 1;  // 13 snapshots, hop 170
    for (int channels : {2, 3}) {
        SCOPED_TRACE(channels);
        Channels x = TestSignal(channels, length);
        Record record(channels, N);
        record.p.frameCount = 41;  // the capture counts its own snapshots from 0
        CaptureNoisePrint capture(&record.p);
        ASSERT_TRUE(capture.SetSelection(0, length));
        capture.Start(nullptr);
        ASSERT_EQ(Drive(capture, x), 13);
        ASSERT_EQ(capture.GetParam()->frameCount, 13);
        capture.Done();
        ExpectMatchesReference(*capture.GetParam(), NaiveCapture(x, N, 13, 170), N);
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
    CaptureNoisePrint copy(capture);  // taken mid-way, finishes independently

    // Start again: fresh statistics, but frameCount goes on from 2, so Done divides by 3.
    ASSERT_TRUE(capture.SetSelection(0, N + 3));  // 1 snapshot
    capture.Start(nullptr);
    ASSERT_EQ(Drive(capture, x), 1);
    EXPECT_EQ(capture.GetParam()->frameCount, 3);
    capture.Done();
    const ReferencePrint once = NaiveCapture(x, N, 1, 3);
    for (int k = 0; k <= N / 2; ++k) {
        const double expected = once.rms[1][k] / std::sqrt(3.0);
        ASSERT_NEAR(capture.GetParam()->binRms[1][k], expected, 1e-12 * (expected + 1e-3)) << k;
        ASSERT_NEAR(capture.GetParam()->binMax[1][k], once.max[1][k], 1e-12) << k;
    }

    copy.Done();
    ExpectMatchesReference(*copy.GetParam(), NaiveCapture(x, N, 2, 85), N);
    CaptureNoisePrint assigned(&record.p);
    assigned = copy;
    EXPECT_EQ(assigned.GetParam()->binRms[0][10], copy.GetParam()->binRms[0][10]);
    EXPECT_NE(assigned.GetParam()->binRms[0], copy.GetParam()->binRms[0]);
}

}  // namespace
