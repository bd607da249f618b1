// kesta info FILE: what a file holds (format, rate, channels, length) and how loud each channel is.

#include <CLI/CLI.hpp>
#include <chrono>
#include <iostream>
#include <memory>
#include <sstream>

#include "command.h"
#include "errors.h"
#include "io/block_reader.h"
#include "pipeline/console.h"
#include "pipeline/job.h"
#include "pipeline/level_meter.h"
#include "pipeline/progress.h"
#include "pipeline/report.h"
#include "pipeline/units.h"

namespace kesta {

namespace {

constexpr const char* kHelpFooter =
    R"help(Reads the whole file, block by block (so files of any length need little memory), and reports:
  Format        container and encoding, e.g. "WAV (PCM 16-bit)" or "FLAC (PCM 24-bit)"
  Sample rate   in Hz
  Channels      how many
  Length        in frames (one sample per channel) and as h:mm:ss.mmm
and for each channel:
  Peak          the largest magnitude, linear (1.0 = full scale) and in dBFS
  RMS           the root-mean-square level in dBFS (a full-scale sine reads -3.01 dBFS)
  DC offset     the mean sample value; far from 0 it wastes headroom and can thump on edits
A channel of digital silence reads -inf dBFS (null in JSON).

If the file holds fewer frames than its header announces, kesta warns: the file is probably
truncated, and the length shown is what the file really holds.

Exit status: 0 when the file was read to its end; 3 when it is missing, unreadable or not audio.

Examples:
  kesta info take1.wav
  kesta info --json master.flac
  kesta info --quiet suspect.wav && echo "decodes to the end")help";

struct InfoOptions {
    std::string path;
    ReportOptions report;
};

int RunInfo(const InfoOptions& options) {
    const auto start = std::chrono::steady_clock::now();
    Console console(options.report);
    BlockReader reader(options.path);
    const AudioFormat& format = reader.Format();

    LevelMeter meter(format.channels);
    {
        Progress progress("info", reader.HeaderFrames(), format.sampleRate, console.ShowsProgress());
        StreamToSink(reader, {}, progress, [&](const AudioBlock& block, int64_t) { meter.Add(block); });
    }
    const int64_t frames = reader.FramesRead();
    if (auto mismatch = reader.LengthWarning()) console.Warn(*mismatch);
    const std::vector<ChannelLevels> levels = meter.Levels();

    JobReport report(console, "info");
    report.Field("file", options.path);
    WriteAudioFields(report.Json(), format, frames);
    report.Json().Key("levels");
    WriteLevels(report.Json(), levels);
    std::ostringstream text;
    text << "File:         " << options.path << '\n'
         << "Format:       " << DescribeFormat(format.sndfileFormat) << '\n'
         << "Sample rate:  " << format.sampleRate << " Hz\n"
         << "Channels:     " << format.channels << '\n'
         << "Length:       " << frames << " frames (" << FormatLength(frames, format.sampleRate) << ")\n\n";
    PrintLevels(text, levels);
    std::string lines = text.str();
    lines.pop_back();  // Line adds the last newline
    report.Line(lines);
    return report.Print(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
}

}  // namespace

Command AddInfoCommand(CLI::App& kesta) {
    auto options = std::make_shared<InfoOptions>();
    CLI::App* app = kesta.add_subcommand("info", "Show a file's format, length and per-channel levels");
    app->footer(kHelpFooter);
    app->add_option("FILE", options->path, "The audio file to examine")->required()->type_name("");
    AddReportOptions(*app, options->report);
    return {app, [options] { return RunInfo(*options); }, nullptr};
}

}  // namespace kesta
