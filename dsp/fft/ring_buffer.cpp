#include "dsp/ring_buffer.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <utility>

#include "dsp/core/aligned_memory.h"

namespace dsp {

namespace {

// The two pieces of a run of `count` frames starting at `index` in a ring of `capacity`: an index
// equal to the capacity is the same place as 0, so its first piece is empty.
struct Pieces {
    int first;
    int second;
};

Pieces Split(int index, int count, int capacity) {
    const int first = std::min(count, capacity - index);
    return {first, count - first};
}

}  // namespace

RingBuffer::RingBuffer() = default;

RingBuffer::RingBuffer(const RingBuffer& other)
    : mNumChannels(other.mNumChannels),
      mCapacity(other.mCapacity),
      mWriteIndex(other.mWriteIndex),
      mReadIndex(other.mReadIndex),
      mChannelStride(other.mChannelStride) {
    const std::size_t total = static_cast<std::size_t>(mNumChannels) * static_cast<std::size_t>(mChannelStride);
    mStorage = detail::AllocateAlignedArray<float>(total);
    if (total != 0) std::memcpy(mStorage, other.mStorage, total * sizeof(float));
    mBuffers.resize(static_cast<std::size_t>(mNumChannels));
    for (int ch = 0; ch < mNumChannels; ++ch)
        mBuffers[ch] = mStorage + static_cast<std::size_t>(ch) * mChannelStride;
}

RingBuffer& RingBuffer::operator=(const RingBuffer& other) {
    if (this != &other) {
        RingBuffer copy(other);
        std::swap(mBuffers, copy.mBuffers);
        std::swap(mNumChannels, copy.mNumChannels);
        std::swap(mCapacity, copy.mCapacity);
        std::swap(mWriteIndex, copy.mWriteIndex);
        std::swap(mReadIndex, copy.mReadIndex);
        std::swap(mStorage, copy.mStorage);
        std::swap(mChannelStride, copy.mChannelStride);
    }
    return *this;
}

RingBuffer::~RingBuffer() {
    Deallocate();
}

void RingBuffer::Allocate(int numChannels, int capacity) {
    assert(numChannels >= 0 && capacity >= 0);
    Deallocate();
    const auto stride = static_cast<int32_t>(detail::AlignedStride<float>(static_cast<std::size_t>(capacity)));
    mStorage =
        detail::AllocateAlignedArray<float>(static_cast<std::size_t>(numChannels) * static_cast<std::size_t>(stride));
    mBuffers.resize(static_cast<std::size_t>(numChannels));
    for (int ch = 0; ch < numChannels; ++ch)
        mBuffers[ch] = mStorage + static_cast<std::size_t>(ch) * stride;
    mNumChannels = numChannels;
    mCapacity = capacity;
    mChannelStride = stride;
    Reset();
}

void RingBuffer::Deallocate() {
    detail::FreeAlignedArray(mStorage);
    mStorage = nullptr;
    mBuffers.clear();
    mNumChannels = 0;
    mCapacity = 0;
    mChannelStride = 0;
    Reset();
}

void RingBuffer::Reset() {
    mWriteIndex = 0;
    mReadIndex = 0;
}

void RingBuffer::CopyIn(float** src, int srcOffset, int numChannels, int count, int index) {
    assert(numChannels <= mNumChannels && count >= 0 && count <= mCapacity);
    const Pieces p = Split(index, count, mCapacity);
    for (int ch = 0; ch < numChannels; ++ch) {
        const float* from = src[ch] + srcOffset;
        if (p.first > 0) std::memcpy(mBuffers[ch] + index, from, sizeof(float) * static_cast<std::size_t>(p.first));
        if (p.second > 0) std::memcpy(mBuffers[ch], from + p.first, sizeof(float) * static_cast<std::size_t>(p.second));
    }
}

void RingBuffer::Write(float** src, int srcOffset, int numChannels, int count) {
    CopyIn(src, srcOffset, numChannels, count, mWriteIndex);
    mWriteIndex = Wrap(mWriteIndex + count);
}

void RingBuffer::Read(float** dst, int /*numChannels*/, int count, int advance) {
    assert(count >= 0 && count <= mCapacity);
    const Pieces p = Split(mReadIndex, count, mCapacity);
    for (int ch = 0; ch < mNumChannels; ++ch) {
        if (p.first > 0)
            std::memcpy(dst[ch], mBuffers[ch] + mReadIndex, sizeof(float) * static_cast<std::size_t>(p.first));
        if (p.second > 0)
            std::memcpy(dst[ch] + p.first, mBuffers[ch], sizeof(float) * static_cast<std::size_t>(p.second));
    }
    mReadIndex = Wrap(mReadIndex + advance);
}

int RingBuffer::CanBeRead() const {
    if (mWriteIndex > mReadIndex) return mWriteIndex - mReadIndex;
    if (mCapacity == 0) return 0;
    return (mWriteIndex + mCapacity - mReadIndex) % mCapacity;
}

void RingBuffer::FillZeroes(int count) {
    assert(count >= 0 && count <= mCapacity);
    const Pieces p = Split(mWriteIndex, count, mCapacity);
    for (int ch = 0; ch < mNumChannels; ++ch) {
        if (p.first > 0) std::memset(mBuffers[ch] + mWriteIndex, 0, sizeof(float) * static_cast<std::size_t>(p.first));
        if (p.second > 0) std::memset(mBuffers[ch], 0, sizeof(float) * static_cast<std::size_t>(p.second));
    }
    mWriteIndex = Wrap(mWriteIndex + count);
}

void RingBuffer::AdvanceBy(int n) {
    mReadIndex = Wrap(mReadIndex + n);
}

void RingBuffer::Replace(float** src, int srcOffset, int numChannels, int count) {
    CopyIn(src, srcOffset, numChannels, count, mReadIndex);
}

}  // namespace dsp
