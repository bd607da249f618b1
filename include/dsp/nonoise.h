#pragma once
// Noise-print noise reduction (namespace dsp::nonoise).
//
// The idea: broadband noise that does not change over time (hum, hiss, fan, tape noise) has a
// stable magnitude distribution in every FFT bin. CaptureNoisePrint measures that distribution on
// a stretch of audio that holds only noise (per channel and bin: the smallest, largest and RMS
// magnitude seen over a series of windowed snapshots) and stores it in a NONOISE record, the
// "noise print". NoNoiseProcess then streams any audio through overlap-save FFT frames and, per
// bin, subtracts a magnitude derived from the print: a bin that stays under the print's threshold
// is attenuated by the full reduction (reductionDb), a bin well above it keeps its excess over the
// threshold, with a soft knee in between. A temporally and spectrally smoothed magnitude decides
// which case applies, so isolated noise peaks do not open the gate ("musical noise").
//
// Units: every magnitude in the record is |X[k]| of the windowed snapshot scaled by 4/N
// (N = fftSize): a sine of amplitude a centred on bin k reads about 0.717·a there (the window sums to
// about 0.35875·N, the sine's peak is a/2 times that); white noise of RMS σ gives bins of RMS magnitude
// 4/N·σ·√(Σw²) ≈ 2.03·σ/√N (Σw² ≈ 0.258·N). Decibels are 20·log10.
//
// Typical use (C channels; every buffer passed holds C channels of the frames asked for):
//     NONOISE print;  SetDefaultParameter(&print);  print.channels = C;  AllocateArrays(&print);
//     CaptureNoisePrint capture(&print);
//     capture.SetSelection(0, noiseFrames);  capture.Start(nullptr);
//     for (pos = 0; !capture.IsCompleted();) pos += capture.Analyze(at(pos), C, capture.GetDesiredBlockSize());
//     capture.Done();
//     NoNoiseProcess reducer(capture.GetParam());  reducer.Resume();
//     reducer.Process(in, out, C, frames) ...   // in, out: C pointers to `frames` floats each;
//                                               // output lags input by GetLatency() = N
//     FreeArrays(&print);
//
// Threads: none are started. One object is used by one thread at a time; distinct objects share
// nothing.

#include <cstdint>

#include "dsp/dsp_analyzer.h"
#include "dsp/fft.h"
#include "dsp/kestadsp_export.h"
#include "dsp/overlap_save.h"

namespace dsp::nonoise {

// The noise print and the settings of the reduction. A plain record: copying it with `=` shares
// the arrays; use CopyNoNoise / CloneNoNoise for a deep copy. The arrays are owned by whoever
// called AllocateArrays (or the Copy/Clone that allocated them) and released with FreeArrays.
// Only bins 0 ... N/2 of binMin, binMax and binRms carry data.
struct KESTADSP_API NONOISE {
    double thresholdOffset = 1.0;           // added to every thresholdCurve entry: the gain rule's position s
    int16_t auxIndex = -1;                  // carried by copies
    unsigned char reservedBlock[256] = {};  // never interpreted and never copied
    int16_t fftSize = 4096;                 // N, FFT length of capture and of processing (a power of two)
    int32_t maxSnapshots = 4000;            // most snapshots a capture takes (at least 8 are allowed)
    int16_t overlap = 7;                    // processing block = N / overlap (3 or more)
    int32_t optionInt = 0;                  // carried by copies
    int16_t channels = 2;
    double* dcMin = nullptr;          // [channels] smallest DC magnitude seen
    double* dcMax = nullptr;          // [channels] largest DC magnitude seen
    double** binMin = nullptr;        // [channels][N] smallest magnitude seen per bin
    double** binMax = nullptr;        // [channels][N] largest magnitude seen per bin
    double** binRms = nullptr;        // [channels][N] power sum while capturing, RMS magnitude after Done
    int16_t frameCount = 0;           // snapshots accumulated
    double transitionDb = 0.0;        // width of the soft knee, dB
    double precisionExponent = 1.0;   // exponent on a bin's RMS/max ratio in the knee; 0 switches it off
    int16_t outputMode = 1;           // 2: output what is removed; anything else: the cleaned signal
    bool optionFlagA = false;         // carried by copies
    bool optionFlagB = true;          // carried by copies
    bool optionFlagC = true;          // carried by copies
    double reductionDb = 40.0;        // largest reduction, dB; 0 turns the processing off
    double smoothingPercent = 65.0;   // decay of the smoothed magnitude per frame, percent
    bool printFlag = false;           // cleared whenever the arrays are freed
    float* thresholdCurve = nullptr;  // [N] per-bin offset of s; entries 1 ... N/2 - 1 are used
};

// Writes the defaults of thresholdOffset, auxIndex, fftSize, maxSnapshots, overlap, channels,
// precisionExponent, outputMode, optionFlagB, optionFlagC, reductionDb and smoothingPercent, and
// nothing else: the arrays, transitionDb, optionInt, optionFlagA, frameCount and printFlag keep
// what they held.
KESTADSP_API void SetDefaultParameter(NONOISE* p);
// The shapes the record functions give arrays to: 1 ... kMaxChannels channels (the frame engine's
// limit) and an fftSize of 1 ... kMaxFftSize (the largest power of two an int16 holds). A record
// of any other shape (a negative or zero count, or one beyond these) has no arrays: the functions
// below allocate nothing for it, copy only its scalar fields, and release nothing.
inline constexpr int kMaxChannels = 32;
inline constexpr int kMaxFftSize = 16384;

// The host's part of every function below, which the library cannot check in general (debug
// builds assert it for arrays the library allocated): a record's arrays are at least as large as
// its channels and fftSize declare, and arrays AllocateArrays (or a copy) made are released with
// FreeArrays, with the shape they were made for.

// Zeroed arrays for `channels` channels and fftSize bins (overwrites the pointers; free first).
// For a shape outside the limits above every array pointer becomes null and nothing is allocated.
KESTADSP_API void AllocateArrays(NONOISE* p);
// Releases the arrays and clears printFlag. A record with channels == 0, or with a count outside
// 1 ... kMaxChannels, is left entirely alone (whatever it points to is not released).
KESTADSP_API void FreeArrays(NONOISE* p);
// Copies every field but reservedBlock, and the contents of all arrays. With `allocate`, dst first
// gets fresh arrays of src's shape (whatever dst held is not released); without, dst's arrays must
// already have that shape. A src of a shape outside the limits gives dst its scalars and no arrays.
KESTADSP_API void CopyNoNoise(const NONOISE* src, NONOISE* dst, bool allocate);
// A new record (delete it after FreeArrays) holding a deep copy of src. A clone of a record without
// channels holds no arrays, so FreeArrays and delete leave nothing behind.
KESTADSP_API NONOISE* CloneNoNoise(const NONOISE* src);
// Makes dst a one-channel record holding channel `channel` of src. dst's arrays are replaced when
// its fftSize differs from src's or when `allocate` is set (else they must hold one channel of
// src's fftSize); the bin rows are copied only when `channel` exists in src (else they stay zero).
// dcMin/dcMax always take src's channel-0 values: stored single-channel prints carry them that way.
KESTADSP_API void CopyMultiChannelNoNoiseToSingleChannelNoNoise(const NONOISE* src, NONOISE* dst, int channel,
                                                                bool allocate);

// Takes a noise print from a selection that holds only noise.
//
// The selection (length frames) is read as S windowed snapshots of N = fftSize frames,
// S = (length − N − 1) / (N/3) clamped to [1, max(maxSnapshots, 8)], spaced hop = (length − N) / S
// frames apart. The host calls Analyze with GetDesiredBlockSize() frames starting at the selection
// start, then each next block the returned number of frames (the hop) further on, until
// IsCompleted(); then Done() finishes the RMS values and GetParam() holds the print.
// Start does not reset frameCount: a second capture on the same object divides the new power sums
// by the snapshots of both.
class KESTADSP_API CaptureNoisePrint : public DSPAnalyzer {
public:
    // Takes a deep copy of the record: its channels, fftSize and maxSnapshots shape the capture.
    explicit CaptureNoisePrint(const NONOISE* param);
    CaptureNoisePrint(const CaptureNoisePrint& other);
    CaptureNoisePrint& operator=(const CaptureNoisePrint& other);
    ~CaptureNoisePrint() override;

    // The record the capture writes into (complete after Done).
    const NONOISE* GetParam() const { return &mParam; }

    // False when the selection is too short to give snapshots at least 3 frames apart
    // (length < N + 3 for the usual sizes); the capture must not be run then.
    bool SetSelection(long long start, long long length) override;
    // max(N, hop).
    int32_t GetDesiredBlockSize() const override;
    void Start(float* hostPointer) override;
    // Takes one snapshot from the first N frames of every channel and returns the hop. Pass the
    // record's channel count (or more) of blocks of GetDesiredBlockSize() frames; frames past a
    // shorter block and channels beyond numChannels are read as silence.
    long long Analyze(float** data, int numChannels, int numFrames) override;
    bool IsCompleted() const override;
    // Snapshots taken × 100 / snapshots planned.
    float GetProgress() const override;
    void Done() override;

private:
    void addtolevels(int c, float** data, int numChannels);
    void WindowInto(double* dst, const float* src, int n) const;  // null src: silence
    void scaleResult(double* row);
    void Allocate();
    void Release();

    NONOISE mParam{};
    int32_t mChannelsEven = 0;  // channels rounded up to a pair
    long long mSelectionStart = 0;
    long long mSelectionLength = 0;
    int32_t mHop = 0;
    int32_t mBlocksDone = 0;
    int32_t mSnapshots = 0;
    int32_t mAvailable = 0;  // frames of the current Analyze block (the rest of a snapshot reads as 0)
    IppFFT mFFT;
    double* mWindow = nullptr;  // N
    // mChannelsEven rows of N each: the split spectra and the transform's input/output.
    double** mSplitRe = nullptr;
    double** mSplitIm = nullptr;
    double** mInputRe = nullptr;
    double** mInputIm = nullptr;
    double* mStorage = nullptr;  // every array above
};

struct NOISEREDUCER;

// Spectral noise reduction from a noise print.
//
// Per frame and bin the print gives a threshold T between binMin (s = 0) and binMax (s = 1) on a
// parabola through binRms, s = thresholdOffset + thresholdCurve[k], and a knee [lo, hi] around T
// set by transitionDb and precisionExponent. The bin's magnitude m, smoothed over frames (decay
// smoothingPercent) and neighbouring bins, chooses the amount t to subtract: all of m below lo
// (the bin then falls by reductionDb), hi above hi, blended in between; the subtracted fraction is
// capped by a ceiling that is close to 1 − 10^(−reductionDb/20) for bins whose print varies
// widely and rises above 1 where binMax/binMin < 5 (deliberately unclamped: such bins are muted
// below the knee and can change sign inside it).
//
// Geometry: OverlapSave with N = fftSize, crossfade L = N/overlap, offset P = ((overlap−1)·N/overlap)/2,
// the Blackman-Harris window of the print (with its index shift) and its reciprocal for synthesis.
// Latency: N frames (GetLatency()); the first N output frames are the primed silence.
// outputMode 2 outputs what is removed (input − cleaned) instead of the cleaned signal.
// reductionDb 0 bypasses the processing: frames go through the transform pair untouched, so the
// output is the input delayed by N up to float rounding.
//
// Protocol: construct from a print (or default-construct and InitAsSingleChannel), Resume before
// every stream, Process blocks of any size; after editing the record returned by GetParam() call
// ParameterChanged. Process allocates nothing. Channels beyond the print's channel count, or a
// print whose fftSize differs from the engine's, pass unprocessed.
class KESTADSP_API NoNoiseProcess : public OverlapSave {
public:
    // An empty processor: InitAsSingleChannel before use.
    NoNoiseProcess();
    explicit NoNoiseProcess(const NONOISE* param);
    NoNoiseProcess(const NoNoiseProcess& other);
    NoNoiseProcess& operator=(const NoNoiseProcess& other);
    ~NoNoiseProcess() override;

    // The held record; edit it, then call ParameterChanged.
    NONOISE* GetParam() { return &mParam; }
    const NONOISE* GetParam() const { return &mParam; }

    // Rebuilds the engine for one channel and takes channel `channel` of a multichannel print
    // (as CopyMultiChannelNoNoiseToSingleChannelNoNoise). Resume before processing.
    void InitAsSingleChannel(const NONOISE* param, int channel);
    // Takes channel `channel` of a multichannel print without touching the engine.
    void SetParamFromMultiChannelParam(NONOISE* param, int channel);

    // Releases the working state; Process then passes frames through unprocessed until Resume.
    void Suspend() override;
    // Builds the working state from the record and starts a new stream.
    void Resume() override;
    // Re-reads the record (print, curve, knee, smoothing, reduction).
    void ParameterChanged() override;

private:
    void ComputeWindow() override;
    void OnSpectrum(float** re, float** im, int channels, int bins) override;
    // The residual (input minus cleaned) only when something is removed: with the reduction off,
    // outputMode 2 still gives the plain signal.
    bool ResidualOutput() const override { return mParam.outputMode == 2 && mParam.reductionDb != 0.0; }

    NOISEREDUCER* CreateNoiseReducer();
    void DestroyNoiseReducer(NOISEREDUCER* reducer);
    void UpdateParameter();

    NONOISE mParam{};
    NOISEREDUCER* mReducer = nullptr;
    double mCeiling = 0.0;  // R = 1 − 10^(−D/20)
};

}  // namespace dsp::nonoise
