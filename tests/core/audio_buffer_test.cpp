// AudioBuffer capacity rules: a request that fits keeps the memory, a request that does not
// reallocates to exactly the request (one dimension may shrink while the other grows).

#include "dsp/audio_buffer.h"

#include <gtest/gtest.h>

namespace {

TEST(AudioBuffer, ResizeKeepsMemoryWhenItFitsAndReallocatesToExactlyTheRequest) {
    dsp::AudioBuffer empty(0, 0);
    EXPECT_EQ(empty.GetBuffersAsRaw(), nullptr);
    EXPECT_EQ(empty.GetChannelsEnd(), empty.GetChannelsBegin());
    empty.ZeroBuffers();  // nothing in use, nothing touched

    dsp::AudioBuffer buffer;
    buffer.Resize(2, 1024);
    float** memory = buffer.GetBuffersAsRaw();
    float* channel0 = memory[0];
    memory[1][1023] = 0.75f;
    buffer.Resize(1, 512);
    EXPECT_EQ(buffer.GetBuffersAsRaw(), memory);
    EXPECT_EQ(buffer.GetBuffersAsRaw()[0], channel0);
    EXPECT_EQ(buffer.GetNumChannels(), 1);
    EXPECT_EQ(buffer.GetBufferSize(), 512);
    EXPECT_EQ(buffer.GetBuffersAsRaw()[1][1023], 0.75f) << "a fitting resize must not clear or copy";

    buffer.Resize(2, 2048);
    EXPECT_EQ(buffer.GetFrameCapacity(), 2048);
    buffer.Resize(4, 100);
    EXPECT_EQ(buffer.GetChannelCapacity(), 4);
    EXPECT_EQ(buffer.GetFrameCapacity(), 100) << "frame capacity shrinks when the channel count grows";
    EXPECT_EQ(buffer.GetChannelsEnd() - buffer.GetChannelsBegin(), 4);
}

TEST(AudioBuffer, ZeroBuffersClearsOnlyTheInUseRegion) {
    dsp::AudioBuffer buffer(2, 8);
    for (int ch = 0; ch < 2; ++ch)
        for (int i = 0; i < 8; ++i)
            buffer.GetBuffersAsRaw()[ch][i] = 1.0f;
    buffer.Resize(1, 4);
    buffer.ZeroBuffers();
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(buffer.GetBuffersAsRaw()[0][i], i < 4 ? 0.0f : 1.0f);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(buffer.GetBuffersAsRaw()[1][i], 1.0f);
}

TEST(AudioBuffer, OffsetViewsAndDeepCopies) {
    dsp::AudioBuffer buffer(3, 64);
    auto floats = buffer.GetBuffersAsFloats(10);
    auto voids = buffer.GetBuffersAsVoid(10);
    ASSERT_EQ(floats.size(), 3u);
    ASSERT_EQ(voids.size(), 3u);
    for (int ch = 0; ch < 3; ++ch) {
        EXPECT_EQ(floats[ch], buffer.GetBuffersAsRaw()[ch] + 10);
        EXPECT_EQ(voids[ch], static_cast<void*>(buffer.GetBuffersAsRaw()[ch] + 10));
    }
    buffer.ZeroBuffers();
    buffer.GetBuffersAsRaw()[2][5] = 3.0f;
    dsp::AudioBuffer copy(buffer);
    EXPECT_NE(copy.GetBuffersAsRaw()[2], buffer.GetBuffersAsRaw()[2]);
    EXPECT_EQ(copy.GetBuffersAsRaw()[2][5], 3.0f);
}

}  // namespace
