#include "level_meter.h"

#include <cmath>

namespace kesta {

void LevelMeter::Add(const AudioBlock& block) {
    const std::size_t frames = block.Frames();
    for (int c = 0; c < block.Channels(); ++c) {
        const float* x = block.Channel(c);
        double peak = mPeak[c], squares = 0.0, sum = 0.0;
        for (std::size_t i = 0; i < frames; ++i) {
            const double v = x[i];
            // An inline compare instead of a call per sample; a NaN never compares greater, so it is
            // skipped exactly as fmax skips it.
            const double magnitude = std::fabs(v);
            peak = magnitude > peak ? magnitude : peak;
            squares += v * v;
            sum += v;
        }
        mPeak[c] = peak;
        mSumSquares[c] += squares;
        mSum[c] += sum;
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
