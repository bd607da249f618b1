// RingBuffer: wrap-around, overlapping reads, the index rule at the capacity, zero fill, in-place
// replacement, deep copies.

#include "dsp/ring_buffer.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

namespace {

// Two channels counting up from `first`, channel 1 negated, so a channel mix-up shows.
struct Block {
    explicit Block(int frames, float first = 0.0f) : left(frames), right(frames) {
        std::iota(left.begin(), left.end(), first);
        for (int i = 0; i < frames; ++i)
            right[i] = -left[i];
    }
    bool operator==(const Block& o) const { return left == o.left && right == o.right; }
    float** ptrs() {
        mPtrs[0] = left.data();
        mPtrs[1] = right.data();
        return mPtrs;
    }
    std::vector<float> left, right;

private:
    float* mPtrs[2];
};

dsp::RingBuffer Ring(int capacity) {
    dsp::RingBuffer ring;
    ring.Allocate(2, capacity);
    return ring;
}

// Reads `frames` frames advancing by `advance` and returns them.
Block Take(dsp::RingBuffer& ring, int frames, int advance) {
    Block out(frames, -99.0f);
    ring.Read(out.ptrs(), 2, frames, advance);
    return out;
}

TEST(RingBuffer, WriteAndReadAcrossTheEndComeBackInOrder) {
    dsp::RingBuffer ring = Ring(8);
    Block first(6, 100.0f), second(5, 1.0f);
    ring.Write(first.ptrs(), 0, 2, 6);
    EXPECT_EQ(Take(ring, 6, 6), first);
    ring.Write(second.ptrs(), 0, 2, 5);  // 2 frames at the end, 3 at the start
    EXPECT_EQ(ring.GetWriteIndex(), 3);
    EXPECT_EQ(ring.CanBeRead(), 5);
    EXPECT_EQ(Take(ring, 5, 5), second);
    EXPECT_EQ(ring.CanBeRead(), 0);
}

TEST(RingBuffer, ReadingMoreThanTheAdvanceTakesOverlappingFrames) {
    dsp::RingBuffer ring = Ring(16);
    Block src(12);
    ring.Write(src.ptrs(), 0, 2, 12);
    for (int start = 0; start + 4 <= 12; start += 2) {
        EXPECT_EQ(Take(ring, 4, 2), Block(4, static_cast<float>(start))) << "frame starting at " << start;
        EXPECT_EQ(ring.CanBeRead(), 12 - start - 2);
    }
}

TEST(RingBuffer, IndexReachingTheCapacityStaysThereAndEqualIndicesReadAsEmpty) {
    dsp::RingBuffer ring = Ring(8);
    Block src(8, 1.0f);
    ring.Write(src.ptrs(), 0, 2, 5);
    ring.Write(src.ptrs(), 5, 2, 3);
    EXPECT_EQ(ring.GetWriteIndex(), 8) << "an index equal to the capacity does not wrap";
    EXPECT_EQ(ring.CanBeRead(), 8) << "a ring written full from read index 0 holds 8 frames";
    EXPECT_EQ(Take(ring, 3, 3), Block(3, 1.0f));
    EXPECT_EQ(ring.CanBeRead(), 5);
    EXPECT_EQ(Take(ring, 5, 5), Block(5, 4.0f));
    EXPECT_EQ(ring.GetReadIndex(), 8);
    EXPECT_EQ(ring.CanBeRead(), 0) << "equal indices read as empty";

    // Both indices at the capacity: the next frames go to, and come from, the start.
    ring.Write(src.ptrs(), 0, 2, 2);
    EXPECT_EQ(ring.GetWriteIndex(), 2);
    EXPECT_EQ(ring.CanBeRead(), 2);
    EXPECT_EQ(Take(ring, 2, 2), Block(2, 1.0f));
    EXPECT_EQ(ring.GetReadIndex(), 2);
}

TEST(RingBuffer, SourceOffsetAndAdvanceBy) {
    dsp::RingBuffer ring = Ring(8);
    Block src(10);
    ring.Write(src.ptrs(), 3, 2, 7);  // frames 3 ... 9
    ring.AdvanceBy(4);
    EXPECT_EQ(ring.CanBeRead(), 3);
    EXPECT_EQ(Take(ring, 3, 3), Block(3, 7.0f));
}

TEST(RingBuffer, FillZeroesOverwritesStaleFramesAcrossTheEnd) {
    dsp::RingBuffer ring = Ring(8);
    Block ones(8, 1.0f);
    ring.Write(ones.ptrs(), 0, 2, 8);  // every position non-zero
    Take(ring, 8, 8);
    ring.Write(ones.ptrs(), 0, 2, 6);
    Take(ring, 6, 6);     // both indices at 6
    ring.FillZeroes(5);  // positions 6, 7, 0, 1, 2
    EXPECT_EQ(ring.GetWriteIndex(), 3);
    EXPECT_EQ(ring.CanBeRead(), 5);
    const Block out = Take(ring, 5, 5);
    EXPECT_EQ(out.left, std::vector<float>(5, 0.0f));
    EXPECT_EQ(out.right, std::vector<float>(5, 0.0f));
}

TEST(RingBuffer, ReplaceOverwritesAtTheReadIndexWithoutMovingIt) {
    dsp::RingBuffer ring = Ring(8);
    Block src(8), patch(3, 50.0f);
    ring.Write(src.ptrs(), 0, 2, 6);
    Take(ring, 6, 6);
    ring.Write(src.ptrs(), 0, 2, 4);      // ring positions 6, 7, 0, 1
    ring.Replace(patch.ptrs(), 0, 2, 3);  // ring positions 6, 7, 0
    EXPECT_EQ(ring.GetReadIndex(), 6);
    EXPECT_EQ(ring.GetWriteIndex(), 2);
    const Block out = Take(ring, 4, 4);
    EXPECT_EQ(out.left, (std::vector<float>{50, 51, 52, 3}));
    EXPECT_EQ(out.right, (std::vector<float>{-50, -51, -52, -3}));
}

TEST(RingBuffer, CopiesOwnTheirSamples) {
    dsp::RingBuffer ring = Ring(8);
    Block src(5, 10.0f), other(5);
    ring.Write(src.ptrs(), 0, 2, 5);
    dsp::RingBuffer copy(ring);
    dsp::RingBuffer assigned;
    assigned = ring;
    ring.Write(other.ptrs(), 0, 2, 3);    // wraps over positions 5, 6, 7
    ring.Replace(other.ptrs(), 0, 2, 5);  // and overwrites 0 ... 4 in the original only
    for (dsp::RingBuffer* r : {&copy, &assigned}) {
        EXPECT_EQ(r->CanBeRead(), 5);
        EXPECT_EQ(Take(*r, 5, 5), src);
    }
}

}  // namespace
