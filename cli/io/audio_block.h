#pragma once
// A block of non-interleaved float audio: one contiguous run of samples per channel, full scale
// at ±1.0. Sized once; reading and writing reuse it block after block.

#include <cstddef>
#include <vector>

namespace kesta {

class AudioBlock {
public:
    AudioBlock(int channels, std::size_t capacityFrames)
        : mChannels(channels), mCapacity(capacityFrames), mSamples(std::size_t(channels) * capacityFrames) {}

    int Channels() const { return mChannels; }
    std::size_t Capacity() const { return mCapacity; }
    // Frames holding audio, at most Capacity().
    std::size_t Frames() const { return mFrames; }
    void SetFrames(std::size_t frames) { mFrames = frames < mCapacity ? frames : mCapacity; }

    float* Channel(int channel) { return mSamples.data() + std::size_t(channel) * mCapacity; }
    const float* Channel(int channel) const { return mSamples.data() + std::size_t(channel) * mCapacity; }

private:
    int mChannels;
    std::size_t mCapacity;
    std::size_t mFrames = 0;
    std::vector<float> mSamples;
};

}  // namespace kesta
