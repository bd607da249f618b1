// kesta spectrum on tones centred on a bin: their levels read in every report format (the mean
// over channels and one channel), and wrong command lines refused in one line.

#include <cmath>

#include "cli_test.h"

namespace kesta_test {
namespace {

class SpectrumCommandTest : public CliTest {};

constexpr int kRate = 48000;
constexpr double kBinHz = kRate / 4096.0;

// Float stereo: 0.5 at bin 86 in the first channel, 0.25 at bin 256 (3 kHz) in the second.
Audio TwoTones() {
    Audio a;
    a.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    a.rate = kRate;
    a.channels = {Sine(3 * kRate, kRate, 86 * kBinHz, 0.5, 0.0, 0), Sine(3 * kRate, kRate, 256 * kBinHz, 0.25, 0.0, 0)};
    return a;
}

double RmsDbOf(double amplitude) {
    return 20.0 * std::log10(amplitude / std::sqrt(2.0));
}

TEST_F(SpectrumCommandTest, TonesReadTheirLevelsInEveryFormat) {
    WriteAudio(dir / "in.wav", TwoTones());
    // Power-averaged over the two channels, each tone is 3 dB below its own channel's level.
    const JsonValue report = Report({"spectrum", P("in.wav")});
    const JsonValue& peaks = report["peaks"]["list"];
    ASSERT_GE(peaks.array.size(), 2u);
    EXPECT_NEAR(peaks[0]["frequency_hz"].number, 86 * kBinHz, 1e-6);
    EXPECT_NEAR(peaks[0]["level_db"].number, RmsDbOf(0.5) - 10.0 * std::log10(2.0), 0.1);
    EXPECT_NEAR(peaks[1]["frequency_hz"].number, 3000.0, 1e-6);
    EXPECT_NEAR(peaks[1]["level_db"].number, RmsDbOf(0.25) - 10.0 * std::log10(2.0), 0.1);
    EXPECT_EQ(report["spectrum"]["level_db"].array.size(), 2049u);

    const std::vector<std::string> csv = Lines(Ok({"spectrum", P("in.wav"), "--channel", "2", "--csv"}).out);
    ASSERT_EQ(csv.size(), 2050u);
    EXPECT_EQ(csv[0], "frequency_hz,level_db");
    EXPECT_EQ(csv[257].rfind("3000.000,", 0), 0u) << csv[257];
    EXPECT_NEAR(std::stod(csv[257].substr(9)), RmsDbOf(0.25), 0.1);

    const std::string text = Ok({"spectrum", P("in.wav"), "--channel", "1", "--start", "1", "--length", "1"}).out;
    EXPECT_NE(text.find("1007.8"), std::string::npos) << text;
    EXPECT_NE(text.find("channel 1"), std::string::npos) << text;
}

TEST_F(SpectrumCommandTest, WrongCommandLinesAreRefusedInOneLine) {
    WriteAudio(dir / "in.wav", TwoTones());
    ExpectRefusals("", {
                           {{"spectrum", P("in.wav"), "--fft-size", "1000"}, 2, {"--fft-size"}},
                           {{"spectrum", P("in.wav"), "--window", "hanning"}, 2, {"hann"}},
                           {{"spectrum", P("in.wav"), "--channel", "3"}, 2, {"--channel"}},
                           {{"spectrum", P("in.wav"), "--start", "5"}, 3, {"--start"}},
                           {{"spectrum", P("in.wav"), "--csv", "--json"}, 2, {"--csv"}},
                           {{"spectrum", P("missing.wav")}, 3, {"missing.wav"}},
                       });
}

}  // namespace
}  // namespace kesta_test
