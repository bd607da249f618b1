#include <algorithm>
#include <cmath>

#include "dsp/noclip.h"

namespace dsp::noclip {

namespace {

constexpr int32_t kNone = 0;
constexpr int32_t kTop = 1;
constexpr int32_t kBottom = 2;

}  // namespace

FindClipping::FindClipping(const NOCLIPPING* record) : DSPMultiPassAnalyzer(2) {
    CopyParameter(record, &mParam, true);
}

FindClipping::~FindClipping() = default;

void FindClipping::Start(float* hostPointer) {
    DSPMultiPassAnalyzer::Start(hostPointer);
    for (std::size_t c = 0; c < mParam.foundClips.size(); ++c) {
        mParam.runKind[c] = kNone;
        mParam.runCount[c] = 0;
        mParam.runStart[c] = 0;
        mParam.minLevel[c] = 3.4028235e38f;
        mParam.maxLevel[c] = 0.0f;
        mParam.foundClips[c].reserve(100);
    }
}

long long FindClipping::Analyze(int32_t pass, float** data, int numChannels, int numFrames) {
    if (numFrames < 1) return 0;
    // Frames a host hands over past the selection's end are not looked at.
    const long long inside = GetSelectionStart() + GetSelectionLength() - GetCurrentPosition();
    const int n = static_cast<int>(std::clamp<long long>(inside, 0, numFrames));
    if (pass == 0)
        FindMinMax(data, numChannels, n);
    else
        DetectClipping(data, numChannels, n);
    return numFrames;
}

void FindClipping::FindMinMax(float** data, int numChannels, int numFrames) {
    const int channels = std::min(numChannels, mParam.channels);
    for (int c = 0; c < channels; ++c) {
        float lo = mParam.minLevel[c], hi = mParam.maxLevel[c];
        for (int i = 0; i < numFrames; ++i) {
            lo = std::min(lo, data[c][i]);
            hi = std::max(hi, data[c][i]);
        }
        mParam.minLevel[c] = lo;
        mParam.maxLevel[c] = hi;
    }
}

void FindClipping::DetectClipping(float** data, int numChannels, int numFrames) {
    const int channels = std::min(numChannels, mParam.channels);
    const long long position = GetCurrentPosition();
    for (int c = 0; c < channels; ++c) {
        const float lo = mParam.minLevel[c], hi = mParam.maxLevel[c];
        const float tol = std::max(hi, -lo) * mParam.tolerancePercent / 100.0f;
        const float topFrom = hi - tol, bottomTo = lo + tol;
        int32_t& kind = mParam.runKind[c];
        int32_t& count = mParam.runCount[c];
        for (int i = 0; i < numFrames; ++i) {
            const float x = data[c][i];
            const bool loud = std::fabs(x) >= kClipFloor;
            const bool top = loud && x >= topFrom && x <= hi;
            const bool bottom = loud && x >= lo && x <= bottomTo;
            // A sample at both levels (a nearly constant channel) continues the run it is in.
            const int32_t now = top && !(bottom && kind == kBottom) ? kTop : bottom ? kBottom : kNone;
            if (now != kNone && now == kind) {
                ++count;
                continue;
            }
            FindClippedAudioAfter(c);
            if (now != kNone) {
                kind = now;
                count = 1;
                mParam.runStart[c] = position + i;
            }
        }
    }
}

void FindClipping::FindClippedAudioAfter(int c) {
    if (mParam.runKind[c] != kNone && mParam.runCount[c] >= mParam.minRunLength)
        mParam.foundClips[c].push_back({mParam.runStart[c], mParam.runCount[c], 0});
    mParam.runKind[c] = kNone;
    mParam.runCount[c] = 0;
}

void FindClipping::OnPassDone(int32_t pass) {
    // A run still open at the end of the selection is a run all the same.
    if (pass == 1)
        for (int c = 0; c < static_cast<int>(mParam.foundClips.size()); ++c)
            FindClippedAudioAfter(c);
}

void FindClipping::Done() {}

}  // namespace dsp::noclip
