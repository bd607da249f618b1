#include "level_meter.h"

#include <cmath>

namespace kesta {

void LevelMeter::Add(const AudioBlock& block) {
    const std::size_t frames = block.Frames();
    // Eight running sums per quantity side by side: one sum would make every addition wait for the
    // one before, and this meter sees every sample a command writes.
    constexpr std::size_t kLanes = 8;
    for (int c = 0; c < block.Channels(); ++c) {
        const float* x = block.Channel(c);
        double peak[kLanes] = {}, squares[kLanes] = {}, sum[kLanes] = {};
        std::size_t i = 0;
        for (; i + kLanes <= frames; i += kLanes) {
            for (std::size_t k = 0; k < kLanes; ++k) {
                const double v = x[i + k];
                // An inline compare instead of a call per sample; a NaN never compares greater, so it
                // is skipped exactly as fmax skips it.
                const double magnitude = std::fabs(v);
                peak[k] = magnitude > peak[k] ? magnitude : peak[k];
                squares[k] += v * v;
                sum[k] += v;
            }
        }
        for (std::size_t k = 0; i < frames; ++i, ++k) {
            const double v = x[i];
            const double magnitude = std::fabs(v);
            peak[k] = magnitude > peak[k] ? magnitude : peak[k];
            squares[k] += v * v;
            sum[k] += v;
        }
        double blockPeak = mPeak[c], blockSquares = 0.0, blockSum = 0.0;
        for (std::size_t k = 0; k < kLanes; ++k) {
            blockPeak = peak[k] > blockPeak ? peak[k] : blockPeak;
            blockSquares += squares[k];
            blockSum += sum[k];
        }
        mPeak[c] = blockPeak;
        mSumSquares[c] += blockSquares;
        mSum[c] += blockSum;
    }
    mFrames += int64_t(frames);
}

std::vector<ChannelLevels> LevelMeter::Levels() const {
    std::vector<ChannelLevels> levels(mPeak.size());
    for (std::size_t c = 0; c < levels.size(); ++c) {
        levels[c].peak = mPeak[c];
        if (mFrames > 0) {
            levels[c].rms = std::sqrt(mSumSquares[c] / double(mFrames));
            levels[c].mean = mSum[c] / double(mFrames);
        }
    }
    return levels;
}

}  // namespace kesta
