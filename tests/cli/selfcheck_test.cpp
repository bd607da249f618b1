// kesta selfcheck: one row per library check, closed by "N passed, M failed"; all pass, exit 0.

#include <cstdio>

#include "cli_test.h"

namespace kesta_test {
namespace {

class SelfcheckTest : public CliTest {};

TEST_F(SelfcheckTest, EveryCheckPassesAndTheRowsAddUpToTheSummaryLine) {
    const RunResult run = RunKesta({"selfcheck"});
    EXPECT_EQ(run.exitCode, 0);
    const std::vector<std::string> lines = Lines(run.out);
    ASSERT_GE(lines.size(), 3u) << run.out;
    unsigned passed = 0, failed = 0;
    ASSERT_EQ(std::sscanf(lines.back().c_str(), "%u passed, %u failed", &passed, &failed), 2) << lines.back();
    EXPECT_EQ(lines.back(), std::to_string(passed) + " passed, 0 failed");
    // A heading, then one PASS row per check.
    for (std::size_t i = 1; i + 1 < lines.size(); ++i)
        EXPECT_NE(lines[i].find("  PASS  "), std::string::npos) << lines[i];
    EXPECT_EQ(passed, lines.size() - 2);

    const RunResult json = RunKesta({"selfcheck", "--json"});
    EXPECT_EQ(json.exitCode, 0);
    const JsonValue report = ParseJson(json.out);
    EXPECT_EQ(report["checks"].array.size(), passed);
    for (const JsonValue& check : report["checks"].array) {
        EXPECT_FALSE(check["check"].string.empty());
        EXPECT_TRUE(check["passed"].boolean) << check["check"].string;
    }
    EXPECT_EQ(report["passed"].number, passed);
    EXPECT_EQ(report["failed"].number, 0);

    const RunResult quiet = RunKesta({"selfcheck", "--quiet"});
    EXPECT_EQ(quiet.exitCode, 0);
    EXPECT_EQ(quiet.out + quiet.err, "");
}

}  // namespace
}  // namespace kesta_test
