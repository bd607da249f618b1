// kesta limit INPUT OUTPUT: a look-ahead peak limiter that keeps every sample at or under a ceiling.

#include <CLI/CLI.hpp>
#include <cmath>
#include <memory>

#include "command.h"
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

constexpr const char* kHelpFooter =
    R"help(The limiter first applies --gain, then looks --lookahead milliseconds ahead for peaks: it lowers
the level in a straight line so that it has come down just enough when a peak arrives, and
brings it back up afterwards, falling to 15 % of the reduction over --release milliseconds.
Anything that would still exceed --ceiling is cut to it, so no output sample is ever above it.
With the channels linked (the default) every channel gets the same gain, which keeps the stereo
image; --unlink limits each channel on its own.

  --ceiling DB     the largest output level, -100 to 0 dBFS (default -0.1)
  --gain DB        gain before the limiter, -100 to +50 dB (default 0): raise it to make a file
                   louder with its peaks held under the ceiling
  --lookahead MS   5 to 20 ms (default 7): longer catches a peak more gently
  --release MS     40 to 200 ms (default 100): shorter recovers faster, longer pumps less

The limiter delays its signal by 20 ms; kesta compensates, so the output has the input's length
and is aligned with it sample for sample.

Exit status: 0 done; 2 wrong command line; 3 input problem; 4 output problem.

Examples:
  kesta limit mix.wav mix-limited.wav --gain 6
  kesta limit dialog.wav dialog-safe.wav --ceiling -1 --release 60 --unlink)help";

struct LimitOptions {
    std::string input;
    std::string output;
    double ceilingDb = -0.1;
    double gainDb = 0.0;
    double lookaheadMs = 7.0;
    double releaseMs = 100.0;
    bool unlink = false;
    OutputOptions out;
    ReportOptions report;
};

void CheckRange(const char* option, double value, double lo, double hi, const std::string& unit) {
    if (!std::isfinite(value) || value < lo || value > hi)
        throw UsageError(std::string(option) + " " + FormatDb(value) + " is out of range", "",
                         "give a value from " + FormatDb(lo, 0) + " to " + FormatDb(hi, 0) + " " + unit);
}

class LimitStage : public Stage {
public:
    LimitStage(const LimitOptions& o, int channels, int rate) {
        mLimiter.SetChannels(channels);
        mLimiter.SetSampleRate(rate);
        mLimiter.SetParameter(dsp::HardLimit::kCeiling, float(o.ceilingDb));
        mLimiter.SetParameter(dsp::HardLimit::kInputGain, float(o.gainDb));
        mLimiter.SetParameter(dsp::HardLimit::kLookAhead, float(o.lookaheadMs));
        mLimiter.SetParameter(dsp::HardLimit::kRelease, float(o.releaseMs));
        mLimiter.SetParameter(dsp::HardLimit::kLink, o.unlink ? 0.0f : 1.0f);
        mLimiter.Resume();
    }
    int64_t Latency() const override { return mLimiter.GetLatency(); }
    void Process(float** channels, int, int frames) override { mLimiter.Process(channels, channels, frames); }

private:
    dsp::HardLimit mLimiter;
};

void CheckSettings(const LimitOptions& options) {
    CheckRange("--ceiling", options.ceilingDb, -100.0, 0.0, "dB");
    CheckRange("--gain", options.gainDb, -100.0, 50.0, "dB");
    CheckRange("--lookahead", options.lookaheadMs, 5.0, 20.0, "ms");
    CheckRange("--release", options.releaseMs, 40.0, 200.0, "ms");
}

void CheckRate(const std::string& input, const AudioFormat& format) {
    if (format.sampleRate < 100)
        throw InputError("cannot limit " + Quoted(input),
                         "its sample rate of " + std::to_string(format.sampleRate) + " Hz is too low",
                         "the limiter needs at least 100 Hz");
}

std::unique_ptr<Stage> MakeLimitStage(const LimitOptions& options, const StageInput& in) {
    CheckSettings(options);
    CheckRate(in.path, in.format);
    return std::make_unique<LimitStage>(options, in.format.channels, in.format.sampleRate);
}

Processing LimitJob(std::shared_ptr<LimitOptions> options) {
    Processing job = ProcessingOf("limit", *options);
    job.timed = true;
    job.check = [options] { CheckSettings(*options); };
    job.stage = [options](const StageInput& in) { return MakeLimitStage(*options, in); };
    job.clippingAdvice = [](const AudioOutput&) { return "lower --ceiling"; };
    job.describe = [options](JobReport& report, const ProcessingDone& done) {
        const LimitOptions& o = *options;
        report.Object("settings", [&](JsonWriter& json) {
            json.Key("ceiling_db").Number(o.ceilingDb);
            json.Key("gain_db").Number(o.gainDb);
            json.Key("lookahead_ms").Number(o.lookaheadMs);
            json.Key("release_ms").Number(o.releaseMs);
            json.Key("linked").Bool(!o.unlink);
        });
        return ", gain " + FormatDb(o.gainDb, 1, true) + " dB, ceiling " + FormatDb(o.ceilingDb, 1) + " dBFS" +
               (o.unlink ? " (channels unlinked)" : "") + ", peak " + FormatDb(LinearToDb(done.output.Peak())) +
               " dBFS";
    };
    return job;
}

}  // namespace

Command AddLimitCommand(CLI::App& kesta) {
    auto options = std::make_shared<LimitOptions>();
    CLI::App* app = kesta.add_subcommand("limit", "Hold every peak under a ceiling with a look-ahead limiter");
    app->footer(kHelpFooter);
    app->add_option("INPUT", options->input, "The audio file to read")->required()->type_name("");
    app->add_option("OUTPUT", options->output, "The file to write (not INPUT)")->required()->type_name("");
    AddNumberOption(*app, "--ceiling", options->ceilingDb, "Largest output level in dBFS, -100 to 0 (default -0.1)")
        ->type_name("DB");
    AddNumberOption(*app, "--gain", options->gainDb, "Gain before the limiter in dB, -100 to +50 (default 0)")
        ->type_name("DB");
    AddNumberOption(*app, "--lookahead", options->lookaheadMs, "Look-ahead in ms, 5 to 20 (default 7)")
        ->type_name("MS");
    AddNumberOption(*app, "--release", options->releaseMs, "Release time in ms, 40 to 200 (default 100)")
        ->type_name("MS");
    app->add_flag("--unlink", options->unlink, "Limit each channel on its own");
    AddOutputOptions(*app, options->out);
    AddReportOptions(*app, options->report);
    return {app, [options] { return RunProcessing(LimitJob(options)); }, LimitJob(options).stage};
}

}  // namespace kesta
