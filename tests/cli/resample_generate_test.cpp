// kesta resample: the output has round(frames x rate / input rate) frames at the new rate and is
// aligned with the input (a tone keeps its phase at time zero), alone and as a chain step; bad
// rates and qualities are refused. kesta generate: the file asked for, reproducible from its seed,
// within its peak level, uniform.

#include <cmath>
#include <numbers>

#include "cli_test.h"

namespace kesta_test {
namespace {

class ResampleTest : public CliTest {};

TEST_F(ResampleTest, LengthIsExactAndTheToneKeepsItsPhase) {
    struct Case {
        int from, to;
        std::vector<std::string> args;
    };
    const Case cases[] = {{44100, 48000, {"resample", "--rate", "48000"}},
                          {96000, 44100, {"resample", "--rate", "44100", "--quality", "fast"}},
                          {48000, 44100, {"resample", "--rate", "44100", "--quality", "best"}},
                          {44100, 96000, {"chain", "resample:rate=96000", "gain:db=0"}}};
    const double hz = 5000.0;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        Audio in;
        in.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
        in.rate = c.from;
        const int64_t frames = c.from / 2 + 37;
        in.channels = {Sine(frames, c.from, hz, 0.5, 0.0, 0), Sine(frames, c.from, 1000.0, 0.25, 0.0, 0)};
        WriteAudio(dir / "in.wav", in);
        std::vector<std::string> args = {c.args[0], P("in.wav"), P("out.wav"), "--force"};
        args.insert(args.end(), c.args.begin() + 1, c.args.end());
        Ok(args);
        const Audio out = ReadAudio(dir / "out.wav");
        EXPECT_EQ(out.rate, c.to);
        EXPECT_EQ(out.Frames(), (frames * c.to + c.from / 2) / c.from);
        ASSERT_EQ(out.channels.size(), 2u);
        // The tone's phase at time zero, fitted over the middle of each file.
        const ToneFit before = FitTone(in.channels[0], c.from, hz, frames / 4, 3 * frames / 4);
        const ToneFit after = FitTone(out.channels[0], c.to, hz, out.Frames() / 4, 3 * out.Frames() / 4);
        EXPECT_LT(std::fabs(PhaseDifference(after.phase, before.phase)), 0.01);
        EXPECT_NEAR(after.amplitude, 0.5, 0.001);
    }
}

TEST_F(ResampleTest, BadSettingsAreRefused) {
    WriteAudio(dir / "in.wav", StereoTone16());
    ExpectRefusals("resample", {{{"--rate", "999"}, 2, {"--rate", "1000 to 768000"}},
                                {{"--rate", "44100.5"}, 2, {"--rate"}},
                                {{"--rate", "44100", "--quality", "ultra"}, 2, {"--quality", "fast, standard"}},
                                {{}, 2, {"--rate"}}});
}

TEST_F(ResampleTest, GenerateIsReproducibleFromItsSeed) {
    auto generate = [&](const std::string& name, const std::vector<std::string>& extra) {
        std::vector<std::string> args = {"generate", P(name), "--length", "0.5", "--rate", "22050", "--channels", "2"};
        args.insert(args.end(), extra.begin(), extra.end());
        Ok(args);
        return ReadAudio(dir / name);
    };
    const Audio a = generate("a.wav", {"--seed", "7", "--level", "-20"});
    const Audio b = generate("b.wav", {"--seed", "7", "--level", "-20"});
    const Audio c = generate("c.wav", {"--seed", "8", "--level", "-20"});
    EXPECT_EQ(a.format, SF_FORMAT_WAV | SF_FORMAT_PCM_24);
    EXPECT_EQ(a.rate, 22050);
    ASSERT_EQ(a.channels.size(), 2u);
    EXPECT_EQ(a.Frames(), 11025);
    EXPECT_EQ(LargestDifference(a, b), 0.0);
    EXPECT_GT(LargestDifference(a, c), 0.01);
    EXPECT_NE(a.channels[0], a.channels[1]);
    // Uniform within +-0.1 (-20 dBFS): peak just under it, RMS 4.77 dB below it.
    for (const auto& channel : a.channels) {
        const Levels levels = MeasureLevels(channel);
        EXPECT_LE(levels.peak, 0.1 + 1e-6);
        EXPECT_GT(levels.peak, 0.099);
        EXPECT_NEAR(Db(levels.rms), -20.0 - 4.77, 0.1);
        EXPECT_NEAR(levels.mean, 0.0, 0.003);
    }
    WriteBytes(dir / "out.wav", "keep me");
    ExpectRefusals("", {{{"generate", P("out.wav"), "--length", "1", "--force", "--noise", "pink"}, 2, {"--noise"}},
                        {{"generate", P("out.wav"), "--length", "0", "--force"}, 2, {"--length"}},
                        {{"generate", P("out.wav"), "--length", "1", "--force", "--channels", "33"}, 2, {"--channels"}},
                        {{"generate", P("out.wav"), "--length", "1"}, 4, {"out.wav"}}});
}

}  // namespace
}  // namespace kesta_test
