// kesta denoise and dehiss: output of the input's length and aligned with it, the noise-only
// stretch quieter, residual + output = input, saved prints reproducing a run bit for bit, and bad
// command lines refused in one line before any file is touched.

#include <cmath>

#include "cli_test.h"

namespace kesta_test {
namespace {

constexpr int kFloatWav = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
constexpr int kRate = 44100;

class SpectralTest : public CliTest {
protected:
    void SetUp() override { WriteAudio(dir / "in.wav", take.noisy); }

    // `out` has the input's shape, the noise-only lead-in (away from its ends) is at least
    // `quieterDb` down, and the tones keep their level and phase: one frame of delay would turn
    // the 440 Hz tone by 0.063 rad.
    void ExpectCleaned(const Audio& out, double quieterDb) const {
        EXPECT_EQ(out.format, kFloatWav);
        ASSERT_EQ(out.channels.size(), 2u);
        ASSERT_EQ(out.Frames(), take.noisy.Frames());
        const int64_t quietFrom = kRate / 5, quietTo = take.leadIn - kRate / 5;
        const int64_t toneFrom = 2 * kRate, toneTo = 3 * kRate + kRate / 2;
        for (int c = 0; c < 2; ++c) {
            SCOPED_TRACE(c);
            EXPECT_LE(RmsDb(out.channels[c], quietFrom, quietTo) - RmsDb(take.noisy.channels[c], quietFrom, quietTo),
                      -quieterDb);
            for (double hz : ToneFrequencies(c)) {
                const ToneFit clean = FitTone(take.tones.channels[c], kRate, hz, toneFrom, toneTo);
                const ToneFit kept = FitTone(out.channels[c], kRate, hz, toneFrom, toneTo);
                EXPECT_NEAR(Db(kept.amplitude / clean.amplitude), 0.0, 0.5) << hz;
                EXPECT_NEAR(PhaseDifference(kept.phase, clean.phase), 0.0, 0.01) << hz;
            }
        }
    }

    // Runs `command in.wav clean.wav ARGS` and again with --residual: the two sum to the input.
    void ExpectResidualAddsUp(const std::string& command, const std::vector<std::string>& args) {
        for (const char* residual : {"", "--residual"}) {
            std::vector<std::string> run = {command, P("in.wav"), P(*residual ? "removed.wav" : "clean.wav"), "-q"};
            run.insert(run.end(), args.begin(), args.end());
            if (*residual) run.push_back(residual);
            Ok(run);
        }
        Audio sum = ReadAudio(dir / "clean.wav");
        const Audio removed = ReadAudio(dir / "removed.wav");
        ASSERT_EQ(sum.Frames(), take.noisy.Frames());
        ASSERT_EQ(removed.Frames(), take.noisy.Frames());
        for (int c = 0; c < 2; ++c)
            for (std::size_t i = 0; i < sum.channels[c].size(); ++i)
                sum.channels[c][i] += removed.channels[c][i];
        EXPECT_LT(LargestDifference(take.noisy, sum), 1e-5);
    }

    NoisyTake take = MakeNoisyTake(kFloatWav);
};

class DenoiseTest : public SpectralTest {};
class DehissTest : public SpectralTest {};

TEST_F(DenoiseTest, RemovesTheNoiseAndKeepsTheTonesInPlace) {
    const RunResult run = Ok({"denoise", P("in.wav"), P("out.wav"), "--noise", "0:1.5", "--json"});
    ExpectCleaned(ReadAudio(dir / "out.wav"), 20.0);
    const JsonValue report = ParseJson(run.out);
    EXPECT_EQ(report["noise"]["frames"].number, double(take.leadIn));
    EXPECT_EQ(report["noise"]["snapshots"].number, 45);  // (66150 - 4096 - 1) / (4096 / 3)
    EXPECT_EQ(report["output"]["frames"].number, double(take.noisy.Frames()));
    for (int c = 0; c < 2; ++c)
        EXPECT_LE(report["output"]["noise_level_change_db"][c].number, -20.0);

    ExpectResidualAddsUp("denoise", {"--noise", "0:1.5", "--reduction", "25"});
    // What is removed is mostly the noise: in the lead-in nearly all of it.
    EXPECT_NEAR(RmsDb(ReadAudio(dir / "removed.wav").channels[0], kRate / 5, take.leadIn - kRate / 5),
                RmsDb(take.noisy.channels[0], kRate / 5, take.leadIn - kRate / 5), 1.0);
}

TEST_F(DenoiseTest, ASavedPrintOrAnotherFileReproducesTheRunBitForBit) {
    const RunResult first = Ok({"denoise", P("in.wav"), P("a.wav"), "--noise", "0:1.5", "--save-print", P("room.knp")});
    EXPECT_NE(first.out.find("Saved the print in"), std::string::npos);
    const RunResult second = Ok({"denoise", P("in.wav"), P("b.wav"), "--print", P("room.knp"), "--json"});
    EXPECT_EQ(ParseJson(second.out)["noise"]["source"].string, "print");
    // Capture only: no OUTPUT, and the same print.
    EXPECT_TRUE(
        ParseJson(
            Ok({"denoise", P("in.wav"), "--noise", "0:1.5", "--save-print", P("again.knp"), "--json"}).out)["output"]
            .IsNull());
    EXPECT_EQ(ReadBytes(dir / "again.knp"), ReadBytes(dir / "room.knp"));

    // The lead-in as a file of its own (all of it by default), and 0.25 s into a longer one.
    Audio noise = take.noisy;
    for (auto& channel : noise.channels)
        channel.resize(std::size_t(take.leadIn));
    WriteAudio(dir / "noise.wav", noise);
    Ok({"denoise", P("in.wav"), P("c.wav"), "--noise-file", P("noise.wav"), "--quiet"});
    for (auto& channel : noise.channels) {
        channel.insert(channel.begin(), std::size_t(kRate / 4), 0.3);
        channel.insert(channel.end(), std::size_t(kRate), -0.3);
    }
    WriteAudio(dir / "padded.wav", noise);
    Ok({"denoise", P("in.wav"), P("d.wav"), "--noise-file", P("padded.wav"), "--noise", "0.25:1.75", "--quiet"});

    const Audio reference = ReadAudio(dir / "a.wav");
    for (const char* name : {"b.wav", "c.wav", "d.wav"})
        EXPECT_TRUE(ReadAudio(dir / name).channels == reference.channels) << name;
}

TEST_F(DenoiseTest, ZeroReductionCopiesTheInputAndMonoWorks) {
    Ok({"denoise", P("in.wav"), P("same.wav"), "--noise", "0:1.5", "--reduction", "0", "--quiet"});
    const Audio same = ReadAudio(dir / "same.wav");
    ASSERT_EQ(same.Frames(), take.noisy.Frames());
    EXPECT_LT(LargestDifference(take.noisy, same), 1e-6);

    // One channel, 16-bit, a small FFT.
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
    Ok({"denoise", P("in.wav"), P("small.wav"), "--print", P("small.knp"), "-q"});  // its own FFT size
    WriteBytes(dir / "garbage.wav", "this is not audio at all");

    const std::vector<BadCase> cases = {
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
    ExpectRefusals("denoise", cases);
    const std::vector<std::string> names = dir.Names();
    ExpectOneErrorLine(RunKesta({"denoise", P("garbage.wav"), P("out.wav"), "--force", "--noise", "0:1"}), 3,
                       {"garbage.wav", "as audio"});
    ExpectOneErrorLine(RunKesta({"denoise", P("in.wav"), "--noise", "0:1"}), 2, {"no output file"});
    EXPECT_EQ(dir.Names(), names);
}

TEST_F(DehissTest, TurnsTheHissDownAndKeepsTheTonesInPlace) {
    const RunResult run = Ok({"dehiss", P("in.wav"), P("out.wav"), "--noise", "0:1.5", "--json"});
    ExpectCleaned(ReadAudio(dir / "out.wav"), 10.0);  // the default reduction's gain floor is -12 dB
    const JsonValue report = ParseJson(run.out);
    EXPECT_EQ(report["noise"]["kind"].string, "hiss floor");
    EXPECT_EQ(report["settings"]["sensitivity_db"].number, 6);  // the library's default rule
    for (int c = 0; c < 2; ++c)
        EXPECT_LE(report["output"]["noise_level_change_db"][c].number, -10.0);

    ExpectResidualAddsUp("dehiss", {"--noise", "0:1.5", "--sensitivity", "9"});
}

TEST_F(DehissTest, ASavedFloorReproducesTheRunAndSettingsComeFromTheCommandLine) {
    Ok({"dehiss", P("in.wav"), P("a.wav"), "--noise", "0:1.5", "--save-print", P("tape.khf"), "--quiet"});
    Ok({"dehiss", P("in.wav"), P("b.wav"), "--print", P("tape.khf"), "--quiet"});
    const Audio a = ReadAudio(dir / "a.wav");
    EXPECT_TRUE(a.channels == ReadAudio(dir / "b.wav").channels);

    // The same floor at a higher sensitivity removes more, exactly as a fresh capture at it does.
    Ok({"dehiss", P("in.wav"), P("c.wav"), "--print", P("tape.khf"), "--sensitivity", "10", "--quiet"});
    Ok({"dehiss", P("in.wav"), P("d.wav"), "--noise", "0:1.5", "--sensitivity", "10", "--quiet"});
    const Audio c = ReadAudio(dir / "c.wav");
    EXPECT_TRUE(c.channels == ReadAudio(dir / "d.wav").channels);
    EXPECT_LT(RmsDb(c.channels[0], 2 * kRate, 3 * kRate), RmsDb(a.channels[0], 2 * kRate, 3 * kRate));
}

TEST_F(DehissTest, BadCommandLinesSayOneLineAndTouchNothing) {
    Ok({"denoise", P("in.wav"), "--noise", "0:1.5", "--save-print", P("room.knp"), "-q"});
    Ok({"dehiss", P("in.wav"), "--noise", "0:1.5", "--fft-size", "8192", "--save-print", P("big.khf"), "-q"});
    ExpectRefusals("dehiss",
                   {
                       {{"--noise", "0:0.05"}, 2, {"too short", "at least 0.093 s", "4096 frames"}},  // one whole frame
                       {{"--noise", "1.5:0.5"}, 2, {"ends before it starts"}},
                       {{"--print", P("room.knp")}, 2, {"noise print, not a hiss floor"}},
                       {{"--print", P("big.khf"), "--fft-size", "4096"}, 2, {"FFT size 8192"}},
                       {{"--noise", "0:1", "--knee", "-3"}, 2, {"--knee -3", "out of range"}},
                       {{"--noise", "0:1", "--sensitivity", "99"}, 2, {"--sensitivity 99"}},
                       {{"--save-print", P("x.khf")}, 2, {"no noise source"}},
                   });
}

}  // namespace
}  // namespace kesta_test
