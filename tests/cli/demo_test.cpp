// kesta demo: the same recording, restoration and report every run (timings aside), files in the
// directory it was given, and a directory of someone else's files left alone.

#include "cli_test.h"

namespace kesta_test {
namespace {

class DemoTest : public CliTest {};

// The report without what may differ between two runs: the time taken and the directory's name.
JsonValue Comparable(JsonValue report) {
    report.object.erase("timings");
    report.object.erase("directory");
    return report;
}

bool Same(const JsonValue& a, const JsonValue& b) {
    if (a.type != b.type || a.number != b.number || a.string != b.string || a.boolean != b.boolean ||
        a.array.size() != b.array.size() || a.object.size() != b.object.size())
        return false;
    for (std::size_t i = 0; i < a.array.size(); ++i)
        if (!Same(a.array[i], b.array[i])) return false;
    for (const auto& [key, value] : a.object)
        if (b.object.count(key) == 0 || !Same(value, b.object.at(key))) return false;
    return true;
}

TEST_F(DemoTest, SameReportEveryRunAndOtherFilesKept) {
    const RunResult text = Ok({"demo", P("one")});
    const JsonValue first = ParseJson(ReadBytes(dir / "one" / "report.json"));
    const JsonValue second = Report({"demo", P("two"), "-q"});
    EXPECT_TRUE(Same(Comparable(first), Comparable(second)));
    // Samples, not bytes: a float file's peak chunk holds the time it was written.
    EXPECT_EQ(ReadAudio(dir / "one" / "restored.wav").channels, ReadAudio(dir / "two" / "restored.wav").channels);
    for (const JsonValue& file : first["files"].array)
        EXPECT_TRUE(std::filesystem::exists(dir / "one" / file.string)) << file.string;
    // The table names every stage, and the damage the recording was given.
    for (const JsonValue& stage : first["stages"].array)
        EXPECT_NE(text.out.find(stage["stage"].string), std::string::npos) << stage["stage"].string;
    EXPECT_NE(text.out.find(std::to_string(int(first["damage"]["clicks"].number)) + " clicks"), std::string::npos);

    // Each step that has damage of its own to repair brings the recording nearer the clean
    // programme; the limiter, with nothing over its ceiling, leaves it where it was.
    const auto& stages = first["stages"].array;
    ASSERT_EQ(stages.size(), 5u);
    for (std::size_t k = 1; k < stages.size(); ++k) {
        const std::string& name = stages[k]["stage"].string;
        const double before = stages[k - 1]["snr_db"].number, after = stages[k]["snr_db"].number;
        if (name == "limit")
            EXPECT_NEAR(after, before, 0.01);
        else
            EXPECT_GT(after, before) << name;
    }

    // A demo run again over its own directory replaces its files; another seed another recording.
    EXPECT_FALSE(Same(Comparable(Report({"demo", P("one"), "--seed", "2"})), Comparable(first)));

    std::filesystem::create_directory(dir / "mine");
    WriteBytes(dir / "mine" / "clean.wav", "my take");
    WriteBytes(dir / "file", "x");
    ExpectRefusals("", {{{"demo", P("mine")}, 4, {"clean.wav", "--force"}},
                        {{"demo", P("file")}, 4, {"not a directory"}},
                        {{"demo", P("x"), "--seed", "-1"}, 2, {"--seed -1"}}});
    EXPECT_EQ(ReadBytes(dir / "mine" / "clean.wav"), "my take");
}

}  // namespace
}  // namespace kesta_test
