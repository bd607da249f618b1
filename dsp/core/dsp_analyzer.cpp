#include "dsp/dsp_analyzer.h"

namespace dsp {

DSPAnalyzer::~DSPAnalyzer() = default;

bool DSPAnalyzer::SetSelection(long long /*start*/, long long /*length*/) {
    return true;
}
int DSPAnalyzer::GetLatency() const {
    return 0;
}
void DSPAnalyzer::Start(float* hostPointer) {
    mHostPointer = hostPointer;
}
void DSPAnalyzer::Done() {}

DSPMultiPassAnalyzer::DSPMultiPassAnalyzer(int32_t numPasses) : mNumPasses(numPasses) {}

DSPMultiPassAnalyzer::~DSPMultiPassAnalyzer() = default;

bool DSPMultiPassAnalyzer::SetSelection(long long start, long long length) {
    mSelectionStart = start;
    mSelectionLength = length;
    mCurrentPosition = start;
    return true;
}

void DSPMultiPassAnalyzer::Start(float* hostPointer) {
    DSPAnalyzer::Start(hostPointer);
    mCurrentPass = 0;  // the position stays where SetSelection put it
}

int DSPMultiPassAnalyzer::GetLatency() const {
    return GetLatency(mCurrentPass);
}
int DSPMultiPassAnalyzer::GetLatency(int32_t /*pass*/) const {
    return 0;
}
void DSPMultiPassAnalyzer::OnPassDone(int32_t /*pass*/) {}
void DSPMultiPassAnalyzer::Done() {}

long long DSPMultiPassAnalyzer::PassEnd() const {
    return mSelectionStart + mSelectionLength + GetLatency(mCurrentPass);
}

long long DSPMultiPassAnalyzer::Analyze(float** data, int numChannels, int numFrames) {
    const long long n = Analyze(mCurrentPass, data, numChannels, numFrames);
    mCurrentPosition += n;
    if (PassEnd() > mCurrentPosition) return n;
    return n - mSelectionLength - GetLatency(mCurrentPass);
}

bool DSPMultiPassAnalyzer::IsCompleted() const {
    const bool passDone = PassEnd() <= mCurrentPosition;
    if (passDone) {
        // OnPassDone is a hook for subclasses that collect per-pass results; it runs on the
        // mutable object even though the host sees a const query.
        const_cast<DSPMultiPassAnalyzer*>(this)->OnPassDone(mCurrentPass);
        ++mCurrentPass;
        mCurrentPosition = mSelectionStart;
    }
    return passDone && mCurrentPass >= mNumPasses;
}

float DSPMultiPassAnalyzer::GetProgress() const {
    const float passes = static_cast<float>(mNumPasses);
    const float done = static_cast<float>(mCurrentPosition - mSelectionStart);
    const float span = static_cast<float>(mSelectionLength + GetLatency(mCurrentPass));
    return 100.0f * (static_cast<float>(mCurrentPass) / passes + (done / span) / passes);
}

}  // namespace dsp
