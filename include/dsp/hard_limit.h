#pragma once
// HardLimit: a look-ahead peak limiter for multichannel audio, driven by five indexed parameters.
//
// Every frame the input is multiplied by the input gain and goes into a delay line of
// bufferLength = trunc(sampleRate * 0.02) frames (882 at 44.1 kHz; this is the latency, whatever
// the look-ahead). The limiter watches the next lookAhead frames of the delayed signal (the frame
// about to leave and the lookAhead - 1 after it) for their largest magnitude. The envelope rises in
// a straight line that reaches a coming peak one frame before that peak leaves, holds it while the
// peak leaves, and falls afterwards by releaseFactor per frame (to 15 % of its value over one
// release time), never below the coming peak. The gain is ceiling / envelope while the envelope
// is above the ceiling, else 1; whatever still exceeds the ceiling after it is clipped to it, so no
// output sample is ever above the ceiling in magnitude.
//
// Linked (the default), every channel gets the gain of the largest envelope; unlinked, each its
// own. The envelope starts at 1 and the delay line at silence: the first bufferLength output
// frames are zeros.
//
// Parameters (see Param): a value outside [minimum, maximum] is replaced by the midpoint of the
// range, not clamped; the link switch is stored as exactly 1 (value >= 0.5) or 0; indices >= 5 are
// ignored (GetParameter answers 0). A change takes effect on the next frame without clearing the
// delay line; SetChannels and SetSampleRate rebuild it (silence again) before the next frame, or at
// once by Resume — call Resume after a change of format so that processing never allocates.
//
// Processing is per frame: Process over any partition of the input gives the same output, bit for
// bit, as ProcessOneSample frame by frame. in[c] == out[c] is allowed. One thread at a time; copies
// are deep and continue the stream where the original stands.

#include <cstdint>
#include <vector>

#include "dsp/kestadsp_export.h"

namespace dsp {

class KESTADSP_API HardLimit {
public:
    enum Param : int {
        kCeiling = 0,    // dB, -100 ... 0, default -0.1: the largest output magnitude
        kInputGain = 1,  // dB, -100 ... 50, default 0
        kLookAhead = 2,  // ms, 5 ... 20, default 7
        kRelease = 3,    // ms, 40 ... 200, default 100: time for the envelope to fall to 15 %
        kLink = 4,       // switch, -0.5 ... 1.49, default 1 (linked)
    };
    static constexpr int kParameterCount = 5;

    // Defaults, 2 channels at 44100 Hz, rings built and silent.
    HardLimit();

    void SetChannels(int channels);
    void SetSampleRate(int sampleRate);
    int GetChannels() const { return mChannelCount; }
    int GetSampleRate() const { return mSampleRate; }

    void SetParameter(int index, float value);
    float GetParameter(int index) const;
    // Leaves minimum and maximum alone for an index outside the table.
    void GetBounds(int index, float& minimum, float& maximum) const;

    // trunc(sampleRate * 0.02) frames.
    int GetLatency() const;

    // One frame: in[c] -> out[c], one sample per configured channel.
    void ProcessOneSample(float* in, float* out);
    // n frames of every configured channel.
    void Process(float** in, float** out, int n);

    // Rebuilds now: rings reallocated and zeroed, envelopes and gains 1, window peaks 0; the
    // derived values are recomputed before the next frame.
    void Resume();
    void Suspend() {}

    // The derived values in use (after the first frame or Resume).
    int GetLookAheadFrames() const { return mLookAhead; }
    float GetReleaseFactor() const { return mReleaseFactor; }

private:
    void SetBounds(int index, float minimum, float maximum);
    void Initialize();
    void Deinitialize();
    void InitializeParameters();
    // Rebuild or recompute what the flags ask for; called before a frame.
    void Prepare();
    // n frames: window peaks, envelopes and gains; then per channel the delayed sample out (gain,
    // clip) and the new one in; then the ring index moves on.
    template <int kChannels, typename Load, typename Store>
    void Run(int n, const Load& load, const Store& store);

    bool mNeedsInitialize = true;
    bool mParamsDirty = true;
    int32_t mChannelCount = 2;
    int32_t mSampleRate = 44100;
    float mParams[kParameterCount] = {};
    float mMinimum[kParameterCount] = {};
    float mMaximum[kParameterCount] = {};
    std::vector<float> mDelayLine;  // channel c at c * mBufferLength
    std::vector<float> mPeakLine;   // |input| after the gain, same layout
    int32_t mBufferLength = 0;
    int32_t mWritePosition = 0;
    int32_t mLookAhead = 1;
    float mInputGain = 1.0f;
    float mCeiling = 1.0f;
    std::vector<float> mAppliedGain;
    std::vector<float> mEnvelope;
    std::vector<float> mWindowPeak;
    std::vector<int32_t> mWindowPeakPosition;
    float mReleaseFactor = 0.0f;

    // The look-ahead window's earliest largest entry, on demand in constant time (see
    // RestartWindows): blocks of lookAhead entries in the order they enter the window, the
    // running maximum of the block being filled and the maxima of every tail of the last full block.
    void RestartWindows();
    struct Windows;
    Windows WindowView();
    std::vector<float> mTailPeak;     // channel c at c * mBufferLength, one per block position
    std::vector<int32_t> mTailAt;     // ring index of each, -1 where no entry compares greater
    std::vector<float> mFillingPeak;  // per channel
    std::vector<int32_t> mFillingAt;  // per channel
    int32_t mFilled = 0;              // entries of the block being filled
    bool mWindowsStale = true;
};

}  // namespace dsp
