#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>

#include "dsp/levels.h"

namespace dsp {

namespace {

constexpr float kFullScale = 32767.0f / 32768.0f;
constexpr int kNoBits = std::numeric_limits<int>::max();

double Db(double linear) {
    if (!(linear > 0.0)) return -std::numeric_limits<double>::infinity();
    return 20.0 * std::log10(linear);
}

// Exponent of the least significant bit set in a non-zero float: x = odd * 2^exponent.
int LowestBitExponent(float x) {
    const uint32_t bits = std::bit_cast<uint32_t>(x);
    const int biased = static_cast<int>((bits >> 23) & 0xFFu);
    const uint32_t mantissa = bits & 0x7FFFFFu;
    if (biased == 0) return -149 + std::countr_zero(mantissa);  // subnormal
    return biased - 150 + std::countr_zero(mantissa | 0x800000u);
}

}  // namespace

FindLevels::FindLevels(int sampleRate)
    : mSampleRate(std::max(1, sampleRate)), mWindowFrames(std::max(1, (mSampleRate + 10) / 20)) {}

bool FindLevels::SetSelection(long long, long long length) {
    mSelectionLength = std::max(0LL, length);
    return true;
}

void FindLevels::Start(float* hostPointer) {
    DSPAnalyzer::Start(hostPointer);
    mFramesRead = 0;
    mWindowFill = 0;
    mChannels = 0;
    for (Running& r : mRunning)
        r = Running{};
    for (Running& r : mRunning)
        r.lowestExponent = kNoBits;
    mStats = Stats{};
}

bool FindLevels::IsCompleted() const {
    return mFramesRead >= mSelectionLength;
}

float FindLevels::GetProgress() const {
    if (mSelectionLength <= 0) return 100.0f;
    return 100.0f * static_cast<float>(mFramesRead) / static_cast<float>(mSelectionLength);
}

void FindLevels::CloseWindow(int channels) {
    for (int c = 0; c < channels; ++c) {
        Running& r = mRunning[c];
        if (r.loudestWindow < 0.0 || r.windowSquares > r.loudestWindow) r.loudestWindow = r.windowSquares;
        if (r.quietestWindow < 0.0 || r.windowSquares < r.quietestWindow) r.quietestWindow = r.windowSquares;
        r.windowSquares = 0.0;
    }
    mWindowFill = 0;
}

long long FindLevels::Analyze(float** data, int numChannels, int numFrames) {
    if (numFrames < 1) return 0;
    if (mFramesRead == 0) mChannels = std::clamp(numChannels, 0, Stats::kMaxChannels);
    const int channels = std::min(mChannels, std::max(numChannels, 0));
    for (int done = 0; done < numFrames;) {
        const int n = std::min(numFrames - done, mWindowFrames - mWindowFill);
        for (int c = 0; c < channels; ++c) {
            Running& r = mRunning[c];
            const float* x = data[c] + done;
            double sum = r.sum, squares = r.squares, window = r.windowSquares;
            float previous = r.previous;
            bool started = mFramesRead + done > 0;
            for (int i = 0; i < n; ++i) {
                const float v = x[i];
                const double d = v;
                sum += d;
                squares += d * d;
                window += d * d;
                if (!started || v < r.minimum) r.minimum = v;
                if (!started || v > r.maximum) r.maximum = v;
                if (std::fabs(v) >= kFullScale) ++r.fullScale;
                if (started && v == previous)
                    ++r.run;
                else
                    r.run = 1;
                r.longestRun = std::max(r.longestRun, r.run);
                if (started && (previous < 0.0f) != (v < 0.0f)) ++r.crossings;
                if (v != 0.0f) {
                    r.any = true;
                    r.lowestExponent = std::min(r.lowestExponent, LowestBitExponent(v));
                }
                previous = v;
                started = true;
            }
            r.sum = sum, r.squares = squares, r.windowSquares = window, r.previous = previous;
        }
        done += n;
        mWindowFill += n;
        if (mWindowFill == mWindowFrames) CloseWindow(channels);
    }
    mFramesRead += numFrames;
    return numFrames;
}

void FindLevels::Done() {
    mStats = Stats{};
    mStats.numChannels = mChannels;
    if (mFramesRead == 0) return;
    // A selection shorter than one window is measured as one window of what there is.
    const bool partialOnly = mRunning[0].loudestWindow < 0.0 && mWindowFill > 0;
    const int windowFrames = partialOnly ? mWindowFill : mWindowFrames;
    if (partialOnly) CloseWindow(mChannels);
    const auto frames = static_cast<double>(mFramesRead);
    for (int c = 0; c < mChannels; ++c) {
        const Running& r = mRunning[c];
        StatData& s = mStats.channel[c];
        s.frames = mFramesRead;
        s.dcOffset = r.sum / frames;
        s.minimum = r.minimum;
        s.maximum = r.maximum;
        s.peakDb = Db(std::max(std::fabs(static_cast<double>(r.minimum)), std::fabs(static_cast<double>(r.maximum))));
        s.rmsDb = Db(std::sqrt(r.squares / frames));
        s.loudestRmsDb = Db(std::sqrt(r.loudestWindow / windowFrames));
        s.quietestRmsDb = Db(std::sqrt(r.quietestWindow / windowFrames));
        s.crestFactorDb = r.any ? s.peakDb - s.rmsDb : 0.0;
        s.fullScaleCount = r.fullScale;
        s.longestRun = r.longestRun;
        s.bitDepth = r.any ? std::clamp(1 - r.lowestExponent, 1, 32) : 0;
        s.zeroCrossings = r.crossings;
    }
}

}  // namespace dsp
