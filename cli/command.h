#pragma once
// A kesta command: its CLI11 sub-application (options and help) and what it does once the command
// line has been parsed. `run` returns the exit status and reports failures by throwing CliError.
//
// A command that turns INPUT into OUTPUT runs the job flow of pipeline/job.h (commands/gain.cpp
// is the smallest whole example):
//   1. its options: a struct with INPUT, OUTPUT, its settings, OutputOptions (AddOutputOptions:
//      --force, --bits, --float) and ReportOptions (AddReportOptions: --quiet, --json);
//   2. a check of the settings (UsageError with the range) and a factory that makes its Stage
//      (latency and in-place processing of every channel) for the input's channels and rate;
//   3. the run: BlockReader, AudioOutput (refusals before any work), StreamStages (latency
//      compensated), Commit, WarnAfterStream, then the summary (AudioOutput::Summary plus its
//      settings) or its JSON object (AudioOutput::WriteFields plus its settings).
// Commands with analysis passes before the stream follow commands/spectral_command.cpp; those
// with a response table or a saved preset commands/equaliser_command.cpp.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "io/audio_block.h"
#include "io/audio_format.h"

namespace CLI {
class App;
}

namespace kesta {

class Console;
class Stage;

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

// Whether `kesta chain` has a step of this name, and a step's processor made from its text
// ("declick:threshold=40") as the chain makes it.
bool IsChainStep(const std::string& name);
std::unique_ptr<Stage> MakeChainStage(const std::string& text, const StageInput& in);

// Built when cairo is found (KESTA_PICTURES).
Command AddSpectrogramCommand(CLI::App& kesta);
Command AddWaveformCommand(CLI::App& kesta);

}  // namespace kesta
