#pragma once
// Parametric: a multichannel parametric equaliser driven by 45 indexed float parameters.
//
// Chain, per channel, in this order: an optional Butterworth high-pass and low-pass (order 1 to 8,
// double precision), a low shelf and a high shelf (double-precision shelf sections in desk-filter
// slots, first or second order), five peaking bands (dPARA), and an output gain. Shelves and bands
// glide to new settings over 30 ms (see dsp/filter_section.h), so moving a control never clicks;
// the cut filters take a new cutoff at once and keep their memory.
//
// Parameters (see Param; bounds from GetBounds):
//   - A value outside its bounds is not clamped but replaced by the midpoint of the bounds (a
//     switch given an out-of-range value therefore ends up off; the bypass, whose bounds are
//     [0, 1], ends up on). Switches are stored as exactly 1 (value >= 0.5) or 0. Indices outside
//     0 ... 44 are ignored; GetParameter answers 0 for them.
//   - Each band has a frequency, a Q and a bandwidth (Hz) kept consistent: setting Q sets
//     bandwidth = frequency / Q, setting the bandwidth sets Q = frequency / bandwidth. Moving the
//     frequency keeps the Q (new bandwidth) in constant-Q mode (kConstantQ >= 0.5) and the
//     bandwidth (new Q) otherwise; that derived value is held in [0.0001, 10000].
//   - kRangeSampleRate is a command, not a setting: given a rate other than the current one
//     (rounded half up), every frequency parameter is mapped from [min, current rate / 2] onto
//     [min, new rate / 2] (held at no more than the current rate / 2 and no less than its
//     minimum). Nothing is stored under the index itself and the processing rate does not change:
//     the host follows with SetSampleRate. GetParameter(kRangeSampleRate) always answers 44100.
//   - Changes are recorded in per-parameter flags and applied at the start of the next processing
//     call (or ComputeFilterResponse), recomputing only what changed.
//   - A shelf or band sounds only when its switch is on and |gain| >= 0.0001 dB; a change of its
//     gain or (for a shelf) its order never overrides its switch. A cut filter switched on starts
//     from silence. Cutoffs above the Nyquist frequency of a low rate are held at 0.4999 fs.
//
// Entry points:
//   - Process(in, out, n): channel 0 only, the full chain (cut filters, shelves, bands, gain);
//     with kBypass >= 0.5 the output is a bit-exact copy of the input and no filter runs.
//   - Process(in, out, numChannels, numFrames): the same chain for every channel, in place or not
//     (channels beyond the configured count are copied unchanged).
//   - ProcessOneSample(in, out): one frame of every channel through shelves, bands and gain; the
//     cut filters and the bypass switch do not apply on this path.
//   - ComputeFilterResponse(f): the linear magnitude of the cut filters, shelves and bands (not the
//     output gain) at f Hz, clamped to [-256, 256]. The cut filters' term is the analog
//     Butterworth magnitude on the plain ratio, 1 / sqrt(1 + (f/fc)^(2N)) for the low-pass, which
//     the filters follow up to 20 kHz within the limits given in dsp/filters/butterworth.h.
//
// Units: frequencies and bandwidths in Hz, gains in dB (linear = 10^(dB/20)), orders as numbers
// (rounded half up). Latency: none (GetLatency() is 0); the phase is that of the recursive
// sections.
//
// Memory: SetChannels and SetSampleRate release the filters; they are rebuilt at the next
// processing call, or at once by SetupFilters() or Resume() — call one of those after a change of
// format so that processing never allocates. Processing allocates nothing, with one exception:
// changing a shelf's order (kLowShelfSecondOrder, kHighShelfSecondOrder) builds a new section in
// the next call. Processing entry points run with flush-to-zero / denormals-are-zero set and
// restore the caller's mode on return, so decaying tails never slow down.
//
// Threads: none. One object is used by one thread at a time; copies are deep and independent and
// continue the stream exactly where the original stands.

#include <cstdint>
#include <vector>

#include "dsp/desk_filter.h"
#include "dsp/filter_section.h"
#include "dsp/kestadsp_export.h"

namespace dsp {

namespace butterworth {
class CutFilter;
}

class KESTADSP_API Parametric {
public:
    enum Param : int {
        kLowShelfFrequency = 0,      // Hz, 20 ... 22050, default 40
        kLowShelfGain = 1,           // dB, -48 ... 48, default 0
        kHighShelfFrequency = 2,     // Hz, 20 ... 22050, default 18000
        kHighShelfGain = 3,          // dB, -48 ... 48, default 0
        kFirstBand = 4,              // band k (0 ... 4): frequency 4 + 4k, Q 5 + 4k, gain 6 + 4k, on 7 + 4k
        kOutputGain = 24,            // dB, -96 ... 48, default 0
        kConstantQ = 25,             // switch, default on
        kLowShelfSecondOrder = 26,   // switch, default off (first-order shelf)
        kHighShelfSecondOrder = 27,  // switch, default off
        kStateVariable = 28,         // switch: state-variable realisation of every shelf and band
        kLowShelfOn = 29,            // switch, default on
        kHighShelfOn = 30,           // switch, default on
        kRangeSampleRate = 31,       // command, Hz, 0 ... 192000 (see above)
        kFirstBandwidth = 32,        // band k bandwidth is 32 + k, Hz, 0.0001 ... 10000
        kHighPassOn = 37,            // switch, default off
        kHighPassCutoff = 38,        // Hz, 20 ... 22050, default 20
        kHighPassOrder = 39,         // 1 ... 8, default 4
        kLowPassOn = 40,             // switch, default off
        kLowPassCutoff = 41,         // Hz, 20 ... 22050, default 20000
        kLowPassOrder = 42,          // 1 ... 8, default 4
        kBypass = 43,                // switch for Process (read as on at >= 0.5), default 0
        kReserved = 44,              // stored, no effect
    };
    // Offsets of a band's parameters from kFirstBand + 4k.
    static constexpr int kBandFrequency = 0;
    static constexpr int kBandQ = 1;
    static constexpr int kBandGain = 2;
    static constexpr int kBandOn = 3;
    // Index of a band's parameter: BandParameter(band 0 ... 4, kBandFrequency ... kBandOn).
    static constexpr int BandParameter(int band, int offset) { return kFirstBand + 4 * band + offset; }
    static constexpr int kParameterCount = 45;
    static constexpr int kBandCount = 5;

    // The table's defaults, 2 channels at 44100 Hz; nothing is built until the first processing
    // call (or SetupFilters / Resume).
    Parametric();
    Parametric(const Parametric& other);
    Parametric& operator=(const Parametric& other);
    ~Parametric();

    // Store the value, release the filters and have them rebuilt (every parameter reapplied, every
    // section starting from silence) before the next processing call.
    void SetChannels(int channels);
    void SetSampleRate(int sampleRate);
    int GetChannels() const { return mChannelCount; }
    int GetSampleRate() const { return mSampleRate; }

    void SetParameter(int index, float value);
    float GetParameter(int index) const;
    // Leaves min and max alone for an index outside the table.
    void GetBounds(int index, float& min, float& max) const;
    void SetAllParameterChangedFlags();
    void ClearAllParameterChangedFlags();

    // in[c] -> out[c] for every configured channel c.
    void ProcessOneSample(float* in, float* out);
    // n samples of channel 0; in == out is allowed.
    void Process(float* in, float* out, int n);
    // numFrames samples of each of numChannels channels; in[c] == out[c] is allowed.
    void Process(float** in, float** out, int numChannels, int numFrames);

    float ComputeFilterResponse(float frequency);

    // Unless resumed: build the filters and apply every parameter now.
    void SetupFilters();
    // Build the filters, apply every parameter and put every shelf and band on its target at once
    // (no glide from silence).
    void Resume();
    void Suspend();
    int GetLatency() const { return 0; }

private:
    void SetBounds(int index, float min, float max);
    void Initialize();
    void Deinitialize();
    void SampleRateDependentInitialization();
    void SetRuntimeParams();
    float ComputeButterResponse(bool lowPass, float a, float b, int order, float scale);

    // Build and apply what is pending; run by every processing call and ComputeFilterResponse.
    void Prepare();
    // Stores a value if it differs from the stored one, raising its flag; true when stored.
    bool Store(int index, float value);
    // A band frequency with its Q / bandwidth derivation (constant-Q rules).
    void StoreBandFrequency(int band, float frequency);
    void RescaleFrequencyRanges(int newRate);
    // The shelf's set-up and enable rule (low = true for the low shelf).
    void ApplyShelf(int channel, bool low);
    // Channel c's whole block chain, in place.
    void RunChain(int channel, float* data, int n);
    // Channels c and c + 1 side by side (the same bits as RunChain on each).
    void RunChainPair(int channel, float* left, float* right, int n);
    void ApplyOutputGain(float* data, int n) const;
    void CopyFilters(const Parametric& other);

    bool mNeedsInitialize = true;
    bool mParamsDirty = false;
    bool mResumed = false;
    int32_t mChannelCount = 2;
    int32_t mSampleRate = 44100;
    std::vector<fDeskFilter> mLowShelf;   // one per channel
    std::vector<fDeskFilter> mHighShelf;  // one per channel
    std::vector<dPARA> mBands;            // bandCount per channel, channel-major
    std::vector<butterworth::CutFilter> mHighPass;
    std::vector<butterworth::CutFilter> mLowPass;
    int32_t mBandCount = kBandCount;
    float mOutputGainLinear = 1.0f;
    float mParams[kParameterCount];
    bool mChanged[kParameterCount];
    float mMinimum[kParameterCount];
    float mMaximum[kParameterCount];
};

}  // namespace dsp
