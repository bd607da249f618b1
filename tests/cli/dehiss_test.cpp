// kesta dehiss: the hiss floor from a stretch or a saved print, thresholds --sensitivity above
// it; output of the input's length and aligned with it; residual and output sum to the input.

#include <cmath>

#include "cli_test.h"
#include "noisy_take.h"

namespace kesta_test {
namespace {

constexpr int kFloatWav = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
constexpr int kRate = 44100;

class DehissTest : public CliTest {
protected:
    void SetUp() override {
        take = MakeNoisyTake(kFloatWav);
        WriteAudio(dir / "in.wav", take.noisy);
    }

    RunResult Ok(const std::vector<std::string>& args) {
        RunResult run = RunKesta(args);
        EXPECT_EQ(run.exitCode, 0) << run.err;
        return run;
    }

    NoisyTake take;
};

TEST_F(DehissTest, TurnsTheHissDownAndKeepsTheTonesInPlace) {
    const RunResult run = Ok({"dehiss", P("in.wav"), P("out.wav"), "--noise", "0:1.5", "--json"});
    const Audio out = ReadAudio(dir / "out.wav");
    EXPECT_EQ(out.format, kFloatWav);
    ASSERT_EQ(out.channels.size(), 2u);
    ASSERT_EQ(out.Frames(), take.noisy.Frames());

    const int64_t quietFrom = kRate / 5, quietTo = take.leadIn - kRate / 5;
    const int64_t toneFrom = 2 * kRate, toneTo = 3 * kRate + kRate / 2;
    for (int c = 0; c < 2; ++c) {
        SCOPED_TRACE(c);
        // The default reduction (24) has a gain floor of -12 dB: most of it is reached.
        EXPECT_LE(RmsDb(out.channels[c], quietFrom, quietTo) - RmsDb(take.noisy.channels[c], quietFrom, quietTo),
                  -10.0);
        for (double hz : ToneFrequencies(c)) {
            const ToneFit clean = FitTone(take.tones.channels[c], kRate, hz, toneFrom, toneTo);
            const ToneFit kept = FitTone(out.channels[c], kRate, hz, toneFrom, toneTo);
            EXPECT_NEAR(20.0 * std::log10(kept.amplitude / clean.amplitude), 0.0, 0.5) << hz;
            EXPECT_NEAR(PhaseDifference(kept.phase, clean.phase), 0.0, 0.01) << hz;
        }
    }

    const JsonValue report = ParseJson(run.out);
    EXPECT_EQ(report["command"].string, "dehiss");
    EXPECT_EQ(report["noise"]["kind"].string, "hiss floor");
    EXPECT_EQ(report["settings"]["sensitivity_db"].number, 6);  // the library's default rule
    EXPECT_EQ(report["settings"]["reduction_db"].number, 24);
    EXPECT_EQ(report["settings"]["knee_db"].number, 7);
    EXPECT_GT(report["noise"]["snapshots"].number, 30);  // a snapshot every 1638 frames
    for (int c = 0; c < 2; ++c)
        EXPECT_LE(report["output"]["noise_level_change_db"][c].number, -10.0);
}

TEST_F(DehissTest, ResidualAndCleanedOutputSumToTheInput) {
    Ok({"dehiss", P("in.wav"), P("clean.wav"), "--noise", "0:1.5", "--sensitivity", "9", "--quiet"});
    Ok({"dehiss", P("in.wav"), P("removed.wav"), "--noise", "0:1.5", "--sensitivity", "9", "--residual", "--quiet"});
    const Audio clean = ReadAudio(dir / "clean.wav"), removed = ReadAudio(dir / "removed.wav");
    ASSERT_EQ(clean.Frames(), take.noisy.Frames());
    ASSERT_EQ(removed.Frames(), take.noisy.Frames());
    double worst = 0.0;
    for (int c = 0; c < 2; ++c)
        for (std::size_t i = 0; i < clean.channels[c].size(); ++i)
            worst =
                std::max(worst, std::fabs(clean.channels[c][i] + removed.channels[c][i] - take.noisy.channels[c][i]));
    EXPECT_LT(worst, 1e-5);
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
    WriteBytes(dir / "out.wav", "keep me");
    const std::vector<std::string> names = dir.Names();
    struct Case {
        std::vector<std::string> args;
        std::vector<std::string> mentions;
    };
    const std::vector<Case> cases = {
        // A hiss floor needs one whole frame: 4096 frames at 44.1 kHz.
        {{"--noise", "0:0.05"}, {"too short", "at least 0.093 s", "4096 frames"}},
        {{"--noise", "1.5:0.5"}, {"ends before it starts"}},
        {{"--print", P("room.knp")}, {"noise print, not a hiss floor"}},
        {{"--print", P("big.khf"), "--fft-size", "4096"}, {"FFT size 8192"}},
        {{"--noise", "0:1", "--knee", "-3"}, {"--knee -3", "out of range"}},
        {{"--noise", "0:1", "--sensitivity", "99"}, {"--sensitivity 99"}},
        {{"--save-print", P("x.khf")}, {"no noise source"}},
    };
    for (const Case& bad : cases) {
        std::vector<std::string> args = {"dehiss", P("in.wav"), P("out.wav"), "--force"};
        args.insert(args.end(), bad.args.begin(), bad.args.end());
        SCOPED_TRACE(testing::PrintToString(bad.args));
        ExpectOneErrorLine(RunKesta(args), 2, bad.mentions);
        EXPECT_EQ(ReadBytes(dir / "out.wav"), "keep me");
        EXPECT_EQ(dir.Names(), names);
    }
}

}  // namespace
}  // namespace kesta_test
