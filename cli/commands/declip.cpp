// kesta declip INPUT OUTPUT: finds stretches flattened against a channel's extreme levels and
// redraws them, then lowers the whole file by --gain dB and (unless --no-limiter) passes it
// through a look-ahead limiter.

#include <CLI/CLI.hpp>
#include <cmath>
#include <memory>
#include <optional>
#include <sstream>
#include <vector>

#include "command.h"
#include "dsp/noclip.h"
#include "errors.h"
#include "io/block_reader.h"
#include "pipeline/command_line.h"
#include "pipeline/command_support.h"
#include "pipeline/console.h"
#include "pipeline/job.h"
#include "pipeline/json_writer.h"
#include "pipeline/progress.h"
#include "pipeline/report.h"
#include "pipeline/units.h"

namespace kesta {

namespace {

constexpr int kMaxChannels = 32;

constexpr const char* kHelpFooter =
    R"help(Clipping flattens the peaks of a waveform against the largest level a recording could hold.
kesta declip reads the file twice to find them, then once more to repair them:

  1. each channel's highest and lowest sample give its clip levels;
  2. a run of at least --min-run samples in a row lying within --tolerance percent of the
     channel's peak from the highest level (or from the lowest) is a clipped stretch; samples
     quieter than -24 dBFS never count;
  3. each stretch is redrawn as a smooth continuation of the waveform on both sides of it (it may
     rise above the old clip level, as the original did) and its edges are blended with the
     audio around it. Every other sample is left exactly as it was before the output gain.

The redrawn peaks need room above the old clip level, so the whole output is lowered by --gain
(default -12 dB) and then passes through a look-ahead limiter with a ceiling of -0.1 dBFS, which
catches the rare peak that still goes over without clipping it (--no-limiter leaves it out; the
output is then delayed by nothing more than the repair itself, and integer files clip any peak
above full scale).

A stretch longer than about 11 ms at 44.1 kHz (512 samples with its margins) cannot be redrawn
and is left as it is; the report marks it as not repaired.

--report FILE lists every stretch found: channel (from 1), first sample, time in seconds, length
in samples and whether it was repaired; as JSON when FILE ends in .json, else as CSV.

The output has the input's length, format, rate and channels and is aligned with it sample for
sample. Up to 32 channels. The input must be a file that can be read more than once (not a pipe).

Exit status: 0 done; 2 wrong command line; 3 input problem; 4 output problem.

Examples:
  kesta declip live.wav live-fixed.wav
  kesta declip live.wav live-fixed.wav --tolerance 2 --min-run 4 --report clips.csv
  kesta declip mix.flac mix-fixed.flac --gain -6 --no-limiter)help";

struct DeclipOptions {
    std::string input;
    std::string output;
    double tolerance = 10.0;
    int minRun = 3;
    double gainDb = -12.0;
    bool noLimiter = false;
    std::string report;
    OutputOptions out;
    ReportOptions console;
};

void CheckSettings(const DeclipOptions& o) {
    if (!(o.tolerance > 0.0 && o.tolerance <= 100.0))
        throw UsageError("--tolerance " + FormatDb(o.tolerance) + " is out of range", "",
                         "give a percentage above 0 and at most 100");
    if (o.minRun < 1 || o.minRun > 100000)
        throw UsageError("--min-run " + std::to_string(o.minRun) + " is out of range", "",
                         "give a number of samples from 1 to 100000");
    if (!std::isfinite(o.gainDb) || o.gainDb < -60.0 || o.gainDb > 24.0)
        throw UsageError("--gain " + FormatDb(o.gainDb) + " is out of range", "", "give a gain from -60 to +24 dB");
}

bool EndsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// The ranges as CSV or JSON (by the file's extension).
std::string EncodeReport(const std::string& path, const std::vector<std::vector<dsp::utils::Range>>& ranges, int rate) {
    std::ostringstream out;
    out.precision(6);
    out << std::fixed;
    const bool json = EndsWith(path, ".json") || EndsWith(path, ".JSON");
    if (json) {
        JsonWriter writer(out);
        writer.BeginArray();
        for (std::size_t c = 0; c < ranges.size(); ++c)
            for (const auto& r : ranges[c]) {
                writer.BeginObject();
                writer.Key("channel").Number(static_cast<double>(c + 1));
                writer.Key("start").Number(static_cast<double>(r.start));
                writer.Key("start_seconds").Number(static_cast<double>(r.start) / rate);
                writer.Key("length").Number(r.length);
                writer.Key("repaired").Bool(r.done != 0);
                writer.EndObject();
            }
        writer.EndArray();
        out << "\n";
    } else {
        out << "channel,start,start_seconds,length,repaired\n";
        for (std::size_t c = 0; c < ranges.size(); ++c)
            for (const auto& r : ranges[c])
                out << c + 1 << ',' << r.start << ',' << static_cast<double>(r.start) / rate << ',' << r.length << ','
                    << (r.done != 0 ? "yes" : "no") << '\n';
    }
    return out.str();
}

// Both passes of the finder over `frames` frames of the audio `replay` streams (silence after its
// end, where it is shorter: silence holds no clipping).
std::vector<std::vector<dsp::utils::Range>> FindClips(const dsp::noclip::NOCLIPPING& record, const ReplayAudio& replay,
                                                      int64_t frames, Progress& progress) {
    dsp::noclip::FindClipping find(&record);
    const int channels = record.channels;
    std::vector<float*> pointers(static_cast<std::size_t>(channels));
    const std::vector<float> silence(std::size_t(find.GetDesiredBlockSize()), 0.0f);
    find.SetSelection(0, frames);
    find.Start(nullptr);
    for (int pass = 0; pass < 2; ++pass) {
        int64_t fed = 0;
        auto analyze = [&](const std::function<const float*(int)>& channel, int64_t available) {
            const int n = int(std::min<int64_t>(available, frames - fed));
            if (n <= 0) return;
            for (int c = 0; c < channels; ++c)  // the finder only reads the samples
                pointers[std::size_t(c)] = const_cast<float*>(channel(c));
            find.Analyze(pointers.data(), channels, n);
            fed += n;
            progress.Advance(n);
        };
        replay([&](const AudioBlock& block) {
            analyze([&](int c) { return block.Channel(c); }, int64_t(block.Frames()));
        });
        while (fed < frames)
            analyze([&](int) { return silence.data(); }, int64_t(silence.size()));
        find.IsCompleted();  // closes the pass
    }
    find.Done();
    return find.GetParam()->foundClips;
}

dsp::noclip::NOCLIPPING MakeRecord(const DeclipOptions& options, const AudioFormat& format) {
    dsp::noclip::NOCLIPPING record;
    dsp::noclip::SetDefaultParameter(&record);
    record.sampleRate = float(format.sampleRate);
    record.channels = format.channels;
    record.tolerancePercent = float(options.tolerance);
    record.minRunLength = options.minRun;
    record.gainDb = float(options.gainDb);
    record.useLimiter = !options.noLimiter;
    dsp::noclip::AllocateArrays(&record);
    return record;
}

void CheckInput(const std::string& path, const AudioFormat& format, bool readsAgain) {
    if (format.channels > kMaxChannels)
        throw InputError("cannot repair " + Quoted(path), "it has " + std::to_string(format.channels) + " channels",
                         "kesta declip handles up to 32 channels");
    if (!readsAgain)
        throw InputError("cannot repair " + Quoted(path), "it cannot be read more than once",
                         "save it to a file first");
}

class RepairStage : public Stage {
public:
    RepairStage(const dsp::noclip::NOCLIPPING& record, int64_t frames) : mRepair(&record) {
        mRepair.SetSelection(0, frames);
        mRepair.Start();
    }
    int64_t Latency() const override { return mRepair.GetLatency(); }
    void Process(float** channels, int channelCount, int frames) override {
        mRepair.Process(channels, channels, channelCount, frames);
    }
    dsp::noclip::RepairClipping& Repair() { return mRepair; }

private:
    dsp::noclip::RepairClipping mRepair;
};

int RunDeclip(const DeclipOptions& options) {
    CheckSettings(options);
    const Stopwatch clock;
    Console console(options.console);

    BlockReader reader(options.input);
    const AudioFormat& format = reader.Format();
    CheckInput(options.input, format, reader.Seekable() && reader.HeaderFrames());
    const int64_t frames = *reader.HeaderFrames();

    std::vector<SafeOutput::Input> inputs = {{options.input, reader.Identity()}};
    std::unique_ptr<SafeOutput> reportOutput;
    if (!options.report.empty())
        reportOutput = std::make_unique<SafeOutput>(options.report, inputs, options.out.force, options.out.sync);
    AudioOutput output(options.output, reader, inputs, options.out);

    dsp::noclip::NOCLIPPING record = MakeRecord(options, format);
    const Stopwatch findClock;
    {
        Progress progress("finding clipping", 2 * frames, format.sampleRate, console.ShowsProgress());
        const ReplayAudio file = [&reader](const std::function<void(const AudioBlock&)>& sink) {
            reader.Rewind();
            AudioBlock block = reader.MakeBlock();
            while (reader.Read(block))
                sink(block);
        };
        record.repairClips = FindClips(record, file, frames, progress);
    }
    const double findSeconds = findClock.Seconds();

    const Stopwatch repairClock;
    RepairStage stage(record, frames);
    reader.Rewind();
    {
        Progress progress("declip", frames, format.sampleRate, console.ShowsProgress());
        StreamStages(reader, output, {&stage}, progress);
        output.Commit();
    }
    const double repairSeconds = repairClock.Seconds();
    const auto& ranges = stage.Repair().GetParam()->repairClips;
    if (reportOutput) {
        WriteAll(reportOutput->Descriptor(), EncodeReport(options.report, ranges, format.sampleRate), options.report);
        reportOutput->Commit();
    }
    WarnAfterStream(console, reader, output, "lower --gain");

    // Per channel: stretches, samples in them, their share of the channel, stretches repaired.
    struct Found {
        int64_t stretches = 0, samples = 0, repaired = 0;
    };
    std::vector<Found> found(ranges.size());
    for (std::size_t c = 0; c < ranges.size(); ++c)
        for (const auto& r : ranges[c]) {
            ++found[c].stretches;
            found[c].samples += r.length;
            found[c].repaired += r.done != 0;
        }
    auto percent = [frames](int64_t samples) { return frames > 0 ? 100.0 * double(samples) / double(frames) : 0.0; };

    JobReport report(console, "declip");
    report.Object("settings", [&](JsonWriter& json) {
        json.Key("tolerance_percent").Number(options.tolerance);
        json.Key("min_run").Number(options.minRun);
        json.Key("gain_db").Number(options.gainDb);
        json.Key("limiter").Bool(!options.noLimiter);
    });
    report.Input(options.input, format, frames);
    report.Line(output.Summary() + ", gain " + FormatDb(options.gainDb, 1, true) + " dB" +
                (options.noLimiter ? "" : ", limited to -0.1 dBFS") + " " +
                RealTimeText(frames, format.sampleRate, repairSeconds));
    report.Json().Key("clipping").BeginArray();
    for (std::size_t c = 0; c < found.size(); ++c) {
        JsonWriter& json = report.Json();
        json.BeginObject();
        json.Key("channel").Number(double(c + 1));
        json.Key("stretches").Number(double(found[c].stretches));
        json.Key("repaired").Number(double(found[c].repaired));
        json.Key("clipped_samples").Number(double(found[c].samples));
        json.Key("clipped_percent").Number(percent(found[c].samples));
        json.EndObject();
        std::ostringstream line;
        line.precision(3);
        line << std::fixed << "Channel " << c + 1 << ": " << found[c].stretches << " clipped stretch"
             << (found[c].stretches == 1 ? "" : "es") << ", " << found[c].samples << " samples ("
             << percent(found[c].samples) << " %), " << found[c].repaired << " repaired";
        report.Line(line.str());
    }
    report.Json().EndArray();
    if (!options.report.empty()) report.Field("report", options.report).Line("Report: " + options.report);
    report.Output(output).Timing("find_seconds", findSeconds).Timing("repair_seconds", repairSeconds);
    report.RealTime(frames, format.sampleRate, repairSeconds);
    return report.Print(clock.Seconds());
}

}  // namespace

Command AddDeclipCommand(CLI::App& kesta) {
    auto options = std::make_shared<DeclipOptions>();
    CLI::App* app = kesta.add_subcommand("declip", "Find clipped peaks and redraw them");
    app->footer(kHelpFooter);
    app->add_option("INPUT", options->input, "The audio file to read")->required()->type_name("");
    app->add_option("OUTPUT", options->output, "The file to write (not INPUT)")->required()->type_name("");
    AddNumberOption(*app, "--tolerance", options->tolerance,
                    "How close to the clip level a sample must be, in percent of the channel's peak (default 10)")
        ->type_name("PERCENT");
    AddNumberOption(*app, "--min-run", options->minRun,
                    "Samples in a row at the clip level to count as clipped (default 3)")
        ->type_name("N");
    AddNumberOption(*app, "--gain", options->gainDb, "Output gain in dB, room for the redrawn peaks (default -12)")
        ->type_name("DB");
    app->add_flag("--no-limiter", options->noLimiter, "Leave out the limiter after the gain");
    app->add_option("--report", options->report, "Write every stretch found to FILE (CSV, or JSON for .json)")
        ->type_name("FILE");
    AddOutputOptions(*app, options->out);
    AddReportOptions(*app, options->console);
    return {app, [options] { return RunDeclip(*options); },
            [options](const StageInput& in) -> std::unique_ptr<Stage> {
                CheckSettings(*options);
                if (!options->report.empty())
                    throw UsageError("a declip step does not list its stretches", "",
                                     "run 'kesta declip --report FILE' on its own for the list");
                CheckInput(in.path, in.format, in.frames && in.replay);
                dsp::noclip::NOCLIPPING record = MakeRecord(*options, in.format);
                Progress progress("declip: finding clipping", 2 * *in.frames, in.format.sampleRate,
                                  in.console.ShowsProgress());
                record.repairClips = FindClips(record, in.replay, *in.frames, progress);
                return std::make_unique<RepairStage>(record, *in.frames);
            }};
}

}  // namespace kesta
