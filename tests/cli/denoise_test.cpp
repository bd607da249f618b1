// kesta denoise: a noise print from a stretch of the input, another file or a saved print; output
// of the input's length, aligned with it; what is removed and what is kept sum to the input; bad
// command lines refused in one line before any file is touched.

#include <cmath>

#include "cli_test.h"
#include "noisy_take.h"

namespace kesta_test {
namespace {

constexpr int kFloatWav = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
constexpr int kRate = 44100;

class DenoiseTest : public CliTest {
protected:
    void SetUp() override {
        take = MakeNoisyTake(kFloatWav);
        WriteAudio(dir / "in.wav", take.noisy);
    }

    // Runs kesta and expects success.
    RunResult Ok(const std::vector<std::string>& args) {
        RunResult run = RunKesta(args);
        EXPECT_EQ(run.exitCode, 0) << run.err;
        return run;
    }

    NoisyTake take;
};

TEST_F(DenoiseTest, RemovesTheNoiseAndKeepsTheTonesInPlace) {
    const RunResult run = Ok({"denoise", P("in.wav"), P("out.wav"), "--noise", "0:1.5", "--json"});
    const Audio out = ReadAudio(dir / "out.wav");
    EXPECT_EQ(out.format, kFloatWav);
    ASSERT_EQ(out.channels.size(), 2u);
    ASSERT_EQ(out.Frames(), take.noisy.Frames());

    // Inside the noise-only stretch (away from its ends) the default 40 dB leaves little.
    const int64_t quietFrom = kRate / 5, quietTo = take.leadIn - kRate / 5;
    // The tones are kept with their level and their phase: a delay of one frame would turn
    // the 440 Hz tone by 0.063 rad, the processing latency by far more.
    const int64_t toneFrom = 2 * kRate, toneTo = 3 * kRate + kRate / 2;
    for (int c = 0; c < 2; ++c) {
        SCOPED_TRACE(c);
        const double before = RmsDb(take.noisy.channels[c], quietFrom, quietTo);
        EXPECT_LE(RmsDb(out.channels[c], quietFrom, quietTo) - before, -20.0);
        for (double hz : ToneFrequencies(c)) {
            const ToneFit clean = FitTone(take.tones.channels[c], kRate, hz, toneFrom, toneTo);
            const ToneFit kept = FitTone(out.channels[c], kRate, hz, toneFrom, toneTo);
            EXPECT_NEAR(20.0 * std::log10(kept.amplitude / clean.amplitude), 0.0, 0.5) << hz;
            EXPECT_NEAR(PhaseDifference(kept.phase, clean.phase), 0.0, 0.01) << hz;
        }
    }

    const JsonValue report = ParseJson(run.out);
    EXPECT_EQ(report["command"].string, "denoise");
    EXPECT_EQ(report["noise"]["source"].string, "range");
    EXPECT_EQ(report["noise"]["frames"].number, double(take.leadIn));
    // (66150 - 4096 - 1) / (4096 / 3) snapshots of a 1.5 s stretch.
    EXPECT_EQ(report["noise"]["snapshots"].number, 45);
    EXPECT_EQ(report["settings"]["reduction_db"].number, 40);
    EXPECT_EQ(report["output"]["frames"].number, double(take.noisy.Frames()));
    for (int c = 0; c < 2; ++c)
        EXPECT_LE(report["output"]["noise_level_change_db"][c].number, -20.0);
    EXPECT_TRUE(report["saved_print"].IsNull());
}

TEST_F(DenoiseTest, ResidualAndCleanedOutputSumToTheInput) {
    Ok({"denoise", P("in.wav"), P("clean.wav"), "--noise", "0:1.5", "--reduction", "25", "--quiet"});
    Ok({"denoise", P("in.wav"), P("removed.wav"), "--noise", "0:1.5", "--reduction", "25", "--residual", "--quiet"});
    const Audio clean = ReadAudio(dir / "clean.wav"), removed = ReadAudio(dir / "removed.wav");
    ASSERT_EQ(clean.Frames(), take.noisy.Frames());
    ASSERT_EQ(removed.Frames(), take.noisy.Frames());
    double worst = 0.0;
    for (int c = 0; c < 2; ++c)
        for (std::size_t i = 0; i < clean.channels[c].size(); ++i)
            worst =
                std::max(worst, std::fabs(clean.channels[c][i] + removed.channels[c][i] - take.noisy.channels[c][i]));
    EXPECT_LT(worst, 1e-5);
    // What is removed is mostly the noise: in the lead-in nearly all of it.
    EXPECT_NEAR(RmsDb(removed.channels[0], kRate / 5, take.leadIn - kRate / 5),
                RmsDb(take.noisy.channels[0], kRate / 5, take.leadIn - kRate / 5), 1.0);
}

TEST_F(DenoiseTest, ASavedPrintReproducesTheRunBitForBit) {
    const RunResult first = Ok({"denoise", P("in.wav"), P("a.wav"), "--noise", "0:1.5", "--save-print", P("room.knp")});
    EXPECT_NE(first.out.find("Saved the print in"), std::string::npos);
    const RunResult second = Ok({"denoise", P("in.wav"), P("b.wav"), "--print", P("room.knp"), "--json"});
    EXPECT_TRUE(ReadAudio(dir / "a.wav").channels == ReadAudio(dir / "b.wav").channels);
    const JsonValue report = ParseJson(second.out);
    EXPECT_EQ(report["noise"]["source"].string, "print");
    EXPECT_EQ(report["noise"]["frames"].number, double(take.leadIn));  // where the print was taken

    // Capture only: no OUTPUT, and the same print.
    const RunResult only = Ok({"denoise", P("in.wav"), "--noise", "0:1.5", "--save-print", P("again.knp"), "--json"});
    EXPECT_TRUE(ParseJson(only.out)["output"].IsNull());
    EXPECT_EQ(ReadBytes(dir / "again.knp"), ReadBytes(dir / "room.knp"));
    EXPECT_EQ(dir.Names(), (std::vector<std::string>{"a.wav", "again.knp", "b.wav", "in.wav", "room.knp"}));
}

TEST_F(DenoiseTest, APrintFromAnotherFileOrAStretchInsideIt) {
    Ok({"denoise", P("in.wav"), P("from-range.wav"), "--noise", "0:1.5", "--quiet"});

    // The lead-in alone, as a file of its own: the whole of it is the default stretch.
    Audio noise = take.noisy;
    for (auto& channel : noise.channels)
        channel.resize(std::size_t(take.leadIn));
    WriteAudio(dir / "noise.wav", noise);
    Ok({"denoise", P("in.wav"), P("from-file.wav"), "--noise-file", P("noise.wav"), "--quiet"});

    // The same frames 0.25 s into a longer file, chosen with --noise inside it.
    Audio padded = noise;
    for (auto& channel : padded.channels)
        channel.insert(channel.begin(), std::size_t(kRate / 4), 0.3);
    for (auto& channel : padded.channels)
        channel.insert(channel.end(), std::size_t(kRate), -0.3);
    WriteAudio(dir / "padded.wav", padded);
    Ok({"denoise", P("in.wav"), P("from-stretch.wav"), "--noise-file", P("padded.wav"), "--noise", "0.25:1.75",
        "--quiet"});

    const Audio reference = ReadAudio(dir / "from-range.wav");
    EXPECT_TRUE(ReadAudio(dir / "from-file.wav").channels == reference.channels);
    EXPECT_TRUE(ReadAudio(dir / "from-stretch.wav").channels == reference.channels);
}

TEST_F(DenoiseTest, ZeroReductionCopiesTheInputAndMonoWorks) {
    // Reduction 0 bypasses the processing: the transforms' rounding is all that is left.
    Ok({"denoise", P("in.wav"), P("same.wav"), "--noise", "0:1.5", "--reduction", "0", "--quiet"});
    const Audio same = ReadAudio(dir / "same.wav");
    ASSERT_EQ(same.Frames(), take.noisy.Frames());
    double worst = 0.0;
    for (int c = 0; c < 2; ++c)
        for (std::size_t i = 0; i < same.channels[c].size(); ++i)
            worst = std::max(worst, std::fabs(same.channels[c][i] - take.noisy.channels[c][i]));
    EXPECT_LT(worst, 1e-6);

    // One channel, 16-bit, a small FFT: the print's shape follows the file and the option.
    Audio mono = MakeNoisyTake(SF_FORMAT_WAV | SF_FORMAT_PCM_16, 2.0, 1.0).noisy;
    mono.channels.resize(1);
    WriteAudio(dir / "mono.wav", mono);
    const RunResult run =
        Ok({"denoise", P("mono.wav"), P("mono-out.wav"), "--noise", ":1", "--fft-size", "1024", "--json"});
    const JsonValue report = ParseJson(run.out);
    EXPECT_EQ(report["noise"]["fft_size"].number, 1024);
    EXPECT_LE(report["output"]["noise_level_change_db"][0].number, -20.0);
    const Audio out = ReadAudio(dir / "mono-out.wav");
    EXPECT_EQ(out.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    EXPECT_EQ(out.Frames(), mono.Frames());
}

TEST_F(DenoiseTest, BadCommandLinesSayOneLineAndTouchNothing) {
    // Prints that do not fit in.wav: another FFT size, a mono source, a hiss floor, a damaged file.
    Ok({"denoise", P("in.wav"), "--noise", "0:1.5", "--fft-size", "2048", "--save-print", P("small.knp"), "-q"});
    Audio mono = take.noisy;
    mono.channels.resize(1);
    WriteAudio(dir / "mono.wav", mono);
    Ok({"denoise", P("mono.wav"), "--noise", "0:1.5", "--save-print", P("mono.knp"), "-q"});
    Ok({"dehiss", P("in.wav"), "--noise", "0:1.5", "--save-print", P("hiss.khf"), "-q"});
    Ok({"denoise", P("in.wav"), "--noise", "0:1.5", "--save-print", P("damaged.knp"), "-q"});
    std::string bytes = ReadBytes(dir / "damaged.knp");
    bytes[bytes.size() / 2] ^= 0x10;
    WriteBytes(dir / "damaged.knp", bytes);
    // Without --fft-size a print's own size is used.
    Ok({"denoise", P("in.wav"), P("small.wav"), "--print", P("small.knp"), "-q"});
    WriteBytes(dir / "garbage.wav", "this is not audio at all");
    WriteBytes(dir / "out.wav", "keep me");  // an earlier output, replaced only by a run that succeeds

    struct Case {
        std::vector<std::string> args;
        int code;
        std::vector<std::string> mentions;
    };
    const std::vector<Case> cases = {
        {{"--noise", "2:1"}, 2, {"--noise 2:1", "ends before it starts"}},
        {{"--noise", "abc"}, 2, {"--noise abc", "not a time range", "0:1.5"}},
        {{"--noise", "1:x"}, 2, {"'x' is not a number of seconds"}},
        {{"--noise", "0:90"}, 2, {"past the end", "4.000 s long"}},
        {{"--noise", "5:"}, 2, {"starts after the end"}},
        {{"--noise", "0:0.05"}, 2, {"too short", "0.050 s", "at least 0.093 s"}},
        {{}, 2, {"no noise source", "--noise", "--noise-file", "--print"}},
        {{"--print", P("small.knp"), "--fft-size", "4096"}, 2, {"FFT size 2048", "4096"}},
        {{"--print", P("mono.knp")}, 2, {"1 channel(s)", "has 2"}},
        {{"--print", P("hiss.khf")}, 2, {"hiss floor, not a noise print"}},
        {{"--print", P("damaged.knp")}, 3, {"checksum"}},
        {{"--print", P("missing.knp")}, 3, {"no such file"}},
        {{"--noise-file", P("mono.wav")}, 2, {"1 channel(s)"}},
        {{"--noise-file", P("garbage.wav")}, 3, {"garbage.wav"}},
        {{"--noise", "0:1.5", "--reduction", "150"}, 2, {"--reduction 150", "out of range"}},
        {{"--noise", "0:1.5", "--fft-size", "1000"}, 2, {"--fft-size 1000"}},
        {{"--noise", "0:1.5", "--print", P("small.knp")}, 2, {"cannot be combined"}},
        {{"--noise", "0:1.5", "--residual", "--reduction", "0"}, 2, {"nothing to write"}},
    };
    const std::vector<std::string> names = dir.Names();
    for (const Case& bad : cases) {
        std::vector<std::string> args = {"denoise", P("in.wav"), P("out.wav"), "--force"};
        args.insert(args.end(), bad.args.begin(), bad.args.end());
        SCOPED_TRACE(testing::PrintToString(bad.args));
        ExpectOneErrorLine(RunKesta(args), bad.code, bad.mentions);
        EXPECT_EQ(ReadBytes(dir / "out.wav"), "keep me");
        EXPECT_EQ(dir.Names(), names);  // no temporary left, nothing new
    }
    // An input that is not audio.
    ExpectOneErrorLine(RunKesta({"denoise", P("garbage.wav"), P("out.wav"), "--force", "--noise", "0:1"}), 3,
                       {"garbage.wav", "as audio"});
    // Nothing to write at all.
    ExpectOneErrorLine(RunKesta({"denoise", P("in.wav"), "--noise", "0:1"}), 2, {"no output file"});
    EXPECT_EQ(dir.Names(), names);
}

TEST_F(DenoiseTest, ProgressForCaptureAndProcessingOnATerminalOnly) {
    const std::optional<RunResult> shown = RunKestaOnTerminal({"denoise", P("in.wav"), P("a.wav"), "--noise", "0:1.5"});
    if (!shown) GTEST_SKIP() << "no pseudo-terminal here";
    ASSERT_EQ(shown->exitCode, 0) << shown->err;
    EXPECT_NE(shown->err.find("\rcapture  ["), std::string::npos) << shown->err;
    EXPECT_NE(shown->err.find("\rdenoise  ["), std::string::npos) << shown->err;
    const std::string erase = "\r\033[K";
    ASSERT_GE(shown->err.size(), erase.size());
    EXPECT_EQ(shown->err.substr(shown->err.size() - erase.size()), erase);

    const RunResult quiet = *RunKestaOnTerminal({"denoise", "--quiet", P("in.wav"), P("b.wav"), "--noise", "0:1.5"});
    ASSERT_EQ(quiet.exitCode, 0);
    EXPECT_EQ(quiet.out + quiet.err, "");
}

}  // namespace
}  // namespace kesta_test
