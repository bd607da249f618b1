#pragma once
// Files to delete if a fatal signal (SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGXFSZ) ends kesta
// before they are finished. The handler only unlinks the registered paths and then lets the signal
// take its usual course, so the shell still sees the process killed by that signal. Signals that
// were ignored when kesta started (as under nohup) stay ignored.

#include <signal.h>

#include <string>

namespace kesta {

// Registers a path; returns the slot to release, or -1 when no cleanup could be arranged.
int AddSignalCleanup(const std::string& path);
void RemoveSignalCleanup(int slot);

// Holds the handled signals back while alive, so that creating a file and registering it (or
// renaming it and releasing it) cannot be split by a signal.
class SignalHold {
public:
    SignalHold();
    ~SignalHold();
    SignalHold(const SignalHold&) = delete;
    SignalHold& operator=(const SignalHold&) = delete;

private:
    sigset_t mPrevious;
};

}  // namespace kesta
