#include <algorithm>
#include <cmath>
#include <limits>

#include "dsp/analysis/k_weighting.h"
#include "dsp/core/denormal_guard.h"
#include "dsp/loudness.h"

namespace dsp {

namespace {

constexpr int kStepsPerSecond = 100;               // the momentary and short-term refresh
constexpr int kMomentarySteps = 40;                // 400 ms
constexpr int kShortTermSteps = 300;               // 3 s
constexpr int kBlockHop = 10;                      // gating blocks every 100 ms
constexpr double kAbsoluteGate = -70.0;            // LUFS
constexpr double kIntegratedRelativeGate = -10.0;  // LU
constexpr double kRangeRelativeGate = -20.0;       // LU
constexpr double kBinsPerLu = 100.0;
constexpr int kBins = 10000;  // -70 ... +30 LUFS

double Lufs(double meanSquare) {
    if (!(meanSquare > 0.0)) return -std::numeric_limits<double>::infinity();
    return -0.691 + 10.0 * std::log10(meanSquare);
}

int BinOf(double lufs) {
    const double index = std::floor((lufs - kAbsoluteGate) * kBinsPerLu);
    return static_cast<int>(std::clamp(index, 0.0, static_cast<double>(kBins - 1)));
}

// Default weight of a channel in a layout of `channels`.
double DefaultWeight(int channel, int channels) {
    if (channels == 5) return channel >= 3 ? 1.41 : 1.0;  // L R C Ls Rs
    if (channels == 6) {                                  // L R C LFE Ls Rs
        if (channel == 3) return 0.0;
        return channel >= 4 ? 1.41 : 1.0;
    }
    return 1.0;
}

}  // namespace

// ---- Histogram -------------------------------------------------------------------------------

void Itu1770::Histogram::Clear() {
    count.assign(kBins, 0);
    energy.assign(kBins, 0.0);
}

void Itu1770::Histogram::Add(double meanSquare) {
    const double lufs = Lufs(meanSquare);
    if (!(lufs > kAbsoluteGate)) return;
    const auto bin = static_cast<std::size_t>(BinOf(lufs));
    ++count[bin];
    energy[bin] += meanSquare;
}

// The bins above `gate` and the bin holding it when the mean of that bin is above it: within the
// bin, blocks lie within 0.01 LU of one another.
namespace {

template <typename Visit>
void ForBinsAbove(const std::vector<long long>& count, const std::vector<double>& energy, double gate, Visit visit) {
    int first = 0;
    if (gate >= kAbsoluteGate) {
        first = BinOf(gate);
        const auto b = static_cast<std::size_t>(first);
        if (count[b] == 0 || !(Lufs(energy[b] / static_cast<double>(count[b])) > gate)) ++first;
    }
    for (int i = first; i < kBins; ++i) {
        const auto b = static_cast<std::size_t>(i);
        if (count[b] != 0) visit(count[b], energy[b]);
    }
}

}  // namespace

double Itu1770::Histogram::MeanAbove(double gate, long long* blocks) const {
    long long n = 0;
    double sum = 0.0;
    ForBinsAbove(count, energy, gate, [&](long long c, double e) {
        n += c;
        sum += e;
    });
    *blocks = n;
    return n == 0 ? 0.0 : sum / static_cast<double>(n);
}

// ---- Itu1770 ---------------------------------------------------------------------------------

Itu1770::Itu1770() : Itu1770(48000, 2) {}

Itu1770::Itu1770(int sampleRate, int numChannels) {
    SetFormat(sampleRate, numChannels);
}

void Itu1770::SetFormat(int sampleRate, int numChannels) {
    mSampleRate = std::clamp(sampleRate, kMinSampleRate, kMaxSampleRate);
    mChannels = std::clamp(numChannels, 1, kMaxChannels);
    mShelf = detail::KShelf(mSampleRate);
    mHighPass = detail::KHighPass(mSampleRate);
    mWeights.resize(static_cast<std::size_t>(mChannels));
    for (int c = 0; c < mChannels; ++c)
        mWeights[static_cast<std::size_t>(c)] = DefaultWeight(c, mChannels);
    mState.assign(static_cast<std::size_t>(mChannels) * detail::kKStateSize, 0.0);
    mStepSquares.assign(static_cast<std::size_t>(mChannels), 0.0);
    mRing.assign(kShortTermSteps, 0.0);
    Reset();
}

void Itu1770::SetChannelWeight(int channel, double weight) {
    if (channel < 0 || channel >= mChannels || !(weight >= 0.0) || !std::isfinite(weight)) return;
    mWeights[static_cast<std::size_t>(channel)] = weight;
}

void Itu1770::SetLoudnessRangeHop(int milliseconds) {
    mRangeHop = std::clamp((milliseconds + 5) / 10, 1, kStepsPerSecond);
}

double Itu1770::GetChannelWeight(int channel) const {
    if (channel < 0 || channel >= mChannels) return 0.0;
    return mWeights[static_cast<std::size_t>(channel)];
}

void Itu1770::Reset() {
    std::fill(mState.begin(), mState.end(), 0.0);
    std::fill(mStepSquares.begin(), mStepSquares.end(), 0.0);
    std::fill(mRing.begin(), mRing.end(), 0.0);
    mFrames = 0;
    mSteps = 0;
    mStepEnd = StepBoundary(1);
    mMomentary = mShortTerm = mMaxMomentary = mMaxShortTerm = 0.0;
    mBlocks.Clear();
    mShortTermBlocks.Clear();
}

// Step k starts at round(k * rate / 100): steps are 10 ms long on average at any integer rate.
long long Itu1770::StepBoundary(long long step) const {
    return (step * mSampleRate + kStepsPerSecond / 2) / kStepsPerSecond;
}

double Itu1770::WindowMeanSquare(int steps) const {
    double sum = 0.0;
    for (long long j = std::max(0LL, mSteps - steps); j < mSteps; ++j)
        sum += mRing[static_cast<std::size_t>(j % kShortTermSteps)];
    const long long frames =
        mSteps >= steps ? StepBoundary(mSteps) - StepBoundary(mSteps - steps) : StepBoundary(steps);
    return sum / static_cast<double>(frames);
}

void Itu1770::CloseStep() {
    double weighted = 0.0;
    for (int c = 0; c < mChannels; ++c) {
        const auto i = static_cast<std::size_t>(c);
        weighted += mWeights[i] * mStepSquares[i];
        mStepSquares[i] = 0.0;
    }
    mRing[static_cast<std::size_t>(mSteps % kShortTermSteps)] = weighted;
    ++mSteps;
    mStepEnd = StepBoundary(mSteps + 1);
    mMomentary = WindowMeanSquare(kMomentarySteps);
    mShortTerm = WindowMeanSquare(kShortTermSteps);
    mMaxMomentary = std::max(mMaxMomentary, mMomentary);
    mMaxShortTerm = std::max(mMaxShortTerm, mShortTerm);
    if (mSteps % kBlockHop == 0) {
        if (mSteps >= kMomentarySteps) mBlocks.Add(mMomentary);
        if (mSteps >= kShortTermSteps && mSteps % mRangeHop == 0) mShortTermBlocks.Add(mShortTerm);
    }
}

void Itu1770::Process(const float* const* data, int numChannels, int numFrames) {
    if (numFrames < 1) return;
    const DenormalGuard guard;
    const int channels = std::clamp(numChannels, 0, mChannels);
    int done = 0;
    while (done < numFrames) {
        const int run = static_cast<int>(std::min<long long>(numFrames - done, mStepEnd - mFrames));
        for (int c = 0; c < channels; c += 2) {
            const int count = std::min(2, channels - c);
            double* state[2] = {&mState[static_cast<std::size_t>(c) * detail::kKStateSize],
                                &mState[static_cast<std::size_t>(c + count - 1) * detail::kKStateSize]};
            detail::RunKWeighting(mShelf, mHighPass, data + c, count, done, run, state,
                                  &mStepSquares[static_cast<std::size_t>(c)]);
        }
        // Channels the caller did not pass hear silence: their filters decay on zeros.
        for (int c = channels; c < mChannels; ++c) {
            double* s = &mState[static_cast<std::size_t>(c) * detail::kKStateSize];
            std::fill(s, s + detail::kKStateSize, 0.0);
        }
        done += run;
        mFrames += run;
        if (mFrames == mStepEnd) CloseStep();
    }
}

double Itu1770::GetMomentary() const {
    return Lufs(mMomentary);
}

double Itu1770::GetShortTerm() const {
    return Lufs(mShortTerm);
}

double Itu1770::GetMaxMomentary() const {
    return Lufs(mMaxMomentary);
}

double Itu1770::GetMaxShortTerm() const {
    return Lufs(mMaxShortTerm);
}

double Itu1770::GetIntegrated() const {
    long long n = 0;
    const double all = mBlocks.MeanAbove(kAbsoluteGate, &n);
    if (n == 0) return -std::numeric_limits<double>::infinity();
    return Lufs(mBlocks.MeanAbove(Lufs(all) + kIntegratedRelativeGate, &n));
}

double Itu1770::GetLoudnessRange() const {
    long long n = 0;
    const double all = mShortTermBlocks.MeanAbove(kAbsoluteGate, &n);
    if (n == 0) return 0.0;
    const double gate = Lufs(all) + kRangeRelativeGate;
    mShortTermBlocks.MeanAbove(gate, &n);
    if (n == 0) return 0.0;
    const long long low = std::llround(static_cast<double>(n - 1) * 0.10);
    const long long high = std::llround(static_cast<double>(n - 1) * 0.95);
    // Walk up the bins to the ones holding those ranks; a bin's value is its blocks' power mean.
    double lowLufs = 0.0, highLufs = 0.0;
    long long seen = 0;
    ForBinsAbove(mShortTermBlocks.count, mShortTermBlocks.energy, gate, [&](long long c, double e) {
        const double value = Lufs(e / static_cast<double>(c));
        if (low >= seen && low < seen + c) lowLufs = value;
        if (high >= seen && high < seen + c) highLufs = value;
        seen += c;
    });
    return highLufs - lowLufs;
}

}  // namespace dsp
