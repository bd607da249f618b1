// kesta widen: the image mixed as the documented settings say (width 0 folds to the mono mix,
// 300 gives left' = 2 left - right, centre 100 a quarter turn), alone and as a chain step; a mono
// file copied with a warning; settings out of range refused.

#include <cmath>

#include "cli_test.h"

namespace kesta_test {
namespace {

class WidenTest : public CliTest {};

TEST_F(WidenTest, SettingsMixTheChannelsAsDocumented) {
    Audio in;
    in.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    in.channels = {Sine(4800, 48000, 1000.0, 0.3, 0.0, 0), Sine(4800, 48000, 440.0, 0.2, 0.05, 0)};
    WriteAudio(dir / "in.wav", in);
    const double r = std::sqrt(0.5);
    struct Case {
        std::vector<std::string> args;
        double m0, m1, m2, m3;  // left' = m0 left + m2 right, right' = m1 left + m3 right
    };
    const Case cases[] = {{{"widen", "--width", "0"}, 0.5, 0.5, 0.5, 0.5},
                          {{"widen", "--width", "300"}, 2, -1, -1, 2},
                          {{"widen", "--center", "100"}, r, r, -r, r},
                          {{"chain", "widen:width=300"}, 2, -1, -1, 2}};
    for (const Case& c : cases) {
        std::vector<std::string> args = {c.args[0], P("in.wav"), P("out.wav"), "--force"};
        args.insert(args.end(), c.args.begin() + 1, c.args.end());
        SCOPED_TRACE(testing::PrintToString(args));
        Ok(args);
        const Audio out = ReadAudio(dir / "out.wav");
        ASSERT_EQ(out.channels.size(), 2u);
        ASSERT_EQ(out.Frames(), in.Frames());
        double worst = 0.0;
        for (std::size_t i = 0; i < 4800; ++i) {
            const double L = float(in.channels[0][i]), R = float(in.channels[1][i]);
            worst = std::max(worst, std::fabs(out.channels[0][i] - (c.m0 * L + c.m2 * R)));
            worst = std::max(worst, std::fabs(out.channels[1][i] - (c.m1 * L + c.m3 * R)));
        }
        EXPECT_LT(worst, 1e-6);
    }
}

TEST_F(WidenTest, MonoIsCopiedWithAWarningAndBadSettingsAreRefused) {
    Audio mono;
    mono.channels = {Sine(4800, 48000, 1000.0, 0.5, 0.0, 16)};
    WriteAudio(dir / "mono.wav", mono);
    const RunResult run = Ok({"widen", P("mono.wav"), P("mono-out.wav"), "--width", "200"});
    EXPECT_NE(run.err.find("kesta: warning: "), std::string::npos);
    EXPECT_NE(run.err.find("mono"), std::string::npos);
    EXPECT_EQ(LargestDifference(ReadAudio(dir / "mono-out.wav"), mono), 0.0);

    WriteAudio(dir / "in.wav", StereoTone16());
    ExpectRefusals("widen", {{{"--width", "301"}, 2, {"--width", "0 to 300"}},
                             {{"--width", "-1"}, 2, {"--width"}},
                             {{"--center", "-100.5"}, 2, {"--center", "-100 to 100"}}});
}

}  // namespace
}  // namespace kesta_test
