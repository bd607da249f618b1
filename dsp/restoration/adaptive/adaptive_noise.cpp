#include "dsp/adaptive_noise.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cmath>
#include <cstddef>

#include "dsp/core/kernel_dispatch.h"
#include "dsp/restoration/adaptive/adaptive_kernels.h"

namespace dsp {

namespace adaptive {

const AdaptiveKernels& AdaptiveKernelsFor(dsp::detail::Isa isa) {
    static const AdaptiveKernels& best =
        dsp::detail::PickKernels(portable::AdaptiveKernelTable(), KESTADSP_AVX2_TABLE(avx2::AdaptiveKernelTable()));
    if (isa == dsp::detail::Isa::Best) return best;
    return dsp::detail::PickKernels(portable::AdaptiveKernelTable(), KESTADSP_AVX2_TABLE(avx2::AdaptiveKernelTable()),
                                    isa);
}

}  // namespace adaptive

namespace {

// Time constants are stated for a reference hop of 16 ms and converted to the actual hop, so a
// per-frame weight a at 16 ms becomes a^(hop / 16 ms).
constexpr double kReferenceHop = 0.016;
constexpr double kNoiseAlpha = 0.8;      // noise update
constexpr double kPresenceAlpha = 0.9;   // tracker's presence probability
constexpr double kDdAlpha = 0.96;        // decision-directed a-priori SNR
constexpr double kPrioriAlpha = 0.7;     // a-priori SNR smoothed for the absence probability
constexpr double kPowerAlpha = 0.85;     // power for the minimum search
constexpr double kLogSeconds = 0.4;      // time constant of the log-power moments
constexpr double kSeedSeconds = 0.25;    // first estimate: the mean power of this long
constexpr double kSearchSeconds = 2.0;   // span of the minimum search
constexpr double kCreepDbPerSecond = 6;  // rise of an estimate stuck under persistent presence
// The estimate the gains use follows the tracker down at once but up no faster than a ceiling.
// Sustained music lifts the tracker in the bins of its partials (their power lies between the
// noise and the certain-presence level for long stretches); the ceiling lets that through at
// kSlowDb per second only, so a held chord is not learned (in 16 s of music less than a decibel).
// When the noise itself changes, most of the band moves together: with more than kBandShareHigh
// of the bins that are not held (tracked more than kHeldOverCeiling over the ceiling)
// kAboveCeiling over or under their ceilings, the ceilings move at kFastDb per second (linearly
// between from kBandShareLow), the held bins' ceilings with them, so a noise that swells and ebbs
// is followed under the music too. Music that swells lifts most of the band as well, but unevenly:
// rises together count only in frames whose spread (FrameSpread) leaves room for noise alone.
// The ceiling sits near the middle of the tracker's own frame-to-frame wander, so the estimate
// reads stationary noise about half a decibel low, which costs less than a high one would.
constexpr double kSlowDbPerSecond = 0.05;
constexpr double kFastDbPerSecond = 20.0;
constexpr float kAboveCeiling = 1.4f;     // 1.5 dB
constexpr float kHeldOverCeiling = 6.3f;  // 8 dB
constexpr float kBandShareLow = 0.4f;
constexpr float kBandShareHigh = 0.7f;

// Whether a frame holds signal at all, from its mean a-priori SNR over kFrameLowHz to
// kFrameHighHz (bins counted up to kFrameCap, 10 dB): the a-priori presence of every bin is scaled
// by a ramp from −7 to −2 dB of that mean, the conditional presence by one from −17 to −7 dB.
// Between words and notes every bin then falls to the floor, also where the noise throws up a
// burst far over its estimate (rumble in the lowest bins), which would otherwise pass as signal.
constexpr double kFrameLowHz = 120.0;
constexpr double kFrameHighHz = 8600.0;
constexpr float kFrameCap = 10.0f;
constexpr double kFramePriorLow = 0.2, kFramePriorHigh = 0.63245553;
constexpr double kFrameGateLow = 0.02, kFrameGateHigh = 0.2;

// Whether a frame holds noise alone, from the spread of ln γ over the same band (FrameSpread):
// noise alone stays under 0.6 in all but a few frames, speech or music 0 dB over the noise reaches
// 0.8 and more. Under kSpreadAlone the frame falls to the floor (ramped to kSpreadAloneHigh); the
// band may rise together only under kSpreadRise.
constexpr double kSpreadAlone = 0.55, kSpreadAloneHigh = 0.7, kSpreadRise = 1.2;
constexpr double kSpreadLogFloor = -3.0;

// Pauses: where the frames hold no programme, the floor goes further down, by up to kPauseDepthDb
// at a frame judged to hold noise alone (frameGate 0) and in proportion to the frame's doubt
// otherwise. The extra depth follows the frame's programme down at once, within the hop, so an
// onset keeps the ordinary floor, and sinks by kPauseDepthDb over kPauseReleaseSeconds, so a
// word's or a note's end fades into the pause instead of being gated. Every bin moves alike: what
// is left in a pause is the same noise, quieter.
constexpr double kPauseDepthDb = 40.0;
constexpr double kPauseReleaseSeconds = 0.15;

constexpr int kLocalHalf = 1;    // 3 bins
constexpr int kGlobalHalf = 15;  // 31 bins

constexpr float kNeperPerDb = 0.11512925f;  // ln 10 / 20

float PerFrame(double alpha, double hopSeconds) {
    return static_cast<float>(std::pow(alpha, hopSeconds / kReferenceHop));
}

// E1(v)/2, the exponent of the log-spectral-amplitude gain, tabulated on u = ln v from kLowU to
// kHighU and interpolated linearly; below, E1(v) ≈ −γ − ln v (γ Euler's constant), above, 0.
class HalfExpintTable {
public:
    static constexpr float kLowU = -16.0f, kHighU = 5.0f, kPerUnit = 16.0f;
    static constexpr int kSize = static_cast<int>((kHighU - kLowU) * kPerUnit) + 2;

    HalfExpintTable() {
        for (int i = 0; i < kSize; ++i) {
            const double v = std::exp(double(kLowU) + i / double(kPerUnit));
            mValues[std::size_t(i)] = static_cast<float>(-0.5 * std::expint(-v));  // E1(v) = −Ei(−v)
        }
    }

    float operator()(float u) const {
        if (u <= kLowU) return -0.28860783f - 0.5f * u;
        if (u >= kHighU) return 0.0f;
        const float t = (u - kLowU) * kPerUnit;
        const int i = static_cast<int>(t);
        const float f = t - static_cast<float>(i);
        return mValues[std::size_t(i)] + f * (mValues[std::size_t(i) + 1] - mValues[std::size_t(i)]);
    }

private:
    std::array<float, kSize> mValues{};
};

const HalfExpintTable& HalfExpint() {
    static const HalfExpintTable table;
    return table;
}

// Means of x over [k − half, k + half] ∩ [0, n) for every k, into out.
void WindowMeans(const float* x, float* out, int n, int half) {
    double sum = 0.0;
    int lo = 0, hi = 0;  // the sum holds x[lo ... hi − 1]
    const double inner = 1.0 / double(2 * half + 1);
    for (int k = 0; k < n; ++k) {
        const int want = std::min(n, k + half + 1);
        for (; hi < want; ++hi)
            sum += double(x[hi]);
        for (; lo < k - half; ++lo)
            sum -= double(x[lo]);
        const int count = hi - lo;
        out[k] = static_cast<float>(count == 2 * half + 1 ? sum * inner : sum / double(count));
    }
}

}  // namespace

int AdaptiveNoise::FrameLengthFor(int sampleRate) {
    int n = 256;
    while (n < 8192 && std::abs(2.0 * n / sampleRate - 0.023) < std::abs(double(n) / sampleRate - 0.023))
        n *= 2;
    return n;
}

AdaptiveNoise::AdaptiveNoise(int numChannels, int sampleRate, double reductionDb) : mReductionDb(reductionDb) {
    assert(sampleRate > 0);
    const int n = FrameLengthFor(sampleRate);
    Init(n, numChannels, n / 2, n / 4, Hann);
    mBins = n / 2 + 1;
    const double hop = double(n / 2) / sampleRate;
    mNoiseAlpha = PerFrame(kNoiseAlpha, hop);
    mPresenceAlpha = PerFrame(kPresenceAlpha, hop);
    mDdAlpha = PerFrame(kDdAlpha, hop);
    mPrioriAlpha = PerFrame(kPrioriAlpha, hop);
    mPowerAlpha = PerFrame(kPowerAlpha, hop);
    mLogAlpha = static_cast<float>(std::exp(-hop / kLogSeconds));
    mCreep = static_cast<float>(std::pow(10.0, kCreepDbPerSecond * hop / 10.0));
    mSlowDb = static_cast<float>(kSlowDbPerSecond * hop);
    mFastDb = static_cast<float>(kFastDbPerSecond * hop);
    mFrameBinLow = std::clamp(static_cast<int>(std::lround(kFrameLowHz * n / sampleRate)), 1, mBins - 2);
    mFrameBinHigh = std::clamp(static_cast<int>(std::lround(kFrameHighHz * n / sampleRate)), mFrameBinLow + 1, mBins);
    mPauseRiseDb = static_cast<float>(kPauseDepthDb * hop / kPauseReleaseSeconds);
    mPauseDb.assign(std::size_t(numChannels), 0.0f);
    mSeedFrames = std::max(1, static_cast<int>(std::lround(kSeedSeconds / hop)));
    mSubWindowFrames = std::max(1, static_cast<int>(std::ceil(kSearchSeconds / (kSubWindows * hop))));
    mState.assign(std::size_t(numChannels) * kRows * std::size_t(mBins), 0.0f);
    mMinHistory.assign(std::size_t(numChannels) * kSubWindows * std::size_t(mBins), adaptive::kNoMinimum);
    mScratch.assign(8 * std::size_t(mBins), 0.0f);
    mKernels = &adaptive::AdaptiveKernelsFor();
    HalfExpint();  // built here rather than in the first frame
    ParameterChanged();
}

void AdaptiveNoise::ParameterChanged() {
    const double db = std::clamp(mReductionDb, 0.0, 120.0);
    mFloorLog = static_cast<float>(-db / 20.0 * std::log(10.0));
}

void AdaptiveNoise::Resume() {
    OverlapSave::Resume();  // builds the windows on its first call
    mWindowEnergy = 0.0;
    double filled = 0.0;  // the part of the window over the first frame's samples
    for (int i = 0; i < mFrameLength; ++i) {
        const double w2 = double(mAnalysisWindow[i]) * double(mAnalysisWindow[i]);
        mWindowEnergy += w2;
        filled += i >= mOutputOffset ? w2 : 0.0;
    }
    mFirstFrameScale = static_cast<float>(mWindowEnergy / std::max(filled, 1e-30));
    std::fill(mState.begin(), mState.end(), 0.0f);
    std::fill(mMinHistory.begin(), mMinHistory.end(), adaptive::kNoMinimum);
    std::fill(mPauseDb.begin(), mPauseDb.end(), 0.0f);
    mFrame = 0;
}

double AdaptiveNoise::GetNoisePower(int channel, int bin) const {
    if (channel < 0 || channel >= mNumChannels || bin < 0 || bin >= mBins || mWindowEnergy == 0.0) return 0.0;
    return double(RowOf(channel, kNoise)[bin]) / mWindowEnergy;
}

void AdaptiveNoise::OnSpectrum(float** re, float** im, int numChannels, int numBins) {
    assert(numBins == mBins);
    (void)numBins;
    if (mReductionDb == 0.0) return;
    for (int c = 0; c < std::min(numChannels, mNumChannels); ++c)
        ReduceChannel(c, re[c], im[c]);
    ++mFrame;
}

void AdaptiveNoise::FramePresence(const float* xi, adaptive::FrameConstants& constants) const {
    // The mean a-priori SNR over the speech band, each bin counted up to kFrameCap: a frame of
    // speech or music lifts many bins, a noise burst a few, however high.
    double sum = 0.0;
    for (int k = mFrameBinLow; k < mFrameBinHigh; ++k)
        sum += double(std::min(xi[k], kFrameCap));
    const double lnMean = std::log(std::max(sum / double(mFrameBinHigh - mFrameBinLow), 1e-30));
    auto ramp = [lnMean](double low, double high) {
        return static_cast<float>(std::clamp((lnMean - std::log(low)) / (std::log(high) - std::log(low)), 0.0, 1.0));
    };
    constants.framePrior = ramp(kFramePriorLow, kFramePriorHigh);
    constants.frameGate = ramp(kFrameGateLow, kFrameGateHigh);
}

double AdaptiveNoise::FrameSpread(const adaptive::FrameRows& frame, const float* noise) const {
    // Over the speech band, the log of the mean of γ = |X|²/λ less the mean of its log (clamped
    // at kSpreadLogFloor): noise alone, of any level and colour, reads about 0.53 (Euler's
    // constant for exponential γ, less a little for the clamp) also where its level has moved off
    // the estimate, since it moves every bin alike; speech or music lifts some bins far over the
    // rest.
    double sum = 0.0, logSum = 0.0;
    for (int k = mFrameBinLow; k < mFrameBinHigh; ++k) {
        sum += double(frame.power[k]) / double(std::max(noise[k], adaptive::kPowerFloor));
        logSum += std::max(double(frame.lnV[k]) - double(frame.lnLsa[k]), kSpreadLogFloor);  // ln v − ln ξ/(1+ξ)
    }
    const double n = double(mFrameBinHigh - mFrameBinLow);
    return std::log(std::max(sum / n, 1e-30)) - logSum / n;
}

void AdaptiveNoise::ReduceChannel(int channel, float* re, float* im) {
    const int B = mBins;
    const adaptive::ChannelRows rows{
        RowOf(channel, kNoise),     RowOf(channel, kTracked),     RowOf(channel, kCeiling), RowOf(channel, kPresence),
        RowOf(channel, kPrevClean), RowOf(channel, kSmoothPower), RowOf(channel, kSubMin),  RowOf(channel, kWindowMin),
        RowOf(channel, kLogMean),   RowOf(channel, kLogSquare)};
    float* scratch = mScratch.data();
    const adaptive::FrameRows frame{scratch,         scratch + B,     scratch + 2 * B, scratch + 3 * B,
                                    scratch + 4 * B, scratch + 5 * B, scratch + 6 * B, scratch + 7 * B};
    adaptive::FrameConstants constants{mDdAlpha,    mFloorLog, mNoiseAlpha, mPresenceAlpha,
                                       mPowerAlpha, mLogAlpha, mCreep};
    float* subMin = rows.subMin;
    float* windowMin = RowOf(channel, kWindowMin);
    float* priori = RowOf(channel, kPrioriSmooth);

    const bool seeding = mFrame < mSeedFrames;
    if (mFrame == 0) {
        // The first frame's log power starts the moments as noise would. The engine's first frame
        // is preceded by zeros over the window's first part: its power is scaled up to a whole frame.
        for (int k = 0; k < B; ++k) {
            const float y2 = std::max((re[k] * re[k] + im[k] * im[k]) * mFirstFrameScale, adaptive::kPowerFloor);
            subMin[k] = adaptive::kNoMinimum;
            windowMin[k] = adaptive::kNoMinimum;
            const float l = std::log(y2);
            rows.logMean[k] = l;
            rows.logSquare[k] = l * l + 1.6449341f;  // π²/6
        }
    }
    if (seeding) {
        // While the first estimate is the mean power so far, the frame in hand is part of it, so a
        // bin of the first frames is weighed against a mean that already holds it.
        const float scale = mFrame == 0 ? mFirstFrameScale : 1.0f;
        for (int k = 0; k < B; ++k)
            frame.power[k] = (re[k] * re[k] + im[k] * im[k]) * scale;
        mKernels->track(rows, frame, B, constants, int(mFrame) + 1);
    }

    mKernels->prepare(re, im, rows, frame, B, constants);
    FramePresence(frame.xi, constants);
    // A frame that holds noise alone falls to the floor whatever its level against the estimate
    // (a noise that swells between words is not let through while the estimate catches up).
    const double spread = seeding ? kSpreadRise : FrameSpread(frame, rows.noise);
    auto under = [spread](double low, double high) {
        return static_cast<float>(std::clamp((high - spread) / (high - low), 0.0, 1.0));
    };
    const float alone = under(kSpreadAlone, kSpreadAloneHigh);
    constants.framePrior = std::min(constants.framePrior, 1.0f - alone);
    constants.frameGate = std::min(constants.frameGate, 1.0f - alone);
    float& pauseDb = mPauseDb[std::size_t(channel)];
    pauseDb = std::min(static_cast<float>(kPauseDepthDb) * (1.0f - constants.frameGate), pauseDb + mPauseRiseDb);
    constants.floorLog = mFloorLog - pauseDb * kNeperPerDb;
    const HalfExpintTable& halfExpint = HalfExpint();
    for (int k = 0; k < B; ++k)
        frame.lnLsa[k] = std::min(frame.lnLsa[k] + halfExpint(frame.lnV[k]), 0.0f);
    // The a-priori absence probability comes from the a-priori SNR of the frames before, averaged
    // over neighbouring bins.
    WindowMeans(priori, frame.local, B, kLocalHalf);
    WindowMeans(priori, frame.global, B, kGlobalHalf);
    mKernels->apply(re, im, rows, frame, B, constants);
    const float pa = mPrioriAlpha;
    for (int k = 0; k < B; ++k)
        priori[k] = pa * priori[k] + (1.0f - pa) * frame.xi[k];
    if (!seeding) {
        mKernels->track(rows, frame, B, constants, 0);
        // A change of the noise moves the tracked estimate off the ceiling across most of the band
        // together; a note or a chord lifts only its partials, and far. Bins whose tracked estimate
        // is far over the ceiling hold signal and are left out of the count; they do not creep up,
        // and their ceilings move only when the others move together.
        int above = 0, below = 0, counted = 0;
        for (int k = 1; k < B - 1; ++k) {
            const float t = rows.tracked[k], c = rows.ceiling[k];
            const bool held = t > kHeldOverCeiling * c;
            counted += held ? 0 : 1;
            above += !held && t > kAboveCeiling * c ? 1 : 0;
            below += !held && kAboveCeiling * t < c ? 1 : 0;
        }
        auto together = [&](int n) {
            const float share = counted > 0 ? float(n) / float(counted) : 0.0f;
            return std::clamp((share - kBandShareLow) / (kBandShareHigh - kBandShareLow), 0.0f, 1.0f);
        };
        const float up = std::min(together(above), under(kSpreadAlone, kSpreadRise)), down = together(below);
        const float riseDb = mSlowDb + up * (mFastDb - mSlowDb);
        const float fallDb = mSlowDb + down * (mFastDb - mSlowDb);
        const float heldDb = (up - down) * mFastDb;
        mKernels->limit(rows, B, std::pow(10.0f, riseDb / 10.0f), std::pow(10.0f, -fallDb / 10.0f), kHeldOverCeiling,
                        std::pow(10.0f, heldDb / 10.0f));
    }

    // The minimum search advances by sub-windows: the finished one joins the history.
    if ((mFrame + 1) % mSubWindowFrames == 0) {
        const long long slot = ((mFrame + 1) / mSubWindowFrames) % kSubWindows;
        float* history = mMinHistory.data() + (std::size_t(channel) * kSubWindows + std::size_t(slot)) * B;
        std::copy_n(subMin, B, history);
        std::fill_n(windowMin, B, adaptive::kNoMinimum);
        for (int s = 0; s < kSubWindows; ++s) {
            const float* h = mMinHistory.data() + (std::size_t(channel) * kSubWindows + std::size_t(s)) * B;
            for (int k = 0; k < B; ++k)
                windowMin[k] = std::min(windowMin[k], h[k]);
        }
        std::copy_n(rows.smoothPower, B, subMin);
    }
}

}  // namespace dsp
