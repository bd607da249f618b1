#pragma once
// Per-channel levels of a stream of blocks: peak (largest magnitude), RMS and DC offset (mean),
// accumulated in double so an hour of audio sums without drift.

#include <cstdint>
#include <vector>

#include "io/audio_block.h"

namespace kesta {

struct ChannelLevels {
    double peak = 0.0;  // linear, 1.0 = full scale
    double rms = 0.0;   // linear
    double mean = 0.0;  // DC offset, linear
};

class LevelMeter {
public:
    explicit LevelMeter(int channels) : mPeak(channels, 0.0), mSumSquares(channels, 0.0), mSum(channels, 0.0) {}

    void Add(const AudioBlock& block);
    int64_t Frames() const { return mFrames; }
    std::vector<ChannelLevels> Levels() const;

private:
    std::vector<double> mPeak, mSumSquares, mSum;
    int64_t mFrames = 0;
};

}  // namespace kesta
