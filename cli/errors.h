#pragma once
// How kesta reports a failure: a single line on stderr,
//     kesta: error: <what>: <why> (<what to do>)
// and an exit status that tells a script which kind of problem it was.

#include <cctype>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

namespace kesta {

enum ExitCode : int {
    kExitOk = 0,
    kExitFault = 1,   // a fault inside kesta or the library, or a failed self-check
    kExitUsage = 2,   // the command line is wrong
    kExitInput = 3,   // an input is missing, unreadable, or not audio kesta can decode
    kExitOutput = 4,  // the output cannot be written where or how it was asked
};

class CliError : public std::runtime_error {
public:
    CliError(ExitCode code, const std::string& what, const std::string& why, const std::string& hint)
        : std::runtime_error(Compose(what, why, hint)), mCode(code) {}

    ExitCode Code() const { return mCode; }
    // The whole message line, without the "kesta: error: " prefix.
    std::string Message() const { return std::runtime_error::what(); }

private:
    static std::string Compose(const std::string& what, const std::string& why, const std::string& hint) {
        std::string line = what;
        if (!why.empty()) line += ": " + why;
        if (!hint.empty()) line += " (" + hint + ")";
        return line;
    }

    ExitCode mCode;
};

inline CliError UsageError(const std::string& what, const std::string& why, const std::string& hint) {
    return CliError(kExitUsage, what, why, hint);
}
inline CliError InputError(const std::string& what, const std::string& why, const std::string& hint) {
    return CliError(kExitInput, what, why, hint);
}
inline CliError OutputError(const std::string& what, const std::string& why, const std::string& hint) {
    return CliError(kExitOutput, what, why, hint);
}

// A path as it appears in messages: 'path'.
inline std::string Quoted(const std::string& path) {
    return "'" + path + "'";
}

// The system's words for an errno value, shaped for the middle of a line: "no such file or directory".
inline std::string SystemReason(int error) {
    std::string text = std::strerror(error);
    if (!text.empty()) text[0] = char(std::tolower(static_cast<unsigned char>(text[0])));
    return text;
}

}  // namespace kesta
