#include "dsp/stereo_expander.h"

#include <cmath>
#include <cstring>

namespace dsp {

StereoExpanderDSP::StereoExpanderDSP() {
    SetBounds(kCenter, -100.0f, 100.0f);
    SetBounds(kWidth, 0.0f, 300.0f);
}

void StereoExpanderDSP::SetSampleRate(int rate) {
    mSampleRate = rate;
    mMatrixDirty = true;
    SampleRateDependentInitialization();
}

void StereoExpanderDSP::SetBounds(int index, float lo, float hi) {
    mMinimum[index] = lo;
    mMaximum[index] = hi;
}

void StereoExpanderDSP::SetParameter(int index, float value) {
    if (index < 0 || index >= kParameterCount) return;
    mParams[index] = value;
    mMatrixDirty = true;
}

float StereoExpanderDSP::GetParameter(int index) const {
    if (index < 0 || index >= kParameterCount) return 0.0f;
    return mParams[index];
}

void StereoExpanderDSP::GetBounds(int index, float& lo, float& hi) const {
    if (index < 0 || index >= kParameterCount) return;
    lo = mMinimum[index];
    hi = mMaximum[index];
}

float StereoExpanderDSP::GetMatrix(int i) const {
    const float m[4] = {mM0, mM1, mM2, mM3};
    return i >= 0 && i < 4 ? m[i] : 0.0f;
}

void StereoExpanderDSP::Resume() {
    SetRuntimeParams();
    mRunning = true;
}

void StereoExpanderDSP::SetRuntimeParams() {
    const float s = mParams[kCenter] / 100.0f;
    const float w = mParams[kWidth] / 100.0f;
    const float a = std::fabs(s);
    const float n = std::sqrt(1.0f / (1.0f - (1.0f - 0.5f * a) * a));
    const float A = (1.0f + w) * (2.0f - a);
    const float B = (1.0f - w) * (2.0f - a);
    mM0 = (A - (1.0f - w) * s) * 0.25f * n;
    mM1 = (B + s * (1.0f + w)) * 0.25f * n;
    mM2 = (B - s * (1.0f + w)) * 0.25f * n;
    mM3 = (A + (1.0f - w) * s) * 0.25f * n;
    mMatrixDirty = false;
}

void StereoExpanderDSP::ProcessOneSample(float& outLeft, float& outRight, float inLeft, float inRight) const {
    outLeft = mM0 * inLeft + mM2 * inRight;
    outRight = mM1 * inLeft + mM3 * inRight;
}

void StereoExpanderDSP::Process(float** in, float** out, int n) {
    if (mChannelCount == 1) {
        if (in[0] != out[0] && n > 0) std::memmove(out[0], in[0], static_cast<std::size_t>(n) * sizeof(float));
        return;
    }
    if (mChannelCount < 2) return;
    if (mMatrixDirty) SetRuntimeParams();
    for (int i = 0; i < n; ++i)
        ProcessOneSample(out[0][i], out[1][i], in[0][i], in[1][i]);
}

}  // namespace dsp
