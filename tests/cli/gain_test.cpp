// kesta gain, and through it the block reader and writer: samples scaled and rounded exactly,
// formats kept, integer formats saturating instead of wrapping, float formats keeping everything.

#include <cmath>

#include "cli_test.h"

namespace kesta_test {
namespace {

class GainTest : public CliTest {};

// The factor kesta applies, rounded to float as the processing chain holds it.
double Factor(double db) { return double(float(std::pow(10.0, db / 20.0))); }

TEST_F(GainTest, ScalesEverySampleAndKeepsTheFormat) {
    const Audio input = StereoTone16();
    WriteAudio(dir / "in.wav", input);

    const RunResult run = RunKesta({"gain", P("in.wav"), P("out.wav"), "--db", "-6"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");  // not a terminal: no progress bar, and nothing to warn about
    EXPECT_NE(run.out.find("out.wav"), std::string::npos);

    const Audio output = ReadAudio(dir / "out.wav");
    EXPECT_EQ(output.format, input.format);
    EXPECT_EQ(output.rate, input.rate);
    ASSERT_EQ(output.channels.size(), input.channels.size());
    ASSERT_EQ(output.Frames(), input.Frames());
    const double factor = Factor(-6.0);
    // Rounded to the nearest 16-bit step: within half a step of the product (which float
    // arithmetic knows to about 1e-7).
    int off = 0;
    for (std::size_t c = 0; c < input.channels.size(); ++c)
        for (std::size_t i = 0; i < input.channels[c].size(); ++i)
            if (std::fabs(output.channels[c][i] - input.channels[c][i] * factor) > 0.5 / 32768.0 + 1e-7) ++off;
    EXPECT_EQ(off, 0);
}

TEST_F(GainTest, ZeroDecibelsCopiesSamplesBitForBit) {
    Audio u8 = StereoTone16();
    u8.format = SF_FORMAT_WAV | SF_FORMAT_PCM_U8;
    for (auto& channel : u8.channels)
        for (double& x : channel) x = Quantise(x, 8);
    Audio full = StereoTone16();  // both ends of the 16-bit range, where a wrong scale shows first
    full.channels[0][0] = 32767.0 / 32768.0;
    full.channels[0][1] = -1.0;

    const std::pair<const char*, Audio> cases[] = {{"u8.wav", u8}, {"full.wav", full}, {"tone.flac", ToneAndSilence24Flac()}};
    for (const auto& [name, audio] : cases) {
        SCOPED_TRACE(name);
        WriteAudio(dir / name, audio);
        const std::string out = std::string("copy-") + name;
        const RunResult run = RunKesta({"gain", P(name), P(out), "--db", "0"});
        ASSERT_EQ(run.exitCode, 0) << run.err;
        const Audio copy = ReadAudio(dir / out);
        EXPECT_EQ(copy.format, audio.format);
        EXPECT_TRUE(copy.channels == audio.channels);
    }
}

TEST_F(GainTest, IntegerOutputSaturatesAndSaysHowMuch) {
    const Audio input = StereoTone16();
    WriteAudio(dir / "in.wav", input);
    const double factor = Factor(12.0);
    int64_t beyond = 0;
    for (const auto& channel : input.channels)
        for (double x : channel) beyond += std::fabs(x * factor) > 1.0 ? 1 : 0;
    ASSERT_GT(beyond, 0);

    const RunResult run = RunKesta({"gain", "--json", P("in.wav"), P("loud.wav"), "--db", "12"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.err.find("kesta: warning: " + std::to_string(beyond) + " samples"), std::string::npos) << run.err;
    const JsonValue report = ParseJson(run.out);
    EXPECT_EQ(report["output"]["clipped_samples"].number, double(beyond));
    ASSERT_EQ(report["warnings"].array.size(), 1u);

    // Saturated at the ends of the range with the sign kept, never wrapped round.
    const Audio output = ReadAudio(dir / "loud.wav");
    for (std::size_t c = 0; c < input.channels.size(); ++c)
        for (std::size_t i = 0; i < input.channels[c].size(); ++i) {
            const double wanted = input.channels[c][i] * factor;
            if (wanted > 1.0) {
                ASSERT_EQ(output.channels[c][i], 32767.0 / 32768.0) << i;
            } else if (wanted < -1.0) {
                ASSERT_EQ(output.channels[c][i], -1.0) << i;
            }
        }
}

TEST_F(GainTest, FloatStaysFloatBeyondFullScale) {
    Audio input;
    input.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    input.channels.push_back(Sine(4800, 48000, 1000.0, 0.5, 0.0, 0));
    for (double& x : input.channels[0]) x = double(float(x));
    WriteAudio(dir / "in.wav", input);

    const RunResult run = RunKesta({"gain", P("in.wav"), P("loud.wav"), "--db", "12"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");  // nothing clipped
    const Audio output = ReadAudio(dir / "loud.wav");
    EXPECT_EQ(output.format, input.format);
    const float factor = float(std::pow(10.0, 12.0 / 20.0));
    double peak = 0.0;
    for (std::size_t i = 0; i < input.channels[0].size(); ++i) {
        ASSERT_EQ(output.channels[0][i], double(float(input.channels[0][i]) * factor)) << i;
        peak = std::max(peak, std::fabs(output.channels[0][i]));
    }
    EXPECT_GT(peak, 1.9);
}

TEST_F(GainTest, OutputExtensionChoosesTheContainer) {
    WriteAudio(dir / "in.wav", StereoTone16());
    Audio floating;
    floating.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    floating.channels.push_back(Sine(4800, 48000, 1000.0, 0.5, 0.0, 0));
    WriteAudio(dir / "float.wav", floating);

    ASSERT_EQ(RunKesta({"gain", P("in.wav"), P("out.flac"), "--db", "0"}).exitCode, 0);
    EXPECT_EQ(ReadAudio(dir / "out.flac").format, SF_FORMAT_FLAC | SF_FORMAT_PCM_16);
    EXPECT_TRUE(ReadAudio(dir / "out.flac").channels == StereoTone16().channels);

    // FLAC holds no floats: the nearest it can is 24-bit.
    ASSERT_EQ(RunKesta({"gain", P("float.wav"), P("float.flac"), "--db", "0"}).exitCode, 0);
    EXPECT_EQ(ReadAudio(dir / "float.flac").format, SF_FORMAT_FLAC | SF_FORMAT_PCM_24);

    // No extension, or one kesta does not know: the input's format.
    ASSERT_EQ(RunKesta({"gain", P("in.wav"), P("plain"), "--db", "0"}).exitCode, 0);
    EXPECT_EQ(ReadAudio(dir / "plain").format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
}

TEST_F(GainTest, TagsAndJsonReport) {
    Audio input = StereoTone16();
    input.title = "Take 1";
    WriteAudio(dir / "in.wav", input);

    const RunResult run = RunKesta({"gain", "--json", P("in.wav"), P("out.wav"), "--db=-3.5"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(ReadAudio(dir / "out.wav").title, "Take 1");

    const JsonValue report = ParseJson(run.out);
    EXPECT_EQ(report["command"].string, "gain");
    EXPECT_EQ(report["gain_db"].number, -3.5);
    EXPECT_EQ(report["input"]["frames"].number, 48000);
    EXPECT_EQ(report["output"]["frames"].number, 48000);
    EXPECT_EQ(report["output"]["format"]["description"].string, "WAV (PCM 16-bit)");
    EXPECT_EQ(report["output"]["clipped_samples"].number, 0);
    EXPECT_NEAR(report["output"]["levels"][0]["peak_dbfs"].number, Db(MeasureLevels(input.channels[0]).peak) - 3.5, 1e-4);
    EXPECT_TRUE(report["warnings"].array.empty());
}

TEST_F(GainTest, ProgressOnATerminalOnlyAndErasedWhenDone) {
    WriteAudio(dir / "in.wav", StereoTone16());
    const std::optional<RunResult> onTerminal = RunKestaOnTerminal({"gain", P("in.wav"), P("a.wav"), "--db", "1"});
    if (!onTerminal) GTEST_SKIP() << "no pseudo-terminal here";
    const RunResult& shown = *onTerminal;
    ASSERT_EQ(shown.exitCode, 0) << shown.err;
    EXPECT_NE(shown.err.find("\rgain  ["), std::string::npos) << shown.err;
    EXPECT_NE(shown.err.find("%"), std::string::npos);
    const std::string erase = "\r\033[K";
    ASSERT_GE(shown.err.size(), erase.size());
    EXPECT_EQ(shown.err.substr(shown.err.size() - erase.size()), erase);  // the last thing drawn clears the line
    EXPECT_NE(shown.out.find("Wrote"), std::string::npos);

    const RunResult quiet = *RunKestaOnTerminal({"gain", "--quiet", P("in.wav"), P("b.wav"), "--db", "1"});
    ASSERT_EQ(quiet.exitCode, 0);
    EXPECT_EQ(quiet.out + quiet.err, "");
}

}  // namespace
}  // namespace kesta_test
