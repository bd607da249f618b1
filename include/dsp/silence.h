#pragma once
// Silence: FindSilence, a single-pass analyzer, finds the quiet stretches of a selection as
// dsp::utils::Range lists; DeleteSilence, a block processor, removes a list of ranges from a stream
// with a short equal-power crossfade at each cut.
//
// What is quiet. A stretch is quiet when every sample in it is at or below the threshold in
// magnitude; once a stretch has begun it carries on through samples up to threshold + hysteresis,
// so a noise floor that wanders about the threshold does not split it. A stretch begins only after
// `hold` consecutive samples at or below the threshold (shorter dips, such as a tone's zero
// crossings, never begin one), and it is reported whole, from its first quiet sample to the
// sample before the first louder one, when it lasts at least `minimum` seconds. In linked mode
// every channel is judged by the loudest of all channels at that frame and one list describes
// them all; otherwise each channel has its own list.
//
// The ranges carry absolute frame positions (the selection start plus the offset in it). A stretch
// longer than the largest Range length is reported as consecutive ranges. Ranges are final as
// soon as they are reported; the one still open at the end of the selection is closed by Done.
//
// Driving FindSilence: construct with the settings, the rate and the channels, SetSelection, Start (the host
// pointer is not used), Analyze blocks of any length until IsCompleted, Done, then GetRanges.
// Any partition into blocks gives the same ranges; Analyze allocates nothing while the ranges fit
// the room Start reserves (enough for any selection of up to 2^22 frames per minimum length).
//
// DeleteSilence removes the given ranges (merged where they overlap or touch) from every channel.
// Around a cut from s to e, the F frames before s fade out under a quarter cosine while the last F
// frames of the removed range, just before e, fade in under a quarter sine, overlapped; the stream
// then goes on from e. So the output holds exactly the input minus the removed frames, the join
// ends on two samples that were neighbours in the input, and the frames faded are those nearest
// the quiet stretch. F is the crossfade length, shortened where the range, the audio before it
// since the previous cut, or the start of the stream leave less room; a range that runs to the end
// of the stream needs none. Process writes GetLastOutputFrames() frames (at most the frames given):
// frames kept for a crossfade come out when the end of their range arrives, so no fixed latency
// applies. Any partition gives the same output; Process never allocates.

#include <cstdint>
#include <vector>

#include "dsp/dsp_analyzer.h"
#include "dsp/dsp_process.h"
#include "dsp/kestadsp_export.h"
#include "dsp/range.h"

namespace dsp::nosilence {

struct NOSILENCE {
    double thresholdDb = -60.0;   // dBFS; a sample of 1.0 is 0 dBFS
    double hysteresisDb = 3.0;    // how far above the threshold a quiet stretch may wander (>= 0)
    double minimumSeconds = 0.5;  // shortest stretch reported
    double holdSeconds = 0.01;    // quiet samples in a row before a stretch begins (capped at the minimum)
    bool linked = true;           // one list for all channels
};

class KESTADSP_API FindSilence : public DSPAnalyzer {
public:
    FindSilence(const NOSILENCE& settings, int sampleRate, int numChannels);
    // Copies keep the room reserved for ranges, so a copy's Analyze allocates no more than the
    // original's.
    FindSilence(const FindSilence& other);
    FindSilence& operator=(const FindSilence& other);

    bool SetSelection(long long start, long long length) override;
    int32_t GetDesiredBlockSize() const override { return 4096; }
    bool IsCompleted() const override;
    float GetProgress() const override;
    void Start(float* hostPointer) override;
    long long Analyze(float** data, int numChannels, int numFrames) override;
    void Done() override;

    const NOSILENCE& GetParam() const { return mSettings; }
    // The lists found: one when linked, else one per channel (channels beyond the constructor's
    // count are not read).
    int GetListCount() const { return static_cast<int>(mLists.size()); }
    // The ranges of `channel` (in linked mode the one list, whatever the channel).
    const std::vector<utils::Range>& GetRanges(int channel) const;
    // The frames the ranges of `channel` cover.
    long long GetQuietFrames(int channel) const;
    int GetHoldFrames() const { return mHold; }
    long long GetMinimumFrames() const { return mMinimum; }

private:
    struct Detector {
        long long quietRun = 0;    // consecutive samples at or below the threshold
        long long openStart = -1;  // absolute start of the open stretch, -1 when none
    };
    void Close(std::size_t list, long long end);

    NOSILENCE mSettings;
    float mEnter;  // linear threshold
    float mLeave;  // linear threshold + hysteresis
    int mHold;
    long long mMinimum;
    long long mSelectionStart = 0;
    long long mSelectionLength = 0;
    long long mFramesRead = 0;
    std::vector<Detector> mDetectors;
    std::vector<std::vector<utils::Range>> mLists;
};

class KESTADSP_API DeleteSilence : public DSPProcess {
public:
    // Removes `ranges` (absolute frames; any order, overlaps allowed) from a stream of
    // `totalFrames` frames that starts at frame `streamStart`, with crossfades of `fadeFrames`.
    DeleteSilence(const std::vector<utils::Range>& ranges, long long streamStart, long long totalFrames, int fadeFrames,
                  int maxChannels);

    void Start() override;
    void Process(float** in, float** out, int numChannels, int numFrames) override;
    int GetLatency() const override { return 0; }

    int GetLastOutputFrames() const { return mLastOutput; }
    // The frames removed in all, and what is left of the stream.
    long long GetRemovedFrames() const { return mRemoved; }
    long long GetOutputLength() const { return mTotal - mRemoved; }
    // Frames of output the first `inputFrames` frames of the stream make once the stream has gone
    // past them (cuts counted whole, crossfades not yet made included).
    long long OutputFramesFor(long long inputFrames) const;

private:
    struct Cut {
        long long start;
        long long end;
        int fade;
    };

    std::vector<Cut> mCuts;  // relative to the stream start, merged, in order
    long long mTotal;
    long long mRemoved = 0;
    int mMaxChannels;
    int mFadeCapacity;
    std::vector<float> mHeld;  // channel c's held frames at c * mFadeCapacity
    long long mPosition = 0;   // frames of the stream received
    std::size_t mNext = 0;     // the first cut not yet passed
    int mLastOutput = 0;
};

}  // namespace dsp::nosilence
