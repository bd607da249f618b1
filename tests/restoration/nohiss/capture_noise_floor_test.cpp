// CaptureNoiseFloor against an independent model (a naive DFT of each Hamming-windowed snapshot
// and the smoothing recurrence written out here): geometry, silence, the selection end, floor rows
// and the level band, what Start resets and keeps, copies.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <tuple>
#include <vector>

#include "dsp/nohiss.h"
#include "restoration/restoration_setup.h"

namespace {

using dsp::nohiss::CaptureNoiseFloor;
using dsp::nohiss::NOHISS;
using kesta::test::Channels;
using kesta::test::RunCapture;
using kesta::test::Signal;
using Record = kesta::test::Owned<NOHISS>;

// The capture's window: Hamming over h − 1 (h = N/2) on j = 0..h, mirrored about h.
std::vector<double> CaptureWindow(int N) {
    std::vector<double> w(N);
    for (int n = 0; n < N; ++n)
        w[n] = 0.54 - 0.46 * std::cos((n <= N / 2 ? n : N - n) * std::numbers::pi / (N / 2 - 1.0));
    return w;
}

// The capture as documented, one snapshot at a time.
class ReferenceCapture {
public:
    ReferenceCapture(int N, int C, int lowBin, int highBin)
        : mN(N),
          mLow(lowBin),
          mHigh(highBin),
          mWindow(CaptureWindow(N)),
          mSmooth(C, std::vector<double>(N + 8)),
          mFloor(C, std::vector<double>(N)),
          mLevelSum(C) {}

    // Floor and smoothing cleared below bin N/2 only; level sums and the first-snapshot state carry over.
    void Start() {
        for (std::size_t c = 0; c < mFloor.size(); ++c) {
            std::fill_n(mSmooth[c].begin(), mN / 2 + 4, 0.0);
            std::fill_n(mFloor[c].begin(), mN / 2, 0.0);
        }
        mBlocks = 0;
    }

    void Snapshot(const Channels& x, std::size_t offset) {
        for (std::size_t c = 0; c < mFloor.size(); ++c) {
            // A snapshot reads zeros past the end of x.
            const auto X = kesta::test::NaiveDft(std::span(x[c]).subspan(offset), mWindow, 3, mN / 2);
            double sum = 0.0;
            for (int k = mLow; k <= mHigh; ++k)
                sum += std::abs(X[k]);
            const double mean = sum / (mHigh - mLow + 1);
            mLevelSum[c] += mean > 1e-20 ? 20.0 * std::log10(mean) : -400.0;
            double* S = mSmooth[c].data() + 4;
            for (int k = 3; k <= mN / 2; ++k) {
                const double m = std::abs(X[k]) / (mN / 4.0);
                const double q = 0.1 * S[k - 2] + 0.2 * S[k - 1] + 0.4 * m + 0.2 * S[k + 1] + 0.1 * S[k + 2];
                S[k] = mFirst ? m : (q <= S[k] ? S[k] * 0.65 + 0.35 * q : S[k] * 0.08 + q * 0.92);
                mFloor[c][k] = std::max(mFloor[c][k], S[k]);
            }
        }
        mFirst = false;
        ++mBlocks;
    }

    double Floor(int c, int k) const { return mFloor[c][k]; }
    double Level(int c) const { return mLevelSum[c] / std::max(mBlocks, 1); }

private:
    int mN, mLow, mHigh;
    std::vector<double> mWindow;
    std::vector<std::vector<double>> mSmooth, mFloor;
    std::vector<double> mLevelSum;
    bool mFirst = true;
    int mBlocks = 0;
};

double MaxFloor(const NOHISS& r, int c) {
    return *std::max_element(r.floorRows[c], r.floorRows[c] + r.fftSize);
}

TEST(CaptureNoiseFloor, DefaultGeometryIsHop1638AndBand1114To1857) {
    Record rec(2, 4096);
    CaptureNoiseFloor capture(&rec.r);
    // The band: trunc(4096 · 12000 / 44100) ... trunc(4096 · 20000 / 44100).
    EXPECT_EQ(std::tuple(capture.GetDesiredBlockSize(), capture.GetHop(), capture.GetLowBin(), capture.GetHighBin()),
              std::tuple(4096, 1638, 1114, 1857));

    // At 16 kHz both band edges lie above N/2 and are held there.
    rec.r.sampleRate = 16000;
    CaptureNoiseFloor lowRate(&rec.r);
    EXPECT_EQ(std::tuple(lowRate.GetLowBin(), lowRate.GetHighBin()), std::tuple(2048, 2048));

    // ((V − 1)N/V)/2 in integers: V = 6 gives 3413 / 2 = 1706.
    const int cases[][3] = {{4096, 6, 1706}, {4096, 3, 1365}, {1024, 4, 384}};  // N, V, hop
    for (const auto& tc : cases) {
        Record r(1, tc[0]);
        r.r.overlap = static_cast<int16_t>(tc[1]);
        EXPECT_EQ(CaptureNoiseFloor(&r.r).GetHop(), tc[2]) << "N " << tc[0] << " overlap " << tc[1];
    }
}

TEST(CaptureNoiseFloor, AnalyzeReturnsTheHopThenTheOvershootAndSilenceReadsMinus400Db) {
    Record rec(3, 4096);  // an odd channel count: the last pair is half empty
    CaptureNoiseFloor capture(&rec.r);
    Channels silence = kesta::test::ZeroChannels(3, 4096);
    float* data[3] = {silence[0].data(), silence[1].data(), silence[2].data()};

    // 2 hops + 100 frames from 1000: positions 2638, 4276, then 5914 > 4376. A copy taken after
    // the first block walks on like the original.
    const long long length = 2 * 1638 + 100;
    ASSERT_TRUE(capture.SetSelection(1000, length));
    capture.Start(nullptr);
    EXPECT_EQ(capture.Analyze(data, 3, 4096), 1638);
    CaptureNoiseFloor copy(capture);
    for (CaptureNoiseFloor* c : {&capture, &copy}) {
        for (int expected : {1638, 3 * 1638 - static_cast<int>(length)}) {
            EXPECT_FALSE(c->IsCompleted());
            EXPECT_EQ(c->Analyze(data, 3, 4096), expected);
        }
        EXPECT_TRUE(c->IsCompleted());
        c->Done();
        EXPECT_EQ(c->GetParam()->frameCount, 3);
        for (int ch = 0; ch < 3; ++ch) {
            EXPECT_EQ(c->GetParam()->floorLevel[ch], -400.0f);
            EXPECT_EQ(MaxFloor(*c->GetParam(), ch), 0.0);
        }
    }

    // Landing exactly on the end is not passing it: the hop is returned, and the capture is done.
    ASSERT_TRUE(capture.SetSelection(0, 2 * 1638));
    capture.Start(nullptr);
    EXPECT_EQ(capture.Analyze(data, 3, 4096), 1638);
    EXPECT_EQ(capture.Analyze(data, 3, 4096), 1638);
    EXPECT_TRUE(capture.IsCompleted());
    EXPECT_FLOAT_EQ(capture.GetProgress(), 100.0f);
    EXPECT_EQ(capture.GetParam()->frameCount, 5);  // counted across captures
}

TEST(CaptureNoiseFloor, FloorRowsFollowTheModelAndASecondCaptureContinuesFromTheKeptState) {
    // N = 256 keeps the naive transforms cheap; three channels. The noise level steps up and down
    // between snapshots (fast attack and slow decay); DC and a 20 Hz hum sit in bins 0..2, which
    // are never recorded. The last snapshots reach past the selection and read zeros there.
    constexpr int N = 256, C = 3;
    Record rec(C, N);
    CaptureNoiseFloor capture(&rec.r);
    const int hop = capture.GetHop();
    ASSERT_EQ(hop, 102);  // (4 · 256 / 5) / 2
    const std::size_t frames = 10 * hop + 5;
    Channels x = kesta::test::NoiseChannels(C, frames, 100, 0.1);
    const Signal hum = kesta::test::Sine(frames, 20.0, 44100.0, 0.8);
    for (int c = 0; c < C; ++c)
        for (std::size_t i = 0; i < frames; ++i)
            x[c][i] = static_cast<float>(x[c][i] * ((i / 300) % 2 == 0 ? 1.0 : 0.2) * (c + 1) + 0.3 + hum[i]);

    ReferenceCapture reference(N, C, 69, 116);  // trunc(256 · 12000 / 44100), trunc(256 · 20000 / 44100)
    auto expectMatch = [&](const NOHISS& r) {
        for (int c = 0; c < C; ++c) {
            SCOPED_TRACE(c);
            const double scale = MaxFloor(r, c);
            ASSERT_GT(scale, 0.0);
            for (int k = 0; k < N; ++k)
                ASSERT_NEAR(r.floorRows[c][k], k < 3 || k > N / 2 ? 0.0 : reference.Floor(c, k), 1e-10 * scale) << k;
            EXPECT_NEAR(r.floorLevel[c], reference.Level(c), 1e-4);
        }
    };
    const std::vector<std::size_t> offsets = RunCapture(capture, x, 0, frames);
    ASSERT_EQ(offsets.size(), 11u);
    for (std::size_t offset : offsets)
        reference.Snapshot(x, offset);
    expectMatch(*capture.GetParam());
    EXPECT_EQ(capture.GetParam()->frameCount, 11);

    // Copies carry everything a second capture continues from.
    CaptureNoiseFloor copy(capture);
    CaptureNoiseFloor assigned(&rec.r);
    assigned = capture;

    // Start clears the floor below bin N/2 only.
    const double halfBinFloor = capture.GetParam()->floorRows[1][N / 2];
    capture.SetSelection(0, 2 * hop);
    capture.Start(nullptr);
    for (int k = 0; k < N / 2; ++k)
        ASSERT_EQ(capture.GetParam()->floorRows[1][k], 0.0) << "bin " << k;
    EXPECT_EQ(capture.GetParam()->floorRows[1][N / 2], halfBinFloor);

    // A second, much quieter capture continues from the kept state: the recurrence (not a fresh
    // seed) from zeroed bins beside bin N/2's old value, and the level sum of both captures
    // divided by the new block count.
    const Channels quiet = kesta::test::NoiseChannels(C, 2 * hop, 4, 0.02);
    reference.Start();
    for (std::size_t offset : {0, hop})
        reference.Snapshot(quiet, offset);
    for (CaptureNoiseFloor* c : {&capture, &copy, &assigned}) {
        ASSERT_EQ(RunCapture(*c, quiet, 0, 2 * hop).size(), 2u);
        expectMatch(*c->GetParam());
        EXPECT_EQ(c->GetParam()->floorRows[1][N / 2], halfBinFloor);
    }
    EXPECT_TRUE(copy.GetParam()->floorRows != capture.GetParam()->floorRows &&
                assigned.GetParam()->floorRows != capture.GetParam()->floorRows);
}

TEST(CaptureNoiseFloor, ChannelsTheHostDidNotPassReadAsSilence) {
    // Mono data with a record of two channels: channel 0 follows the model of the mono data,
    // channel 1 records the floor of silence (0 up to rounding), and nothing is read past the one buffer passed
    // (the sanitizers watch). Debug builds stop at the mistake.
    constexpr int N = 256;
    Record rec(2, N);
    CaptureNoiseFloor capture(&rec.r);
    const int hop = capture.GetHop();
    const Channels mono = kesta::test::NoiseChannels(1, 4 * hop, 9, 0.1);
    EXPECT_DEBUG_DEATH(RunCapture(capture, mono, 0, 4 * hop), "record's channel count");
#ifdef NDEBUG
    ReferenceCapture reference(N, 1, 69, 116);
    for (int b = 0; b < 4; ++b)
        reference.Snapshot(mono, static_cast<std::size_t>(b * hop));
    const NOHISS& r = *capture.GetParam();
    for (int k = 3; k <= N / 2; ++k) {
        ASSERT_NEAR(r.floorRows[0][k], reference.Floor(0, k), 1e-10 * MaxFloor(r, 0)) << k;
        ASSERT_LE(r.floorRows[1][k], 1e-12 * MaxFloor(r, 0)) << k;  // rounding of the pairwise transform
    }
#endif
}

}  // namespace
