#pragma once
// OverlapSave: the streaming frame engine under the spectral restoration processors.
//
// The host pushes blocks of any length. The engine queues the input, and every hop of 2L frames
// takes one frame of N frames (N is the FFT size) and hands it to OnAudio. By default OnAudio
// windows the frame, runs two channels through one complex FFT, calls OnSpectrum with each
// channel's half spectrum (N/2 + 1 bins), transforms back and applies the inverse window. Of each
// processed frame the engine keeps the 2L samples P - L ... P + L - 1: the first L are cross-faded
// (raised-sine curves that sum to one) with the last frame's P + L ... P + 2L - 1, the next L go
// out as they are. The hop is 2L, so consecutive frames meet exactly and a hook that leaves the
// spectra alone returns the input unchanged.
//
// Geometry (frames): N a power of two, crossfade length L >= 1, output offset P with P >= L and
// P + 2L <= N, at most 32 channels. The noise reducer's default is N = 4096, L = 585, P = 1755.
//
// Latency: exactly N frames. The input queue is primed with P zeros and the output queue with N,
// so input frame k leaves as output frame k + N; the first N output frames are silence.
//
// The base OnSpectrum is a fixed low-pass: it keeps bins 0 ... numBins/8 (one eighth of the band)
// and clears the rest. Derived tools replace OnSpectrum, their one processing hook; the base
// OnAudio runs it under a flush-to-zero guard (decaying per-bin state never turns subnormal) and,
// while the tool's ResidualOutput() is true, outputs the input minus the processed frame (what the
// tool removes) instead of the processed frame.
//
// Protocol: Init (or the sizing constructor), then Resume before the first Process of every stream;
// Resume builds the windows on its first call after Init and empties the queues. All buffers are
// allocated by Init; Process and the hooks allocate nothing. One object serves one stream on one
// thread at a time. Copies are deep; a copy gets its own FFT plan and scratch.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "dsp/dsp_process.h"
#include "dsp/fft.h"
#include "dsp/kestadsp_export.h"
#include "dsp/ring_buffer.h"

namespace dsp {

class KESTADSP_API OverlapSave : public DSPProcess {
public:
    // The value is the window shape code given to GetFFTWindow.
    enum FFTWindowType {
        Triangular = 0,
        Hann = 1,
        Hamming = 2,
        Blackman = 3,
        Welch = 4,
        BlackmanHarris = 5,
        Kaiser140 = 6,
        Kaiser180 = 7,
        Kaiser = 8,  // attenuation 140 dB here
    };

    // The most channels one engine streams.
    static constexpr int kMaxChannels = 32;
    // Whether Init(N, C, P, L, ...) describes a usable engine: 1 <= C <= kMaxChannels, L >= 1,
    // P >= L and P + 2L <= N (N is also a power of two for the transform).
    static bool IsValidGeometry(int N, int C, int P, int L);
    // The geometry the spectral tools derive from an FFT size and an overlap factor,
    // L = N / overlap and P = ((overlap - 1) * N / overlap) / 2: whether L >= 1, P >= L and
    // P + 2L <= N (false for a size or overlap below 1).
    static bool IsValidOverlap(int fftSize, int overlap);

    // Empty engine: Init before use.
    OverlapSave();
    // N: frame (FFT) length; C: channels; P: output offset; L: crossfade length.
    OverlapSave(int N, int C, int P, int L, FFTWindowType type);
    OverlapSave(const OverlapSave& other);
    OverlapSave& operator=(const OverlapSave& other);
    ~OverlapSave() override;

    // Sets the geometry and allocates every buffer. The windows are rebuilt at the next Resume.
    // The scalers keep their values.
    void Init(int N, int C, int P, int L, FFTWindowType type);

    // Streams numFrames frames of the engine's own channel count: pass numChannels >= that many
    // channel buffers of numFrames frames each (channels beyond the engine's are left alone; a
    // missing one is read as silence and nothing is written for it). `in` and `out` may be the same
    // arrays. A Process before the first Resume after Init resumes first. Nothing is written for a
    // chunk the output queue cannot serve yet, which a stream started with Resume never meets.
    void Process(float** in, float** out, int numChannels, int numFrames) override;
    // The same for a one-channel engine.
    void Process(float* in, float* out, int numFrames);

    // N frames.
    int GetLatency() const override;
    void SetSampleRate(int sampleRate);

    virtual void Suspend();
    // Starts a new stream: builds the windows if Init has not been followed by a Resume yet,
    // clears the tails and work frames, primes the input queue with P zeros and the output queue
    // with N zeros, and marks the next frame as the first.
    virtual void Resume();

    // `pre` multiplies every spectrum right after the forward transform, `post` right before the
    // inverse; each only when it differs from 1.
    void SetScaler(float pre, float post);

    int GetFrameLength() const { return mFrameLength; }
    int GetNumChannels() const { return mNumChannels; }
    int GetCrossfadeLength() const { return mCrossfadeLength; }
    int GetOutputOffset() const { return mOutputOffset; }
    FFTWindowType GetWindowType() const { return mWindowType; }

protected:
    // Fills mAnalysisWindow (shape mWindowType) and mSynthesisWindow (its reciprocal times 1/N, so
    // it also undoes the gain N of the unscaled forward-inverse transform pair).
    virtual void ComputeWindow();
    // Transforms one frame of `numChannels` channels of N samples in place. With `accumulate` the
    // result is added to the frame instead of replacing it (the engine itself passes false).
    virtual void OnAudio(float** frame, int numChannels, int N, bool accumulate);
    // re/im: per channel, bins 0 ... numBins - 1 (numBins = N/2 + 1) of the frame's spectrum.
    virtual void OnSpectrum(float** re, float** im, int numChannels, int numBins);
    // Whether the frame written back is the input minus the processed one (asked once per frame).
    virtual bool ResidualOutput() const { return false; }

    // The two halves of the default OnAudio, for derived frame handlers.
    // Analysis window, pairwise forward transform, pre scaler, split into mSpectrumRe/mSpectrumIm.
    // `frame` is only read. An odd last channel is paired with itself.
    void TransformFrameToSpectra(float** frame, int numChannels);
    enum class Synthesis {
        Store,     // frame := resynthesis
        Add,       // frame += resynthesis
        Subtract,  // frame -= resynthesis (what the processing removed, when the hook attenuates)
    };
    // Pairwise combine, post scaler, inverse transform, synthesis window, written into `frame`.
    void TransformSpectraToFrame(float** frame, int numChannels, Synthesis mode);

    int32_t mFrameLength = 0;  // N
    int32_t mLatency = 0;      // N
    int32_t mNumChannels = 0;
    int32_t mNumChannelsEven = 0;  // spectra are kept for this many channels (pairs)
    int32_t mCrossfadeLength = 0;  // L
    int32_t mOutputOffset = 0;     // P
    bool mFirstFrame = true;       // true until the first frame after Init/Resume has gone out
    bool mWindowsBuilt = false;
    FFTWindowType mWindowType = Hann;
    float* mAnalysisWindow = nullptr;   // N
    float* mSynthesisWindow = nullptr;  // N
    float* mRising = nullptr;           // L
    float* mFalling = nullptr;          // L
    std::vector<float*> mTail;          // C x L: the part of the last frame waiting for its crossfade
    std::vector<float*> mWork;          // C x N: the frame being processed
    int32_t mAccumulated = 0;           // input frames since the last frame was taken
    int32_t mRingCapacity = 0;          // 2N
    std::vector<float*> mSpectrumRe;    // mNumChannelsEven x N
    std::vector<float*> mSpectrumIm;    // mNumChannelsEven x N
    IppFFT32 mFFT;
    float mPreScaler = 1.0f;
    float mPostScaler = 1.0f;
    float* mSilence = nullptr;  // 2L zeros: input of channels a host did not pass
    float* mDiscard = nullptr;  // 2L: output of channels a host did not pass
    RingBuffer mInputRing;
    RingBuffer mOutputRing;

private:
    void ReleaseStorage();
    void CopyFrom(const OverlapSave& other);

    // Split arrays of the one complex transform (N each); the packing helpers read and write
    // different arrays, so the transform cannot run inside the spectra.
    float* mTransformRe = nullptr;
    float* mTransformIm = nullptr;
    // Every array above lives in this one 64-byte aligned block.
    float* mStorage = nullptr;
    std::size_t mStorageFloats = 0;
};

}  // namespace dsp
