// CaptureNoiseFloor against an independent model (a naive DFT in double of each Hamming-windowed
// snapshot and the smoothing recurrence written out here): geometry, silence, the level band,
// floor rows, what Start resets and keeps, the selection end, copies.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <numeric>
#include <vector>

#include "dsp/nohiss.h"
#include "support/signals.h"

namespace {

using dsp::nohiss::CaptureNoiseFloor;
using dsp::nohiss::NOHISS;
using kesta::test::Channels;
using kesta::test::Signal;

constexpr double kPi = std::numbers::pi;

struct OwnedRecord {
    NOHISS r{};
    OwnedRecord(int channels, int fftSize, int sampleRate = 44100) {
        dsp::nohiss::SetDefaultParameter(&r);
        r.channels = channels;
        r.fftSize = fftSize;
        r.sampleRate = sampleRate;
        dsp::nohiss::AllocateArrays(&r);
    }
    OwnedRecord(const OwnedRecord&) = delete;
    OwnedRecord& operator=(const OwnedRecord&) = delete;
    ~OwnedRecord() { dsp::nohiss::FreeArrays(&r); }
};

// |X[k]| for k = fromBin ... toBin of x[offset ...] (zeros past its end) under the capture's
// window: Hamming over h − 1 (h = N/2) on j = 0..h, mirrored about h.
std::vector<double> NaiveMagnitudes(const Signal& x, std::size_t offset, int N, int fromBin, int toBin) {
    std::vector<double> magnitude(N / 2 + 1, 0.0);
    for (int k = fromBin; k <= toBin; ++k) {
        long double re = 0, im = 0;
        for (int n = 0; n < N && offset + n < x.size(); ++n) {
            const double w = 0.54 - 0.46 * std::cos((n <= N / 2 ? n : N - n) * kPi / (N / 2 - 1.0));
            const double v = x[offset + n] * w, phase = -2.0 * kPi * ((static_cast<long long>(k) * n) % N) / N;
            re += v * std::cos(phase);
            im += v * std::sin(phase);
        }
        magnitude[k] = std::hypot(static_cast<double>(re), static_cast<double>(im));
    }
    return magnitude;
}

// The capture as documented, one snapshot at a time.
class ReferenceCapture {
public:
    ReferenceCapture(int N, int C, int lowBin, int highBin)
        : mN(N),
          mLow(lowBin),
          mHigh(highBin),
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
            const std::vector<double> X = NaiveMagnitudes(x[c], offset, mN, std::min(3, mLow), mN / 2);
            double sum = 0.0;
            for (int k = mLow; k <= mHigh; ++k)
                sum += X[k];
            const double mean = sum / (mHigh - mLow + 1);
            mLevelSum[c] += mean > 1e-20 ? 20.0 * std::log10(mean) : -400.0;
            double* S = mSmooth[c].data() + 4;
            for (int k = 3; k <= mN / 2; ++k) {
                const double m = X[k] / (mN / 4.0);
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
    std::vector<std::vector<double>> mSmooth, mFloor;
    std::vector<double> mLevelSum;
    bool mFirst = true;
    int mBlocks = 0;
};

// Feeds N-frame blocks starting where each Analyze says until the capture completes; returns the
// block offsets. Frames past the selection are read as they are in `x`.
std::vector<std::size_t> RunCapture(CaptureNoiseFloor& capture, const Channels& x, long long start, long long length) {
    const int N = capture.GetDesiredBlockSize();
    capture.SetSelection(start, length);
    capture.Start(nullptr);
    std::vector<std::size_t> offsets;
    Channels block(x.size(), Signal(N));
    std::vector<float*> pointers;
    for (Signal& b : block)
        pointers.push_back(b.data());
    for (std::size_t position = start; !capture.IsCompleted();) {
        for (std::size_t c = 0; c < x.size(); ++c)
            for (int i = 0; i < N; ++i)
                block[c][i] = position + i < x[c].size() ? x[c][position + i] : 0.0f;
        offsets.push_back(position);
        position += capture.Analyze(pointers.data(), static_cast<int>(x.size()), N);
    }
    capture.Done();
    return offsets;
}

double MaxFloor(const NOHISS& r, int c) { return *std::max_element(r.floorRows[c], r.floorRows[c] + r.fftSize); }

TEST(CaptureNoiseFloor, DefaultGeometryIsHop1638AndBand1114To1857) {
    OwnedRecord rec(2, 4096);
    CaptureNoiseFloor capture(&rec.r);
    EXPECT_EQ(capture.GetDesiredBlockSize(), 4096);
    EXPECT_EQ(capture.GetHop(), 1638);
    EXPECT_EQ(capture.GetLowBin(), 1114);  // trunc(4096 · 12000 / 44100)
    EXPECT_EQ(capture.GetHighBin(), 1857);  // trunc(4096 · 20000 / 44100)

    // At 16 kHz both band edges lie above N/2 and are held there.
    OwnedRecord low(1, 4096, 16000);
    CaptureNoiseFloor lowRate(&low.r);
    EXPECT_EQ(lowRate.GetLowBin(), 2048);
    EXPECT_EQ(lowRate.GetHighBin(), 2048);

    // ((V − 1)N/V)/2 in integers: V = 6 gives 3413 / 2 = 1706.
    const int cases[][3] = {{4096, 6, 1706}, {4096, 3, 1365}, {4096, 7, 1755}, {1024, 4, 384}};  // N, V, hop
    for (const auto& tc : cases) {
        OwnedRecord r(1, tc[0]);
        r.r.overlap = static_cast<int16_t>(tc[1]);
        EXPECT_EQ(CaptureNoiseFloor(&r.r).GetHop(), tc[2]) << "N " << tc[0] << " overlap " << tc[1];
    }
}

TEST(CaptureNoiseFloor, AnalyzeReturnsTheHopThenTheOvershootAtTheSelectionEnd) {
    OwnedRecord rec(2, 4096);
    CaptureNoiseFloor capture(&rec.r);
    Channels silence = kesta::test::ZeroChannels(2, 4096);
    float* data[2] = {silence[0].data(), silence[1].data()};

    // 2 hops + 100 frames from 1000: positions 2638, 4276, then 5914 > 4376.
    const long long length = 2 * 1638 + 100;
    ASSERT_TRUE(capture.SetSelection(1000, length));
    capture.Start(nullptr);
    for (int expected : {1638, 1638, 3 * 1638 - static_cast<int>(length)}) {
        EXPECT_FALSE(capture.IsCompleted());
        EXPECT_EQ(capture.Analyze(data, 2, 4096), expected);
    }
    EXPECT_TRUE(capture.IsCompleted());
    capture.Done();
    EXPECT_EQ(capture.GetParam()->frameCount, 3);

    // Landing exactly on the end is not passing it: the hop is returned, and the capture is done.
    ASSERT_TRUE(capture.SetSelection(0, 2 * 1638));
    capture.Start(nullptr);
    EXPECT_EQ(capture.Analyze(data, 2, 4096), 1638);
    EXPECT_EQ(capture.Analyze(data, 2, 4096), 1638);
    EXPECT_TRUE(capture.IsCompleted());
    EXPECT_FLOAT_EQ(capture.GetProgress(), 100.0f);
    EXPECT_EQ(capture.GetParam()->frameCount, 5);  // counted across captures
}

TEST(CaptureNoiseFloor, SilentSelectionReadsMinus400DbAndRecordsNothing) {
    OwnedRecord rec(3, 4096);
    CaptureNoiseFloor capture(&rec.r);
    RunCapture(capture, kesta::test::ZeroChannels(3, 12000), 0, 8000);
    for (int c = 0; c < 3; ++c) {
        EXPECT_EQ(capture.GetParam()->floorLevel[c], -400.0f);
        EXPECT_EQ(MaxFloor(*capture.GetParam(), c), 0.0);
    }
}

TEST(CaptureNoiseFloor, LevelIsTheMeanMagnitudeOfBins1114To1857) {
    // Tones on bins 1113 and 1858, just outside the band: their main lobes reach one bin in, so an
    // edge off by one changes the level by several dB.
    constexpr int N = 4096;
    const std::size_t frames = 8000;
    Signal x = kesta::test::GaussianNoise(frames, 7, 1e-4);
    const Signal low = kesta::test::Sine(frames, 1113 * 44100.0 / N, 44100.0, 0.5);
    const Signal high = kesta::test::Sine(frames, 1858 * 44100.0 / N, 44100.0, 0.5, 1.0);
    for (std::size_t i = 0; i < frames; ++i)
        x[i] += low[i] + high[i];

    OwnedRecord rec(1, N);
    CaptureNoiseFloor capture(&rec.r);
    const std::vector<std::size_t> offsets = RunCapture(capture, {x}, 0, 2 * 1638);
    ASSERT_EQ(offsets.size(), 2u);
    std::vector<std::vector<double>> spectra;
    for (std::size_t offset : offsets)
        spectra.push_back(NaiveMagnitudes(x, offset, N, 1113, 1858));
    auto level = [&](int from, int to) {
        double sum = 0.0;
        for (const std::vector<double>& X : spectra)
            sum += 20.0 * std::log10(std::accumulate(X.begin() + from, X.begin() + to + 1, 0.0) / (to - from + 1));
        return sum / spectra.size();
    };
    const double expected = level(1114, 1857);
    EXPECT_NEAR(capture.GetParam()->floorLevel[0], expected, 1e-4);
    EXPECT_GT(std::fabs(level(1113, 1857) - expected), 1.0);  // the edges matter to this signal
    EXPECT_GT(std::fabs(level(1114, 1858) - expected), 1.0);
}

TEST(CaptureNoiseFloor, FloorRowsMatchNaiveDftAndTheSmoothingRecurrence) {
    // N = 256 keeps the naive transforms cheap; three channels. The noise level steps up and down
    // between snapshots (fast attack and slow decay); DC and a 20 Hz hum sit in bins 0..2, which
    // are never recorded.
    constexpr int N = 256, C = 3;
    OwnedRecord rec(C, N);
    CaptureNoiseFloor capture(&rec.r);
    const int hop = capture.GetHop();
    ASSERT_EQ(hop, 102);  // (4 · 256 / 5) / 2
    const std::size_t frames = 12 * hop + N;
    Channels x = kesta::test::NoiseChannels(C, frames, 100, 0.1);
    const Signal hum = kesta::test::Sine(frames, 20.0, 44100.0, 0.8);
    for (int c = 0; c < C; ++c)
        for (std::size_t i = 0; i < frames; ++i)
            x[c][i] = static_cast<float>(x[c][i] * ((i / 300) % 2 == 0 ? 1.0 : 0.2) * (c + 1) + 0.3 + hum[i]);

    const std::vector<std::size_t> offsets = RunCapture(capture, x, 0, 10 * hop + 5);
    ASSERT_EQ(offsets.size(), 11u);
    ReferenceCapture reference(N, C, capture.GetLowBin(), capture.GetHighBin());
    for (std::size_t offset : offsets)
        reference.Snapshot(x, offset);

    const NOHISS& r = *capture.GetParam();
    EXPECT_EQ(r.frameCount, 11);
    for (int c = 0; c < C; ++c) {
        SCOPED_TRACE(c);
        const double scale = MaxFloor(r, c);
        ASSERT_GT(scale, 0.0);
        for (int k = 0; k < N; ++k) {
            if (k < 3 || k > N / 2) {
                ASSERT_EQ(r.floorRows[c][k], 0.0) << "bin " << k;
            } else {
                ASSERT_NEAR(r.floorRows[c][k], reference.Floor(c, k), 1e-10 * scale) << "bin " << k;
            }
        }
        EXPECT_NEAR(r.floorLevel[c], reference.Level(c), 1e-4);
    }
}

TEST(CaptureNoiseFloor, StartClearsBelowHalfAndKeepsBinHalfLevelSumsAndSmoothingState) {
    constexpr int N = 256;
    OwnedRecord rec(1, N);
    CaptureNoiseFloor capture(&rec.r);
    const int hop = capture.GetHop();
    const Channels loud = kesta::test::NoiseChannels(1, 8 * hop + N, 3, 0.5);
    const Channels quiet = kesta::test::NoiseChannels(1, 4 * hop + N, 4, 0.02);

    ReferenceCapture reference(N, 1, capture.GetLowBin(), capture.GetHighBin());
    for (std::size_t offset : RunCapture(capture, loud, 0, 6 * hop))
        reference.Snapshot(loud, offset);
    const double halfBinFloor = capture.GetParam()->floorRows[0][N / 2];
    ASSERT_GT(halfBinFloor, 0.0);

    capture.SetSelection(0, 2 * hop);
    capture.Start(nullptr);
    for (int k = 0; k < N / 2; ++k)
        ASSERT_EQ(capture.GetParam()->floorRows[0][k], 0.0) << "bin " << k;
    EXPECT_EQ(capture.GetParam()->floorRows[0][N / 2], halfBinFloor);

    // A second, much quieter capture continues from the kept state: the recurrence (not a fresh
    // seed) from zeroed bins beside bin N/2's old value, and the level sum of both captures
    // divided by the new block count.
    reference.Start();
    for (std::size_t offset : RunCapture(capture, quiet, 0, 2 * hop))
        reference.Snapshot(quiet, offset);
    const NOHISS& r = *capture.GetParam();
    for (int k = 3; k <= N / 2; ++k)
        ASSERT_NEAR(r.floorRows[0][k], reference.Floor(0, k), 1e-10 * MaxFloor(r, 0)) << "bin " << k;
    EXPECT_EQ(r.floorRows[0][N / 2], halfBinFloor);
    EXPECT_NEAR(r.floorLevel[0], reference.Level(0), 1e-3);
}

TEST(CaptureNoiseFloor, CopyMidCaptureContinuesLikeTheOriginal) {
    constexpr int N = 256;
    OwnedRecord rec(2, N);
    CaptureNoiseFloor original(&rec.r);
    Channels x = kesta::test::NoiseChannels(2, 4 * N, 9, 0.3);
    const int hop = original.GetHop();
    float* first[2] = {x[0].data(), x[1].data()};
    float* next[2] = {x[0].data() + hop, x[1].data() + hop};
    original.SetSelection(0, 4 * hop);
    original.Start(nullptr);
    original.Analyze(first, 2, N);

    CaptureNoiseFloor copy(original);
    CaptureNoiseFloor assigned(&rec.r);
    assigned = original;
    for (CaptureNoiseFloor* capture : {&original, &copy, &assigned}) {
        capture->Analyze(next, 2, N);
        capture->Done();
    }
    const NOHISS& o = *original.GetParam();
    for (const CaptureNoiseFloor* capture : {&copy, &assigned}) {
        const NOHISS& r = *capture->GetParam();
        ASSERT_NE(r.floorRows, o.floorRows);
        for (int c = 0; c < 2; ++c) {
            EXPECT_EQ(r.floorLevel[c], o.floorLevel[c]);
            EXPECT_TRUE(std::equal(r.floorRows[c], r.floorRows[c] + N, o.floorRows[c])) << c;
        }
    }
}

}  // namespace
