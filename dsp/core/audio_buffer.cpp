#include "dsp/audio_buffer.h"

#include <algorithm>

namespace dsp {

AudioBuffer::AudioBuffer() = default;

AudioBuffer::AudioBuffer(int numChannels, int bufferSize) {
    Resize(numChannels, bufferSize);
}

// Copies own their memory: a member-wise copy of the pointer array would free it twice.
AudioBuffer::AudioBuffer(const AudioBuffer& other) {
    *this = other;
}

AudioBuffer& AudioBuffer::operator=(const AudioBuffer& other) {
    if (this == &other) return *this;
    DeleteBuffer(&mBuffers, mChannelCapacity);
    mBufferSize = mFrameCapacity = mNumChannels = mChannelCapacity = 0;
    if (other.mBuffers != nullptr) {
        mBuffers = AllocateBuffer(other.mChannelCapacity, other.mFrameCapacity);
        mChannelCapacity = other.mChannelCapacity;
        mFrameCapacity = other.mFrameCapacity;
        for (int ch = 0; ch < mChannelCapacity; ++ch)
            std::copy_n(other.mBuffers[ch], mFrameCapacity, mBuffers[ch]);
    }
    mBufferSize = other.mBufferSize;
    mNumChannels = other.mNumChannels;
    return *this;
}

AudioBuffer::~AudioBuffer() {
    DeleteBuffer(&mBuffers, mChannelCapacity);
}

void AudioBuffer::Resize(int numChannels, int bufferSize) {
    if (bufferSize > mFrameCapacity || numChannels > mChannelCapacity) {
        DeleteBuffer(&mBuffers, mChannelCapacity);
        mFrameCapacity = 0;
        mChannelCapacity = 0;
        // An empty request keeps the buffer unallocated, so GetBuffersAsRaw() stays null.
        if (numChannels > 0) mBuffers = AllocateBuffer(numChannels, bufferSize);
        mFrameCapacity = bufferSize;
        mChannelCapacity = numChannels;
    }
    mBufferSize = bufferSize;
    mNumChannels = numChannels;
}

void AudioBuffer::ZeroBuffers() {
    for (int ch = 0; ch < mNumChannels; ++ch)
        std::fill_n(mBuffers[ch], mBufferSize, 0.0f);
}

std::vector<float*> AudioBuffer::GetBuffersAsFloats(int offset) {
    std::vector<float*> channels(static_cast<size_t>(mNumChannels));
    for (int ch = 0; ch < mNumChannels; ++ch)
        channels[static_cast<size_t>(ch)] = mBuffers[ch] + offset;
    return channels;
}

std::vector<void*> AudioBuffer::GetBuffersAsVoid(int offset) {
    std::vector<void*> channels(static_cast<size_t>(mNumChannels));
    for (int ch = 0; ch < mNumChannels; ++ch)
        channels[static_cast<size_t>(ch)] = mBuffers[ch] + offset;
    return channels;
}

float** AudioBuffer::AllocateBuffer(int numChannels, int numFrames) {
    auto** buffers = new float*[static_cast<size_t>(numChannels)]();
    try {
        for (int ch = 0; ch < numChannels; ++ch)
            buffers[ch] = new float[static_cast<size_t>(numFrames)];
    } catch (...) {
        DeleteBuffer(&buffers, numChannels);
        throw;
    }
    return buffers;
}

void AudioBuffer::DeleteBuffer(float*** buffers, int numChannels) {
    if (*buffers == nullptr) return;
    for (int ch = 0; ch < numChannels; ++ch)
        delete[](*buffers)[ch];
    delete[] * buffers;
    *buffers = nullptr;
}

}  // namespace dsp
