#pragma once
// Graphic: a linear-phase graphic equaliser with 10, 20 or 30 bands (octave, half-octave or
// third-octave spacing, centres 31.25 * r^k Hz with r = 2, sqrt 2 or the cube root of 2).
//
// Idea: instead of a chain of peaking sections, the band gains are turned into one symmetric FIR
// impulse of L = 2N taps centred on tap N, and that impulse is applied to every channel by FFT
// block convolution (overlap-save). Each band owns a "share" of the spectrum: on a logarithmic
// frequency axis it rises from the previous centre to its own with a half cosine and falls the same
// way to the next centre, so the shares of all bands sum to one. A band's share is designed by
// frequency sampling (a real, even spectrum of S points, inverse FFT, four-term Blackman-Harris
// window over 2N - 1 taps). The impulse is a unit impulse at tap N plus, for every band whose
// gain is not 0 dB, (share at its gain) - (share at unity). Because the design is linear in each
// band's gain, a single band change is applied incrementally: remove its share at the old gain,
// add it at the new one; everything else (range, accuracy, layout, several bands) redesigns the
// whole impulse. The design accuracy N decides how narrow a band the impulse can resolve: the
// window's main lobe is about 4 * sampleRate / N Hz wide, and a band falls short of its gain at its
// centre by roughly (sampleRate / (N fk ln r))^2 of the boost. At 44.1 kHz and N = 1000 a +12 dB
// octave band reaches 11.9 dB at 500 Hz but 10.9 dB at 125 Hz, a third-octave band 7.2 dB at
// 125 Hz; N >= 4 sampleRate / (fk ln r) keeps every band within about 0.3 dB.
//
// Units: band, master and range values in dB (linear = 10^(dB/20)); N in samples; frequencies
// in Hz. Parameters are indexed (see the Param enum); a value outside its bounds is replaced by
// the midpoint of the bounds. Changes are recorded in flags and applied at the start of the next
// processing call (or by UpdateImpulses); the master gain needs no flag, it is compared with the
// value the filter was last built with.
//
// Latency: fftSize - L + 1 + N frames, with L = 2N and fftSize = 2^ceil(log2(4L)); 7193 frames at
// the default N = 1000 (fftSize 8192). Input is buffered in blocks of fftSize - L + 2 frames.
// With every band and the master at 0 dB the output is the input delayed by exactly the latency.
//
// Memory: every buffer (64-byte aligned) is allocated when the next processing call follows a
// change of accuracy, channel count or sample rate, or a chunk; processing and every other
// parameter change allocate nothing.
//
// Threads: none. One object is used by one thread at a time; copies are deep and independent.

#include <cstddef>
#include <cstdint>

#include "dsp/fft.h"
#include "dsp/fft_convolver.h"
#include "dsp/kestadsp_export.h"

namespace dsp {

class KESTADSP_API Graphic {
public:
    enum Param : int {
        kAccuracy = 0,     // half-length N of the impulse, samples: 10 ... 8192, default 1000
        kMasterGain = 1,   // dB: -64 ... 64, default 0
        kGainRange = 2,    // dB: 1.5 ... 120, default 48; band gains stay inside +-(range/2 - 0.01)
        kResetBands = 3,   // command: any value sets every band gain to 0 dB; nothing is stored
        kFirstBand = 4,    // band k gain is parameter 4 + k, dB: -70 ... 70, default 0
        kBandLayout = 34,  // 0 = 10 bands, 1 = 20 bands, 2 = 30 bands
    };
    static constexpr int kParameterCount = 35;
    static constexpr int kMaxBands = 30;
    static constexpr int kChunkBytes = kParameterCount * 4;  // 140

    // Defaults, 10 bands, 2 channels at 44100 Hz; nothing is allocated until the first processing call.
    Graphic();
    Graphic(const Graphic& other);
    Graphic& operator=(const Graphic& other);
    ~Graphic();

    // Stored; the object re-initialises (allocates, redesigns, clears the stream) at the next
    // processing call.
    void SetChannels(int channels);
    void SetSampleRate(int sampleRate);

    // Indices outside 0 ... 34 are ignored (GetParameter answers 0, GetBounds leaves its
    // arguments alone).
    void SetParameter(int index, float value);
    float GetParameter(int index) const;
    void GetBounds(int index, float& minimum, float& maximum) const;

    // The settings chunk is the 35 parameters as 32-bit IEEE floats in index order, in the
    // machine's byte order (140 bytes). GetChunk returns 140 and, when `data` is not null, stores
    // there the address of the object's own parameter block (read it in place: it lives as long as
    // the object and follows later changes). SetChunk copies min(size, 140) bytes over the parameter
    // block (a short chunk leaves the later parameters as they were), takes the layout and the
    // accuracy from it and schedules a full re-initialisation; it returns the bytes copied, or
    // with a null `data` the bytes it would copy. A chunk value outside its parameter's range (NaN
    // and infinities included) becomes the range's midpoint, as through SetParameter.
    // The bool arguments (preset or whole bank) make no difference here.
    int GetChunk(void** data, bool isPreset);
    int SetChunk(void* data, int size, bool isPreset);

    // Latency in frames of the output the next processing call produces (it follows a pending
    // accuracy change).
    int GetLatency() const;

    // Streams numFrames frames. Channel c < numChannels is read from in[c] and written to
    // out[c]; channels the object has beyond numChannels are fed silence, and channels beyond
    // the object's count are not touched. `in` and `out` may be the same arrays. Any partition of a
    // stream into blocks gives bit-identical output.
    void Process(float** in, float** out, int numChannels, int numFrames);
    // One frame: in[c] and out[c] for every channel of the object.
    void ProcessOneSample(float* in, float* out);

    // Starts a new stream: clears the convolution state (the next output is silence for the
    // latency). Suspend has nothing to release.
    void Resume();
    void Suspend();

    // Applies pending changes now instead of at the next processing call (initialisation,
    // redesign, single-band update, master gain).
    void UpdateImpulses();

    // Gain in dB of the filter (pending changes applied first) at `frequency` Hz, from the impulse
    // itself, master gain included.
    float ComputeFilterResponse(float frequency);

    // Layout helpers for a host's display.
    int GetBandCount() const { return mBandCount; }
    // Centre frequency of band k of the current layout, Hz; 0 outside it.
    double GetBandFrequency(int band) const;

    // The designed impulse (band shares only, master gain not applied), GetImpulseLength() = 2N
    // taps centred on tap N; null before the first processing call or UpdateImpulses.
    const double* GetImpulse() const { return mImpulse; }
    int GetImpulseLength() const { return mImpulseLength; }
    int GetFFTSize() const { return mFFTSize; }
    int GetBlockLength() const { return mBlockLength; }

private:
    void setBounds(int index, float minimum, float maximum);
    // The middle of parameter `index`'s range: what an out-of-range value becomes.
    float Midpoint(int index) const;
    void Initialize();
    void Deinitialize();
    void SampleRateDependentInitialization();
    // Applies the pending flags; called at the start of every processing call.
    void SetRuntimeParams();

    // Design.
    double LayoutRatio() const;
    void BandEdges(int band, double& lower, double& upper) const;
    void BuildEqImpulse();
    void ComputeBinPositions();
    // Makes the impulse 2 * halfLength taps long; when that changes the length, every buffer is
    // reallocated for the current channel count and the stream starts over.
    void ExtendImpulseLength(int halfLength);
    void ClearImpulse();
    void BuildFlatImpulse();
    // Adds (or with `subtract` removes) band k's share at gainDb, designed with `taps` taps.
    void AddEqBand(int halfLength, int taps, double lower, double upper, double gainDb, bool subtract, int band);
    // Adds value to the symmetric tap pair N + offset and N - offset (once for offset 0).
    void PlaceEqEcho(int offset, double value, bool subtract);
    // Single-band path: band's share at oldGainDb out, at newGainDb in.
    void UpdateImpulse(int band, double oldGainDb, double newGainDb);
    // The master gain stays out of the stored design (a fader move then costs one transform and
    // never rounds the design): AmplifyImpulse hands the convolver the impulse times `gain` (the
    // convolver transforms it), and ComputeFilterXfm does so at the master gain.
    void AmplifyImpulse(double gain);
    void ComputeFilterXfm();
    void ClearIOArrays();

    // Lays the arrays out in mStorage (when not null) and returns the doubles they need.
    std::size_t CarveBuffers();
    void AllocateBuffers();
    void ReleaseBuffers();
    void CopyFrom(const Graphic& other);

    bool mNeedsInitialize = true;
    bool mParamsDirty = true;
    bool mSingleBandPending = false;
    int32_t mPendingBand = 0;
    int32_t mChannelCount = 2;
    int32_t mSampleRate = 44100;
    float mParams[kParameterCount] = {};
    float mAppliedGain[kMaxBands] = {};
    float mMinimum[kParameterCount] = {};
    float mMaximum[kParameterCount] = {};
    double* mImpulse = nullptr;  // L taps
    int32_t mImpulseLength = 0;  // L = 2N
    int32_t mHalfLength = 0;     // N the impulse was built for
    int32_t mRequestedHalfLength = 1000;
    int32_t mFFTSize = 0;
    int32_t mBlockLength = 0;  // fftSize - L + 2
    int32_t mLatency = 0;      // fftSize - L + 1 + N
    int32_t mBandCount = 10;
    float mAppliedMaster = 0.0f;  // master gain (dB) the filter transform holds

    FFTConvolver mConvolver;      // taps 1 ... L - 1 of the impulse (tap 0 is always zero)
    double* mDesignRe = nullptr;  // S: a band design's spectrum, then its time samples
    double* mDesignIm = nullptr;
    double* mWindow = nullptr;  // Blackman-Harris weights for tap offsets 0 ... N - 1
    // Per design bin m = 0 ... S/2: the band j whose centre lies at or below it (-1 below the
    // first centre) and the falling half-cosine weight of band j there. They depend on the layout,
    // the sample rate and S only, so a band design does not evaluate logarithms.
    double* mBinBand = nullptr;
    double* mBinFalling = nullptr;
    int32_t mPositionsBands = 0;  // layout and rate the two arrays were computed for (0: none)
    int32_t mPositionsRate = 0;
    int32_t mDesignSize = 0;         // S
    IppFFT mDesignFFT;               // S
    double* mStorage = nullptr;      // the design's double arrays above, one aligned block
    int32_t mAllocatedChannels = 0;  // channels the convolver was set up for
};

}  // namespace dsp
