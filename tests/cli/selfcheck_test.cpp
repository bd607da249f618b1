// kesta selfcheck: the library's checks run, one row each, closed by the "N passed, M failed" line,
// and the exit status follows the outcome.

#include <cstdio>
#include <sstream>

#include "cli_test.h"

namespace kesta_test {
namespace {

class SelfcheckTest : public CliTest {};

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

TEST_F(SelfcheckTest, TableRowsAddUpToTheSummaryLine) {
    const RunResult run = RunKesta({"selfcheck"});
    const std::vector<std::string> lines = Lines(run.out);
    ASSERT_GE(lines.size(), 3u) << run.out;

    // Exactly "N passed, M failed", nothing before or after, as the last line.
    unsigned passed = 0, failed = 0;
    ASSERT_EQ(std::sscanf(lines.back().c_str(), "%u passed, %u failed", &passed, &failed), 2) << lines.back();
    EXPECT_EQ(lines.back(), std::to_string(passed) + " passed, " + std::to_string(failed) + " failed");

    // A heading, then one row per check marked PASS or FAIL, agreeing with the counts.
    unsigned passRows = 0, failRows = 0;
    for (std::size_t i = 1; i + 1 < lines.size(); ++i) {
        passRows += lines[i].find("  PASS  ") != std::string::npos ? 1 : 0;
        failRows += lines[i].find("  FAIL  ") != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(passRows, passed);
    EXPECT_EQ(failRows, failed);
    EXPECT_EQ(passed + failed, lines.size() - 2);
    EXPECT_EQ(run.exitCode, failed == 0 ? 0 : 1);
}

TEST_F(SelfcheckTest, JsonAndQuietAgreeWithTheOutcome) {
    const RunResult run = RunKesta({"selfcheck", "--json"});
    const JsonValue report = ParseJson(run.out);
    const auto& checks = report["checks"].array;
    ASSERT_FALSE(checks.empty());
    double passed = 0;
    for (const JsonValue& check : checks) {
        EXPECT_FALSE(check["family"].string.empty());
        EXPECT_FALSE(check["check"].string.empty());
        EXPECT_GE(check["seconds"].number, 0.0);
        passed += check["passed"].boolean ? 1 : 0;
    }
    EXPECT_EQ(report["passed"].number, passed);
    EXPECT_EQ(report["failed"].number, double(checks.size()) - passed);
    const bool allPassed = passed == double(checks.size());
    EXPECT_EQ(run.exitCode, allPassed ? 0 : 1);

    const RunResult quiet = RunKesta({"selfcheck", "--quiet"});
    EXPECT_EQ(quiet.exitCode, run.exitCode);
    EXPECT_EQ(quiet.out, "");
    EXPECT_EQ(quiet.ErrLines().size(), allPassed ? 0u : 1u) << quiet.err;
}

TEST_F(SelfcheckTest, TheLibraryPassesItsOwnChecks) {
    const RunResult run = RunKesta({"selfcheck"});
    EXPECT_EQ(run.exitCode, 0);
    const std::vector<std::string> lines = Lines(run.out);
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines.back().find(" passed, 0 failed"), std::string::npos);
    for (const std::string& line : lines) EXPECT_EQ(line.find("  FAIL  "), std::string::npos) << line;
}

}  // namespace
}  // namespace kesta_test
