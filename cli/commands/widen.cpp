// kesta widen INPUT OUTPUT: widens or narrows a stereo image and turns it about its centre.

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <memory>

#include "command.h"
#include "dsp/stereo_expander.h"
#include "errors.h"
#include "io/block_reader.h"
#include "pipeline/batch.h"
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
    R"help(Mixes the two channels of a stereo file through one fixed matrix: the side (left minus right)
is scaled by --width, the middle (left plus right) kept, and --center turns the image towards
one side, with the level raised to keep the loudness as it turns.

  --width PERCENT    0 to 300 (default 100): 100 leaves the image as it is, 0 folds both
                     channels to their mono mix (left + right) / 2, 200 doubles the side, 300
                     triples it (left' = 2 left - right)
  --center PERCENT   -100 to 100 (default 0): 100 turns the image a quarter turn so that
                     left' = (left - right) / sqrt 2 and right' = (left + right) / sqrt 2;
                     -100 the other way

Widening raises the level of whatever differs between the channels, so a wide setting may clip
an integer file: kesta says how many samples, and a float output (--float) keeps them all.
There is no delay: the output has the input's length and is aligned with it. A mono file is
copied unchanged; in a file of more than two channels only the first two are mixed.

Exit status: 0 done; 2 wrong command line; 3 input problem; 4 output problem.

Examples:
  kesta widen mix.wav mix-wide.wav --width 150
  kesta widen interview.wav centred.wav --width 40 --center -20)help";

struct WidenOptions {
    std::string input;
    std::string output;
    double width = 100.0;
    double center = 0.0;
    OutputOptions out;
    ReportOptions report;
};

std::string Percent(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

void CheckWidenSettings(const WidenOptions& o) {
    if (!std::isfinite(o.width) || o.width < 0.0 || o.width > 300.0)
        throw UsageError("--width " + Percent(o.width) + " is out of range", "", "give a width from 0 to 300 %");
    if (!std::isfinite(o.center) || o.center < -100.0 || o.center > 100.0)
        throw UsageError("--center " + Percent(o.center) + " is out of range", "", "give a centre from -100 to 100 %");
}

class WidenStage : public Stage {
public:
    WidenStage(const WidenOptions& o, int channels) {
        mExpander.SetChannels(channels);
        mExpander.SetParameter(dsp::StereoExpanderDSP::kCenter, float(o.center));
        mExpander.SetParameter(dsp::StereoExpanderDSP::kWidth, float(o.width));
        mExpander.Resume();
    }
    int64_t Latency() const override { return 0; }
    void Process(float** channels, int, int frames) override { mExpander.Process(channels, channels, frames); }
    bool Light() const override { return true; }

private:
    dsp::StereoExpanderDSP mExpander;
};

std::unique_ptr<Stage> MakeWidenStage(const WidenOptions& options, const StageInput& in) {
    CheckWidenSettings(options);
    return std::make_unique<WidenStage>(options, in.format.channels);
}

Processing WidenJob(std::shared_ptr<WidenOptions> options) {
    Processing job = ProcessingOf("widen", *options);
    job.timed = true;
    job.check = [options] { CheckWidenSettings(*options); };
    job.stage = [options](const StageInput& in) {
        if (in.format.channels == 1)
            in.console.Warn(Quoted(in.path) + " is mono: it is copied unchanged (widening needs two channels)");
        else if (in.format.channels > 2)
            in.console.Warn("only the first two of the " + std::to_string(in.format.channels) + " channels are mixed");
        return MakeWidenStage(*options, in);
    };
    job.clippingAdvice = [](const AudioOutput&) { return "use a smaller --width, or --float"; };
    job.describe = [options](JobReport& report, const ProcessingDone& done) {
        report.Object("settings", [&](JsonWriter& json) {
            json.Key("width_percent").Number(options->width);
            json.Key("center_percent").Number(options->center);
        });
        return ", width " + Percent(options->width) + " %, centre " + Percent(options->center) + " %, peak " +
               FormatDb(LinearToDb(done.output.Peak())) + " dBFS";
    };
    return job;
}

}  // namespace

Command AddWidenCommand(CLI::App& kesta) {
    auto options = std::make_shared<WidenOptions>();
    CLI::App* app = kesta.add_subcommand("widen", "Widen, narrow or turn a stereo image");
    app->footer(kHelpFooter);
    app->add_option("INPUT", options->input, "The audio file to read")->required()->type_name("");
    app->add_option("OUTPUT", options->output, "The file to write (not INPUT)")->required()->type_name("");
    AddNumberOption(*app, "--width", options->width, "Stereo width in %, 0 (mono) to 300 (default 100: unchanged)")
        ->type_name("PERCENT");
    AddNumberOption(*app, "--center", options->center, "Turn of the image in %, -100 to 100 (default 0)")
        ->type_name("PERCENT");
    AddOutputOptions(*app, options->out);
    AddReportOptions(*app, options->report);
    AddBatchOptions(*app, options->out.batch);
    return {app, [options] { return RunProcessing(WidenJob(options)); },
            [options](const StageInput& in) { return MakeWidenStage(*options, in); }};
}

}  // namespace kesta
