#pragma once
// Which file a path names, as the file system sees it (device and inode). Two paths name the same
// file exactly when their identities are equal, whatever their spelling: `./x.wav` and `x.wav`, a
// hard link, a symbolic link, a path through a linked directory.

#include <sys/stat.h>

#include <optional>
#include <string>

namespace kesta {

struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;

    friend bool operator==(const FileIdentity&, const FileIdentity&) = default;

    static FileIdentity Of(const struct stat& info) { return {info.st_dev, info.st_ino}; }
};

// The identity of the file a path leads to (symbolic links followed); nullopt when there is none.
inline std::optional<FileIdentity> IdentityOfPath(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return std::nullopt;
    return FileIdentity::Of(info);
}

}  // namespace kesta
