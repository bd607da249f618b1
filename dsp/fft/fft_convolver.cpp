#include "dsp/fft_convolver.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "dsp/core/aligned_memory.h"

namespace dsp {

FFTConvolver::FFTConvolver(const FFTConvolver& other) {
    *this = other;
}

FFTConvolver& FFTConvolver::operator=(const FFTConvolver& other) {
    if (this == &other) return *this;
    Release();
    if (!other.IsInitialized()) return *this;
    mChannels = other.mChannels;
    mTaps = other.mTaps;
    mFFTSize = other.mFFTSize;
    mBlockLength = other.mBlockLength;
    mPosition = other.mPosition;
    // Same geometry, same layout: one copy of the block carries the whole state.
    mStorageDoubles = Carve();
    mStorage = detail::AllocateAlignedArrayUninitialised<double>(mStorageDoubles);
    Carve();
    std::memcpy(mStorage, other.mStorage, mStorageDoubles * sizeof(double));
    detail::CopyEngineWithOwnScratch(mFFT, other.mFFT);
    return *this;
}

FFTConvolver::~FFTConvolver() {
    Release();
}

std::size_t FFTConvolver::Carve() {
    const auto fft = static_cast<std::size_t>(mFFTSize);
    std::size_t offset = 0;
    auto take = [&]() -> double* {
        double* p = (mStorage != nullptr) ? mStorage + offset : nullptr;
        offset += detail::AlignedStride<double>(fft);
        return p;
    };
    mFilterRe = take();
    mFilterIm = take();
    mWorkRe = take();
    mWorkIm = take();
    const bool odd = (mChannels % 2) != 0;
    mZero = odd ? take() : nullptr;
    mDiscard = odd ? take() : nullptr;
    mInput.assign(static_cast<std::size_t>(mChannels), nullptr);
    mOutput.assign(static_cast<std::size_t>(mChannels), nullptr);
    for (int c = 0; c < mChannels; ++c) {
        mInput[c] = take();
        mOutput[c] = take();
    }
    return offset;
}

void FFTConvolver::Init(int channels, int taps, int fftSize) {
    assert(channels >= 0 && taps >= 1 && fftSize >= taps && (fftSize & (fftSize - 1)) == 0);
    Release();
    mChannels = std::max(channels, 0);
    mTaps = taps;
    mFFTSize = fftSize;
    mBlockLength = fftSize - taps + 1;
    mStorageDoubles = Carve();
    mStorage = detail::AllocateAlignedArray<double>(mStorageDoubles);  // zeroed
    Carve();
    mFFT.Init(fftSize);
}

void FFTConvolver::Release() {
    detail::FreeAlignedArray(mStorage);
    mStorage = nullptr;
    mStorageDoubles = 0;
    mFilterRe = mFilterIm = mWorkRe = mWorkIm = mZero = mDiscard = nullptr;
    mInput.clear();
    mOutput.clear();
    mFFT.DeInit();
    mChannels = mTaps = mFFTSize = mBlockLength = mPosition = 0;
}

void FFTConvolver::SetResponse(const double* response, double gain) {
    if (!IsInitialized()) return;
    for (int j = 0; j < mTaps; ++j)
        mWorkRe[j] = response[j] * gain;
    std::fill(mWorkRe + mTaps, mWorkRe + mFFTSize, 0.0);
    std::fill(mWorkIm, mWorkIm + mFFTSize, 0.0);
    mFFT.FFT(mWorkRe, mWorkIm, mFilterRe, mFilterIm, 1);
    // The inverse transform is unscaled; fold its 1/F in here once.
    const double scale = 1.0 / static_cast<double>(mFFTSize);
    for (int k = 0; k < mFFTSize; ++k) {
        mFilterRe[k] *= scale;
        mFilterIm[k] *= scale;
    }
}

void FFTConvolver::Reset() {
    const auto bytes = static_cast<std::size_t>(mFFTSize) * sizeof(double);
    for (int c = 0; c < mChannels; ++c) {
        std::memset(mInput[c], 0, bytes);
        std::memset(mOutput[c], 0, bytes);
    }
    mPosition = 0;
}

void FFTConvolver::ConvolveBlock() {
    const int size = mFFTSize;
    double* __restrict wr = mWorkRe;
    double* __restrict wi = mWorkIm;
    const double* __restrict hr = mFilterRe;
    const double* __restrict hi = mFilterIm;
    for (int c = 0; c < mChannels; c += 2) {
        const bool pair = c + 1 < mChannels;
        mFFT.FFT(mInput[c], pair ? mInput[c + 1] : mZero, wr, wi, 1);
        for (int k = 0; k < size; ++k) {
            const double a = wr[k];
            const double b = wi[k];
            wr[k] = a * hr[k] - b * hi[k];
            wi[k] = a * hi[k] + b * hr[k];
        }
        mFFT.FFT(wr, wi, mOutput[c], pair ? mOutput[c + 1] : mDiscard, -1);
    }
    // The last K - 1 inputs are the next block's history.
    const auto history = static_cast<std::size_t>(mTaps - 1);
    for (int c = 0; c < mChannels; ++c)
        std::memmove(mInput[c], mInput[c] + mBlockLength, history * sizeof(double));
}

void FFTConvolver::Process(float** in, float** out, int numChannels, int numFrames) {
    if (mChannels <= 0 || numFrames <= 0) return;
    const int fed = std::clamp(numChannels, 0, mChannels);
    assert(fed == 0 || (in != nullptr && out != nullptr));
    const int history = mTaps - 1;
    int done = 0;
    while (done < numFrames) {
        const int n = std::min(numFrames - done, mBlockLength - mPosition);
        const int at = history + mPosition;
        // Every input is taken before any output is written, so in and out may be the same arrays.
        for (int c = 0; c < mChannels; ++c) {
            double* dst = mInput[c] + at;
            if (c < fed) {
                const float* src = in[c] + done;
                for (int i = 0; i < n; ++i)
                    dst[i] = src[i];
            } else {
                std::fill(dst, dst + n, 0.0);
            }
        }
        for (int c = 0; c < fed; ++c) {
            const double* src = mOutput[c] + at;
            float* dst = out[c] + done;
            for (int i = 0; i < n; ++i)
                dst[i] = static_cast<float>(src[i]);
        }
        mPosition += n;
        done += n;
        if (mPosition == mBlockLength) {
            ConvolveBlock();
            mPosition = 0;
        }
    }
}

void FFTConvolver::ProcessFrame(const float* in, float* out) {
    if (mChannels <= 0) return;
    const int at = mTaps - 1 + mPosition;
    for (int c = 0; c < mChannels; ++c)
        mInput[c][at] = in[c];
    for (int c = 0; c < mChannels; ++c)
        out[c] = static_cast<float>(mOutput[c][at]);
    if (++mPosition == mBlockLength) {
        ConvolveBlock();
        mPosition = 0;
    }
}

}  // namespace dsp
