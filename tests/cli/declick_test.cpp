// kesta declick: on a WAV with inserted clicks the output keeps the length and alignment, only the
// reported stretches change, and the report (CSV and JSON) lists the clicks that were inserted.
// Wrong command lines are refused in one line without touching any file.

#include <cmath>
#include <sstream>

#include "cli_test.h"

namespace kesta_test {
namespace {

class DeclickTest : public CliTest {};

struct Click {
    int channel;
    int64_t start;
    int length;
};

// Stereo 16-bit 44.1 kHz, 3 s of two tones (faded in) over quiet noise, with clicks of 1 to 12 samples at 10
// to 25 times the tones' RMS.
Audio Damaged(std::vector<Click>& clicks) {
    Audio a;
    a.rate = 44100;
    a.channels = {Sine(132300, 44100, 440.0, 0.2, 0.0, 0), Sine(132300, 44100, 660.0, 0.15, 0.0, 0)};
    uint32_t state = 12345;
    auto next = [&state] {
        state = state * 1664525u + 1013904223u;
        return double(state >> 8) / double(1u << 24);
    };
    for (auto& channel : a.channels)
        for (std::size_t n = 0; n < channel.size(); ++n)  // faded in over 10 ms, as a recording starts
            channel[n] = channel[n] * std::min(1.0, double(n) / 441.0) + 0.002 * (next() - 0.5);
    for (int k = 0; k < 12; ++k) {
        const Click click{k % 2, 8000 + k * 10000 + int64_t(next() * 3000), 1 + (k * 7) % 12};
        for (int i = 0; i < click.length; ++i)
            a.channels[click.channel][click.start + i] +=
                (i % 2 ? -1.0 : 1.0) * (1.5 + next()) * 0.14 * std::exp(-2.0 * i / click.length);
        clicks.push_back(click);
    }
    for (auto& channel : a.channels)
        for (double& x : channel)
            x = Quantise(std::clamp(x, -1.0, 1.0), 16);
    return a;
}

TEST_F(DeclickTest, RepairsTheInsertedClicksOnlyAndReportsThem) {
    std::vector<Click> clicks;
    const Audio in = Damaged(clicks);
    WriteAudio(dir / "in.wav", in);
    const JsonValue report = Report({"declick", P("in.wav"), P("out.wav"), "--report", P("clicks.csv")});
    EXPECT_EQ(report["channels"][0]["clicks"].number + report["channels"][1]["clicks"].number, double(clicks.size()));
    const Audio out = ReadAudio(dir / "out.wav");
    ASSERT_EQ(out.Frames(), in.Frames());

    // Each CSV row overlaps an inserted click of its channel; every click is listed; nothing
    // outside the rows changed.
    std::istringstream csv(ReadBytes(dir / "clicks.csv"));
    std::string line;
    std::getline(csv, line);
    EXPECT_EQ(line, "channel,start_frame,start_seconds,length_frames,length_ms,repaired");
    std::vector<std::vector<bool>> listed(2, std::vector<bool>(std::size_t(in.Frames()), false));
    std::vector<bool> covered(clicks.size(), false);
    while (std::getline(csv, line)) {
        int channel = 0, length = 0;
        long long start = 0;
        ASSERT_EQ(std::sscanf(line.c_str(), "%d,%lld,%*f,%d", &channel, &start, &length), 3) << line;
        bool real = false;
        for (std::size_t k = 0; k < clicks.size(); ++k)
            if (clicks[k].channel == channel - 1 && start < clicks[k].start + clicks[k].length &&
                clicks[k].start < start + length)
                real = covered[k] = true;
        EXPECT_TRUE(real) << line;
        std::fill_n(listed[std::size_t(channel - 1)].begin() + start, length, true);
    }
    EXPECT_EQ(std::count(covered.begin(), covered.end(), true), int(clicks.size()));
    int changedOutside = 0;
    for (int c = 0; c < 2; ++c)
        for (int64_t i = 0; i < in.Frames(); ++i)
            changedOutside += !listed[c][std::size_t(i)] && out.channels[c][i] != in.channels[c][i];
    EXPECT_EQ(changedOutside, 0);

    // Detection alone writes the same list as JSON and no audio.
    EXPECT_EQ(Ok({"declick", P("in.wav"), "--detect-only", "--report", P("clicks.json"), "--quiet"}).out, "");
    const JsonValue found = ParseJson(ReadBytes(dir / "clicks.json"));
    EXPECT_EQ(found["clicks"].array.size(), clicks.size());
    EXPECT_FALSE(found["clicks"][0]["repaired"].boolean);
}

TEST_F(DeclickTest, RefusesWrongCommandLines) {
    std::vector<Click> clicks;
    WriteAudio(dir / "in.wav", Damaged(clicks));
    ExpectRefusals("declick", {
                                  {{"--threshold", "-1"}, 2, {"--threshold"}},
                                  {{"--threshold", "nan"}, 2, {"--threshold"}},
                                  {{"--complexity", "500"}, 2, {"--complexity"}},
                                  {{"--report", P("r.txt")}, 2, {".csv"}},
                                  {{"--detect-only"}, 2, {"--detect-only"}},
                              });
    ExpectRefusals("", {{{"declick", P("in.wav")}, 2, {"OUTPUT"}},
                        {{"declick", P("missing.wav"), P("x.wav")}, 3, {"missing.wav"}}});
}

}  // namespace
}  // namespace kesta_test
