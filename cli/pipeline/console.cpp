#include "console.h"

#include <CLI/CLI.hpp>
#include <cstdio>

#include "progress.h"

namespace kesta {

void AddReportOptions(CLI::App& command, ReportOptions& options) {
    command.add_flag("-q,--quiet", options.quiet, "Print nothing but errors (no progress, warnings or summary)");
    command.add_flag("--json", options.json, "Print a JSON report on stdout instead of text");
}

void AddForceOption(CLI::App& command, bool& force) {
    command.add_flag("-f,--force", force, "Replace OUTPUT if it exists (never the input: that is refused)");
}

bool Console::ShowsProgress() const {
    return !mOptions.quiet && Progress::StderrIsTerminal();
}

void Console::Warn(const std::string& message) {
    mWarnings.push_back(message);
    if (!mOptions.quiet) std::fprintf(stderr, "kesta: warning: %s\n", message.c_str());
}

}  // namespace kesta
