#include <algorithm>
#include <cmath>

#include "dsp/analysis/true_peak_kernels.h"
#include "dsp/loudness.h"

namespace dsp {

namespace {

// The interpolating filter of the true-peak recommendation, 48 taps for 4x oversampling, as its
// four phases: phase p gives the value p / 4 of a sample period after the sample six back.
constexpr float kPhases[4][detail::kTruePeakTaps] = {
    {0.0017089843750f, 0.0109863281250f, -0.0196533203125f, 0.0332031250000f, -0.0594482421875f, 0.1373291015625f,
     0.9721679687500f, -0.1022949218750f, 0.0476074218750f, -0.0266113281250f, 0.0148925781250f, -0.0083007812500f},
    {-0.0291748046875f, 0.0292968750000f, -0.0517578125000f, 0.0891113281250f, -0.1665039062500f, 0.4650878906250f,
     0.7797851562500f, -0.2003173828125f, 0.1015625000000f, -0.0582275390625f, 0.0330810546875f, -0.0189208984375f},
    {-0.0189208984375f, 0.0330810546875f, -0.0582275390625f, 0.1015625000000f, -0.2003173828125f, 0.7797851562500f,
     0.4650878906250f, -0.1665039062500f, 0.0891113281250f, -0.0517578125000f, 0.0292968750000f, -0.0291748046875f},
    {-0.0083007812500f, 0.0148925781250f, -0.0266113281250f, 0.0476074218750f, -0.1022949218750f, 0.9721679687500f,
     0.1373291015625f, -0.0594482421875f, 0.0332031250000f, -0.0196533203125f, 0.0109863281250f, 0.0017089843750f},
};

// 4x uses every phase; 2x the sample points and the half-way points.
constexpr int kAllPhases[4] = {0, 1, 2, 3};
constexpr int kHalfPhases[2] = {0, 2};

const detail::TruePeakKernels& Kernels() {
    static const detail::TruePeakKernels& table = detail::PickKernels<detail::TruePeakKernels>(
        detail::portable::TruePeakKernelTable(), KESTADSP_AVX2_TABLE(detail::avx2::TruePeakKernelTable()));
    return table;
}

}  // namespace

TruePeak::TruePeak() : TruePeak(48000, 2) {}

TruePeak::TruePeak(int sampleRate, int numChannels) {
    SetFormat(sampleRate, numChannels);
}

void TruePeak::SetFormat(int sampleRate, int numChannels) {
    mSampleRate = std::clamp(sampleRate, Itu1770::kMinSampleRate, Itu1770::kMaxSampleRate);
    mChannels = std::clamp(numChannels, 1, Itu1770::kMaxChannels);
    mOversampling = mSampleRate < 96000 ? 4 : mSampleRate < 192000 ? 2 : 1;
    const auto channels = static_cast<std::size_t>(mChannels);
    mHistory.assign(channels * (kTaps - 1), 0.0f);
    mWork.assign(kTaps - 1 + kChunk, 0.0f);
    mPeaks.assign(channels, 0.0f);
    mSamplePeaks.assign(channels, 0.0f);
}

void TruePeak::Reset() {
    std::fill(mHistory.begin(), mHistory.end(), 0.0f);
    std::fill(mPeaks.begin(), mPeaks.end(), 0.0f);
    std::fill(mSamplePeaks.begin(), mSamplePeaks.end(), 0.0f);
}

void TruePeak::Process(const float* const* data, int numChannels, int numFrames) {
    if (numFrames < 1) return;
    const detail::TruePeakKernels& kernels = Kernels();
    const int channels = std::clamp(numChannels, 0, mChannels);
    const int* phases = mOversampling == 4 ? kAllPhases : kHalfPhases;
    for (int c = 0; c < mChannels; ++c) {
        const auto ch = static_cast<std::size_t>(c);
        float* history = &mHistory[ch * (kTaps - 1)];
        if (c >= channels) {  // silence: only the history changes
            std::fill(history, history + kTaps - 1, 0.0f);
            continue;
        }
        const float* x = data[c];
        mSamplePeaks[ch] = kernels.samplePeak(x, numFrames, mSamplePeaks[ch]);
        if (mOversampling == 1) continue;
        for (int done = 0; done < numFrames;) {
            const int n = std::min(kChunk, numFrames - done);
            std::copy(history, history + kTaps - 1, mWork.begin());
            std::copy(x + done, x + done + n, mWork.begin() + (kTaps - 1));
            mPeaks[ch] = kernels.interpolatedPeak(mWork.data(), n, kPhases, phases, mOversampling, mPeaks[ch]);
            std::copy(mWork.begin() + n, mWork.begin() + n + (kTaps - 1), history);
            done += n;
        }
    }
}

double TruePeak::GetTruePeak(int channel) const {
    if (channel < 0 || channel >= mChannels) return 0.0;
    const auto ch = static_cast<std::size_t>(channel);
    return std::max(mPeaks[ch], mSamplePeaks[ch]);
}

double TruePeak::GetTruePeak() const {
    double peak = 0.0;
    for (int c = 0; c < mChannels; ++c)
        peak = std::max(peak, GetTruePeak(c));
    return peak;
}

double TruePeak::GetSamplePeak(int channel) const {
    if (channel < 0 || channel >= mChannels) return 0.0;
    return mSamplePeaks[static_cast<std::size_t>(channel)];
}

}  // namespace dsp
