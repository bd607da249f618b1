// kesta geq: a band's gain at its centre with the other bands untouched and no phase shift left
// (the filter's delay compensated), a flat setting giving the input back at lag 0, --response
// agreeing with the processing, presets (the 140-byte settings chunk) saved and used again with
// bit-identical results, and bad settings or presets refused in one line before any file is
// touched.

#include <algorithm>
#include <cmath>
#include <cstring>

#include "cli_test.h"
#include "sine_mix.h"

namespace kesta_test {
namespace {

constexpr int kRate = 48000;
// Centres of bands 4, 7 and 9 of the octave layout.
const std::vector<double> kTones = {250.0, 2000.0, 8000.0};
const std::string kBoost7 = "--gains=0,0,0,0,0,0,6,0,0,0";

class GeqTest : public CliTest {
protected:
    void SetUp() override {
        input = SineMix(2, kRate, 2.0, kTones);
        WriteAudio(dir / "in.wav", input);
    }

    RunResult Ok(const std::vector<std::string>& args) {
        RunResult run = RunKesta(args);
        EXPECT_EQ(run.exitCode, 0) << run.err;
        return run;
    }

    Audio input;
};

// The 35 floats of a preset file.
std::vector<float> PresetValues(const std::string& bytes) {
    std::vector<float> values(35);
    EXPECT_EQ(bytes.size(), 140u);
    std::memcpy(values.data(), bytes.data(), std::min<std::size_t>(bytes.size(), 140));
    return values;
}

std::string PresetBytes(const std::vector<float>& values) {
    std::string bytes(140, '\0');
    std::memcpy(bytes.data(), values.data(), 140);
    return bytes;
}

TEST_F(GeqTest, ABandGivesItsGainInPlaceAndLeavesTheOthersAlone) {
    const RunResult run = Ok({"geq", P("in.wav"), P("out.wav"), kBoost7, "--response", "--json"});
    const Audio out = ReadAudio(dir / "out.wav");
    EXPECT_EQ(out.format, input.format);
    ASSERT_EQ(out.channels.size(), 2u);
    ASSERT_EQ(out.Frames(), input.Frames());
    const JsonValue report = ParseJson(run.out);
    for (int c = 0; c < 2; ++c) {
        SCOPED_TRACE(c);
        const ToneChange boosted = MeasureChange(input.channels[c], out.channels[c], kRate, 2000);
        EXPECT_NEAR(boosted.db, 6.0, 0.5);
        EXPECT_NEAR(MeasureChange(input.channels[c], out.channels[c], kRate, 250).db, 0.0, 0.1);
        EXPECT_NEAR(MeasureChange(input.channels[c], out.channels[c], kRate, 8000).db, 0.0, 0.1);
        // A linear-phase filter with its delay taken out shifts no tone: one frame of delay would
        // turn the 8 kHz tone by a whole radian.
        for (double hz : kTones)
            EXPECT_NEAR(MeasureChange(input.channels[c], out.channels[c], kRate, hz).phase, 0.0, 0.01) << hz;
    }
    // The curve says what the processing did, at the band centres (marked) and between them.
    for (const JsonValue& row : report["response"].array) {
        const double hz = row["frequency_hz"].number;
        if (hz == 2000) {
            EXPECT_EQ(row["at"].string, "band 7");
        }
        if (std::find(kTones.begin(), kTones.end(), hz) != kTones.end()) {
            EXPECT_NEAR(row["gain_db"].number, MeasureChange(input.channels[0], out.channels[0], kRate, hz).db, 0.05)
                << hz;
        }
    }
    EXPECT_EQ(report["command"].string, "geq");
    EXPECT_EQ(report["settings"]["bands"].number, 10);
    EXPECT_EQ(report["settings"]["gains_db"][6].number, 6);
    EXPECT_EQ(report["settings"]["centres_hz"][6].number, 2000);
    EXPECT_EQ(report["output"]["frames"].number, double(input.Frames()));
    EXPECT_TRUE(report["saved_preset"].IsNull());
}

TEST_F(GeqTest, FlatSettingsGiveTheInputBackAtLagZero) {
    Ok({"geq", P("in.wav"), P("flat.wav"), "--quiet"});
    const Audio flat = ReadAudio(dir / "flat.wav");
    ASSERT_EQ(flat.Frames(), input.Frames());
    EXPECT_LT(LargestDifference(input, flat), 1e-6);

    // Three channels (the third without a partner in the transforms), shorter than the filter's
    // delay, and a master gain: every channel stays itself, scaled.
    const Audio three = SineMix(3, kRate, 0.1, kTones);
    WriteAudio(dir / "three.wav", three);
    Ok({"geq", P("three.wav"), P("three-out.wav"), "--gain", "-6", "--bands", "30", "-q"});
    const Audio out = ReadAudio(dir / "three-out.wav");
    ASSERT_EQ(out.channels.size(), 3u);
    ASSERT_EQ(out.Frames(), three.Frames());
    Audio expected = three;
    const double factor = std::pow(10.0, -6.0 / 20.0);
    for (auto& channel : expected.channels)
        for (double& x : channel)
            x *= factor;
    EXPECT_LT(LargestDifference(expected, out), 1e-6);
}

TEST_F(GeqTest, APresetKeepsTheSettingsAndReproducesTheOutputBitForBit) {
    // Twenty bands, band 14 (2828 Hz) lifted, a master gain: the chunk holds them in index order.
    const std::string gains = "--gains=0,0,0,0,0,0,0,0,0,0,0,0,0,4,0,0,0,0,0,-3";
    const RunResult first =
        Ok({"geq", P("in.wav"), P("a.wav"), "--bands", "20", gains, "--gain", "-2", "--save-preset", P("p.kgq")});
    EXPECT_NE(first.out.find("Saved the preset in"), std::string::npos) << first.out;
    const std::vector<float> values = PresetValues(ReadBytes(dir / "p.kgq"));
    EXPECT_EQ(values[0], 1000.0f);  // accuracy
    EXPECT_EQ(values[1], -2.0f);    // master gain
    EXPECT_EQ(values[4 + 13], 4.0f);
    EXPECT_EQ(values[4 + 19], -3.0f);
    EXPECT_EQ(values[34], 1.0f);  // 20 bands

    const RunResult second = Ok({"geq", P("in.wav"), P("b.wav"), "--preset", P("p.kgq"), "--json"});
    EXPECT_TRUE(ReadAudio(dir / "a.wav").channels == ReadAudio(dir / "b.wav").channels);
    const JsonValue report = ParseJson(second.out);
    EXPECT_EQ(report["settings"]["bands"].number, 20);
    EXPECT_EQ(report["settings"]["gain_db"].number, -2);
    EXPECT_EQ(report["settings"]["preset"].string, P("p.kgq"));

    // Saved without any audio: the same chunk. A preset's master gain can be replaced.
    Ok({"geq", "--bands", "20", gains, "--gain", "-2", "--save-preset", P("again.kgq"), "-q"});
    EXPECT_EQ(ReadBytes(dir / "again.kgq"), ReadBytes(dir / "p.kgq"));
    const JsonValue louder =
        ParseJson(Ok({"geq", "--preset", P("p.kgq"), "--gain", "4", "--response", "--rate", "48000", "--json"}).out);
    const JsonValue kept =
        ParseJson(Ok({"geq", "--preset", P("p.kgq"), "--response", "--rate", "48000", "--json"}).out);
    EXPECT_EQ(louder["settings"]["gain_db"].number, 4);
    EXPECT_NEAR(louder["response"][0]["gain_db"].number - kept["response"][0]["gain_db"].number, 6.0, 1e-3);
    EXPECT_EQ(dir.Names(), (std::vector<std::string>{"a.wav", "again.kgq", "b.wav", "in.wav", "p.kgq"}));
}

TEST_F(GeqTest, BadSettingsAndPresetsSayOneLineAndTouchNothing) {
    Ok({"geq", kBoost7, "--save-preset", P("good.kgq"), "-q"});
    const std::string good = ReadBytes(dir / "good.kgq");
    WriteBytes(dir / "short.kgq", good.substr(0, 100));
    WriteBytes(dir / "long.kgq", good + "xx");
    std::vector<float> values = PresetValues(good);
    values[4 + 2] = std::nanf("");
    WriteBytes(dir / "nan.kgq", PresetBytes(values));
    values = PresetValues(good);
    values[34] = 1.5f;
    WriteBytes(dir / "layout.kgq", PresetBytes(values));
    WriteBytes(dir / "out.wav", "keep me");

    struct Case {
        std::vector<std::string> args;
        int code;
        std::vector<std::string> mentions;
    };
    const std::vector<Case> cases = {
        {{"--gains", "1,2,3"}, 2, {"--gains has 3 value(s)", "10 bands need 10"}},
        {{"--bands", "20", kBoost7}, 2, {"has 10 value(s)", "20 bands need 20"}},
        {{"--bands", "12"}, 2, {"--bands 12 is not a layout", "10", "20", "30"}},
        {{"--gains=0,0,x,0,0,0,0,0,0,0"}, 2, {"'x' is not a number"}},
        {{"--gains=0,0,,0,0,0,0,0,0,0"}, 2, {"a field is empty"}},
        {{"--gains=0,0,0,0,0,0,80,0,0,0"}, 2, {"80 dB of band 7 is out of range", "-59.9 to 59.9 dB"}},
        {{"--gain", "70"}, 2, {"--gain 70 is out of range", "-64 to 64 dB"}},
        {{"--accuracy", "9000"}, 2, {"--accuracy 9000 is out of range", "10 to 8192"}},
        {{"--preset", P("good.kgq"), kBoost7}, 2, {"cannot be combined"}},
        {{"--save-preset", P("out.wav")}, 2, {"same file"}},
        {{"--preset", P("short.kgq")}, 3, {"short.kgq", "100 bytes", "140", "truncated"}},
        {{"--preset", P("long.kgq")}, 3, {"long.kgq", "not one"}},
        {{"--preset", P("nan.kgq")}, 3, {"band 3 gain is nan", "damaged"}},
        {{"--preset", P("layout.kgq")}, 3, {"band layout is 1.5"}},
        {{"--preset", P("missing.kgq")}, 3, {"missing.kgq", "no such file"}},
        {{"--preset", dir.Path().string()}, 3, {"a directory"}},
    };
    const std::vector<std::string> names = dir.Names();
    for (const Case& bad : cases) {
        std::vector<std::string> args = {"geq", P("in.wav"), P("out.wav"), "--force"};
        args.insert(args.end(), bad.args.begin(), bad.args.end());
        SCOPED_TRACE(testing::PrintToString(bad.args));
        ExpectOneErrorLine(RunKesta(args), bad.code, bad.mentions);
        EXPECT_EQ(ReadBytes(dir / "out.wav"), "keep me");
        EXPECT_EQ(dir.Names(), names);  // no temporary left, nothing new
    }
    // A preset is an input too: never written over, not even with --force.
    ExpectOneErrorLine(RunKesta({"geq", "--preset", P("good.kgq"), "--save-preset", P("good.kgq"), "--force"}), 4,
                       {"refusing to write", "good.kgq"});
    EXPECT_EQ(ReadBytes(dir / "good.kgq"), good);
    EXPECT_EQ(dir.Names(), names);
}

TEST_F(GeqTest, ProgressOnATerminalOnlyAndQuietMeansQuiet) {
    const std::optional<RunResult> shown = RunKestaOnTerminal({"geq", P("in.wav"), P("a.wav"), kBoost7});
    if (!shown) GTEST_SKIP() << "no pseudo-terminal here";
    ASSERT_EQ(shown->exitCode, 0) << shown->err;
    EXPECT_NE(shown->err.find("\rgeq  ["), std::string::npos) << shown->err;
    const RunResult quiet = *RunKestaOnTerminal({"geq", "--quiet", P("in.wav"), P("b.wav"), kBoost7});
    ASSERT_EQ(quiet.exitCode, 0);
    EXPECT_EQ(quiet.out + quiet.err, "");
}

}  // namespace
}  // namespace kesta_test
