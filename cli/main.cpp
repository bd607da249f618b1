// kesta: the command-line tool that runs the KestaDSP library on audio files.
// Parses the command line, runs the chosen command, and turns every failure into one error line
// on stderr and an exit status (see errors.h).

#include <sndfile.h>

#include <CLI/CLI.hpp>
#include <cctype>
#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "command.h"
#include "dsp/initializer.h"
#include "dsp/version.h"
#include "errors.h"
#include "io/block_writer.h"

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

void PrintError(const std::string& message) {
    std::fprintf(stderr, "kesta: error: %s\n", message.c_str());
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

    const std::vector<Command> commands = {AddSelfcheckCommand(kesta), AddInfoCommand(kesta),   AddGainCommand(kesta),
                                           AddDenoiseCommand(kesta),   AddDehissCommand(kesta), AddEqCommand(kesta),
                                           AddGeqCommand(kesta),       AddDeclickCommand(kesta)};
    for (const Command& command : commands)
        command.app->group("Commands");

    if (argc > 1 && argv[1][0] != '-') {
        bool known = false;
        for (const Command& command : commands)
            known = known || command.app->check_name(argv[1]);
        if (!known)
            throw UsageError("unknown command " + Quoted(argv[1]), "", "run 'kesta --help' for the list of commands");
    }

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
        kesta::PrintError(error.Message());
        return error.Code();
    } catch (const std::bad_alloc&) {
        kesta::PrintError("out of memory (close other programs, or process a shorter file)");
        return kesta::kExitFault;
    } catch (const std::exception& error) {
        kesta::PrintError(std::string("internal fault: ") + error.what() + " (please report it with the command line)");
        return kesta::kExitFault;
    } catch (...) {
        kesta::PrintError("internal fault of unknown kind (please report it with the command line)");
        return kesta::kExitFault;
    }
}
