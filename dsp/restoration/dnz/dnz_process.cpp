// DNZProcess: each frame factorised into the fixed noise atoms and signal atoms learned on line,
// and a Wiener-like gain from the two reconstructions.

#include <algorithm>
#include <cassert>
#include <cmath>
#include <limits>

#include "dsp/core/kernel_dispatch.h"
#include "dsp/dnz.h"
#include "dsp/restoration/dnz/dnz_internal.h"

namespace dsp::dnz {

const NmfKernels& NmfKernelsFor(dsp::detail::Isa isa) {
    static const NmfKernels& best =
        dsp::detail::PickKernels(portable::NmfKernelTable(), KESTADSP_AVX2_TABLE(avx2::NmfKernelTable()));
    if (isa == dsp::detail::Isa::Best) return best;
    return dsp::detail::PickKernels(portable::NmfKernelTable(), KESTADSP_AVX2_TABLE(avx2::NmfKernelTable()), isa);
}

namespace {

// A frame whose magnitudes sum to less than this is silence: it passes as it is and leaves the
// state alone.
constexpr float kSilence = 1e-20f;
// Floors relative to the frame's mean magnitude: of the model (no division by zero), of every
// activation (an atom switched off by the updates can come back), of a signal atom's entries.
constexpr float kModelFloor = 1e-6f;
constexpr float kActivationFloor = 1e-6f;
constexpr float kAtomFloor = 1e-9f;
// Gain rule (see ReduceChannel): the noise power from its expected magnitude, 4/π rounded up; the
// weight of the last frame in the decision-directed a-priori SNR (per hop of N/4); the smallest
// a-priori SNR (−30 dB); the slope from the signal's share of a bin to the weight of its Wiener
// gain (steep: within a frame that holds programme, a bin the signal explains even a little of
// takes the Wiener gain, which follows the noise estimate better than the share does).
constexpr float kNoisePower = 1.3f;
constexpr float kDecisionWeight = 0.9f;
constexpr float kLeastPrioriSnr = 1e-3f;
constexpr float kPresenceSlope = 80.0f;
// The share of a frame's magnitude the signal reconstruction explains, ΣS/Σ(S + N): at or below
// kQuietShare the frame holds no programme (the signal atoms only follow the noise's random
// detail there), at or above kSignalShare it does. In between the frame's gains move from the
// one state to the other.
constexpr float kQuietShare = 0.05f;
constexpr float kSignalShare = 0.15f;
// A frame without programme goes this much further down than the reduction (the natural log of
// −30 dB as a gain), and its bins to that floor however much of them the signal atoms explain.
constexpr float kPauseDepthLog = -3.4538776f;
// The noise part is held at least at this share of the noise level tracked over the frames
// without programme (so a loud note cannot push the noise estimate under the noise that is still
// there), the level following those frames with this weight on its last value per hop.
constexpr float kNoiseHold = 0.8f;
constexpr float kNoiseTrack = 0.95f;
// The first frame of a stream starts with the noise atoms holding the frame and the signal atoms
// this share of an even split, and takes this many times the iterations: from an even split the
// signal atoms would take most of a frame of noise and need a tenth of a second to let go of it.
constexpr float kStartSignal = 0.01f;
constexpr int kStartIterations = 5;

}  // namespace

DNZProcess::DNZProcess(const DNZ* param) : mParam(param) {
    mActive = IsValidShape(&mParam.record) && mParam.record.noiseDictionary != nullptr;
    const int N = IsValidShape(&mParam.record) ? mParam.record.fftSize : 2048;
    const int C = std::clamp<int>(mParam.record.channels, 1, OverlapSave::kMaxChannels);
    Init(N, C, N / 2, N / 8, Hann);
    mKernels = &NmfKernelsFor();
    if (!mActive) return;
    mBins = N / 2 + 1;
    mStride = detail::StrideFor(mBins);
    mNoiseAtoms = mParam.record.noiseAtoms;
    mTotalAtoms = mParam.record.noiseAtoms + mParam.record.signalAtoms;
    const std::size_t S = std::size_t(mStride), Ks = std::size_t(mParam.record.signalAtoms);
    mAtoms.assign(std::size_t(C) * std::size_t(mTotalAtoms) * S, 0.0f);
    mNumerators.assign(std::size_t(C) * Ks * S, 0.0f);
    mWeights.assign(std::size_t(C) * Ks, 0.0f);
    mActivations.assign(std::size_t(C) * std::size_t(mTotalAtoms), 0.0f);
    mPresence.assign(std::size_t(C) * S, 0.0f);
    mLastClean.assign(std::size_t(C) * S, 0.0f);
    mStarted.assign(std::size_t(C), 0);
    mNoiseCeiling.assign(std::size_t(C), 0.0f);
    mNoiseLevel.assign(std::size_t(C), 0.0f);
    mNoiseMix.assign(std::size_t(C) * std::size_t(mNoiseAtoms), 0.0f);
    for (auto* v : {&mMagnitude, &mModel, &mRatio, &mNoise, &mSignal, &mOnes})
        v->assign(S, 0.0f);
    mGains.assign(std::size_t(mTotalAtoms), 0.0f);
    std::fill_n(mOnes.begin(), mBins, 1.0f);
    ParameterChanged();
}

void DNZProcess::ParameterChanged() {
    const double db = std::clamp(mParam.record.reductionDb, 0.0, 120.0);
    mFloorGain = static_cast<float>(std::pow(10.0, -db / 20.0));
    mFloorLog = std::log(mFloorGain);
    mSmoothing = static_cast<float>(std::clamp(mParam.record.smoothingPercent, 0.0, 99.0) / 100.0);
    mForget = static_cast<float>(std::exp(-1.0 / std::max(mParam.record.signalMemory, 1.0)));
    mIterations = std::clamp<int>(mParam.record.iterations, 1, 100);
}

void DNZProcess::Resume() {
    OverlapSave::Resume();
    if (!mActive) return;
    const std::size_t S = std::size_t(mStride);
    for (int c = 0; c < mNumChannels; ++c) {
        float* atoms = Atoms(c);
        const int channel = std::min<int>(c, mParam.record.channels - 1);
        for (int a = 0; a < mNoiseAtoms; ++a)
            std::copy_n(mParam.record.noiseDictionary[channel] + std::size_t(a) * std::size_t(mBins), mBins,
                        atoms + std::size_t(a) * S);
        for (int a = mNoiseAtoms; a < mTotalAtoms; ++a)
            detail::StartingAtom(atoms + std::size_t(a) * S, mBins, mStride, a);
        const float headroom = float(std::max(mParam.record.noiseHeadroom, 0.0));
        mNoiseCeiling[std::size_t(c)] =
            mParam.record.noiseCeiling != nullptr && mParam.record.noiseCeiling[channel] > 0.0f
                ? mParam.record.noiseCeiling[channel] * headroom
                : std::numeric_limits<float>::max();
        // A print of silence (or of a hand-made record) may hold atoms that do not sum to 1.
        detail::NormaliseAtoms(*mKernels, atoms, mStride, mTotalAtoms, mOnes.data(), mGains.data());
    }
    std::fill(mNumerators.begin(), mNumerators.end(), 0.0f);
    std::fill(mWeights.begin(), mWeights.end(), 0.0f);
    std::fill(mActivations.begin(), mActivations.end(), 0.0f);
    std::fill(mPresence.begin(), mPresence.end(), 0.0f);
    std::fill(mLastClean.begin(), mLastClean.end(), 0.0f);
    std::fill(mStarted.begin(), mStarted.end(), 0);
    std::fill(mNoiseLevel.begin(), mNoiseLevel.end(), 0.0f);
    std::fill(mNoiseMix.begin(), mNoiseMix.end(), 0.0f);
}

void DNZProcess::OnSpectrum(float** re, float** im, int numChannels, int numBins) {
    if (!mActive || mParam.record.reductionDb == 0.0) return;
    assert(numBins == mBins);
    (void)numBins;
    for (int c = 0; c < std::min(numChannels, mNumChannels); ++c)
        ReduceChannel(c, re[c], im[c]);
}

void DNZProcess::ReduceChannel(int channel, float* re, float* im) {
    const NmfKernels& k = *mKernels;
    const int B = mBins, S = mStride, K = mTotalAtoms, Kn = mNoiseAtoms;
    float* atoms = Atoms(channel);
    float* h = mActivations.data() + std::size_t(channel) * std::size_t(K);
    float* v = mMagnitude.data();
    for (int i = 0; i < B; ++i)
        v[i] = std::sqrt(re[i] * re[i] + im[i] * im[i]);
    float total = 0.0f;
    k.project(mOnes.data(), S, 1, v, &total, S);
    if (!(total > kSilence) || !std::isfinite(total)) return;
    const float mean = total / float(B);
    const float modelFloor = mean * kModelFloor + 1e-30f;

    // Activations from the last frame's, each at least a small share of this frame's level.
    const float least = mean * kActivationFloor;
    int iterations = mIterations;
    if (!mStarted[std::size_t(channel)]) {
        std::fill_n(h, Kn, total / float(Kn));
        std::fill(h + Kn, h + K, total / float(K) * kStartSignal);
        iterations *= kStartIterations;
        mStarted[std::size_t(channel)] = 1;
    } else {
        for (int a = 0; a < K; ++a)
            h[a] = std::max(h[a], least);
    }
    float* g = mGains.data();
    for (int it = 0; it < iterations; ++it) {
        k.combine(atoms, S, K, h, mModel.data(), S);
        k.ratio(v, mModel.data(), modelFloor, mRatio.data(), S);
        k.project(atoms, S, K, mRatio.data(), g, S);
        for (int a = 0; a < K; ++a)
            h[a] *= g[a];
        HoldNoise(channel, h);
    }
    k.combine(atoms, S, Kn, h, mNoise.data(), S);
    k.combine(atoms + std::size_t(Kn) * std::size_t(S), S, K - Kn, h + Kn, mSignal.data(), S);
    for (int i = 0; i < S; ++i)
        mModel[std::size_t(i)] = mNoise[std::size_t(i)] + mSignal[std::size_t(i)];
    k.ratio(v, mModel.data(), modelFloor, mRatio.data(), S);
    LearnSignalAtoms(channel);

    // How much of the frame is programme, and the noise level of the frames that hold none.
    float signalSum = 0.0f, noiseSum = 0.0f;
    k.project(mOnes.data(), S, 1, mSignal.data(), &signalSum, S);
    k.project(mOnes.data(), S, 1, mNoise.data(), &noiseSum, S);
    const float frameShare = signalSum / std::max(signalSum + noiseSum, kSilence);
    const float programme = std::clamp((frameShare - kQuietShare) / (kSignalShare - kQuietShare), 0.0f, 1.0f);
    float& noiseLevel = mNoiseLevel[std::size_t(channel)];
    float* mix = mNoiseMix.data() + std::size_t(channel) * std::size_t(Kn);
    const float held = HeldNoise(h);
    if (frameShare <= kQuietShare && held > 0.0f) {
        const bool first = noiseLevel == 0.0f;
        noiseLevel = first ? held : kNoiseTrack * noiseLevel + (1.0f - kNoiseTrack) * held;
        const float inverse = 1.0f / held;
        for (int a = 0; a < Kn; ++a)
            mix[a] = first ? h[a] * inverse : kNoiseTrack * mix[a] + (1.0f - kNoiseTrack) * h[a] * inverse;
    }
    if (noiseLevel > 0.0f) CapNoise(channel);

    // The gain of every bin. The noise reconstruction N is the expected magnitude of the noise
    // there; its power, E|X|² = (4/π)(E|X|)² for noise of Rayleigh-distributed magnitude (here
    // kNoisePower·N²), gives the a-posteriori SNR γ, and the a-priori SNR ξ comes by
    // the decision-directed rule from the last frame's cleaned power. The Wiener gain ξ/(1 + ξ)
    // is then weighed against the floor by the share of the bin the signal reconstruction S
    // explains, S²/(S² + N²), smoothed over frames: G = Gw^q · Gmin^(1−q), q = min(1, 80·share).
    // Where the factorisation finds no signal, noise peaks that the Wiener gain would let through
    // (the source of "musical noise") fall to the floor. A frame without programme takes q and the
    // floor down with it (q·p for the frame's programme p from 0 to 1, and the floor 30 dB lower
    // at p = 0), so what is heard between
    // words and notes goes well below the reduction, and the frames with programme keep the floor
    // that masks the artefacts.
    float* presence = mPresence.data() + std::size_t(channel) * std::size_t(S);
    float* lastClean = mLastClean.data() + std::size_t(channel) * std::size_t(S);
    const float keep = mSmoothing, fresh = 1.0f - mSmoothing;
    const float floorLog = mFloorLog + (1.0f - programme) * kPauseDepthLog;
    const float floorGain = programme == 1.0f ? mFloorGain : std::exp(floorLog);
    for (int i = 0; i < B; ++i) {
        const float n = mNoise[std::size_t(i)], s = mSignal[std::size_t(i)];
        const float noisePower = std::max(kNoisePower * n * n, kSilence);
        const float x2 = re[i] * re[i] + im[i] * im[i];
        const float gamma = x2 / noisePower;
        const float xi = std::max(
            kDecisionWeight * lastClean[i] / noisePower + (1.0f - kDecisionWeight) * std::max(gamma - 1.0f, 0.0f),
            kLeastPrioriSnr);
        const float wiener = std::max(xi / (1.0f + xi), floorGain);
        const float share = s * s / std::max(s * s + n * n, kSilence);
        presence[i] = keep * presence[i] + fresh * share;
        const float q = std::min(1.0f, kPresenceSlope * presence[i]) * programme;
        const float gain = std::exp(q * std::log(wiener) + (1.0f - q) * floorLog);
        lastClean[i] = gain * gain * x2;
        re[i] *= gain;
        im[i] *= gain;
    }
}

// The noise activations scaled together so that their sum (the noise model's sum of magnitudes,
// the atoms summing to 1) stays from kNoiseHold of the tracked noise level up to the print's
// loudest spectrum.
void DNZProcess::HoldNoise(int channel, float* h) const {
    const float ceiling = mNoiseCeiling[std::size_t(channel)];
    const float least = std::min(kNoiseHold * mNoiseLevel[std::size_t(channel)], ceiling);
    const float sum = HeldNoise(h);
    if (!(sum > 0.0f) || (sum <= ceiling && sum >= least)) return;
    const float scale = (sum > ceiling ? ceiling : least) / sum;
    for (int a = 0; a < mNoiseAtoms; ++a)
        h[a] *= scale;
}

float DNZProcess::HeldNoise(const float* h) const {
    float sum = 0.0f;
    for (int a = 0; a < mNoiseAtoms; ++a)
        sum += h[a];
    return sum;
}

// The noise part of each bin held to the noise's own shape at the frame's noise level: the noise
// atoms mixed as in the frames without programme (mNoiseMix) times the frame's noise sum. Left
// free, the atoms re-mix to claim programme that sits where one of them is strong (a pad's
// fundamental on a fan's resonance); what they claim over that shape goes back to the signal.
// The frame's programme share is measured before this, on the free fit.
void DNZProcess::CapNoise(int channel) {
    const int S = mStride, Kn = mNoiseAtoms;
    const float* h = mActivations.data() + std::size_t(channel) * std::size_t(mTotalAtoms);
    const float* mix = mNoiseMix.data() + std::size_t(channel) * std::size_t(Kn);
    const float held = HeldNoise(h);
    float* weights = mGains.data();
    for (int a = 0; a < Kn; ++a)
        weights[a] = mix[a] * held;
    float* cap = mModel.data();
    mKernels->combine(Atoms(channel), S, Kn, weights, cap, S);
    for (int i = 0; i < S; ++i) {
        const float excess = mNoise[std::size_t(i)] - cap[i];
        if (excess > 0.0f) {
            mNoise[std::size_t(i)] = cap[i];
            mSignal[std::size_t(i)] += excess;
        }
    }
}

// One majorise-minimise step of the signal atoms on the statistics of the recent frames:
// W ← (ρA + W ⊙ (V/Λ) h) / (ρB + h), the atoms then scaled back to sum 1 (their activations take
// the scale, so the next frame starts where this one ended).
void DNZProcess::LearnSignalAtoms(int channel) {
    const int S = mStride, B = mBins, Kn = mNoiseAtoms, Ks = mTotalAtoms - mNoiseAtoms;
    float* atoms = Atoms(channel) + std::size_t(Kn) * std::size_t(S);
    float* h = mActivations.data() + std::size_t(channel) * std::size_t(mTotalAtoms) + Kn;
    float* numerators = mNumerators.data() + std::size_t(channel) * std::size_t(Ks) * std::size_t(S);
    float* weights = mWeights.data() + std::size_t(channel) * std::size_t(Ks);
    const float rho = mForget;
    const float* r = mRatio.data();
    for (int a = 0; a < Ks; ++a) {
        float* w = atoms + std::size_t(a) * std::size_t(S);
        float* num = numerators + std::size_t(a) * std::size_t(S);
        const float ha = h[a];
        weights[a] = rho * weights[a] + ha;
        if (!(weights[a] > 0.0f)) continue;
        mKernels->learn(w, num, r, rho, ha, 1.0f / weights[a], kAtomFloor, B);
    }
    float* sums = mGains.data();
    detail::NormaliseAtoms(*mKernels, atoms, S, Ks, mOnes.data(), sums);
    for (int a = 0; a < Ks; ++a) {
        if (!(sums[a] > 0.0f)) continue;
        const float inverse = 1.0f / sums[a];
        float* num = numerators + std::size_t(a) * std::size_t(S);
        for (int i = 0; i < B; ++i)
            num[i] *= inverse;
        h[a] *= sums[a];
    }
}

}  // namespace dsp::dnz
