// kesta: the command-line tool that runs the KestaDSP library on audio files.
// Parses the command line, runs the chosen command, and turns every failure into one error line
// on stderr and an exit status (see errors.h).

#include <sndfile.h>

#include <CLI/CLI.hpp>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "command.h"
#include "dsp/initializer.h"
#include "dsp/version.h"
#include "errors.h"
#include "io/block_writer.h"
#include "pipeline/batch.h"
#include "pipeline/command_line.h"
#include "pipeline/json_writer.h"

namespace kesta {

namespace {

constexpr const char* kDescription = "kesta runs the KestaDSP audio library on sound files, one command per job.";

constexpr const char* kFooter =
    R"help(Every command reads the formats of libsndfile (WAV, AIFF, FLAC, Ogg/Vorbis, MP3, ...) block by
block, so an hour-long file needs memory for a block, not for the file. Outputs keep the input's
format, sample rate and channel count. They are written to a temporary file beside the target and
moved into place only when complete: never onto the input, and never over an existing file
without --force.

Run 'kesta COMMAND --help' to learn what a command does, its options, and examples.

Exit status: 0 success; 1 internal fault or failed self-check; 2 wrong command line;
3 input problem (missing, unreadable, not audio); 4 output problem (exists, not writable, is the input).

Examples:
  kesta selfcheck                           check that the library computes correctly here
  kesta info take1.wav                      show format, length and levels of a file
  kesta gain take1.wav quiet.wav --db -6    write a copy 6 dB quieter
  kesta denoise take1.wav clean.wav --noise 0:1.5
                                            remove the noise heard alone in the first 1.5 s)help";

// Whether the person asked for a JSON report: then a failure is reported in JSON on stdout too.
bool WantsJson(int argc, char** argv) {
    for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i)
        if (std::strcmp(argv[i], "--json") == 0) return true;
    return false;
}

// The error line on stderr and, with --json, {"command", "error": {"message", "exit_status"}} on stdout.
int Fail(int argc, char** argv, const std::string& message, int code) {
    std::fprintf(stderr, "kesta: error: %s\n", message.c_str());
    if (WantsJson(argc, argv)) {
        std::cout.flush();
        JsonWriter json(std::cout);
        json.BeginObject();
        json.Key("command");
        if (argc > 1 && argv[1][0] != '-')
            json.String(argv[1]);
        else
            json.Null();
        json.Key("error").BeginObject();
        json.Key("message").String(message);
        json.Key("exit_status").Int(code);
        json.EndObject();
        json.EndObject();
    }
    return code;
}

std::string VersionText() {
    return std::string("kesta ") + KESTADSP_VERSION + "\n" + dsp::kLibraryName + " library " +
           dsp::GetLibraryVersion() + "\n" + sf_version_string();
}

// CLI11 starts its messages with a capital; in the middle of our line they read better without.
std::string LowerFirst(std::string text) {
    if (text.size() > 1 && std::isupper(static_cast<unsigned char>(text[0])) &&
        std::islower(static_cast<unsigned char>(text[1])))
        text[0] = char(std::tolower(static_cast<unsigned char>(text[0])));
    return text;
}

// The command the person named, to point usage errors at its help.
std::string HelpHint(const CLI::App& kesta) {
    for (const CLI::App* sub : kesta.get_subcommands())
        return "run 'kesta " + sub->get_name() + " --help' for its usage";
    return "run 'kesta --help' for usage";
}

int Run(int argc, char** argv) {
    CLI::App kesta(kDescription, "kesta");
    kesta.footer(kFooter);
    kesta.set_version_flag("--version", VersionText(), "Print the versions of kesta, its library and libsndfile");
    kesta.require_subcommand(0, 1);
    kesta.get_formatter()->column_width(32);
    kesta.get_formatter()->label("SUBCOMMAND", "COMMAND");

    std::vector<Command> commands = {
        AddSelfcheckCommand(kesta), AddInfoCommand(kesta),        AddGainCommand(kesta),     AddDenoiseCommand(kesta),
        AddDehissCommand(kesta),    AddEqCommand(kesta),          AddGeqCommand(kesta),      AddDeclickCommand(kesta),
        AddDeclipCommand(kesta),    AddLimitCommand(kesta),       AddWidenCommand(kesta),    AddResampleCommand(kesta),
        AddGenerateCommand(kesta),  AddChainCommand(kesta),       AddAnalyzeCommand(kesta),  AddNormalizeCommand(kesta),
        AddSilenceCommand(kesta),   AddTrimSilenceCommand(kesta), AddSpectrumCommand(kesta), AddDemoCommand(kesta)};
#ifdef KESTA_PICTURES
    commands.push_back(AddSpectrogramCommand(kesta));
    commands.push_back(AddWaveformCommand(kesta));
#endif
    for (const Command& command : commands)
        command.app->group("Commands");

    if (argc > 1 && argv[1][0] != '-') {
        std::vector<std::string> names;
        bool known = false;
        for (const Command& command : commands) {
            known = known || command.app->check_name(argv[1]);
            names.push_back(command.app->get_name());
        }
        if (!known) {
            const std::string nearest = NearestName(argv[1], names);
            throw UsageError(
                "unknown command " + Quoted(argv[1]) + (nearest.empty() ? "" : "; did you mean " + nearest + "?"), "",
                "run 'kesta --help' for the list of commands");
        }
    }
    RefuseUnknownOptions(kesta, argc, argv);

    std::vector<CLI::App*> fileCommands;
    for (const Command& command : commands)
        if (command.stage) fileCommands.push_back(command.app);
    if (std::optional<int> status = RunBatchIfAsked(argc, argv, fileCommands)) return *status;

    try {
        kesta.parse(argc, argv);
    } catch (const CLI::Success& done) {  // --help, --version: printed by CLI11
        return kesta.exit(done);
    } catch (const CLI::ParseError& error) {
        throw UsageError(LowerFirst(error.what()), "", HelpHint(kesta));
    }

    for (const Command& command : commands) {
        if (!command.app->parsed()) continue;
        try {
            return command.run();
        } catch (const NonFiniteSampleError& error) {
            throw error.ForCommand(command.app->get_name());
        }
    }

    std::fputs(kesta.help().c_str(), stdout);
    return kExitUsage;
}

}  // namespace

}  // namespace kesta

int main(int argc, char** argv) {
    try {
        return kesta::Run(argc, argv);
    } catch (const kesta::CliError& error) {
        return kesta::Fail(argc, argv, error.Message(), error.Code());
    } catch (const std::bad_alloc&) {
        return kesta::Fail(argc, argv, "out of memory (close other programs, or process a shorter file)",
                           kesta::kExitFault);
    } catch (const std::exception& error) {
        return kesta::Fail(argc, argv,
                           std::string("internal fault: ") + error.what() + " (please report it with the command line)",
                           kesta::kExitFault);
    } catch (...) {
        return kesta::Fail(argc, argv, "internal fault of unknown kind (please report it with the command line)",
                           kesta::kExitFault);
    }
}
