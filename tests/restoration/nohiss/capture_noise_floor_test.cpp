// CaptureNoiseFloor against an independent model: a naive DFT in double of each Hamming-windowed
// snapshot, and the smoothing recurrence written out here. Covers the snapshot geometry (hop, level
// band), silence, the bins that are never recorded, what Start resets and what it keeps, the
// value Analyze returns at the selection end, and copies.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>
#include <string>
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

// The capture's window from its formula: Hamming whose cosine runs over h - 1 (h = N/2) on the
// rising half j = 0..h, mirrored about h.
std::vector<double> HammingWindow(int N) {
    const int h = N / 2;
    std::vector<double> w(static_cast<std::size_t>(N));
    for (int j = 0; j < N; ++j) {
        const int i = j <= h ? j : N - j;
        w[static_cast<std::size_t>(j)] = 0.54 - 0.46 * std::cos(i * kPi / (h - 1.0));
    }
    return w;
}

// X[k] of the windowed block x[offset ...] (zeros past its end), summed directly.
struct Spectrum {
    std::vector<double> re, im;
    double Magnitude(int k) const {
        return std::hypot(re[static_cast<std::size_t>(k)], im[static_cast<std::size_t>(k)]);
    }
};

Spectrum NaiveDft(const Signal& x, std::size_t offset, const std::vector<double>& window, int fromBin, int toBin) {
    const int N = static_cast<int>(window.size());
    Spectrum s{std::vector<double>(static_cast<std::size_t>(N / 2 + 1)),
               std::vector<double>(static_cast<std::size_t>(N / 2 + 1))};
    for (int k = fromBin; k <= toBin; ++k) {
        long double re = 0, im = 0;
        for (int n = 0; n < N; ++n) {
            const std::size_t at = offset + static_cast<std::size_t>(n);
            if (at >= x.size()) break;
            const double v = static_cast<double>(x[at]) * window[static_cast<std::size_t>(n)];
            const double phase = -2.0 * kPi * static_cast<double>((static_cast<long long>(k) * n) % N) / N;
            re += v * std::cos(phase);
            im += v * std::sin(phase);
        }
        s.re[static_cast<std::size_t>(k)] = static_cast<double>(re);
        s.im[static_cast<std::size_t>(k)] = static_cast<double>(im);
    }
    return s;
}

// The capture as documented, one snapshot at a time.
class ReferenceCapture {
public:
    ReferenceCapture(int N, int C, int lowBin, int highBin, double decay)
        : mN(N),
          mLow(lowBin),
          mHigh(highBin),
          mDecay(decay),
          mWindow(HammingWindow(N)),
          mSmooth(static_cast<std::size_t>(C), std::vector<double>(static_cast<std::size_t>(N + 8), 0.0)),
          mFloor(static_cast<std::size_t>(C), std::vector<double>(static_cast<std::size_t>(N), 0.0)),
          mLevelSum(static_cast<std::size_t>(C), 0.0) {}

    // Start: floor and smoothing cleared below bin N/2 only; level sums and the first-snapshot
    // state carry over.
    void Start() {
        for (std::size_t c = 0; c < mFloor.size(); ++c) {
            std::fill_n(mSmooth[c].begin(), mN / 2 + 4, 0.0);
            std::fill_n(mFloor[c].begin(), mN / 2, 0.0);
        }
        mBlocks = 0;
    }

    void Snapshot(const Channels& x, std::size_t offset) {
        for (std::size_t c = 0; c < mFloor.size(); ++c) {
            const int from = std::min(3, mLow);
            const Spectrum X = NaiveDft(x[c], offset, mWindow, from, mN / 2);
            double sum = 0.0;
            for (int k = mLow; k <= mHigh; ++k)
                sum += X.Magnitude(k);
            const double mean = sum / (mHigh - mLow + 1);
            mLevelSum[c] += mean > 1e-20 ? 20.0 * std::log10(mean) : -400.0;

            double* S = mSmooth[c].data() + 4;
            for (int k = 3; k <= mN / 2; ++k) {
                const double m = X.Magnitude(k) / (mN / 4.0);
                if (mFirst) {
                    S[k] = m;
                } else {
                    const double q = 0.1 * S[k - 2] + 0.2 * S[k - 1] + 0.4 * m + 0.2 * S[k + 1] + 0.1 * S[k + 2];
                    S[k] = q <= S[k] ? S[k] * mDecay + (1.0 - mDecay) * q : S[k] * 0.08 + q * 0.92;
                }
                mFloor[c][static_cast<std::size_t>(k)] = std::max(mFloor[c][static_cast<std::size_t>(k)], S[k]);
            }
        }
        mFirst = false;
        ++mBlocks;
    }

    double Floor(int c, int k) const { return mFloor[static_cast<std::size_t>(c)][static_cast<std::size_t>(k)]; }
    double Level(int c) const { return mLevelSum[static_cast<std::size_t>(c)] / std::max(mBlocks, 1); }

private:
    int mN, mLow, mHigh;
    double mDecay;
    std::vector<double> mWindow;
    std::vector<std::vector<double>> mSmooth;
    std::vector<std::vector<double>> mFloor;
    std::vector<double> mLevelSum;
    bool mFirst = true;
    int mBlocks = 0;
};

// Feeds the capture N-frame blocks starting where each Analyze says, until it completes. Frames
// past the selection are read as they are in `x` (the host may hand over a full block).
std::vector<std::size_t> RunCapture(CaptureNoiseFloor& capture, const Channels& x, long long start, long long length) {
    const int N = capture.GetDesiredBlockSize();
    capture.SetSelection(start, length);
    capture.Start(nullptr);
    std::vector<std::size_t> offsets;
    long long position = start;
    Channels block(x.size(), Signal(static_cast<std::size_t>(N), 0.0f));
    std::vector<float*> pointers;
    for (Signal& b : block)
        pointers.push_back(b.data());
    while (!capture.IsCompleted()) {
        for (std::size_t c = 0; c < x.size(); ++c)
            for (int i = 0; i < N; ++i) {
                const std::size_t at = static_cast<std::size_t>(position) + static_cast<std::size_t>(i);
                block[c][static_cast<std::size_t>(i)] = at < x[c].size() ? x[c][at] : 0.0f;
            }
        offsets.push_back(static_cast<std::size_t>(position));
        position += capture.Analyze(pointers.data(), static_cast<int>(x.size()), N);
    }
    capture.Done();
    return offsets;
}

double MaxFloor(const NOHISS& r, int c) {
    return *std::max_element(r.floorRows[c], r.floorRows[c] + r.fftSize);
}

TEST(CaptureNoiseFloor, DefaultGeometryIsHop1638AndBand1114To1857) {
    OwnedRecord rec(2, 4096);
    CaptureNoiseFloor capture(&rec.r);
    EXPECT_EQ(capture.GetDesiredBlockSize(), 4096);
    EXPECT_EQ(capture.GetHop(), 1638);
    // trunc(4096 * 12000 / 44100) = trunc(1114.55), trunc(4096 * 20000 / 44100) = trunc(1857.6)
    EXPECT_EQ(capture.GetLowBin(), 1114);
    EXPECT_EQ(capture.GetHighBin(), 1857);

    // At 16 kHz both band edges lie above N/2 and are held there.
    OwnedRecord low(1, 4096, 16000);
    CaptureNoiseFloor lowRate(&low.r);
    EXPECT_EQ(lowRate.GetLowBin(), 2048);
    EXPECT_EQ(lowRate.GetHighBin(), 2048);

    // ((V-1)N/V)/2 in integers: V = 6 gives 3413 / 2 = 1706 (the halving truncates).
    struct Case {
        int N, V, hop;
    };
    for (Case c : {Case{4096, 6, 1706}, Case{4096, 3, 1365}, Case{4096, 7, 1755}, Case{1024, 4, 384}}) {
        OwnedRecord r(1, c.N);
        r.r.overlap = static_cast<int16_t>(c.V);
        EXPECT_EQ(CaptureNoiseFloor(&r.r).GetHop(), c.hop) << "N " << c.N << " overlap " << c.V;
    }
}

TEST(CaptureNoiseFloor, AnalyzeReturnsTheHopThenTheOvershootAtTheSelectionEnd) {
    OwnedRecord rec(2, 4096);
    CaptureNoiseFloor capture(&rec.r);
    Channels silence = kesta::test::ZeroChannels(2, 4096);
    float* data[2] = {silence[0].data(), silence[1].data()};

    // Selection of 2 hops + 100 frames from 1000: positions 2638, 4276, then 5914 > 4376.
    const long long start = 1000, length = 2 * 1638 + 100;
    ASSERT_TRUE(capture.SetSelection(start, length));
    capture.Start(nullptr);
    EXPECT_FLOAT_EQ(capture.GetProgress(), 0.0f);
    EXPECT_EQ(capture.Analyze(data, 2, 4096), 1638);
    EXPECT_FALSE(capture.IsCompleted());
    EXPECT_NEAR(capture.GetProgress(), 1638.0 * 100.0 / length, 1e-4);
    EXPECT_EQ(capture.Analyze(data, 2, 4096), 1638);
    EXPECT_FALSE(capture.IsCompleted());
    EXPECT_EQ(capture.Analyze(data, 2, 4096), 3 * 1638 - length);
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
    // frameCount counts every snapshot the record has seen, across captures.
    EXPECT_EQ(capture.GetParam()->frameCount, 5);
}

TEST(CaptureNoiseFloor, SilentSelectionReadsMinus400DbAndRecordsNothing) {
    OwnedRecord rec(3, 4096);
    CaptureNoiseFloor capture(&rec.r);
    RunCapture(capture, kesta::test::ZeroChannels(3, 12000), 0, 8000);
    const NOHISS& r = *capture.GetParam();
    for (int c = 0; c < 3; ++c) {
        EXPECT_EQ(r.floorLevel[c], -400.0f);
        EXPECT_EQ(MaxFloor(r, c), 0.0);
    }
}

TEST(CaptureNoiseFloor, LevelIsTheMeanMagnitudeOfBins1114To1857) {
    // Tones on bins 1113 and 1858, one outside either edge: their main lobes reach into the band
    // by one bin, so an edge off by one changes the level by several dB.
    constexpr int N = 4096;
    constexpr double rate = 44100.0;
    const std::size_t frames = 8000;
    Signal x = kesta::test::GaussianNoise(frames, 7, 1e-4);
    const Signal low = kesta::test::Sine(frames, 1113 * rate / N, rate, 0.5);
    const Signal high = kesta::test::Sine(frames, 1858 * rate / N, rate, 0.5, 1.0);
    for (std::size_t i = 0; i < frames; ++i)
        x[i] += low[i] + high[i];
    const Channels input{x};

    OwnedRecord rec(1, N);
    CaptureNoiseFloor capture(&rec.r);
    const std::vector<std::size_t> offsets = RunCapture(capture, input, 0, 2 * 1638);
    ASSERT_EQ(offsets.size(), 2u);

    // Magnitudes of bins 1113..1858 of each snapshot, then the level over any band within.
    const std::vector<double> window = HammingWindow(N);
    std::vector<Spectrum> spectra;
    for (std::size_t offset : offsets)
        spectra.push_back(NaiveDft(x, offset, window, 1113, 1858));
    auto level = [&](int from, int to) {
        double sum = 0.0;
        for (const Spectrum& X : spectra) {
            double mean = 0.0;
            for (int k = from; k <= to; ++k)
                mean += X.Magnitude(k);
            sum += 20.0 * std::log10(mean / (to - from + 1));
        }
        return sum / static_cast<double>(spectra.size());
    };
    const double expected = level(1114, 1857);
    EXPECT_NEAR(capture.GetParam()->floorLevel[0], expected, 1e-4);
    // The edges matter to this signal.
    EXPECT_GT(std::fabs(level(1113, 1857) - expected), 1.0);
    EXPECT_GT(std::fabs(level(1114, 1858) - expected), 1.0);
}

TEST(CaptureNoiseFloor, FloorRowsMatchNaiveDftAndTheSmoothingRecurrence) {
    // N = 256 keeps the naive transforms cheap. Three channels: the last pairs with itself. The
    // noise level steps up and down between snapshots so both the fast attack and the slow decay
    // are taken; a DC offset and a 20 Hz hum sit in bins 0..2, which are never recorded.
    constexpr int N = 256;
    constexpr int C = 3;
    OwnedRecord rec(C, N);
    rec.r.smoothingPercent = 65.0f;
    CaptureNoiseFloor capture(&rec.r);
    const int hop = capture.GetHop();
    ASSERT_EQ(hop, 102);  // (4 * 256 / 5) / 2

    const std::size_t frames = 12 * static_cast<std::size_t>(hop) + N;
    Channels x = kesta::test::NoiseChannels(C, frames, 100, 0.1);
    const Signal hum = kesta::test::Sine(frames, 20.0, 44100.0, 0.8);
    for (int c = 0; c < C; ++c)
        for (std::size_t i = 0; i < frames; ++i) {
            const double envelope = (i / 300) % 2 == 0 ? 1.0 : 0.2;
            x[c][i] = static_cast<float>(x[c][i] * envelope * (c + 1) + 0.3 + hum[i]);
        }

    const std::vector<std::size_t> offsets = RunCapture(capture, x, 0, 10 * hop + 5);
    ASSERT_EQ(offsets.size(), 11u);

    ReferenceCapture reference(N, C, capture.GetLowBin(), capture.GetHighBin(), 0.65);
    reference.Start();
    for (std::size_t offset : offsets)
        reference.Snapshot(x, offset);

    const NOHISS& r = *capture.GetParam();
    EXPECT_EQ(r.frameCount, 11);
    for (int c = 0; c < C; ++c) {
        SCOPED_TRACE("channel " + std::to_string(c));
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

    const Channels loud = kesta::test::NoiseChannels(1, 8 * static_cast<std::size_t>(hop) + N, 3, 0.5);
    const Channels quiet = kesta::test::NoiseChannels(1, 4 * static_cast<std::size_t>(hop) + N, 4, 0.02);

    ReferenceCapture reference(N, 1, capture.GetLowBin(), capture.GetHighBin(), 0.65);
    reference.Start();
    for (std::size_t offset : RunCapture(capture, loud, 0, 6 * hop))
        reference.Snapshot(loud, offset);
    const double halfBinFloor = capture.GetParam()->floorRows[0][N / 2];
    ASSERT_GT(halfBinFloor, 0.0);

    // Start alone: bins below N/2 cleared, bin N/2 kept.
    capture.SetSelection(0, 2 * hop);
    capture.Start(nullptr);
    for (int k = 0; k < N / 2; ++k)
        ASSERT_EQ(capture.GetParam()->floorRows[0][k], 0.0) << "bin " << k;
    EXPECT_EQ(capture.GetParam()->floorRows[0][N / 2], halfBinFloor);

    // A second, much quieter capture on the same object continues from the kept state: the
    // recurrence (not a fresh seed) from zeroed bins with bin N/2's old value as a neighbour, the
    // old peak at bin N/2, and the level sum of the first capture divided by the new block count.
    reference.Start();
    for (std::size_t offset : RunCapture(capture, quiet, 0, 2 * hop))
        reference.Snapshot(quiet, offset);
    const NOHISS& r = *capture.GetParam();
    const double scale = MaxFloor(r, 0);
    for (int k = 3; k <= N / 2; ++k)
        ASSERT_NEAR(r.floorRows[0][k], reference.Floor(0, k), 1e-10 * scale) << "bin " << k;
    EXPECT_EQ(r.floorRows[0][N / 2], halfBinFloor);
    EXPECT_NEAR(r.floorLevel[0], reference.Level(0), 1e-3);
}

TEST(CaptureNoiseFloor, CopyMidCaptureContinuesLikeTheOriginal) {
    constexpr int N = 256;
    OwnedRecord rec(2, N);
    CaptureNoiseFloor original(&rec.r);
    const Channels x = kesta::test::NoiseChannels(2, 4 * N, 9, 0.3);
    std::vector<float*> first{const_cast<float*>(x[0].data()), const_cast<float*>(x[1].data())};
    original.SetSelection(0, 4 * original.GetHop());
    original.Start(nullptr);
    original.Analyze(first.data(), 2, N);

    CaptureNoiseFloor copy(original);
    CaptureNoiseFloor assigned(&rec.r);
    assigned = original;
    for (CaptureNoiseFloor* capture : {&original, &copy, &assigned}) {
        std::vector<float*> next{const_cast<float*>(x[0].data()) + original.GetHop(),
                                 const_cast<float*>(x[1].data()) + original.GetHop()};
        capture->Analyze(next.data(), 2, N);
        capture->Done();
    }
    for (const CaptureNoiseFloor* capture : {&copy, &assigned}) {
        ASSERT_NE(capture->GetParam()->floorRows, original.GetParam()->floorRows);
        for (int c = 0; c < 2; ++c) {
            EXPECT_EQ(capture->GetParam()->floorLevel[c], original.GetParam()->floorLevel[c]);
            for (int k = 0; k < N; ++k)
                ASSERT_EQ(capture->GetParam()->floorRows[c][k], original.GetParam()->floorRows[c][k]);
        }
    }
}

}  // namespace
