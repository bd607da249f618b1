// kesta info: format, length and levels, against values computed from the samples the test wrote.

#include "cli_test.h"

namespace kesta_test {
namespace {

class InfoTest : public CliTest {};

bool HasLine(const std::string& text, const std::string& start, const std::string& part) {
    for (const std::string& line : Lines(text))
        if (line.rfind(start, 0) == 0 && line.find(part) != std::string::npos) return true;
    return false;
}

TEST_F(InfoTest, FormatLengthAndLevelsOfWavAndFlac) {
    Audio slow;  // one frame per second keeps a file of over an hour tiny
    slow.rate = 1;
    slow.channels.push_back(std::vector<double>(3723, 0.0));
    // A quote, a backslash, a tab and a byte that is not UTF-8 in a name: the report stays JSON.
    const std::string odd = std::string("odd \"name\\\t") + char(0xFF) + ".wav";
    struct Case {
        std::string name;
        Audio audio;
        std::vector<std::pair<std::string, std::string>> lines;  // start, part
        std::vector<std::string> peakRmsDb;                      // channel rows in the text table
    };
    const Case cases[] = {
        {odd,
         StereoTone16(),
         {{"Format:", "WAV (PCM 16-bit)"}, {"Sample rate:", "48000 Hz"}, {"Length:", "48000 frames (0:00:01.000)"}},
         {"-6.02", "-9.03"}},  // a 0.5 sine: peak -6.02 dBFS, RMS -9.03 dBFS
        {"mixed.flac",
         ToneAndSilence24Flac(),
         {{"Format:", "FLAC (PCM 24-bit)"}, {"Length:", "22050 frames (0:00:00.500)"}, {"      2", "-inf"}},
         {"-0.92"}},
        {"slow.wav", slow, {{"Length:", "3723 frames (1:02:03.000)"}}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        WriteAudio(dir / c.name, c.audio);
        const RunResult text = RunKesta({"info", P(c.name)});
        ASSERT_EQ(text.exitCode, 0) << text.err;
        EXPECT_EQ(text.err, "");
        for (const auto& [start, part] : c.lines)
            EXPECT_TRUE(HasLine(text.out, start, part)) << part << "\n" << text.out;
        for (const std::string& db : c.peakRmsDb)
            EXPECT_TRUE(HasLine(text.out, "      1", db)) << db << "\n" << text.out;

        const JsonValue report = Report({"info", P(c.name)});
        EXPECT_NE(report["file"].string.find(c.name.substr(0, 11)), std::string::npos);
        for (std::size_t ch = 0; ch < c.audio.channels.size(); ++ch) {
            const Levels expected = MeasureLevels(c.audio.channels[ch]);
            const JsonValue& levels = report["levels"][ch];
            EXPECT_NEAR(levels["peak"].number, expected.peak, 1e-12);
            EXPECT_NEAR(levels["dc_offset"].number, expected.mean, 1e-9);
            if (expected.peak == 0.0) {  // silence: -inf dBFS, which JSON spells null
                EXPECT_TRUE(levels["peak_dbfs"].IsNull());
                EXPECT_TRUE(levels["rms_dbfs"].IsNull());
            } else {
                EXPECT_NEAR(levels["peak_dbfs"].number, Db(expected.peak), 1e-9);
                EXPECT_NEAR(levels["rms_dbfs"].number, Db(expected.rms), 1e-6);
            }
        }
        const RunResult quiet = RunKesta({"info", "--quiet", P(c.name)});
        EXPECT_EQ(quiet.exitCode, 0);
        EXPECT_EQ(quiet.out + quiet.err, "");
    }
}

}  // namespace
}  // namespace kesta_test
