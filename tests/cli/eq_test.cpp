// kesta eq: each option lands on the right filter with the right value (a band's gain at its
// centre, the cut filters' order and cutoff, the shelves' side), --response agrees with what the
// processing does, the output keeps the input's length and alignment, and bad values are refused
// in one line before any file is touched.

#include <algorithm>
#include <cmath>
#include <numbers>
#include <sstream>

#include "cli_test.h"
#include "sine_mix.h"

namespace kesta_test {
namespace {

constexpr int kRate = 48000;
const std::vector<double> kTones = {100.0, 1000.0, 10000.0};

class EqTest : public CliTest {
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

    // Runs eq on in.wav with `settings` and --response --json; returns the report and the output.
    JsonValue Equalise(const std::string& name, const std::vector<std::string>& settings) {
        std::vector<std::string> args = {"eq", P("in.wav"), P(name), "--response", "--json"};
        args.insert(args.end(), settings.begin(), settings.end());
        return ParseJson(Ok(args).out);
    }

    Audio input;
};

// The row of a response table at `hz`.
const JsonValue& RowAt(const JsonValue& response, double hz) {
    for (const JsonValue& row : response.array)
        if (row["frequency_hz"].number == hz) return row;
    throw std::runtime_error("no response row at " + std::to_string(hz) + " Hz");
}

// A digital Butterworth filter (bilinear, cutoff prewarped) of `order` at `cutoff`, in dB at hz.
double ButterworthDb(bool highPass, double cutoff, int order, double hz) {
    const double ratio = std::tan(std::numbers::pi * hz / kRate) / std::tan(std::numbers::pi * cutoff / kRate);
    const double r = highPass ? 1.0 / ratio : ratio;
    return -10.0 * std::log10(1.0 + std::pow(r, 2 * order));
}

TEST_F(EqTest, ABandGivesItsGainAtItsCentreAndLeavesOtherTonesAlone) {
    const JsonValue report = Equalise("out.wav", {"--band", "1000:2:6"});
    const Audio out = ReadAudio(dir / "out.wav");
    EXPECT_EQ(out.format, input.format);
    ASSERT_EQ(out.channels.size(), 2u);
    ASSERT_EQ(out.Frames(), input.Frames());
    for (int c = 0; c < 2; ++c) {
        SCOPED_TRACE(c);
        EXPECT_NEAR(MeasureChange(input.channels[c], out.channels[c], kRate, 1000).db, 6.0, 0.5);
        EXPECT_NEAR(MeasureChange(input.channels[c], out.channels[c], kRate, 100).db, 0.0, 0.1);
        EXPECT_NEAR(MeasureChange(input.channels[c], out.channels[c], kRate, 10000).db, 0.0, 0.1);
    }
    // The curve is the processing's: at the band (marked) and at the other tones.
    const JsonValue& response = report["response"];
    EXPECT_EQ(RowAt(response, 1000)["at"].string, "band 1");
    EXPECT_TRUE(RowAt(response, 100)["at"].IsNull());
    for (double hz : kTones)
        EXPECT_NEAR(RowAt(response, hz)["gain_db"].number,
                    MeasureChange(input.channels[0], out.channels[0], kRate, hz).db, 0.05)
            << hz;
    EXPECT_EQ(report["command"].string, "eq");
    EXPECT_EQ(report["settings"]["bands"][0]["q"].number, 2);
    EXPECT_EQ(report["latency_frames"].number, 0);
    EXPECT_EQ(report["output"]["frames"].number, double(input.Frames()));
    EXPECT_GT(report["output"]["level_change_db"][0].number, 0.5);

    // The same curve from the input's rate alone, and from --rate: nothing is written.
    const std::vector<std::string> names = dir.Names();
    const JsonValue fromInput = ParseJson(Ok({"eq", "--response", "--band", "1000:2:6", P("in.wav"), "--json"}).out);
    const JsonValue fromRate =
        ParseJson(Ok({"eq", "--response", "--band", "1000:2:6", "--rate", "48000", "--json"}).out);
    EXPECT_TRUE(fromInput["output"].IsNull());
    EXPECT_TRUE(fromRate["input"].IsNull());
    EXPECT_EQ(fromRate["sample_rate"].number, kRate);
    ASSERT_EQ(fromInput["response"].array.size(), response.array.size());
    for (std::size_t i = 0; i < response.array.size(); ++i) {
        EXPECT_EQ(fromInput["response"][i]["gain_db"].number, response[i]["gain_db"].number);
        EXPECT_EQ(fromRate["response"][i]["gain_db"].number, response[i]["gain_db"].number);
    }
    EXPECT_EQ(dir.Names(), names);
}

TEST_F(EqTest, CutFiltersHaveTheirOrderAndShelvesTheirSide) {
    // Order 8 at 2 kHz: about 48 dB down an octave below; the default order 4 at 500 Hz: about
    // 24 dB down an octave above.
    JsonValue report = Equalise("hp.wav", {"--highpass", "2000:8"});
    Audio out = ReadAudio(dir / "hp.wav");
    EXPECT_NEAR(MeasureChange(input.channels[0], out.channels[0], kRate, 1000).db, ButterworthDb(true, 2000, 8, 1000),
                0.5);
    EXPECT_NEAR(MeasureChange(input.channels[1], out.channels[1], kRate, 10000).db, ButterworthDb(true, 2000, 8, 10000),
                0.1);
    EXPECT_EQ(RowAt(report["response"], 2000)["at"].string, "high-pass");

    report = Equalise("lp.wav", {"--lowpass", "500"});
    out = ReadAudio(dir / "lp.wav");
    EXPECT_EQ(report["settings"]["lowpass"]["order"].number, 4);
    EXPECT_NEAR(MeasureChange(input.channels[1], out.channels[1], kRate, 1000).db, ButterworthDb(false, 500, 4, 1000),
                0.5);
    EXPECT_NEAR(MeasureChange(input.channels[0], out.channels[0], kRate, 100).db, ButterworthDb(false, 500, 4, 100),
                0.1);

    // A cut low shelf and a lifted high shelf, with an output gain: each tone as the curve says.
    report = Equalise("shelves.wav", {"--low-shelf", "300:-12", "--high-shelf", "3000:6", "--gain", "-2"});
    out = ReadAudio(dir / "shelves.wav");
    std::vector<double> measured;
    for (double hz : kTones) {
        measured.push_back(MeasureChange(input.channels[0], out.channels[0], kRate, hz).db);
        EXPECT_NEAR(RowAt(report["response"], hz)["gain_db"].number, measured.back(), 0.05) << hz;
    }
    EXPECT_LT(measured[0], -2.0 - 6.0);  // below the low shelf: cut
    EXPECT_GT(measured[2], -2.0 + 3.0);  // above the high shelf: lifted
    EXPECT_GT(measured[1], measured[0]);
    EXPECT_LT(measured[1], measured[2]);
}

TEST_F(EqTest, ZeroDecibelsReproducesTheInputInPlace) {
    Ok({"eq", P("in.wav"), P("flat.wav"), "--quiet"});
    Ok({"eq", P("in.wav"), P("zero.wav"), "--band", "1000:1:0", "--low-shelf", "100:0", "--high-shelf", "8000:0",
        "-q"});
    for (const char* name : {"flat.wav", "zero.wav"}) {
        SCOPED_TRACE(name);
        const Audio out = ReadAudio(dir / name);
        ASSERT_EQ(out.channels.size(), input.channels.size());
        ASSERT_EQ(out.Frames(), input.Frames());
        EXPECT_LT(LargestDifference(input, out), 1e-6);
    }
    // An integer file keeps its format and length, with more channels than two.
    Audio three = SineMix(3, kRate, 0.5, kTones);
    three.format = SF_FORMAT_WAV | SF_FORMAT_PCM_24;
    for (auto& channel : three.channels)
        for (double& x : channel)
            x = Quantise(x, 24);
    WriteAudio(dir / "three.wav", three);
    const RunResult run = Ok({"eq", P("three.wav"), P("three-out.wav")});
    EXPECT_NE(run.out.find("flat"), std::string::npos) << run.out;
    const Audio out = ReadAudio(dir / "three-out.wav");
    EXPECT_EQ(out.format, three.format);
    EXPECT_EQ(out.Frames(), three.Frames());
    EXPECT_TRUE(out.channels == three.channels);
}

TEST_F(EqTest, TheResponseTableCoversTwentyHertzToTwentyKilohertz) {
    const RunResult run = Ok({"eq", "--response", "--rate", "44100", "--band", "1100:1:6", "--highpass", "80:2", "-q"});
    // A heading, then one row per frequency: the 31 third octaves from 20 Hz to 20 kHz, 80 Hz
    // marked as the cutoff, and the band's centre added between 1000 and 1250 Hz.
    std::istringstream text(run.out);
    std::string line;
    ASSERT_TRUE(std::getline(text, line));
    EXPECT_NE(line.find("Frequency (Hz)"), std::string::npos) << line;
    std::vector<double> hz, db;
    std::vector<std::string> at;
    while (std::getline(text, line)) {
        std::istringstream row(line);
        double f = 0.0, g = 0.0;
        std::string name;
        ASSERT_TRUE(row >> f >> g) << line;
        std::getline(row >> std::ws, name);
        hz.push_back(f), db.push_back(g), at.push_back(name);
    }
    ASSERT_EQ(hz.size(), 32u) << run.out;
    EXPECT_EQ(hz.front(), 20);
    EXPECT_EQ(hz.back(), 20000);
    for (std::size_t i = 1; i < hz.size(); ++i)
        EXPECT_GT(hz[i], hz[i - 1]);
    const auto row = [&](double f) { return std::size_t(std::find(hz.begin(), hz.end(), f) - hz.begin()); };
    ASSERT_LT(row(1100), hz.size());
    EXPECT_EQ(at[row(1100)], "band 1");
    EXPECT_NEAR(db[row(1100)], 6.0, 0.01);
    EXPECT_EQ(at[row(80)], "high-pass");
    EXPECT_NEAR(db[row(80)], -3.01, 0.05);
    EXPECT_EQ(at[row(1000)], "");
}

TEST_F(EqTest, BadValuesSayOneLineAndTouchNothing) {
    WriteBytes(dir / "out.wav", "keep me");
    WriteAudio(dir / "low-rate.wav", SineMix(1, 32000, 0.1, {1000.0}));
    struct Case {
        std::vector<std::string> args;
        std::vector<std::string> mentions;
    };
    const std::vector<Case> cases = {
        {{"--low-shelf", "100"}, {"--low-shelf 100", "FREQ:GAIN"}},
        {{"--high-shelf", "8000:x"}, {"'x' is not a number"}},
        {{"--band", "1000:6"}, {"--band 1000:6", "FREQ:Q:GAIN"}},
        {{"--band", "1000:0:6"}, {"the Q 0 is out of range", "0.0001 to 10000"}},
        {{"--band", "1000:-1:6"}, {"the Q -1 is out of range"}},
        {{"--band", "1000:1:50"}, {"the gain 50 dB is out of range", "-48 to 48 dB"}},
        {{"--band", "10:1:3"}, {"the frequency 10 Hz is out of range", "20 to 22050 Hz"}},
        {{"--band", "30000:1:3"}, {"the frequency 30000 Hz is out of range"}},
        {{"--highpass", "80:9"}, {"--highpass 80:9", "the order 9 is out of range", "1 to 8"}},
        {{"--lowpass", "8000:0"}, {"the order 0 is out of range"}},
        {{"--lowpass", "8000:2.5"}, {"not a whole number"}},
        {{"--gain", "60"}, {"--gain 60 is out of range", "-96 to 48 dB"}},
        {{"--band", "100:1:1", "--band", "200:1:1", "--band", "300:1:1", "--band", "400:1:1", "--band", "500:1:1",
          "--band", "600:1:1"},
         {"6 --band options", "at most five"}},
        {{"--rate", "44100"}, {"--rate goes only with --response"}},
    };
    const std::vector<std::string> names = dir.Names();
    for (const Case& bad : cases) {
        std::vector<std::string> args = {"eq", P("in.wav"), P("out.wav"), "--force"};
        args.insert(args.end(), bad.args.begin(), bad.args.end());
        SCOPED_TRACE(testing::PrintToString(bad.args));
        ExpectOneErrorLine(RunKesta(args), 2, bad.mentions);
        EXPECT_EQ(ReadBytes(dir / "out.wav"), "keep me");
        EXPECT_EQ(dir.Names(), names);  // no temporary left, nothing new
    }
    // Frequencies at or above half the input's sample rate.
    ExpectOneErrorLine(RunKesta({"eq", P("low-rate.wav"), P("new.wav"), "--band", "16000:1:3"}), 2,
                       {"--band 16000:1:3", "not below half the sample rate of '" + P("low-rate.wav") + "' (32000 Hz)",
                        "below 16000 Hz"});
    ExpectOneErrorLine(RunKesta({"eq", "--response", "--rate", "44100", "--lowpass", "22050"}), 2,
                       {"22050 Hz is not below half the sample rate of 44100 Hz (--rate)"});
    // Nothing to do, or no rate for the curve.
    ExpectOneErrorLine(RunKesta({"eq", P("in.wav")}), 2, {"no output file", "--response"});
    ExpectOneErrorLine(RunKesta({"eq", "--response", "--band", "1000:1:3"}), 2, {"needs a sample rate", "--rate"});
    ExpectOneErrorLine(RunKesta({"eq", "--response", "--rate", "8000", "--band", "5000:1:3"}), 2,
                       {"5000 Hz is not below half the sample rate of 8000 Hz", "below 4000 Hz"});
    // An existing output without --force, an input that is not audio.
    ExpectOneErrorLine(RunKesta({"eq", P("in.wav"), P("out.wav")}), 4, {"already exists"});
    ExpectOneErrorLine(RunKesta({"eq", P("out.wav"), P("new.wav")}), 3, {"out.wav"});
    EXPECT_EQ(dir.Names(), names);
}

}  // namespace
}  // namespace kesta_test
