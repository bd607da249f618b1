// Chains and batches: a chain gives the samples of its commands run one after another, and a batch
// the files of its command run file by file, whatever the number of workers; failures reported per
// file, the others still written with --keep-going.

#include <algorithm>
#include <filesystem>

#include "cli_test.h"

namespace kesta_test {
namespace {

constexpr int kFloatWav = SF_FORMAT_WAV | SF_FORMAT_FLOAT;

class PipelineTest : public CliTest {};

TEST_F(PipelineTest, AChainEqualsItsCommandsRunOneAfterAnother) {
    // Float files between the commands hold every value the chain holds in memory: exactly equal.
    WriteAudio(dir / "in.wav", MakeNoisyTake(kFloatWav).noisy);
    Ok({"denoise", P("in.wav"), P("t1.wav"), "-q", "--noise", "0:1", "--reduction", "30"});
    Ok({"eq", P("t1.wav"), P("t2.wav"), "-q", "--band", "3000:1:-3", "--highpass", "80"});
    Ok({"geq", P("t2.wav"), P("t3.wav"), "-q", "--gains=0,0,3,3,0,0,0,0,-2,-4"});
    Ok({"gain", P("t3.wav"), P("one-by-one.wav"), "-q", "--db", "-1"});
    const JsonValue report = Report({"chain", P("in.wav"), P("chained.wav"), "denoise:noise=0:1,reduction=30",
                                     "eq:band=3000:1:-3,highpass=80", "geq:gains=0,0,3,3,0,0,0,0,-2,-4", "gain:db=-1"});
    const Audio chained = ReadAudio(dir / "chained.wav"), expected = ReadAudio(dir / "one-by-one.wav");
    ASSERT_EQ(chained.Frames(), expected.Frames());
    ASSERT_EQ(chained.channels.size(), expected.channels.size());
    EXPECT_EQ(LargestDifference(chained, expected), 0.0);
    EXPECT_EQ(report["output"]["frames"].number, double(expected.Frames()));
}

TEST_F(PipelineTest, RepairStepsEqualTheirCommandsRunOneAfterAnother) {
    // Two tones over noise, clipped, with clicks throughout (the first and last near the ends):
    // declip needs the levels of all it hears before its pass, declick finds and repairs in its one
    // pass, and a click the streaming detection misses or takes too late shows as a difference.
    Audio in;
    in.format = kFloatWav;
    in.rate = 44100;
    uint32_t state = 99;
    auto next = [&state] {
        state = state * 1664525u + 1013904223u;
        return double(state >> 8) / double(1u << 24);
    };
    for (int c = 0; c < 2; ++c) {
        std::vector<double> x = Sine(3 * 44100 + 777, 44100, 150.0 + 40 * c, 0.6, 0.0, 0);
        const std::vector<double> high = Sine(x.size(), 44100, 1234.0, 0.2, 0.0, 0);
        for (std::size_t n = 0; n < x.size(); ++n)
            x[n] += high[n] + 0.003 * (next() - 0.5);
        for (int k = 0; k < 30; ++k) {
            const std::size_t at = k == 0 ? 300 : k == 29 ? x.size() - 40 : std::size_t(next() * double(x.size() - 40));
            for (int i = 0; i < 1 + k % 6; ++i)
                x[at + std::size_t(i)] += (i % 2 ? -0.25 : 0.3) * (1.0 + next());
        }
        for (double& v : x)
            v = double(float(std::clamp(v, -0.7, 0.7)));
        in.channels.push_back(x);
    }
    WriteAudio(dir / "in.wav", in);
    Ok({"declip", P("in.wav"), P("t1.wav"), "-q", "--float", "--gain", "-3"});
    const JsonValue declick = Report({"declick", P("t1.wav"), P("t2.wav"), "--float"});
    EXPECT_GT(declick["channels"][0]["clicks"].number + declick["channels"][1]["clicks"].number, 40.0);
    Ok({"limit", P("t2.wav"), P("one-by-one.wav"), "-q", "--float", "--gain", "6"});
    Ok({"chain", P("in.wav"), P("chained.wav"), "-q", "--float", "declip:gain=-3", "declick", "limit:gain=6"});
    const Audio chained = ReadAudio(dir / "chained.wav"), expected = ReadAudio(dir / "one-by-one.wav");
    ASSERT_EQ(chained.Frames(), in.Frames());
    EXPECT_EQ(LargestDifference(chained, expected), 0.0);
}

TEST_F(PipelineTest, ChainStepsAreCheckedBeforeAnyFileIsWritten) {
    WriteAudio(dir / "in.wav", MakeNoisyTake(kFloatWav, 2.0, 1.0).noisy);
    ExpectRefusals("chain", {
                                {{"reverb:size=3"}, 2, {"reverb"}},
                                {{"gain:db=500"}, 2, {"--db"}},
                                {{"gain:gian=1"}, 2, {"gain:gian=1"}},
                                {{"eq:band=3000:1:-3", "denoise:noise=0:0.5"}, 2, {"first step"}},
                                {{"denoise:noise=0:0.5,save-print=p.knp"}, 2, {"save"}},
                                {{"declick:report=c.csv"}, 2, {"list"}},
                                {{"declip:tolerance=0"}, 2, {"--tolerance"}},
                                {{"limit:ceiling=3"}, 2, {"--ceiling"}},
                            });
}

TEST_F(PipelineTest, ABatchWritesWhatSingleRunsWriteAndReportsABadFile) {
    std::vector<std::string> names;
    for (int i = 0; i < 8; ++i) {
        const std::string name = "in" + std::to_string(i) + ".wav";
        Audio audio = StereoTone16();
        audio.channels[0][100 + i] = 0.5;  // each file its own
        WriteAudio(dir / name, audio);
        names.push_back(name);
        Ok({"gain", P(name), P("single-" + name), "--db", "-3"});
    }
    WriteBytes(dir / "in3.wav", "not audio");  // the fourth file is bad
    for (const bool keepGoing : {false, true}) {
        SCOPED_TRACE(keepGoing);
        const std::string out = keepGoing ? "all" : "stop";
        std::vector<std::string> args = {"gain", "--db", "-3", "-j", "2", "--out-dir", P(out), "--suffix", "_q3"};
        for (const std::string& name : names)
            args.push_back(P(name));
        if (keepGoing) args.push_back("--keep-going");
        const RunResult run = RunKesta(args);
        EXPECT_EQ(run.exitCode, 3) << run.err;
        EXPECT_NE(run.out.find("failed   " + P("in3.wav") + ": "), std::string::npos) << run.out;
        int written = 0;
        for (const std::string& name : names) {
            const std::filesystem::path made = dir / out / (name.substr(0, name.size() - 4) + "_q3.wav");
            if (!std::filesystem::exists(made)) continue;
            ++written;
            EXPECT_EQ(ReadBytes(made), ReadBytes(dir / ("single-" + name))) << name;
        }
        // With --keep-going every good file. Without, nothing starts once the failure is seen;
        // how many good files the other worker finished before then depends on the scheduler
        // (the bad file fails at once, so never all of them).
        if (keepGoing)
            EXPECT_EQ(written, 7);
        else
            EXPECT_LT(written, 7);
    }
}

TEST_F(PipelineTest, AMonoNoiseFileServesEveryChannel) {
    const NoisyTake take = MakeNoisyTake(kFloatWav, 3.0, 1.5);
    WriteAudio(dir / "in.wav", take.noisy);
    Audio mono = take.noisy, doubled = take.noisy;
    mono.channels.resize(1);
    doubled.channels[1] = doubled.channels[0];
    WriteAudio(dir / "mono.wav", mono);
    WriteAudio(dir / "doubled.wav", doubled);
    for (const char* command : {"denoise", "dehiss"}) {
        SCOPED_TRACE(command);
        Ok({command, P("in.wav"), P("from-mono.wav"), "-q", "-f", "--noise-file", P("mono.wav"), "--noise", "0:1.4"});
        Ok({command, P("in.wav"), P("from-doubled.wav"), "-q", "-f", "--noise-file", P("doubled.wav"), "--noise",
            "0:1.4"});
        // Samples, not bytes: a float file's peak chunk carries the time it was written.
        EXPECT_EQ(LargestDifference(ReadAudio(dir / "from-mono.wav"), ReadAudio(dir / "from-doubled.wav")), 0.0);
    }
}

}  // namespace
}  // namespace kesta_test
