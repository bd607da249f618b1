#pragma once
// An output file that appears whole or not at all. The data goes to a temporary file beside the
// target (same directory, so same file system), which is renamed over the target when complete.
// On failure, an exception or a fatal signal (Ctrl-C, kill, hang-up) the temporary is removed and
// any existing file at the target is left as it was.
//
// When the rename replaces a file, the new data is synced to disk first and the directory after,
// so a system crash at any moment leaves the old file or the new one, whole. A new name replaces
// nothing: its data is left to the system's own writeback (a crash within the next half minute or
// so may leave the new file incomplete, never anyone's earlier file lost) unless `sync` asks for
// the same sync as a replacement. A file that appears at a new name while the output is written is
// not replaced without `force`.
//
// Before anything is written it refuses:
//   - a target that is one of the inputs, however spelt (device and inode are compared, so hard
//     links, symbolic links and `./x.wav` for `x.wav` are caught), even with --force;
//   - a target that already exists, unless `force`;
//   - a target that is a directory, or in a directory that is missing or not writable.
//
// The target "-" is standard output: the file is written whole to it on Commit (and not at all on
// failure); a terminal, or an output that is one of the inputs, is refused.

#include <sys/types.h>

#include <string>
#include <vector>

#include "file_identity.h"

namespace kesta {

class SafeOutput {
public:
    struct Input {
        std::string path;  // for messages
        FileIdentity identity;
    };

    // Checks the target and creates the temporary file; throws an output error when refused.
    SafeOutput(std::string target, const std::vector<Input>& inputs, bool force, bool sync = false);
    ~SafeOutput();  // removes the temporary unless Commit() succeeded
    SafeOutput(const SafeOutput&) = delete;
    SafeOutput& operator=(const SafeOutput&) = delete;

    // The temporary file's descriptor, for a writer to fill.
    int Descriptor() const { return mFd; }
    const std::string& Target() const { return mTarget; }
    const std::string& TemporaryPath() const { return mTemporary; }
    // Whether Commit saves the data to disk (it replaces a file, or `sync` was asked).
    bool Syncs() const { return mReplaces || mSync; }

    // Gives the temporary the target's permissions and renames it over the target, synced to disk
    // first when it replaces a file or `sync` was asked.
    void Commit();

private:
    void Discard() noexcept;
    int OpenForStandardOutput(const std::vector<Input>& inputs);
    void CopyToStandardOutput();

    std::string mTarget;
    std::string mTemporary;
    int mFd = -1;
    int mStdout = -1;  // with "-": the real standard output
    int mSignalSlot = -1;
    mode_t mMode = 0;
    bool mForce = false;
    bool mSync = false;
    bool mReplaces = false;  // the target existed when the output was begun
    bool mCommitted = false;
};

}  // namespace kesta
