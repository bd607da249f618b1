// kesta chain INPUT OUTPUT STEP [STEP ...]: several processors in one pass, each STEP a command
// with its options ("eq:band=3000:1:-3,highpass=80").

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>

#include "command.h"
#include "errors.h"
#include "io/block_reader.h"
#include "pipeline/console.h"
#include "pipeline/job.h"
#include "pipeline/json_writer.h"
#include "pipeline/progress.h"
#include "pipeline/report.h"
#include "pipeline/units.h"

namespace kesta {

namespace {

constexpr const char* kHelpFooter =
    R"help(Runs several processors one after another in a single pass over INPUT: the same samples as
running the commands one by one through intermediate files (up to float rounding, since nothing
is rounded to the file's encoding in between), without the intermediate files.

Each STEP is a command name, a colon and its options as NAME=VALUE pairs separated by commas,
the names of the command's own options without the dashes; a flag is its name alone:

  denoise:noise=0:1.5,reduction=30      gain:db=-1
  eq:band=3000:1:-3,highpass=80         geq:preset=warm.kgq
  dehiss:noise-file=hiss.wav            denoise:print=room.knp,residual

A value may hold colons and commas (geq:gains=0,0,3,3,0,0,0,0,-2,-4); a comma starts a new
option only where a name and '=' follow. Steps: gain, eq, geq, denoise, dehiss, widen,
resample, declick, declip and limit. Each step checks its settings as its command does. The
processing delays of all steps are compensated together: OUTPUT has INPUT's length and is aligned
with it sample for sample (after a resample step, the steps that follow work at its rate, and
OUTPUT has that rate and INPUT's duration).

A denoise or dehiss step takes its print from a stretch of INPUT (noise=) only as the first
step, since later steps hear the audio as the steps before them left it; elsewhere give it
noise-file= or print=. A declick step finds and repairs clicks in the one pass. A declip step
needs the levels of all it will hear first: INPUT is read twice more, through the steps before
it, before the pass. Steps do not save prints or presets or write reports.

Exit status: 0 done; 2 wrong command line; 3 input problem; 4 output problem.

Examples:
  kesta chain take1.wav clean.wav denoise:noise=0:1.5,reduction=30 eq:highpass=80 gain:db=-1
  kesta chain mix.flac out.flac geq:gains=0,0,3,3,0,0,0,0,-2,-4 gain:db=-3 --float
  kesta chain live.wav fixed.wav declick declip:gain=-6 limit:gain=4)help";

using AddCommand = Command (*)(CLI::App&);

struct StepKind {
    const char* name;
    AddCommand add;
};
constexpr StepKind kSteps[] = {{"gain", AddGainCommand},         {"eq", AddEqCommand},
                               {"geq", AddGeqCommand},           {"denoise", AddDenoiseCommand},
                               {"dehiss", AddDehissCommand},     {"widen", AddWidenCommand},
                               {"resample", AddResampleCommand}, {"declick", AddDeclickCommand},
                               {"declip", AddDeclipCommand},     {"limit", AddLimitCommand}};

struct ChainOptions {
    std::string input;
    std::string output;
    std::vector<std::string> steps;
    OutputOptions out;
    ReportOptions report;
};

// "eq:band=3000:1:-3,highpass=80" as the option words of the command: --band 3000:1:-3 --highpass 80.
std::vector<std::string> StepArguments(const std::string& step, const std::string& settings) {
    std::vector<std::string> words;
    std::size_t at = 0;
    while (at < settings.size()) {
        // The setting runs to the next comma that a name and '=' (or the end, or another comma) follow.
        std::size_t end = at;
        while (true) {
            end = settings.find(',', end + 1);
            if (end == std::string::npos) break;
            std::size_t name = end + 1;
            while (name < settings.size() &&
                   (std::isalpha(static_cast<unsigned char>(settings[name])) || settings[name] == '-'))
                ++name;
            if (name > end + 1 && std::isalpha(static_cast<unsigned char>(settings[end + 1])) &&
                (name == settings.size() || settings[name] == '=' || settings[name] == ','))
                break;
        }
        const std::string setting = settings.substr(at, end == std::string::npos ? std::string::npos : end - at);
        const std::size_t equals = setting.find('=');
        const std::string name = setting.substr(0, equals);
        if (name.empty() || name[0] == '-')
            throw UsageError("chain step " + Quoted(step) + " has a setting without a name", "",
                             "write the settings as NAME=VALUE separated by commas, such as gain:db=-1");
        words.push_back("--" + name);
        if (equals != std::string::npos) words.push_back(setting.substr(equals + 1));
        if (end == std::string::npos) break;
        at = end + 1;
    }
    return words;
}

// A step's processor: its command's options parsed from the step, checked, and made for INPUT.
struct ParsedStep {
    std::unique_ptr<CLI::App> parent;
    Command command;
    std::string text;
};

ParsedStep ParseStep(const std::string& text, const ChainOptions& options) {
    const std::size_t colon = text.find(':');
    const std::string name = text.substr(0, colon);
    ParsedStep step;
    step.text = text;
    step.parent = std::make_unique<CLI::App>("", "kesta");
    for (const StepKind& kind : kSteps)
        if (name == kind.name) step.command = kind.add(*step.parent);
    if (!step.command.app)
        throw UsageError("unknown chain step " + Quoted(text), "",
                         "a step starts with gain:, eq:, geq:, denoise:, dehiss:, widen:, resample:, declick:, "
                         "declip: or limit:");
    std::vector<std::string> args = {options.input, options.output};
    if (colon != std::string::npos) {
        const std::vector<std::string> words = StepArguments(text, text.substr(colon + 1));
        args.insert(args.begin(), words.begin(), words.end());
    }
    args.insert(args.begin(), name);
    std::reverse(args.begin(), args.end());  // CLI11 takes the words last first
    try {
        step.parent->parse(args);
    } catch (const CLI::ParseError& error) {
        throw UsageError("chain step " + Quoted(text) + ": " + error.what(), "",
                         "run 'kesta " + name + " --help' for its settings, written without the dashes");
    }
    return step;
}

int RunChain(const ChainOptions& options) {
    const Stopwatch clock;
    Console console(options.report);
    if (options.steps.empty())
        throw UsageError("no chain steps given", "", "add steps after OUTPUT, such as gain:db=-1");
    std::vector<ParsedStep> steps;
    for (const std::string& text : options.steps)
        steps.push_back(ParseStep(text, options));

    BlockReader reader(options.input);
    const AudioFormat format = reader.Format();

    // The first `count` steps, each made for the audio the steps before it leave (a resample step
    // changes the rate and the length). A step that analyses all it will hear first replays INPUT
    // through steps made afresh before it (the same settings make the same samples).
    std::function<ReplayAudio(std::size_t)> replayFor;
    auto makeStages = [&](std::size_t count) {
        std::vector<std::unique_ptr<Stage>> made;
        AudioFormat heard = format;
        std::optional<int64_t> frames = reader.HeaderFrames();
        for (std::size_t i = 0; i < count; ++i) {
            const StageInput in{options.input, heard,  i == 0,
                                console,       frames, reader.Seekable() ? replayFor(i) : nullptr};
            made.push_back(steps[i].command.stage(in));
            if (const auto* resizing = dynamic_cast<const ResizingStage*>(made.back().get())) {
                heard.sampleRate = resizing->OutputRate(heard.sampleRate);
                if (frames) frames = resizing->OutputFrames(*frames);
            }
        }
        return made;
    };
    replayFor = [&](std::size_t step) -> ReplayAudio {
        return [&, step](const std::function<void(const AudioBlock&)>& sink) {
            BlockReader again(options.input);
            const std::vector<std::unique_ptr<Stage>> before = makeStages(step);
            std::vector<Stage*> order;
            for (const auto& stage : before)
                order.push_back(stage.get());
            Progress unseen("", again.HeaderFrames(), format.sampleRate, false);
            StreamToSink(again, order, unseen, [&sink](const AudioBlock& block, int64_t) { sink(block); });
        };
    };
    const std::vector<std::unique_ptr<Stage>> stages = makeStages(steps.size());
    std::vector<Stage*> order;
    for (const auto& stage : stages)
        order.push_back(stage.get());
    AudioOutput output(options.output, reader, {{options.input, reader.Identity()}}, options.out, order);

    LevelMeter inputLevels(format.channels);
    StreamWatchers watchers;
    watchers.input = [&](const AudioBlock& block, int64_t) { inputLevels.Add(block); };
    const Stopwatch processClock;
    {
        Progress progress("chain", reader.HeaderFrames(), format.sampleRate, console.ShowsProgress());
        StreamStages(reader, output, order, progress, watchers);
    }
    const double processSeconds = processClock.Seconds();
    output.Commit();
    WarnAfterStream(console, reader, output, "lower the level with a gain step at the end, or add --float");

    const int64_t frames = reader.FramesRead();
    const std::vector<double> levelChange = LevelChanges(inputLevels.Levels(), output.Levels());
    int64_t latency = 0;
    for (const Stage* stage : order)
        latency += stage->Latency();
    JobReport report(console, "chain");
    report.Json().Key("steps").BeginArray();
    for (const std::string& text : options.steps)
        report.Json().String(text);
    report.Json().EndArray();
    report.Input(options.input, format, frames).Field("latency_frames", latency);
    report.Output(output, [&](JsonWriter& json) {
        json.Key("level_change_db").BeginArray();
        for (double change : levelChange)
            json.Number(change);
        json.EndArray();
    });
    WriteTimings(report.Json(), frames, format.sampleRate, processSeconds, clock.Seconds());
    report.Line(output.Summary() + ", " + std::to_string(steps.size()) + " step(s)");
    report.Line("Level change: " + DescribeChange(levelChange) + ", peak " + FormatDb(LinearToDb(output.Peak())) +
                " dBFS " + RealTimeText(frames, format.sampleRate, processSeconds));
    return report.Print(clock.Seconds());
}

}  // namespace

bool IsChainStep(const std::string& name) {
    for (const StepKind& kind : kSteps)
        if (name == kind.name) return true;
    return false;
}

std::unique_ptr<Stage> MakeChainStage(const std::string& text, const StageInput& in) {
    // The stage keeps the parsed command (whose settings it may read) alive with it.
    class Owning : public Stage {
    public:
        Owning(ParsedStep step, const StageInput& in) : mStep(std::move(step)), mStage(mStep.command.stage(in)) {}
        int64_t Latency() const override { return mStage->Latency(); }
        void Process(float** channels, int channelCount, int frames) override {
            mStage->Process(channels, channelCount, frames);
        }
        // A step that looks ahead (the line canceller) must hear where the input ends, or it
        // takes the flushing silence for programme and the last seconds differ from the command's.
        void EndOfInput() override { mStage->EndOfInput(); }
        bool Light() const override { return mStage->Light(); }

    private:
        ParsedStep mStep;
        std::unique_ptr<Stage> mStage;
    };
    ChainOptions options;
    options.input = in.path;
    options.output = "-";
    return std::make_unique<Owning>(ParseStep(text, options), in);
}

Command AddChainCommand(CLI::App& kesta) {
    auto options = std::make_shared<ChainOptions>();
    CLI::App* app = kesta.add_subcommand("chain", "Run several processors one after another in one pass");
    app->footer(kHelpFooter);
    app->add_option("INPUT", options->input, "The audio file to read")->required()->type_name("");
    app->add_option("OUTPUT", options->output, "The file to write (not INPUT)")->required()->type_name("");
    app->add_option("STEP", options->steps, "A processor and its settings, such as eq:highpass=80 (in order)")
        ->required()
        ->type_name("");
    AddOutputOptions(*app, options->out);
    AddReportOptions(*app, options->report);
    return {app, [options] { return RunChain(*options); }, nullptr};
}

}  // namespace kesta
