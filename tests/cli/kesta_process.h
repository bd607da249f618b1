#pragma once
// Runs the built kesta binary the way a person or a script would, and captures what it says.

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace kesta_test {

struct RunResult {
    int exitCode = -1;  // -1 when killed by a signal
    int signal = 0;     // the signal that ended it, if any
    std::string out;
    std::string err;

    std::vector<std::string> ErrLines() const;
};

// Runs `kesta args...` in `cwd` (the test's own directory when empty) and waits for it. A
// non-zero `fileSizeLimit` caps the size of any file it writes (RLIMIT_FSIZE, with SIGXFSZ
// ignored, so writing past it fails as a full disk would).
RunResult RunKesta(const std::vector<std::string>& args, const std::filesystem::path& cwd = {},
                   long fileSizeLimit = 0);

// Like RunKesta, with stderr on a pseudo-terminal (as when a person runs it); `err` is what the
// terminal received. nullopt where no pseudo-terminal can be had.
std::optional<RunResult> RunKestaOnTerminal(const std::vector<std::string>& args);

// Starts kesta without waiting; Finish() waits for it and collects its output.
class RunningKesta {
public:
    explicit RunningKesta(const std::vector<std::string>& args);
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
    // Every entry's name, hidden ones included, sorted.
    std::vector<std::string> Names() const;

private:
    std::filesystem::path mPath;
};

std::string ReadBytes(const std::filesystem::path& path);
void WriteBytes(const std::filesystem::path& path, const std::string& bytes);

}  // namespace kesta_test
