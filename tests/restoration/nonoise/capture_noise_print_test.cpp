// CaptureNoisePrint: snapshot count and hop, the capture window, per-bin statistics against a
// naive DFT, Start keeping frameCount, copies.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "dsp/nonoise.h"
#include "restoration/restoration_setup.h"

namespace {

using dsp::nonoise::CaptureNoisePrint;
using dsp::nonoise::NONOISE;
using kesta::test::Channels;
using kesta::test::RunCapture;
using Record = kesta::test::Owned<NONOISE>;

constexpr double kLargestFloat = 3.4028234663852886e38;

// One channel's per-bin statistics over snapshots spaced `hop` apart, from a naive DFT of each
// windowed snapshot.
struct Stats {
    std::vector<double> rms, min, max;
    double dcMin = kLargestFloat, dcMax = 0.0;
};

std::vector<Stats> NaiveCapture(const Channels& x, int N, int snapshots, int hop) {
    const std::vector<double> w = kesta::test::PrintWindow(N);
    const double g = 4.0 / N;
    const std::size_t bins = N / 2 + 1;
    std::vector<Stats> ref;
    for (const auto& channel : x) {
        Stats& st = ref.emplace_back(
            Stats{std::vector<double>(bins), std::vector<double>(bins, kLargestFloat), std::vector<double>(bins)});
        for (int s = 0; s < snapshots; ++s) {
            const auto X = kesta::test::NaiveDft(std::span(channel).subspan(s * hop), w, 0, N / 2);
            for (std::size_t k = 0; k < bins; ++k) {
                st.rms[k] += std::norm(X[k]);
                st.min[k] = std::min(st.min[k], std::abs(X[k]) * g);
                st.max[k] = std::max(st.max[k], std::abs(X[k]) * g);
            }
            st.dcMin = std::min(st.dcMin, std::fabs(X[0].real()) * g);
            st.dcMax = std::max(st.dcMax, std::fabs(X[0].real()) * g);
        }
        for (double& p : st.rms)
            p = std::sqrt(p / snapshots) * g;
    }
    return ref;
}

void ExpectMatchesReference(const NONOISE& p, const std::vector<Stats>& ref) {
    for (std::size_t c = 0; c < ref.size(); ++c) {
        SCOPED_TRACE(c);
        const double tol = 1e-11 * *std::max_element(ref[c].max.begin(), ref[c].max.end());
        for (std::size_t k = 0; k < ref[c].rms.size(); ++k) {
            ASSERT_NEAR(p.binRms[c][k], ref[c].rms[k], tol) << "bin " << k;
            ASSERT_NEAR(p.binMin[c][k], ref[c].min[k], tol) << "bin " << k;
            ASSERT_NEAR(p.binMax[c][k], ref[c].max[k], tol) << "bin " << k;
        }
        EXPECT_NEAR(p.dcMin[c], ref[c].dcMin, tol);
        EXPECT_NEAR(p.dcMax[c], ref[c].dcMax, tol);
    }
}

TEST(CaptureNoisePrint, SnapshotCountAndHopFollowTheSelectionLength) {
    struct Case {
        long long length;
        int maxSnapshots, snapshots, hop;
    };
    const Case cases[] = {
        // N = 4096, N/3 = 1365
        {4096 + 1365, 4000, 1, 1365},
        {441000, 4000, 320, 1365},
        {4096 + 3, 4000, 1, 3},
        {441000, 3, 8, 54613},  // a cap below 8 acts as 8: (441000 − 4096) / 8
    };
    Channels x = kesta::test::ZeroChannels(2, 54613 + 4096);
    float* ptrs[2] = {x[0].data(), x[1].data()};
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.length);
        Record record(2, 4096);
        record.r.maxSnapshots = tc.maxSnapshots;
        CaptureNoisePrint capture(&record.r);
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
    CaptureNoisePrint capture(&record.r);
    for (long long length : {4096 + 2, 4096, 1000})
        EXPECT_FALSE(capture.SetSelection(100, length)) << length;
}

TEST(CaptureNoisePrint, WindowIsShiftedByOneIndexWithTheMiddleTermOverNMinusOne) {
    // An impulse at position n has |X[k]| = w[n] in every bin: the print reads off the window. An
    // unshifted window or a middle term over N misses these positions by more than 1e-5.
    constexpr int N = 4096;
    const std::vector<double> w = kesta::test::PrintWindow(N);
    Record record(1, N);
    CaptureNoisePrint capture(&record.r);
    for (int n : {0, 1, 2, 512, 1000, 1536, N / 2 - 1, N / 2, N / 2 + 1, 2560, 3000, N - 2, N - 1}) {
        const Channels x{kesta::test::Impulse(N + 3, n)};
        ASSERT_EQ(RunCapture(capture, x, 0, N + 3).size(), 1u);
        const double expected = w[n] * (4.0 / N);
        for (int k : {0, 1, 333, N / 2}) {
            EXPECT_NEAR(capture.GetParam()->binMax[0][k], expected, 1e-15 + 1e-12 * expected) << n << " bin " << k;
            EXPECT_EQ(capture.GetParam()->binMin[0][k], capture.GetParam()->binMax[0][k]);
        }
    }
}

TEST(CaptureNoisePrint, StatisticsMatchANaiveDftAndASecondCaptureDividesByBothCounts) {
    constexpr int N = 512;
    const long long length = N + 13 * 170 + 1;  // 13 snapshots, hop 170
    for (int channels : {2, 3}) {
        SCOPED_TRACE(channels);
        Channels x = kesta::test::NoiseChannels(channels, length, 1000, 0.3);
        for (int c = 0; c < channels; ++c)  // a DC offset of its own in every channel
            for (float& v : x[c])
                v += 0.05f * (c + 1);
        Record record(channels, N);
        record.r.frameCount = 41;  // the capture counts its own snapshots from 0
        CaptureNoisePrint capture(&record.r);
        ASSERT_EQ(RunCapture(capture, x, 0, length).size(), 13u);
        ASSERT_EQ(capture.GetParam()->frameCount, 13);
        const std::vector<Stats> first = NaiveCapture(x, N, 13, 170);
        ExpectMatchesReference(*capture.GetParam(), first);
        CaptureNoisePrint copy(capture);
        CaptureNoisePrint assigned(&record.r);
        assigned = capture;

        // Start again: fresh statistics, but frameCount goes on from 13, so Done divides by 14.
        ASSERT_EQ(RunCapture(capture, x, 0, N + 3).size(), 1u);
        EXPECT_EQ(capture.GetParam()->frameCount, 14);
        std::vector<Stats> second = NaiveCapture(x, N, 1, 3);
        for (Stats& st : second)
            for (double& v : st.rms)
                v /= std::sqrt(14.0);
        ExpectMatchesReference(*capture.GetParam(), second);
        // The copies own the first capture's print.
        ExpectMatchesReference(*copy.GetParam(), first);
        ExpectMatchesReference(*assigned.GetParam(), first);
    }
}

TEST(CaptureNoisePrint, ChannelsTheHostDidNotPassReadAsSilence) {
    // Mono data with a record left at its default two channels: channel 0 gets the mono print and
    // channel 1 the print of silence (up to rounding), and nothing is read past the one buffer passed (the
    // sanitizers watch). Debug builds stop at the mistake.
    constexpr int N = 512;
    const long long length = N + 4 * 170 + 1;
    const Channels mono = kesta::test::NoiseChannels(1, length, 7, 0.3);
    Record two(2, N);
    CaptureNoisePrint wide(&two.r);
    EXPECT_DEBUG_DEATH(RunCapture(wide, mono, 0, length), "record's channel count");
#ifdef NDEBUG
    const NONOISE& p = *wide.GetParam();
    ExpectMatchesReference(p, NaiveCapture(mono, N, 4, 170));
    const double scale = *std::max_element(p.binMax[0], p.binMax[0] + N / 2 + 1);
    for (int k = 0; k <= N / 2; ++k)  // only the rounding of the pairwise transform leaks across
        ASSERT_LE(p.binMax[1][k], 1e-12 * scale) << "bin " << k;
#endif
}

}  // namespace
