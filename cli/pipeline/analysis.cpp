#include "analysis.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "dsp/dsp_analyzer.h"

namespace kesta {

namespace {

// Reads a stretch of a file as the overlapping blocks an analyzer asks for: Load(position, n)
// gives frames position ... position + n - 1, with positions that never go back. The reader only
// moves forward (skipped frames are read and dropped), and the window holds at most one block.
class SlidingWindow {
public:
    SlidingWindow(BlockReader& reader, std::size_t capacity, int channels)
        : mReader(reader),
          mCapacity(capacity),
          mChunk(reader.MakeBlock()),
          mData(std::size_t(channels), std::vector<float>(capacity)),
          mPointers(std::size_t(channels)) {
        mBase = reader.FramesRead();
    }

    // The frames available from `position` on, at most `frames` (fewer only at the end of the file).
    std::size_t Load(int64_t position, std::size_t frames) {
        frames = std::min(frames, mCapacity);
        const int64_t drop = position - mBase;
        if (drop >= int64_t(mHeld)) {
            Skip(drop - int64_t(mHeld));
            mHeld = 0;
        } else if (drop > 0) {
            for (std::vector<float>& channel : mData)
                std::memmove(channel.data(), channel.data() + drop, (mHeld - std::size_t(drop)) * sizeof(float));
            mHeld -= std::size_t(drop);
        }
        mBase = position;
        while (mHeld < frames) {
            if (mChunkUsed == mChunk.Frames()) {
                if (!mReader.Read(mChunk)) break;
                mChunkUsed = 0;
            }
            const std::size_t take = std::min(frames - mHeld, mChunk.Frames() - mChunkUsed);
            for (std::size_t c = 0; c < mData.size(); ++c)
                std::memcpy(mData[c].data() + mHeld,
                            mChunk.Channel(std::min(int(c), mChunk.Channels() - 1)) + mChunkUsed, take * sizeof(float));
            mHeld += take;
            mChunkUsed += take;
        }
        return std::min(frames, mHeld);
    }

    // Silence in place of frames `from` ... `to` - 1 of the window.
    void Silence(std::size_t from, std::size_t to) {
        for (std::vector<float>& channel : mData)
            std::fill(channel.begin() + std::ptrdiff_t(from), channel.begin() + std::ptrdiff_t(to), 0.0f);
    }

    float** Channels() {
        for (std::size_t c = 0; c < mData.size(); ++c)
            mPointers[c] = mData[c].data();
        return mPointers.data();
    }

private:
    void Skip(int64_t frames) {
        while (frames > 0) {
            if (mChunkUsed == mChunk.Frames()) {
                if (!mReader.Read(mChunk)) return;
                mChunkUsed = 0;
            }
            const std::size_t take = std::size_t(std::min<int64_t>(frames, int64_t(mChunk.Frames() - mChunkUsed)));
            mChunkUsed += take;
            frames -= int64_t(take);
        }
    }

    BlockReader& mReader;
    std::size_t mCapacity;
    AudioBlock mChunk;
    std::size_t mChunkUsed = 0;
    std::vector<std::vector<float>> mData;
    std::vector<float*> mPointers;
    int64_t mBase = 0;  // file position of mData's first frame
    std::size_t mHeld = 0;
};

}  // namespace

int RunAnalysis(dsp::DSPAnalyzer& analyzer, BlockReader& reader, const AnalysisRegion& region, int channels,
                Progress& progress, const EndsEarly& endsEarly) {
    const bool multiPass = dynamic_cast<dsp::DSPMultiPassAnalyzer*>(&analyzer) != nullptr;
    const std::size_t desired = std::size_t(std::max<int32_t>(analyzer.GetDesiredBlockSize(), 1));
    const int64_t regionEnd = region.start + region.frames;
    int64_t readBefore = 0;  // frames read in the passes before this one
    auto read = [&] { return readBefore + reader.FramesRead(); };
    int64_t reported = read();

    analyzer.Start(nullptr);
    int calls = 0;
    bool newPass = true;
    int64_t position = region.start;
    std::optional<SlidingWindow> window;
    while (!analyzer.IsCompleted()) {
        if (newPass) {
            if (reader.FramesRead() > region.start) {  // a new pass (or a reader already past the start) goes back
                readBefore += reader.FramesRead();
                reader.Rewind();
            }
            window.emplace(reader, desired, channels);
            position = region.start;
            newPass = false;
        }
        // A multi-pass analyzer reads its latency past the region; a single-pass one only the region
        // (a block past its end would measure what follows it).
        const int64_t end = multiPass ? regionEnd + analyzer.GetLatency() : regionEnd;
        if (position >= end) throw std::logic_error("an analyzer asked for frames past the end of its selection");
        const std::size_t wanted = std::size_t(std::min<int64_t>(int64_t(desired), end - position));
        const std::size_t got = window->Load(position, wanted);
        if (got < wanted) {
            if (endsEarly && position + int64_t(got) < regionEnd) endsEarly(position + int64_t(got));
            window->Silence(got, wanted);
        }
        const long long advance = analyzer.Analyze(window->Channels(), channels, int(wanted));
        ++calls;
        progress.Advance(read() - reported);
        reported = read();
        if (multiPass) {
            // Past the pass's end the driver answers with what is left of the pass, not the step: the
            // next IsCompleted closes the pass and the next one starts from the region's start.
            position += advance > 0 ? advance : int64_t(wanted);
            newPass = position >= end;
        } else {
            if (analyzer.IsCompleted()) break;
            if (advance <= 0) throw std::logic_error("an analyzer did not advance");
            position += advance;
        }
    }
    analyzer.Done();
    return calls;
}

}  // namespace kesta
