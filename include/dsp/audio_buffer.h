#pragma once
// AudioBuffer: an owned, growable, non-interleaved multichannel float buffer used as scratch
// storage by processors. Capacity grows only when a request does not fit; a request that fits is
// served without allocating, so processors may call Resize once per block.

#include <vector>

#include "dsp/kestadsp_export.h"

namespace dsp {

class KESTADSP_API AudioBuffer {
public:
    AudioBuffer();
    AudioBuffer(int numChannels, int bufferSize);
    AudioBuffer(const AudioBuffer& other);
    AudioBuffer& operator=(const AudioBuffer& other);
    virtual ~AudioBuffer();

    // Fits within capacity: only the in-use sizes change, memory and contents are kept.
    // Otherwise everything is freed and the capacity becomes exactly the request (so one
    // dimension can shrink while the other grows). Contents are undefined after reallocation.
    void Resize(int numChannels, int bufferSize);

    // Clears the in-use region only.
    void ZeroBuffers();

    int GetBufferSize() const { return mBufferSize; }
    int GetNumChannels() const { return mNumChannels; }

    float** GetBuffersAsRaw() { return mBuffers; }
    float** GetChannelsBegin() { return mBuffers; }
    float** GetChannelsEnd() { return mBuffers + mNumChannels; }

    std::vector<float*> GetBuffersAsFloats(int offset);
    std::vector<void*> GetBuffersAsVoid(int offset);

    // Allocated sizes; not part of the processing interface but useful to hosts and tests.
    int GetFrameCapacity() const { return mFrameCapacity; }
    int GetChannelCapacity() const { return mChannelCapacity; }

private:
    static float** AllocateBuffer(int numChannels, int numFrames);
    static void DeleteBuffer(float*** buffers, int numChannels);

    int mBufferSize = 0;
    int mFrameCapacity = 0;
    int mNumChannels = 0;
    int mChannelCapacity = 0;
    float** mBuffers = nullptr;
};

}  // namespace dsp
