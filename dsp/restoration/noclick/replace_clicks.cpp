#include <algorithm>

#include "dsp/noclick.h"
#include "dsp/restoration/noclick/click_model.h"

namespace dsp::noclick {

ReplaceClicks::ReplaceClicks(const NOCLICK* record) {
    CopyParameter(record, &mRecord, false);
    mModels.Create(mRecord, kWork);
    const int channels = std::max(mRecord.channels, 0);
    mIn.Allocate(channels, 2 * kWork);
    mOut.Allocate(channels, 2 * kWork);
    mWorkStore.assign(static_cast<std::size_t>(channels) * kWork, 0.0f);
    mWork.resize(channels);
    for (int c = 0; c < channels; ++c)
        mWork[c] = mWorkStore.data() + static_cast<std::size_t>(c) * kWork;
    mCursor.assign(channels, 0);
}

ReplaceClicks::~ReplaceClicks() = default;

bool ReplaceClicks::SetSelection(long long start, long long length) {
    mSelectionStart = mPosition = start;
    mSelectionLength = length;
    return true;
}

// The work buffer stands for the 4096 frames before the selection (silence); the output ring is
// primed with one hop, so input frame k leaves as output frame k + 4096.
void ReplaceClicks::Start() {
    std::fill(mWorkStore.begin(), mWorkStore.end(), 0.0f);
    std::fill(mCursor.begin(), mCursor.end(), std::size_t{0});
    mIn.Reset();
    mOut.Reset();
    mOut.FillZeroes(kHop);
    mPosition = mSelectionStart;
    mPending = 0;
    DSPProcess::Start();
}

void ReplaceClicks::Process(float** in, float** out, int numChannels, int numFrames) {
    const int channels = std::min(numChannels, mIn.GetNumChannels());
    float* inAt[32];
    float* outAt[32];
    for (int c = 0; c < channels && c < 32; ++c) {
        inAt[c] = in[c];
        outAt[c] = out[c];
    }
    for (int done = 0; done < numFrames;) {
        const int chunk = std::min(numFrames - done, kHop - mPending);
        mIn.Write(inAt, done, channels, chunk);
        mPending += chunk;
        if (mPending == kHop) Hop();
        for (int c = 0; c < channels; ++c)
            outAt[c] = out[c] + done;
        mOut.Read(outAt, channels, chunk, chunk);
        done += chunk;
    }
}

// Shift the work buffer by one hop, read the next hop behind it, repair the ranges that start in
// the block [position - 1024, position + 1024), and send the first hop out: every range that can
// touch it starts before the block's end, so it is final.
void ReplaceClicks::Hop() {
    const int channels = mIn.GetNumChannels();
    for (int c = 0; c < channels; ++c)  // into this object's store, also after a copy
        mWork[c] = mWorkStore.data() + static_cast<std::size_t>(c) * kWork;
    for (int c = 0; c < channels; ++c)
        std::copy(mWork[c] + kHop, mWork[c] + kWork, mWork[c]);
    float* tail[32];
    for (int c = 0; c < channels && c < 32; ++c)
        tail[c] = mWork[c] + (kWork - kHop);
    mIn.Read(tail, channels, kHop, kHop);
    Repair(mPosition - kRoll, kHop);
    mOut.Write(mWork.data(), 0, channels, kHop);
    mPosition += kHop;
    mPending = 0;
}

// Takes the ranges that start in [blockPos, blockPos + 2048) from each channel's cursor. A range
// whose samples lie inside the work buffer becomes a gap; every range taken is marked done. A
// range that starts before the block or reaches past blockPos + 4096 can never fit a later block
// either (blocks only move forward): it is marked done unrepaired rather than holding the cursor.
void ReplaceClicks::Repair(long long blockPos, long length) {
    const long work = length + 2 * kRoll;
    for (int c = 0; c < mModels.size(); ++c) {
        ClickModel& model = mModels[c];
        std::vector<utils::Range>& list = mRecord.repairClicks[c];
        model.BeginRepair(static_cast<int>(work));
        std::size_t& cursor = mCursor[c];
        for (; cursor < list.size(); ++cursor) {
            utils::Range& r = list[cursor];
            if (r.start >= blockPos + kHop) break;
            const long long rs = r.start - blockPos, re = rs + r.length;
            if (r.done == 0 && rs >= 0 && re + kRoll <= work && r.length > 0)
                model.MarkGap(static_cast<int>(rs + kRoll), static_cast<int>(re + kRoll));
            r.done = 1;
        }
        if (!model.HasGaps()) continue;
        float* x = mWork[c];
        for (long i = 0; i < work; ++i)
            x[i] *= 32768.0f;
        model.Repair(x, static_cast<int>(work));
        for (long i = 0; i < work; ++i)
            x[i] *= 1.0f / 32768.0f;
    }
}

void ReplaceClicks::Done() {
    DSPProcess::Done();
}

}  // namespace dsp::noclick
