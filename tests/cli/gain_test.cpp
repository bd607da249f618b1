// kesta gain: samples scaled and rounded exactly, formats kept, integer formats saturating instead
// of wrapping, float formats keeping everything. And progress, which every command draws alike.

#include <cmath>

#include "cli_test.h"

namespace kesta_test {
namespace {

class GainTest : public CliTest {};

// The factor kesta applies, rounded to float as the processing chain holds it.
double Factor(double db) {
    return double(float(std::pow(10.0, db / 20.0)));
}

TEST_F(GainTest, ScalesEverySampleAndKeepsFormatAndTags) {
    Audio input = StereoTone16();
    input.title = "Take 1";
    WriteAudio(dir / "in.wav", input);

    const RunResult run = RunKesta({"gain", P("in.wav"), P("out.wav"), "--db=-6"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");  // not a terminal: no progress bar, and nothing to warn about
    EXPECT_NE(run.out.find("out.wav"), std::string::npos);

    const Audio output = ReadAudio(dir / "out.wav");
    EXPECT_EQ(output.format, input.format);
    EXPECT_EQ(output.rate, input.rate);
    EXPECT_EQ(output.title, "Take 1");
    ASSERT_EQ(output.channels.size(), input.channels.size());
    ASSERT_EQ(output.Frames(), input.Frames());
    // Within half a 16-bit step of the product (which float arithmetic knows to about 1e-7).
    int off = 0;
    for (std::size_t c = 0; c < input.channels.size(); ++c)
        for (std::size_t i = 0; i < input.channels[c].size(); ++i)
            off += std::fabs(output.channels[c][i] - input.channels[c][i] * Factor(-6.0)) > 0.5 / 32768.0 + 1e-7;
    EXPECT_EQ(off, 0);
}

TEST_F(GainTest, ZeroDecibelsCopiesSamplesBitForBit) {
    Audio u8 = StereoTone16();
    u8.format = SF_FORMAT_WAV | SF_FORMAT_PCM_U8;
    for (auto& channel : u8.channels)
        for (double& x : channel)
            x = Quantise(x, 8);
    Audio full = StereoTone16();  // both ends of the 16-bit range, where a wrong scale shows first
    full.channels[0][0] = 32767.0 / 32768.0;
    full.channels[0][1] = -1.0;

    const std::pair<const char*, Audio> cases[] = {
        {"u8.wav", u8}, {"full.wav", full}, {"tone.flac", ToneAndSilence24Flac()}};
    for (const auto& [name, audio] : cases) {
        SCOPED_TRACE(name);
        WriteAudio(dir / name, audio);
        const std::string out = std::string("copy-") + name;
        ASSERT_EQ(RunKesta({"gain", P(name), P(out), "--db", "0"}).exitCode, 0);
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
        for (double x : channel)
            beyond += std::fabs(x * factor) > 1.0 ? 1 : 0;
    ASSERT_GT(beyond, 0);

    const RunResult run = RunKesta({"gain", "--json", P("in.wav"), P("loud.wav"), "--db", "12"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.err.find("kesta: warning: " + std::to_string(beyond) + " samples"), std::string::npos) << run.err;
    const JsonValue report = ParseJson(run.out);
    EXPECT_EQ(report["output"]["clipped_samples"].number, double(beyond));
    EXPECT_EQ(report["warnings"].array.size(), 1u);

    // Saturated at the ends of the range with the sign kept, never wrapped round.
    const Audio output = ReadAudio(dir / "loud.wav");
    for (std::size_t c = 0; c < input.channels.size(); ++c)
        for (std::size_t i = 0; i < input.channels[c].size(); ++i) {
            const double wanted = input.channels[c][i] * factor;
            if (std::fabs(wanted) > 1.0) {
                ASSERT_EQ(output.channels[c][i], wanted > 0 ? 32767.0 / 32768.0 : -1.0) << i;
            }
        }
}

TEST_F(GainTest, FloatStaysFloatAndTheExtensionChoosesTheContainer) {
    Audio input;
    input.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    input.channels.push_back(Sine(4800, 48000, 1000.0, 0.5, 0.0, 0));
    for (double& x : input.channels[0])
        x = double(float(x));
    WriteAudio(dir / "float.wav", input);
    WriteAudio(dir / "in.wav", StereoTone16());

    const RunResult run = RunKesta({"gain", P("float.wav"), P("loud.wav"), "--db", "12"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");  // nothing clipped
    const Audio output = ReadAudio(dir / "loud.wav");
    EXPECT_EQ(output.format, input.format);
    for (std::size_t i = 0; i < input.channels[0].size(); ++i)
        ASSERT_EQ(output.channels[0][i], double(float(input.channels[0][i]) * float(Factor(12.0)))) << i;
    EXPECT_GT(MeasureLevels(output.channels[0]).peak, 1.9);

    // FLAC holds no floats: the nearest it can is 24-bit. No known extension: the input's format.
    const std::tuple<const char*, const char*, int> cases[] = {
        {"in.wav", "out.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16},
        {"float.wav", "float.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_24},
        {"in.wav", "plain", SF_FORMAT_WAV | SF_FORMAT_PCM_16},
    };
    for (const auto& [in, out, format] : cases) {
        ASSERT_EQ(RunKesta({"gain", P(in), P(out), "--db", "0"}).exitCode, 0) << out;
        EXPECT_EQ(ReadAudio(dir / out).format, format) << out;
    }
    EXPECT_TRUE(ReadAudio(dir / "out.flac").channels == StereoTone16().channels);
}

TEST_F(GainTest, ProgressOnATerminalOnlyErasedWhenDoneAndQuietMeansQuiet) {
    WriteAudio(dir / "in.wav", StereoTone16());
    const std::pair<std::vector<std::string>, std::vector<std::string>> cases[] = {
        {{"gain", P("in.wav"), P("a.wav"), "--db", "1"}, {"\rgain  ["}},
        {{"denoise", P("in.wav"), P("b.wav"), "--noise", "0:0.5"}, {"\rcapture  [", "\rdenoise  ["}},
        {{"geq", P("in.wav"), P("c.wav"), "--gains=0,0,0,0,0,0,6,0,0,0"}, {"\rgeq  ["}},
    };
    for (const auto& [args, bars] : cases) {
        SCOPED_TRACE(args[0]);
        const std::optional<RunResult> shown = RunKestaOnTerminal(args);
        if (!shown) GTEST_SKIP() << "no pseudo-terminal here";
        ASSERT_EQ(shown->exitCode, 0) << shown->err;
        for (const std::string& bar : bars)
            EXPECT_NE(shown->err.find(bar), std::string::npos) << shown->err;
        EXPECT_NE(shown->err.find("%"), std::string::npos);
        EXPECT_TRUE(shown->err.ends_with("\r\033[K")) << shown->err;  // the last thing drawn clears the line
        EXPECT_NE(shown->out.find("Wrote"), std::string::npos);

        std::vector<std::string> quiet = args;
        quiet.insert(quiet.begin() + 1, {"--quiet", "--force"});
        const RunResult silent = *RunKestaOnTerminal(quiet);
        EXPECT_EQ(silent.exitCode, 0);
        EXPECT_EQ(silent.out + silent.err, "");
    }
}

}  // namespace
}  // namespace kesta_test
