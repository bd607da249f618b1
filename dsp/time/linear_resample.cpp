#include <algorithm>
#include <cmath>

#include "dsp/resample.h"

namespace dsp {

LinearResample::LinearResample(int inputRate, int outputRate)
    : mInputRate(inputRate > 0 ? inputRate : 44100), mOutputRate(outputRate > 0 ? outputRate : 44100) {
    Reset();
}

// The position is kept in time: rescaled to the new grid, rounded down.
void LinearResample::SetInputSampleRate(int rate) {
    if (rate > 0) mInputRate = rate;
}

void LinearResample::SetOutputSampleRate(int rate) {
    if (rate <= 0 || rate == mOutputRate) return;
    const int64_t scaled = mPosition * rate;
    mPosition = scaled >= 0 ? scaled / mOutputRate : -((-scaled + mOutputRate - 1) / mOutputRate);
    mOutputRate = rate;
}

double LinearResample::GetRatio() const {
    return static_cast<double>(mOutputRate) / mInputRate;
}

void LinearResample::SetState(double fraction) {
    const double f = std::clamp(fraction, 0.0, 1.0);
    mPosition = -mOutputRate + std::min<int64_t>(std::llround(f * mOutputRate), mOutputRate);
}

void LinearResample::Reset() {
    mPrevious = 0.0f;
    mPosition = mEatLatency ? 0 : -static_cast<int64_t>(mOutputRate);
}

void LinearResample::SetEatLatency(bool eat) {
    mEatLatency = eat;
    Reset();
}

int LinearResample::GetLatency() const {
    if (mEatLatency) return 0;
    return static_cast<int>(std::lround(GetRatio()));
}

// An output at position p (in 1/out of an input sample) needs input sample floor(p / out) + 1, so
// a block of n samples completes every position below (n - 1) * out.
int LinearResample::GetProducedFramesByConversion(int n) const {
    if (n <= 0) return 0;
    const int64_t limit = static_cast<int64_t>(n - 1) * mOutputRate;
    if (mPosition >= limit) return 0;
    return static_cast<int>((limit - mPosition + mInputRate - 1) / mInputRate);
}

int LinearResample::Process(float* in, float* out, int n) {
    if (n <= 0) return 0;
    const int64_t limit = static_cast<int64_t>(n - 1) * mOutputRate;
    int produced = 0;
    for (; mPosition < limit; mPosition += mInputRate) {
        // Floor division: a position in [-out, 0) lies after the held sample.
        const int64_t index = mPosition >= 0 ? mPosition / mOutputRate : -1;
        const int64_t remainder = mPosition - index * mOutputRate;
        const double a = index < 0 ? mPrevious : in[index];
        const double b = in[index + 1];
        out[produced++] = static_cast<float>(a + static_cast<double>(remainder) / mOutputRate * (b - a));
    }
    mPrevious = in[n - 1];
    mPosition -= static_cast<int64_t>(n) * mOutputRate;
    return produced;
}

}  // namespace dsp
