#pragma once
// What the kesta tests share: running the built binary, a fresh directory per test, a strict JSON
// reader for --json reports, and the checks every refusal must pass.

#include <gtest/gtest.h>
#include <sys/types.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "audio_fixtures.h"

namespace kesta_test {

std::vector<std::string> Lines(const std::string& text);

struct RunResult {
    int exitCode = -1;  // -1 when killed by a signal
    int signal = 0;
    std::string out, err;
    std::vector<std::string> ErrLines() const { return Lines(err); }
};

// Runs `kesta args...` in `cwd`. A non-zero `fileSizeLimit` caps the size of any file it writes
// (RLIMIT_FSIZE with SIGXFSZ ignored: writing past it fails as a full disk would).
RunResult RunKesta(const std::vector<std::string>& args, const std::filesystem::path& cwd = {}, long fileSizeLimit = 0);
// As a user whom file permissions stop: nobody when the tests run as root. The files it is to
// reach must be open to others.
RunResult RunKestaUnprivileged(const std::vector<std::string>& args);
// With stderr on a pseudo-terminal; `err` is what the terminal received. nullopt without one.
std::optional<RunResult> RunKestaOnTerminal(const std::vector<std::string>& args);

// Starts kesta without waiting (as RunKesta does); Finish() waits for it.
class RunningKesta {
public:
    explicit RunningKesta(const std::vector<std::string>& args, const std::filesystem::path& cwd = {},
                          long fileSizeLimit = 0);
    ~RunningKesta();
    pid_t Pid() const { return mPid; }
    RunResult Finish();

private:
    pid_t mPid = -1;
    int mOut = -1, mErr = -1;
};

// A fresh directory, removed with everything in it at the end of the test.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::filesystem::path& Path() const { return mPath; }
    std::filesystem::path operator/(const std::string& name) const { return mPath / name; }
    std::vector<std::string> Names() const;  // every entry, hidden ones included, sorted

private:
    std::filesystem::path mPath;
};

std::string ReadBytes(const std::filesystem::path& path);
void WriteBytes(const std::filesystem::path& path, const std::string& bytes);

struct JsonValue {
    enum class Type { Null, Bool, Number, String, Array, Object } type = Type::Null;
    bool boolean = false;
    double number = 0.0;
    std::string string;
    std::vector<JsonValue> array;
    std::map<std::string, JsonValue> object;

    bool IsNull() const { return type == Type::Null; }
    const JsonValue& operator[](const std::string& key) const;  // throws if missing
    const JsonValue& operator[](std::size_t index) const;
};
// Throws std::runtime_error on anything that is not valid JSON (including bad UTF-8).
JsonValue ParseJson(const std::string& text);

class CliTest : public ::testing::Test {
protected:
    std::string P(const std::string& name) const { return (dir / name).string(); }

    static RunResult Ok(const std::vector<std::string>& args) {
        RunResult run = RunKesta(args);
        EXPECT_EQ(run.exitCode, 0) << run.err;
        return run;
    }
    // The --json report of a run that must succeed.
    static JsonValue Report(std::vector<std::string> args) {
        args.push_back("--json");
        return ParseJson(Ok(args).out);
    }

    // Exactly one line on stderr, "kesta: error: ..." containing each of `mentions`, exit status
    // `code`; nothing on stdout, or for a run given --json the same failure as
    // {"error": {"message", "exit_status"}}.
    static void ExpectOneErrorLine(const RunResult& run, int code, const std::vector<std::string>& mentions,
                                   bool json = false) {
        EXPECT_EQ(run.exitCode, code) << run.err;
        const std::vector<std::string> lines = run.ErrLines();
        ASSERT_EQ(lines.size(), 1u) << run.err;
        EXPECT_EQ(lines[0].rfind("kesta: error: ", 0), 0u) << lines[0];
        for (const std::string& mention : mentions)
            EXPECT_NE(lines[0].find(mention), std::string::npos) << lines[0];
        if (!json) {
            EXPECT_EQ(run.out, "");
            return;
        }
        const JsonValue report = ParseJson(run.out);
        EXPECT_EQ(report["error"]["exit_status"].number, code);
        EXPECT_EQ("kesta: error: " + report["error"]["message"].string, lines[0]);
    }

    struct BadCase {
        std::vector<std::string> args;
        int code;
        std::vector<std::string> mentions;
    };
    // `command in.wav out.wav --force ARGS` for each case (ARGS alone when `command` is empty):
    // refused in one line, with out.wav (an earlier output) untouched and no file created or left
    // behind.
    void ExpectRefusals(const std::string& command, const std::vector<BadCase>& cases) const {
        WriteBytes(dir / "out.wav", "keep me");
        const std::vector<std::string> names = dir.Names();
        for (const BadCase& bad : cases) {
            std::vector<std::string> args;
            if (!command.empty()) args = {command, P("in.wav"), P("out.wav"), "--force"};
            args.insert(args.end(), bad.args.begin(), bad.args.end());
            SCOPED_TRACE(testing::PrintToString(args));
            const bool json = std::find(args.begin(), args.end(), "--json") != args.end();
            ExpectOneErrorLine(RunKesta(args), bad.code, bad.mentions, json);
            EXPECT_EQ(ReadBytes(dir / "out.wav"), "keep me");
            EXPECT_EQ(dir.Names(), names);
        }
    }

    TempDir dir;
};

}  // namespace kesta_test
