#pragma once
// FFTConvolver: streams any number of channels through one fixed FIR response by overlap-save
// block convolution in the frequency domain.
//
// With K taps and an FFT of F points, each block of B = F - K + 1 new frames is transformed
// together with the K - 1 frames before it; of the circular result, the last B samples are the
// linear convolution of those frames and are kept. Output frame n is sum_j h[j] x[n - B - j]: the
// latency is B frames (GetLatency), on top of whatever delay the response itself carries. F >= 2K
// keeps the cost per frame near its minimum; F = K works but moves one frame per block.
//
// Two channels share one complex transform (one as the real part, the other as the imaginary
// part): the response is real, so one spectral product filters both and the inverse transform
// returns them apart. Arithmetic is in double; inputs and outputs are float.
//
// Typical use:
//   FFTConvolver conv;
//   conv.Init(channels, taps, fftSize);   // allocates; the response is silence until set
//   conv.SetResponse(h, 1.0);             // h holds `taps` doubles; may be called again at any time
//   conv.Process(in, out, channels, frames);
//
// Memory: Init allocates one 64-byte aligned block; SetResponse, Reset and processing allocate
// nothing. Any partition of a stream into blocks gives bit-identical output. One thread at a
// time; copies are deep and share no scratch.

#include <cstddef>
#include <vector>

#include "dsp/fft.h"
#include "dsp/kestadsp_export.h"

namespace dsp {

class KESTADSP_API FFTConvolver {
public:
    FFTConvolver() = default;
    FFTConvolver(const FFTConvolver& other);
    FFTConvolver& operator=(const FFTConvolver& other);
    ~FFTConvolver();

    // Sets the convolver up for `channels` channels (0 or more), a response of `taps` taps (1 or
    // more) and a transform of `fftSize` points (a power of two, at least `taps`). The response is
    // all zeros and the stream is cleared.
    void Init(int channels, int taps, int fftSize);
    // Frees everything; the convolver is as constructed.
    void Release();
    bool IsInitialized() const { return mStorage != nullptr; }

    // The response becomes response[0 ... taps - 1] times `gain`. The stream carries on: frames
    // already buffered are filtered with the new response from the next block on.
    void SetResponse(const double* response, double gain);
    // Clears the stream: the next GetLatency() output frames are silence.
    void Reset();

    // Streams numFrames frames. Channel c < numChannels is read from in[c] and written to out[c];
    // channels set up beyond numChannels are fed silence, and host channels beyond the set-up
    // count are left alone. `in` and `out` may be the same arrays.
    void Process(float** in, float** out, int numChannels, int numFrames);
    // One frame: in[c] and out[c] for every channel set up (may be the same array).
    void ProcessFrame(const float* in, float* out);

    int GetLatency() const { return mBlockLength; }
    int GetBlockLength() const { return mBlockLength; }
    int GetFFTSize() const { return mFFTSize; }
    int GetTaps() const { return mTaps; }
    int GetChannels() const { return mChannels; }

private:
    // Lays the arrays out in mStorage (when not null) and returns the doubles they need.
    std::size_t Carve();
    void ConvolveBlock();

    int mChannels = 0;
    int mTaps = 0;
    int mFFTSize = 0;
    int mBlockLength = 0;  // F - K + 1
    int mPosition = 0;     // frames of the current block received
    // Channel c's history and current block in mInput[c] (the block starts at K - 1), its filtered
    // block in mOutput[c] at the same offsets.
    std::vector<double*> mInput;
    std::vector<double*> mOutput;
    double* mFilterRe = nullptr;  // F: response transform / F (the inverse transform is unscaled)
    double* mFilterIm = nullptr;
    double* mWorkRe = nullptr;  // F: transform scratch
    double* mWorkIm = nullptr;
    double* mZero = nullptr;     // F zeros: partner of an odd last channel
    double* mDiscard = nullptr;  // F: where that partner's output goes
    std::size_t mStorageDoubles = 0;
    double* mStorage = nullptr;
    IppFFT mFFT;
};

}  // namespace dsp
