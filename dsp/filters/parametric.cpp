// Parametric equaliser: the parameter table and its rules, the lazy application of changes to the
// filters, the processing chains and the drawn response.

#include "dsp/parametric.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cmath>
#include <cstring>
#include <limits>

#include "dsp/core/denormal_guard.h"
#include "dsp/filters/butterworth.h"
#include "dsp/filters/section_lanes.h"

namespace dsp {

namespace {

struct Row {
    float value, min, max;
};

// index: default, minimum, maximum (see the Param enum for meanings).
constexpr Row kTable[Parametric::kParameterCount] = {
    {40.0f, 20.0f, 22050.0f},      // 0 low shelf frequency
    {0.0f, -48.0f, 48.0f},         // 1 low shelf gain
    {18000.0f, 20.0f, 22050.0f},   // 2 high shelf frequency
    {0.0f, -48.0f, 48.0f},         // 3 high shelf gain
    {50.0f, 20.0f, 22050.0f},      // 4 band 1 frequency
    {2.0f, 0.0001f, 10000.0f},     // 5 band 1 Q
    {0.0f, -48.0f, 48.0f},         // 6 band 1 gain
    {1.0f, -0.5f, 1.49f},          // 7 band 1 on
    {200.0f, 20.0f, 22050.0f},     // 8 band 2
    {2.0f, 0.0001f, 10000.0f},     //
    {0.0f, -48.0f, 48.0f},         //
    {1.0f, -0.5f, 1.49f},          //
    {800.0f, 20.0f, 22050.0f},     // 12 band 3
    {2.0f, 0.0001f, 10000.0f},     //
    {0.0f, -48.0f, 48.0f},         //
    {1.0f, -0.5f, 1.49f},          //
    {3200.0f, 20.0f, 22050.0f},    // 16 band 4
    {2.0f, 0.0001f, 10000.0f},     //
    {0.0f, -48.0f, 48.0f},         //
    {1.0f, -0.5f, 1.49f},          //
    {12800.0f, 20.0f, 22050.0f},   // 20 band 5
    {2.0f, 0.0001f, 10000.0f},     //
    {0.0f, -48.0f, 48.0f},         //
    {1.0f, -0.5f, 1.49f},          //
    {0.0f, -96.0f, 48.0f},         // 24 output gain
    {1.0f, -0.5f, 1.49f},          // 25 constant-Q mode
    {0.0f, -0.5f, 1.49f},          // 26 low shelf second order
    {0.0f, -0.5f, 1.49f},          // 27 high shelf second order
    {0.0f, -0.5f, 1.49f},          // 28 state-variable realisation
    {1.0f, -0.5f, 1.49f},          // 29 low shelf on
    {1.0f, -0.5f, 1.49f},          // 30 high shelf on
    {44100.0f, 0.0f, 192000.0f},   // 31 sample rate for frequency ranges
    {25.0f, 0.0001f, 10000.0f},    // 32 band 1 bandwidth (default frequency / default Q)
    {100.0f, 0.0001f, 10000.0f},   // 33
    {400.0f, 0.0001f, 10000.0f},   // 34
    {1600.0f, 0.0001f, 10000.0f},  // 35
    {6400.0f, 0.0001f, 10000.0f},  // 36
    {0.0f, -0.5f, 1.49f},          // 37 high-pass on
    {20.0f, 20.0f, 22050.0f},      // 38 high-pass cutoff
    {4.0f, 1.0f, 8.0f},            // 39 high-pass order
    {0.0f, -0.5f, 1.49f},          // 40 low-pass on
    {20000.0f, 20.0f, 22050.0f},   // 41 low-pass cutoff
    {4.0f, 1.0f, 8.0f},            // 42 low-pass order
    {0.0f, 0.0f, 1.0f},            // 43 bypass of the block path
    {0.0f, 0.0f, 1.0f},            // 44 reserved
};

// Stored as exactly 0 or 1. Parameters 25 and 43 are read as switches but stored as given.
constexpr int kSwitches[] = {7, 11, 15, 19, 23, 26, 27, 28, 29, 30, 37, 40};
// Rescaled by the range command (parameter 31).
constexpr int kFrequencies[] = {0, 2, 4, 8, 12, 16, 20, 38, 41};

constexpr float kDerivedMin = 0.0001f;  // bounds of a Q or bandwidth derived from a frequency move
constexpr float kDerivedMax = 10000.0f;
constexpr float kGainThresholdDb = 0.0001f;  // below this a shelf or band is switched off
constexpr float kSmoothingSeconds = 0.03f;
// The two values a section's set-up carries that no shape reads.
constexpr float kSpare = 0.1f;
// The cut filters follow their drawn curve up to here (or 0.49 fs below 40.8 kHz).
constexpr double kAudibleTopHz = 20000.0;

bool IsSwitch(int index) {
    return std::find(std::begin(kSwitches), std::end(kSwitches), index) != std::end(kSwitches);
}

bool On(float value) {
    return value >= 0.5f;
}

int OrderOf(float value) {
    return butterworth::ClampOrder(static_cast<int>(value + 0.5f));
}

// Process-wide extremes of the values ComputeFilterResponse returned: a diagnostic nothing reads.
// Relaxed atomics keep concurrent equalisers free of data races without any ordering cost.
std::atomic<float> gResponseMin{std::numeric_limits<float>::infinity()};
std::atomic<float> gResponseMax{-std::numeric_limits<float>::infinity()};

void TrackResponse(float m) {
    if (m < gResponseMin.load(std::memory_order_relaxed)) gResponseMin.store(m, std::memory_order_relaxed);
    if (m > gResponseMax.load(std::memory_order_relaxed)) gResponseMax.store(m, std::memory_order_relaxed);
}

}  // namespace

// ---- Construction and copies ---------------------------------------------------------------

Parametric::Parametric() {
    for (int i = 0; i < kParameterCount; ++i) {
        SetBounds(i, kTable[i].min, kTable[i].max);
        mParams[i] = kTable[i].value;
        mChanged[i] = false;
    }
}

Parametric::Parametric(const Parametric& other) {
    *this = other;
}

Parametric& Parametric::operator=(const Parametric& other) {
    if (this == &other) return *this;
    mNeedsInitialize = other.mNeedsInitialize;
    mParamsDirty = other.mParamsDirty;
    mResumed = other.mResumed;
    mChannelCount = other.mChannelCount;
    mSampleRate = other.mSampleRate;
    mBandCount = other.mBandCount;
    mOutputGainLinear = other.mOutputGainLinear;
    std::memcpy(mParams, other.mParams, sizeof mParams);
    std::memcpy(mChanged, other.mChanged, sizeof mChanged);
    std::memcpy(mMinimum, other.mMinimum, sizeof mMinimum);
    std::memcpy(mMaximum, other.mMaximum, sizeof mMaximum);
    CopyFilters(other);
    return *this;
}

Parametric::~Parametric() = default;

void Parametric::CopyFilters(const Parametric& other) {
    mLowShelf = other.mLowShelf;  // desk filters copy completely
    mHighShelf = other.mHighShelf;
    mHighPass = other.mHighPass;
    mLowPass = other.mLowPass;
    // A section's copy constructor takes the settings only; its assignment takes everything
    // (coefficients, glide, memory), which a copy that continues the stream needs.
    mBands.clear();
    mBands.resize(other.mBands.size());
    for (std::size_t i = 0; i < mBands.size(); ++i)
        mBands[i] = other.mBands[i];
}

// ---- Format -------------------------------------------------------------------------------

void Parametric::SetChannels(int channels) {
    assert(channels >= 0 && "a channel count cannot be negative");
    Deinitialize();
    mChannelCount = std::max(channels, 0);
    mNeedsInitialize = true;
    mParamsDirty = true;
}

void Parametric::SetSampleRate(int sampleRate) {
    assert(sampleRate > 0 && "the sample rate must be positive");
    Deinitialize();
    mSampleRate = sampleRate;
    mNeedsInitialize = true;
    mParamsDirty = true;
}

// ---- Parameters ---------------------------------------------------------------------------

void Parametric::SetBounds(int index, float min, float max) {
    if (index < 0 || index >= kParameterCount) return;
    mMinimum[index] = min;
    mMaximum[index] = max;
}

void Parametric::GetBounds(int index, float& min, float& max) const {
    if (index < 0 || index >= kParameterCount) return;
    min = mMinimum[index];
    max = mMaximum[index];
}

float Parametric::GetParameter(int index) const {
    if (index < 0 || index >= kParameterCount) return 0.0f;
    return mParams[index];
}

void Parametric::SetAllParameterChangedFlags() {
    std::fill(std::begin(mChanged), std::end(mChanged), true);
}

void Parametric::ClearAllParameterChangedFlags() {
    std::fill(std::begin(mChanged), std::end(mChanged), false);
}

bool Parametric::Store(int index, float value) {
    if (mParams[index] == value) return false;
    mParams[index] = value;
    mChanged[index] = true;
    mParamsDirty = true;
    return true;
}

void Parametric::StoreBandFrequency(int band, float frequency) {
    const int f = kFirstBand + 4 * band, q = f + kBandQ, bw = kFirstBandwidth + band;
    if (!Store(f, frequency)) return;
    if (On(mParams[kConstantQ])) {
        Store(bw, std::clamp(frequency / mParams[q], kDerivedMin, kDerivedMax));
    } else {
        Store(q, std::clamp(frequency / mParams[bw], kDerivedMin, kDerivedMax));
    }
}

void Parametric::SetParameter(int index, float value) {
    if (index < 0 || index >= kParameterCount) return;
    // Not clamped: anything outside the bounds (or NaN) becomes the middle of the range.
    if (!(value >= mMinimum[index] && value <= mMaximum[index])) value = (mMinimum[index] + mMaximum[index]) / 2.0f;
    if (IsSwitch(index)) value = On(value) ? 1.0f : 0.0f;

    if (index >= kFirstBand && index < kFirstBand + 4 * kBandCount) {
        const int band = (index - kFirstBand) / 4;
        const int f = kFirstBand + 4 * band;
        switch ((index - kFirstBand) % 4) {
            case kBandFrequency:
                StoreBandFrequency(band, value);
                return;
            case kBandQ:
                if (Store(index, value)) Store(kFirstBandwidth + band, mParams[f] / value);
                return;
            default:
                Store(index, value);
                return;
        }
    }
    if (index >= kFirstBandwidth && index < kFirstBandwidth + kBandCount) {
        const int band = index - kFirstBandwidth;
        const int f = kFirstBand + 4 * band;
        if (Store(index, value)) Store(f + kBandQ, mParams[f] / value);
        return;
    }
    if (index == kRangeSampleRate) {
        const int newRate = static_cast<int>(value + 0.5f);  // value is in [0, 192000]
        if (newRate != mSampleRate) RescaleFrequencyRanges(newRate);
        return;
    }
    Store(index, value);
}

void Parametric::RescaleFrequencyRanges(int newRate) {
    const double currentHalf = mSampleRate / 2.0;
    const double newHalf = newRate / 2.0;
    for (int index : kFrequencies) {
        const double lo = mMinimum[index];
        if (currentHalf <= lo) continue;  // no range to map from
        double f = lo + (mParams[index] - lo) * (newHalf - lo) / (currentHalf - lo);
        if (f > currentHalf) f = currentHalf;
        // A new rate below twice the minimum would map below the minimum (to negative frequencies
        // at a rate of 0); hold it there instead.
        if (f < lo) f = lo;
        const float value = static_cast<float>(f);
        if (index >= kFirstBand && index < kFirstBand + 4 * kBandCount) {
            StoreBandFrequency((index - kFirstBand) / 4, value);
        } else {
            Store(index, value);
        }
    }
}

// ---- Building and applying ----------------------------------------------------------------

void Parametric::Deinitialize() {
    // Swapping with empty vectors releases the memory, not just the elements.
    std::vector<fDeskFilter>().swap(mLowShelf);
    std::vector<fDeskFilter>().swap(mHighShelf);
    std::vector<dPARA>().swap(mBands);
    std::vector<butterworth::CutFilter>().swap(mHighPass);
    std::vector<butterworth::CutFilter>().swap(mLowPass);
}

void Parametric::Initialize() {
    Deinitialize();
    const auto channels = static_cast<std::size_t>(mChannelCount);
    mLowShelf.reserve(channels);
    mHighShelf.reserve(channels);
    for (std::size_t c = 0; c < channels; ++c) {
        mLowShelf.emplace_back(kFilterLowShelf, true, true);
        mHighShelf.emplace_back(kFilterHighShelf, true, true);
    }
    mBands.resize(channels * static_cast<std::size_t>(mBandCount));
    mHighPass.resize(channels);
    mLowPass.resize(channels);
    SampleRateDependentInitialization();
    SetAllParameterChangedFlags();
    mParamsDirty = true;
    mNeedsInitialize = false;
}

void Parametric::SampleRateDependentInitialization() {
    // A fresh section believes in 44100 Hz: give it the real rate with an identity design (0 dB,
    // so no glide starts) and then the glide length at that rate.
    const auto rate = static_cast<float>(mSampleRate);
    for (auto* shelves : {&mLowShelf, &mHighShelf}) {
        for (fDeskFilter& shelf : *shelves) {
            shelf.SetupCoefficients(rate, 1000.0f, 0.0f, 1.0f, kSpare, kSpare);
            shelf.setSmoothingTime(kSmoothingSeconds);
            shelf.ClearState();
        }
    }
    for (dPARA& band : mBands) {
        band.SetupCoefficients(rate, 1000.0f, 0.0f, 1.0f, kSpare, kSpare);
        band.setSmoothingTime(kSmoothingSeconds);
        band.ClearState();
    }
}

void Parametric::ApplyShelf(int channel, bool low) {
    fDeskFilter& shelf =
        low ? mLowShelf[static_cast<std::size_t>(channel)] : mHighShelf[static_cast<std::size_t>(channel)];
    const float frequency = mParams[low ? kLowShelfFrequency : kHighShelfFrequency];
    const float gain = mParams[low ? kLowShelfGain : kHighShelfGain];
    const float on = mParams[low ? kLowShelfOn : kHighShelfOn];
    shelf.SetupCoefficients(static_cast<float>(mSampleRate), frequency, gain, 1.0f, kSpare, kSpare);
    if (std::fabs(gain) >= kGainThresholdDb && on != 0.0f) {
        shelf.enable();
    } else {
        shelf.disable();
    }
}

void Parametric::SetRuntimeParams() {
    bool changed[kParameterCount];
    std::memcpy(changed, mChanged, sizeof changed);
    ClearAllParameterChangedFlags();
    mParamsDirty = false;

    const auto rate = static_cast<float>(mSampleRate);
    const bool stateVariable = On(mParams[kStateVariable]);
    // The cut filters' designs are the same for every channel (and cost some tens of microseconds
    // each), so each is made once.
    const double top = kAudibleTopHz / mSampleRate;
    const bool lowPassChanged = changed[kLowPassCutoff] || changed[kLowPassOrder];
    const bool highPassChanged = changed[kHighPassCutoff] || changed[kHighPassOrder];
    butterworth::Design lowPass, highPass;
    if (lowPassChanged)
        lowPass = butterworth::DesignCutFilter(true, OrderOf(mParams[kLowPassOrder]),
                                               static_cast<double>(mParams[kLowPassCutoff]) / mSampleRate, top);
    if (highPassChanged)
        highPass = butterworth::DesignCutFilter(false, OrderOf(mParams[kHighPassOrder]),
                                                static_cast<double>(mParams[kHighPassCutoff]) / mSampleRate, top);
    for (int c = 0; c < mChannelCount; ++c) {
        const auto ch = static_cast<std::size_t>(c);
        // 1. Shelf order. The new section takes the old one's settings but decides its enabled
        // state from the gain alone and its glide length from 44100 Hz, so it is set up again
        // below (step 3) with the switch, the threshold and the real rate.
        bool lowShifted = false, highShifted = false;
        if (changed[kLowShelfSecondOrder]) {
            mLowShelf[ch].ShiftGears(kFilterLowShelf, true, !On(mParams[kLowShelfSecondOrder]));
            mLowShelf[ch].setSmoothingTime(kSmoothingSeconds);
            lowShifted = true;
        }
        if (changed[kHighShelfSecondOrder]) {
            mHighShelf[ch].ShiftGears(kFilterHighShelf, true, !On(mParams[kHighShelfSecondOrder]));
            mHighShelf[ch].setSmoothingTime(kSmoothingSeconds);
            highShifted = true;
        }
        // 2. Realisation of every shelf and band.
        if (changed[kStateVariable]) {
            mLowShelf[ch].setStateVariable(stateVariable);
            mHighShelf[ch].setStateVariable(stateVariable);
            for (int k = 0; k < mBandCount; ++k)
                mBands[ch * static_cast<std::size_t>(mBandCount) + static_cast<std::size_t>(k)].setStateVariable(
                    stateVariable);
        }
        // 3. Shelves.
        if (lowShifted || changed[kLowShelfFrequency] || changed[kLowShelfGain] || changed[kLowShelfOn])
            ApplyShelf(c, true);
        if (highShifted || changed[kHighShelfFrequency] || changed[kHighShelfGain] || changed[kHighShelfOn])
            ApplyShelf(c, false);
        // 4. Cut filters. A filter switched on starts from silence rather than from whatever
        // history it held when it was switched off.
        if (lowPassChanged) mLowPass[ch].SetDesign(lowPass);
        if (highPassChanged) mHighPass[ch].SetDesign(highPass);
        if (changed[kLowPassOn] && On(mParams[kLowPassOn])) mLowPass[ch].Clear();
        if (changed[kHighPassOn] && On(mParams[kHighPassOn])) mHighPass[ch].Clear();
        // 5. Bands.
        for (int k = 0; k < mBandCount; ++k) {
            dPARA& band = mBands[ch * static_cast<std::size_t>(mBandCount) + static_cast<std::size_t>(k)];
            const int f = kFirstBand + 4 * k, q = f + kBandQ, g = f + kBandGain, on = f + kBandOn;
            const int bw = kFirstBandwidth + k;
            const float gain = mParams[g];
            const bool audible = std::fabs(gain) >= kGainThresholdDb;
            const bool bandOn = On(mParams[on]);
            if (!changed[on]) {
                if (changed[f] || changed[q] || changed[g] || changed[bw])
                    band.SetupCoefficients(rate, mParams[f], gain, mParams[q], kSpare, kSpare);
                if (changed[kStateVariable]) band.setStateVariable(stateVariable);
                // A gain change never overrides the band's switch.
                if (changed[g]) {
                    if (bandOn && audible) {
                        band.enable();
                    } else {
                        band.disable();
                    }
                }
            } else if (bandOn) {
                band.SetupCoefficients(rate, mParams[f], gain, mParams[q], kSpare, kSpare);
                band.setStateVariable(stateVariable);
                if (audible) {
                    band.enable();
                } else {
                    band.disable();
                }
            } else {
                band.disable();
            }
        }
    }
    // 6. Output gain.
    mOutputGainLinear = static_cast<float>(std::pow(10.0, static_cast<double>(mParams[kOutputGain]) / 20.0));
}

void Parametric::Prepare() {
    if (mNeedsInitialize) Initialize();
    if (mParamsDirty) SetRuntimeParams();
}

void Parametric::SetupFilters() {
    if (mResumed) return;
    Initialize();
    SetRuntimeParams();
}

void Parametric::Resume() {
    Initialize();
    SetRuntimeParams();
    mResumed = true;
    for (auto* shelves : {&mLowShelf, &mHighShelf})
        for (fDeskFilter& shelf : *shelves)
            shelf.TerminateRamp();
    for (dPARA& band : mBands)
        band.TerminateRamp();
}

void Parametric::Suspend() {
    mResumed = false;
}

// ---- Processing ---------------------------------------------------------------------------

void Parametric::RunChain(int channel, float* data, int n) {
    const auto ch = static_cast<std::size_t>(channel);
    if (On(mParams[kHighPassOn])) mHighPass[ch].ProcessInplace(data, n);
    if (On(mParams[kLowPassOn])) mLowPass[ch].ProcessInplace(data, n);
    mLowShelf[ch].processInplace(data, n);
    mHighShelf[ch].processInplace(data, n);
    dPARA* bands = mBands.data() + ch * static_cast<std::size_t>(mBandCount);
    for (int k = 0; k < mBandCount; ++k)
        bands[k].processInplace(data, n);
    ApplyOutputGain(data, n);
}

void Parametric::RunChainPair(int channel, float* left, float* right, int n) {
    const auto ch = static_cast<std::size_t>(channel);
    if (On(mParams[kHighPassOn]))
        butterworth::CutFilter::ProcessPairInplace(mHighPass[ch], mHighPass[ch + 1], left, right, n);
    if (On(mParams[kLowPassOn]))
        butterworth::CutFilter::ProcessPairInplace(mLowPass[ch], mLowPass[ch + 1], left, right, n);
    // Shelves then bands, one chain per channel.
    constexpr int kMaxSections = 2 + kBandCount;
    FilterSection* sections[2][kMaxSections];
    int count = 0;
    for (std::size_t side = 0; side < 2; ++side) {
        const std::size_t c = ch + side;
        count = 0;
        sections[side][count++] = &detail::SectionLanes::Held(mLowShelf[c]);
        sections[side][count++] = &detail::SectionLanes::Held(mHighShelf[c]);
        dPARA* bands = mBands.data() + c * static_cast<std::size_t>(mBandCount);
        for (int k = 0; k < mBandCount && count < kMaxSections; ++k)
            sections[side][count++] = &bands[k];
    }
    detail::SectionLanes::ProcessPair(sections[0], sections[1], count, left, right, n);
    ApplyOutputGain(left, n);
    ApplyOutputGain(right, n);
}

void Parametric::ApplyOutputGain(float* data, int n) const {
    const float gain = mOutputGainLinear;
    if (gain != 1.0f) {
        for (int i = 0; i < n; ++i)
            data[i] *= gain;
    }
}

void Parametric::ProcessOneSample(float* in, float* out) {
    DenormalGuard guard;
    Prepare();
    const float gain = mOutputGainLinear;
    for (int c = 0; c < mChannelCount; ++c) {
        const auto ch = static_cast<std::size_t>(c);
        float x = in[c];
        x = mLowShelf[ch].processOneSample(x);
        x = mHighShelf[ch].processOneSample(x);
        dPARA* bands = mBands.data() + ch * static_cast<std::size_t>(mBandCount);
        for (int k = 0; k < mBandCount; ++k)
            x = bands[k].processOneSample(x);
        out[c] = x * gain;
    }
}

void Parametric::Process(float* in, float* out, int n) {
    DenormalGuard guard;
    Prepare();
    if (n <= 0) return;
    if (out != in) std::memmove(out, in, static_cast<std::size_t>(n) * sizeof(float));
    if (On(mParams[kBypass]) || mChannelCount < 1) return;
    RunChain(0, out, n);
}

void Parametric::Process(float** in, float** out, int numChannels, int numFrames) {
    DenormalGuard guard;
    Prepare();
    if (numFrames <= 0) return;
    for (int c = 0; c < numChannels; ++c) {
        if (out[c] != in[c]) std::memmove(out[c], in[c], static_cast<std::size_t>(numFrames) * sizeof(float));
    }
    if (On(mParams[kBypass])) return;
    // Channels two by two in the lanes of one register; an odd last one alone.
    const int channels = std::min(numChannels, mChannelCount);
    int c = 0;
    for (; c + 1 < channels; c += 2) {
        if (out[c] != out[c + 1]) {
            RunChainPair(c, out[c], out[c + 1], numFrames);
        } else {  // one buffer given for both: each chain in turn, as the caller asked
            RunChain(c, out[c], numFrames);
            RunChain(c + 1, out[c + 1], numFrames);
        }
    }
    if (c < channels) RunChain(c, out[c], numFrames);
}

// ---- Drawn response -----------------------------------------------------------------------

float Parametric::ComputeButterResponse(bool lowPass, float a, float b, int order, float scale) {
    const double r = lowPass ? static_cast<double>(a) / b : static_cast<double>(b) / a;
    double power = 1.0;
    const double base = order < 0 ? 1.0 / r : r;
    for (int i = 0; i < 2 * std::abs(order); ++i)
        power *= base;
    return static_cast<float>(static_cast<double>(scale) / std::sqrt(1.0 + power));
}

float Parametric::ComputeFilterResponse(float frequency) {
    Prepare();
    // The cut filters are drawn with the analog Butterworth magnitude on the plain ratio f/fc, and
    // that is what they play: their design fits the digital response to this very curve up to
    // 20 kHz, with no frequency warping (limits in dsp/filters/butterworth.h).
    float m = 1.0f;
    if (On(mParams[kHighPassOn]))
        m = ComputeButterResponse(false, frequency, mParams[kHighPassCutoff], OrderOf(mParams[kHighPassOrder]), m);
    if (On(mParams[kLowPassOn]))
        m = ComputeButterResponse(true, frequency, mParams[kLowPassCutoff], OrderOf(mParams[kLowPassOrder]), m);
    if (mChannelCount > 0) {
        m = mLowShelf[0].computeResponse(frequency, m);
        m = mHighShelf[0].computeResponse(frequency, m);
        for (int k = 0; k < mBandCount; ++k)
            m = mBands[static_cast<std::size_t>(k)].computeResponse(frequency, m);
    }
    m = std::clamp(m, -256.0f, 256.0f);
    TrackResponse(m);
    return m;
}

}  // namespace dsp
