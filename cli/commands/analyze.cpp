// kesta analyze FILE...: levels, loudness, loudness range and true peak of each file.

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "commands/loudness_meters.h"
#include "errors.h"
#include "io/block_reader.h"
#include "pipeline/console.h"
#include "pipeline/job.h"
#include "pipeline/json_writer.h"
#include "pipeline/progress.h"
#include "pipeline/report.h"
#include "pipeline/text_table.h"
#include "pipeline/units.h"

namespace kesta {

namespace {

constexpr const char* kHelpFooter =
    R"help(Reads each file once and reports, for the whole file:
  Integrated     programme loudness in LUFS (K-weighted, gated: blocks under -70 LUFS and more
                 than 10 LU under the rest are left out); -23 LUFS is the broadcast target
  Range          loudness range in LU: the spread of the 3 s loudness over the programme
                 (10th to 95th percentile, quiet gaps left out)
  Max momentary  the loudest 400 ms, and Max short-term the loudest 3 s, in LUFS
  True peak      the highest level between the samples (4x oversampled below 96 kHz), in dBTP
and for each channel:
  Peak, RMS      in dBFS; Loudest and Quietest 50 ms: the RMS of the loudest and quietest 50 ms
  Crest          peak minus RMS in dB; DC offset: the mean sample value
  Full scale     samples at the largest 16-bit value or beyond (clipped, in integer files)
  Longest run    the most consecutive samples of one value (flat tops, dropouts, silence)
  Bits           the fewest integer bits that hold every sample exactly (above 24: float data)
  Crossings      zero crossings
Silence reads -inf (null in JSON).

--csv prints one line per file (a header first), for tables of many files; --json an object
with every figure of every file.

Exit status: 0 every file read; 2 wrong command line; 3 a file missing, unreadable or not audio
(checked for every file before any is measured).

Examples:
  kesta analyze mix.wav
  kesta analyze --csv masters/*.flac > loudness.csv
  kesta analyze --json take1.wav take2.wav)help";

struct AnalyzeOptions {
    std::vector<std::string> paths;
    bool csv = false;
    ReportOptions report;
};

struct FileAnalysis {
    std::string path;
    AudioFormat format;
    int64_t frames = 0;
    LoudnessFigures loudness;
    std::vector<double> truePeakDbtp;
    dsp::Stats levels;
};

FileAnalysis Analyze(const std::string& path, Console& console) {
    BlockReader reader(path);
    FileAnalysis result;
    result.path = path;
    result.format = reader.Format();
    const AudioFormat& format = reader.Format();
    if (format.channels > dsp::Stats::kMaxChannels)
        throw InputError("cannot analyse " + Quoted(path), std::to_string(format.channels) + " channels",
                         "kesta analyze reads files of up to 32 channels");
    LoudnessMeters meters(format.channels, format.sampleRate, true, reader.HeaderFrames().value_or(0));
    {
        Progress progress("analyze", reader.HeaderFrames(), format.sampleRate, console.ShowsProgress());
        StreamToSink(reader, {}, progress, [&](const AudioBlock& block, int64_t) { meters.Add(block); });
    }
    meters.Finish();
    if (auto mismatch = reader.LengthWarning()) console.Warn(*mismatch);
    result.frames = reader.FramesRead();
    result.loudness = meters.Figures();
    for (int c = 0; c < format.channels; ++c)
        result.truePeakDbtp.push_back(LinearToDb(meters.Peak().GetTruePeak(c)));
    result.levels = meters.Levels();
    return result;
}

std::string Fixed(double value, int decimals) {
    if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

void PrintText(const FileAnalysis& a) {
    const LoudnessFigures& l = a.loudness;
    std::cout << "File:         " << a.path << '\n'
              << "Format:       " << DescribeFormat(a.format.sndfileFormat) << ", " << a.format.sampleRate << " Hz, "
              << a.format.channels << " channel(s), " << FormatLength(a.frames, a.format.sampleRate) << '\n'
              << "Loudness:     " << Fixed(l.integratedLufs, 1) << " LUFS integrated, range " << Fixed(l.rangeLu, 1)
              << " LU, max momentary " << Fixed(l.maxMomentaryLufs, 1) << " LUFS, max short-term "
              << Fixed(l.maxShortTermLufs, 1) << " LUFS\n"
              << "True peak:    " << Fixed(l.truePeakDbtp, 2) << " dBTP\n\n";
    TextTable table;
    using Align = TextTable::Align;
    for (const char* heading : {"Channel", "Peak dBFS", "True peak dBTP", "RMS dBFS", "Loudest 50 ms", "Quietest 50 ms",
                                "Crest dB", "DC offset", "Full scale", "Longest run", "Bits", "Crossings"})
        table.AddColumn(heading, Align::Right);
    for (int c = 0; c < a.levels.numChannels; ++c) {
        const dsp::StatData& s = a.levels.channel[c];
        table.AddRow({std::to_string(c + 1), Fixed(s.peakDb, 2), Fixed(a.truePeakDbtp[std::size_t(c)], 2),
                      Fixed(s.rmsDb, 2), Fixed(s.loudestRmsDb, 2), Fixed(s.quietestRmsDb, 2), Fixed(s.crestFactorDb, 2),
                      Fixed(s.dcOffset, 6), std::to_string(s.fullScaleCount), std::to_string(s.longestRun),
                      std::to_string(s.bitDepth), std::to_string(s.zeroCrossings)});
    }
    table.Print(std::cout);
}

void WriteJson(JsonWriter& json, const FileAnalysis& a) {
    json.BeginObject();
    json.Key("file").String(a.path);
    WriteAudioFields(json, a.format, a.frames);
    json.Key("loudness").BeginObject();
    WriteLoudnessFields(json, a.loudness);
    json.EndObject();
    json.Key("channels_levels").BeginArray();
    for (int c = 0; c < a.levels.numChannels; ++c) {
        const dsp::StatData& s = a.levels.channel[c];
        json.BeginObject();
        json.Key("channel").Int(c + 1);
        json.Key("peak_dbfs").Number(s.peakDb);
        json.Key("true_peak_dbtp").Number(a.truePeakDbtp[std::size_t(c)]);
        json.Key("rms_dbfs").Number(s.rmsDb);
        json.Key("loudest_50ms_rms_dbfs").Number(s.loudestRmsDb);
        json.Key("quietest_50ms_rms_dbfs").Number(s.quietestRmsDb);
        json.Key("crest_factor_db").Number(s.crestFactorDb);
        json.Key("dc_offset").Number(s.dcOffset);
        json.Key("minimum").Number(s.minimum);
        json.Key("maximum").Number(s.maximum);
        json.Key("full_scale_samples").Int(s.fullScaleCount);
        json.Key("longest_run").Int(s.longestRun);
        json.Key("bit_depth").Int(s.bitDepth);
        json.Key("zero_crossings").Int(s.zeroCrossings);
        json.EndObject();
    }
    json.EndArray();
    json.EndObject();
}

// A CSV field: quoted when it holds a comma, a quote or a line break.
std::string CsvField(const std::string& text) {
    if (text.find_first_of(",\"\n\r") == std::string::npos) return text;
    std::string quoted = "\"";
    for (const char ch : text) {
        if (ch == '"') quoted += '"';
        quoted += ch;
    }
    return quoted + '"';
}

void PrintCsvRow(const FileAnalysis& a) {
    double peak = -INFINITY, squares = 0.0;
    for (int c = 0; c < a.levels.numChannels; ++c) {
        peak = std::max(peak, a.levels.channel[c].peakDb);
        squares += std::pow(10.0, a.levels.channel[c].rmsDb / 10.0);
    }
    const double rmsDb = a.levels.numChannels == 0 ? -INFINITY : 10.0 * std::log10(squares / a.levels.numChannels);
    const LoudnessFigures& l = a.loudness;
    std::cout << CsvField(a.path) << ',' << a.format.sampleRate << ',' << a.format.channels << ',' << a.frames << ','
              << Fixed(double(a.frames) / a.format.sampleRate, 3) << ',' << Fixed(l.integratedLufs, 2) << ','
              << Fixed(l.rangeLu, 2) << ',' << Fixed(l.maxMomentaryLufs, 2) << ',' << Fixed(l.maxShortTermLufs, 2)
              << ',' << Fixed(l.truePeakDbtp, 2) << ',' << Fixed(peak, 2) << ',' << Fixed(rmsDb, 2) << '\n';
}

int RunAnalyze(const AnalyzeOptions& options) {
    if (options.csv && options.report.json)
        throw UsageError("--csv and --json cannot be used together", "", "choose one report format");
    Console console(options.report);
    for (const std::string& path : options.paths)
        BlockReader check(path);  // every file readable before any work

    const Stopwatch clock;
    if (options.csv && !options.report.quiet)
        std::cout << "file,sample_rate,channels,frames,seconds,integrated_lufs,loudness_range_lu,max_momentary_lufs,"
                     "max_short_term_lufs,true_peak_dbtp,peak_dbfs,rms_dbfs\n";
    JobReport report(console, "analyze");
    report.Json().Key("files").BeginArray();
    bool first = true;
    for (const std::string& path : options.paths) {
        const FileAnalysis a = Analyze(path, console);
        // Text and CSV appear file by file; the JSON document once all are measured.
        if (console.Json())
            WriteJson(report.Json(), a);
        else if (options.csv && !options.report.quiet)
            PrintCsvRow(a);
        else if (console.ShowsText()) {
            if (!first) std::cout << '\n';
            PrintText(a);
        }
        first = false;
    }
    report.Json().EndArray();
    return report.Print(clock.Seconds());
}

}  // namespace

Command AddAnalyzeCommand(CLI::App& kesta) {
    auto options = std::make_shared<AnalyzeOptions>();
    CLI::App* app = kesta.add_subcommand("analyze", "Measure levels, loudness, loudness range and true peak");
    app->footer(kHelpFooter);
    app->add_option("FILE", options->paths, "The audio files to measure")->required()->type_name("");
    app->add_flag("--csv", options->csv, "One line of figures per file, comma-separated, with a header");
    AddReportOptions(*app, options->report);
    return {app, [options] { return RunAnalyze(*options); }, nullptr};
}

}  // namespace kesta
