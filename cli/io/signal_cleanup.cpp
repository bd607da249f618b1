#include "signal_cleanup.h"

#include <limits.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

namespace kesta {

namespace {

constexpr int kHandledSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGXFSZ};
constexpr int kSlots = 8;

struct Slot {
    volatile sig_atomic_t armed = 0;
    char path[PATH_MAX] = {};
};

Slot gSlots[kSlots];

extern "C" void RemoveRegisteredFiles(int signal) {
    for (Slot& slot : gSlots)
        if (slot.armed) ::unlink(slot.path);
    // SA_RESETHAND restored the default action; the signal is delivered again on return.
    ::raise(signal);
}

sigset_t HandledSet() {
    sigset_t set;
    sigemptyset(&set);
    for (int signal : kHandledSignals)
        sigaddset(&set, signal);
    return set;
}

void InstallHandlersOnce() {
    static std::once_flag installed;
    std::call_once(installed, [] {
        for (int signal : kHandledSignals) {
            struct sigaction current {};
            if (::sigaction(signal, nullptr, &current) == 0 && current.sa_handler == SIG_IGN) continue;
            struct sigaction action {};
            action.sa_handler = RemoveRegisteredFiles;
            action.sa_mask = HandledSet();
            action.sa_flags = SA_RESETHAND;
            ::sigaction(signal, &action, nullptr);
        }
    });
}

}  // namespace

int AddSignalCleanup(const std::string& path) {
    if (path.size() >= PATH_MAX) return -1;
    InstallHandlersOnce();
    SignalHold hold;
    for (int i = 0; i < kSlots; ++i) {
        if (gSlots[i].armed) continue;
        std::memcpy(gSlots[i].path, path.c_str(), path.size() + 1);
        gSlots[i].armed = 1;
        return i;
    }
    return -1;
}

void RemoveSignalCleanup(int slot) {
    if (slot >= 0 && slot < kSlots) gSlots[slot].armed = 0;
}

SignalHold::SignalHold() {
    const sigset_t set = HandledSet();
    ::sigprocmask(SIG_BLOCK, &set, &mPrevious);
}

SignalHold::~SignalHold() {
    ::sigprocmask(SIG_SETMASK, &mPrevious, nullptr);
}

}  // namespace kesta
