#include "equaliser_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <optional>

#include "errors.h"
#include "io/block_reader.h"
#include "io/block_writer.h"
#include "io/file_identity.h"
#include "io/safe_output.h"
#include "pipeline/command_line.h"
#include "pipeline/command_support.h"
#include "pipeline/job.h"
#include "pipeline/json_writer.h"
#include "pipeline/level_meter.h"
#include "pipeline/progress.h"
#include "pipeline/report.h"
#include "pipeline/text_table.h"
#include "pipeline/units.h"

namespace kesta {

namespace {

constexpr int kLowestRate = 8000;
constexpr int kHighestRate = 384000;

// The preferred third-octave frequencies from 20 Hz to 20 kHz: three points an octave.
constexpr double kThirdOctaves[] = {20,   25,   31.5, 40,   50,   63,    80,    100,   125,  160,  200,
                                    250,  315,  400,  500,  630,  800,   1000,  1250,  1600, 2000, 2500,
                                    3150, 4000, 5000, 6300, 8000, 10000, 12500, 16000, 20000};

struct ResponseRow {
    double hz = 0.0;
    std::string at;  // the settings' names for this frequency, "" for a grid point
    double db = 0.0;
};

// The grid below half the sample rate, and every mark; a grid point within 2% of a mark gives way
// to it, and marks at one frequency share a row.
std::vector<ResponseRow> ResponseRows(std::vector<ResponseMark> marks, int sampleRate) {
    const double nyquist = sampleRate / 2.0;
    std::stable_sort(marks.begin(), marks.end(),
                     [](const ResponseMark& a, const ResponseMark& b) { return a.hz < b.hz; });
    std::vector<ResponseRow> rows;
    for (const ResponseMark& mark : marks) {
        if (!(mark.hz < nyquist)) continue;
        if (!rows.empty() && rows.back().hz == mark.hz)
            rows.back().at += ", " + mark.name;
        else
            rows.push_back({mark.hz, mark.name, 0.0});
    }
    const std::size_t marked = rows.size();
    for (double hz : kThirdOctaves) {
        if (!(hz < nyquist)) break;
        bool near = false;
        for (std::size_t i = 0; i < marked; ++i)
            near = near || std::fabs(rows[i].hz / hz - 1.0) < 0.02;
        if (!near) rows.push_back({hz, "", 0.0});
    }
    std::stable_sort(rows.begin(), rows.end(), [](const ResponseRow& a, const ResponseRow& b) { return a.hz < b.hz; });
    return rows;
}

std::vector<ResponseRow> ComputeResponse(EqualiserTool& tool, int sampleRate) {
    std::vector<ResponseRow> rows = ResponseRows(tool.Marks(), sampleRate);
    for (ResponseRow& row : rows)
        row.db = tool.ResponseDb(row.hz);
    return rows;
}

void WriteResponse(JsonWriter& json, const std::vector<ResponseRow>& rows) {
    json.BeginArray();
    for (const ResponseRow& row : rows) {
        json.BeginObject();
        json.Key("frequency_hz").Number(row.hz);
        json.Key("gain_db").Number(row.db);
        if (row.at.empty())
            json.Key("at").Null();
        else
            json.Key("at").String(row.at);
        json.EndObject();
    }
    json.EndArray();
}

void PrintResponse(std::ostream& out, const std::vector<ResponseRow>& rows) {
    TextTable table;
    table.AddColumn("Frequency (Hz)", TextTable::Align::Right);
    table.AddColumn("Gain (dB)", TextTable::Align::Right);
    table.AddColumn("At");
    for (const ResponseRow& row : rows)  // no "-0.00"
        table.AddRow({FormatHz(row.hz), FormatDb(std::fabs(row.db) < 0.005 ? 0.0 : row.db, 2, true), row.at});
    table.Print(out);
}

// Which sample rate the settings are checked against, as words: "of 'in.wav' (44100 Hz)".
std::string RateSource(const std::string& input, int rate) {
    return input.empty() ? "of " + std::to_string(rate) + " Hz (--rate)"
                         : "of " + Quoted(input) + " (" + std::to_string(rate) + " Hz)";
}

// 1. What the command line asks for, as a whole.
void CheckRequest(const EqualiserOptions& options, const EqualiserTool& tool) {
    const std::string command = "kesta " + tool.Command();
    const bool saves = !tool.SavedFile().empty();
    if (options.rate != 0 && !options.response)
        throw UsageError("--rate goes only with --response", "",
                         "it gives the sample rate of the curve when no INPUT is given");
    if (options.rate != 0 && !options.input.empty())
        throw UsageError("--rate cannot be combined with INPUT", "",
                         "the curve is drawn at the input's sample rate; leave out one of them");
    if (options.rate != 0) CheckSetting("--rate", options.rate, kLowestRate, kHighestRate, "Hz");
    if (options.response && options.rate == 0 && options.input.empty())
        throw UsageError("--response needs a sample rate", "", "give INPUT, or --rate HZ such as --rate 48000");
    if (!options.response && options.input.empty() && !saves)
        throw UsageError("no input file given", "", "run '" + command + " --help' for its usage");
    if (!options.response && !options.input.empty() && options.output.empty() && !saves)
        throw UsageError("no output file given", "",
                         "name the file to write, or give --response to print the response curve");
    if (saves && !options.output.empty() && SameTarget(options.output, tool.SavedFile()))
        throw UsageError("OUTPUT and the saved preset name the same file", "", "keep the preset in a file of its own");
}

}  // namespace

std::vector<double> ParseFields(const std::string& option, const std::string& text, char separator, std::size_t fewest,
                                std::size_t most, const std::string& shape, const std::string& hint) {
    const std::string what = option + " " + text + " is not " + shape;
    std::vector<double> values;
    std::size_t start = 0;
    while (true) {
        const std::size_t end = text.find(separator, start);
        std::string field = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
        const std::size_t first = field.find_first_not_of(' ');
        field = first == std::string::npos ? "" : field.substr(first, field.find_last_not_of(' ') - first + 1);
        double value = 0.0;
        if (!ParseNumber(field, value))
            throw UsageError(what, field.empty() ? "a field is empty" : Quoted(field) + " is not a number", hint);
        values.push_back(value);
        if (end == std::string::npos) break;
        start = end + 1;
    }
    if (values.size() < fewest || values.size() > most) throw UsageError(what, "", hint);
    return values;
}

void CheckField(const std::string& option, const std::string& text, const std::string& what, double value, double low,
                double high, const std::string& unit) {
    if (!std::isfinite(value) || value < low || value > high) {
        const std::string suffix = unit.empty() ? "" : " " + unit;
        throw UsageError(option + " " + text + ": the " + what + " " + FormatValue(value) + suffix + " is out of range",
                         "",
                         std::string("give a") + (what[0] == 'o' ? "n " : " ") + what + " from " + FormatValue(low) +
                             " to " + FormatValue(high) + suffix);
    }
}

std::string FormatHz(double hz) {
    char text[48];
    std::snprintf(text, sizeof(text), "%.*f", hz < 100.0 ? 2 : 0, hz);
    std::string shown = text;
    if (shown.find('.') != std::string::npos) {
        shown.erase(shown.find_last_not_of('0') + 1);
        if (shown.back() == '.') shown.pop_back();
    }
    return shown;
}

std::unique_ptr<Stage> MakeEqualiserStage(std::shared_ptr<EqualiserTool> tool, const StageInput& in) {
    tool->CheckSettings();
    if (!tool->SavedFile().empty())
        throw UsageError("a chain step does not save a preset", "", "save it with 'kesta " + tool->Command() + "'");
    tool->CheckRate(in.format.sampleRate, RateSource(in.path, in.format.sampleRate));
    tool->Prepare(in.format.channels, in.format.sampleRate);
    return MakeStage(tool->Latency(),
                     [tool](float** data, int count, int frames) { tool->Process(data, count, frames); });
}

void AddEqualiserOptions(CLI::App& app, std::shared_ptr<EqualiserOptions> options) {
    app.add_option("INPUT", options->input, "The audio file to equalise")->type_name("");
    app.add_option("OUTPUT", options->output, "The file to write (not INPUT); may be left out with --response")
        ->type_name("");
    app.add_flag("--response", options->response,
                 "Print the response curve (gain in dB, 20 Hz to 20 kHz) at INPUT's sample rate or --rate");
    AddNumberOption(app, "--rate", options->rate, "Sample rate of the --response curve when no INPUT is given")
        ->type_name("HZ");
    AddOutputOptions(app, options->out);
    AddBatchOptions(app, options->out.batch);
    AddReportOptions(app, options->report);
}

int RunEqualiserCommand(const EqualiserOptions& options, EqualiserTool& tool) {
    const Stopwatch clock;
    const std::string command = tool.Command();

    // 1. The command line by itself.
    tool.CheckSettings();
    CheckRequest(options, tool);

    // 2. The input, or the rate of the curve.
    std::optional<BlockReader> reader;
    int rate = options.rate;
    int channels = 1;
    if (!options.input.empty()) {
        reader.emplace(options.input);
        rate = reader->Format().sampleRate;
        channels = reader->Format().channels;
    }
    if (rate != 0) tool.CheckRate(rate, RateSource(options.input, rate));

    // 3. The outputs, refused now rather than after the work.
    std::vector<SafeOutput::Input> inputs;
    if (reader) inputs.push_back({options.input, reader->Identity()});
    for (const std::string& path : tool.ReadFiles())
        if (auto identity = IdentityOfPath(path)) inputs.push_back({path, *identity});
    std::unique_ptr<SafeOutput> savedOutput;
    if (!tool.SavedFile().empty())
        savedOutput = std::make_unique<SafeOutput>(tool.SavedFile(), inputs, options.out.force, options.out.sync);
    std::optional<AudioOutput> output;
    if (!options.output.empty()) output.emplace(options.output, *reader, inputs, options.out);

    Console console(options.report);
    if (savedOutput) WriteAll(savedOutput->Descriptor(), tool.SavedBytes(), tool.SavedFile());

    // 4. The equaliser, its curve, and the processing.
    std::vector<ResponseRow> response;
    int64_t latency = 0;
    if (rate != 0 && (output || options.response)) {
        tool.Prepare(channels, rate);
        latency = tool.Latency();
        if (options.response) response = ComputeResponse(tool, rate);
    }
    LevelMeter inputLevels(channels);
    double processSeconds = 0.0;
    if (output) {
        const Stopwatch processClock;
        StreamWatchers watchers;
        watchers.input = [&](const AudioBlock& block, int64_t) { inputLevels.Add(block); };
        std::vector<std::unique_ptr<Stage>> parts;
        std::vector<Stage*> stages;
        const int count = tool.Parts();
        for (int part = 0; part < count; ++part) {
            if (count == 1)
                parts.push_back(
                    MakeStage(latency, [&](float** data, int n, int frames) { tool.Process(data, n, frames); }));
            else
                parts.push_back(MakeStage(
                    0, [&tool, part](float** data, int n, int frames) { tool.ProcessPart(part, data, n, frames); }));
            stages.push_back(parts.back().get());
        }
        Progress progress(command, reader->HeaderFrames(), rate, console.ShowsProgress());
        StreamStages(*reader, *output, stages, progress, watchers);
        processSeconds = processClock.Seconds();
    }

    // 5. Into place.
    if (savedOutput) savedOutput->Commit();
    if (output) output->Commit();

    const int64_t frames = output ? reader->FramesRead() : 0;
    std::vector<double> levelChange;
    if (output) {
        levelChange = LevelChanges(inputLevels.Levels(), output->Levels());
        const double peak = LinearToDb(output->UnclippedPeak());
        WarnAfterStream(console, *reader, *output,
                        "the peak would have been " + FormatDb(peak, 2, true) + " dBFS; lower --gain by " +
                            FormatDb(peak, 2) + " dB or more, or add --float");
    }
    const double seconds = clock.Seconds();

    JobReport report(console, command);
    report.Object("settings", [&](JsonWriter& json) { tool.WriteSettings(json); });
    if (rate != 0)
        report.Field("sample_rate", rate);
    else
        report.Json().Key("sample_rate").Null();
    if (reader)
        report.Input(options.input, reader->Format(), output ? frames : reader->HeaderFrames().value_or(0));
    else
        report.Json().Key("input").Null();
    if (output) {
        report.Field("latency_frames", latency);
        report.Output(*output, [&](JsonWriter& json) {
            json.Key("level_change_db").BeginArray();
            for (double change : levelChange)
                json.Number(change);
            json.EndArray();
        });
    } else {
        report.Json().Key("output").Null();
    }
    report.Field("saved_preset", savedOutput ? std::optional(tool.SavedFile()) : std::nullopt);
    if (options.response) {
        report.Json().Key("response");
        WriteResponse(report.Json(), response);
    } else {
        report.Json().Key("response").Null();
    }
    WriteTimings(report.Json(), frames, rate, processSeconds, seconds);

    if (savedOutput) report.Line("Saved the preset in " + tool.SavedFile());
    if (output) {
        report.Line(output->Summary() + ", " + tool.DescribeSettings());
        report.Line("Level change: " + DescribeChange(levelChange) + ", peak " + FormatDb(LinearToDb(output->Peak())) +
                    " dBFS " + RealTimeText(frames, rate, processSeconds));
    }
    report.Print(seconds);
    if (console.Json()) return kExitOk;

    // The curve is what --response asks for: printed even with --quiet.
    if (options.response) {
        if (console.ShowsText() && output) std::cout << "\n";
        if (console.ShowsText()) std::cout << "Response at " << rate << " Hz: " << tool.DescribeSettings() << "\n";
        PrintResponse(std::cout, response);
    }
    return kExitOk;
}

}  // namespace kesta
