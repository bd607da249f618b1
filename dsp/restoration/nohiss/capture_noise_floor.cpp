#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "dsp/core/host_buffers.h"
#include "dsp/fft_window.h"
#include "dsp/nohiss.h"
#include "dsp/spectrum_packing.h"

namespace dsp::nohiss {

namespace {

// Hamming, mirrored, double output; 0x2000 marks it as an analysis window (no effect on values).
constexpr unsigned int kCaptureWindowFlags = kWindowAnalysisMark | kWindowMirror | kWindowHamming;

// The level band: 12 kHz to 20 kHz, where hiss lives and programme material is thin.
constexpr long long kLevelBandLowHz = 12000;
constexpr long long kLevelBandHighHz = 20000;

// Level reported for a band whose mean magnitude is 1e-20 or less.
constexpr double kSilenceDb = -400.0;

// Row c's S[0]: four guard entries sit before bin 0 so the spectral smoothing can reach k - 2
// and k + 2 without tests.
constexpr int kGuard = 4;

}  // namespace

CaptureNoiseFloor::CaptureNoiseFloor(const NOHISS* record) {
    CopyParameter(record, &mParam);
    const int C = mParam.channels;
    const int N = mParam.fftSize;
    const int V = mParam.overlap;
    assert(C >= 1 && N >= 4 && (N & (N - 1)) == 0 && "fftSize must be a power of two of at least 4");
    assert(V >= 2 && "overlap below 2 gives a hop of 0");
    assert(mParam.sampleRate > 0);

    mN = N;
    mChannelsEven = (C + 1) & ~1;
    mFFT.Init(N);
    mWindow.assign(static_cast<std::size_t>(N), 0.0);
    GetFFTWindow(mWindow.data(), N, 1.0, kCaptureWindowFlags, 0.0);

    const long long half = N / 2;
    const long long rate = mParam.sampleRate > 0 ? mParam.sampleRate : 1;
    mLowBin = static_cast<int32_t>(std::min(static_cast<long long>(N) * kLevelBandLowHz / rate, half));
    mHighBin = static_cast<int32_t>(std::min(static_cast<long long>(N) * kLevelBandHighHz / rate, half));
    // ((V-1)*N/V)/2 in integers: the halving rounds toward zero (1638 for N 4096, V 5).
    mHop = V != 0 ? ((V - 1) * N / V) / 2 : 0;
    mDecay = static_cast<double>(mParam.smoothingPercent) / 100.0;
    mOneMinusDecay = 1.0 - mDecay;

    mTransformRe.assign(static_cast<std::size_t>(N), 0.0);
    mTransformIm.assign(static_cast<std::size_t>(N), 0.0);
    mSplitRe.assign(2 * static_cast<std::size_t>(N), 0.0);
    mSplitIm.assign(2 * static_cast<std::size_t>(N), 0.0);
    mSmoothing.assign(static_cast<std::size_t>(C) * static_cast<std::size_t>(N + 8), 0.0);
    mLevelSum.assign(static_cast<std::size_t>(C), 0.0f);
    mFirstFrame = true;
}

CaptureNoiseFloor::CaptureNoiseFloor(const CaptureNoiseFloor& other)
    : DSPAnalyzer(other),
      mN(other.mN),
      mChannelsEven(other.mChannelsEven),
      mLowBin(other.mLowBin),
      mHighBin(other.mHighBin),
      mHop(other.mHop),
      mDecay(other.mDecay),
      mOneMinusDecay(other.mOneMinusDecay),
      mFirstFrame(other.mFirstFrame),
      mStart(other.mStart),
      mLength(other.mLength),
      mPosition(other.mPosition),
      mBlockCount(other.mBlockCount),
      mWindow(other.mWindow),
      mTransformRe(other.mTransformRe),
      mTransformIm(other.mTransformIm),
      mSplitRe(other.mSplitRe),
      mSplitIm(other.mSplitIm),
      mSmoothing(other.mSmoothing),
      mLevelSum(other.mLevelSum) {
    CopyParameter(&other.mParam, &mParam);
    dsp::detail::CopyEngineWithOwnScratch(mFFT, other.mFFT);
}

CaptureNoiseFloor& CaptureNoiseFloor::operator=(const CaptureNoiseFloor& other) {
    if (this != &other) {
        CaptureNoiseFloor copy(other);
        DSPAnalyzer::operator=(other);
        CopyParameter(&copy.mParam, &mParam);
        mN = copy.mN;
        mChannelsEven = copy.mChannelsEven;
        mLowBin = copy.mLowBin;
        mHighBin = copy.mHighBin;
        mHop = copy.mHop;
        mDecay = copy.mDecay;
        mOneMinusDecay = copy.mOneMinusDecay;
        mFirstFrame = copy.mFirstFrame;
        mStart = copy.mStart;
        mLength = copy.mLength;
        mPosition = copy.mPosition;
        mBlockCount = copy.mBlockCount;
        mFFT = copy.mFFT;
        mWindow.swap(copy.mWindow);
        mTransformRe.swap(copy.mTransformRe);
        mTransformIm.swap(copy.mTransformIm);
        mSplitRe.swap(copy.mSplitRe);
        mSplitIm.swap(copy.mSplitIm);
        mSmoothing.swap(copy.mSmoothing);
        mLevelSum.swap(copy.mLevelSum);
    }
    return *this;
}

CaptureNoiseFloor::~CaptureNoiseFloor() {
    FreeArrays(&mParam);
}

bool CaptureNoiseFloor::SetSelection(long long start, long long length) {
    mStart = start;
    mLength = length;
    mPosition = start;
    return true;
}

int32_t CaptureNoiseFloor::GetDesiredBlockSize() const {
    return mN;
}

void CaptureNoiseFloor::Start(float* hostPointer) {
    DSPAnalyzer::Start(hostPointer);
    const std::size_t N = static_cast<std::size_t>(mN);
    const std::size_t rowLength = N + 8;
    // Only below bin N/2: bin N/2 of both the smoothing state and the floor keeps its value, and
    // so do the level sums and the first-snapshot state. A second capture on the same object
    // therefore starts from them; stored floors were measured this way, so keep it.
    for (int c = 0; c < mParam.channels; ++c) {
        std::fill_n(mSmoothing.begin() + static_cast<std::ptrdiff_t>(c * rowLength), N / 2 + kGuard, 0.0);
        if (mParam.floorRows != nullptr) std::fill_n(mParam.floorRows[c], N / 2, 0.0);
    }
    mBlockCount = 0;
}

void CaptureNoiseFloor::IdentifySystem(int channelPair, float** data, int numChannels, int numFrames) {
    const int N = mN;
    const int C = mParam.channels;
    const int count = std::clamp(numFrames, 0, N);
    // A channel the host did not pass reads as silence.
    const float* first = dsp::detail::HostChannel(data, numChannels, channelPair);
    const float* second = channelPair + 1 < C ? dsp::detail::HostChannel(data, numChannels, channelPair + 1) : first;
    double* re = mTransformRe.data();
    double* im = mTransformIm.data();
    for (int i = 0; i < count; ++i) {
        const double w = mWindow[static_cast<std::size_t>(i)];
        re[i] = first != nullptr ? static_cast<double>(first[i]) * w : 0.0;
        im[i] = second != nullptr ? static_cast<double>(second[i]) * w : 0.0;
    }
    // A short final block is read as its frames followed by silence.
    std::fill(re + count, re + N, 0.0);
    std::fill(im + count, im + N, 0.0);
    mFFT.FFT(re, im, 1);
    double* splitRe[2] = {mSplitRe.data(), mSplitRe.data() + N};
    double* splitIm[2] = {mSplitIm.data(), mSplitIm.data() + N};
    SplitComplexSpectrumToLR(re, im, 0, splitRe, splitIm, N);
}

long long CaptureNoiseFloor::Analyze(float** data, int numChannels, int numFrames) {
    const int C = mParam.channels;
    assert(data != nullptr && numChannels >= C && "buffers for the record's channel count");
    assert(mParam.floorRows != nullptr && "a record with its arrays");
    const int N = mN;
    const int half = N / 2;
    const double magnitudeDivisor = N * 0.25;
    const double bandCount = static_cast<double>(mHighBin - mLowBin + 1);
    const double d = mDecay;
    const double oneMinusD = mOneMinusDecay;

    for (int pair = 0; pair < mChannelsEven; pair += 2) {
        IdentifySystem(pair, data, numChannels, numFrames);
        for (int side = 0; side < 2 && pair + side < C; ++side) {
            const int c = pair + side;
            const double* re = mSplitRe.data() + static_cast<std::size_t>(side) * static_cast<std::size_t>(N);
            const double* im = mSplitIm.data() + static_cast<std::size_t>(side) * static_cast<std::size_t>(N);

            // Broadband level of the band, from unscaled magnitudes.
            double sum = 0.0;
            for (int k = mLowBin; k <= mHighBin; ++k)
                sum += std::sqrt(re[k] * re[k] + im[k] * im[k]);
            const double mean = sum / bandCount;
            const double level = mean > 1e-20 ? 20.0 * std::log10(mean) : kSilenceDb;
            // The sum is a float: the addition is done in double and rounded once, as `+=` does.
            mLevelSum[static_cast<std::size_t>(c)] = static_cast<float>(mLevelSum[static_cast<std::size_t>(c)] + level);

            // Spectral and temporal smoothing; bins 0, 1, 2 are never recorded.
            double* S = mSmoothing.data() + static_cast<std::size_t>(c) * static_cast<std::size_t>(N + 8) + kGuard;
            double* floorRow = mParam.floorRows != nullptr ? mParam.floorRows[c] : nullptr;
            for (int k = 3; k <= half; ++k) {
                const double m = std::sqrt(re[k] * re[k] + im[k] * im[k]) / magnitudeDivisor;
                if (mFirstFrame) {
                    S[k] = m;
                } else {
                    // S[k-2], S[k-1] already hold this snapshot's values; S[k+1], S[k+2] the last.
                    const double q = 0.1 * S[k - 2] + 0.2 * S[k - 1] + 0.4 * m + 0.2 * S[k + 1] + 0.1 * S[k + 2];
                    // Slow decay, fast attack.
                    S[k] = q <= S[k] ? S[k] * d + oneMinusD * q : S[k] * 0.08 + q * 0.92;
                }
                if (floorRow != nullptr) floorRow[k] = std::max(floorRow[k], S[k]);
            }
        }
    }

    mPosition += mHop;
    ++mBlockCount;
    mParam.frameCount = static_cast<int16_t>(mParam.frameCount + 1);
    mFirstFrame = false;
    // The block that carries the position past the selection end answers with the overshoot.
    const long long end = mStart + mLength;
    return mPosition > end ? mPosition - end : mHop;
}

bool CaptureNoiseFloor::IsCompleted() const {
    return mStart + mLength <= mPosition;
}

float CaptureNoiseFloor::GetProgress() const {
    if (mLength <= 0) return 100.0f;
    return static_cast<float>(static_cast<double>(mPosition - mStart) * 100.0 / static_cast<double>(mLength));
}

void CaptureNoiseFloor::Done() {
    const int32_t blocks = std::max<int32_t>(mBlockCount, 1);
    for (int c = 0; c < mParam.channels; ++c)
        mParam.floorLevel[c] = mLevelSum[static_cast<std::size_t>(c)] / static_cast<float>(blocks);
}

}  // namespace dsp::nohiss
