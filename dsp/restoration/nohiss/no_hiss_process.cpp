#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstddef>
#include <cstring>

#include "dsp/core/aligned_memory.h"
#include "dsp/core/kernel_dispatch.h"
#include "dsp/nohiss.h"
#include "dsp/restoration/nohiss/hiss_kernels.h"
#include "dsp/restoration/nohiss/hiss_record.h"

namespace dsp::nohiss {

namespace kernels {

const HissKernels& HissKernelsFor(dsp::detail::Isa isa) {
    static const HissKernels& best =
        dsp::detail::PickKernels(portable::HissKernelTable(), KESTADSP_AVX2_TABLE(avx2::HissKernelTable()));
    if (isa == dsp::detail::Isa::Best) return best;
    return dsp::detail::PickKernels(portable::HissKernelTable(), KESTADSP_AVX2_TABLE(avx2::HissKernelTable()), isa);
}

}  // namespace kernels

namespace {

// Smoothing rows hold N + 8 floats with bin 0 at index 4, so the spectral smoothing reads
// k - 2 ... k + 2 without tests.
constexpr int kGuard = 4;

// Bins 0, 1 and 2 are left alone: below about 30 Hz at 44.1 kHz / 4096 there is no hiss to
// speak of, and DC must never be modulated by a gain.
constexpr int kFirstProcessedBin = 3;

// The knee ratio, 10^(-kneeDb/20), is formed as a level kneeDb below a -50 dB reference divided by
// that reference (0.0031622776), all in single precision with powf. The float rounding of the
// reference makes it differ from a plain powf(10, -kneeDb/20) in the last bits; the gain path is
// meant to give these exact values, so keep the form.
float KneeRatio(float kneeDb) {
    return std::pow(10.0f, (-50.0f - kneeDb) / 20.0f) / 0.0031622776f;
}

OverlapSave::FFTWindowType ProcessWindow() {
    return OverlapSave::Hamming;
}

int OutputOffset(const NOHISS& record) {
    // ((V-1)*N/V)/2 in integers, the halving rounding toward zero: 1638 for N 4096, V 5.
    return ((record.overlap - 1) * record.fftSize / record.overlap) / 2;
}

int CrossfadeLength(const NOHISS& record) {
    return record.fftSize / record.overlap;
}

}  // namespace

NoHissProcess::NoHissProcess() {
    SetDefaultParameter(&mParam);
    dsp::nohiss::AllocateArrays(&mParam);
    InitEngine(mParam.channels);
}

NoHissProcess::NoHissProcess(const NOHISS* record) {
    CopyParameter(record, &mParam);
    InitEngine(mParam.channels);
}

NoHissProcess::NoHissProcess(const NoHissProcess& other)
    : OverlapSave(other),
      mSeedSmoothing(other.mSeedSmoothing),
      mDecay(other.mDecay),
      mOneMinusDecay(other.mOneMinusDecay),
      mFloorGain(other.mFloorGain),
      mOneMinusFloorGain(other.mOneMinusFloorGain),
      mKneeRatio(other.mKneeRatio) {
    CopyParameter(&other.mParam, &mParam);
    AllocateArrays();
    if (other.mStorageFloats == mStorageFloats && mStorageFloats != 0)
        std::memcpy(mStorage, other.mStorage, sizeof(float) * mStorageFloats);
}

NoHissProcess& NoHissProcess::operator=(const NoHissProcess& other) {
    if (this != &other) {
        OverlapSave::operator=(other);
        CopyParameter(&other.mParam, &mParam);
        AllocateArrays();
        if (other.mStorageFloats == mStorageFloats && mStorageFloats != 0)
            std::memcpy(mStorage, other.mStorage, sizeof(float) * mStorageFloats);
        mSeedSmoothing = other.mSeedSmoothing;
        mDecay = other.mDecay;
        mOneMinusDecay = other.mOneMinusDecay;
        mFloorGain = other.mFloorGain;
        mOneMinusFloorGain = other.mOneMinusFloorGain;
        mKneeRatio = other.mKneeRatio;
    }
    return *this;
}

NoHissProcess::~NoHissProcess() {
    detail::FreeAlignedArray(mStorage);
    FreeArrays(&mParam);
}

void NoHissProcess::InitEngine(int numChannels) {
    assert(mParam.overlap >= 2 && "overlap below 2 leaves no room for the crossfade");
    Init(mParam.fftSize, numChannels, OutputOffset(mParam), CrossfadeLength(mParam), ProcessWindow());
    AllocateArrays();
    mSeedSmoothing = true;
    UpdateParameter();
}

void NoHissProcess::AllocateArrays() {
    const std::size_t rowStride = detail::AlignedStride<float>(static_cast<std::size_t>(mFrameLength) + 2 * kGuard);
    const std::size_t rows = static_cast<std::size_t>(mNumChannels);
    const std::size_t magnitudeStride = detail::AlignedStride<float>(static_cast<std::size_t>(mFrameLength / 2 + 1));
    const std::size_t total = rows * rowStride + 2 * magnitudeStride;
    float* storage = detail::AllocateAlignedArray<float>(total);  // zeroed
    detail::FreeAlignedArray(mStorage);
    mStorage = storage;
    mStorageFloats = total;
    mSmoothing.resize(rows);
    for (std::size_t c = 0; c < rows; ++c)
        mSmoothing[c] = mStorage + c * rowStride;
    mMagnitude[0] = mStorage + rows * rowStride;
    mMagnitude[1] = mMagnitude[0] + magnitudeStride;
}

void NoHissProcess::UpdateParameter() {
    mDecay = mParam.smoothingPercent / 100.0f;
    mOneMinusDecay = 1.0f - mDecay;
    // The floor divides the reduction by 40, not 20: 24 dB gives a floor of -12 dB. Keep it.
    mFloorGain = static_cast<float>(std::pow(10.0, -static_cast<double>(mParam.reductionDb) / 40.0));
    mOneMinusFloorGain = 1.0f - mFloorGain;
    mKneeRatio = KneeRatio(mParam.kneeDb);
}

void NoHissProcess::ParameterChanged() {
    UpdateParameter();
}

void NoHissProcess::Resume() {
    for (float* row : mSmoothing)
        std::memset(row, 0, sizeof(float) * (static_cast<std::size_t>(mFrameLength) + 2 * kGuard));
    UpdateParameter();
    // The first frame of the stream seeds the smoothing with its own magnitudes. OverlapSave keeps
    // a first-frame flag of its own, but it serves the crossfade; this one belongs to the spectra.
    mSeedSmoothing = true;
    OverlapSave::Resume();
}

void NoHissProcess::Suspend() {
    OverlapSave::Suspend();
}

void NoHissProcess::TakeChannel(const NOHISS* record, int channel) {
    NOHISS single{};
    // Scalars from the record; one channel of zeroed arrays, then that channel's rows.
    CopyParameter(record, &single);
    FreeArrays(&single);
    single.channels = 1;
    dsp::nohiss::AllocateArrays(&single);
    if (single.floorRows != nullptr && channel >= 0 && channel < record->channels) {
        const int N = single.fftSize;
        assert(record_checks::ArraysHold(record, record->channels, N) &&
               "the record declares more channels or bins than its arrays hold");
        if (record->floorLevel != nullptr) single.floorLevel[0] = record->floorLevel[channel];
        if (record->floorRows != nullptr) std::copy_n(record->floorRows[channel], N, single.floorRows[0]);
        if (record->thresholdRows != nullptr) std::copy_n(record->thresholdRows[channel], N, single.thresholdRows[0]);
    }
    CopyParameter(&single, &mParam);  // reallocates only when N or C changed
    FreeArrays(&single);
}

void NoHissProcess::InitAsSingleChannel(const NOHISS* record, int channel) {
    TakeChannel(record, channel);
    InitEngine(1);
}

void NoHissProcess::SetParamFromMultiChannelParam(NOHISS* record, int channel) {
    const bool sameGeometry = record->fftSize == mFrameLength && CrossfadeLength(*record) == mCrossfadeLength &&
                              OutputOffset(*record) == mOutputOffset;
    TakeChannel(record, channel);
    if (!sameGeometry || mNumChannels != 1) {
        InitEngine(1);
        return;
    }
    ParameterChanged();
}

void NoHissProcess::OnSpectrum(float** re, float** im, int numChannels, int numBins) {
    const float divisor = static_cast<float>(mParam.fftSize) * 0.25f;
    const float d = mDecay;
    const float oneMinusD = mOneMinusDecay;
    const kernels::GainRule rule{mFloorGain, mOneMinusFloorGain, mKneeRatio};
    const int first = kFirstProcessedBin;
    const kernels::HissKernels& k = kernels::HissKernelsFor();

    // Channels go in pairs, so the smoothing recurrence of two channels runs side by side.
    for (int c = 0; c < numChannels; c += 2) {
        const bool pair = c + 1 < numChannels;
        float* mA = mMagnitude[0];
        float* mB = mMagnitude[1];
        float* sA = mSmoothing[static_cast<std::size_t>(c)] + kGuard;
        float* sB = pair ? mSmoothing[static_cast<std::size_t>(c) + 1] + kGuard : nullptr;
        k.magnitudes(re[c], im[c], mA, first, numBins, divisor);
        if (pair) k.magnitudes(re[c + 1], im[c + 1], mB, first, numBins, divisor);

        if (mSeedSmoothing) {
            // The first frame after Resume stores m.
            std::copy(mA + first, mA + numBins, sA + first);
            if (pair) std::copy(mB + first, mB + numBins, sB + first);
        } else if (pair) {
            k.smoothPair(sA, sB, mA, mB, first, numBins, d, oneMinusD);
        } else {
            kernels::scalar::SmoothRow(sA, mA, first, numBins, d, oneMinusD);
        }

        k.applyGains(re[c], im[c], sA, mParam.thresholdRows[c], first, numBins, rule);
        if (pair) k.applyGains(re[c + 1], im[c + 1], sB, mParam.thresholdRows[c + 1], first, numBins, rule);
    }
    mSeedSmoothing = false;
}

}  // namespace dsp::nohiss
