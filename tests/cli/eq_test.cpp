// kesta eq and geq: a band's measured gain is the one asked for and the other tones are left
// alone, in place; flat settings give the input back aligned; --response agrees with what the
// processing does; geq presets round trip bit for bit; bad settings are refused in one line
// before any file is touched.

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "cli_test.h"

namespace kesta_test {
namespace {

constexpr int kRate = 48000;

class EqualiserTest : public CliTest {
protected:
    void SetUp() override { WriteAudio(dir / "in.wav", input); }

    double DbChange(const Audio& out, int channel, double hz) const {
        return MeasureChange(input.channels[std::size_t(channel)], out.channels[std::size_t(channel)], kRate, hz).db;
    }
    // `out` has the input's shape, the tone at `hz` is `db` louder and the others are untouched.
    // `linearPhase`: no tone shifted (one frame of delay would turn 8 kHz by a whole radian).
    void ExpectOnlyBoosted(const Audio& out, double hz, double db, bool linearPhase = false) const {
        EXPECT_EQ(out.format, input.format);
        ASSERT_EQ(out.channels.size(), 2u);
        ASSERT_EQ(out.Frames(), input.Frames());
        for (int c = 0; c < 2; ++c)
            for (double tone : tones) {
                const ToneChange change = MeasureChange(input.channels[c], out.channels[c], kRate, tone);
                EXPECT_NEAR(change.db, tone == hz ? db : 0.0, tone == hz ? 0.5 : 0.1) << c << ", " << tone;
                EXPECT_TRUE(!linearPhase || std::fabs(change.phase) < 0.01)
                    << c << ", " << tone << ": " << change.phase;
            }
    }
    // Each response row at a tone of the input agrees with the level change measured in `out`.
    void ExpectResponseMatches(const JsonValue& response, const Audio& out) const {
        std::size_t checked = 0;
        for (const JsonValue& row : response.array)
            if (std::find(tones.begin(), tones.end(), row["frequency_hz"].number) != tones.end()) {
                EXPECT_NEAR(row["gain_db"].number, DbChange(out, 0, row["frequency_hz"].number), 0.05);
                ++checked;
            }
        EXPECT_EQ(checked, tones.size());
    }

    std::vector<double> tones;
    Audio input;
};

class EqTest : public EqualiserTest {
protected:
    EqTest() { input = SineMix(2, kRate, 2.0, tones = {100.0, 1000.0, 10000.0}); }

    // eq in.wav NAME SETTINGS: NAME read back.
    Audio Equalise(const std::string& name, std::vector<std::string> settings) {
        settings.insert(settings.begin(), {"eq", P("in.wav"), P(name), "-q"});
        Ok(settings);
        return ReadAudio(dir / name);
    }
};

const JsonValue& RowAt(const JsonValue& response, double hz) {
    for (const JsonValue& row : response.array)
        if (row["frequency_hz"].number == hz) return row;
    throw std::runtime_error("no response row at " + std::to_string(hz) + " Hz");
}

// The Butterworth curve of `order` at `cutoff`, in dB at hz (the analog magnitude on f/fc).
double ButterworthDb(bool highPass, double cutoff, int order, double hz) {
    const double ratio = hz / cutoff;
    return -10.0 * std::log10(1.0 + std::pow(highPass ? 1.0 / ratio : ratio, 2 * order));
}

TEST_F(EqTest, ABandGivesItsGainAtItsCentreAndLeavesOtherTonesAlone) {
    const JsonValue report = Report({"eq", P("in.wav"), P("out.wav"), "--band", "1000:2:6", "--response"});
    const Audio out = ReadAudio(dir / "out.wav");
    ExpectOnlyBoosted(out, 1000, 6.0);
    ExpectResponseMatches(report["response"], out);
}

TEST_F(EqTest, CutFiltersHaveTheirOrderAndShelvesTheirSide) {
    // Order 8 at 2 kHz: about 48 dB down an octave below; the default order 4 at 500 Hz.
    const Audio hp = Equalise("hp.wav", {"--highpass", "2000:8"});
    EXPECT_NEAR(DbChange(hp, 0, 1000), ButterworthDb(true, 2000, 8, 1000), 0.5);
    EXPECT_NEAR(DbChange(hp, 1, 10000), ButterworthDb(true, 2000, 8, 10000), 0.1);
    const Audio lp = Equalise("lp.wav", {"--lowpass", "500"});
    EXPECT_NEAR(DbChange(lp, 1, 1000), ButterworthDb(false, 500, 4, 1000), 0.5);
    EXPECT_NEAR(DbChange(lp, 0, 100), ButterworthDb(false, 500, 4, 100), 0.1);

    const Audio out = Equalise("shelves.wav", {"--low-shelf", "300:-12", "--high-shelf", "3000:6", "--gain", "-2"});
    EXPECT_LT(DbChange(out, 0, 100), -2.0 - 6.0);    // below the low shelf: cut
    EXPECT_GT(DbChange(out, 0, 10000), -2.0 + 3.0);  // above the high shelf: lifted
}

// The command cuts the sections into two runs for two threads; a chain step runs the equaliser
// whole. Both must write the same samples, wherever the cut falls (after the shelves and first bands,
// after the cut filters, after a lone shelf) and in one thread too.
TEST_F(EqTest, TheEqualiserCutInTwoWritesWhatTheWholeOneWrites) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--low-shelf", "100:3", "--high-shelf", "8000:2", "--band", "200:1:-2", "--band", "500:1.4:2", "--band",
          "1000:2:-3", "--band", "3000:1:1.5", "--band", "6000:2:-2", "--gain", "-2"},
         "eq:low-shelf=100:3,high-shelf=8000:2,band=200:1:-2,band=500:1.4:2,band=1000:2:-3,band=3000:1:1.5,"
         "band=6000:2:-2,gain=-2"},
        {{"--highpass", "80:4", "--lowpass", "15000:2", "--band", "300:2:4", "--band", "2000:1:-3", "--gain", "1"},
         "eq:highpass=80:4,lowpass=15000:2,band=300:2:4,band=2000:1:-3,gain=1"},
        {{"--low-shelf", "200:-4", "--band", "1000:1:3"}, "eq:low-shelf=200:-4,band=1000:1:3"},
    };
    for (const auto& [options, step] : cases) {
        SCOPED_TRACE(step);
        Ok({"chain", P("in.wav"), P("whole.wav"), step, "-q", "--force"});
        const Audio whole = ReadAudio(dir / "whole.wav");
        for (int single = 0; single < 2; ++single) {
            if (single) ::setenv("KESTA_THREADS", "1", 1);
            std::vector<std::string> args = {"eq", P("in.wav"), P("cut.wav"), "-q", "--force"};
            args.insert(args.end(), options.begin(), options.end());
            Ok(args);
            ::unsetenv("KESTA_THREADS");
            EXPECT_TRUE(ReadAudio(dir / "cut.wav").channels == whole.channels) << (single ? "one thread" : "threaded");
        }
    }
}

TEST_F(EqTest, TheResponseTableCoversTwentyHertzToTwentyKilohertz) {
    // The 31 third octaves from 20 Hz to 20 kHz, 80 Hz marked as the cutoff, and the band's centre
    // added between 1000 and 1250 Hz; the text table and the JSON rows alike.
    const std::vector<std::string> args = {"eq",       "--response", "--rate", "44100", "--band",
                                           "1100:1:6", "--highpass", "80:2",   "-q"};
    const std::vector<std::string> text = Lines(Ok(args).out);
    const JsonValue response = Report(args)["response"];
    ASSERT_EQ(response.array.size(), 32u);
    ASSERT_EQ(text.size(), 33u);
    EXPECT_NE(text[0].find("Frequency (Hz)"), std::string::npos) << text[0];
    EXPECT_EQ(response[0]["frequency_hz"].number, 20);
    EXPECT_EQ(response[31]["frequency_hz"].number, 20000);
    for (std::size_t i = 0; i < 32; ++i) {
        const JsonValue& row = response[i];
        EXPECT_TRUE(i == 0 || row["frequency_hz"].number > response[i - 1]["frequency_hz"].number) << i;
        EXPECT_EQ(std::stod(text[i + 1]), row["frequency_hz"].number) << text[i + 1];
        EXPECT_NE(text[i + 1].find(row["at"].IsNull() ? "" : row["at"].string), std::string::npos) << text[i + 1];
    }
    EXPECT_EQ(RowAt(response, 1100)["at"].string, "band 1");
    EXPECT_NEAR(RowAt(response, 1100)["gain_db"].number, 6.0, 0.01);
    EXPECT_EQ(RowAt(response, 80)["at"].string, "high-pass");
    EXPECT_NEAR(RowAt(response, 80)["gain_db"].number, -3.01, 0.05);
    EXPECT_TRUE(RowAt(response, 1000)["at"].IsNull());
}

TEST_F(EqTest, BadValuesSayOneLineAndTouchNothing) {
    WriteAudio(dir / "low-rate.wav", SineMix(1, 32000, 0.1, {1000.0}));
    ExpectRefusals("eq", {
                             {{"--low-shelf", "100"}, 2, {"--low-shelf 100", "FREQ:GAIN"}},
                             {{"--high-shelf", "8000:x"}, 2, {"'x' is not a number"}},
                             {{"--band", "1000:0:6"}, 2, {"the Q 0 is out of range", "0.0001 to 10000"}},
                             {{"--band", "10:1:3"}, 2, {"the frequency 10 Hz is out of range", "20 to 22050 Hz"}},
                             {{"--lowpass", "8000:2.5"}, 2, {"not a whole number"}},
                             {{"--gain", "60"}, 2, {"--gain 60 is out of range", "-96 to 48 dB"}},
                             {{"--band", "100:1:1", "--band", "200:1:1", "--band", "300:1:1", "--band", "400:1:1",
                               "--band", "500:1:1", "--band", "600:1:1"},
                              2,
                              {"6 --band options", "at most five"}},
                             {{"--rate", "44100"}, 2, {"--rate goes only with --response"}},
                         });
    ExpectRefusals("",
                   {
                       {{"eq", P("low-rate.wav"), P("new.wav"), "--band", "16000:1:3"},
                        2,
                        {"--band 16000:1:3", "not below half the sample rate of '" + P("low-rate.wav") + "' (32000 Hz)",
                         "below 16000 Hz"}},
                       {{"eq", "--response", "--rate", "44100", "--lowpass", "22050"},
                        2,
                        {"22050 Hz is not below half the sample rate of 44100 Hz (--rate)"}},
                       {{"eq", P("in.wav")}, 2, {"no output file", "--response"}},
                       {{"eq", "--response", "--band", "1000:1:3"}, 2, {"needs a sample rate", "--rate"}},
                       {{"eq", P("in.wav"), P("out.wav")}, 4, {"already exists"}},
                   });
}

// Centres of bands 4, 7 and 9 of the octave layout.
const std::string kBoost7 = "--gains=0,0,0,0,0,0,6,0,0,0";

class GeqTest : public EqualiserTest {
protected:
    GeqTest() { input = SineMix(2, kRate, 2.0, tones = {250.0, 2000.0, 8000.0}); }
};

// The 35 floats of a 140-byte preset.
std::vector<float> PresetValues(const std::string& bytes) {
    std::vector<float> values(35);
    EXPECT_EQ(bytes.size(), 140u);
    std::memcpy(values.data(), bytes.data(), std::min<std::size_t>(bytes.size(), 140));
    return values;
}

TEST_F(GeqTest, ABandGivesItsGainInPlaceAndLeavesTheOthersAlone) {
    const JsonValue report = Report({"geq", P("in.wav"), P("out.wav"), kBoost7, "--response"});
    const Audio out = ReadAudio(dir / "out.wav");
    ExpectOnlyBoosted(out, 2000, 6.0, true);
    ExpectResponseMatches(report["response"], out);
}

TEST_F(GeqTest, FlatSettingsAndAMasterGainLeaveEveryChannelItselfInPlace) {
    // Three channels (the third without a partner in the transforms), shorter than the filter's
    // delay.
    Audio three = SineMix(3, kRate, 0.1, tones);
    WriteAudio(dir / "three.wav", three);
    Ok({"geq", P("three.wav"), P("three-out.wav"), "--gain", "-6", "--bands", "30", "-q"});
    const Audio out = ReadAudio(dir / "three-out.wav");
    ASSERT_EQ(out.channels.size(), 3u);
    ASSERT_EQ(out.Frames(), three.Frames());
    for (auto& channel : three.channels)
        for (double& x : channel)
            x *= std::pow(10.0, -6.0 / 20.0);
    EXPECT_LT(LargestDifference(three, out), 1e-6);
}

TEST_F(GeqTest, APresetKeepsTheSettingsAndReproducesTheOutputBitForBit) {
    // Twenty bands, band 14 (2828 Hz) lifted, a master gain: the chunk holds them in index order.
    const std::string gains = "--gains=0,0,0,0,0,0,0,0,0,0,0,0,0,4,0,0,0,0,0,-3";
    Ok({"geq", P("in.wav"), P("a.wav"), "--bands", "20", gains, "--gain", "-2", "--save-preset", P("p.kgq"), "-q"});
    const std::vector<float> values = PresetValues(ReadBytes(dir / "p.kgq"));
    EXPECT_EQ(values[0], 1000.0f);  // accuracy
    EXPECT_EQ(values[1], -2.0f);    // master gain
    EXPECT_EQ(values[4 + 13], 4.0f);
    EXPECT_EQ(values[4 + 19], -3.0f);
    EXPECT_EQ(values[34], 1.0f);  // 20 bands
    Ok({"geq", P("in.wav"), P("b.wav"), "--preset", P("p.kgq"), "-q"});
    EXPECT_TRUE(ReadAudio(dir / "a.wav").channels == ReadAudio(dir / "b.wav").channels);

    // Saved without any audio: the same chunk. A preset's master gain can be replaced.
    Ok({"geq", "--bands", "20", gains, "--gain", "-2", "--save-preset", P("again.kgq"), "-q"});
    EXPECT_EQ(ReadBytes(dir / "again.kgq"), ReadBytes(dir / "p.kgq"));
    const auto lowest = [&](const std::string& gain) {
        return Report(
            {"geq", "--preset", P("p.kgq"), "--response", "--rate", "48000", "--gain=" + gain})["response"][0];
    };
    EXPECT_NEAR(lowest("4")["gain_db"].number - lowest("-2")["gain_db"].number, 6.0, 1e-3);
}

TEST_F(GeqTest, BadSettingsAndPresetsSayOneLineAndTouchNothing) {
    Ok({"geq", kBoost7, "--save-preset", P("good.kgq"), "-q"});
    const std::string good = ReadBytes(dir / "good.kgq");
    WriteBytes(dir / "short.kgq", good.substr(0, 100));
    WriteBytes(dir / "long.kgq", good + "xx");
    const auto patched = [&](int index, float value) {  // `good` with one of its floats replaced
        std::string bytes = good;
        std::memcpy(bytes.data() + 4 * index, &value, 4);
        return bytes;
    };
    WriteBytes(dir / "nan.kgq", patched(4 + 2, std::nanf("")));
    WriteBytes(dir / "layout.kgq", patched(34, 1.5f));

    ExpectRefusals("geq",
                   {
                       {{"--gains", "1,2,3"}, 2, {"--gains has 3 value(s)", "10 bands need 10"}},
                       {{"--bands", "12"}, 2, {"--bands 12 is not a layout", "10", "20", "30"}},
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
                   });
    // A preset is an input too: never written over, not even with --force.
    ExpectRefusals("", {{{"geq", "--preset", P("good.kgq"), "--save-preset", P("good.kgq"), "--force"},
                         4,
                         {"refusing to write", "good.kgq"}}});
    EXPECT_EQ(ReadBytes(dir / "good.kgq"), good);
}

}  // namespace
}  // namespace kesta_test
