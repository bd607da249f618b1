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
    mQueues.assign(channels, WindowQueue{});
    for (WindowQueue& queue : mQueues)
        queue.indices.assign(static_cast<std::size_t>(mBufferLength), 0);
    mQueuesStale = true;
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
        if (mLookAhead != before || mQueuesStale) RebuildQueues();
    }
}

// A monotonic queue of ring indices whose entries are non-increasing in value (equal values keep
// their order), so its front is the earliest largest entry of the window. Each index enters once
// and leaves once: amortised constant work per frame where a scan would cost lookAhead compares
// whenever the held peak leaves, which in silence or a steady level is every frame.
void HardLimit::WindowQueue::Slide(const float* peaks, int32_t leaving, int32_t entering, int32_t B) {
    if (count > 0 && Front() == leaving) {
        head = head + 1 == B ? 0 : head + 1;
        --count;
    }
    const float v = peaks[entering];
    if (!(v >= 0.0f)) return;  // NaN never compares greater: it can never be the held peak
    while (count > 0) {
        int32_t back = head + count - 1;
        if (back >= B) back -= B;
        if (!(peaks[indices[back]] < v)) break;
        --count;
    }
    int32_t slot = head + count;
    if (slot >= B) slot -= B;
    indices[slot] = entering;
    ++count;
}

// Fills every queue with the window p ... p + lookAhead - 2 of its channel; the frame then slides
// the entry p + lookAhead - 1 in.
void HardLimit::RebuildQueues() {
    const int32_t B = mBufferLength;
    for (int c = 0; c < mChannelCount; ++c) {
        WindowQueue& queue = mQueues[c];
        queue.head = 0;
        queue.count = 0;
        const float* peaks = mPeakLine.data() + static_cast<std::size_t>(c) * B;
        int32_t k = mWritePosition;
        for (int32_t i = 0; i + 1 < mLookAhead; ++i) {
            queue.Slide(peaks, -1, k, B);
            if (++k == B) k = 0;
        }
    }
    mQueuesStale = false;
}

void HardLimit::UpdateGains() {
    const int32_t B = mBufferLength;
    const int32_t p = mWritePosition;
    const int32_t previous = p == 0 ? B - 1 : p - 1;
    int32_t entering = p + mLookAhead - 1;
    if (entering >= B) entering -= B;

    float largest = 0.0f;
    for (int c = 0; c < mChannelCount; ++c) {
        const float* peaks = mPeakLine.data() + static_cast<std::size_t>(c) * B;
        float& held = mWindowPeak[c];
        int32_t& heldAt = mWindowPeakPosition[c];
        WindowQueue& queue = mQueues[c];
        queue.Slide(peaks, previous, entering, B);
        if (heldAt == previous) {
            // The held peak has just left the window: take the window's earliest largest entry,
            // what a scan from p upward keeping only strictly greater values finds (-1 and the
            // old position when no entry compares greater, as with NaN throughout).
            if (queue.count > 0) {
                heldAt = queue.Front();
                held = peaks[heldAt];
            } else {
                held = -1.0f;
            }
        } else if (peaks[entering] > held) {
            held = peaks[entering];
            heldAt = entering;
        }

        float& e = mEnvelope[c];
        if (held > e) {
            // A straight line that meets the peak one frame before it leaves (d = 1 there).
            int32_t d = heldAt - p;
            if (d < 0) d += B;
            if (d < 2) d = 1;
            e = e + (held - e) / static_cast<float>(d);
        } else {
            const float released = e * mReleaseFactor;
            if (held <= released) e = released;
        }
        largest = std::max(largest, e);
    }

    if (mParams[kLink] <= 0.5f) {
        for (int c = 0; c < mChannelCount; ++c)
            mAppliedGain[c] = mEnvelope[c] <= mCeiling ? 1.0f : mCeiling / mEnvelope[c];
    } else {
        const float gain = largest <= mCeiling ? 1.0f : mCeiling / largest;
        std::fill(mAppliedGain.begin(), mAppliedGain.end(), gain);
    }
}

inline float HardLimit::Exchange(int channel, float input) {
    const std::size_t at = static_cast<std::size_t>(channel) * mBufferLength + mWritePosition;
    const float x = input * mInputGain;
    float y = mDelayLine[at] * mAppliedGain[channel];
    mDelayLine[at] = x;
    mPeakLine[at] = std::fabs(x);
    if (std::fabs(y) > mCeiling) y = y > 0.0f ? mCeiling : -mCeiling;
    return y;
}

void HardLimit::Advance() {
    mWritePosition = mWritePosition + 1 == mBufferLength ? 0 : mWritePosition + 1;
}

void HardLimit::ProcessOneSample(float* in, float* out) {
    Prepare();
    UpdateGains();
    for (int c = 0; c < mChannelCount; ++c)
        out[c] = Exchange(c, in[c]);
    Advance();
}

void HardLimit::Process(float** in, float** out, int n) {
    if (n < 1) return;
    Prepare();
    for (int i = 0; i < n; ++i) {
        UpdateGains();
        for (int c = 0; c < mChannelCount; ++c)
            out[c][i] = Exchange(c, in[c][i]);
        Advance();
    }
}

}  // namespace dsp
