// The block reader and writer: any block size delivers every frame once, in order, also after a
// rewind; containers with a size limit refuse long audio up front.

#include <sndfile.h>

#include "block_reader.h"
#include "block_writer.h"
#include "cli_test.h"
#include "errors.h"
#include "safe_output.h"

namespace kesta_test {
namespace {

class BlockIoTest : public CliTest {};

TEST_F(BlockIoTest, AwkwardBlockSizesCoverTheFileExactlyAndRewind) {
    const Audio audio = StereoTone16();
    WriteAudio(dir / "in.wav", audio);
    kesta::BlockReader reader(P("in.wav"));
    ASSERT_EQ(reader.HeaderFrames(), std::optional<int64_t>(48000));
    ASSERT_TRUE(reader.Seekable());

    kesta::AudioBlock block = reader.MakeBlock(997);
    for (int pass = 0; pass < 2; ++pass) {
        SCOPED_TRACE("pass " + std::to_string(pass));
        if (pass == 1) reader.Rewind();
        kesta::SafeOutput output(P("copy.wav"), {{P("in.wav"), reader.Identity()}}, true);
        kesta::BlockWriter writer(output.Descriptor(), P("copy.wav"), reader.Format());
        std::size_t blocks = 0;
        for (; reader.Read(block); ++blocks)
            writer.Write(block);
        EXPECT_FALSE(reader.Read(block));  // stays at the end
        writer.Finish();
        output.Commit();
        EXPECT_EQ(blocks, 49u);  // 48 full blocks of 997 and one of 144
        EXPECT_EQ(reader.FramesRead(), 48000);
        const Audio copy = ReadAudio(dir / "copy.wav");
        EXPECT_EQ(copy.format, audio.format);
        EXPECT_TRUE(copy.channels == audio.channels);
    }
}

TEST_F(BlockIoTest, ContainersWithASizeLimitRefuseLongAudioUpFront) {
    const kesta::AudioFormat wav{SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 2};
    const kesta::AudioFormat flac{SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 48000, 2};
    // 4 bytes a frame: a little under 2^30 frames fit in 4 GiB.
    const auto limit = kesta::BlockWriter::FrameLimit(wav);
    ASSERT_TRUE(limit.has_value());
    EXPECT_LT(*limit, int64_t(1) << 30);
    EXPECT_GT(*limit, (int64_t(1) << 30) - 65536);
    EXPECT_FALSE(kesta::BlockWriter::FrameLimit(flac).has_value());

    WriteAudio(dir / "in.wav", StereoTone16());
    const kesta::FileIdentity input = *kesta::IdentityOfPath(P("in.wav"));
    kesta::SafeOutput output(P("long.wav"), {{P("in.wav"), input}}, false);
    kesta::BlockWriter writer(output.Descriptor(), P("long.wav"), wav);
    writer.ExpectFrames(*limit);
    try {
        writer.ExpectFrames(*limit + 1);
        FAIL() << "a WAV longer than 4 GiB was accepted";
    } catch (const kesta::CliError& error) {
        EXPECT_EQ(error.Code(), kesta::kExitOutput);
        EXPECT_NE(error.Message().find(".rf64"), std::string::npos) << error.Message();
    }
}

}  // namespace
}  // namespace kesta_test
