#include <algorithm>

#include "dsp/noclick.h"
#include "dsp/restoration/noclick/click_model.h"

namespace dsp::noclick {

FindClicks::FindClicks(const NOCLICK* record) : DSPMultiPassAnalyzer(1) {
    CopyParameter(record, &mRecord, true);
    mModels.Create(mRecord, kBlock);
    const int channels = std::max(mRecord.channels, 0);
    mRing.Allocate(channels, 2 * kRead);
    mBlockStore.assign(static_cast<std::size_t>(channels) * kRead, 0.0f);
    mBlocks.resize(channels);
    mPending.resize(channels);
    mTrain.resize(channels);
    Reserve();
    for (int c = 0; c < channels; ++c)
        mBlocks[c] = mBlockStore.data() + static_cast<std::size_t>(c) * kRead;
}

// Detection appends to the lists without allocating, in a copy as in the original: the copy
// takes the base and the whole state, then reserves again.
FindClicks::FindClicks(const FindClicks& other) : DSPMultiPassAnalyzer(other), FindClicksData(other) {
    Reserve();
}

FindClicks& FindClicks::operator=(const FindClicks& other) {
    DSPMultiPassAnalyzer::operator=(other);
    FindClicksData::operator=(other);
    Reserve();
    return *this;
}

namespace {
// FindClicks with its bases and nothing else: a data member declared in FindClicks itself would
// escape the copy above.
struct BareFindClicks : DSPMultiPassAnalyzer, FindClicksData {};
static_assert(sizeof(FindClicks) == sizeof(BareFindClicks), "FindClicks keeps its data in FindClicksData");
}  // namespace

void FindClicks::Reserve() {
    for (auto& list : mRecord.foundClicks)
        list.reserve(100);
    for (std::size_t c = 0; c < mPending.size(); ++c) {
        mPending[c].reserve(kBlock / 2 + 1);
        mTrain[c].reserve(kBlock / 2 + 1);
    }
    mTrainNow.reserve(kBlock / 2 + 1);
}

FindClicks::~FindClicks() = default;

int FindClicks::GetLatency(int32_t /*pass*/) const {
    return 2 * kHop;
}

void FindClicks::Start(float* hostPointer) {
    mRing.Reset();
    mNewSamples = 0;
    mRing.FillZeroes(kLeadIn);
    mRingPosition = GetSelectionStart() - kLeadIn;
    for (int c = 0; c < static_cast<int>(mPending.size()); ++c) {
        mPending[c].clear();
        mTrain[c].clear();
    }
    DSPMultiPassAnalyzer::Start(hostPointer);
}

long long FindClicks::Analyze(int32_t /*pass*/, float** data, int numChannels, int numFrames) {
    const int frames = std::clamp(numFrames, 0, kHop);
    const int channels = std::min(numChannels, mRing.GetNumChannels());
    for (std::size_t c = 0; c < mBlocks.size(); ++c)  // into this object's store, also after a copy
        mBlocks[c] = mBlockStore.data() + c * kRead;
    mRing.Write(data, 0, channels, frames);
    mNewSamples += frames;
    while (mNewSamples >= kHop && mRing.CanBeRead() >= kRead) {
        mRing.Read(mBlocks.data(), channels, kRead, kHop);
        Detect(kOffset, kBlock);
        mRingPosition += kHop;
        mNewSamples -= kHop;
    }
    return frames;
}

// Runs are relative to the analysed block, which begins `offset` frames into what was read; the
// read began at mRingPosition (pos - 3072 when the host hands over 2048 frames per call).
//
// A block can only judge a regular train by the onsets it holds, so the first impulses of a train
// near a block's end, or its last ones near a block's start, would look like lone clicks; and the
// engine's train windows stop 256 frames short of the block's end, so impulses there are not
// judged at all. Blocks overlap by 1024 frames, and each such impulse lies where the neighbouring
// block sees the train around it: a run that contains the start of a run the neighbour cleared as
// periodic is dropped. Runs in the overlap with the next block are therefore reported once that
// block has been analysed.
void FindClicks::Detect(long offset, long count) {
    const long long blockStart = mRingPosition + offset, nextStart = blockStart + kHop;
    auto containsTrain = [](const utils::Range& r, const std::vector<long long>& train) {
        return std::any_of(train.begin(), train.end(),
                           [&r](long long s) { return s >= r.start && s < r.start + r.length; });
    };
    for (int c = 0; c < mModels.size(); ++c) {
        float* x = mBlocks[c];
        for (long i = 0; i < count + offset; ++i)
            x[i] *= 32768.0f;
        ClickModel& model = mModels[c];
        const int runs = model.Detect(x + offset, static_cast<int>(count));
        const std::vector<long long>& previousTrain = mTrain[c];
        std::vector<long long>& train = mTrainNow;
        train.clear();
        for (int i = 0; i < model.NumCleared(); ++i)
            train.push_back(blockStart + model.Cleared()[i].start);
        for (const utils::Range& r : mPending[c])
            if (!containsTrain(r, train)) Report(c, r);
        mPending[c].clear();
        for (int r = 0; r < runs; ++r) {
            const ClickRun& run = model.Runs()[r];
            const utils::Range click{blockStart + run.start, run.end - run.start, 0};
            if (containsTrain(click, previousTrain)) continue;
            if (click.start >= nextStart)
                mPending[c].push_back(click);
            else
                Report(c, click);
        }
        std::swap(mTrain[c], mTrainNow);  // both keep their reserved capacity
    }
}

// Appended only when it begins after the selection start and ends inside the selection.
void FindClicks::Report(int channel, const utils::Range& click) {
    const long long selStart = GetSelectionStart(), selEnd = selStart + GetSelectionLength();
    if (click.start > selStart && click.start + click.length <= selEnd) mRecord.foundClicks[channel].push_back(click);
}

void FindClicks::Done() {
    for (int c = 0; c < static_cast<int>(mPending.size()); ++c) {
        for (const utils::Range& r : mPending[c])
            Report(c, r);
        mPending[c].clear();
    }
    for (auto& list : mRecord.foundClicks)
        std::stable_sort(list.begin(), list.end(), utils::CompareLowerBound);
    DSPMultiPassAnalyzer::Done();
}

}  // namespace dsp::noclick
