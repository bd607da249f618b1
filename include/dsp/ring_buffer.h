#pragma once
// RingBuffer: a multichannel circular store of float frames, the input and output queue of the
// streaming processors (the overlap-save engine, click and clipping repair).
//
// All channels share one write index and one read index, each in 0 ... capacity. The readable
// count is write - read when write > read, otherwise (write + capacity - read) mod capacity, so
// equal indices read as empty. An index that lands exactly on the capacity stays there (it wraps
// only when it passes it); that is what lets a ring written full from a read index of 0 report
// `capacity` readable frames. Nothing guards against overrun: the owner sizes the ring so that it
// never holds more than `capacity` frames.
//
// Read copies `count` frames but advances by `advance`, so reading more than is advanced takes
// overlapping frames from one queue.
//
// Units are frames (one sample per channel). Buffers are allocated by Allocate only; every other
// operation is allocation-free. One thread at a time; copies are deep.

#include <cstdint>
#include <vector>

#include "dsp/kestadsp_export.h"

namespace dsp {

class KESTADSP_API RingBuffer {
public:
    RingBuffer();
    RingBuffer(const RingBuffer& other);
    RingBuffer& operator=(const RingBuffer& other);
    ~RingBuffer();

    // Channel arrays of `capacity` frames each (contents undefined); both indices 0.
    void Allocate(int numChannels, int capacity);
    void Deallocate();
    // Empties the ring (both indices 0); contents are kept.
    void Reset();

    // Copies `count` frames from src[ch] + srcOffset, ch = 0 ... numChannels - 1, at the write
    // index, in two pieces when the write passes the end; the write index then advances by count.
    void Write(float** src, int srcOffset, int numChannels, int count);
    // Copies `count` frames at the read index into dst for every channel of the ring (its own
    // channel count, whatever `numChannels` says), then advances the read index by `advance`.
    void Read(float** dst, int numChannels, int count, int advance);
    int CanBeRead() const;
    // Writes `count` zero frames.
    void FillZeroes(int count);
    // Moves the read index by n frames (wrapping like Read).
    void AdvanceBy(int n);
    // Overwrites `count` frames at the read index in place (wrapping like Write); no index moves.
    void Replace(float** src, int srcOffset, int numChannels, int count);

    int GetNumChannels() const { return mNumChannels; }
    int GetCapacity() const { return mCapacity; }
    int GetWriteIndex() const { return mWriteIndex; }
    int GetReadIndex() const { return mReadIndex; }

private:
    // Copies between the ring at `index` and the caller's arrays, in at most two pieces.
    void CopyIn(float** src, int srcOffset, int numChannels, int count, int index);
    int Wrap(int index) const { return index > mCapacity ? index - mCapacity : index; }

    std::vector<float*> mBuffers;  // one array of mCapacity floats per channel, inside mStorage
    int32_t mNumChannels = 0;
    int32_t mCapacity = 0;
    int32_t mWriteIndex = 0;
    int32_t mReadIndex = 0;
    float* mStorage = nullptr;  // owned, 64-byte aligned; channels at aligned strides
    int32_t mChannelStride = 0;
};

}  // namespace dsp
