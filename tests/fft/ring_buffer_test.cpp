// RingBuffer: wrap-around in two pieces, overlapping reads, the index rule at the capacity, zero
// fill, in-place replacement, deep copies.

#include "dsp/ring_buffer.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

namespace {

// A two-channel block whose channel 1 is channel 0 negated, so a channel mix-up shows.
struct Block {
    explicit Block(int frames, float first = 0.0f) : left(frames), right(frames) {
        std::iota(left.begin(), left.end(), first);
        for (int i = 0; i < frames; ++i)
            right[i] = -left[i];
        ptrs[0] = left.data();
        ptrs[1] = right.data();
    }
    std::vector<float> left, right;
    float* ptrs[2];
};

TEST(RingBuffer, WriteAndReadAcrossTheEndComeBackInOrder) {
    dsp::RingBuffer ring;
    ring.Allocate(2, 8);
    Block first(6, 100.0f);
    ring.Write(first.ptrs, 0, 2, 6);
    Block sink(6);
    ring.Read(sink.ptrs, 2, 6, 6);
    EXPECT_EQ(sink.left, first.left);
    EXPECT_EQ(sink.right, first.right);

    // Write index 6: five frames go in as 2 at the end and 3 at the start.
    Block second(5, 1.0f);
    ring.Write(second.ptrs, 0, 2, 5);
    EXPECT_EQ(ring.GetWriteIndex(), 3);
    EXPECT_EQ(ring.CanBeRead(), 5);
    Block out(5);
    ring.Read(out.ptrs, 2, 5, 5);
    EXPECT_EQ(out.left, second.left);
    EXPECT_EQ(out.right, second.right);
    EXPECT_EQ(ring.CanBeRead(), 0);
}

TEST(RingBuffer, WriteHonoursTheSourceOffset) {
    dsp::RingBuffer ring;
    ring.Allocate(2, 8);
    Block src(10, 0.0f);
    ring.Write(src.ptrs, 7, 2, 3);
    Block out(3);
    ring.Read(out.ptrs, 2, 3, 3);
    EXPECT_EQ(out.left, (std::vector<float>{7, 8, 9}));
    EXPECT_EQ(out.right, (std::vector<float>{-7, -8, -9}));
}

TEST(RingBuffer, ReadingMoreThanTheAdvanceTakesOverlappingFrames) {
    dsp::RingBuffer ring;
    ring.Allocate(2, 16);
    Block src(12, 0.0f);
    ring.Write(src.ptrs, 0, 2, 12);
    Block frame(4);
    for (int start = 0; start + 4 <= 12; start += 2) {
        ring.Read(frame.ptrs, 2, 4, 2);
        EXPECT_EQ(frame.left, (std::vector<float>{float(start), float(start + 1), float(start + 2), float(start + 3)}))
            << "frame starting at " << start;
        EXPECT_EQ(frame.right[3], -float(start + 3));
        EXPECT_EQ(ring.CanBeRead(), 12 - start - 2);
    }
}

TEST(RingBuffer, IndexReachingTheCapacityStaysThereAndEqualIndicesReadAsEmpty) {
    dsp::RingBuffer ring;
    ring.Allocate(1, 8);
    std::vector<float> data(8);
    std::iota(data.begin(), data.end(), 1.0f);
    float* src[1] = {data.data()};

    ring.Write(src, 0, 1, 5);
    ring.Write(src, 5, 1, 3);
    EXPECT_EQ(ring.GetWriteIndex(), 8) << "an index equal to the capacity does not wrap";
    EXPECT_EQ(ring.CanBeRead(), 8) << "a ring written full from read index 0 holds 8 frames";

    std::vector<float> out(3);
    float* dst[1] = {out.data()};
    ring.Read(dst, 1, 3, 3);
    EXPECT_EQ(ring.CanBeRead(), 8 - 3);
    ring.Read(dst, 1, 3, 3);
    ring.Read(dst, 1, 2, 2);
    EXPECT_EQ(ring.GetReadIndex(), 8);
    EXPECT_EQ(ring.CanBeRead(), 0) << "equal indices read as empty";

    // Both indices at the capacity: the next frames go to, and come from, the start.
    ring.Write(src, 0, 1, 2);
    EXPECT_EQ(ring.GetWriteIndex(), 2);
    EXPECT_EQ(ring.CanBeRead(), 2);
    ring.Read(dst, 1, 2, 2);
    EXPECT_EQ(out[0], 1.0f);
    EXPECT_EQ(out[1], 2.0f);
    EXPECT_EQ(ring.GetReadIndex(), 2);
}

TEST(RingBuffer, FillZeroesOverwritesStaleFramesAcrossTheEnd) {
    dsp::RingBuffer ring;
    ring.Allocate(2, 8);
    Block ones(8, 1.0f);
    Block sink(8);
    ring.Write(ones.ptrs, 0, 2, 8);  // every position holds a non-zero value
    ring.Read(sink.ptrs, 2, 8, 8);
    ring.Write(ones.ptrs, 0, 2, 6);
    ring.Read(sink.ptrs, 2, 6, 6);  // both indices at 6

    ring.FillZeroes(5);  // positions 6, 7, 0, 1, 2
    EXPECT_EQ(ring.GetWriteIndex(), 3);
    EXPECT_EQ(ring.CanBeRead(), 5);
    Block out(5, 9.0f);
    ring.Read(out.ptrs, 2, 5, 5);
    EXPECT_EQ(out.left, std::vector<float>(5, 0.0f));
    EXPECT_EQ(out.right, std::vector<float>(5, 0.0f));
}

TEST(RingBuffer, AdvanceBySkipsFrames) {
    dsp::RingBuffer ring;
    ring.Allocate(2, 8);
    Block src(7, 0.0f);
    ring.Write(src.ptrs, 0, 2, 7);
    ring.AdvanceBy(4);
    EXPECT_EQ(ring.CanBeRead(), 3);
    Block out(3);
    ring.Read(out.ptrs, 2, 3, 3);
    EXPECT_EQ(out.left, (std::vector<float>{4, 5, 6}));
}

TEST(RingBuffer, ReplaceOverwritesAtTheReadIndexWithoutMovingIt) {
    dsp::RingBuffer ring;
    ring.Allocate(2, 8);
    Block src(8, 0.0f);
    ring.Write(src.ptrs, 0, 2, 6);
    Block sink(6);
    ring.Read(sink.ptrs, 2, 6, 6);
    ring.Write(src.ptrs, 0, 2, 4);  // frames 0..3 at ring positions 6, 7, 0, 1

    Block patch(3, 50.0f);
    ring.Replace(patch.ptrs, 0, 2, 3);  // ring positions 6, 7, 0
    EXPECT_EQ(ring.GetReadIndex(), 6);
    EXPECT_EQ(ring.GetWriteIndex(), 2);
    Block out(4);
    ring.Read(out.ptrs, 2, 4, 4);
    EXPECT_EQ(out.left, (std::vector<float>{50, 51, 52, 3}));
    EXPECT_EQ(out.right, (std::vector<float>{-50, -51, -52, -3}));
}

TEST(RingBuffer, CopiesOwnTheirSamples) {
    dsp::RingBuffer ring;
    ring.Allocate(2, 8);
    Block src(5, 10.0f);
    ring.Write(src.ptrs, 0, 2, 5);

    dsp::RingBuffer copy(ring);
    dsp::RingBuffer assigned;
    assigned = ring;
    Block other(5, 0.0f);
    ring.Write(other.ptrs, 0, 2, 3);    // wraps over positions 5, 6, 7
    ring.Replace(other.ptrs, 0, 2, 5);  // and overwrites 0..4 in the original only

    for (dsp::RingBuffer* r : {&copy, &assigned}) {
        EXPECT_EQ(r->CanBeRead(), 5);
        Block out(5);
        r->Read(out.ptrs, 2, 5, 5);
        EXPECT_EQ(out.left, src.left);
        EXPECT_EQ(out.right, src.right);
    }
}

}  // namespace
