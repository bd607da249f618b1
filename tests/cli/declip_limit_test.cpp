// kesta declip and kesta limit: a clipped file comes back aligned, of the same length, with its
// clipped stretches repaired and reported where they were made and every other sample kept (up to
// the gain); the limiter holds the ceiling and keeps quiet audio in place; bad arguments are
// refused in one line without touching a file.

#include <algorithm>
#include <cmath>
#include <sstream>

#include "cli_test.h"

namespace kesta_test {
namespace {

class DeclipTest : public CliTest {};

// Stereo float WAV at 44.1 kHz: a 150 Hz (left) and 230 Hz (right) tone of peak 0.8 clipped at 0.5,
// plus the same tones unclipped.
struct Clipped {
    Audio clean, damaged;
    Clipped() {
        clean.format = damaged.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
        clean.rate = damaged.rate = 44100;
        for (const double hz : {150.0, 230.0}) {
            std::vector<double> x = Sine(44100, 44100, hz, 0.8, 0.0, 0);
            for (double& v : x)
                v = double(float(v));
            clean.channels.push_back(x);
            for (double& v : x)
                v = std::clamp(v, -0.5, 0.5);
            damaged.channels.push_back(x);
        }
    }
};

TEST_F(DeclipTest, RepairsWhatWasClippedReportsItAndKeepsTheRest) {
    const Clipped audio;
    WriteAudio(dir / "in.wav", audio.damaged);
    const JsonValue report = Report({"declip", P("in.wav"), P("out.wav"), "--gain", "0", "--no-limiter", "--tolerance",
                                     "1", "--report", P("clips.csv")});
    const Audio out = ReadAudio(dir / "out.wav");
    ASSERT_EQ(out.Frames(), audio.damaged.Frames());
    ASSERT_EQ(out.channels.size(), 2u);

    // The report: exactly the stretches where the tone was flattened (runs of samples at 0.5 in
    // magnitude, which with 1 % tolerance are the flat ones), in order, every one repaired.
    std::istringstream csv(ReadBytes(dir / "clips.csv"));
    std::string line;
    std::getline(csv, line);
    EXPECT_EQ(line, "channel,start,start_seconds,length,repaired");
    std::vector<std::vector<std::pair<int64_t, int64_t>>> listed(2);
    while (std::getline(csv, line)) {
        int channel = 0;
        long long start = 0, length = 0;
        double seconds = 0;
        char yes[8] = {};
        ASSERT_EQ(std::sscanf(line.c_str(), "%d,%lld,%lf,%lld,%3s", &channel, &start, &seconds, &length, yes), 5)
            << line;
        EXPECT_STREQ(yes, "yes");
        listed[std::size_t(channel - 1)].push_back({start, length});
    }
    for (int c = 0; c < 2; ++c) {
        std::vector<std::pair<int64_t, int64_t>> flat;
        const auto& x = audio.damaged.channels[std::size_t(c)];
        for (std::size_t i = 0; i < x.size();) {
            std::size_t j = i;
            while (j < x.size() && std::fabs(x[j]) >= 0.495)
                ++j;
            if (j - i >= 3) flat.push_back({int64_t(i), int64_t(j - i)});
            i = std::max(j, i + 1);
        }
        EXPECT_EQ(listed[std::size_t(c)], flat) << "channel " << c + 1;
        EXPECT_EQ(report["clipping"][std::size_t(c)]["stretches"].number, double(flat.size()));

        // Outside the stretches: the input exactly; inside: closer to the unclipped tone.
        std::vector<char> inside(x.size(), 0);
        for (const auto& [start, length] : flat)
            std::fill_n(inside.begin() + start, length, 1);
        double before = 0, after = 0;
        int64_t changed = 0;
        for (std::size_t i = 0; i < x.size(); ++i) {
            const double y = out.channels[std::size_t(c)][i], clean = audio.clean.channels[std::size_t(c)][i];
            if (inside[i]) {
                before += (x[i] - clean) * (x[i] - clean);
                after += (y - clean) * (y - clean);
            } else {
                changed += y != x[i];
            }
        }
        EXPECT_EQ(changed, 0) << "channel " << c + 1;
        EXPECT_GT(10.0 * std::log10(before / after), 10.0) << "channel " << c + 1;
    }
}

TEST_F(DeclipTest, DefaultsLowerAndLimitAndTheSummaryGivesTheShareClipped) {
    const Clipped audio;
    WriteAudio(dir / "in.wav", audio.damaged);
    const RunResult run = Ok({"declip", P("in.wav"), P("out.wav")});
    EXPECT_NE(run.out.find("Channel 1:"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find(" %)"), std::string::npos) << run.out;
    const Audio out = ReadAudio(dir / "out.wav");
    ASSERT_EQ(out.Frames(), audio.damaged.Frames());
    // -12 dB outside the stretches, and never above the limiter's ceiling.
    const double gain = double(float(std::pow(10.0, -12.0 / 20.0)));
    EXPECT_NEAR(out.channels[0][20], audio.damaged.channels[0][20] * gain, 1e-6);  // 0.33, outside every run
    for (const auto& channel : out.channels)
        for (double v : channel)
            ASSERT_LE(std::fabs(v), std::pow(10.0, -0.1 / 20.0) + 1e-6);
}

TEST_F(DeclipTest, LimitHoldsTheCeilingAndKeepsQuietAudioAligned) {
    Audio loud;
    loud.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    loud.rate = 44100;
    loud.channels = {Sine(30000, 44100, 440.0, 0.9, 0.0, 0), Sine(30000, 44100, 97.0, 0.05, 0.0, 0)};
    WriteAudio(dir / "in.wav", loud);
    const JsonValue report = Report({"limit", P("in.wav"), P("out.wav"), "--gain", "12", "--ceiling", "-3"});
    EXPECT_EQ(report["settings"]["linked"].boolean, true);
    const Audio out = ReadAudio(dir / "out.wav");
    ASSERT_EQ(out.Frames(), loud.Frames());
    double peak = 0;
    for (const auto& channel : out.channels)
        for (double v : channel)
            peak = std::max(peak, std::fabs(v));
    EXPECT_LE(peak, double(float(std::pow(10.0, -3.0 / 20.0))));
    EXPECT_GT(peak, 0.6);

    // Quiet audio through the default limiter: the input itself, in place.
    Audio quiet = loud;
    quiet.channels[0] = Sine(30000, 44100, 440.0, 0.5, 0.0, 0);
    for (auto& channel : quiet.channels)
        for (double& v : channel)
            v = double(float(v));
    WriteAudio(dir / "quiet.wav", quiet);
    Ok({"limit", P("quiet.wav"), P("quiet-out.wav")});
    EXPECT_EQ(LargestDifference(ReadAudio(dir / "quiet-out.wav"), quiet), 0.0);
}

TEST_F(DeclipTest, BadArgumentsAreRefusedInOneLine) {
    WriteAudio(dir / "in.wav", Clipped().damaged);
    ExpectRefusals("declip", {
                                 {{"--tolerance", "0"}, 2, {"--tolerance", "above 0"}},
                                 {{"--tolerance", "150"}, 2, {"--tolerance"}},
                                 {{"--min-run", "0"}, 2, {"--min-run", "1 to 100000"}},
                                 {{"--gain", "40"}, 2, {"--gain", "-60 to +24"}},
                                 {{"--report", P("in.wav")}, 4, {"in.wav"}},
                             });
    ExpectRefusals("limit", {
                                {{"--ceiling", "1"}, 2, {"--ceiling", "-100 to 0"}},
                                {{"--gain", "60"}, 2, {"--gain"}},
                                {{"--lookahead", "30"}, 2, {"--lookahead", "5 to 20 ms"}},
                                {{"--release", "20"}, 2, {"--release", "40 to 200 ms"}},
                            });
    ExpectOneErrorLine(RunKesta({"declip", P("missing.wav"), P("x.wav")}), 3, {"missing.wav"});
}

}  // namespace
}  // namespace kesta_test
