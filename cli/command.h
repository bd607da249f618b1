#pragma once
// A kesta command: its CLI11 sub-application (options and help) and what it does once the command
// line has been parsed. `run` returns the exit status and reports failures by throwing CliError.
//
// A command that turns INPUT into OUTPUT follows commands/gain.cpp:
//   BlockReader reader(input);                                   // input errors, exit 3
//   AudioFormat format = ChooseOutputFormat(reader.Format(), output);
//   SafeOutput out(output, {{input, reader.Identity()}}, force); // refusals, exit 4
//   BlockWriter writer(out.Descriptor(), output, format);
//   ... read, process, writer.Write(block), progress.Advance(frames) ...
//   writer.Finish(); out.Commit();                               // only now does OUTPUT change
// and reports through Console (warnings, --quiet, --json) and report.h (formats, levels).

#include <functional>

namespace CLI {
class App;
}

namespace kesta {

struct Command {
    CLI::App* app = nullptr;
    std::function<int()> run;
};

Command AddSelfcheckCommand(CLI::App& kesta);
Command AddInfoCommand(CLI::App& kesta);
Command AddGainCommand(CLI::App& kesta);
Command AddDenoiseCommand(CLI::App& kesta);
Command AddDehissCommand(CLI::App& kesta);
Command AddEqCommand(CLI::App& kesta);
Command AddGeqCommand(CLI::App& kesta);

}  // namespace kesta
