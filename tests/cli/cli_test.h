#pragma once
// What the kesta tests share: a fresh directory per test, and the checks every failure must pass.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "audio_fixtures.h"
#include "json_value.h"
#include "kesta_process.h"

namespace kesta_test {

class CliTest : public ::testing::Test {
protected:
    // A path in the test's directory, as a string for kesta's command line.
    std::string P(const std::string& name) const { return (dir / name).string(); }

    // A failure speaks in exactly one line on stderr, "kesta: error: ...", containing each of
    // `mentions`, prints nothing on stdout, and exits with `code`.
    static void ExpectOneErrorLine(const RunResult& run, int code, const std::vector<std::string>& mentions) {
        EXPECT_EQ(run.exitCode, code) << run.err;
        EXPECT_EQ(run.out, "");
        const std::vector<std::string> lines = run.ErrLines();
        ASSERT_EQ(lines.size(), 1u) << run.err;
        EXPECT_EQ(lines[0].rfind("kesta: error: ", 0), 0u) << lines[0];
        for (const std::string& mention : mentions) EXPECT_NE(lines[0].find(mention), std::string::npos) << lines[0];
    }

    TempDir dir;
};

}  // namespace kesta_test
