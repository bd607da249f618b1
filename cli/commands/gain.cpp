// kesta gain INPUT OUTPUT --db X: changes the level of a file by a fixed number of decibels.

#include <CLI/CLI.hpp>
#include <chrono>
#include <cmath>
#include <iostream>
#include <memory>

#include "command.h"
#include "errors.h"
#include "io/block_reader.h"
#include "io/block_writer.h"
#include "io/safe_output.h"
#include "pipeline/console.h"
#include "pipeline/level_meter.h"
#include "pipeline/progress.h"
#include "pipeline/report.h"
#include "pipeline/units.h"

namespace kesta {

namespace {

constexpr double kLargestGainDb = 200.0;

constexpr const char* kHelpFooter =
    R"help(Multiplies every sample by the same factor: +6.02 dB doubles the amplitude, -6.02 dB halves it,
0 dB copies the file unchanged (bit for bit).

The output has the input's format, sample rate and channel count, and carries its tags over,
unless its name ends in another format's extension (.wav, .flac, .aiff, .caf, .w64, .au, .ogg,
.opus, .mp3), which selects that format; the encoding then stays the input's where the new format
can hold it (float input written to FLAC becomes 24-bit).

Integer formats (16-, 24-bit PCM, ...) cannot go beyond full scale: samples pushed past it are
clipped, and kesta says how many. Floating-point files keep every value, so a float file can be
made louder now and quieter later without loss.

The output is written to a temporary file beside OUTPUT and moved into place only when complete;
an interrupted run leaves no partial file. kesta never writes onto its input, and replaces an
existing OUTPUT only with --force.

Exit status: 0 done; 2 wrong command line; 3 input problem; 4 output problem.

Examples:
  kesta gain take1.wav take1-louder.wav --db 3
  kesta gain mix.flac mix-quieter.flac --db -6
  kesta gain mix.wav mix.flac --db=-1.5 --force)help";

struct GainOptions {
    std::string input;
    std::string output;
    double db = 0.0;
    bool force = false;
    ReportOptions report;
};

void ApplyGain(AudioBlock& block, float factor) {
    for (int c = 0; c < block.Channels(); ++c) {
        float* x = block.Channel(c);
        for (std::size_t i = 0; i < block.Frames(); ++i)
            x[i] *= factor;
    }
}

void PrintJson(const GainOptions& options, const AudioFormat& in, const AudioFormat& out, int64_t frames,
               const BlockWriter& writer, const LevelMeter& meter, const Console& console, double seconds) {
    JsonWriter json(std::cout);
    json.BeginObject();
    json.Key("command").String("gain");
    json.Key("gain_db").Number(options.db);
    json.Key("input").BeginObject();
    json.Key("file").String(options.input);
    WriteAudioFields(json, in, frames);
    json.EndObject();
    json.Key("output").BeginObject();
    json.Key("file").String(options.output);
    WriteAudioFields(json, out, writer.FramesWritten());
    json.Key("clipped_samples").Int(int64_t(writer.ClippedSamples()));
    json.Key("levels");
    WriteLevels(json, meter.Levels());
    json.EndObject();
    WriteWarnings(json, console.Warnings());
    json.Key("seconds").Number(seconds);
    json.EndObject();
}

int RunGain(const GainOptions& options) {
    if (!std::isfinite(options.db) || std::fabs(options.db) > kLargestGainDb)
        throw UsageError("--db " + FormatDb(options.db) + " is out of range", "",
                         "give a gain between -200 and +200 dB");
    const auto start = std::chrono::steady_clock::now();
    Console console(options.report);

    BlockReader reader(options.input);
    const AudioFormat outputFormat = ChooseOutputFormat(reader.Format(), options.output);
    SafeOutput output(options.output, {{options.input, reader.Identity()}}, options.force);
    BlockWriter writer(output.Descriptor(), options.output, outputFormat);
    writer.SetMetadata(reader.Metadata());
    if (reader.HeaderFrames()) writer.ExpectFrames(*reader.HeaderFrames());

    const float factor = float(DbToLinear(options.db));
    LevelMeter meter(outputFormat.channels);  // what was written, before any clipping
    AudioBlock block = reader.MakeBlock();
    {
        Progress progress("gain", reader.HeaderFrames(), reader.Format().sampleRate, console.ShowsProgress());
        while (reader.Read(block)) {
            ApplyGain(block, factor);
            meter.Add(block);
            writer.Write(block);
            progress.Advance(int64_t(block.Frames()));
        }
        writer.Finish();
        output.Commit();
    }

    const int64_t frames = reader.FramesRead();
    if (auto mismatch = LengthMismatch(options.input, reader.HeaderFrames(), frames)) console.Warn(*mismatch);
    double peak = 0.0;
    for (const ChannelLevels& level : meter.Levels())
        peak = std::fmax(peak, level.peak);
    if (writer.ClippedSamples() > 0)
        console.Warn(std::to_string(writer.ClippedSamples()) + " samples went beyond full scale and were clipped in " +
                     Quoted(options.output) + " (the peak would have been " + FormatDb(LinearToDb(peak), 2, true) +
                     " dBFS; use a gain " + FormatDb(options.db - LinearToDb(peak), 2, true) +
                     " dB or lower to avoid it)");

    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (console.Json()) {
        PrintJson(options, reader.Format(), outputFormat, frames, writer, meter, console, seconds);
    } else if (console.ShowsText()) {
        std::cout << "Wrote " << options.output << ": " << DescribeFormat(outputFormat.sndfileFormat) << ", "
                  << outputFormat.sampleRate << " Hz, " << outputFormat.channels << " channel(s), "
                  << FormatLength(frames, outputFormat.sampleRate) << ", gain " << FormatDb(options.db, 2, true)
                  << " dB, peak " << FormatDb(LinearToDb(peak)) << " dBFS\n";
    }
    return kExitOk;
}

}  // namespace

Command AddGainCommand(CLI::App& kesta) {
    auto options = std::make_shared<GainOptions>();
    CLI::App* app = kesta.add_subcommand("gain", "Make a file louder or quieter by a number of decibels");
    app->footer(kHelpFooter);
    app->add_option("INPUT", options->input, "The audio file to read")->required()->type_name("");
    app->add_option("OUTPUT", options->output, "The file to write (not INPUT)")->required()->type_name("");
    app->add_option("--db", options->db, "Gain in dB: +6.02 doubles, -6.02 halves the amplitude")
        ->required()
        ->type_name("DB");
    AddForceOption(*app, options->force);
    AddReportOptions(*app, options->report);
    return {app, [options] { return RunGain(*options); }};
}

}  // namespace kesta
