#include "safe_output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <utility>

#include "errors.h"
#include "signal_cleanup.h"

namespace kesta {

namespace {

std::string DirectoryOf(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

std::string BaseNameOf(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

mode_t DefaultMode() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

// Refuses a target that must not be written; `exists` tells whether there is a file to replace.
void RefuseUnsuitableTarget(const std::string& target, const std::vector<SafeOutput::Input>& inputs, bool force,
                            mode_t& mode, bool& exists) {
    if (target.empty()) throw UsageError("no output file given", "", "name the file to write");
    const std::string what = "cannot write output " + Quoted(target);
    if (target.back() == '/') throw OutputError(what, "the name ends in '/'", "give a file name");

    struct stat link {};
    if (::lstat(target.c_str(), &link) != 0) {
        const int error = errno;
        if (error == ENOENT) return;  // a new file: its directory is checked when the temporary is made
        throw OutputError(what, SystemReason(error), "check the path");
    }

    struct stat file {};
    if (::stat(target.c_str(), &file) == 0) {  // not a dangling symbolic link
        for (const SafeOutput::Input& input : inputs) {
            if (FileIdentity::Of(file) != input.identity) continue;
            const std::string why = input.path == target ? "it is the input file"
                                                         : "it is the same file as the input " + Quoted(input.path);
            throw OutputError("refusing to write " + Quoted(target), why,
                              "choose another output name; kesta never writes onto its input, not even with --force");
        }
        if (S_ISDIR(file.st_mode))
            throw OutputError(what, "it is a directory", "give a file name, such as " + target + "/out.wav");
        if (!S_ISREG(file.st_mode))
            throw OutputError(what, "it is not a regular file (a device, pipe or socket)",
                              "choose a regular file name");
        mode = file.st_mode & 07777;
    }
    exists = true;
    if (!force)
        throw OutputError("output " + Quoted(target) + " already exists", "kesta replaces files only when asked",
                          "add --force to replace it, or choose another name");
}

[[noreturn]] void ThrowCreateFailure(const std::string& target, int error) {
    const std::string what = "cannot write output " + Quoted(target);
    const std::string directory = Quoted(DirectoryOf(target));
    switch (error) {
        case ENOENT:
            throw OutputError(what, "directory " + directory + " does not exist",
                              "create it first or choose another place");
        case ENOTDIR:
            throw OutputError(what, "a part of the path is not a directory", "check the path");
        case EACCES:
        case EPERM:
            throw OutputError(what, "no permission to create files in " + directory,
                              "choose a directory you can write to");
        case EROFS:
            throw OutputError(what, directory + " is on a read-only file system", "choose another place");
        case ENOSPC:
        case EDQUOT:
            throw OutputError(what, "no space left in " + directory, "free some space or choose another place");
        default:
            throw OutputError(what, SystemReason(error), "check the path");
    }
}

}  // namespace

// "-": the audio goes to standard output, which from here on belongs to it alone (the command's
// text goes to stderr instead). It is gathered in an unnamed temporary file first, since most
// containers go back to their header once the audio is written, and a failed run sends nothing.
int SafeOutput::OpenForStandardOutput(const std::vector<Input>& inputs) {
    const std::string what = "cannot write audio to standard output";
    if (::isatty(STDOUT_FILENO))
        throw OutputError(what, "it is a terminal", "redirect it to a file or a pipe, such as ... - > out.wav");
    struct stat out {};
    if (::fstat(STDOUT_FILENO, &out) != 0) throw OutputError(what, SystemReason(errno), "");
    for (const Input& input : inputs)
        if (FileIdentity::Of(out) == input.identity)
            throw OutputError("refusing to write standard output", "it is the input file " + Quoted(input.path),
                              "kesta never writes onto its input");
    std::string pattern = (std::filesystem::temp_directory_path() / "kesta-stdout-XXXXXX").string();
    const int fd = ::mkstemp(pattern.data());
    if (fd < 0) throw OutputError(what, "cannot make a temporary file: " + SystemReason(errno), "set TMPDIR");
    ::unlink(pattern.c_str());
    std::fflush(stdout);
    std::cout.flush();
    mStdout = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    return fd;
}

void SafeOutput::CopyToStandardOutput() {
    const std::string what = "cannot write audio to standard output";
    char buffer[1 << 16];
    for (off_t at = 0;;) {
        const ssize_t got = ::pread(mFd, buffer, sizeof(buffer), at);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) throw OutputError(what, "reading back the temporary file failed: " + SystemReason(errno), "");
        if (got == 0) break;
        at += got;
        for (ssize_t done = 0; done < got;) {
            const ssize_t wrote = ::write(mStdout, buffer + done, std::size_t(got - done));
            if (wrote < 0 && errno == EINTR) continue;
            if (wrote < 0) throw OutputError(what, SystemReason(errno), "check what reads kesta's output");
            done += wrote;
        }
    }
    mCommitted = true;
}

SafeOutput::SafeOutput(std::string target, const std::vector<Input>& inputs, bool force, bool sync)
    : mTarget(std::move(target)), mMode(DefaultMode()), mForce(force), mSync(sync) {
    if (mTarget == "-") {
        mFd = OpenForStandardOutput(inputs);
        return;
    }
    RefuseUnsuitableTarget(mTarget, inputs, force, mMode, mReplaces);

    // A hidden, unique name beside the target: <directory>/.<name>.kesta-XXXXXX
    const std::size_t slash = mTarget.find_last_of('/');
    const std::string prefix = slash == std::string::npos ? "" : mTarget.substr(0, slash + 1);
    std::string pattern = prefix + "." + BaseNameOf(mTarget).substr(0, 200) + ".kesta-XXXXXX";
    {
        SignalHold hold;
        mFd = ::mkstemp(pattern.data());
        if (mFd < 0) ThrowCreateFailure(mTarget, errno);
        mTemporary = pattern;
        mSignalSlot = AddSignalCleanup(mTemporary);
    }
}

SafeOutput::~SafeOutput() {
    Discard();
}

void SafeOutput::Discard() noexcept {
    SignalHold hold;
    if (mFd >= 0) ::close(mFd);
    mFd = -1;
    if (mStdout >= 0) ::close(mStdout);
    mStdout = -1;
    if (!mCommitted && !mTemporary.empty()) ::unlink(mTemporary.c_str());
    RemoveSignalCleanup(mSignalSlot);
    mSignalSlot = -1;
}

void SafeOutput::Commit() {
    if (mStdout >= 0) return CopyToStandardOutput();
    const std::string what = "cannot write output " + Quoted(mTarget);
    const auto syncData = [&](int fd) {
        if (::fsync(fd) != 0)
            throw OutputError(what, "saving to disk failed: " + SystemReason(errno),
                              "check the free space and the disk");
    };
    bool synced = Syncs();
    if (synced) syncData(mFd);
    if (::fchmod(mFd, mMode) != 0) throw OutputError(what, "cannot set its permissions: " + SystemReason(errno), "");
    const int fd = mFd;
    mFd = -1;
    if (::close(fd) != 0)
        throw OutputError(what, "closing failed: " + SystemReason(errno), "check the free space and the disk");
    {
        SignalHold hold;
        bool moved = false;
        if (!mReplaces) {
            // A new name: taken only while still free, so a file put there meanwhile is not lost.
            moved = ::renameat2(AT_FDCWD, mTemporary.c_str(), AT_FDCWD, mTarget.c_str(), RENAME_NOREPLACE) == 0;
            const int error = errno;
            struct stat there {};
            const bool appeared =
                !moved && (error == EEXIST || ((error == EINVAL || error == ENOSYS) &&
                                               ::lstat(mTarget.c_str(), &there) == 0));  // no such rename here
            if (!moved && !appeared && error != EINVAL && error != ENOSYS)
                throw OutputError(what, "cannot move the finished file into place: " + SystemReason(error),
                                  "check the directory's permissions");
            if (appeared && !mForce)
                throw OutputError("output " + Quoted(mTarget) + " already exists",
                                  "it appeared while kesta was writing",
                                  "add --force to replace it, or choose another name");
            if (appeared && !synced) {
                const int again = ::open(mTemporary.c_str(), O_RDONLY | O_CLOEXEC);
                if (again < 0) throw OutputError(what, "cannot reopen its temporary: " + SystemReason(errno), "");
                const int failed = ::fsync(again) != 0 ? errno : 0;
                ::close(again);
                if (failed != 0)
                    throw OutputError(what, "saving to disk failed: " + SystemReason(failed),
                                      "check the free space and the disk");
                synced = true;
            }
        }
        if (!moved && ::rename(mTemporary.c_str(), mTarget.c_str()) != 0)
            throw OutputError(what, "cannot move the finished file into place: " + SystemReason(errno),
                              "check the directory's permissions");
        mCommitted = true;
        RemoveSignalCleanup(mSignalSlot);
        mSignalSlot = -1;
    }
    if (!synced) return;
    // Make the rename itself durable; a file system that cannot sync directories is not an error.
    const int directory = ::open(DirectoryOf(mTarget).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory >= 0) {
        ::fsync(directory);
        ::close(directory);
    }
}

}  // namespace kesta
