// RingBuffer: wrap-around, overlapping reads, the index rule at the capacity, zero fill, in-place
// replacement, deep copies.

#include "dsp/ring_buffer.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// Two channels counting up from `first`, channel 1 negated, so a channel mix-up shows.
struct Block {
    explicit Block(int frames, float first = 0.0f) : ch{std::vector<float>(frames), std::vector<float>(frames)} {
        for (int i = 0; i < frames; ++i)
            ch[1][i] = -(ch[0][i] = first + static_cast<float>(i));
    }
    bool operator==(const Block& o) const { return ch[0] == o.ch[0] && ch[1] == o.ch[1]; }
    float** ptrs() {
        p[0] = ch[0].data();
        p[1] = ch[1].data();
        return p;
    }
    std::vector<float> ch[2];
    float* p[2] = {};
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

TEST(RingBuffer, IndicesWrapOnlyPastTheCapacity) {
    dsp::RingBuffer ring = Ring(8);
    Block src(10, 1.0f);
    ring.Write(src.ptrs(), 0, 2, 5);
    ring.Write(src.ptrs(), 5, 2, 3);  // from a source offset
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
    EXPECT_EQ(Take(ring, 2, 2), Block(2, 1.0f));
    // Writes and reads that pass the end go in two pieces; indices passing it wrap.
    ring.Write(src.ptrs(), 3, 2, 7);  // positions 2 ... 7, 0
    EXPECT_EQ(ring.GetWriteIndex(), 1);
    EXPECT_EQ(ring.CanBeRead(), 7);
    ring.AdvanceBy(4);
    EXPECT_EQ(ring.CanBeRead(), 3);
    EXPECT_EQ(Take(ring, 3, 1), Block(3, 8.0f));  // positions 6, 7, 0
    ring.AdvanceBy(2);
    EXPECT_EQ(ring.GetReadIndex(), 1);
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

// With both indices at 6 of 8 and every position holding stale non-zero frames.
dsp::RingBuffer StaleRingAtSix() {
    dsp::RingBuffer ring = Ring(8);
    Block ones(8, 1.0f);
    ring.Write(ones.ptrs(), 0, 2, 8);
    Take(ring, 8, 8);
    ring.Write(ones.ptrs(), 0, 2, 6);
    Take(ring, 6, 6);
    return ring;
}

TEST(RingBuffer, FillZeroesAndReplaceWrapAcrossTheEnd) {
    dsp::RingBuffer zeroed = StaleRingAtSix();
    zeroed.FillZeroes(5);  // positions 6, 7, 0, 1, 2
    EXPECT_EQ(zeroed.GetWriteIndex(), 3);
    EXPECT_EQ(zeroed.CanBeRead(), 5);
    const Block zeros = Take(zeroed, 5, 5);
    EXPECT_EQ(zeros.ch[0], std::vector<float>(5, 0.0f));
    EXPECT_EQ(zeros.ch[1], std::vector<float>(5, 0.0f));

    dsp::RingBuffer patched = StaleRingAtSix();
    Block src(4), patch(3, 50.0f), expected(4, 50.0f);
    patched.Write(src.ptrs(), 0, 2, 4);      // positions 6, 7, 0, 1
    patched.Replace(patch.ptrs(), 0, 2, 3);  // positions 6, 7, 0, no index moves
    EXPECT_EQ(patched.GetReadIndex(), 6);
    EXPECT_EQ(patched.GetWriteIndex(), 2);
    expected.ch[1][3] = -(expected.ch[0][3] = 3.0f);
    EXPECT_EQ(Take(patched, 4, 4), expected);
}

TEST(RingBuffer, CopiesOwnTheirSamples) {
    dsp::RingBuffer ring = Ring(8);
    Block src(5, 10.0f), other(5);
    ring.Write(src.ptrs(), 0, 2, 5);
    dsp::RingBuffer copy(ring), assigned;
    assigned = ring;
    ring.Write(other.ptrs(), 0, 2, 3);    // wraps over positions 5, 6, 7
    ring.Replace(other.ptrs(), 0, 2, 5);  // and overwrites 0 ... 4 in the original only
    for (dsp::RingBuffer* r : {&copy, &assigned}) {
        EXPECT_EQ(r->CanBeRead(), 5);
        EXPECT_EQ(Take(*r, 5, 5), src);
    }
}

}  // namespace
