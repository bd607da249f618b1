#include "dsp/frequency_analysis.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <numbers>

#include "dsp/fft_window.h"

namespace dsp {

namespace {

int PowerOfTwoAtLeast(int n, int lo, int hi) {
    int size = lo;
    while (size < n && size < hi)
        size *= 2;
    return size;
}

}  // namespace

// ---- FrequencyAnalysisWorker ----------------------------------------------------------------------

void FrequencyAnalysisWorker::Init(int fftSize, int windowType, int numChannels, int hop) {
    mFFTSize = PowerOfTwoAtLeast(fftSize, kMinFFTSize, kMaxFFTSize);
    mHop = hop < 1 ? mFFTSize / 2 : std::min(hop, mFFTSize);
    mChannels = std::clamp(numChannels, 1, kMaxChannels);
    unsigned int flags = 0;
    GetFlagsAndOffsetFromWindowType(windowType, flags, mOffset);
    mWindow.assign(static_cast<std::size_t>(mFFTSize), 0.0);
    GetFFTWindow(mWindow.data(), mFFTSize, 1.0, flags, 140.0);
    const auto size = static_cast<std::size_t>(mFFTSize);
    mInput.assign(size * static_cast<std::size_t>(mChannels), 0.0f);
    mPower.assign(static_cast<std::size_t>(GetBinCount()) * static_cast<std::size_t>(mChannels), 0.0);
    mWork.assign(size + 2, 0.0);
    mSpectrum.assign(size + 2, 0.0);
    mFFT.Init(mFFTSize);
    Reset();
}

void FrequencyAnalysisWorker::Reset() {
    std::fill(mInput.begin(), mInput.end(), 0.0f);
    std::fill(mPower.begin(), mPower.end(), 0.0);
    mFill = 0;
    mFrames = 0;
}

void FrequencyAnalysisWorker::AnalyseFrame() {
    const auto size = static_cast<std::size_t>(mFFTSize);
    const auto bins = static_cast<std::size_t>(GetBinCount());
    for (std::size_t c = 0; c < static_cast<std::size_t>(mChannels); ++c) {
        const float* x = mInput.data() + c * size;
        for (std::size_t i = 0; i < size; ++i)
            mWork[i] = mWindow[i] * static_cast<double>(x[i]);
        mFFT.FFT(mWork.data(), mSpectrum.data());  // divided by N
        double* power = mPower.data() + c * bins;
        for (std::size_t k = 0; k < bins; ++k)
            power[k] += mSpectrum[2 * k] * mSpectrum[2 * k] + mSpectrum[2 * k + 1] * mSpectrum[2 * k + 1];
    }
    ++mFrames;
}

void FrequencyAnalysisWorker::Add(const float* const* data, int numChannels, int numFrames) {
    if (mFFTSize == 0) return;
    const auto size = static_cast<std::size_t>(mFFTSize);
    const int present = std::clamp(numChannels, 0, mChannels);
    for (int done = 0; done < numFrames;) {
        const int n = std::min(numFrames - done, mFFTSize - mFill);
        for (int c = 0; c < mChannels; ++c) {
            float* to = mInput.data() + static_cast<std::size_t>(c) * size + static_cast<std::size_t>(mFill);
            if (c < present)
                std::memcpy(to, data[c] + done, static_cast<std::size_t>(n) * sizeof(float));
            else
                std::fill_n(to, n, 0.0f);
        }
        mFill += n;
        done += n;
        if (mFill == mFFTSize) {
            AnalyseFrame();
            // The next frame starts one hop later: keep what it shares with this one.
            const auto keep = static_cast<std::size_t>(mFFTSize - mHop);
            for (int c = 0; c < mChannels; ++c) {
                float* frame = mInput.data() + static_cast<std::size_t>(c) * size;
                std::memmove(frame, frame + mHop, keep * sizeof(float));
            }
            mFill = mFFTSize - mHop;
        }
    }
}

void FrequencyAnalysisWorker::Finish() {
    if (mFrames > 0 || mFill == 0) return;
    const auto size = static_cast<std::size_t>(mFFTSize);
    for (int c = 0; c < mChannels; ++c) {
        float* frame = mInput.data() + static_cast<std::size_t>(c) * size;
        std::fill(frame + mFill, frame + size, 0.0f);
    }
    AnalyseFrame();
    mFill = 0;
}

void FrequencyAnalysisWorker::GetSpectrumDb(int channel, double* levels) const {
    const int bins = GetBinCount();
    const int first = channel < 0 ? 0 : std::min(channel, mChannels - 1);
    const int last = channel < 0 ? mChannels - 1 : first;
    const double frames = static_cast<double>(std::max(1LL, mFrames)) * (last - first + 1);
    for (int k = 0; k < bins; ++k) {
        double sum = 0.0;
        for (int c = first; c <= last; ++c)
            sum += mPower[static_cast<std::size_t>(c) * static_cast<std::size_t>(bins) + static_cast<std::size_t>(k)];
        double amplitude = mOffset * std::sqrt(sum / frames);
        if (k == 0 || k == bins - 1) amplitude *= std::numbers::sqrt2 / 2.0;
        levels[k] = amplitude > 0.0 ? 20.0 * std::log10(amplitude) : -std::numeric_limits<double>::infinity();
    }
}

// ---- FFTFilt ----------------------------------------------------------------------------------------

namespace {

constexpr double kLowestGainDb = -150.0;
constexpr double kHighestGainDb = 60.0;

}  // namespace

double FFTFilt::GetCurveDb(double frequency) const {
    if (mCurve.empty()) return 0.0;
    if (!(frequency > mCurve.front().frequency)) return mCurve.front().gainDb;
    if (frequency >= mCurve.back().frequency) return mCurve.back().gainDb;
    const auto after = std::upper_bound(mCurve.begin(), mCurve.end(), frequency,
                                        [](double f, const FFTFiltPoint& p) { return f < p.frequency; });
    const FFTFiltPoint& a = *(after - 1);
    const FFTFiltPoint& b = *after;
    const double t = std::log(frequency / a.frequency) / std::log(b.frequency / a.frequency);
    return a.gainDb + t * (b.gainDb - a.gainDb);
}

void FFTFilt::Init(int numChannels, double sampleRate, const std::vector<FFTFiltPoint>& curve, int taps) {
    const double rate = sampleRate > 0.0 && std::isfinite(sampleRate) ? sampleRate : 44100.0;
    mCurve.clear();
    for (const FFTFiltPoint& p : curve)
        if (p.frequency > 0.0 && std::isfinite(p.frequency) && std::isfinite(p.gainDb))
            mCurve.push_back({p.frequency, std::clamp(p.gainDb, kLowestGainDb, kHighestGainDb)});
    // Of two points at one frequency the later one counts.
    std::stable_sort(mCurve.begin(), mCurve.end(),
                     [](const FFTFiltPoint& a, const FFTFiltPoint& b) { return a.frequency < b.frequency; });
    for (std::size_t i = mCurve.size(); i-- > 1;)
        if (mCurve[i - 1].frequency == mCurve[i].frequency) mCurve.erase(mCurve.begin() + static_cast<long>(i - 1));

    int length = taps;
    if (length < 1) length = PowerOfTwoAtLeast(static_cast<int>(std::ceil(rate / 4.0)) + 1, 16, 1 << 20) - 1;
    length = std::min(length | 1, (1 << 20) - 1);

    // The curve on a grid four times finer than the filter, as a zero-phase spectrum; its inverse
    // transform is the ideal impulse, centred on sample 0 and circular.
    const int grid = PowerOfTwoAtLeast(4 * length, 16, 1 << 22);
    std::vector<double> re(static_cast<std::size_t>(grid)), im(static_cast<std::size_t>(grid), 0.0);
    for (int k = 0; k <= grid / 2; ++k) {
        const double gain = std::pow(10.0, GetCurveDb(k * rate / grid) / 20.0);
        re[static_cast<std::size_t>(k)] = gain;
        re[static_cast<std::size_t>((grid - k) % grid)] = gain;
    }
    IppFFT fft(grid);
    fft.FFT(re.data(), im.data(), -1);
    const int half = (length - 1) / 2;
    mImpulse.assign(static_cast<std::size_t>(length), 0.0);
    for (int j = 0; j < length; ++j) {
        const double phase = 2.0 * std::numbers::pi * j / (length - 1 > 0 ? length - 1 : 1);
        const double window = length == 1 ? 1.0 : 0.42 - 0.5 * std::cos(phase) + 0.08 * std::cos(2.0 * phase);
        const int n = ((j - half) % grid + grid) % grid;
        mImpulse[static_cast<std::size_t>(j)] = window * re[static_cast<std::size_t>(n)] / grid;
    }
    // The window is 1 at the centre tap, so a flat stretch of the curve keeps its gain exactly.
    const int fftSize = PowerOfTwoAtLeast(2 * length, 16, 1 << 22);
    mConvolver.Init(std::clamp(numChannels, 0, 32), length, fftSize);
    mConvolver.SetResponse(mImpulse.data(), 1.0);
}

}  // namespace dsp
