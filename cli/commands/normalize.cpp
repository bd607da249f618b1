// kesta normalize INPUT OUTPUT --lufs -23 --true-peak -1: brings a file to a programme loudness
// with one gain, and holds its true peak under a ceiling with the limiter only where it must.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "command.h"
#include "commands/loudness_meters.h"
#include "dsp/hard_limit.h"
#include "errors.h"
#include "io/block_reader.h"
#include "pipeline/command_line.h"
#include "pipeline/console.h"
#include "pipeline/job.h"
#include "pipeline/json_writer.h"
#include "pipeline/progress.h"
#include "pipeline/report.h"
#include "pipeline/units.h"

namespace kesta {

namespace {

constexpr double kLoudnessTolerance = 0.05;  // LU: how close the limited runs settle on the target
constexpr int kLimiterRuns = 5;              // trial runs of gain and limiter before the output is written
// Meters of different makers read peaks between samples a few hundredths of a dB apart; aiming this
// far under the ceiling keeps the output under it on any of them.
constexpr double kPeakMargin = 0.1;

constexpr const char* kHelpFooter =
    R"help(Measures the file's integrated loudness (K-weighted and gated, in LUFS) and true peak (the
highest level between the samples, in dBTP), then changes its level by one gain so that it
measures --lufs. The waveform is otherwise untouched.

When that gain would take the true peak above --true-peak (less 0.1 dB, as true-peak meters
differ by some hundredths of a dB), the look-ahead limiter (7 ms
look-ahead, 100 ms release, channels linked) holds the peaks down after the gain. kesta then
reads the file again to settle the gain and the limiter's ceiling so that the output measures
--lufs within 0.05 LU and its true peak stays 0.1 dB under --true-peak, and says so in the report.
  --lufs LUFS        target loudness, -70 to -5 (default -23, the broadcast target)
  --true-peak DBTP   largest true peak, -20 to 0 (default -1)

The output keeps the input's format, rate and channels (see --bits and --float for another
encoding); an integer encoding rounds the samples, which moves the true peak by far less than
0.01 dB. The input must be a file (it is read at least twice). A file of digital silence, or one
quieter than -70 LUFS throughout, has no loudness to normalise and is refused.

Exit status: 0 done; 2 wrong command line; 3 input problem; 4 output problem.

Examples:
  kesta normalize interview.wav interview-r128.wav
  kesta normalize song.flac song-14.flac --lufs -14 --true-peak -1
  kesta normalize --json podcast.wav podcast-16.wav --lufs -16)help";

struct NormalizeOptions {
    std::string input;
    std::string output;
    double lufs = -23.0;
    double truePeak = -1.0;
    OutputOptions out;
    ReportOptions report;
};

void CheckRange(const char* option, double value, double lo, double hi, const char* unit) {
    if (!std::isfinite(value) || value < lo || value > hi)
        throw UsageError(std::string(option) + " " + FormatDb(value) + " is out of range", "",
                         "give a value from " + FormatDb(lo, 0) + " to " + FormatDb(hi, 0) + " " + unit);
}

class LimitStage : public Stage {
public:
    LimitStage(int channels, int rate, double ceilingDb) {
        mLimiter.SetChannels(channels);
        mLimiter.SetSampleRate(rate);
        mLimiter.SetParameter(dsp::HardLimit::kCeiling, float(ceilingDb));
        mLimiter.Resume();
    }
    int64_t Latency() const override { return mLimiter.GetLatency(); }
    void Process(float** channels, int, int frames) override { mLimiter.Process(channels, channels, frames); }

private:
    dsp::HardLimit mLimiter;
};

// The gain, and the limiter's sample ceiling when one is needed.
struct Plan {
    double gainDb = 0.0;
    std::optional<double> limiterCeilingDb;
};

struct Measured {
    LoudnessFigures figures;
    int64_t frames = 0;
};

// The plan's processors: the gain, then the limiter when there is one.
struct PlanStages {
    std::unique_ptr<Stage> gain;
    std::unique_ptr<LimitStage> limiter;
    std::vector<Stage*> list;
    PlanStages(const Plan& plan, const AudioFormat& format) : gain(MakeGainStage(plan.gainDb)), list{gain.get()} {
        if (!plan.limiterCeilingDb) return;
        limiter = std::make_unique<LimitStage>(format.channels, format.sampleRate, *plan.limiterCeilingDb);
        list.push_back(limiter.get());
    }
};

// Streams the file from its start through the plan's stages into the meters, as the output would be.
Measured MeasureThrough(BlockReader& reader, const Plan& plan, Progress& progress) {
    const AudioFormat& format = reader.Format();
    reader.Rewind();
    const PlanStages stages(plan, format);
    LoudnessMeters meters(format.channels, format.sampleRate);
    Measured measured;
    measured.frames =
        StreamToSink(reader, stages.list, progress, [&](const AudioBlock& block, int64_t) { meters.Add(block); });
    measured.figures = meters.Figures();
    return measured;
}

int RunNormalize(const NormalizeOptions& options) {
    CheckRange("--lufs", options.lufs, -70.0, -5.0, "LUFS");
    CheckRange("--true-peak", options.truePeak, -20.0, 0.0, "dBTP");
    const Stopwatch clock;
    Console console(options.report);

    BlockReader reader(options.input);
    const AudioFormat& format = reader.Format();
    if (!reader.Seekable() || !reader.HeaderFrames())
        throw InputError("cannot normalise " + Quoted(options.input), "it cannot be read more than once",
                         "save it to a file first");
    if (format.channels > dsp::Itu1770::kMaxChannels)
        throw InputError("cannot normalise " + Quoted(options.input),
                         "it has " + std::to_string(format.channels) + " channels", "kesta normalize handles up to 32");
    if (format.sampleRate < dsp::Itu1770::kMinSampleRate || format.sampleRate > dsp::Itu1770::kMaxSampleRate)
        throw InputError(
            "cannot normalise " + Quoted(options.input),
            "its sample rate of " + std::to_string(format.sampleRate) + " Hz is outside what the meter measures",
            "resample it to a rate from 8000 to 768000 Hz first");
    const int64_t frames = *reader.HeaderFrames();
    AudioOutput output(options.output, reader, {{options.input, reader.Identity()}}, options.out);

    // The input as it is.
    Plan plan;
    Measured input;
    {
        Progress progress("measuring", frames, format.sampleRate, console.ShowsProgress());
        input = MeasureThrough(reader, plan, progress);
    }
    if (!std::isfinite(input.figures.integratedLufs))
        throw InputError("cannot normalise " + Quoted(options.input), "it has no loudness above -70 LUFS (silence)",
                         "check that it holds the audio meant");
    plan.gainDb = options.lufs - input.figures.integratedLufs;
    const double peakAfterGain = input.figures.truePeakDbtp + plan.gainDb;
    const double aim = options.truePeak - kPeakMargin;

    // The limiter only where the gain would take the true peak over the ceiling: trial runs settle
    // its ceiling (lowered by what still passes between the samples) and the gain (raised by what
    // the limiting takes off the loudness).
    int trialRuns = 0;
    if (peakAfterGain > aim) {
        plan.limiterCeilingDb = aim;
        for (; trialRuns < kLimiterRuns; ++trialRuns) {
            Progress progress("settling the limiter", frames, format.sampleRate, console.ShowsProgress());
            const Measured trial = MeasureThrough(reader, plan, progress);
            const double over = trial.figures.truePeakDbtp - aim;
            const double miss = options.lufs - trial.figures.integratedLufs;
            if (over <= 0.0 && std::fabs(miss) <= kLoudnessTolerance) break;
            if (over > 0.0) *plan.limiterCeilingDb -= over + 0.01;
            plan.gainDb += miss;
        }
    }

    // The output, measured as it is written.
    reader.Rewind();
    const PlanStages stages(plan, format);
    LoudnessMeters written(format.channels, format.sampleRate);
    {
        Progress progress("normalize", frames, format.sampleRate, console.ShowsProgress());
        StreamWatchers watchers;
        watchers.output = [&](const AudioBlock& block, int64_t) { written.Add(block); };
        StreamStages(reader, output, stages.list, progress, watchers);
        output.Commit();
    }
    const LoudnessFigures result = written.Figures();
    WarnAfterStream(console, reader, output, "write a float file with --float, or lower --true-peak");
    if (plan.limiterCeilingDb && (result.truePeakDbtp > options.truePeak ||
                                  std::fabs(result.integratedLufs - options.lufs) > 2 * kLoudnessTolerance))
        console.Warn("the limiter did not settle in " + std::to_string(kLimiterRuns) + " runs: the output measures " +
                     FormatDb(result.integratedLufs, 2) + " LUFS with a true peak of " +
                     FormatDb(result.truePeakDbtp, 2) + " dBTP");

    JobReport report(console, "normalize");
    report.Object("settings", [&](JsonWriter& json) {
        json.Key("target_lufs").Number(options.lufs);
        json.Key("true_peak_ceiling_dbtp").Number(options.truePeak);
    });
    report.Object("input", [&](JsonWriter& json) {
        json.Key("file").String(options.input);
        WriteAudioFields(json, format, reader.FramesRead());
        WriteLoudnessFields(json, input.figures);
    });
    report.Field("gain_db", plan.gainDb).Object("limiter", [&](JsonWriter& json) {
        json.Key("used").Bool(plan.limiterCeilingDb.has_value());
        json.Key("peak_without_dbtp").Number(peakAfterGain);
        if (plan.limiterCeilingDb) {
            json.Key("sample_ceiling_dbfs").Number(*plan.limiterCeilingDb);
            json.Key("trial_runs").Int(trialRuns + 1);
        }
    });
    report.Output(output, [&](JsonWriter& json) { WriteLoudnessFields(json, result); });
    report.Line("Input:  " + FormatDb(input.figures.integratedLufs, 1) + " LUFS, true peak " +
                FormatDb(input.figures.truePeakDbtp, 2) + " dBTP");
    std::string gain = "Gain:   " + FormatDb(plan.gainDb, 2, true) + " dB";
    if (plan.limiterCeilingDb)
        gain += "; the true peak would have reached " + FormatDb(peakAfterGain, 2) +
                " dBTP, so the limiter holds it under " + FormatDb(options.truePeak, 1) + " dBTP";
    report.Line(gain).Line(output.Summary() + ": " + FormatDb(result.integratedLufs, 1) + " LUFS, true peak " +
                           FormatDb(result.truePeakDbtp, 2) + " dBTP");
    return report.Print(clock.Seconds());
}

}  // namespace

Command AddNormalizeCommand(CLI::App& kesta) {
    auto options = std::make_shared<NormalizeOptions>();
    CLI::App* app = kesta.add_subcommand("normalize", "Bring a file to a loudness in LUFS under a true-peak ceiling");
    app->footer(kHelpFooter);
    app->add_option("INPUT", options->input, "The audio file to read")->required()->type_name("");
    app->add_option("OUTPUT", options->output, "The file to write (not INPUT)")->required()->type_name("");
    AddNumberOption(*app, "--lufs", options->lufs, "Target integrated loudness in LUFS, -70 to -5 (default -23)")
        ->type_name("LUFS");
    AddNumberOption(*app, "--true-peak", options->truePeak, "Largest true peak in dBTP, -20 to 0 (default -1)")
        ->type_name("DBTP");
    AddOutputOptions(*app, options->out);
    AddReportOptions(*app, options->report);
    return {app, [options] { return RunNormalize(*options); }};
}

}  // namespace kesta
