// kesta info: format, length and levels, checked against values computed from the very samples
// the test wrote.

#include <cmath>
#include <string>

#include "cli_test.h"

namespace kesta_test {
namespace {

std::string LineStartingWith(const std::string& text, const std::string& start) {
    const std::size_t at = text.find("\n" + start);
    if (text.rfind(start, 0) == 0) return text.substr(0, text.find('\n'));
    if (at == std::string::npos) return "";
    return text.substr(at + 1, text.find('\n', at + 1) - at - 1);
}

class InfoTest : public CliTest {};

TEST_F(InfoTest, DescribesFormatRateChannelsAndLength) {
    WriteAudio(dir / "tone.wav", StereoTone16());
    WriteAudio(dir / "mixed.flac", ToneAndSilence24Flac());

    const RunResult wav = RunKesta({"info", P("tone.wav")});
    ASSERT_EQ(wav.exitCode, 0) << wav.err;
    EXPECT_EQ(wav.err, "");
    EXPECT_NE(LineStartingWith(wav.out, "Format:").find("WAV (PCM 16-bit)"), std::string::npos) << wav.out;
    EXPECT_NE(LineStartingWith(wav.out, "Sample rate:").find("48000 Hz"), std::string::npos) << wav.out;
    EXPECT_NE(LineStartingWith(wav.out, "Channels:").find("2"), std::string::npos) << wav.out;
    EXPECT_NE(LineStartingWith(wav.out, "Length:").find("48000 frames (0:00:01.000)"), std::string::npos) << wav.out;

    const RunResult flac = RunKesta({"info", P("mixed.flac")});
    ASSERT_EQ(flac.exitCode, 0) << flac.err;
    EXPECT_NE(LineStartingWith(flac.out, "Format:").find("FLAC (PCM 24-bit)"), std::string::npos) << flac.out;
    EXPECT_NE(LineStartingWith(flac.out, "Sample rate:").find("44100 Hz"), std::string::npos);
    EXPECT_NE(LineStartingWith(flac.out, "Length:").find("22050 frames (0:00:00.500)"), std::string::npos) << flac.out;
}

TEST_F(InfoTest, LengthOfLongFilesAsHoursMinutesSeconds) {
    // One frame per second keeps a file of over an hour tiny.
    Audio slow;
    slow.rate = 1;
    slow.channels.push_back(std::vector<double>(3723, 0.0));  // 1 h 2 min 3 s
    WriteAudio(dir / "slow.wav", slow);
    const RunResult run = RunKesta({"info", P("slow.wav")});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(LineStartingWith(run.out, "Length:").find("3723 frames (1:02:03.000)"), std::string::npos) << run.out;
}

TEST_F(InfoTest, LevelsMatchTheSamples) {
    const Audio audio = StereoTone16();
    WriteAudio(dir / "tone.wav", audio);

    const RunResult run = RunKesta({"info", "--json", P("tone.wav")});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const JsonValue report = ParseJson(run.out);
    EXPECT_EQ(report["format"]["description"].string, "WAV (PCM 16-bit)");
    EXPECT_EQ(report["sample_rate"].number, 48000);
    EXPECT_EQ(report["channels"].number, 2);
    EXPECT_EQ(report["frames"].number, 48000);
    EXPECT_EQ(report["duration"].string, "0:00:01.000");
    ASSERT_EQ(report["levels"].array.size(), 2u);
    for (std::size_t c = 0; c < 2; ++c) {
        SCOPED_TRACE("channel " + std::to_string(c + 1));
        const Levels expected = MeasureLevels(audio.channels[c]);
        const JsonValue& levels = report["levels"][c];
        EXPECT_EQ(levels["channel"].number, double(c + 1));
        EXPECT_NEAR(levels["peak"].number, expected.peak, 1e-12);
        EXPECT_NEAR(levels["peak_dbfs"].number, Db(expected.peak), 1e-9);
        EXPECT_NEAR(levels["rms_dbfs"].number, Db(expected.rms), 1e-6);
        EXPECT_NEAR(levels["dc_offset"].number, expected.mean, 1e-9);
    }
    // And the textbook figures within quantisation: a 0.5 sine peaks at -6.02 dBFS, RMS -9.03 dBFS;
    // the second channel's spike makes its peak 0.75 and its offset is 0.25.
    EXPECT_NEAR(report["levels"][0]["peak_dbfs"].number, -6.02, 0.01);
    EXPECT_NEAR(report["levels"][0]["rms_dbfs"].number, -9.03, 0.01);
    EXPECT_NEAR(report["levels"][1]["peak"].number, 0.75, 1e-12);
    EXPECT_NEAR(report["levels"][1]["dc_offset"].number, 0.25, 1e-4);

    const RunResult text = RunKesta({"info", P("tone.wav")});
    const std::string row1 = LineStartingWith(text.out, "      1");
    EXPECT_NE(row1.find("-6.02"), std::string::npos) << text.out;
    EXPECT_NE(row1.find("-9.03"), std::string::npos) << text.out;
}

TEST_F(InfoTest, SilentChannelReadsMinusInfinity) {
    WriteAudio(dir / "mixed.flac", ToneAndSilence24Flac());
    const RunResult json = RunKesta({"info", "--json", P("mixed.flac")});
    ASSERT_EQ(json.exitCode, 0) << json.err;
    const JsonValue report = ParseJson(json.out);
    EXPECT_NEAR(report["levels"][0]["peak_dbfs"].number, Db(0.9), 1e-5);
    EXPECT_TRUE(report["levels"][1]["peak_dbfs"].IsNull());
    EXPECT_TRUE(report["levels"][1]["rms_dbfs"].IsNull());
    EXPECT_EQ(report["levels"][1]["peak"].number, 0.0);

    const RunResult text = RunKesta({"info", P("mixed.flac")});
    EXPECT_NE(LineStartingWith(text.out, "      2").find("-inf"), std::string::npos) << text.out;
}

TEST_F(InfoTest, JsonStaysValidForAnyFileName) {
    // A name with a quote, a backslash, a tab and a byte that is not UTF-8.
    const std::string name = std::string("odd \"name\\\t") + char(0xFF) + ".wav";
    WriteAudio(dir / name, StereoTone16());
    const RunResult run = RunKesta({"info", "--json", P(name)});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const JsonValue report = ParseJson(run.out);
    EXPECT_NE(report["file"].string.find("odd \"name\\\t"), std::string::npos);
}

TEST_F(InfoTest, QuietPrintsNothingButStillChecksTheFile) {
    WriteAudio(dir / "tone.wav", StereoTone16());
    const RunResult ok = RunKesta({"info", "--quiet", P("tone.wav")});
    EXPECT_EQ(ok.exitCode, 0);
    EXPECT_EQ(ok.out + ok.err, "");

    // A FLAC cut short fails to decode to the end: the exit status says so.
    WriteAudio(dir / "cut.flac", ToneAndSilence24Flac());
    const std::string flac = ReadBytes(dir / "cut.flac");
    WriteBytes(dir / "cut.flac", flac.substr(0, flac.size() / 2));
    ExpectOneErrorLine(RunKesta({"info", "--quiet", P("cut.flac")}), 3, {"cut.flac", "damaged"});
}

}  // namespace
}  // namespace kesta_test
