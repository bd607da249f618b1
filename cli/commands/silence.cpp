// kesta silence INPUT: the quiet stretches of a file; kesta trim-silence INPUT OUTPUT: the file
// without them.

#include "dsp/silence.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <functional>
#include <iostream>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "command.h"
#include "errors.h"
#include "io/block_reader.h"
#include "pipeline/command_line.h"
#include "pipeline/command_support.h"
#include "pipeline/console.h"
#include "pipeline/job.h"
#include "pipeline/json_writer.h"
#include "pipeline/progress.h"
#include "pipeline/report.h"
#include "pipeline/text_table.h"
#include "pipeline/units.h"

namespace kesta {

namespace {

constexpr const char* kDetectionHelp =
    R"help(A stretch is quiet when every sample in it is at or below --threshold (dBFS); once it has
begun it carries on through samples up to --hysteresis dB above the threshold, so a noise floor
that wanders about the threshold does not split it. It begins only after --hold seconds of quiet
samples in a row (a tone's zero crossings never begin one) and counts when it lasts at least
--min-length seconds. All channels are judged together (the loudest at each instant) unless
--per-channel is given.)help";

constexpr const char* kSilenceFooter =
    R"help(
Prints the number of quiet stretches and their total length; --report lists each one (start, end
and length). --csv prints one line per stretch (channel, start and end frame, start, end and
length in seconds); --json an object with every stretch.

Exit status: 0 done; 2 wrong command line; 3 input problem.

Examples:
  kesta silence interview.wav --report
  kesta silence tape.flac --threshold -50 --min-length 2 --csv > gaps.csv
  kesta silence stereo.wav --per-channel --json)help";

constexpr const char* kTrimFooter =
    R"help(
Every quiet stretch found is removed from all channels, each cut joined by an equal-power
crossfade of --fade milliseconds (shorter where the stretch or the audio before it is shorter);
--keep leaves that many seconds of each stretch in place, half at each side. OUTPUT is shorter
than INPUT by exactly the frames removed, which the report gives with each cut; markers move with
the audio. INPUT is read twice: once to find the stretches, once to write OUTPUT.

Exit status: 0 done; 2 wrong command line; 3 input problem (or nothing left once the quiet is
removed); 4 output problem.

Examples:
  kesta trim-silence lecture.wav lecture-tight.wav
  kesta trim-silence podcast.flac podcast-trim.flac --threshold -45 --min-length 1 --keep 0.3)help";

struct Detection {
    double thresholdDb = -60.0;
    double hysteresisDb = 3.0;
    double minLength = 0.5;
    double hold = 0.01;
    bool perChannel = false;
};

void AddDetectionOptions(CLI::App& app, Detection& d) {
    AddNumberOption(app, "--threshold", d.thresholdDb, "Level at or below which audio is quiet, dBFS (default -60)")
        ->type_name("DB");
    AddNumberOption(app, "--hysteresis", d.hysteresisDb,
                    "How far above the threshold a quiet stretch may wander, dB (default 3)")
        ->type_name("DB");
    AddNumberOption(app, "--min-length", d.minLength, "Shortest quiet stretch that counts, seconds (default 0.5)")
        ->type_name("S");
    AddNumberOption(app, "--hold", d.hold, "Quiet time before a stretch begins, seconds (default 0.01)")
        ->type_name("S");
}

void CheckDetection(const Detection& d) {
    CheckSetting("--threshold", d.thresholdDb, -140.0, 0.0, "dBFS");
    CheckSetting("--hysteresis", d.hysteresisDb, 0.0, 40.0, "dB");
    CheckSetting("--min-length", d.minLength, 0.001, 3600.0, "s");
    CheckSetting("--hold", d.hold, 0.0, 10.0, "s");
    if (d.hold > d.minLength)
        throw UsageError("--hold " + FormatValue(d.hold) + " is longer than --min-length " + FormatValue(d.minLength),
                         "", "give a hold no longer than the minimum length");
}

struct Found {
    std::vector<std::vector<dsp::utils::Range>> lists;  // one when linked
    int64_t frames = 0;
};

// Streams audio into a sink, block by block.
using Feed = std::function<void(const std::function<void(const AudioBlock&)>& sink)>;

// Runs FindSilence over all `feed` streams.
Found FindQuiet(const AudioFormat& format, const Detection& d, bool linked, const Feed& feed) {
    if (format.channels > 32)
        throw InputError("cannot read " + std::to_string(format.channels) + " channels", "",
                         "kesta reads files of up to 32 channels");
    dsp::nosilence::NOSILENCE settings;
    settings.thresholdDb = d.thresholdDb;
    settings.hysteresisDb = d.hysteresisDb;
    settings.minimumSeconds = d.minLength;
    settings.holdSeconds = d.hold;
    settings.linked = linked;
    dsp::nosilence::FindSilence find(settings, format.sampleRate, format.channels);
    find.SetSelection(0, std::numeric_limits<long long>::max() / 2);
    find.Start(nullptr);
    std::vector<float*> pointers(static_cast<std::size_t>(format.channels));
    Found found;
    feed([&](const AudioBlock& block) {
        for (int c = 0; c < block.Channels(); ++c)
            pointers[static_cast<std::size_t>(c)] = const_cast<float*>(block.Channel(c));
        find.Analyze(pointers.data(), block.Channels(), static_cast<int>(block.Frames()));
        found.frames += static_cast<int64_t>(block.Frames());
    });
    find.Done();
    for (int l = 0; l < find.GetListCount(); ++l)
        found.lists.push_back(find.GetRanges(l));
    return found;
}

// The same over `reader` from where it stands, with a progress bar.
Found FindQuiet(BlockReader& reader, const Detection& d, bool linked, Console& console, const char* task) {
    const AudioFormat& format = reader.Format();
    Found found = FindQuiet(format, d, linked, [&](const std::function<void(const AudioBlock&)>& sink) {
        Progress progress(task, reader.HeaderFrames(), format.sampleRate, console.ShowsProgress());
        StreamToSink(reader, {}, progress, [&](const AudioBlock& block, int64_t) { sink(block); });
    });
    if (auto mismatch = reader.LengthWarning()) console.Warn(*mismatch);
    return found;
}

int64_t TotalFrames(const std::vector<dsp::utils::Range>& ranges) {
    int64_t total = 0;
    for (const dsp::utils::Range& r : ranges)
        total += r.length;
    return total;
}

std::string Seconds(int64_t frames, int rate) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", static_cast<double>(frames) / rate);
    return text;
}

// The stretches of each list as a JSON array named "stretches" (with their list's channel, 0 for
// all channels).
void WriteStretches(JsonWriter& json, const std::vector<std::vector<dsp::utils::Range>>& lists, int rate) {
    json.Key("stretches").BeginArray();
    for (std::size_t l = 0; l < lists.size(); ++l)
        for (const dsp::utils::Range& r : lists[l]) {
            json.BeginObject();
            json.Key("channel").Int(lists.size() == 1 ? 0 : static_cast<int64_t>(l) + 1);
            json.Key("start_frame").Int(r.start);
            json.Key("end_frame").Int(r.start + r.length);
            json.Key("start_seconds").Number(static_cast<double>(r.start) / rate);
            json.Key("end_seconds").Number(static_cast<double>(r.start + r.length) / rate);
            json.Key("seconds").Number(static_cast<double>(r.length) / rate);
            json.EndObject();
        }
    json.EndArray();
}

void PrintStretches(std::ostream& out, const std::vector<std::vector<dsp::utils::Range>>& lists, int rate) {
    TextTable table;
    using Align = TextTable::Align;
    for (const char* heading : {"Channel", "Start", "End", "Length"})
        table.AddColumn(heading, Align::Right);
    for (std::size_t l = 0; l < lists.size(); ++l)
        for (const dsp::utils::Range& r : lists[l])
            table.AddRow({lists.size() == 1 ? "all" : std::to_string(l + 1),
                          FormatClock(static_cast<double>(r.start) / rate, true),
                          FormatClock(static_cast<double>(r.start + r.length) / rate, true),
                          Seconds(r.length, rate) + " s"});
    table.Print(out);
}

void WriteDetectionFields(JsonWriter& json, const Detection& d, bool linked) {
    json.Key("threshold_dbfs").Number(d.thresholdDb);
    json.Key("hysteresis_db").Number(d.hysteresisDb);
    json.Key("min_length_seconds").Number(d.minLength);
    json.Key("hold_seconds").Number(d.hold);
    json.Key("linked").Bool(linked);
}

// ---- kesta silence ------------------------------------------------------------------------------

struct SilenceOptions {
    std::string input;
    Detection detection;
    bool list = false;
    bool csv = false;
    ReportOptions report;
};

int RunSilence(const SilenceOptions& o) {
    if (o.csv && o.report.json)
        throw UsageError("--csv and --json cannot be used together", "", "choose one report format");
    CheckDetection(o.detection);
    const Stopwatch clock;
    Console console(o.report);
    BlockReader reader(o.input);
    const AudioFormat& format = reader.Format();
    const int rate = format.sampleRate;
    const Found found = FindQuiet(reader, o.detection, !o.detection.perChannel, console, "silence");
    if (o.csv) {
        if (!o.report.quiet) {
            std::cout << "channel,start_frame,end_frame,start_seconds,end_seconds,seconds\n";
            for (std::size_t l = 0; l < found.lists.size(); ++l)
                for (const dsp::utils::Range& r : found.lists[l])
                    std::cout << (found.lists.size() == 1 ? 0 : l + 1) << ',' << r.start << ',' << r.start + r.length
                              << ',' << Seconds(r.start, rate) << ',' << Seconds(r.start + r.length, rate) << ','
                              << Seconds(r.length, rate) << '\n';
        }
        return kExitOk;
    }
    JobReport report(console, "silence");
    report.Input(o.input, format, found.frames);
    report.Object("settings",
                  [&](JsonWriter& json) { WriteDetectionFields(json, o.detection, !o.detection.perChannel); });
    report.Object("found", [&](JsonWriter& json) { WriteStretches(json, found.lists, rate); });
    for (std::size_t l = 0; l < found.lists.size(); ++l) {
        const std::vector<dsp::utils::Range>& list = found.lists[l];
        report.Line(o.input + (found.lists.size() == 1 ? "" : ", channel " + std::to_string(l + 1)) + ": " +
                    std::to_string(list.size()) + " quiet stretch(es), " + Seconds(TotalFrames(list), rate) + " s of " +
                    FormatLength(found.frames, rate) + " (below " + FormatValue(o.detection.thresholdDb) +
                    " dBFS for at least " + FormatValue(o.detection.minLength) + " s)");
    }
    if (o.list) {
        std::ostringstream table;
        PrintStretches(table, found.lists, rate);
        std::string text = table.str();
        if (!text.empty() && text.back() == '\n') text.pop_back();
        report.Line(text);
    }
    return report.Print(clock.Seconds());
}

// ---- kesta trim-silence -------------------------------------------------------------------------

struct TrimOptions {
    std::string input;
    std::string output;
    Detection detection;
    double fadeMs = 5.0;
    double keep = 0.0;
    OutputOptions out;
    ReportOptions report;
};

// Removes the cuts from every channel; the output is shorter than the input by their length.
class TrimStage : public ResizingStage {
public:
    TrimStage(const std::vector<dsp::utils::Range>& cuts, int64_t frames, int fade, int channels)
        : mCuts(cuts), mFrames(frames), mDelete(cuts, 0, frames, fade, channels) {
        mDelete.Start();
    }
    int64_t Latency() const override { return 0; }
    int64_t OutputFrames(int64_t inputFrames) const override { return mDelete.OutputFramesFor(inputFrames); }
    std::size_t MaxOutputFrames(std::size_t inputFrames) const override { return inputFrames; }
    std::size_t Convert(const float* const* in, float* const* out, int channelCount, std::size_t frames) override {
        mDelete.Process(const_cast<float**>(in), const_cast<float**>(out), channelCount, static_cast<int>(frames));
        return static_cast<std::size_t>(mDelete.GetLastOutputFrames());
    }
    const std::vector<dsp::utils::Range>& Cuts() const { return mCuts; }
    int64_t Removed() const { return mDelete.GetRemovedFrames(); }
    int64_t InputFrames() const { return mFrames; }

private:
    std::vector<dsp::utils::Range> mCuts;
    int64_t mFrames;
    dsp::nosilence::DeleteSilence mDelete;
};

// The stretches less `keep` frames, half kept at each side (what is left of a short one may be
// nothing).
std::vector<dsp::utils::Range> Shrunk(const std::vector<dsp::utils::Range>& ranges, int64_t keep) {
    std::vector<dsp::utils::Range> cuts;
    for (const dsp::utils::Range& r : ranges) {
        const int64_t before = keep / 2, after = keep - keep / 2;
        if (r.length > keep) cuts.push_back({r.start + before, static_cast<int32_t>(r.length - before - after), 0});
    }
    return cuts;
}

void CheckTrim(const TrimOptions& o) {
    CheckDetection(o.detection);
    CheckSetting("--fade", o.fadeMs, 0.0, 1000.0, "ms");
    CheckSetting("--keep", o.keep, 0.0, 3600.0, "s");
}

// Finds the quiet in all the step will hear (INPUT read once more when it is the file itself),
// then makes the stage that removes it. Refuses a file that would be left empty.
std::unique_ptr<Stage> MakeTrimStage(const TrimOptions& o, const StageInput& in) {
    CheckTrim(o);
    const int rate = in.format.sampleRate;
    Found found;
    if (in.replay) {
        found = FindQuiet(in.format, o.detection, true, in.replay);
    } else {
        BlockReader reader(in.path);
        found = FindQuiet(reader, o.detection, true, in.console, "find silence");
    }
    const std::vector<dsp::utils::Range> cuts =
        Shrunk(found.lists.front(), static_cast<int64_t>(std::llround(o.keep * rate)));
    if (TotalFrames(cuts) >= found.frames)
        throw InputError("nothing of " + Quoted(in.path) + " would be left", "it is all quiet at these settings",
                         "lower --threshold or check the file");
    const int fade = static_cast<int>(std::llround(o.fadeMs * rate / 1000.0));
    return std::make_unique<TrimStage>(cuts, found.frames, fade, in.format.channels);
}

Processing TrimJob(const std::shared_ptr<TrimOptions>& options) {
    Processing job = ProcessingOf("trim-silence", *options);
    job.check = [options] { CheckTrim(*options); };
    job.stage = [options](const StageInput& in) { return MakeTrimStage(*options, in); };
    job.clippingAdvice = [](const AudioOutput&) { return std::string(); };
    job.timed = true;
    job.describe = [options](JobReport& report, const ProcessingDone& done) {
        const auto& stage = dynamic_cast<const TrimStage&>(done.stage);
        const int rate = done.rate;
        report.Object("settings", [&](JsonWriter& json) { WriteDetectionFields(json, options->detection, true); });
        report.Object("removed", [&](JsonWriter& json) {
            json.Key("cuts").Int(static_cast<int64_t>(stage.Cuts().size()));
            json.Key("frames").Int(stage.Removed());
            json.Key("seconds").Number(static_cast<double>(stage.Removed()) / rate);
            json.Key("fade_ms").Number(options->fadeMs);
            json.Key("keep_seconds").Number(options->keep);
            WriteStretches(json, {stage.Cuts()}, rate);
        });
        return ": " + std::to_string(stage.Cuts().size()) + " quiet stretch(es) removed, " +
               Seconds(stage.Removed(), rate) + " s of " + FormatLength(stage.InputFrames(), rate);
    };
    return job;
}

}  // namespace

Command AddSilenceCommand(CLI::App& kesta) {
    auto options = std::make_shared<SilenceOptions>();
    CLI::App* app = kesta.add_subcommand("silence", "List the quiet stretches of a file");
    app->footer(std::string(kDetectionHelp) + "\n" + kSilenceFooter);
    app->add_option("INPUT", options->input, "The audio file to read")->required()->type_name("");
    AddDetectionOptions(*app, options->detection);
    app->add_flag("--per-channel", options->detection.perChannel, "Judge and list each channel on its own");
    app->add_flag("--report", options->list, "List every quiet stretch");
    app->add_flag("--csv", options->csv, "One line per quiet stretch, comma-separated, with a header");
    AddReportOptions(*app, options->report);
    return {app, [options] { return RunSilence(*options); }, nullptr};
}

Command AddTrimSilenceCommand(CLI::App& kesta) {
    auto options = std::make_shared<TrimOptions>();
    CLI::App* app = kesta.add_subcommand("trim-silence", "Remove the quiet stretches of a file");
    app->footer(std::string(kDetectionHelp) + "\n" + kTrimFooter);
    app->add_option("INPUT", options->input, "The audio file to read")->required()->type_name("");
    app->add_option("OUTPUT", options->output, "The file to write (not INPUT)")->required()->type_name("");
    AddDetectionOptions(*app, options->detection);
    AddNumberOption(*app, "--fade", options->fadeMs, "Crossfade at each cut, milliseconds (default 5)")
        ->type_name("MS");
    AddNumberOption(*app, "--keep", options->keep, "Seconds of each quiet stretch to leave in (default 0)")
        ->type_name("S");
    AddOutputOptions(*app, options->out);
    AddReportOptions(*app, options->report);
    return {app, [options] { return RunProcessing(TrimJob(options)); },
            [options](const StageInput& in) { return MakeTrimStage(*options, in); }};
}

}  // namespace kesta
