#pragma once
// StereoExpanderDSP: widens or narrows a stereo image and turns it about its centre with one fixed
// 2x2 matrix made from two indexed parameters, centre (-100 ... 100 %, default 0) and width
// (0 ... 300 %, default 100).
//
// With s = centre / 100, w = width / 100 and a = |s|, all in single precision:
//   n = sqrt(1 / (1 - (1 - a/2) a))          loudness kept as the image turns
//   A = (1 + w)(2 - a),  B = (1 - w)(2 - a)
//   m0 = (A - (1 - w) s) n / 4,  m1 = (B + s (1 + w)) n / 4,
//   m2 = (B - s (1 + w)) n / 4,  m3 = (A + (1 - w) s) n / 4
//   left' = m0 left + m2 right,  right' = m1 left + m3 right.
// The defaults give the identity; width 0 gives both channels the mono sum / 2; width 300 gives
// (2, -1, -1, 2); centre 100 rotates by 45 degrees: left' = (left - right) / sqrt 2,
// right' = (left + right) / sqrt 2.
//
// No memory and no latency. One channel is copied through; channels after the second are left
// alone. Parameter values are stored as given (no range check; GetBounds tells the range); a
// change marks the matrix for recomputation at the next Process or Resume. in[c] == out[c] is
// allowed. One thread at a time.

#include <cstdint>

#include "dsp/kestadsp_export.h"

namespace dsp {

class KESTADSP_API StereoExpanderDSP {
public:
    enum Param : int {
        kCenter = 0,  // %, -100 ... 100, default 0
        kWidth = 1,   // %, 0 ... 300, default 100
    };
    static constexpr int kParameterCount = 2;

    StereoExpanderDSP();

    void SetChannels(int channels) { mChannelCount = channels; }
    void SetSampleRate(int rate);
    void SetDuration(int64_t frames) { mDuration = frames; }
    double GetDuration() const { return static_cast<double>(mDuration); }

    // Indices outside 0 ... 1 are ignored (GetParameter answers 0, GetBounds leaves its outputs).
    void SetParameter(int index, float value);
    float GetParameter(int index) const;
    void GetBounds(int index, float& minimum, float& maximum) const;

    // n frames of channels 0 and 1 (channel 0 copied when there is one channel).
    void Process(float** in, float** out, int n);

    void Resume();
    void Suspend() { mRunning = false; }
    bool ProcessFinished() const { return true; }
    bool IsRunning() const { return mRunning; }

    // The matrix in use (m0, m1, m2, m3), recomputed by Process or Resume after a change.
    float GetMatrix(int i) const;

private:
    void SetBounds(int index, float minimum, float maximum);
    void SetRuntimeParams();
    void SampleRateDependentInitialization() {}
    void ProcessOneSample(float& outLeft, float& outRight, float inLeft, float inRight) const;

    bool mMatrixDirty = true;
    bool mRunning = false;
    int32_t mChannelCount = 2;
    int32_t mSampleRate = 44100;
    int64_t mDuration = 0;
    float mParams[kParameterCount] = {0.0f, 100.0f};
    float mMinimum[kParameterCount] = {};
    float mMaximum[kParameterCount] = {};
    float mM0 = 1.0f, mM1 = 0.0f, mM2 = 0.0f, mM3 = 1.0f;  // the matrix
};

}  // namespace dsp
