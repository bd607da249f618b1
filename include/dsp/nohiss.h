#pragma once
// Hiss reduction: a per-bin downward expander with a soft knee.
//
// Broadband hiss sits at a steady level in every bin; music rises above it. The process keeps a
// temporally and spectrally smoothed magnitude S of every bin and compares it with a per-bin
// threshold T (thresholdRows): at or above T the bin passes, below lo = r*T it is attenuated to the
// gain floor G, and in between the gain rises linearly in S from G to 1 (the soft knee).
//
//   G = 10^(-reductionDb/40)      divisor 40, not 20: 24 dB of "reduction" is a floor of -12 dB.
//                                 Keep it: reductionDb values in use are scaled for it.
//   r = 10^(-kneeDb/20)           the knee spans kneeDb below T.
//
// Magnitudes (S, T, the captured floor) are |X[k]| / (N/4) of the windowed N-point transform, so a
// sine of amplitude A centred on a bin reads about 1.08 A under the Hamming window used here.
//
// The pair:
//   CaptureNoiseFloor  (an analyzer) walks a hiss-only selection and records, per bin, the largest
//                      smoothed magnitude it saw (floorRows) and the mean broadband level of the
//                      12-20 kHz band (floorLevel, dB).
//   NoHissProcess      (an OverlapSave) applies thresholdRows.
// Thresholds are never derived by the classes: the caller fills thresholdRows, usually with
// ComputeThresholdsFromFloor from the captured floor. Bins 0, 1 and 2 (DC and the lowest
// frequencies, where a floor estimate is meaningless) are never recorded and never changed.
//
// Typical use (C channels; every buffer passed holds C channels of the frames asked for):
//     NOHISS hiss;  SetDefaultParameter(&hiss);  hiss.channels = C;  AllocateArrays(&hiss);
//     CaptureNoiseFloor capture(&hiss);  capture.SetSelection(0, hissFrames);  capture.Start(nullptr);
//     for (pos = 0; !capture.IsCompleted();) pos += capture.Analyze(at(pos), C, capture.GetDesiredBlockSize());
//     capture.Done();  CopyParameter(capture.GetParam(), &hiss);  ComputeThresholdsFromFloor(&hiss);
//     NoHissProcess reducer(&hiss);  reducer.Resume();
//     reducer.Process(in, out, C, frames) ...   // in, out: C pointers to `frames` floats each
//     FreeArrays(&hiss);
// A channel an analyzer or processor was set up for but not given is read as silence (and not
// written); debug builds assert on it.
//
// Threads: each object is used by one thread at a time; distinct objects share nothing.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "dsp/dsp_analyzer.h"
#include "dsp/fft.h"
#include "dsp/kestadsp_export.h"
#include "dsp/overlap_save.h"

namespace dsp::nohiss {

// The parameter record shared by the capture, the process and the host. Arrays are owned by
// whoever holds the record and are released with FreeArrays; each array kind is one heap block, so
// releasing does not depend on `channels` still matching what was allocated.
struct NOHISS {
    float tuningA = 0.0f;             // carried by copies; not read by this family
    int32_t fftSize = 0;              // N, a power of two
    int32_t tuningB = 0;              // carried; not read
    int16_t overlap = 0;              // processing hop = N / overlap (at least 2)
    int32_t sampleRate = 0;           // Hz; fixes the capture's 12-20 kHz level band
    int32_t channels = 0;             // C
    int16_t frameCount = 0;           // snapshots taken by the capture (wraps as an int16)
    float kneeDb = 0.0f;              // width of the soft knee below the threshold, dB
    int32_t outputMode = 0;           // 2: the process outputs what it removes
    float reductionDb = 0.0f;         // gain floor 10^(-reductionDb/40)
    float smoothingPercent = 0;       // temporal decay of the smoothed magnitude, percent
    int32_t tuningC = 0;              // carried; not read
    float* floorLevel = nullptr;      // [C] mean 12-20 kHz level of the capture, dB (-400: silence)
    double** floorRows = nullptr;     // [C][N] largest smoothed magnitude per bin (bins 3..N/2)
    float** thresholdRows = nullptr;  // [C][N] threshold T per bin (bins 3..N/2 are read)
};

// Writes the defaults of every scalar field: tuningA 8, fftSize 4096, tuningB 32, overlap 5,
// sampleRate 44100, channels 2, frameCount 0, kneeDb 7, outputMode 1, reductionDb 24,
// smoothingPercent 65, tuningC 14. The array pointers are not touched.
KESTADSP_API void SetDefaultParameter(NOHISS* record);
// The shapes the record functions give arrays to: 1 ... kMaxChannels channels (the frame engine's
// limit) and an fftSize of 1 ... kMaxFftSize. A record of any other shape (a negative or zero
// count, or one beyond these) has no arrays: nothing is allocated for it and only its scalar
// fields are copied.
inline constexpr int kMaxChannels = 32;
inline constexpr int kMaxFftSize = 65536;

// The host's part of the functions below, which the library cannot check in general (debug builds
// assert it for arrays the library allocated): a record's arrays are at least as large as its
// channels and fftSize declare.

// Gives the record zeroed floorLevel, floorRows and thresholdRows for its `channels` and
// `fftSize` (nothing, all pointers null, for a shape outside the limits). The record must not hold
// arrays: what it held is not freed (call FreeArrays first).
KESTADSP_API void AllocateArrays(NOHISS* record);
// Releases the arrays and nulls the pointers; a record without arrays is left as it is.
KESTADSP_API void FreeArrays(NOHISS* record);
// Copies every scalar field and the contents of the arrays. dst must hold arrays of its own or
// none (never pointers shared with another record); they are replaced by fresh ones only when
// dst's fftSize or channels differ from src's or it has none. A src without arrays leaves dst's
// arrays zeroed.
KESTADSP_API void CopyParameter(const NOHISS* src, NOHISS* dst);

// ---- Thresholds for the dehiss tool -------------------------------------------------------------
//
// The rule: for every channel and bin k = 3 ... N/2,
//
//     T[k] = 10^(sensitivityDb/20) * max{ floorRows[j] : |j - k| <= spreadBins, 3 <= j <= N/2 }
//
// computed in double and stored as float; bins 0, 1, 2 and N/2+1 ... N-1 are set to 0 (T = 0
// passes a bin unchanged). The captured floor is already the peak of the smoothed hiss magnitude
// over the selection; the moving maximum over neighbouring bins fills the dips a short capture
// leaves (a bin whose floor happened to read low would otherwise let its hiss through).
//
// Why +6 dB and +-2 bins: the floor gain G (-12 dB at the default reductionDb) is reached only below
// lo = T - kneeDb (7 dB), and smoothed hiss fluctuates a few dB about its mean, so T must sit well
// above the floor for most hiss to land below lo. Measured on white hiss with tones, at the record
// defaults: +6 dB removes 11.5 dB of the 12 available after a 1 s capture and 10.6 dB after a
// 0.3 s one, while a tone 19 dB above the per-bin hiss loses under 0.5 dB. +8 or +9 dB gains at
// most another dB of reduction but takes 1.3 to 2.7 dB off such a tone; +3 dB removes only 6 to
// 9 dB. The +-2 bin maximum adds 1 to 2 dB of reduction after short captures (8.6 -> 10.6 dB at
// 0.3 s) and costs loud tones nothing; wider spreads add little. Lower the sensitivity for
// material whose detail lies close to the hiss, raise it for more reduction.
inline constexpr float kDefaultSensitivityDb = 6.0f;
inline constexpr int kDefaultThresholdSpreadBins = 2;

// Fills record->thresholdRows from record->floorRows by the rule above (no-op without arrays).
KESTADSP_API void ComputeThresholdsFromFloor(NOHISS* record, float sensitivityDb = kDefaultSensitivityDb,
                                             int spreadBins = kDefaultThresholdSpreadBins);

// ---- Capture --------------------------------------------------------------------------------------

// CaptureNoiseFloor measures the hiss floor of a selection into its own copy of the record.
//
// Every call of Analyze takes N frames (GetDesiredBlockSize), windows them (Hamming), transforms
// two channels through one double-precision complex FFT and, per channel:
//  - adds the mean broadband level of bins trunc(N*12000/rate) ... trunc(N*20000/rate) (each at
//    most N/2; unscaled magnitudes, in dB; -400 for silence) to a per-channel sum;
//  - smooths m = |X[k]|/(N/4) for k = 3 ... N/2 across neighbouring bins and in time (decay
//    smoothingPercent/100 on the way down, 0.92 of the new value on the way up) and keeps the
//    largest smoothed value of every bin in floorRows.
// Consecutive blocks start ((overlap-1)*N/overlap)/2 frames apart (1638 for the defaults); Analyze
// returns that hop, or, for the block that carries the position past the selection end, the
// position minus the selection end. A block of fewer than N frames is read as its frames followed
// by zeros: at the end of the selection hand over only the frames inside it, or the last
// snapshots measure whatever follows the hiss (a full block there reaches up to N - 1 frames past
// the end). Done sets floorLevel = level sum / blocks.
//
// Start zeroes floorRows and the smoothing state only below bin N/2 (bin N/2 keeps what it held),
// and leaves the level sums and the first-snapshot state alone: a second capture with the same
// object continues from them. Construct a new capture for an independent measurement.
//
// Latency 0. Analyze allocates nothing. One thread at a time.
class KESTADSP_API CaptureNoiseFloor : public DSPAnalyzer {
public:
    explicit CaptureNoiseFloor(const NOHISS* record);
    CaptureNoiseFloor(const CaptureNoiseFloor& other);
    CaptureNoiseFloor& operator=(const CaptureNoiseFloor& other);
    ~CaptureNoiseFloor() override;

    // The held record: floorRows, floorLevel and frameCount carry the result after Done.
    const NOHISS* GetParam() const { return &mParam; }

    bool SetSelection(long long start, long long length) override;
    int32_t GetDesiredBlockSize() const override;
    void Start(float* hostPointer) override;
    // data: the record's `channels` channels (numChannels must not be fewer), numFrames <= N used.
    long long Analyze(float** data, int numChannels, int numFrames) override;
    bool IsCompleted() const override;
    // (position - start) * 100 / length; it can exceed 100 after the final block overshoots.
    float GetProgress() const override;
    void Done() override;

    // Capture geometry: the snapshot hop and the level band (inclusive bins).
    int32_t GetHop() const { return mHop; }
    int32_t GetLowBin() const { return mLowBin; }
    int32_t GetHighBin() const { return mHighBin; }

private:
    // Windowed transform of the pair of channels that starts at channel `channelPair`, split into
    // mSplitRe/mSplitIm rows 0 and 1.
    void IdentifySystem(int channelPair, float** data, int numChannels, int numFrames);

    NOHISS mParam{};
    int32_t mN = 0;
    int32_t mChannelsEven = 0;
    int32_t mLowBin = 0;
    int32_t mHighBin = 0;
    int32_t mHop = 0;
    double mDecay = 0.0;
    double mOneMinusDecay = 0.0;
    bool mFirstFrame = true;
    long long mStart = 0;
    long long mLength = 0;
    long long mPosition = 0;
    int32_t mBlockCount = 0;
    IppFFT mFFT;
    std::vector<double> mWindow;       // N
    std::vector<double> mTransformRe;  // N
    std::vector<double> mTransformIm;  // N
    std::vector<double> mSplitRe;      // 2 x N: the two channels of a pair
    std::vector<double> mSplitIm;      // 2 x N
    std::vector<double> mSmoothing;    // C x (N + 8); S[k] of channel c is at c * (N + 8) + 4 + k
    std::vector<float> mLevelSum;      // C
};

// ---- Process --------------------------------------------------------------------------------------

// NoHissProcess applies the per-bin thresholds of its record to a stream.
//
// It is an OverlapSave of frame N = fftSize with the Hamming window, crossfade L = N/overlap (a
// hop of 2L) and output offset P = ((overlap-1)*N/overlap)/2: N 4096, P 1638, L 819 for the
// defaults, so a new frame every 1638 input frames. Every frame's spectrum is processed in single
// precision: m = |X[k]|/(N/4); S[k] smoothed as in the capture (the first frame after Resume
// stores m); gain 1 at S >= T, G below r*T, linear in S in between; re and im scaled by it. Bins
// 0, 1, 2 are never changed. outputMode 2 outputs the input minus the processed signal (what was
// removed); any other value outputs the processed signal.
//
// Latency: N frames (output frame k + N is input frame k). A record with all thresholds 0 makes
// the process a pure delay.
//
// Protocol: construct, Resume before the first Process of every stream, Process blocks of any
// length (the output does not depend on the block sizes). After editing GetParam() (any field
// except the geometry: fftSize, overlap, channels), call ParameterChanged. Process allocates
// nothing. One thread at a time.
class KESTADSP_API NoHissProcess : public OverlapSave {
public:
    // Built from the default record (all thresholds 0).
    NoHissProcess();
    explicit NoHissProcess(const NOHISS* record);
    NoHissProcess(const NoHissProcess& other);
    NoHissProcess& operator=(const NoHissProcess& other);
    ~NoHissProcess() override;

    NOHISS* GetParam() { return &mParam; }

    // Rebuilds the engine for one channel (same geometry from `record`) and takes channel
    // `channel` of the record; a channel the record does not have gets zero rows (pass-through).
    void InitAsSingleChannel(const NOHISS* record, int channel);
    // Takes channel `channel` of `record` without rebuilding the engine (the stream continues).
    // When the stream cannot continue (a record of another fftSize or overlap, or an engine that
    // is not single-channel) the engine is rebuilt for one channel and needs Resume.
    void SetParamFromMultiChannelParam(NOHISS* record, int channel);

    void Resume() override;
    void Suspend() override;
    void ParameterChanged() override;

    // The single-precision constants in use (after construction, Resume or ParameterChanged).
    float GetFloorGain() const { return mFloorGain; }
    float GetKneeRatio() const { return mKneeRatio; }

protected:
    void OnSpectrum(float** re, float** im, int numChannels, int numBins) override;
    // outputMode 2: the incoming frame minus the processed one, i.e. what the gains removed.
    bool ResidualOutput() const override { return mParam.outputMode == 2; }

private:
    void AllocateArrays();
    void UpdateParameter();
    void TakeChannel(const NOHISS* record, int channel);
    void InitEngine(int numChannels);

    NOHISS mParam{};
    // Per channel N + 8 floats; S[k] of channel c is at mSmoothing[c] + 4 + k, so the spectral
    // smoothing may reach two bins past either end without a bounds test.
    std::vector<float*> mSmoothing;
    float* mMagnitude[2] = {nullptr, nullptr};  // N/2 + 1 each: scratch for a channel pair
    float* mStorage = nullptr;
    std::size_t mStorageFloats = 0;
    bool mSeedSmoothing = true;  // the next frame stores m: set by Resume, cleared by OnSpectrum
    float mDecay = 0.0f;
    float mOneMinusDecay = 0.0f;
    float mFloorGain = 0.0f;
    float mOneMinusFloorGain = 0.0f;
    float mKneeRatio = 0.0f;
};

}  // namespace dsp::nohiss
