#include "dsp/overlap_save.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstring>
#include <numbers>

#include "dsp/core/aligned_memory.h"
#include "dsp/core/denormal_guard.h"
#include "dsp/fft/spectrum_packing_internal.h"
#include "dsp/fft/window_kernels.h"
#include "dsp/fft_window.h"
#include "dsp/spectrum_packing.h"

namespace dsp {

namespace {

// The window products built for this CPU, picked once.
const detail::WindowKernels& BestWindowKernels() {
    static const detail::WindowKernels& best = detail::PickKernels(
        detail::portable::WindowKernelTable(), KESTADSP_AVX2_TABLE(detail::avx2::WindowKernelTable()));
    return best;
}

void Scale(float* data, float factor, int n) {
    for (int i = 0; i < n; ++i)
        data[i] *= factor;
}

}  // namespace

bool OverlapSave::IsValidGeometry(int N, int C, int P, int L) {
    return C >= 1 && C <= kMaxChannels && L >= 1 && P >= L && int64_t{P} + 2 * int64_t{L} <= N;
}

bool OverlapSave::IsValidOverlap(int fftSize, int overlap) {
    if (fftSize < 1 || overlap < 1) return false;
    const int64_t N = fftSize, L = N / overlap, P = ((overlap - 1) * N / overlap) / 2;
    return L >= 1 && P >= L && P + 2 * L <= N;
}

OverlapSave::OverlapSave() = default;

OverlapSave::OverlapSave(int N, int C, int P, int L, FFTWindowType type) {
    Init(N, C, P, L, type);
}

OverlapSave::OverlapSave(const OverlapSave& other) : DSPProcess(other) {
    CopyFrom(other);
}

OverlapSave& OverlapSave::operator=(const OverlapSave& other) {
    if (this != &other) {
        DSPProcess::operator=(other);
        CopyFrom(other);
    }
    return *this;
}

OverlapSave::~OverlapSave() {
    ReleaseStorage();
}

void OverlapSave::ReleaseStorage() {
    detail::FreeAlignedArray(mStorage);
    mStorage = nullptr;
    mStorageFloats = 0;
    mAnalysisWindow = mSynthesisWindow = mRising = mFalling = nullptr;
    mTransformRe = mTransformIm = mSilence = mDiscard = nullptr;
    mTail.clear();
    mWork.clear();
    mSpectrumRe.clear();
    mSpectrumIm.clear();
}

void OverlapSave::CopyFrom(const OverlapSave& other) {
    float* storage = detail::AllocateAlignedArray<float>(other.mStorageFloats);
    if (other.mStorageFloats != 0) std::memcpy(storage, other.mStorage, other.mStorageFloats * sizeof(float));
    ReleaseStorage();
    mStorage = storage;
    mStorageFloats = other.mStorageFloats;

    // Every array pointer keeps its offset in the block.
    auto rebase = [&](const float* p) -> float* { return p == nullptr ? nullptr : mStorage + (p - other.mStorage); };
    auto rebaseAll = [&](const std::vector<float*>& from, std::vector<float*>& to) {
        to.resize(from.size());
        for (std::size_t i = 0; i < from.size(); ++i)
            to[i] = rebase(from[i]);
    };

    mFrameLength = other.mFrameLength;
    mLatency = other.mLatency;
    mNumChannels = other.mNumChannels;
    mNumChannelsEven = other.mNumChannelsEven;
    mCrossfadeLength = other.mCrossfadeLength;
    mOutputOffset = other.mOutputOffset;
    mFirstFrame = other.mFirstFrame;
    mWindowsBuilt = other.mWindowsBuilt;
    mWindowType = other.mWindowType;
    mAnalysisWindow = rebase(other.mAnalysisWindow);
    mSynthesisWindow = rebase(other.mSynthesisWindow);
    mRising = rebase(other.mRising);
    mFalling = rebase(other.mFalling);
    rebaseAll(other.mTail, mTail);
    rebaseAll(other.mWork, mWork);
    mAccumulated = other.mAccumulated;
    mRingCapacity = other.mRingCapacity;
    rebaseAll(other.mSpectrumRe, mSpectrumRe);
    rebaseAll(other.mSpectrumIm, mSpectrumIm);
    // An engine copy shares its plan and its scratch buffer; two engines running on different
    // threads must not share scratch, so the copy makes its own.
    detail::CopyEngineWithOwnScratch(mFFT, other.mFFT);
    mPreScaler = other.mPreScaler;
    mPostScaler = other.mPostScaler;
    mInputRing = other.mInputRing;
    mOutputRing = other.mOutputRing;
    mTransformRe = rebase(other.mTransformRe);
    mTransformIm = rebase(other.mTransformIm);
    mSilence = rebase(other.mSilence);
    mDiscard = rebase(other.mDiscard);
}

void OverlapSave::Init(int N, int C, int P, int L, FFTWindowType type) {
    assert(IsValidGeometry(N, C, P, L));

    const int channelsEven = C + (C & 1);
    const std::size_t strideN = detail::AlignedStride<float>(static_cast<std::size_t>(N));
    const std::size_t strideL = detail::AlignedStride<float>(static_cast<std::size_t>(L));
    const std::size_t total = 2 * strideN                                             // windows
                              + 2 * strideL                                           // curves
                              + static_cast<std::size_t>(C) * strideL                 // tails
                              + static_cast<std::size_t>(C) * strideN                 // work frames
                              + 2 * static_cast<std::size_t>(channelsEven) * strideN  // spectra
                              + 2 * strideN                                           // transform
                              + 2 * strideL * 2;  // silence and discard for missing host channels
    float* storage = detail::AllocateAlignedArray<float>(total);
    ReleaseStorage();
    mStorage = storage;
    mStorageFloats = total;

    float* next = mStorage;
    auto carve = [&next](std::size_t stride) {
        float* p = next;
        next += stride;
        return p;
    };
    mAnalysisWindow = carve(strideN);
    mSynthesisWindow = carve(strideN);
    mRising = carve(strideL);
    mFalling = carve(strideL);
    mTail.resize(static_cast<std::size_t>(C));
    for (float*& p : mTail)
        p = carve(strideL);
    mWork.resize(static_cast<std::size_t>(C));
    for (float*& p : mWork)
        p = carve(strideN);
    mSpectrumRe.resize(static_cast<std::size_t>(channelsEven));
    for (float*& p : mSpectrumRe)
        p = carve(strideN);
    mSpectrumIm.resize(static_cast<std::size_t>(channelsEven));
    for (float*& p : mSpectrumIm)
        p = carve(strideN);
    mTransformRe = carve(strideN);
    mTransformIm = carve(strideN);
    mSilence = carve(2 * strideL);
    mDiscard = carve(2 * strideL);

    mFrameLength = N;
    mLatency = N;
    mNumChannels = C;
    mNumChannelsEven = channelsEven;
    mCrossfadeLength = L;
    mOutputOffset = P;
    mWindowType = type;
    mFFT.Init(N);

    // Raised-sine crossfade, computed in double: rising + falling = 1 up to the float rounding.
    constexpr double pi = std::numbers::pi;
    for (int i = 0; i < L; ++i) {
        const double x = static_cast<double>(i) * pi / L;
        mRising[i] = static_cast<float>((std::sin(x - pi / 2) + 1.0) / 2.0);
        mFalling[i] = static_cast<float>((std::sin(x + pi / 2) + 1.0) / 2.0);
    }

    mRingCapacity = 2 * N;
    mInputRing.Allocate(C, mRingCapacity);
    mOutputRing.Allocate(C, mRingCapacity);

    mWindowsBuilt = false;
    mFirstFrame = true;
    mAccumulated = 0;
}

int OverlapSave::GetLatency() const {
    return mLatency;
}

void OverlapSave::SetSampleRate(int) {}

void OverlapSave::Suspend() {}

void OverlapSave::Resume() {
    assert(mFrameLength > 0 && "Init before Resume");
    if (mFrameLength > 0) {
        if (!mWindowsBuilt) {
            ComputeWindow();
            mWindowsBuilt = true;
        }
        for (float* tail : mTail)
            std::memset(tail, 0, sizeof(float) * static_cast<std::size_t>(mCrossfadeLength));
        for (float* work : mWork)
            std::memset(work, 0, sizeof(float) * static_cast<std::size_t>(mFrameLength));
        mAccumulated = 0;
        mInputRing.Reset();
        mInputRing.FillZeroes(mOutputOffset);
        mOutputRing.Reset();
        mOutputRing.FillZeroes(mFrameLength);
        mFirstFrame = true;
    }
    DSPProcess::Start();
}

void OverlapSave::SetScaler(float pre, float post) {
    mPreScaler = pre;
    mPostScaler = post;
}

void OverlapSave::ComputeWindow() {
    const unsigned int shape = static_cast<unsigned int>(mWindowType);
    GetFFTWindow(mAnalysisWindow, mFrameLength, 1.0, shape | kWindowMirror | kWindowFloatOutput, 140.0);
    GetFFTWindow(mSynthesisWindow, mFrameLength, 1.0, shape | kWindowMirror | kWindowReciprocal | kWindowFloatOutput,
                 140.0);
    Scale(mSynthesisWindow, static_cast<float>(1.0 / mFrameLength), mFrameLength);
}

void OverlapSave::Process(float* in, float* out, int numFrames) {
    assert(mNumChannels == 1);
    float* inChannels[1] = {in};
    float* outChannels[1] = {out};
    Process(inChannels, outChannels, 1, numFrames);
}

void OverlapSave::Process(float** in, float** out, int numChannels, int numFrames) {
    assert(mFrameLength > 0 && "Init and Resume before Process");
    assert(mWindowsBuilt && "Resume before the first Process after Init");
    assert(numChannels >= mNumChannels && in != nullptr && out != nullptr && "buffers for every channel");
    if (mFrameLength == 0 || numFrames <= 0) return;
    // A host that skipped Resume gets a started stream rather than silence from unbuilt windows.
    if (!mWindowsBuilt) Resume();

    const int C = std::min(mNumChannels, kMaxChannels);
    const int N = mFrameLength;
    const int L = mCrossfadeLength;
    const int P = mOutputOffset;
    const int hop = 2 * L;
    // Channels the host did not pass read silence, and their output goes to a scratch block (both
    // one chunk long; those pointers are not advanced).
    const int fed = in != nullptr && out != nullptr ? std::clamp(numChannels, 0, C) : 0;
    float* inP[kMaxChannels];
    float* outP[kMaxChannels];
    for (int ch = 0; ch < C; ++ch) {
        inP[ch] = ch < fed ? in[ch] : mSilence;
        outP[ch] = ch < fed ? out[ch] : mDiscard;
    }

    for (int n = numFrames; n > 0;) {
        const int chunk = std::min(hop, n);
        mInputRing.Write(inP, 0, C, chunk);
        for (int ch = 0; ch < fed; ++ch)
            inP[ch] += chunk;
        mAccumulated += chunk;

        if (mAccumulated >= hop && mInputRing.CanBeRead() >= N) {
            mInputRing.Read(mWork.data(), C, N, hop);
            OnAudio(mWork.data(), C, N, false);
            if (!mFirstFrame) {
                // The first L samples of the taken region fade in over the previous frame's tail.
                for (int ch = 0; ch < C; ++ch) {
                    float* tail = mTail[ch];
                    const float* head = mWork[ch] + (P - L);
                    for (int i = 0; i < L; ++i)
                        tail[i] = tail[i] * mFalling[i] + head[i] * mRising[i];
                }
                mOutputRing.Write(mTail.data(), 0, C, L);
            } else {
                mFirstFrame = false;
            }
            mOutputRing.Write(mWork.data(), P, C, L);
            for (int ch = 0; ch < C; ++ch)
                std::memcpy(mTail[ch], mWork[ch] + P + L, sizeof(float) * static_cast<std::size_t>(L));
            mAccumulated -= hop;
        }

        if (mOutputRing.CanBeRead() >= chunk) {
            mOutputRing.Read(outP, C, chunk, chunk);
            for (int ch = 0; ch < fed; ++ch)
                outP[ch] += chunk;
        }
        n -= chunk;
    }
}

void OverlapSave::OnAudio(float** frame, int numChannels, int N, bool accumulate) {
    DenormalGuard guard;  // restores the caller's mode on return
    TransformFrameToSpectra(frame, numChannels);
    OnSpectrum(mSpectrumRe.data(), mSpectrumIm.data(), numChannels, N / 2 + 1);
    Synthesis mode = accumulate ? Synthesis::Add : Synthesis::Store;
    if (ResidualOutput()) mode = Synthesis::Subtract;
    TransformSpectraToFrame(frame, numChannels, mode);
}

void OverlapSave::OnSpectrum(float** re, float** im, int numChannels, int numBins) {
    const int keep = numBins / 8;
    for (int ch = 0; ch < numChannels; ++ch) {
        for (int k = keep + 1; k < numBins; ++k) {
            re[ch][k] = 0.0f;
            im[ch][k] = 0.0f;
        }
    }
}

void OverlapSave::TransformFrameToSpectra(float** frame, int numChannels) {
    assert(numChannels <= mNumChannels);
    const int N = mFrameLength;
    const detail::WindowKernels& kernels = BestWindowKernels();
    for (int ch = 0; ch < numChannels; ch += 2) {
        const float* second = ch + 1 < numChannels ? frame[ch + 1] : frame[ch];
        kernels.multiply(frame[ch], mAnalysisWindow, mTransformRe, N);
        kernels.multiply(second, mAnalysisWindow, mTransformIm, N);
        mFFT.FFT(mTransformRe, mTransformIm, 1);
        if (mPreScaler != 1.0f) {
            Scale(mTransformRe, mPreScaler, N);
            Scale(mTransformIm, mPreScaler, N);
        }
        // For an odd last channel this also fills the spare spectrum ch + 1 (mNumChannelsEven
        // covers it); hooks see only numChannels channels and it is dropped on the way back.
        detail::SplitToHalfSpectra(mTransformRe, mTransformIm, ch, mSpectrumRe.data(), mSpectrumIm.data(), N);
    }
}

void OverlapSave::TransformSpectraToFrame(float** frame, int numChannels, Synthesis mode) {
    assert(numChannels <= mNumChannels);
    const int N = mFrameLength;
    const float* window = mSynthesisWindow;
    const detail::WindowKernels& kernels = BestWindowKernels();
    auto emit = [&](float* dst, const float* src) {
        switch (mode) {
            case Synthesis::Store:
                return kernels.multiply(src, window, dst, N);
            case Synthesis::Add:
                return kernels.addProduct(src, window, dst, N);
            case Synthesis::Subtract:
                return kernels.subtractProduct(src, window, dst, N);
        }
    };
    for (int ch = 0; ch < numChannels; ch += 2) {
        CombineLRSpectrumToComplex(ch, mSpectrumRe.data(), mSpectrumIm.data(), mTransformRe, mTransformIm, N);
        if (mPostScaler != 1.0f) {
            Scale(mTransformRe, mPostScaler, N);
            Scale(mTransformIm, mPostScaler, N);
        }
        mFFT.FFT(mTransformRe, mTransformIm, -1);
        emit(frame[ch], mTransformRe);
        if (ch + 1 < numChannels) emit(frame[ch + 1], mTransformIm);
    }
}

}  // namespace dsp
