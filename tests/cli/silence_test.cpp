// kesta silence and kesta trim-silence on a file with gaps put where the test knows: the gaps
// reported within 10 ms in every report format, the trimmed file exactly the input less what the
// report says was removed, and wrong command lines refused before any file is touched.

#include <cmath>

#include "cli_test.h"

namespace kesta_test {
namespace {

class SilenceCommandsTest : public CliTest {};

constexpr int kRate = 44100;

// 4 s of stereo 16-bit tones with digital silence over [0.5, 1.0) s and [2.0, 2.8) s, and a gap
// of 0.2 s at 3.2 s in the second channel only.
Audio Gapped() {
    Audio a;
    a.rate = kRate;
    a.channels = {Sine(4 * kRate, kRate, 440.0, 0.3, 0.0, 16), Sine(4 * kRate, kRate, 660.0, 0.3, 0.0, 16)};
    for (auto& channel : a.channels)
        for (int64_t n = 0; n < a.Frames(); ++n) {
            const double t = double(n) / kRate;
            if ((t >= 0.5 && t < 1.0) || (t >= 2.0 && t < 2.8)) channel[std::size_t(n)] = 0.0;
        }
    for (int64_t n = int64_t(3.2 * kRate); n < int64_t(3.4 * kRate); ++n)
        a.channels[1][std::size_t(n)] = 0.0;
    return a;
}

TEST_F(SilenceCommandsTest, SilenceReportsTheGapsAsTextCsvAndJson) {
    WriteAudio(dir / "in.wav", Gapped());
    const JsonValue report = Report({"silence", P("in.wav"), "--min-length", "0.1"});
    const JsonValue& stretches = report["found"]["stretches"];
    ASSERT_EQ(stretches.array.size(), 2u);
    const double expected[2][2] = {{0.5, 1.0}, {2.0, 2.8}};
    for (std::size_t k = 0; k < 2; ++k) {
        EXPECT_NEAR(stretches[k]["start_seconds"].number, expected[k][0], 0.01);
        EXPECT_NEAR(stretches[k]["end_seconds"].number, expected[k][1], 0.01);
        EXPECT_EQ(stretches[k]["channel"].number, 0);
    }

    const std::vector<std::string> csv =
        Lines(Ok({"silence", P("in.wav"), "--min-length", "0.1", "--per-channel", "--csv"}).out);
    ASSERT_EQ(csv.size(), 6u);  // the header, two gaps in channel 1, three in channel 2
    EXPECT_EQ(csv[0], "channel,start_frame,end_frame,start_seconds,end_seconds,seconds");
    EXPECT_EQ(csv[5].rfind("2,", 0), 0u) << csv[5];
    EXPECT_NE(csv[5].find(",3.400,"), std::string::npos) << csv[5];

    const std::string text = Ok({"silence", P("in.wav"), "--min-length", "0.1", "--report"}).out;
    EXPECT_NE(text.find("2 quiet stretch(es), 1.300 s"), std::string::npos) << text;
    EXPECT_NE(text.find("0:02.800"), std::string::npos) << text;
}

TEST_F(SilenceCommandsTest, TrimSilenceRemovesExactlyWhatItReports) {
    const Audio in = Gapped();
    WriteAudio(dir / "in.wav", in);
    const JsonValue report =
        Report({"trim-silence", P("in.wav"), P("out.wav"), "--min-length", "0.1", "--keep", "0.02"});
    const JsonValue& removed = report["removed"];
    ASSERT_EQ(removed["cuts"].number, 2);
    const Audio out = ReadAudio(dir / "out.wav");
    EXPECT_EQ(out.Frames(), in.Frames() - int64_t(removed["frames"].number));
    EXPECT_NEAR(removed["seconds"].number, 1.3 - 2 * 0.02, 0.02);
    // Between the cuts and after the last one the output is the input, shifted by what went before.
    const int64_t firstEnd = int64_t(removed["stretches"][0]["end_frame"].number);
    const int64_t firstLength = firstEnd - int64_t(removed["stretches"][0]["start_frame"].number);
    for (int64_t n = firstEnd; n < int64_t(1.9 * kRate); ++n)
        ASSERT_EQ(out.channels[1][std::size_t(n - firstLength)], in.channels[1][std::size_t(n)]) << n;
    const int64_t shift = in.Frames() - out.Frames();
    for (int64_t n = int64_t(3.0 * kRate); n < in.Frames(); ++n)
        ASSERT_EQ(out.channels[0][std::size_t(n - shift)], in.channels[0][std::size_t(n)]) << n;
}

TEST_F(SilenceCommandsTest, WrongCommandLinesAreRefusedInOneLine) {
    WriteAudio(dir / "in.wav", Gapped());
    Audio quiet;
    quiet.rate = kRate;
    quiet.channels = {std::vector<double>(kRate, 0.0)};
    WriteAudio(dir / "quiet.wav", quiet);
    ExpectRefusals("trim-silence", {
                                       {{"--threshold", "6"}, 2, {"--threshold"}},
                                       {{"--hold", "1", "--min-length", "0.5"}, 2, {"--hold"}},
                                       {{"--fade", "-1"}, 2, {"--fade"}},
                                       {{"--keep", "x"}, 2, {"--keep"}},
                                   });
    ExpectRefusals("", {
                           {{"trim-silence", P("quiet.wav"), P("out.wav"), "--force"}, 3, {"quiet.wav", "left"}},
                           {{"silence", P("missing.wav")}, 3, {"missing.wav"}},
                           {{"silence", P("in.wav"), "--csv", "--json"}, 2, {"--csv"}},
                       });
}

}  // namespace
}  // namespace kesta_test
