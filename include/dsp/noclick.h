#pragma once
// Click detection and replacement (namespace dsp::noclick).
//
// Clicks and crackle are short impulsive disturbances that an all-pole (linear-prediction) model
// of the surrounding audio cannot predict. FindClicks fits such a model of order 20 + complexity/2
// to overlapping blocks of 3072 samples, flags samples whose prediction error exceeds
// (threshold + 25) / 10 times the local RMS error (plus one 16-bit step), drops regular trains of
// such events (a rhythm, a buzz) and appends each remaining run to NOCLICK::foundClicks.
// ReplaceClicks takes the host's list NOCLICK::repairClicks and rewrites exactly those samples by
// least-squares autoregressive interpolation from the audio around them; every other sample passes
// through unchanged (all arithmetic is on samples times 32768, an exact round trip).
//
// Typical use (C channels, region [s, s + n) of a stream):
//     NOCLICK rec;  SetDefaultParameter(&rec);  rec.channels = C;  AllocateArrays(&rec);
//     FindClicks find(&rec);
//     find.SetSelection(s, n);  find.Start(nullptr);
//     while (!find.IsCompleted()) find.Analyze(at(position), C, find.GetDesiredBlockSize());
//         // the pass reads n + GetLatency() = n + 4096 frames from s (frames past the end: zeros)
//     find.Done();                                    // found clicks, sorted by start
//     ReplaceClicks fix(&rec);  fix.GetParam()->repairClicks = find.GetParam()->foundClicks;
//     fix.SetSelection(s - 1024, n + 2048);  fix.Start();  // 1024 frames of pre- and post-roll
//     fix.Process(in, out, C, frames) ...             // output lags input by GetLatency() = 4096
//     fix.Done();  FreeArrays(&rec);
//
// Ranges may repeat: consecutive detection blocks overlap by 1024 samples and a click there is
// reported from both. Repair takes each range once (it marks `done`); overlapping ranges are fine.
//
// Threads: none are started. One object is used by one thread at a time.

#include <cstdint>
#include <vector>

#include "dsp/dsp_analyzer.h"
#include "dsp/dsp_process.h"
#include "dsp/kestadsp_export.h"
#include "dsp/range.h"
#include "dsp/ring_buffer.h"

namespace dsp::noclick {

class ClickModel;

struct KESTADSP_API NOCLICK {
    float sampleRate = 44100.0f;
    int32_t channels = 2;
    std::vector<std::vector<utils::Range>> foundClicks;   // [channels], written by FindClicks
    std::vector<std::vector<utils::Range>> repairClicks;  // [channels], sorted by start; read by ReplaceClicks
    double threshold = 55.0;                              // the flag factor is (threshold + 25) / 10
    int32_t complexity = 16;                              // prediction order 20 + complexity / 2
};

// Writes sampleRate, channels, threshold and complexity defaults; the lists are left alone.
KESTADSP_API void SetDefaultParameter(NOCLICK* p);
// Both lists get `channels` empty entries.
KESTADSP_API void AllocateArrays(NOCLICK* p);
KESTADSP_API void FreeArrays(NOCLICK* p);
// Copies the scalars and repairClicks; foundClicks is emptied when clearFound, copied otherwise.
KESTADSP_API void CopyParameter(const NOCLICK* src, NOCLICK* dst, bool clearFound);

// The engines are held by pointer so that this header stays free of their internals.
class KESTADSP_API ClickModels {
public:
    ClickModels() = default;
    ClickModels(const ClickModels& other);
    ClickModels& operator=(const ClickModels& other);
    ~ClickModels();
    // One engine per channel of `record`, each for blocks of blockLength samples.
    void Create(const NOCLICK& record, int blockLength);
    ClickModel& operator[](int channel) { return *mModels[channel]; }
    int size() const { return static_cast<int>(mModels.size()); }

private:
    std::vector<ClickModel*> mModels;
};

// Everything FindClicks keeps besides its base class. FindClicks has no data members of its own:
// its copy operations copy this whole and then reserve the lists again (a copied vector holds only
// its elements), so a member added here is copied without anyone having to list it.
struct KESTADSP_API FindClicksData {
    NOCLICK mRecord;
    ClickModels mModels;
    RingBuffer mRing;
    std::vector<float> mBlockStore;  // kRead frames per channel
    std::vector<float*> mBlocks;
    // Per channel: runs in the part of the last block that the next block analyses again, held
    // back until it has, and the absolute starts of the last block's runs that were part of a
    // regular train (see Detect).
    std::vector<std::vector<utils::Range>> mPending;
    std::vector<std::vector<long long>> mTrain;
    std::vector<long long> mTrainNow;
    int mNewSamples = 0;
    long long mRingPosition = 0;  // absolute index of the ring's next read
};

class KESTADSP_API FindClicks : public DSPMultiPassAnalyzer, private FindClicksData {
public:
    explicit FindClicks(const NOCLICK* record);
    FindClicks(const FindClicks& other);
    FindClicks& operator=(const FindClicks& other);
    ~FindClicks() override;

    using DSPMultiPassAnalyzer::Analyze;
    using DSPMultiPassAnalyzer::GetLatency;
    NOCLICK* GetParam() { return &mRecord; }
    const NOCLICK* GetParam() const { return &mRecord; }
    int32_t GetDesiredBlockSize() const override { return kHop; }
    // The pass reads 4096 frames past the selection: the last block's 3072 and its lead.
    int GetLatency(int32_t pass) const override;
    void Start(float* hostPointer) override;
    void Done() override;

    static constexpr int kHop = 2048;
    static constexpr int kBlock = 3072;
    static constexpr int kOffset = 130;  // history ahead of each analysed block
    static constexpr int kLeadIn = 1024;
    static constexpr int kRead = 2 * kHop + kOffset;  // frames read per detection

protected:
    long long Analyze(int32_t pass, float** data, int numChannels, int numFrames) override;

private:
    virtual void Detect(long offset, long count);
    void Report(int channel, const utils::Range& click);
    // Room for the lists detection appends to.
    void Reserve();
};

class KESTADSP_API ReplaceClicks : public DSPProcess {
public:
    explicit ReplaceClicks(const NOCLICK* record);
    ReplaceClicks(const ReplaceClicks& other) = default;
    ReplaceClicks& operator=(const ReplaceClicks& other) = default;
    ~ReplaceClicks() override;

    static void GetPrePostRoll(long long& pre, long long& post) { pre = post = kRoll; }
    NOCLICK* GetParam() { return &mRecord; }
    bool SetSelection(long long start, long long length) override;
    void Start() override;
    void Process(float** in, float** out, int numChannels, int numFrames) override;
    void Done() override;
    int GetLatency() const override { return kLatency; }

    static constexpr int kRoll = 1024;
    static constexpr int kHop = 2048;
    static constexpr int kWork = 4096;  // work buffer: 1024 before the block, the block, 1024 after
    static constexpr int kLatency = 4096;

private:
    void Repair(long long blockPos, long length);
    void Hop();

    NOCLICK mRecord;
    ClickModels mModels;
    RingBuffer mIn, mOut;
    std::vector<float> mWorkStore;  // kWork per channel
    std::vector<float*> mWork;
    std::vector<std::size_t> mCursor;
    long long mSelectionStart = 0;
    long long mSelectionLength = 0;
    long long mPosition = 0;  // absolute index of the next input frame of a full hop
    int mPending = 0;         // input frames waiting for the next hop
};

}  // namespace dsp::noclick
