// kesta selfcheck: runs the library's built-in numeric checks and reports each one.

#include <CLI/CLI.hpp>
#include <chrono>
#include <iostream>
#include <memory>

#include "command.h"
#include "dsp/check_registry.h"
#include "dsp/initializer.h"
#include "errors.h"
#include "pipeline/console.h"
#include "pipeline/json_writer.h"
#include "pipeline/text_table.h"
#include "pipeline/units.h"

namespace kesta {

namespace {

constexpr const char* kHelpFooter =
    R"help(Each check computes something with the library (a transform, a window, a filter response, ...)
and compares it with an independent expectation, such as the formula evaluated directly in
higher precision. A failing check means this build of the library gives wrong results on this
machine: please report it with the output of 'kesta selfcheck' and 'kesta --version'.

The report is a table (family, check, result, time, detail) followed by a line
"N passed, M failed".

Exit status: 0 when every check passes; 1 when any check fails or no checks are found.

Examples:
  kesta selfcheck
  kesta selfcheck --json > checks.json)help";

void PrintJson(const std::vector<dsp::checks::CheckResult>& results, int passed, double seconds) {
    JsonWriter json(std::cout);
    json.BeginObject();
    json.Key("command").String("selfcheck");
    json.Key("suite").String(dsp::kLibraryName);
    json.Key("passed").Int(passed);
    json.Key("failed").Int(int64_t(results.size()) - passed);
    json.Key("seconds").Number(seconds);
    json.Key("checks").BeginArray();
    for (const auto& result : results) {
        json.BeginObject();
        json.Key("family").String(result.family);
        json.Key("check").String(result.name);
        json.Key("passed").Bool(result.outcome.passed);
        json.Key("detail").String(result.outcome.detail);
        json.Key("seconds").Number(result.seconds);
        json.EndObject();
    }
    json.EndArray();
    json.EndObject();
}

void PrintTable(const std::vector<dsp::checks::CheckResult>& results, int passed) {
    TextTable table;
    table.AddColumn("Family");
    table.AddColumn("Check");
    table.AddColumn("Result");
    table.AddColumn("Time", TextTable::Align::Right);
    table.AddColumn("Detail");  // last: it is the long one
    for (const auto& result : results)
        table.AddRow({result.family, result.name, result.outcome.passed ? "PASS" : "FAIL",
                      FormatElapsed(result.seconds), result.outcome.detail});
    table.Print(std::cout);
    std::cout << passed << " passed, " << results.size() - std::size_t(passed) << " failed" << std::endl;
}

int RunSelfcheck(const ReportOptions& options) {
    Console console(options);
    dsp::Initializer initializer;
    initializer.Initialize();
    const std::unique_ptr<dsp::checks::CheckSuite> suite =
        dsp::checks::TestRegistry::Create(dsp::checks::AsciiToUTF16(dsp::kLibraryName));
    const std::string name = Quoted(dsp::kLibraryName);
    if (suite == nullptr)
        throw CliError(kExitFault, "no self-check suite named " + name, "the library did not register its checks",
                       "the library kesta loaded may be from another build; reinstall both");
    if (suite->Size() == 0)
        throw CliError(kExitFault, "the self-check suite " + name + " is empty", "the library registered no checks",
                       "the library kesta loaded may be from another build; reinstall both");

    const auto start = std::chrono::steady_clock::now();
    const std::vector<dsp::checks::CheckResult> results = suite->Run();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    int passed = 0;
    for (const auto& result : results)
        passed += result.outcome.passed ? 1 : 0;
    const int failed = int(results.size()) - passed;

    if (console.Json())
        PrintJson(results, passed, seconds);
    else if (console.ShowsText())
        PrintTable(results, passed);
    else if (failed > 0)
        throw CliError(kExitFault,
                       std::to_string(failed) + " of " + std::to_string(results.size()) + " self-checks failed", "",
                       "run 'kesta selfcheck' to see which, and please report it");
    return failed == 0 ? kExitOk : kExitFault;
}

}  // namespace

Command AddSelfcheckCommand(CLI::App& kesta) {
    auto options = std::make_shared<ReportOptions>();
    CLI::App* app = kesta.add_subcommand("selfcheck", "Run the library's built-in numeric checks and report each one");
    app->footer(kHelpFooter);
    AddReportOptions(*app, *options);
    return {app, [options] { return RunSelfcheck(*options); }, nullptr};
}

}  // namespace kesta
