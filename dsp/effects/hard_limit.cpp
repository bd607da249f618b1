#include "dsp/hard_limit.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstddef>

namespace dsp {

namespace {

constexpr float kDefaults[HardLimit::kParameterCount] = {-0.1f, 0.0f, 7.0f, 100.0f, 1.0f};
constexpr float kMinima[HardLimit::kParameterCount] = {-100.0f, -100.0f, 5.0f, 40.0f, -0.5f};
constexpr float kMaxima[HardLimit::kParameterCount] = {0.0f, 50.0f, 20.0f, 200.0f, 1.49f};

// ln(0.15): the envelope falls to 15 % of its value over one release time.
constexpr double kLogReleaseTarget = -1.8971199848858813;

float DbToLinear(float db) {
    return static_cast<float>(std::pow(10.0, static_cast<double>(db) / 20.0));
}

}  // namespace

HardLimit::HardLimit() {
    for (int i = 0; i < kParameterCount; ++i) {
        SetBounds(i, kMinima[i], kMaxima[i]);
        mParams[i] = kDefaults[i];
    }
    Initialize();
    InitializeParameters();
    mParamsDirty = true;
}

void HardLimit::SetBounds(int index, float minimum, float maximum) {
    mMinimum[index] = minimum;
    mMaximum[index] = maximum;
}

void HardLimit::SetChannels(int channels) {
    assert(channels >= 1);
    mChannelCount = channels;
    mNeedsInitialize = true;
}

void HardLimit::SetSampleRate(int sampleRate) {
    assert(sampleRate >= 50);  // at least one frame of delay
    mSampleRate = sampleRate;
    mNeedsInitialize = true;
}

void HardLimit::SetParameter(int index, float value) {
    if (index < 0 || index >= kParameterCount) return;
    if (!(value >= mMinimum[index] && value <= mMaximum[index])) value = (mMinimum[index] + mMaximum[index]) / 2.0f;
    if (index == kLink) value = value >= 0.5f ? 1.0f : 0.0f;
    mParams[index] = value;
    mParamsDirty = true;
}

float HardLimit::GetParameter(int index) const {
    if (index < 0 || index >= kParameterCount) return 0.0f;
    return mParams[index];
}

void HardLimit::GetBounds(int index, float& minimum, float& maximum) const {
    if (index < 0 || index >= kParameterCount) return;
    minimum = mMinimum[index];
    maximum = mMaximum[index];
}

int HardLimit::GetLatency() const {
    return static_cast<int>(static_cast<double>(mSampleRate) * 0.02);
}

void HardLimit::Deinitialize() {
    mDelayLine.clear();
    mPeakLine.clear();
}

void HardLimit::Initialize() {
    mBufferLength = static_cast<int32_t>(static_cast<double>(mSampleRate) * 0.02);
    const std::size_t cells = static_cast<std::size_t>(mChannelCount) * static_cast<std::size_t>(mBufferLength);
    const std::size_t channels = static_cast<std::size_t>(mChannelCount);
    mDelayLine.assign(cells, 0.0f);
    mPeakLine.assign(cells, 0.0f);
    mAppliedGain.assign(channels, 1.0f);
    mEnvelope.assign(channels, 1.0f);
    mWindowPeak.assign(channels, 0.0f);
    mWindowPeakPosition.assign(channels, 0);
    mTailPeak.assign(cells, -1.0f);
    mTailAt.assign(cells, -1);
    mFillingPeak.assign(channels, -1.0f);
    mFillingAt.assign(channels, -1);
    mWindowsStale = true;
    mWritePosition = 0;
    mNeedsInitialize = false;
    mParamsDirty = true;
}

void HardLimit::InitializeParameters() {
    const int32_t look = static_cast<int32_t>(static_cast<double>(mParams[kLookAhead]) / 1000.0 * mSampleRate + 0.5);
    mLookAhead = look == 0 ? 1 : std::min(look, mBufferLength - 1);
    mInputGain = DbToLinear(mParams[kInputGain]);
    mCeiling = DbToLinear(mParams[kCeiling]);
    mReleaseFactor = static_cast<float>(
        std::exp(kLogReleaseTarget / (static_cast<double>(mSampleRate) * mParams[kRelease] / 1000.0)));
    mParamsDirty = false;
}

void HardLimit::Resume() {
    Deinitialize();
    Initialize();
}

void HardLimit::Prepare() {
    if (mNeedsInitialize) {
        Deinitialize();
        Initialize();
    }
    if (mParamsDirty) {
        const int32_t before = mLookAhead;
        InitializeParameters();
        if (mLookAhead != before || mWindowsStale) RestartWindows();
    }
}

// The window's earliest largest entry by blocks (van Herk / Gil-Werman): entries enter the window
// one per frame, and are grouped in the order they enter into blocks of lookAhead. The window, the
// last lookAhead entries to enter, is a tail of the last full block followed by the head of the
// block being filled. The head's maximum is kept as entries come in; the maxima of all the tails
// of a block are taken once, when it fills, from its last entry back. That is a few compares per
// frame and channel without a data-dependent branch, where a scan would cost lookAhead compares
// whenever the held peak leaves (every frame of silence or of a falling level). Ties go to the
// earlier entry on both sides, and NaN never compares greater, as in a scan from the window's
// start that keeps only strictly greater values.

// The window blocks of every channel, as raw pointers for the frame loop.
struct HardLimit::Windows {
    const float* peaks;  // the peak line, channel c at c * B
    float* tailPeak;
    int32_t* tailAt;
    float* fillingPeak;
    int32_t* fillingAt;
    int channels;
    int32_t B, L;

    std::size_t Cell(int c) const { return static_cast<std::size_t>(c) * static_cast<std::size_t>(B); }

    // `entering` enters every channel's window; returns the new count of the block being filled.
    // kChannels: the channel count when it is known where this is built, else 0.
    template <int kChannels = 0>
    int32_t Enter(int32_t filled, int32_t entering) const {
        const int C = kChannels > 0 ? kChannels : channels;
        for (int c = 0; c < C; ++c) {
            const float v = peaks[Cell(c) + static_cast<std::size_t>(entering)];
            const bool greater = v > fillingPeak[c];
            fillingPeak[c] = greater ? v : fillingPeak[c];
            fillingAt[c] = greater ? entering : fillingAt[c];
        }
        if (filled + 1 < L) return filled + 1;
        // The block is full: the maximum of each of its tails, from its last entry back.
        for (int c = 0; c < C; ++c) {
            const float* line = peaks + Cell(c);
            float* tp = tailPeak + Cell(c);
            int32_t* ta = tailAt + Cell(c);
            float best = -1.0f;
            int32_t at = -1;
            int32_t k = entering;
            for (int32_t j = L - 1; j >= 0; --j) {
                const float v = line[k];
                const bool take = v >= best;  // an equal entry further back is earlier
                best = take ? v : best;
                at = take ? k : at;
                tp[j] = best;
                ta[j] = at;
                k = k == 0 ? B - 1 : k - 1;
            }
            fillingPeak[c] = -1.0f;
            fillingAt[c] = -1;
        }
        return 0;
    }

    // The earliest largest entry of channel c's window (ring index -1: none compares greater).
    void Largest(int c, int32_t filled, float& peak, int32_t& at) const {
        const std::size_t i = Cell(c) + static_cast<std::size_t>(filled);
        const bool head = fillingPeak[c] > tailPeak[i];
        peak = head ? fillingPeak[c] : tailPeak[i];
        at = head ? fillingAt[c] : tailAt[i];
    }
};

HardLimit::Windows HardLimit::WindowView() {
    return {mPeakLine.data(),  mTailPeak.data(), mTailAt.data(), mFillingPeak.data(),
            mFillingAt.data(), mChannelCount,    mBufferLength,  mLookAhead};
}

// Starts the blocks afresh at the window p ... p + lookAhead - 2 (the frame then enters
// p + lookAhead - 1): after a rebuild or a change of look-ahead.
void HardLimit::RestartWindows() {
    std::fill(mFillingPeak.begin(), mFillingPeak.end(), -1.0f);
    std::fill(mFillingAt.begin(), mFillingAt.end(), -1);
    const Windows w = WindowView();
    mFilled = 0;
    int32_t k = mWritePosition;
    for (int32_t i = 0; i + 1 < mLookAhead; ++i) {
        mFilled = w.Enter(mFilled, k);
        if (++k == mBufferLength) k = 0;
    }
    mWindowsStale = false;
}

// Frame by frame; the frame's input and output sample of channel c are load(c, i) and
// store(c, i, y). Everything the frames read that only Prepare changes is held in locals.
// kChannels: the channel count when the caller knows it (the loops over channels then unroll), else 0.
template <int kChannels, typename Load, typename Store>
void HardLimit::Run(int n, const Load& load, const Store& store) {
    const Windows w = WindowView();
    const int C = kChannels > 0 ? kChannels : mChannelCount;
    const int32_t B = mBufferLength, L = mLookAhead;
    float* delay = mDelayLine.data();
    float* peaks = mPeakLine.data();
    float* held = mWindowPeak.data();
    int32_t* heldAt = mWindowPeakPosition.data();
    float* envelope = mEnvelope.data();
    float* gain = mAppliedGain.data();
    const float ceiling = mCeiling, release = mReleaseFactor, inputGain = mInputGain;
    const bool linked = !(mParams[kLink] <= 0.5f);
    int32_t p = mWritePosition, filled = mFilled;
    for (int i = 0; i < n; ++i) {
        // 1-2. Window peaks and envelopes.
        const int32_t previous = p == 0 ? B - 1 : p - 1;
        int32_t entering = p + L - 1;
        if (entering >= B) entering -= B;
        filled = w.Enter<kChannels>(filled, entering);
        float largest = 0.0f;
        for (int c = 0; c < C; ++c) {
            float h = held[c];
            int32_t at = heldAt[c];
            if (at == previous) {
                // The held peak has just left the window: take the window's earliest largest
                // entry, what a scan from p upward keeping only strictly greater values finds
                // (-1 and the old position when no entry compares greater, as with NaN throughout).
                float peak;
                int32_t where;
                w.Largest(c, filled, peak, where);
                h = where >= 0 ? peak : -1.0f;
                at = where >= 0 ? where : at;
            } else {
                const float v = peaks[w.Cell(c) + static_cast<std::size_t>(entering)];
                if (v > h) {
                    h = v;
                    at = entering;
                }
            }
            held[c] = h;
            heldAt[c] = at;
            float e = envelope[c];
            if (h > e) {
                // A straight line that meets the peak one frame before it leaves (d = 1 there).
                int32_t d = at - p;
                if (d < 0) d += B;
                if (d < 2) d = 1;
                e = e + (h - e) / static_cast<float>(d);
            } else {
                const float released = e * release;
                if (h <= released) e = released;
            }
            envelope[c] = e;
            largest = std::max(largest, e);
        }
        // 3-4. Gains.
        if (linked) {
            const float g = largest <= ceiling ? 1.0f : ceiling / largest;
            for (int c = 0; c < C; ++c)
                gain[c] = g;
        } else {
            for (int c = 0; c < C; ++c)
                gain[c] = envelope[c] <= ceiling ? 1.0f : ceiling / envelope[c];
        }
        // 5. The delayed sample out (gain, clip), the new one in.
        for (int c = 0; c < C; ++c) {
            const std::size_t at = w.Cell(c) + static_cast<std::size_t>(p);
            const float x = load(c, i) * inputGain;
            float y = delay[at] * gain[c];
            delay[at] = x;
            peaks[at] = std::fabs(x);
            if (std::fabs(y) > ceiling) y = y > 0.0f ? ceiling : -ceiling;
            store(c, i, y);
        }
        // 6.
        p = p + 1 == B ? 0 : p + 1;
    }
    mWritePosition = p;
    mFilled = filled;
}

void HardLimit::ProcessOneSample(float* in, float* out) {
    Prepare();
    Run<0>(
        1, [in](int c, int) { return in[c]; }, [out](int c, int, float y) { out[c] = y; });
}

void HardLimit::Process(float** in, float** out, int n) {
    if (n < 1) return;
    Prepare();
    const auto load = [in](int c, int i) { return in[c][i]; };
    const auto store = [out](int c, int i, float y) { out[c][i] = y; };
    if (mChannelCount == 2)
        Run<2>(n, load, store);
    else if (mChannelCount == 1)
        Run<1>(n, load, store);
    else
        Run<0>(n, load, store);
}

}  // namespace dsp
