#pragma once
// What every command shares about talking to the person: the --quiet and --json options, warnings
// on stderr, and whether a progress bar may be drawn.
//
//   stdout: the command's result, as text, or as one JSON document with --json.
//   stderr: progress (only on a terminal), warnings ("kesta: warning: ..."), and errors.
//   --quiet: nothing but errors (a requested JSON report is still printed).

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace kesta {

struct ReportOptions {
    bool quiet = false;
    bool json = false;
};

// Adds --quiet/-q and --json to a command.
void AddReportOptions(CLI::App& command, ReportOptions& options);
// Adds --force/-f (replace an existing output) to a command that writes files.
void AddForceOption(CLI::App& command, bool& force);

class Console {
public:
    explicit Console(const ReportOptions& options) : mOptions(options) {}

    bool Json() const { return mOptions.json; }
    // Whether the result goes to stdout as text.
    bool ShowsText() const { return !mOptions.quiet && !mOptions.json; }
    bool ShowsProgress() const;

    // Prints "kesta: warning: <message>" on stderr (unless --quiet) and keeps it for the JSON report.
    void Warn(const std::string& message);
    const std::vector<std::string>& Warnings() const { return mWarnings; }

private:
    ReportOptions mOptions;
    std::vector<std::string> mWarnings;
};

}  // namespace kesta
