// kesta gain: samples scaled and rounded exactly, formats kept, integer formats saturating instead
// of wrapping, float formats keeping everything. And progress, which every command draws alike.

#include <algorithm>
#include <cmath>

#include "cli_test.h"

namespace kesta_test {
namespace {

class GainTest : public CliTest {};

// The factor kesta applies, rounded to float as the processing chain holds it.
double Factor(double db) {
    return double(float(std::pow(10.0, db / 20.0)));
}

TEST_F(GainTest, ScalesEverySampleSaturatingIntegersAndKeepsFormatAndTags) {
    Audio tagged = StereoTone16();
    tagged.title = "Take 1";
    Audio floats;
    floats.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    floats.channels.push_back(Sine(4800, 48000, 1000.0, 0.5, 0.0, 0));
    for (double& x : floats.channels[0])
        x = double(float(x));
    Audio u8 = StereoTone16();
    u8.format = SF_FORMAT_WAV | SF_FORMAT_PCM_U8;
    for (auto& channel : u8.channels)
        for (double& x : channel)
            x = Quantise(x, 8);
    Audio full = StereoTone16();  // both ends of the 16-bit range, where a wrong scale shows first
    full.channels[0][0] = 32767.0 / 32768.0;
    full.channels[0][1] = -1.0;

    const std::tuple<std::string, Audio, double> cases[] = {
        {"tagged.wav", tagged, -6.0}, {"loud.wav", StereoTone16(), 12.0},
        {"float.wav", floats, 12.0},  {"u8.wav", u8, 0.0},
        {"full.wav", full, 0.0},      {"tone.flac", ToneAndSilence24Flac(), 0.0}};
    for (const auto& [name, audio, db] : cases) {
        SCOPED_TRACE(name);
        WriteAudio(dir / name, audio);
        const RunResult run = RunKesta({"gain", "--json", P(name), P("out-" + name), "--db=" + std::to_string(db)});
        ASSERT_EQ(run.exitCode, 0) << run.err;
        const Audio out = ReadAudio(dir / ("out-" + name));
        EXPECT_EQ(out.format, audio.format);
        EXPECT_EQ(out.rate, audio.rate);
        EXPECT_EQ(out.title, audio.title);
        ASSERT_EQ(out.channels.size(), audio.channels.size());
        ASSERT_EQ(out.Frames(), audio.Frames());

        // Integers: within half a step of the product (which float arithmetic knows to about 1e-7),
        // saturated at the ends of the range with the sign kept, never wrapped round. Floats: the
        // product, beyond full scale too. 0 dB: bit for bit.
        const int bits = IntegerBits(audio.format);
        const double low = bits > 0 ? -1.0 : -HUGE_VAL, high = bits > 0 ? 1.0 - std::ldexp(1.0, 1 - bits) : HUGE_VAL;
        const double tolerance = db == 0.0 ? 0.0 : bits > 0 ? std::ldexp(0.5, 1 - bits) + 1e-7 : 3e-7;
        int64_t clipped = 0, off = 0;
        for (std::size_t c = 0; c < audio.channels.size(); ++c)
            for (std::size_t i = 0; i < audio.channels[c].size(); ++i) {
                const double wanted = audio.channels[c][i] * Factor(db);
                clipped += bits > 0 && std::fabs(wanted) > 1.0;
                off += std::fabs(out.channels[c][i] - std::clamp(wanted, low, high)) > tolerance;
            }
        EXPECT_EQ(off, 0);
        EXPECT_EQ(ParseJson(run.out)["output"]["clipped_samples"].number, double(clipped));
        if (clipped == 0)
            EXPECT_EQ(run.err, "");  // not a terminal: no progress bar, and nothing to warn about
        else
            EXPECT_NE(run.err.find("kesta: warning: " + std::to_string(clipped) + " samples"), std::string::npos)
                << run.err;
    }
}

// No command writes a NaN or infinite sample, whether the input brought it or the processing made
// it (1e38 raised by 20 dB overflows a float): the run stops in one line naming the command and
// the position, and the output is not touched.
TEST_F(GainTest, NonFiniteSamplesAreNeverWritten) {
    struct Case {
        double value;
        int64_t frame;
        int channel;
        std::vector<std::string> args;
        std::vector<std::string> mentions;
    };
    const Case cases[] = {
        {std::nan(""), 1000, 1, {"--db", "0"}, {"kesta gain stopped at frame 1000 (0:00:00.021), channel 2", "nan"}},
        {1e38, 7, 0, {"--db", "20"}, {"kesta gain stopped at frame 7 ", "channel 1", "is inf"}},
        {-HUGE_VAL, 0, 1, {"--db", "-6"}, {"kesta gain stopped at frame 0 ", "is -inf"}},
        {std::nan(""), 2400, 0, {"--band", "1000:1:3"}, {"kesta eq stopped at frame ", "nan"}},
    };
    for (const Case& bad : cases) {
        Audio audio;
        audio.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
        audio.channels = {Sine(4800, 48000, 440.0, 0.5, 0.0, 0), Sine(4800, 48000, 660.0, 0.5, 0.0, 0)};
        audio.channels[std::size_t(bad.channel)][std::size_t(bad.frame)] = bad.value;
        WriteAudio(dir / "in.wav", audio);
        const std::string command = bad.mentions[0].substr(6, bad.mentions[0].find(' ', 6) - 6);
        ExpectRefusals(command, {{bad.args, 1, bad.mentions}});
    }
}

TEST_F(GainTest, TheExtensionChoosesTheContainer) {
    // FLAC holds no floats: the nearest it can is 24-bit. No known extension: the input's format.
    Audio floats = StereoTone16();
    floats.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    WriteAudio(dir / "float.wav", floats);
    WriteAudio(dir / "in.wav", StereoTone16());
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

TEST_F(GainTest, BitsAndFloatChooseTheEncodingAndTheReportGivesWhatWasWritten) {
    WriteAudio(dir / "in.wav", StereoTone16());
    struct Case {
        std::vector<std::string> options;
        const char* out;
        int format;  // 0: refused as a usage error
    };
    const Case cases[] = {
        {{"--bits", "8"}, "u8.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_U8},
        {{"--bits", "24"}, "b24.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_24},
        {{"--bits", "24"}, "b24.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_24},
        {{"--float"}, "f.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT},
        {{"--bits", "32"}, "b32.flac", 0},
        {{"--bits", "12"}, "b12.wav", 0},
        {{"--float"}, "f.ogg", 0},
        {{"--float", "--bits", "16"}, "both.wav", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.out);
        std::vector<std::string> args = {"gain", "--json", P("in.wav"), P(c.out), "--db", "12"};
        args.insert(args.end(), c.options.begin(), c.options.end());
        const RunResult run = RunKesta(args);
        if (c.format == 0) {
            EXPECT_EQ(run.exitCode, 2);
            EXPECT_FALSE(std::filesystem::exists(dir / c.out));
            continue;
        }
        ASSERT_EQ(run.exitCode, 0) << run.err;
        const Audio out = ReadAudio(dir / c.out);
        EXPECT_EQ(out.format, c.format);
        // The reported levels are those of the file as written: clipped to full scale by integer
        // encodings, kept beyond it by float.
        const JsonValue report = ParseJson(run.out)["output"];
        for (std::size_t ch = 0; ch < out.channels.size(); ++ch) {
            const double written = MeasureLevels(out.channels[ch]).peak;
            EXPECT_NEAR(report["levels"][ch]["peak"].number, written, std::ldexp(1.0, 1 - 8));
        }
        EXPECT_EQ(report["clipped_samples"].number > 0, IntegerBits(c.format) > 0);
    }
    const RunResult text = RunKesta({"gain", P("in.wav"), P("loud.wav"), "--db", "12"});
    EXPECT_NE(text.out.find(", peak 0.00 dBFS"), std::string::npos) << text.out;
}

}  // namespace
}  // namespace kesta_test
