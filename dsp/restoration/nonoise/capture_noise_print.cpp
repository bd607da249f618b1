// CaptureNoisePrint: per-bin magnitude statistics of windowed snapshots of a noise-only selection.

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstring>

#include "dsp/core/aligned_memory.h"
#include "dsp/core/host_buffers.h"
#include "dsp/nonoise.h"
#include "dsp/restoration/nonoise/record_storage.h"
#include "dsp/spectrum_packing.h"

namespace dsp::nonoise {

namespace {

// binMin starts at the largest single-precision value, so the first snapshot always lowers it.
constexpr double kLargestFloat = 3.4028234663852886e38;

}  // namespace

CaptureNoisePrint::CaptureNoisePrint(const NONOISE* param) {
    CopyNoNoise(param, &mParam, true);
    mParam.frameCount = 0;
    mChannelsEven = (mParam.channels + 1) & ~1;
    mHop = mParam.fftSize;
    mFFT.Init(mParam.fftSize);
    Allocate();

    const int N = mParam.fftSize;
    mWindow[0] = 0.0;
    mWindow[N / 2] = 1.0;
    for (int k = 0; k <= N / 2 - 2; ++k) {
        const double v = detail::PrintWindowValue(k, N);
        mWindow[k + 1] = v;
        mWindow[N - 1 - k] = v;
    }
}

CaptureNoisePrint::CaptureNoisePrint(const CaptureNoisePrint& other) : DSPAnalyzer(other) {
    CopyNoNoise(&other.mParam, &mParam, true);
    mChannelsEven = other.mChannelsEven;
    mSelectionStart = other.mSelectionStart;
    mSelectionLength = other.mSelectionLength;
    mHop = other.mHop;
    mBlocksDone = other.mBlocksDone;
    mSnapshots = other.mSnapshots;
    mAvailable = other.mAvailable;
    dsp::detail::CopyEngineWithOwnScratch(mFFT, other.mFFT);
    Allocate();
    std::memcpy(mWindow, other.mWindow, sizeof(double) * static_cast<std::size_t>(mParam.fftSize));
}

CaptureNoisePrint& CaptureNoisePrint::operator=(const CaptureNoisePrint& other) {
    if (this != &other) {
        CaptureNoisePrint copy(other);
        DSPAnalyzer::operator=(other);
        std::swap(mParam, copy.mParam);
        std::swap(mChannelsEven, copy.mChannelsEven);
        mSelectionStart = copy.mSelectionStart;
        mSelectionLength = copy.mSelectionLength;
        mHop = copy.mHop;
        mBlocksDone = copy.mBlocksDone;
        mSnapshots = copy.mSnapshots;
        mAvailable = copy.mAvailable;
        std::swap(mFFT, copy.mFFT);
        std::swap(mWindow, copy.mWindow);
        std::swap(mSplitRe, copy.mSplitRe);
        std::swap(mSplitIm, copy.mSplitIm);
        std::swap(mInputRe, copy.mInputRe);
        std::swap(mInputIm, copy.mInputIm);
        std::swap(mStorage, copy.mStorage);
    }
    return *this;
}

CaptureNoisePrint::~CaptureNoisePrint() {
    Release();
    detail::ReleaseRecordArrays(&mParam);
}

void CaptureNoisePrint::Allocate() {
    const std::size_t N = static_cast<std::size_t>(std::max<int>(mParam.fftSize, 0));
    const std::size_t rows = static_cast<std::size_t>(std::max(mChannelsEven, 0));
    // N is a power of two, so with 64-byte alignment of the block every row starts aligned too
    // once N >= 8.
    mStorage = dsp::detail::AllocateAlignedArray<double>(N * (1 + 4 * rows) + 1);  // zeroed
    mWindow = mStorage;
    double** tables = new double*[4 * rows + 1];
    mSplitRe = tables;
    mSplitIm = tables + rows;
    mInputRe = tables + 2 * rows;
    mInputIm = tables + 3 * rows;
    for (std::size_t r = 0; r < 4 * rows; ++r)
        tables[r] = mStorage + N * (1 + r);
}

void CaptureNoisePrint::Release() {
    delete[] mSplitRe;  // the four row tables are one allocation
    dsp::detail::FreeAlignedArray(mStorage);
    mSplitRe = mSplitIm = mInputRe = mInputIm = nullptr;
    mStorage = mWindow = nullptr;
}

bool CaptureNoisePrint::SetSelection(long long start, long long length) {
    mSelectionStart = start;
    mSelectionLength = length;
    const long long N = mParam.fftSize;
    const long long usable = length - N;
    long long snapshots = (usable - 1) / (N / 3);
    snapshots = std::max(snapshots, 1LL);
    snapshots = std::min<long long>(snapshots, std::max<int32_t>(mParam.maxSnapshots, 8));
    const long long hop = usable / snapshots;
    mSnapshots = static_cast<int32_t>(snapshots);
    mHop = static_cast<int32_t>(std::clamp<long long>(hop, INT32_MIN, INT32_MAX));
    return hop >= 3;
}

int32_t CaptureNoisePrint::GetDesiredBlockSize() const {
    return std::max<int32_t>(mParam.fftSize, mHop);
}

void CaptureNoisePrint::Start(float* hostPointer) {
    DSPAnalyzer::Start(hostPointer);
    const int N = mParam.fftSize;
    for (int c = 0; c < mParam.channels; ++c) {
        std::fill_n(mParam.binRms[c], N, 0.0);
        std::fill_n(mParam.binMin[c], N, kLargestFloat);
        std::fill_n(mParam.binMax[c], N, 0.0);
        mParam.dcMin[c] = kLargestFloat;
        mParam.dcMax[c] = 0.0;
    }
    mBlocksDone = 0;
    // frameCount is left as it is: Done divides by every snapshot this object has taken.
}

long long CaptureNoisePrint::Analyze(float** data, int numChannels, int numFrames) {
    assert(data != nullptr && numChannels >= mParam.channels && "buffers for the record's channel count");
    assert(numFrames >= mParam.fftSize && "blocks of GetDesiredBlockSize() frames");
    // A short block (a host that ignored GetDesiredBlockSize) reads as silence past its end, and a
    // channel the host did not pass as silence throughout, rather than past the caller's buffers.
    mAvailable = std::clamp<int>(numFrames, 0, mParam.fftSize);
    for (int c = 0; c < mChannelsEven; c += 2)
        addtolevels(c, data, numChannels);
    mParam.frameCount = static_cast<int16_t>(mParam.frameCount + 1);
    ++mBlocksDone;
    return mHop;
}

void CaptureNoisePrint::addtolevels(int c, float** data, int numChannels) {
    const int N = mParam.fftSize;
    const int C = mParam.channels;
    const float* first = dsp::detail::HostChannel(data, numChannels, c);
    const float* second = c + 1 < C ? dsp::detail::HostChannel(data, numChannels, c + 1) : first;
    double* re = mInputRe[c];
    double* im = mInputIm[c];
    const int n = mAvailable;
    WindowInto(re, first, n);
    WindowInto(im, second, n);
    std::fill(re + n, re + N, 0.0);
    std::fill(im + n, im + N, 0.0);
    mFFT.FFT(re, im, 1);
    SplitComplexSpectrumToLR(re, im, c, mSplitRe, mSplitIm, N);

    const double g = 1.0 / (N * 0.25);
    for (int ch = c; ch < c + 2 && ch < C; ++ch) {
        const double* sRe = mSplitRe[ch];
        const double* sIm = mSplitIm[ch];
        const double dc = std::fabs(sRe[0]) * g;
        mParam.dcMin[ch] = std::min(mParam.dcMin[ch], dc);
        mParam.dcMax[ch] = std::max(mParam.dcMax[ch], dc);
        double* rms = mParam.binRms[ch];
        double* lo = mParam.binMin[ch];
        double* hi = mParam.binMax[ch];
        for (int k = 0; k <= N / 2; ++k) {
            const double p = sRe[k] * sRe[k] + sIm[k] * sIm[k];
            const double m = std::sqrt(p) * g;
            rms[k] += p;
            lo[k] = std::min(lo[k], m);
            hi[k] = std::max(hi[k], m);
        }
    }
}

void CaptureNoisePrint::WindowInto(double* dst, const float* src, int n) const {
    if (src == nullptr) {
        std::fill(dst, dst + n, 0.0);
        return;
    }
    for (int i = 0; i < n; ++i)
        dst[i] = static_cast<double>(src[i]) * mWindow[i];
}

bool CaptureNoisePrint::IsCompleted() const {
    return mBlocksDone >= mSnapshots;
}

float CaptureNoisePrint::GetProgress() const {
    if (mSnapshots <= 0) return 100.0f;  // nothing planned is nothing left to do
    return static_cast<float>(mBlocksDone) * 100.0f / static_cast<float>(mSnapshots);
}

void CaptureNoisePrint::Done() {
    for (int c = 0; c < mParam.channels; ++c)
        scaleResult(mParam.binRms[c]);
}

void CaptureNoisePrint::scaleResult(double* row) {
    // Power sum -> RMS magnitude, in the record's 4/N scale.
    const int N = mParam.fftSize;
    const double g = 1.0 / (N * 0.25);
    for (int k = 0; k <= N / 2; ++k)
        row[k] = std::sqrt(row[k] / mParam.frameCount) * g;
}

}  // namespace dsp::nonoise
