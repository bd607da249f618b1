// Reading, processing and writing on threads of their own (the default) against one thread
// (KESTA_THREADS=1): the same files bit for bit, over formats read raw and through libsndfile,
// chains whose steps run as a pipeline (a resampler among them), and the same one-line refusal
// when a stage fails part-way or a thread cannot start.

#include <cstdlib>
#include <limits>
#include <utility>

#include "cli_test.h"

namespace kesta_test {
namespace {

class OverlapTest : public CliTest {
protected:
    // The file `args` write, run threaded and in one thread.
    std::pair<std::string, std::string> BothWays(const std::vector<std::string>& args, const std::string& out) {
        std::string bytes[2];
        for (int single = 0; single < 2; ++single) {
            if (single) ::setenv("KESTA_THREADS", "1", 1);
            Ok(args);
            ::unsetenv("KESTA_THREADS");
            bytes[single] = ReadBytes(dir / out);
        }
        return {bytes[0], bytes[1]};
    }
};

TEST_F(OverlapTest, ThreadedRunsWriteWhatOneThreadWrites) {
    Audio mono24;
    mono24.format = SF_FORMAT_WAV | SF_FORMAT_PCM_24;
    mono24.rate = 44100;
    mono24.channels.push_back(Sine(70001, 44100, 997.0, 1.0, 0.0, 24));  // full scale, odd length
    Audio aiff = StereoTone16();
    aiff.format = SF_FORMAT_AIFF | SF_FORMAT_PCM_16;
    WriteAudio(dir / "s16.wav", StereoTone16());
    WriteAudio(dir / "m24.wav", mono24);
    WriteAudio(dir / "s16.aiff", aiff);
    WriteAudio(dir / "t24.flac", ToneAndSilence24Flac());
    for (const std::string input : {"s16.wav", "m24.wav", "s16.aiff", "t24.flac"}) {
        SCOPED_TRACE(input);
        const std::string ext = input.substr(input.find('.'));
        const auto limit = BothWays({"limit", P(input), P("limit" + ext), "--gain", "9", "--force"}, "limit" + ext);
        EXPECT_FALSE(limit.first.empty());
        EXPECT_TRUE(limit.first == limit.second);
        // Each step of a chain runs on a thread of its own; the resampler changes the block sizes.
        const auto chain = BothWays({"chain", P(input), P("chain" + ext), "eq:band=1000:1:-3,highpass=80",
                                     "limit:gain=6", "resample:rate=32000", "gain:db=-1", "declick", "--force"},
                                    "chain" + ext);
        EXPECT_FALSE(chain.first.empty());
        EXPECT_TRUE(chain.first == chain.second);
        // The resampler runs each channel on a thread of its own.
        const auto split =
            BothWays({"resample", P(input), P("split" + ext), "--rate", "48000", "--force"}, "split" + ext);
        EXPECT_FALSE(split.first.empty());
        EXPECT_TRUE(split.first == split.second);
    }
}

TEST_F(OverlapTest, AFailurePartWayIsOneLineWithNothingLeftBehind) {
    // A float file whose second half, made 40 dB louder, overflows to infinity in the chain's gain.
    Audio hot;
    hot.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    hot.channels.assign(2, std::vector<double>(40000, 0.25));
    for (std::size_t i = 30000; i < 40000; ++i)
        hot.channels[1][i] = double(std::numeric_limits<float>::max());
    WriteAudio(dir / "in.wav", hot);
    WriteBytes(dir / "out.wav", "keep me");
    const std::vector<std::string> names = dir.Names();
    for (int single = 0; single < 2; ++single) {
        if (single) ::setenv("KESTA_THREADS", "1", 1);
        const RunResult run = RunKesta({"chain", P("in.wav"), P("out.wav"), "gain:db=40", "eq:gain=-3", "--force"});
        ::unsetenv("KESTA_THREADS");
        EXPECT_NE(run.exitCode, 0);
        ExpectOneErrorLine(run, run.exitCode, {"stopped at frame 30000", "channel 2", "inf"});
        EXPECT_EQ(ReadBytes(dir / "out.wav"), "keep me");
        EXPECT_EQ(dir.Names(), names);
    }
    // The same through a step split by channel: its threads stop with the writer's failure.
    std::string messages[2];
    for (int single = 0; single < 2; ++single) {
        if (single) ::setenv("KESTA_THREADS", "1", 1);
        const RunResult run =
            RunKesta({"chain", P("in.wav"), P("out.wav"), "gain:db=40", "resample:rate=32000", "--force"});
        ::unsetenv("KESTA_THREADS");
        ExpectOneErrorLine(run, run.exitCode, {"stopped at frame", "channel 2"});
        messages[single] = run.err;
        EXPECT_EQ(ReadBytes(dir / "out.wav"), "keep me");
        EXPECT_EQ(dir.Names(), names);
    }
    EXPECT_EQ(messages[0], messages[1]);
}

// The system refuses the first, a middle or the last thread of a three-step chain (its steps, the
// resampler's two channels and the writer run on five threads): one line, the earlier output kept,
// and no temporary left. A job of light steps alone (a gain, a fixed mix) starts none.
TEST_F(OverlapTest, AThreadThatCannotStartIsOneLineWithNothingLeftBehind) {
    WriteAudio(dir / "in.wav", StereoTone16());
    WriteBytes(dir / "out.wav", "keep me");
    const std::vector<std::string> names = dir.Names();
    for (const char* limit : {"0", "2", "4"}) {
        SCOPED_TRACE(limit);
        ::setenv("KESTA_THREAD_LIMIT", limit, 1);
        const RunResult run =
            RunKesta({"chain", P("in.wav"), P("out.wav"), "gain:db=-1", "resample:rate=32000", "limit", "--force"});
        ::unsetenv("KESTA_THREAD_LIMIT");
        ExpectOneErrorLine(run, 1, {"cannot start a thread", "in.wav", "KESTA_THREADS=1"});
        EXPECT_EQ(ReadBytes(dir / "out.wav"), "keep me");
        EXPECT_EQ(dir.Names(), names);
    }
    // Light steps alone run on the calling thread: no thread is asked for.
    ::setenv("KESTA_THREAD_LIMIT", "0", 1);
    Ok({"gain", P("in.wav"), P("gain.wav"), "--db", "-1"});
    Ok({"chain", P("in.wav"), P("chain.wav"), "gain:db=-1", "widen:width=120"});
    ::unsetenv("KESTA_THREAD_LIMIT");
}

}  // namespace
}  // namespace kesta_test
