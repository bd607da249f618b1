// kesta denoise and dehiss: output of the input's length and aligned with it, the noise-only
// stretch quieter, residual + output = input, saved prints reproducing a run bit for bit, and bad
// command lines refused in one line before any file is touched. Prints edited with a recomputed
// checksum are refused by the decoder every reading run goes through (noise_print_file_test).

#include <cmath>
#include <cstdint>

#include "cli_test.h"

namespace kesta_test {
namespace {

constexpr int kFloatWav = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
constexpr int kRate = 44100;

class SpectralTest : public CliTest {
protected:
    void SetUp() override { WriteAudio(dir / "in.wav", take.noisy); }

    // `name` has the input's shape, the noise-only lead-in (away from its ends) is at least
    // `quieterDb` down, and the tones keep their level and phase: one frame of delay would turn
    // the 440 Hz tone by 0.063 rad.
    void ExpectCleaned(const std::string& name, double quieterDb) const {
        const Audio out = ReadAudio(dir / name);
        EXPECT_EQ(out.format, kFloatWav);
        ASSERT_EQ(out.channels.size(), 2u);
        ASSERT_EQ(out.Frames(), take.noisy.Frames());
        const int64_t quietFrom = kRate / 5, quietTo = take.leadIn - kRate / 5;
        const int64_t toneFrom = 2 * kRate, toneTo = 3 * kRate + kRate / 2;
        for (int c = 0; c < 2; ++c) {
            SCOPED_TRACE(c);
            EXPECT_LE(RmsDb(out.channels[c], quietFrom, quietTo) - RmsDb(take.noisy.channels[c], quietFrom, quietTo),
                      -quieterDb);
            for (double hz : ToneFrequencies(c)) {
                const ToneFit clean = FitTone(take.tones.channels[c], kRate, hz, toneFrom, toneTo);
                const ToneFit kept = FitTone(out.channels[c], kRate, hz, toneFrom, toneTo);
                EXPECT_NEAR(Db(kept.amplitude / clean.amplitude), 0.0, 0.5) << hz;
                EXPECT_NEAR(PhaseDifference(kept.phase, clean.phase), 0.0, 0.01) << hz;
            }
        }
    }

    // Runs `command in.wav clean.wav ARGS` and again with --residual (removed.wav): the two sum to
    // the input.
    void ExpectResidualAddsUp(const std::string& command, const std::vector<std::string>& args) {
        for (const char* residual : {"", "--residual"}) {
            std::vector<std::string> run = {command, P("in.wav"), P(*residual ? "removed.wav" : "clean.wav"), "-q"};
            run.insert(run.end(), args.begin(), args.end());
            if (*residual) run.push_back(residual);
            Ok(run);
        }
        Audio sum = ReadAudio(dir / "clean.wav");
        const Audio removed = ReadAudio(dir / "removed.wav");
        ASSERT_EQ(sum.Frames(), take.noisy.Frames());
        ASSERT_EQ(removed.Frames(), take.noisy.Frames());
        for (int c = 0; c < 2; ++c)
            for (std::size_t i = 0; i < sum.channels[c].size(); ++i)
                sum.channels[c][i] += removed.channels[c][i];
        EXPECT_LT(LargestDifference(take.noisy, sum), 1e-5);
    }

    bool Same(const std::string& a, const std::string& b) const {
        return ReadAudio(dir / a).channels == ReadAudio(dir / b).channels;
    }

    NoisyTake take = MakeNoisyTake(kFloatWav);
};

using DenoiseTest = SpectralTest;
using DehissTest = SpectralTest;

TEST_F(DenoiseTest, RemovesTheNoiseAndKeepsTheTonesInPlace) {
    const JsonValue report = Report({"denoise", P("in.wav"), P("out.wav"), "--noise", "0:1.5"});
    ExpectCleaned("out.wav", 20.0);
    EXPECT_EQ(report["noise"]["frames"].number, double(take.leadIn));
    for (int c = 0; c < 2; ++c)
        EXPECT_LE(report["output"]["noise_level_change_db"][c].number, -20.0);

    // What is removed is mostly the noise: in the lead-in nearly all of it.
    ExpectResidualAddsUp("denoise", {"--noise", "0:1.5", "--reduction", "25"});
    EXPECT_NEAR(RmsDb(ReadAudio(dir / "removed.wav").channels[0], kRate / 5, take.leadIn - kRate / 5),
                RmsDb(take.noisy.channels[0], kRate / 5, take.leadIn - kRate / 5), 1.0);

    // No reduction gives the input back.
    Ok({"denoise", P("in.wav"), P("same.wav"), "--noise", "0:1.5", "--reduction", "0", "-q"});
    const Audio same = ReadAudio(dir / "same.wav");
    ASSERT_EQ(same.Frames(), take.noisy.Frames());
    EXPECT_LT(LargestDifference(take.noisy, same), 1e-6);

    // One channel, 16-bit, a small FFT, a range from the start.
    Audio mono = MakeNoisyTake(SF_FORMAT_WAV | SF_FORMAT_PCM_16, 2.0, 1.0).noisy;
    mono.channels.resize(1);
    WriteAudio(dir / "mono.wav", mono);
    const JsonValue monoReport =
        Report({"denoise", P("mono.wav"), P("mono-out.wav"), "--noise", ":1", "--fft-size", "1024"});
    EXPECT_LE(monoReport["output"]["noise_level_change_db"][0].number, -20.0);
    const Audio out = ReadAudio(dir / "mono-out.wav");
    EXPECT_EQ(out.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    EXPECT_EQ(out.Frames(), mono.Frames());
}

TEST_F(DenoiseTest, WithoutANoiseSourceTheAdaptiveMethodLearnsTheNoiseAndKeepsTheTones) {
    // The --noise stretch is only measured: the run is the same as one without it.
    const JsonValue report = Report({"denoise", P("in.wav"), P("out.wav"), "--method", "adaptive", "--noise", "0:1.5"});
    ExpectCleaned("out.wav", 20.0);
    EXPECT_EQ(report["method"].string, "adaptive");
    EXPECT_EQ(report["noise"]["source"].string, "range");
    for (int c = 0; c < 2; ++c)
        EXPECT_LE(report["output"]["noise_level_change_db"][c].number, -20.0);
    // The lead-in is the programme's pause.
    EXPECT_LE(report["output"]["pause_level_change_db"].number, -20.0);
    EXPECT_GE(report["output"]["pause_seconds"].number, 1.0);
    const RunResult plain = Ok({"denoise", P("in.wav"), P("plain.wav")});
    EXPECT_NE(plain.out.find("Method adaptive"), std::string::npos) << plain.out;
    EXPECT_TRUE(Same("out.wav", "plain.wav"));
    // As a chain step, anywhere in the chain.
    Ok({"chain", P("in.wav"), P("chained.wav"), "gain:db=0", "denoise:method=adaptive", "-q"});
    EXPECT_TRUE(Same("out.wav", "chained.wav"));
    ExpectResidualAddsUp("denoise", {"--reduction", "20"});
}

TEST_F(DenoiseTest, SteadyHumIsCancelledAndListedAndAChainStepDoesTheSame) {
    // 50 Hz mains hum and two harmonics under the whole take, long enough for the canceller to
    // trust them; the chain step must end its stream as the command does, to the last sample.
    NoisyTake hum = MakeNoisyTake(kFloatWav, 9.0);
    for (auto& channel : hum.noisy.channels)
        for (double hz : {50.0, 100.0, 150.0}) {
            const std::vector<double> line = Sine(int64_t(channel.size()), kRate, hz, 0.02, 0.0, 0);
            for (std::size_t i = 0; i < channel.size(); ++i)
                channel[i] += line[i];
        }
    WriteAudio(dir / "hum.wav", hum.noisy);
    const JsonValue report = Report({"denoise", P("hum.wav"), P("out.wav")});
    EXPECT_EQ(report["method"].string, "adaptive");
    EXPECT_GE(report["lines"]["cancelled"].number, 3.0);
    Ok({"chain", P("hum.wav"), P("chained.wav"), "denoise:method=adaptive", "-q"});
    EXPECT_TRUE(Same("out.wav", "chained.wav"));
}

TEST_F(DenoiseTest, TheNmfMethodLearnsTheNoiseFromTheStretchAndKeepsTheTones) {
    const JsonValue report =
        Report({"denoise", P("in.wav"), P("out.wav"), "--method", "nmf", "--noise", "0:1.5", "--reduction", "30"});
    ExpectCleaned("out.wav", 20.0);
    EXPECT_EQ(report["method"].string, "nmf");
    EXPECT_EQ(report["noise"]["frames"].number, double(take.leadIn));
    for (int c = 0; c < 2; ++c)
        EXPECT_LE(report["output"]["noise_level_change_db"][c].number, -20.0);
    EXPECT_LE(report["output"]["pause_level_change_db"].number, -12.0);
    ExpectResidualAddsUp("denoise", {"--method", "nmf", "--noise", "0:1.5"});
    // Its noise dictionary kept and used again gives the same output; a print method's print and a
    // dictionary are refused by the other method.
    Ok({"denoise", P("in.wav"), P("a.wav"), "--method", "nmf", "--noise", "0:1.5", "--save-print", P("room.knd"),
        "-q"});
    Ok({"denoise", P("in.wav"), P("b.wav"), "--method", "nmf", "--print", P("room.knd"), "-q"});
    EXPECT_TRUE(Same("a.wav", "b.wav"));
    Ok({"denoise", P("in.wav"), "--noise", "0:1.5", "--save-print", P("room.knp"), "-q"});
    ExpectRefusals("denoise",
                   {{{"--method", "nmf", "--print", P("room.knp")}, 2, {"noise print, not a noise dictionary"}},
                    {{"--print", P("room.knd")}, 2, {"noise dictionary, not a noise print", "--method nmf"}}});
}

TEST_F(DenoiseTest, ASavedPrintOrAnotherFileReproducesTheRunBitForBit) {
    Ok({"denoise", P("in.wav"), P("a.wav"), "--noise", "0:1.5", "--save-print", P("room.knp"), "-q"});
    Ok({"denoise", P("in.wav"), P("b.wav"), "--print", P("room.knp"), "-q"});
    // Capture only: no OUTPUT, and the same print.
    Ok({"denoise", P("in.wav"), "--noise", "0:1.5", "--save-print", P("again.knp"), "-q"});
    EXPECT_EQ(ReadBytes(dir / "again.knp"), ReadBytes(dir / "room.knp"));

    // The lead-in as a file of its own (all of it by default), and 0.25 s into a longer one.
    Audio noise = take.noisy;
    for (auto& channel : noise.channels)
        channel.resize(std::size_t(take.leadIn));
    WriteAudio(dir / "noise.wav", noise);
    Ok({"denoise", P("in.wav"), P("c.wav"), "--noise-file", P("noise.wav"), "-q"});
    for (auto& channel : noise.channels) {
        channel.insert(channel.begin(), std::size_t(kRate / 4), 0.3);
        channel.insert(channel.end(), std::size_t(kRate), -0.3);
    }
    WriteAudio(dir / "padded.wav", noise);
    Ok({"denoise", P("in.wav"), P("d.wav"), "--noise-file", P("padded.wav"), "--noise", "0.25:1.75", "-q"});
    for (const char* name : {"b.wav", "c.wav", "d.wav"})
        EXPECT_TRUE(Same("a.wav", name)) << name;
}

TEST_F(DenoiseTest, BadCommandLinesOfDenoiseAndDehissSayOneLineAndTouchNothing) {
    // Prints that do not fit in.wav: another FFT size, a mono source, a hiss floor, another sample
    // rate, a damaged file.
    Ok({"denoise", P("in.wav"), "--noise", "0:1.5", "--fft-size", "2048", "--save-print", P("small.knp"), "-q"});
    Audio mono = take.noisy;
    mono.channels.resize(1);
    WriteAudio(dir / "mono.wav", mono);
    Ok({"denoise", P("mono.wav"), "--noise", "0:1.5", "--save-print", P("mono.knp"), "-q"});
    Audio three = take.noisy;
    three.channels.push_back(three.channels[0]);
    WriteAudio(dir / "three.wav", three);
    Ok({"dehiss", P("in.wav"), "--noise", "0:1.5", "--save-print", P("hiss.khf"), "-q"});
    Audio fast = take.noisy;
    fast.rate = 48000;
    WriteAudio(dir / "fast.wav", fast);
    Ok({"denoise", P("fast.wav"), "--noise", "0:1.5", "--save-print", P("fast.knp"), "-q"});
    std::string bytes = ReadBytes(dir / "small.knp");
    bytes[bytes.size() / 2] ^= 0x10;
    WriteBytes(dir / "damaged.knp", bytes);
    WriteBytes(dir / "garbage.wav", "this is not audio at all");

    ExpectRefusals("denoise", {
                                  {{"--noise", "2:1"}, 2, {"--noise 2:1", "ends before it starts"}},
                                  {{"--noise", "abc"}, 2, {"--noise abc", "not a time range", "0:1.5"}},
                                  {{"--noise", "1:x"}, 2, {"'x' is not a number of seconds"}},
                                  {{"--noise", "0:90"}, 2, {"past the end", "4.000 s long"}},
                                  {{"--noise", "0:0.05"}, 2, {"too short", "0.050 s", "at least 0.093 s"}},
                                  {{"--method", "nmf"}, 2, {"--method nmf needs a noise source"}},
                                  {{"--method", "nmf", "--noise", "0:1.5", "--transition", "3"},
                                   2,
                                   {"--transition applies to --method print only"}},
                                  {{"--method", "wiener"}, 2, {"--method wiener", "not a denoise method"}},
                                  {{"--method", "adaptive", "--print", P("small.knp")}, 2, {"takes no noise print"}},
                                  {{"--fft-size", "2048"}, 2, {"--method adaptive", "chooses its own FFT size"}},
                                  {{"--smoothing", "50"}, 2, {"--smoothing applies to --method print and nmf only"}},
                                  {{"--print", P("small.knp"), "--fft-size", "4096"}, 2, {"FFT size 2048", "4096"}},
                                  {{"--print", P("mono.knp")}, 2, {"1 channel(s)", "has 2"}},
                                  {{"--print", P("hiss.khf")}, 2, {"hiss floor, not a noise print"}},
                                  {{"--print", P("fast.knp")}, 2, {"taken at 48000 Hz", "44100 Hz"}},
                                  {{"--print", P("damaged.knp")}, 3, {"checksum"}},
                                  {{"--print", P("missing.knp")}, 3, {"no such file"}},
                                  {{"--noise-file", P("three.wav")}, 2, {"3 channel(s)"}},
                                  {{"--noise-file", P("fast.wav")}, 2, {"at 48000 Hz, the input at 44100 Hz"}},
                                  {{"--noise-file", P("garbage.wav")}, 3, {"garbage.wav"}},
                                  {{"--noise", "0:1.5", "--reduction", "150"}, 2, {"--reduction 150", "out of range"}},
                                  {{"--noise", "0:1.5", "--fft-size", "1000"}, 2, {"--fft-size 1000"}},
                                  {{"--noise", "0:1.5", "--print", P("small.knp")}, 2, {"cannot be combined"}},
                                  {{"--noise", "0:1.5", "--residual", "--reduction", "0"}, 2, {"nothing to write"}},
                              });
    ExpectRefusals("", {{{"denoise", P("in.wav"), "--noise", "0:1"}, 2, {"no output file"}}});
    // Range parsing and the fit of a print are shared; these are dehiss's own.
    ExpectRefusals("dehiss", {
                                 {{"--noise", "0:0.05"}, 2, {"too short", "at least 0.093 s", "4096 frames"}},
                                 {{"--print", P("small.knp")}, 2, {"noise print, not a hiss floor"}},
                                 {{"--noise", "0:1", "--knee", "-3"}, 2, {"--knee -3", "out of range"}},
                                 {{"--noise", "0:1", "--sensitivity", "99"}, 2, {"--sensitivity 99"}},
                                 {{"--save-print", P("x.khf")}, 2, {"no noise source"}},
                             });
}

TEST_F(DehissTest, TurnsTheHissDownKeepsTheTonesAndASavedFloorReproducesTheRun) {
    const JsonValue report =
        Report({"dehiss", P("in.wav"), P("a.wav"), "--noise", "0:1.5", "--save-print", P("tape.khf")});
    ExpectCleaned("a.wav", 10.0);  // the default reduction's gain floor is -12 dB
    for (int c = 0; c < 2; ++c)
        EXPECT_LE(report["output"]["noise_level_change_db"][c].number, -10.0);
    Ok({"dehiss", P("in.wav"), P("b.wav"), "--print", P("tape.khf"), "-q"});
    EXPECT_TRUE(Same("a.wav", "b.wav"));

    // The same floor at a higher sensitivity removes more, exactly as a fresh capture at it does.
    Ok({"dehiss", P("in.wav"), P("c.wav"), "--print", P("tape.khf"), "--sensitivity", "10", "-q"});
    Ok({"dehiss", P("in.wav"), P("d.wav"), "--noise", "0:1.5", "--sensitivity", "10", "-q"});
    EXPECT_TRUE(Same("c.wav", "d.wav"));
    EXPECT_LT(RmsDb(ReadAudio(dir / "c.wav").channels[0], 2 * kRate, 3 * kRate),
              RmsDb(ReadAudio(dir / "a.wav").channels[0], 2 * kRate, 3 * kRate));

    ExpectResidualAddsUp("dehiss", {"--noise", "0:1.5", "--sensitivity", "9"});
}

}  // namespace
}  // namespace kesta_test
