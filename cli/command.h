#pragma once
// A kesta command: its CLI11 sub-application (options and help) and what it does once the command
// line has been parsed. `run` returns the exit status and reports failures by throwing CliError.
//
// A new command that turns INPUT into OUTPUT through a processor needs (commands/limit.cpp is the
// whole of one, about 150 lines with its help text):
//   1. its options: a struct with INPUT, OUTPUT, its settings, OutputOptions (AddOutputOptions:
//      --force, --bits, --float), ReportOptions (AddReportOptions: --quiet, --json) and BatchOptions
//      (AddBatchOptions: several inputs, --out-dir, -j);
//   2. a check of its settings (UsageError with the range) and a factory that makes its Stage for
//      the input's channels and rate (latency and in-place processing of every channel; a
//      ResizingStage for another rate or length). The same factory is the Command's `stage`, which
//      makes it a chain step and lets batches run it;
//   3. a Processing for RunProcessing (ProcessingOf fills the paths and options): the factory,
//      advice for clipped samples, `describe` with its report fields and summary words, and `timed`
//      for a real-time factor. RunProcessing opens INPUT, refuses OUTPUT before any work, streams
//      (latency compensated), commits, warns and prints the text summary or the JSON object.
// Every report goes through one JobReport (pipeline/report.h): fields in the order of the JSON
// object, lines of the text summary, printed once with the warnings and timings.
// Commands that need more use the same pieces themselves (pipeline/job.h, pipeline/report.h):
//   - analysis passes before the stream (pipeline/analysis.h): commands/spectral_command.cpp;
//   - a list of what was found besides the audio, or no audio output: commands/declick.cpp;
//   - no input (a Generator and StreamGenerated): commands/generate.cpp;
//   - no audio output, a stream into analyzers (StreamToSink): commands/analyze.cpp;
//   - a response table or a saved preset: commands/equaliser_command.cpp.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "io/audio_block.h"
#include "io/audio_format.h"
#include "pipeline/console.h"
#include "pipeline/job.h"

namespace CLI {
class App;
}

namespace kesta {

class JobReport;

// Streams, from its start, the audio a step will hear (INPUT as the steps before it leave it,
// aligned with INPUT and of its length) into `sink`, block by block; each call streams it again.
using ReplayAudio = std::function<void(const std::function<void(const AudioBlock&)>& sink)>;

// What a step of a chain is made for: the input's path, format and length (nullopt for a stream),
// whether it is the first step (the only one that hears the input as it is), the console for its
// analysis passes, and the audio it will hear for a step that must analyse all of it first.
struct StageInput {
    const std::string& path;
    const AudioFormat& format;
    bool first;
    Console& console;
    std::optional<int64_t> frames = std::nullopt;
    ReplayAudio replay = nullptr;
};

struct Command {
    CLI::App* app = nullptr;
    std::function<int()> run;
    // The processor with the parsed settings, for chains and batches; empty for commands that do
    // not turn audio into audio.
    std::function<std::unique_ptr<Stage>(const StageInput&)> stage = nullptr;
};

// What RunProcessing hands the command's report once OUTPUT is written.
struct ProcessingDone {
    const Stage& stage;
    const AudioOutput& output;
    int64_t frames;  // read from INPUT
    int rate;        // INPUT's
    double processSeconds;
    double totalSeconds;
};

// A command that turns INPUT into OUTPUT through its stage.
struct Processing {
    std::string command;  // "gain": the progress label and the report's "command"
    std::string input, output;
    OutputOptions out;
    ReportOptions report;
    std::function<void()> check;  // the settings by themselves, before INPUT is opened (may be empty)
    std::function<std::unique_ptr<Stage>(const StageInput&)> stage;
    // How to avoid clipped samples, for the warning's parentheses.
    std::function<std::string(const AudioOutput&)> clippingAdvice;
    // Adds the command's fields (before "input" and "output") and returns the words after OUTPUT's
    // summary line (", gain +3.00 dB, peak -0.50 dBFS").
    std::function<std::string(JobReport&, const ProcessingDone&)> describe;
    // The summary line ends with the run's real-time factor, and the JSON object has it.
    bool timed = false;
};
// Runs the command; returns the exit status, throws CliError on failure.
int RunProcessing(const Processing& job);

// A Processing named `command` for the options' INPUT, OUTPUT, OutputOptions and ReportOptions.
template <typename Options>
Processing ProcessingOf(std::string command, const Options& options) {
    Processing job;
    job.command = std::move(command);
    job.input = options.input;
    job.output = options.output;
    job.out = options.out;
    job.report = options.report;
    return job;
}

Command AddSelfcheckCommand(CLI::App& kesta);
Command AddInfoCommand(CLI::App& kesta);
Command AddGainCommand(CLI::App& kesta);
Command AddDenoiseCommand(CLI::App& kesta);
Command AddDehissCommand(CLI::App& kesta);
Command AddEqCommand(CLI::App& kesta);
Command AddGeqCommand(CLI::App& kesta);
Command AddDeclickCommand(CLI::App& kesta);
Command AddDeclipCommand(CLI::App& kesta);
Command AddLimitCommand(CLI::App& kesta);
Command AddWidenCommand(CLI::App& kesta);
Command AddResampleCommand(CLI::App& kesta);
Command AddGenerateCommand(CLI::App& kesta);
Command AddChainCommand(CLI::App& kesta);
Command AddAnalyzeCommand(CLI::App& kesta);
Command AddNormalizeCommand(CLI::App& kesta);
Command AddDemoCommand(CLI::App& kesta);
Command AddSilenceCommand(CLI::App& kesta);
Command AddTrimSilenceCommand(CLI::App& kesta);
Command AddSpectrumCommand(CLI::App& kesta);

// A light stage multiplying every sample by the gain of `db` decibels, in single precision.
std::unique_ptr<Stage> MakeGainStage(double db);

// Whether `kesta chain` has a step of this name, and a step's processor made from its text
// ("declick:threshold=40") as the chain makes it.
bool IsChainStep(const std::string& name);
std::unique_ptr<Stage> MakeChainStage(const std::string& text, const StageInput& in);

// Built when cairo is found (KESTA_PICTURES).
Command AddSpectrogramCommand(CLI::App& kesta);
Command AddWaveformCommand(CLI::App& kesta);

}  // namespace kesta
