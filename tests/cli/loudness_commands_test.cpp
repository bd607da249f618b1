// kesta analyze and kesta normalize: figures of files built to have them, the CSV and JSON
// reports, and normalised files measured by libebur128 (an independent meter): the target within
// 0.1 LU and the true peak never above the ceiling, with the limiter used only where the peak
// demands it.

#include <cmath>
#include <numbers>
#include <sstream>

#include "cli_test.h"
#include "support/ebur128_reading.h"

namespace kesta_test {
namespace {

class LoudnessCommandsTest : public CliTest {};

// Stereo 16-bit, 48 kHz: a 1 kHz tone at -23 dBFS in both channels (-23 LUFS) for `seconds`.
Audio ToneAt23(double seconds) {
    Audio a;
    const auto frames = int64_t(seconds * 48000);
    a.channels = {Sine(frames, 48000, 1000.0, std::pow(10.0, -23.0 / 20.0), 0.0, 16),
                  Sine(frames, 48000, 1000.0, std::pow(10.0, -23.0 / 20.0), 0.0, 16)};
    return a;
}

// Float stereo, 44.1 kHz, 12 s: a soft chord (about -30 dBFS) with a click to 0.9 every half
// second, so that bringing it to a loud target drives the peaks far over any ceiling.
Audio ChordWithClicks() {
    Audio a;
    a.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    a.rate = 44100;
    const int64_t frames = 12 * 44100;
    a.channels.assign(2, std::vector<double>(std::size_t(frames)));
    for (int64_t n = 0; n < frames; ++n)
        for (std::size_t c = 0; c < 2; ++c) {
            double v = 0.0;
            for (const double hz : {220.0, 277.2, 329.6, 440.0})
                v += 0.012 * std::sin(2.0 * std::numbers::pi * hz * (1.0 + 0.002 * double(c)) * double(n) / 44100.0);
            if (n % 22050 < 3) v += n % 22050 == 1 ? 0.9 : 0.45;
            a.channels[c][std::size_t(n)] = double(float(v));
        }
    return a;
}

TEST_F(LoudnessCommandsTest, AnalyzeReportsEachFileInTextJsonAndCsv) {
    WriteAudio(dir / "tone.wav", ToneAt23(8.0));
    WriteAudio(dir / "other.wav", ChordWithClicks());
    const JsonValue report = Report({"analyze", P("tone.wav"), P("other.wav")});
    ASSERT_EQ(report["files"].array.size(), 2u);
    const JsonValue& tone = report["files"][0];
    EXPECT_NEAR(tone["loudness"]["integrated_lufs"].number, -23.0, 0.1);
    EXPECT_NEAR(tone["loudness"]["loudness_range_lu"].number, 0.0, 0.1);
    EXPECT_NEAR(tone["loudness"]["true_peak_dbtp"].number, -23.0, 0.1);
    for (std::size_t c = 0; c < 2; ++c) {
        const JsonValue& ch = tone["channels_levels"][c];
        EXPECT_NEAR(ch["peak_dbfs"].number, -23.0, 0.01);
        EXPECT_NEAR(ch["rms_dbfs"].number, -26.01, 0.01);
        EXPECT_EQ(ch["bit_depth"].number, 16);
        EXPECT_NEAR(ch["zero_crossings"].number, 16000, 2);
    }
    EXPECT_EQ(report["files"][1]["channels_levels"][0]["bit_depth"].number > 24, true);

    const RunResult csv = Ok({"analyze", "--csv", P("tone.wav"), P("other.wav")});
    const std::vector<std::string> lines = Lines(csv.out);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].rfind("file,sample_rate,channels,frames,seconds,integrated_lufs", 0), 0u);
    EXPECT_EQ(std::count(lines[1].begin(), lines[1].end(), ','), std::count(lines[0].begin(), lines[0].end(), ','));
    const std::size_t at = lines[1].find(",48000,2,384000,8.000,");
    ASSERT_NE(at, std::string::npos) << lines[1];
    EXPECT_NEAR(std::stod(lines[1].substr(at + 22)), -23.0, 0.1) << lines[1];

    const RunResult text = Ok({"analyze", P("tone.wav")});
    EXPECT_NE(text.out.find("LUFS integrated"), std::string::npos);
    EXPECT_NE(text.out.find("True peak"), std::string::npos);

    ExpectOneErrorLine(RunKesta({"analyze", P("tone.wav"), P("missing.wav")}), 3, {"missing.wav"});
    ExpectOneErrorLine(RunKesta({"analyze", "--csv", "--json", P("tone.wav")}), 2, {"--csv"}, true);
}

TEST_F(LoudnessCommandsTest, NormalizeMeetsTheTargetUnderTheCeiling) {
#if !KESTA_HAVE_EBUR128
    GTEST_SKIP() << "libebur128 is not installed";
#else
    struct Case {
        std::string name;
        Audio audio;
        double lufs, ceiling;
        bool limiter;
    };
    Audio quiet = ToneAt23(8.0);
    for (auto& channel : quiet.channels)
        for (double& x : channel)
            x = Quantise(x * 0.1, 16);  // -43 LUFS, peaks -43 dBFS: +20 dB needs no limiter
    const Case cases[] = {
        {"quiet.wav", quiet, -23.0, -1.0, false},
        {"clicks.wav", ChordWithClicks(), -16.0, -1.0, true},
        {"clicks16.wav", ChordWithClicks(), -20.0, -2.0, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Audio input = c.audio;
        if (c.name == "clicks16.wav") {
            input.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
            for (auto& channel : input.channels)
                for (double& x : channel)
                    x = Quantise(x, 16);
        }
        WriteAudio(dir / c.name, input);
        const JsonValue report = Report({"normalize", P(c.name), P("n-" + c.name), "--lufs", std::to_string(c.lufs),
                                         "--true-peak", std::to_string(c.ceiling)});
        EXPECT_EQ(report["limiter"]["used"].boolean, c.limiter);
        const Audio out = ReadAudio(dir / ("n-" + c.name));
        EXPECT_EQ(out.format, input.format);
        ASSERT_EQ(out.Frames(), input.Frames());
        const kesta::test::Ebur128Reading measured = kesta::test::MeasureWithEbur128(out.channels, out.rate);
        EXPECT_NEAR(measured.integrated, c.lufs, 0.1);
        EXPECT_LE(measured.truePeakDb, c.ceiling);
    }
#endif
}

}  // namespace
}  // namespace kesta_test
