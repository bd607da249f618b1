#pragma once
// Noise reduction by non-negative matrix factorisation (namespace dsp::dnz).
//
// The idea: a magnitude spectrogram V (bins × frames) of noisy audio is close to a sum of a few
// spectral shapes ("atoms") switched on and off over time, V ≈ W H with W, H ≥ 0. Noise that keeps
// its character (hiss, hum, a fan, a tape) is described by a handful of atoms, so:
//   DNZNoisePrint  (an analyzer) learns a noise dictionary Wn from a noise-only selection: the
//                  windowed magnitude spectra of the selection factorised by multiplicative
//                  updates on the generalised Kullback-Leibler divergence, each atom scaled to
//                  sum to 1 over the bins.
//   DNZProcess     (an OverlapSave) factorises every frame of the audio as Wn hn + Ws hs with the
//                  noise atoms fixed and a signal dictionary Ws learned on line: the activations
//                  start from the previous frame's (so a few updates converge), and after each
//                  frame the signal atoms take one majorise-minimise step whose statistics decay
//                  over the last `signalMemory` frames (a sliding, exponentially weighted block of
//                  the spectrogram). The noise part is held under the loudest noise the print
//                  saw (noiseCeiling × noiseHeadroom), so a loud voice is not taken for louder
//                  noise. The two reconstructions N = Wn hn and S = Ws hs give each bin a soft
//                  gain: a Wiener gain whose noise power comes from N (decision-directed a-priori
//                  SNR), weighed against the floor Gmin = 10^(−reductionDb/20) by the share
//                  S²/(S² + N²) of the bin the signal explains, smoothed over frames. Bins the
//                  signal atoms do not explain fall to the floor, so stray noise peaks do not
//                  turn into "musical noise". Frames the signal atoms explain almost nothing of
//                  (pauses) fall a further 30 dB, whole; and the noise part is held near the
//                  level of the noise in those frames, so a loud note does not push it under the
//                  noise that is still there. In each bin the noise part is also held to the
//                  noise's own shape (its atoms mixed as in those frames, at the frame's noise
//                  level), so the atoms cannot re-mix to take a note on one of the noise's
//                  resonances for louder noise. A stream's first frame starts from the noise
//                  atoms, so a stream that opens on noise is reduced from its first frame.
// Noise fits the noise atoms better than anything the signal atoms can learn from it, so it
// lands in N; what the noise atoms cannot explain (voices, notes) lands in S. Few noise atoms (4)
// work best: a larger noise dictionary starts to explain voices too.
//
// Units: magnitudes are |X[k]| of the Hann-windowed N-point transform, unscaled; atoms are
// shapes (each sums to 1), so a print does not depend on the level of the noise it came from.
//
// Geometry of the process: OverlapSave with a Hann window, N = fftSize, a hop of N/4 (crossfade
// L = N/8 at offset P = N/2). Latency: N frames. FrameLengthFor gives the size for a sample rate
// (2048 at 44.1 and 48 kHz: hum lines 50 Hz apart fall in separate bins).
//
// Typical use (C channels; every buffer passed holds C channels of the frames asked for):
//     DNZ print;  SetDefaultParameter(&print);  print.channels = C;  AllocateArrays(&print);
//     DNZNoisePrint capture(&print);
//     capture.SetSelection(0, noiseFrames);  capture.Start(nullptr);
//     for (pos = 0; !capture.IsCompleted();) pos += capture.Analyze(at(pos), C, capture.GetDesiredBlockSize());
//     capture.Done();
//     DNZProcess reducer(capture.GetParam());  reducer.Resume();
//     reducer.Process(in, out, C, frames) ...   // output lags input by GetLatency() = N
//     FreeArrays(&print);
//
// Threads: none are started. One object is used by one thread at a time; distinct objects share
// nothing.

#include <cstdint>
#include <vector>

#include "dsp/dsp_analyzer.h"
#include "dsp/fft.h"
#include "dsp/kestadsp_export.h"
#include "dsp/overlap_save.h"

namespace dsp::dnz {

struct NmfKernels;

// The noise dictionary and the settings of the reduction. A plain record: copying it with `=`
// shares the array; use CopyDNZ / CloneDNZ for a deep copy. The array is owned by whoever called
// AllocateArrays (or the copy that allocated it) and released with FreeArrays.
struct KESTADSP_API DNZ {
    int16_t fftSize = 2048;          // N, FFT length of the print and of the processing (a power of two)
    int16_t channels = 2;            // C
    int16_t noiseAtoms = 4;          // Kn, atoms of the noise dictionary
    int16_t signalAtoms = 32;        // Ks, atoms the process learns for the signal
    int32_t maxFrames = 400;         // most spectra a print is learned from
    int16_t learnIterations = 100;   // updates of the print's factorisation
    int16_t iterations = 10;         // activation updates per frame in the process
    int16_t frameCount = 0;          // spectra the print was learned from
    int16_t outputMode = 1;          // 2: output what is removed; anything else: the cleaned signal
    double reductionDb = 30.0;       // largest reduction, dB; 0 turns the processing off
    double smoothingPercent = 40.0;  // share of the last frame in the smoothed signal share, percent
    double signalMemory = 60.0;      // frames over which the signal atoms' statistics decay (time constant)
    double noiseHeadroom = 1.0;      // how far the noise may rise over the print's loudest spectrum (ratio)
    // [channels][noiseAtoms × (fftSize/2 + 1)]: atom a of channel c is noiseDictionary[c][a·B ... a·B + B − 1]
    // with B = fftSize/2 + 1 bins; each atom sums to 1.
    float** noiseDictionary = nullptr;
    // [channels]: the largest sum of magnitudes over the bins of any spectrum of the print; the
    // noise part of a frame is held to this level (times noiseHeadroom), so a loud voice cannot be
    // taken for louder noise.
    float* noiseCeiling = nullptr;
};

// The shapes the record functions give arrays to.
inline constexpr int kMaxChannels = 32;
inline constexpr int kMinFftSize = 256;
inline constexpr int kMaxFftSize = 16384;
inline constexpr int kMaxAtoms = 64;

// Writes the defaults of every scalar field (those of the table above); the array pointer is not touched.
KESTADSP_API void SetDefaultParameter(DNZ* p);
// Whether the record has a shape the family works with: 1 ... kMaxChannels channels, fftSize a
// power of two from kMinFftSize to kMaxFftSize, 1 ... kMaxAtoms atoms of each kind.
KESTADSP_API bool IsValidShape(const DNZ* p);
// Zeroed arrays for the record's shape (overwrites the pointer; free first). A record of an
// invalid shape gets a null pointer.
KESTADSP_API void AllocateArrays(DNZ* p);
// Releases the arrays (the shape must be the one they were allocated for) and nulls the pointer.
KESTADSP_API void FreeArrays(DNZ* p);
// Copies every field and the dictionary. With `allocate`, dst first gets fresh arrays of src's
// shape (whatever dst held is not released); without, dst's arrays must already have that shape.
KESTADSP_API void CopyDNZ(const DNZ* src, DNZ* dst, bool allocate);
// A new record (delete it after FreeArrays) holding a deep copy of src.
KESTADSP_API DNZ* CloneDNZ(const DNZ* src);

// A record that owns its arrays: construction copies deeply, and so do copies of it.
class KESTADSP_API OwnedDNZ {
public:
    OwnedDNZ() = default;
    explicit OwnedDNZ(const DNZ* src) { CopyDNZ(src, &record, true); }
    OwnedDNZ(const OwnedDNZ& other) : OwnedDNZ(&other.record) {}
    OwnedDNZ& operator=(const OwnedDNZ& other);
    ~OwnedDNZ() { FreeArrays(&record); }
    DNZ record{};
};

// The FFT size for a sample rate: the power of two nearest 46 ms, from 512 to 8192.
KESTADSP_API int FrameLengthFor(int sampleRate);

// Learns a noise dictionary from a selection that holds only noise.
//
// The selection (length frames) is read as S windowed spectra of N = fftSize frames,
// S = (length − N)/(N/2) + 1 capped at max(maxFrames, 1), spaced hop = (length − N)/(S − 1) frames
// apart (N when S is 1). The host calls Analyze with GetDesiredBlockSize() frames starting at the
// selection start, then each next block the returned number of frames (the hop) further on, until
// IsCompleted(); Done() factorises the spectra and GetParam() holds the dictionary. The spectra
// are kept until Done (S × (N/2 + 1) floats per channel, allocated by SetSelection).
class KESTADSP_API DNZNoisePrint : public DSPAnalyzer {
public:
    // Takes a deep copy of the record: its shape, maxFrames and learnIterations shape the print.
    explicit DNZNoisePrint(const DNZ* param);
    // Copies are deep and independent (each has its own transform scratch).
    DNZNoisePrint(const DNZNoisePrint& other) = default;
    DNZNoisePrint& operator=(const DNZNoisePrint& other) = default;
    ~DNZNoisePrint() override;

    // The record the print is written into (complete after Done).
    const DNZ* GetParam() const { return &mParam.record; }

    // False when the selection is shorter than N frames or the record's shape is invalid.
    bool SetSelection(long long start, long long length) override;
    // max(N, hop).
    int32_t GetDesiredBlockSize() const override;
    void Start(float* hostPointer) override;
    // Takes one spectrum from the first N frames of every channel and returns the hop. Frames
    // past a shorter block and channels beyond numChannels are read as silence.
    long long Analyze(float** data, int numChannels, int numFrames) override;
    bool IsCompleted() const override;
    float GetProgress() const override;
    // Factorises the spectra of every channel into the record's noise atoms.
    void Done() override;

private:
    OwnedDNZ mParam;
    long long mSelectionLength = 0;
    int32_t mHop = 0;
    int32_t mFrames = 0;      // S
    int32_t mFramesDone = 0;  // spectra taken
    int32_t mStride = 0;      // floats per spectrum (bins rounded up to 8)
    detail::OwnScratch<IppFFT32R> mFFT;
    std::vector<float> mWindow;     // N
    std::vector<float> mTransform;  // N + 2
    std::vector<float> mSpectra;    // channels × S × stride
    std::vector<float> mOnes;       // stride: 1 over the bins, 0 past them
};

// Spectral noise reduction from a noise dictionary (see the top of this file).
//
// Protocol: construct from a print, Resume before every stream (it clears the learned signal
// atoms), Process blocks of any size (the output does not depend on the partition, bit for bit,
// and is the same run after run and on every CPU); after editing the record returned by
// GetParam() call ParameterChanged (the settings; a changed dictionary or shape needs a new
// object). All state is allocated by the constructor; Process allocates nothing. A record of an
// invalid shape, or reductionDb 0, passes the audio through the transform pair unchanged (up to
// float rounding). outputMode 2 outputs what is removed. Channels beyond the record's pass
// unprocessed.
class KESTADSP_API DNZProcess : public OverlapSave {
public:
    explicit DNZProcess(const DNZ* param);

    DNZ* GetParam() { return &mParam.record; }
    const DNZ* GetParam() const { return &mParam.record; }

    void Resume() override;
    void ParameterChanged() override;

private:
    void OnSpectrum(float** re, float** im, int numChannels, int numBins) override;
    bool ResidualOutput() const override { return mParam.record.outputMode == 2 && mParam.record.reductionDb != 0.0; }
    void ReduceChannel(int channel, float* re, float* im);
    void LearnSignalAtoms(int channel);
    void HoldNoise(int channel, float* h) const;
    void CapNoise(int channel);
    float HeldNoise(const float* h) const;  // the noise activations' sum
    float* Atoms(int channel) { return mAtoms.data() + std::size_t(channel) * std::size_t(mTotalAtoms * mStride); }

    OwnedDNZ mParam;
    bool mActive = false;  // a valid record: the state below is allocated
    int mBins = 0;         // N/2 + 1
    int mStride = 0;       // bins rounded up to 8; the rest of every row is zero
    int mNoiseAtoms = 0;
    int mTotalAtoms = 0;
    // Per frame, from the settings.
    float mFloorGain = 0.0f;  // 10^(−reductionDb/20)
    float mFloorLog = 0.0f;   // its natural log
    float mSmoothing = 0.0f;  // share of the last frame in the smoothed reconstructions
    float mForget = 0.0f;     // decay per frame of the signal statistics
    int mIterations = 0;

    // Per channel.
    std::vector<float> mAtoms;        // (Kn + Ks) × stride: the noise atoms, then the signal atoms
    std::vector<float> mNumerators;   // Ks × stride: decayed statistics of the signal atoms
    std::vector<float> mWeights;      // Ks: decayed sums of their activations
    std::vector<float> mActivations;  // Kn + Ks, carried from frame to frame
    std::vector<float> mPresence;     // stride: the signal's share S²/(S² + N²), smoothed over frames
    std::vector<float> mLastClean;    // stride: the last frame's cleaned power
    std::vector<unsigned char> mStarted;
    std::vector<float> mNoiseCeiling;  // per channel: the largest noise activation sum
    std::vector<float> mNoiseLevel;    // per channel: the noise sum tracked over frames without programme
    std::vector<float> mNoiseMix;      // Kn per channel: each noise atom's share of that sum, tracked alike
    // Scratch of one frame.
    std::vector<float> mMagnitude, mModel, mRatio, mNoise, mSignal, mGains, mOnes;
    const NmfKernels* mKernels = nullptr;  // the products built for this CPU
};

}  // namespace dsp::dnz
