#include "dsp/graphic.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstring>
#include <numbers>

#include "dsp/core/aligned_memory.h"

namespace dsp {

namespace {

// Lowest band centre; every layout's centres are kBaseFrequency * r^k.
constexpr double kBaseFrequency = 31.25;
// The last band's upper edge.
constexpr double kTopEdge = 50000.0;

constexpr int kMinHalfLength = 8;  // L = 2N is at least 16
constexpr int kMaxHalfLength = 8192;

int BandsOfLayout(float layout) {
    if (layout < 0.5f) return 10;
    if (layout < 1.5f) return 20;
    return 30;
}

// Half-length the design uses for a requested accuracy value. Parameter values are already inside
// 10 ... 8192; a chunk may bring anything, so keep the design to sizes that make sense.
int32_t HalfLengthFor(double accuracy) {
    if (!(accuracy >= kMinHalfLength)) return kMinHalfLength;  // also NaN
    if (accuracy > kMaxHalfLength) return kMaxHalfLength;
    return static_cast<int32_t>(std::trunc(accuracy));
}

int32_t FFTSizeFor(int32_t impulseLength) {
    int32_t size = 1;
    while (size < 4 * impulseLength)
        size <<= 1;
    return size;
}

// Tap count T of a band design of M taps: M made odd.
int32_t OddTaps(int32_t taps) {
    if (taps <= 0) return 1;
    return (taps % 2 == 0) ? taps - 1 : taps;
}

// Frequency-sampling size S for T taps: 2^(trunc(log2(1.5 (T - 1))) + 1), over half again the
// taps so the inverse transform's time samples for offsets -(T-1)/2 ... (T-1)/2 do not wrap.
int32_t DesignSizeFor(int32_t oddTaps) {
    const double order = std::trunc(std::log2(1.5 * static_cast<double>(oddTaps - 1))) + 1.0;
    return int32_t{1} << static_cast<int>(order);
}

// Four-term Blackman-Harris weight at n of a window spanning 0 ... span.
double BlackmanHarris(double n, double span) {
    const double x = 2.0 * std::numbers::pi * n / span;
    return 0.35875 - 0.48829 * std::cos(x) + 0.14128 * std::cos(2.0 * x) - 0.01168 * std::cos(3.0 * x);
}

double DbToLinear(double db) {
    return std::pow(10.0, db / 20.0);
}

}  // namespace

// ---- Construction and copies --------------------------------------------------------------------

Graphic::Graphic() {
    setBounds(kAccuracy, 10.0f, 8192.0f);
    mParams[kAccuracy] = 1000.0f;
    setBounds(kMasterGain, -64.0f, 64.0f);
    setBounds(kGainRange, 1.5f, 120.0f);
    mParams[kGainRange] = 48.0f;
    // A command, not a stored value; the bounds describe a button.
    setBounds(kResetBands, 0.0f, 1.0f);
    for (int k = 0; k < kMaxBands; ++k)
        setBounds(kFirstBand + k, -70.0f, 70.0f);
    setBounds(kBandLayout, -0.5f, 2.49f);
}

Graphic::Graphic(const Graphic& other) {
    CopyFrom(other);
}

Graphic& Graphic::operator=(const Graphic& other) {
    if (this != &other) {
        ReleaseBuffers();
        CopyFrom(other);
    }
    return *this;
}

Graphic::~Graphic() {
    ReleaseBuffers();
}

void Graphic::CopyFrom(const Graphic& other) {
    mNeedsInitialize = other.mNeedsInitialize;
    mParamsDirty = other.mParamsDirty;
    mSingleBandPending = other.mSingleBandPending;
    mPendingBand = other.mPendingBand;
    mChannelCount = other.mChannelCount;
    mSampleRate = other.mSampleRate;
    std::memcpy(mParams, other.mParams, sizeof mParams);
    std::memcpy(mAppliedGain, other.mAppliedGain, sizeof mAppliedGain);
    std::memcpy(mMinimum, other.mMinimum, sizeof mMinimum);
    std::memcpy(mMaximum, other.mMaximum, sizeof mMaximum);
    mImpulseLength = other.mImpulseLength;
    mHalfLength = other.mHalfLength;
    mRequestedHalfLength = other.mRequestedHalfLength;
    mFFTSize = other.mFFTSize;
    mBlockLength = other.mBlockLength;
    mLatency = other.mLatency;
    mBandCount = other.mBandCount;
    mAppliedMaster = other.mAppliedMaster;
    mDesignSize = other.mDesignSize;
    mAllocatedChannels = other.mAllocatedChannels;
    mPositionsBands = other.mPositionsBands;
    mPositionsRate = other.mPositionsRate;
    if (other.mStorage != nullptr) {
        // Same geometry, same layout: one copy of the block carries the whole design. The
        // engine shares its plan and gets scratch of its own.
        const std::size_t doubles = CarveBuffers();
        mStorage = detail::AllocateAlignedArrayUninitialised<double>(doubles);
        CarveBuffers();
        std::memcpy(mStorage, other.mStorage, doubles * sizeof(double));
        detail::CopyEngineWithOwnScratch(mDesignFFT, other.mDesignFFT);
    } else {
        mDesignFFT.DeInit();
    }
    mConvolver = other.mConvolver;
}

// ---- Buffers ------------------------------------------------------------------------------------

std::size_t Graphic::CarveBuffers() {
    std::size_t offset = 0;
    auto take = [&](std::size_t count) -> double* {
        double* p = (mStorage != nullptr) ? mStorage + offset : nullptr;
        offset += detail::AlignedStride<double>(count);
        return p;
    };
    mImpulse = take(static_cast<std::size_t>(mImpulseLength));
    mWindow = take(static_cast<std::size_t>(mHalfLength));
    const std::size_t bins = static_cast<std::size_t>(mDesignSize) / 2 + 1;
    mBinBand = take(bins);
    mBinFalling = take(bins);
    mDesignRe = take(static_cast<std::size_t>(mDesignSize));
    mDesignIm = take(static_cast<std::size_t>(mDesignSize));
    return offset;
}

void Graphic::AllocateBuffers() {
    ReleaseBuffers();
    mAllocatedChannels = std::max(mChannelCount, 0);
    const std::size_t doubles = CarveBuffers();
    mStorage = detail::AllocateAlignedArray<double>(doubles);  // zeroed
    CarveBuffers();
    // Taps 1 ... L - 1: a block is then fftSize - L + 2 frames long.
    mConvolver.Init(mAllocatedChannels, mImpulseLength - 1, mFFTSize);
}

void Graphic::ReleaseBuffers() {
    detail::FreeAlignedArray(mStorage);
    mStorage = nullptr;
    mImpulse = mWindow = mBinBand = mBinFalling = nullptr;
    mDesignRe = mDesignIm = nullptr;
    mPositionsBands = 0;
    mConvolver.Release();
}

void Graphic::ClearIOArrays() {
    mConvolver.Reset();
}

// ---- Settings -----------------------------------------------------------------------------------

void Graphic::setBounds(int index, float minimum, float maximum) {
    mMinimum[index] = minimum;
    mMaximum[index] = maximum;
}

void Graphic::GetBounds(int index, float& minimum, float& maximum) const {
    if (index < 0 || index >= kParameterCount) return;
    minimum = mMinimum[index];
    maximum = mMaximum[index];
}

float Graphic::Midpoint(int index) const {
    return static_cast<float>((static_cast<double>(mMinimum[index]) + mMaximum[index]) / 2.0);
}

float Graphic::GetParameter(int index) const {
    if (index < 0 || index >= kParameterCount) return 0.0f;
    return mParams[index];
}

void Graphic::SetParameter(int index, float value) {
    if (index < 0 || index >= kParameterCount) return;
    if (index == kResetBands) {
        for (int k = 0; k < kMaxBands; ++k)
            mParams[kFirstBand + k] = 0.0f;
        mParamsDirty = true;
        return;
    }
    // Out of range (NaN included) means "the middle of the range", not the nearest end.
    if (!(value >= mMinimum[index] && value <= mMaximum[index])) value = Midpoint(index);
    if (value == mParams[index]) return;

    if (index == kBandLayout) {
        const float layout = value < 0.5f ? 0.0f : (value < 1.5f ? 1.0f : 2.0f);
        if (std::fabs(static_cast<double>(layout) - mParams[index]) <= 1e-7) return;
        mParams[index] = layout;
        mBandCount = BandsOfLayout(layout);
        mParamsDirty = true;
        return;
    }
    if (index == kGainRange) {
        const double range = std::trunc(static_cast<double>(value) * 10.0 + 0.499) / 10.0;
        mParams[index] = static_cast<float>(range);
        const double half = static_cast<double>(mParams[index]) / 2.0;
        for (int k = 0; k < mBandCount; ++k) {
            float& gain = mParams[kFirstBand + k];
            if (gain > half)
                gain = static_cast<float>(half - 0.01);
            else if (gain < -half)
                gain = static_cast<float>(-(half - 0.01));
        }
        mParamsDirty = true;
        return;
    }
    if (index >= kFirstBand && index < kFirstBand + kMaxBands) {
        if (std::fabs(static_cast<double>(value) - mParams[index]) <= 1e-7) return;
        const double half = static_cast<double>(mParams[kGainRange]) / 2.0;
        double gain = value;
        if (gain >= half)
            gain = half - 0.01;
        else if (gain <= -half)
            gain = -half + 0.01;
        mParams[index] = static_cast<float>(gain);
        // One band alone is applied incrementally; a second one before the next processing call
        // turns the update into a full redesign.
        if (!mSingleBandPending) {
            mSingleBandPending = true;
            mPendingBand = index - kFirstBand;
        } else {
            mParamsDirty = true;
        }
        return;
    }
    mParams[index] = value;
    if (index == kAccuracy) {
        mRequestedHalfLength = HalfLengthFor(value);
        mParamsDirty = true;
    }
    // The master gain raises no flag: SetRuntimeParams compares it with the applied value.
}

void Graphic::SetChannels(int channels) {
    mChannelCount = channels;
    mNeedsInitialize = true;
}

void Graphic::SetSampleRate(int sampleRate) {
    mSampleRate = sampleRate;
    mNeedsInitialize = true;
}

int Graphic::GetChunk(void** data, bool /*isPreset*/) {
    if (data != nullptr) *data = mParams;
    return kChunkBytes;
}

int Graphic::SetChunk(void* data, int size, bool /*isPreset*/) {
    const int bytes = std::clamp(size, 0, kChunkBytes);
    if (data == nullptr) return bytes;
    std::memcpy(mParams, data, static_cast<std::size_t>(bytes));
    // A chunk may come from anywhere: a value outside its range (NaN and infinities included)
    // becomes the range's midpoint, as through SetParameter, so none reaches the design.
    for (int i = 0; i < kParameterCount; ++i)
        if (!(mParams[i] >= mMinimum[i] && mParams[i] <= mMaximum[i])) mParams[i] = Midpoint(i);
    mBandCount = BandsOfLayout(mParams[kBandLayout]);
    mRequestedHalfLength = HalfLengthFor(mParams[kAccuracy]);
    mNeedsInitialize = true;
    mParamsDirty = true;
    return bytes;
}

int Graphic::GetLatency() const {
    const int32_t n = mRequestedHalfLength;
    const int32_t length = 2 * n;
    return FFTSizeFor(length) - length + 1 + n;
}

double Graphic::GetBandFrequency(int band) const {
    if (band < 0 || band >= mBandCount) return 0.0;
    return kBaseFrequency * std::pow(LayoutRatio(), band);
}

// ---- Applying changes ---------------------------------------------------------------------------

void Graphic::UpdateImpulses() {
    SetRuntimeParams();
}

void Graphic::SetRuntimeParams() {
    if (mNeedsInitialize) {
        Initialize();
    } else if (mParamsDirty) {
        BuildEqImpulse();
        ComputeFilterXfm();
    } else if (mSingleBandPending) {
        const int band = mPendingBand;
        if (band < mBandCount) {
            UpdateImpulse(band, mAppliedGain[band], mParams[kFirstBand + band]);
            ComputeFilterXfm();
        }
    }
    mParamsDirty = false;
    mSingleBandPending = false;
    if (mParams[kMasterGain] != mAppliedMaster && mImpulse != nullptr) ComputeFilterXfm();
}

void Graphic::Initialize() {
    Deinitialize();
    SampleRateDependentInitialization();
    BuildEqImpulse();
    ComputeFilterXfm();
    mNeedsInitialize = false;
}

void Graphic::Deinitialize() {
    ReleaseBuffers();
    mDesignFFT.DeInit();
    mImpulseLength = 0;
    mHalfLength = 0;
    mFFTSize = 0;
    mDesignSize = 0;
    mBlockLength = 0;
    mLatency = 0;
    mAllocatedChannels = 0;
}

void Graphic::SampleRateDependentInitialization() {}

void Graphic::Resume() {
    if (mStorage != nullptr) ClearIOArrays();
}

void Graphic::Suspend() {}

// ---- Design -------------------------------------------------------------------------------------

double Graphic::LayoutRatio() const {
    switch (mBandCount) {
        case 10:
            return 2.0;
        case 20:
            return 1.4142135623730951;
        default:
            return 1.2599210498948732;
    }
}

void Graphic::BandEdges(int band, double& lower, double& upper) const {
    const double r = LayoutRatio();
    const double centre = kBaseFrequency * std::pow(r, band);
    lower = (band == 0) ? 0.0 : centre / r;
    upper = (band == mBandCount - 1) ? kTopEdge : centre * r;
}

void Graphic::ExtendImpulseLength(int halfLength) {
    const int32_t length = 2 * halfLength;
    if (length == mImpulseLength && mStorage != nullptr) return;
    mHalfLength = halfLength;
    mImpulseLength = length;
    mFFTSize = FFTSizeFor(length);
    mBlockLength = mFFTSize - length + 2;
    mLatency = mFFTSize - length + 1 + halfLength;
    mDesignSize = DesignSizeFor(OddTaps(length));
    AllocateBuffers();
    mDesignFFT.Init(mDesignSize);
    // Window weights of the band designs, by tap offset d from the centre (n = (T-1)/2 + d).
    const int32_t taps = OddTaps(length);
    const double span = taps - 1;
    const int32_t centre = (taps - 1) / 2;  // T is odd
    for (int32_t d = 0; d <= centre; ++d)
        mWindow[d] = BlackmanHarris(static_cast<double>(centre + d), span);
}

void Graphic::ClearImpulse() {
    std::fill(mImpulse, mImpulse + mImpulseLength, 0.0);
}

void Graphic::BuildFlatImpulse() {
    ClearImpulse();
    mImpulse[mHalfLength] = 1.0;
}

void Graphic::BuildEqImpulse() {
    ExtendImpulseLength(std::clamp(mRequestedHalfLength, kMinHalfLength, kMaxHalfLength));
    if (mPositionsBands != mBandCount || mPositionsRate != mSampleRate) ComputeBinPositions();
    BuildFlatImpulse();
    std::fill(std::begin(mAppliedGain), std::end(mAppliedGain), 0.0f);
    for (int k = 0; k < mBandCount; ++k) {
        const float gain = mParams[kFirstBand + k];
        if (gain != 0.0f) {
            double lower, upper;
            BandEdges(k, lower, upper);
            // The flat impulse already holds every band's share at unity: swap this one's for
            // its share at the band gain.
            AddEqBand(mHalfLength, mImpulseLength, lower, upper, 0.0, true, k);
            AddEqBand(mHalfLength, mImpulseLength, lower, upper, gain, false, k);
        }
        mAppliedGain[k] = gain;
    }
}

void Graphic::ComputeBinPositions() {
    // Position on the band axis: p = k exactly at centre k; a bin between centres j and j + 1
    // belongs to those two bands, in half-cosine proportions.
    const int32_t size = mDesignSize;
    const double rate = mSampleRate;
    const double logRatio = std::log(LayoutRatio());
    const double logBase = std::log(kBaseFrequency) / logRatio;
    mBinBand[0] = -1.0;
    mBinFalling[0] = 0.0;
    for (int32_t m = 1; m <= size / 2; ++m) {
        const double f = static_cast<double>(m) * rate / static_cast<double>(size);
        const double p = std::log(f) / logRatio - logBase;
        const double j = (p >= 0.0) ? std::trunc(p + 1e-7) : -1.0;
        mBinBand[m] = j;
        mBinFalling[m] = (j < 0.0) ? 0.0 : (std::cos(std::numbers::pi * (p - j)) + 1.0) / 2.0;
    }
    mPositionsBands = mBandCount;
    mPositionsRate = mSampleRate;
}

void Graphic::UpdateImpulse(int band, double oldGainDb, double newGainDb) {
    double lower, upper;
    BandEdges(band, lower, upper);
    AddEqBand(mHalfLength, mImpulseLength, lower, upper, oldGainDb, true, band);
    AddEqBand(mHalfLength, mImpulseLength, lower, upper, newGainDb, false, band);
    mAppliedGain[band] = static_cast<float>(newGainDb);
}

void Graphic::AddEqBand(int halfLength, int taps, double lower, double upper, double gainDb, bool subtract, int band) {
    const double gain = DbToLinear(gainDb);
    const int32_t oddTaps = OddTaps(taps);
    const double rate = mSampleRate;
    // A band that is the whole spectrum (or a one-tap design) is a plain gain on the centre tap;
    // that path adds whatever the subtract flag says.
    if (oddTaps == 1 || (lower <= 0.0 && upper >= rate / 2.0)) {
        mImpulse[halfLength] += gain;
        return;
    }
    const int32_t size = DesignSizeFor(oddTaps);
    assert(size == mDesignSize && "band designs use the plan made for the impulse length");
    const int32_t half = size / 2;
    double* re = mDesignRe;
    double* im = mDesignIm;
    std::fill(re, re + size, 0.0);
    std::fill(im, im + size, 0.0);

    assert(mPositionsBands == mBandCount && mPositionsRate == mSampleRate);
    for (int32_t m = 1; m <= half; ++m) {
        const double j = mBinBand[m];
        double value = 0.0;
        if (j < 0.0) {
            if (band == 0) value = gain;  // below the first centre everything is band 1's
        } else if (j == band) {
            value = gain * mBinFalling[m];
        } else if (j + 1.0 == band) {
            value = gain * (1.0 - mBinFalling[m]);
        }
        re[m] = value;
        re[size - m] = value;
    }
    if (lower <= 0.0) re[0] = gain;
    if (upper >= rate / 2.0) re[half] = gain;

    // Real, even spectrum -> real, even response; offsets +d and -d get the same sample.
    mDesignFFT.FFT(re, im, -1);
    for (int d = 0; d <= (oddTaps - 1) / 2; ++d)
        PlaceEqEcho(d, re[d] / static_cast<double>(size) * mWindow[d], subtract);
}

void Graphic::PlaceEqEcho(int offset, double value, bool subtract) {
    if (subtract) value = -value;
    mImpulse[mHalfLength + offset] += value;
    if (offset != 0) mImpulse[mHalfLength - offset] += value;
}

void Graphic::AmplifyImpulse(double gain) {
    // Tap 0 is always zero, so the convolver runs taps 1 ... L - 1 and its blocks are one frame longer.
    mConvolver.SetResponse(mImpulse + 1, gain);
}

void Graphic::ComputeFilterXfm() {
    assert(mImpulse[0] == 0.0);
    AmplifyImpulse(DbToLinear(mParams[kMasterGain]));
    mAppliedMaster = mParams[kMasterGain];
}

float Graphic::ComputeFilterResponse(float frequency) {
    SetRuntimeParams();
    if (mImpulse == nullptr) return 0.0f;
    // The impulse is exactly symmetric about tap N, so its response is e^(-i w N) times a real
    // amplitude.
    const double w = 2.0 * std::numbers::pi * static_cast<double>(frequency) / static_cast<double>(mSampleRate);
    double amplitude = mImpulse[mHalfLength];
    for (int32_t d = 1; d < mHalfLength; ++d)
        amplitude += 2.0 * mImpulse[mHalfLength + d] * std::cos(w * d);
    amplitude *= DbToLinear(mParams[kMasterGain]);
    return static_cast<float>(20.0 * std::log10(std::fabs(amplitude)));
}

// ---- Convolution --------------------------------------------------------------------------------

void Graphic::Process(float** in, float** out, int numChannels, int numFrames) {
    SetRuntimeParams();
    mConvolver.Process(in, out, numChannels, numFrames);
}

void Graphic::ProcessOneSample(float* in, float* out) {
    SetRuntimeParams();
    mConvolver.ProcessFrame(in, out);
}

}  // namespace dsp
