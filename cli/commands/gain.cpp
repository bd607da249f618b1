// kesta gain INPUT OUTPUT --db X: changes the level of a file by a fixed number of decibels.

#include <CLI/CLI.hpp>
#include <cmath>
#include <memory>

#include "command.h"
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
--bits 8, 16, 24 or 32 writes integer samples of that size, --float 32-bit float samples, in
any container that holds them (WAV, AIFF, FLAC for integers up to 24 bits, ...).

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
    OutputOptions out;
    ReportOptions report;
};

void CheckGain(double db) {
    if (!std::isfinite(db) || std::fabs(db) > kLargestGainDb)
        throw UsageError("--db " + FormatDb(db) + " is out of range", "", "give a gain between -200 and +200 dB");
}

Processing GainJob(std::shared_ptr<GainOptions> options) {
    Processing job = ProcessingOf("gain", *options);
    job.check = [options] { CheckGain(options->db); };
    job.stage = [options](const StageInput&) {
        CheckGain(options->db);
        return MakeGainStage(options->db);
    };
    job.clippingAdvice = [options](const AudioOutput& output) {
        const double peak = LinearToDb(output.UnclippedPeak());
        return "the peak would have been " + FormatDb(peak, 2, true) + " dBFS; use a gain " +
               FormatDb(options->db - peak, 2, true) + " dB or lower to avoid it";
    };
    job.describe = [options](JobReport& report, const ProcessingDone& done) {
        report.Field("gain_db", options->db);
        return ", gain " + FormatDb(options->db, 2, true) + " dB, peak " + FormatDb(LinearToDb(done.output.Peak())) +
               " dBFS";
    };
    return job;
}

}  // namespace

std::unique_ptr<Stage> MakeGainStage(double db) {
    const float factor = float(DbToLinear(db));
    return MakeStage(
        0,
        [factor](float** channels, int channelCount, int frames) {
            for (int c = 0; c < channelCount; ++c)
                for (int i = 0; i < frames; ++i)
                    channels[c][i] *= factor;
        },
        true);
}

Command AddGainCommand(CLI::App& kesta) {
    auto options = std::make_shared<GainOptions>();
    CLI::App* app = kesta.add_subcommand("gain", "Make a file louder or quieter by a number of decibels");
    app->footer(kHelpFooter);
    app->add_option("INPUT", options->input, "The audio file to read")->required()->type_name("");
    app->add_option("OUTPUT", options->output, "The file to write (not INPUT)")->required()->type_name("");
    AddNumberOption(*app, "--db", options->db, "Gain in dB: +6.02 doubles, -6.02 halves the amplitude")
        ->required()
        ->type_name("DB");
    AddOutputOptions(*app, options->out);
    AddReportOptions(*app, options->report);
    AddBatchOptions(*app, options->out.batch);
    return {app, [options] { return RunProcessing(GainJob(options)); }, GainJob(options).stage};
}

}  // namespace kesta
