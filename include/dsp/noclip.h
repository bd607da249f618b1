#pragma once
// Clipping detection and repair.
//
// FindClipping (a two-pass analyzer) finds stretches flattened against a channel's extreme levels
// and appends them as Ranges to its record's foundClips; RepairClipping (a block processor) redraws
// the ranges of its record's repairClips, multiplies its output by 10^(gainDb/20) and, when
// useLimiter is set, passes it through its own HardLimit.
//
// Detection (second pass; lo and hi are the channel's minimum and maximum from the first pass):
// tol = max(hi, -lo) * tolerancePercent / 100; a sample is at the top level when
// hi - tol <= x <= hi and at the bottom level when lo <= x <= lo + tol, and in both cases
// |x| >= kClipFloor (-24 dBFS), so quiet passages never count. A run of at least minRunLength
// consecutive top (or bottom) samples is reported when it ends: at a sample at neither level, at a
// switch between top and bottom, or at the end of the selection. Runs may span blocks.
//
// Repair, per range (see RepairClipping for the block scheme):
//  - the polynomial method redraws the run from the shape of the signal at its edges (details at
//    DoPolyNomialInterpolation); with useFFT, runs of length - 1 >= 3 * fftSize / 4 are redrawn by
//    the spectral method instead (sinusoids carried across the run from frames on both sides);
//  - when fillInMargin > 16, the CFillIn engine re-synthesises runs of up to
//    min(fillInMargin, 64) samples from four times that much context on each side (least-squares
//    autoregressive fill) instead; the redraw still gives such a run its shape in the context its
//    neighbours are filled from;
//  - a clipped sample's true value lies beyond the level it was flattened to, so the redrawn
//    samples are finally held at least at their observed values on the clipped side.
// Only samples inside the ranges change; every other sample leaves the repair as it came in.
//
// Threads: one object per thread at a time; copies are deep.

#include <cstddef>
#include <cstdint>
#include <valarray>
#include <vector>

#include "dsp/audio_buffer.h"
#include "dsp/dsp_analyzer.h"
#include "dsp/dsp_process.h"
#include "dsp/fft.h"
#include "dsp/hard_limit.h"
#include "dsp/kestadsp_export.h"
#include "dsp/range.h"
#include "dsp/ring_buffer.h"

namespace dsp {

// CFillIn re-synthesises a short span of samples in place from its surroundings: an all-pole
// (autoregressive) model of order up to 32 is fitted to the context on both sides (each stretch
// under its own Hann weight; the span's present values play no part), and the span's samples are
// replaced by the values that minimise the model's prediction error over the span and the model
// order beyond it on each side (a banded positive-definite system, solved by Cholesky). Context
// samples are read, never written. A model fitted to the surroundings carries across a gap only
// some fraction of their length, so the context is four times the longest span on each side
// (measured on clipped speech and music: half that context repairs runs of 16 to 64 samples
// clearly worse). The cost grows with span x order^2, which is what bounds the span.
//
//   Init(length, ...)    spans of up to length/2 samples (at least 4), 2 x length samples of
//                        context on each side; working memory is allocated here only.
//   FillInNow(first, last, samples, ..., strength, ..., mask)
//                        samples[first ... last] become current + strength/100 * (fill - current);
//                        with a mask, only the samples whose mask entry (index i - first) is true
//                        are re-synthesised and the others count as known. samples must hold the
//                        context: first - 2 x length ... last + 2 x length. A span that is too long,
//                        or silent surroundings, leave the samples as they are (returns false).
//
// Latency: none (it works on a buffer the caller holds).
class KESTADSP_API CFillIn {
public:
    CFillIn() = default;
    void Init(int length, int reserved);
    // Returns true when the span was re-synthesised.
    bool FillInNow(int first, int last, float* samples, float* reservedBuffer, float strength, float reserved,
                   bool* mask);
    int GetLatency() const { return 0; }
    int GetMaxSpan() const { return mMaxSpan; }

private:
    int mMaxSpan = 0;
    int mContext = 0;
    int mOrder = 0;
    std::vector<double> mWindow;  // span and context, as doubles
    std::vector<double> mHann;    // the weight of each context sample
    std::vector<double> mAutocorrelation;
    std::vector<double> mCoefficients;  // prediction error filter b[0 ... order], b[0] = 1
    std::vector<double> mScratch;
    std::vector<double> mCoefCorrelation;
    std::vector<double> mBand;  // Cholesky factor, span x (order + 1)
    std::vector<double> mRhs;
    std::vector<int> mUnknown;         // window index of each unknown
    std::vector<float> mModelContext;  // the context the current model was fitted to
    bool mModelValid = false;

    bool FitModel(int first, int last, const float* samples);
};

namespace noclip {

// -24 dBFS: samples quieter than this never count as clipped.
inline constexpr float kClipFloor = 0.0630957f;

struct NOCLIPPING {
    float sampleRate = 44100.0f;
    int32_t channels = 2;
    int32_t fftSize = 32;      // spectral frame length; a power of two from 8 to 256
    int32_t minRunLength = 3;  // samples in a row at the clip level to count as clipped
    float gainDb = -12.0f;     // output gain of the repair
    bool useFFT = false;       // permits the spectral method for long runs
    float tolerancePercent = 10.0f;
    bool useLimiter = true;  // the repair's output goes through a HardLimit after the gain
    // Working lists of the analyzer, one entry per channel: levels from the first pass, and the
    // run being counted in the second (kind 0 none, 1 top, 2 bottom).
    std::vector<float> minLevel;
    std::vector<float> maxLevel;
    std::vector<int32_t> runKind;
    std::vector<int32_t> runCount;
    std::vector<int64_t> runStart;
    std::vector<std::vector<utils::Range>> foundClips;   // written by FindClipping
    std::vector<std::vector<utils::Range>> repairClips;  // read and marked done by RepairClipping
    bool optionB = true;                                 // carried by copies; not read
    int32_t fillInMargin = 64;                           // context of the fill-in, capped at 64; 16 or less: no fill-in
};

// The scalar defaults above; the lists are not touched.
KESTADSP_API void SetDefaultParameter(NOCLIPPING* record);
// Every per-channel list sized to `channels` (clip lists empty, working lists zero).
KESTADSP_API void AllocateArrays(NOCLIPPING* record);
KESTADSP_API void FreeArrays(NOCLIPPING* record);
// Scalars, then the lists; foundClips is emptied when emptyFound is true and copied when false.
KESTADSP_API void CopyParameter(const NOCLIPPING* src, NOCLIPPING* dst, bool emptyFound);

// Two passes over the selection (latency 0 in both): levels, then runs. The host reads foundClips
// from GetParam() after Done; each channel's list is in order of start.
class KESTADSP_API FindClipping : public DSPMultiPassAnalyzer {
public:
    explicit FindClipping(const NOCLIPPING* record);
    FindClipping(const FindClipping&) = default;
    FindClipping& operator=(const FindClipping&) = default;
    ~FindClipping() override;

    const NOCLIPPING* GetParam() const { return &mParam; }
    int32_t GetDesiredBlockSize() const override { return 4096; }
    using DSPMultiPassAnalyzer::Analyze;
    void Start(float* hostPointer) override;
    void Done() override;

protected:
    long long Analyze(int32_t pass, float** data, int numChannels, int numFrames) override;
    void OnPassDone(int32_t pass) override;

private:
    void FindMinMax(float** data, int numChannels, int numFrames);
    void DetectClipping(float** data, int numChannels, int numFrames);
    // Emits channel c's current run when it is long enough, then clears it.
    void FindClippedAudioAfter(int c);

    NOCLIPPING mParam;
};

// Redraws the ranges of repairClips in a stream.
//
// Block scheme: each channel keeps a work buffer of 2 x (pre + post) = 1280 samples; every post
// (320) input samples it shifts by 320, takes the new samples in at its end and repairs the block
// that starts pre + post samples before them: the ranges whose span with fill-in margins,
// start - m ... start + length - 1 + m, begins in the block's first post samples and ends within
// 2 x post of its start. That leaves at least 320 samples of context on either side of every span
// inside the buffer (the low-pass behind the slopes is 641 taps long). The oldest 320 samples of
// the buffer, which no later repair can touch, leave through the output ring. A range whose span
// is longer than a block can hold (over 640 samples with margins) is passed over and stays not
// done. The output is the input delayed by GetLatency() frames, whatever the block sizes.
//
// Host: fill repairClips through GetParam() (sorted by start), SetSelection(start, length) with the
// absolute position of the first frame it will feed (including pre-roll), Start, Process, Done.
class KESTADSP_API RepairClipping : public DSPProcess {
public:
    RepairClipping(const NOCLIPPING* record, long pre, long post);
    explicit RepairClipping(const NOCLIPPING* record) : RepairClipping(record, 320, 320) {}
    RepairClipping(const RepairClipping&) = default;
    RepairClipping& operator=(const RepairClipping&) = default;
    ~RepairClipping() override;

    static void GetPrePostRoll(long long& pre, long long& post);

    NOCLIPPING* GetParam() { return &mParam; }
    bool SetSelection(long long start, long long length) override;
    void Start() override;
    // numChannels must be at least the record's channels (at most 32 are used).
    void Process(float** in, float** out, int numChannels, int numFrames) override;
    void Done() override;
    // 2 x (pre + post), plus the limiter's latency when useLimiter is set.
    int GetLatency() const override;
    // Re-reads gainDb and useLimiter.
    void ParameterChanged() override { UpdateParameter(); }

    float GetLinearGain() const { return mGain; }

protected:
    // Repairs the ranges of the current block in the work buffers; returns the furthest work-buffer
    // index written (at least `length`).
    virtual long Repair(long length);
    virtual void DoInterpolation(float** buffers, long channel, long first, long last, long length);

private:
    void UpdateParameter();
    void DoPolyNomialInterpolation(float** buffers, long channel, long first, long last, long length);
    void DoFFTInterpolation(float** buffers, long channel, long first, long last, long length);
    // Slopes (per sample) of the low-passed channel at the last sample before the run and at the
    // first after it, measured on the block with the runs redrawn so far.
    void FindFIRLowPassedSlopes(int channel, long first, long last, double* left, double* right);
    // The low-passed context's difference `kernel` (mSlopeKernel) at index.
    double LowPassedAt(int channel, long index, const std::vector<double>& kernel);
    void HoldClippedSide(int channel, long first, long last);
    bool FillInFits(long first, long last) const;
    void Hop();

    NOCLIPPING mParam;
    int32_t mPre = 320;
    int32_t mPost = 320;
    int32_t mBufferLength = 1280;  // 2 x (pre + post)
    int32_t mChannels = 0;
    RingBuffer mInput;
    RingBuffer mOutput;
    AudioBuffer mWork;  // per channel mBufferLength samples
    // The work buffer with every run in it drawn (shifted with it): redraws and fill-ins work here.
    AudioBuffer mContext;
    IppFFT mFFT;
    std::vector<double> mLowPass;  // 641 taps
    std::vector<double> mSlopeKernel;
    std::vector<double> mSpectral;  // scratch of the spectral method
    CFillIn mFillIn;
    int32_t mMargin = 0;
    float mGain = 1.0f;
    HardLimit mLimiter;
    std::vector<std::size_t> mCursor;
    std::vector<std::size_t> mDrawn;  // per channel: ranges before this one are drawn in mContext
    long long mSelectionStart = 0;
    long long mBlockStart = 0;
    std::valarray<bool> mMask;     // which samples of a span the second fill-in pass re-synthesises
    std::vector<double> mBasis;    // the polynomial redraw's basis functions over a run
    std::vector<float> mDrawnRun;  // a run as a pass of the redraw draws it
};

}  // namespace noclip

}  // namespace dsp
