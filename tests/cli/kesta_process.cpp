#include <fcntl.h>
#include <grp.h>
#include <pty.h>
#include <pwd.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "cli_test.h"

namespace kesta_test {

namespace {

// A file in memory for what kesta prints: unlike a pipe, it never fills up and blocks kesta.
int AnonymousFile() {
    const int fd = ::memfd_create("kesta-output", 0);
    if (fd < 0) throw std::runtime_error("memfd_create failed");
    return fd;
}

// Everything in the file from its start, or what a terminal received until its other end closed.
std::string ReadAll(int fd) {
    std::string text;
    ::lseek(fd, 0, SEEK_SET);
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(fd, buffer, sizeof(buffer))) > 0 || (n < 0 && errno == EINTR))
        if (n > 0) text.append(buffer, std::size_t(n));
    ::close(fd);
    return text;
}

// The user kesta runs as when a test asks for an unprivileged one: nobody when the tests run as
// root (whom no permission stops), else the test's own user, already unprivileged.
struct User {
    uid_t uid;
    gid_t gid;
};
std::optional<User> Unprivileged(bool wanted) {
    if (!wanted || ::geteuid() != 0) return std::nullopt;
    const struct passwd* nobody = ::getpwnam("nobody");
    if (nobody == nullptr) throw std::runtime_error("no user 'nobody' to run kesta as");
    return User{nobody->pw_uid, nobody->pw_gid};
}

pid_t Spawn(const std::vector<std::string>& args, const std::filesystem::path& cwd, int out, int err,
            long fileSizeLimit, bool unprivileged = false) {
    const std::optional<User> user = Unprivileged(unprivileged);
    std::vector<std::string> argv = {KESTA_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> raw;
    for (std::string& arg : argv)
        raw.push_back(arg.data());
    raw.push_back(nullptr);

    const pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        if (user && (::setgroups(0, nullptr) != 0 || ::setgid(user->gid) != 0 || ::setuid(user->uid) != 0))
            ::_exit(125);
        if (!cwd.empty() && ::chdir(cwd.c_str()) != 0) ::_exit(126);
        if (fileSizeLimit > 0) {
            const struct rlimit limit = {rlim_t(fileSizeLimit), rlim_t(fileSizeLimit)};
            ::signal(SIGXFSZ, SIG_IGN);
            ::setrlimit(RLIMIT_FSIZE, &limit);
        }
        ::dup2(out, STDOUT_FILENO);
        ::dup2(err, STDERR_FILENO);
        const int null = ::open("/dev/null", O_RDONLY);
        ::dup2(null, STDIN_FILENO);
        ::execv(raw[0], raw.data());
        ::_exit(127);
    }
    return pid;
}

RunResult Wait(pid_t pid, int out, int err) {
    RunResult result;
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    result.out = ReadAll(out);
    result.err = ReadAll(err);
    return result;
}

}  // namespace

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

RunResult RunKesta(const std::vector<std::string>& args, const std::filesystem::path& cwd, long fileSizeLimit) {
    return RunningKesta(args, cwd, fileSizeLimit).Finish();
}

RunResult RunKestaUnprivileged(const std::vector<std::string>& args) {
    const int out = AnonymousFile(), err = AnonymousFile();
    return Wait(Spawn(args, {}, out, err, 0, true), out, err);
}

std::optional<RunResult> RunKestaOnTerminal(const std::vector<std::string>& args) {
    int master = -1, slave = -1;
    if (::openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) return std::nullopt;
    const int out = AnonymousFile(), unused = AnonymousFile();
    const pid_t pid = Spawn(args, {}, out, slave, 0);
    ::close(slave);
    const std::string terminal = ReadAll(master);
    RunResult result = Wait(pid, out, unused);
    result.err = terminal;
    return result;
}

RunningKesta::RunningKesta(const std::vector<std::string>& args, const std::filesystem::path& cwd, long fileSizeLimit)
    : mOut(AnonymousFile()), mErr(AnonymousFile()) {
    mPid = Spawn(args, cwd, mOut, mErr, fileSizeLimit);
}

RunningKesta::~RunningKesta() {
    if (mPid > 0) {
        ::kill(mPid, SIGKILL);
        Finish();
    }
}

RunResult RunningKesta::Finish() {
    RunResult result = Wait(mPid, mOut, mErr);
    mPid = -1;
    return result;
}

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kesta-cli-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    mPath = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

std::vector<std::string> TempDir::Names() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(mPath))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::string ReadBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

void WriteBytes(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary);
    out << bytes;
}

}  // namespace kesta_test
