// DNZNoisePrint: the noise dictionary from the magnitude spectra of a noise-only selection.

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdint>

#include "dsp/dnz.h"
#include "dsp/fft_window.h"
#include "dsp/restoration/dnz/dnz_internal.h"

namespace dsp::dnz {

namespace detail {

void FrameWindow(float* window, int N) {
    GetFFTWindow(window, N, 1.0, kWindowHann | kWindowMirror | kWindowFloatOutput, 140.0);
}

void NormaliseAtoms(const NmfKernels& k, float* atoms, int stride, int count, const float* ones, float* sums) {
    k.project(atoms, stride, count, ones, sums, stride);
    for (int a = 0; a < count; ++a) {
        if (!(sums[a] > 0.0f)) continue;
        const float inverse = 1.0f / sums[a];
        float* row = atoms + std::size_t(a) * std::size_t(stride);
        for (int i = 0; i < stride; ++i)
            row[i] *= inverse;
    }
}

void StartingAtom(float* atom, int bins, int stride, int index) {
    uint32_t state = 0x9E3779B9u * uint32_t(index + 1);
    for (int i = 0; i < stride; ++i) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        atom[i] = i < bins ? 0.5f + float(state >> 8) * (1.0f / 16777216.0f) : 0.0f;
    }
}

}  // namespace detail

namespace {

// Multiplicative updates of the generalised Kullback-Leibler divergence D(V | W H) for V
// (frames × stride) with atoms W (count × stride, each summing to 1, so the activations' update
// needs no denominator) and activations H (frames × count).
void Factorise(const NmfKernels& k, const float* V, int frames, int bins, int stride, int count, int iterations,
               float* W, std::vector<float>& H, std::vector<float>& scratch) {
    const std::size_t S = std::size_t(stride), K = std::size_t(count);
    scratch.assign(3 * S + K * S + 2 * K, 0.0f);
    float* model = scratch.data();
    float* ratio = model + S;
    float* ones = ratio + S;
    float* numerators = ones + S;
    float* g = numerators + K * S;
    float* weight = g + K;
    std::fill_n(ones, bins, 1.0f);

    // Each atom starts from the mean of every count-th spectrum plus a share of the mean level,
    // so atoms differ where the noise changed and none starts at zero.
    double level = 0.0;
    for (int t = 0; t < frames; ++t)
        for (int i = 0; i < bins; ++i)
            level += V[std::size_t(t) * S + std::size_t(i)];
    level /= double(frames) * bins;
    const float floor = float(level) * 1e-6f + 1e-30f;
    for (int a = 0; a < count; ++a) {
        float* atom = W + std::size_t(a) * S;
        detail::StartingAtom(atom, bins, stride, a);
        for (int i = 0; i < bins; ++i)
            atom[i] *= float(level) * 0.1f;
        for (int t = a % frames; t < frames; t += count)
            for (int i = 0; i < bins; ++i)
                atom[i] += V[std::size_t(t) * S + std::size_t(i)];
    }
    detail::NormaliseAtoms(k, W, stride, count, ones, g);
    H.assign(std::size_t(frames) * K, 0.0f);
    for (int t = 0; t < frames; ++t) {
        k.project(ones, stride, 1, V + std::size_t(t) * S, g, stride);
        std::fill_n(H.begin() + std::ptrdiff_t(t * K), K, std::max(g[0], floor) / float(count));
    }

    for (int it = 0; it < iterations; ++it) {
        std::fill(numerators, numerators + K * S, 0.0f);
        std::fill_n(weight, K, 0.0f);
        for (int t = 0; t < frames; ++t) {
            float* h = H.data() + std::size_t(t) * K;
            k.combine(W, stride, count, h, model, stride);
            k.ratio(V + std::size_t(t) * S, model, floor, ratio, stride);
            k.project(W, stride, count, ratio, g, stride);
            k.accumulate(numerators, stride, count, h, ratio, stride);
            for (std::size_t a = 0; a < K; ++a) {
                weight[a] += h[a];
                h[a] *= g[a];
            }
        }
        for (std::size_t a = 0; a < K; ++a) {
            if (!(weight[a] > 0.0f)) continue;
            const float inverse = 1.0f / weight[a];
            float* atom = W + a * S;
            const float* numerator = numerators + a * S;
            for (int i = 0; i < bins; ++i)
                atom[i] *= numerator[i] * inverse;
        }
        detail::NormaliseAtoms(k, W, stride, count, ones, g);
        for (int t = 0; t < frames; ++t)
            for (std::size_t a = 0; a < K; ++a)
                H[std::size_t(t) * K + a] *= g[a] > 0.0f ? g[a] : 1.0f;
    }
}

}  // namespace

DNZNoisePrint::DNZNoisePrint(const DNZ* param) : mParam(param) {
    if (!IsValidShape(&mParam.record)) return;
    const int N = mParam.record.fftSize;
    mStride = detail::StrideFor(N / 2 + 1);
    mFFT.Init(N);
    mWindow.assign(std::size_t(N), 0.0f);
    detail::FrameWindow(mWindow.data(), N);
    mTransform.assign(std::size_t(N) + 2, 0.0f);
    mOnes.assign(std::size_t(mStride), 0.0f);
    std::fill_n(mOnes.begin(), N / 2 + 1, 1.0f);
}

DNZNoisePrint::~DNZNoisePrint() = default;

bool DNZNoisePrint::SetSelection(long long start, long long length) {
    DSPAnalyzer::SetSelection(start, length);
    const int N = mParam.record.fftSize;
    if (!IsValidShape(&mParam.record) || length < N) {
        mFrames = 0;
        mHop = 0;
        return false;
    }
    const long long span = length - N;
    const long long frames = std::min<long long>(span / (N / 2) + 1, std::max<int32_t>(mParam.record.maxFrames, 1));
    mFrames = int32_t(frames);
    mHop = frames > 1 ? int32_t(std::min<long long>(span / (frames - 1), INT32_MAX)) : N;
    mSelectionLength = length;
    mSpectra.assign(std::size_t(mParam.record.channels) * std::size_t(mFrames) * std::size_t(mStride), 0.0f);
    return true;
}

int32_t DNZNoisePrint::GetDesiredBlockSize() const {
    return std::max<int32_t>(mParam.record.fftSize, mHop);
}

void DNZNoisePrint::Start(float* hostPointer) {
    DSPAnalyzer::Start(hostPointer);
    mFramesDone = 0;
}

long long DNZNoisePrint::Analyze(float** data, int numChannels, int numFrames) {
    if (mFramesDone >= mFrames) return mHop;
    const int N = mParam.record.fftSize, bins = N / 2 + 1;
    const int available = std::clamp(numFrames, 0, N);
    for (int c = 0; c < mParam.record.channels; ++c) {
        const float* x = c < numChannels && data != nullptr ? data[c] : nullptr;
        for (int i = 0; i < N; ++i)
            mTransform[std::size_t(i)] = x != nullptr && i < available ? x[i] * mWindow[std::size_t(i)] : 0.0f;
        mFFT.FFT(mTransform.data(), 1);
        float* row =
            mSpectra.data() + (std::size_t(c) * std::size_t(mFrames) + std::size_t(mFramesDone)) * std::size_t(mStride);
        for (int i = 0; i < bins; ++i) {
            const float re = mTransform[2 * std::size_t(i)], im = mTransform[2 * std::size_t(i) + 1];
            row[i] = std::sqrt(re * re + im * im);
        }
    }
    ++mFramesDone;
    return mHop;
}

bool DNZNoisePrint::IsCompleted() const {
    return mFramesDone >= mFrames;
}

float DNZNoisePrint::GetProgress() const {
    return mFrames > 0 ? float(mFramesDone) * 100.0f / float(mFrames) : 100.0f;
}

void DNZNoisePrint::Done() {
    if (mFramesDone == 0 || mSpectra.empty() || mParam.record.noiseDictionary == nullptr) return;
    const NmfKernels& k = NmfKernelsFor();
    const int bins = mParam.record.fftSize / 2 + 1, count = mParam.record.noiseAtoms;
    std::vector<float> atoms(std::size_t(count) * std::size_t(mStride)), activations, scratch;
    for (int c = 0; c < mParam.record.channels; ++c) {
        const float* V = mSpectra.data() + std::size_t(c) * std::size_t(mFrames) * std::size_t(mStride);
        Factorise(k, V, mFramesDone, bins, mStride, count, std::max<int>(mParam.record.learnIterations, 0),
                  atoms.data(), activations, scratch);
        float loudest = 0.0f;
        for (int t = 0; t < mFramesDone; ++t) {
            float sum = 0.0f;
            k.project(V + std::size_t(t) * std::size_t(mStride), mStride, 1, mOnes.data(), &sum, mStride);
            loudest = std::max(loudest, sum);
        }
        mParam.record.noiseCeiling[c] = loudest;
        for (int a = 0; a < count; ++a)
            std::copy_n(atoms.data() + std::size_t(a) * std::size_t(mStride), bins,
                        mParam.record.noiseDictionary[c] + std::size_t(a) * std::size_t(bins));
    }
    mParam.record.frameCount = int16_t(std::min<int32_t>(mFramesDone, INT16_MAX));
    mSpectra.clear();
    mSpectra.shrink_to_fit();
}

}  // namespace dsp::dnz
