// kesta generate OUTPUT --noise white: writes reproducible noise.

#include <sndfile.h>

#include <CLI/CLI.hpp>
#include <cmath>
#include <memory>
#include <vector>

#include "command.h"
#include "dsp/white_noise.h"
#include "errors.h"
#include "pipeline/command_line.h"
#include "pipeline/console.h"
#include "pipeline/job.h"
#include "pipeline/json_writer.h"
#include "pipeline/progress.h"
#include "pipeline/report.h"
#include "pipeline/units.h"

namespace kesta {

namespace {

constexpr int kLowestRate = 1000;
constexpr int kHighestRate = 768000;
constexpr int kMostChannels = 32;
constexpr double kLongestSeconds = 24.0 * 3600.0;

constexpr const char* kHelpFooter =
    R"help(Writes --length seconds of white noise: every sample drawn uniformly between -level and +level
(a flat spectrum; the RMS is 4.77 dB below the peak level) from the library's own generator, so
the same --seed gives the same file, sample for sample, on every machine. Channel c (from 0)
draws from seed + c, so channels are independent.

  --noise KIND     white (the kind there is; default)
  --seed N         0 to 4294967295 (default 1)
  --length S       seconds, above 0 and up to 24 hours (required); the file holds
                   round(S x rate) frames
  --rate HZ        1000 to 768000 (default 48000)
  --channels N     1 to 32 (default 1)
  --level DB       peak level in dBFS, -120 to 0 (default -6)
  --bits N         8, 16, 24 or 32 (default 24), or --float

OUTPUT's extension chooses the container (.wav without one).

Exit status: 0 done; 2 wrong command line; 4 output problem.

Examples:
  kesta generate noise.wav --length 10
  kesta generate hiss.flac --length 2.5 --rate 44100 --channels 2 --level -40 --seed 7 --bits 16)help";

struct GenerateOptions {
    std::string output;
    std::string noise = "white";
    unsigned int seed = 1;
    double seconds = 0.0;
    int rate = 48000;
    int channels = 1;
    double levelDb = -6.0;
    OutputOptions out;
    ReportOptions report;
};

void Check(const GenerateOptions& o) {
    if (o.noise != "white") throw UsageError("unknown --noise " + Quoted(o.noise), "", "the kind there is: white");
    if (!(o.seconds > 0.0 && o.seconds <= kLongestSeconds))
        throw UsageError("--length " + FormatDb(o.seconds, 3) + " is out of range", "",
                         "give a length in seconds above 0 and up to 86400");
    if (o.rate < kLowestRate || o.rate > kHighestRate)
        throw UsageError("--rate " + std::to_string(o.rate) + " is out of range", "",
                         "give a rate from 1000 to 768000 Hz");
    if (o.channels < 1 || o.channels > kMostChannels)
        throw UsageError("--channels " + std::to_string(o.channels) + " is out of range", "", "give 1 to 32 channels");
    if (!(o.levelDb >= -120.0 && o.levelDb <= 0.0))
        throw UsageError("--level " + FormatDb(o.levelDb) + " is out of range", "",
                         "give a peak level from -120 to 0 dBFS");
}

class WhiteNoiseGenerator : public Generator {
public:
    WhiteNoiseGenerator(unsigned int seed, int channels, double peak) : mPeak(peak) {
        for (int c = 0; c < channels; ++c)
            mSources.emplace_back(seed + static_cast<unsigned int>(c));
    }
    void Generate(float** channels, int channelCount, int frames) override {
        for (int c = 0; c < channelCount; ++c)
            for (int i = 0; i < frames; ++i)
                channels[c][i] =
                    static_cast<float>(mPeak * (2.0 * mSources[static_cast<std::size_t>(c)].fRandom() - 1.0));
    }

private:
    double mPeak;
    std::vector<dsp::WhiteNoise> mSources;
};

int RunGenerate(const GenerateOptions& options) {
    Check(options);
    const Stopwatch clock;
    Console console(options.report);

    const auto frames = static_cast<int64_t>(std::llround(options.seconds * options.rate));
    AudioFormat basis;
    basis.sndfileFormat = SF_FORMAT_WAV | SF_FORMAT_PCM_24;
    basis.sampleRate = options.rate;
    basis.channels = options.channels;
    AudioOutput output(options.output, basis, frames, options.out);
    WhiteNoiseGenerator noise(options.seed, options.channels, DbToLinear(options.levelDb));
    {
        Progress progress("generate", frames, options.rate, console.ShowsProgress());
        StreamGenerated(noise, frames, output, {}, progress);
        output.Commit();
    }

    JobReport report(console, "generate");
    report.Object("settings", [&](JsonWriter& json) {
        json.Key("noise").String(options.noise);
        json.Key("seed").Int(options.seed);
        json.Key("level_db").Number(options.levelDb);
    });
    report.Output(output).Line(output.Summary() + ", white noise, seed " + std::to_string(options.seed) +
                               ", peak level " + FormatDb(options.levelDb, 1) + " dBFS");
    return report.Print(clock.Seconds());
}

}  // namespace

Command AddGenerateCommand(CLI::App& kesta) {
    auto options = std::make_shared<GenerateOptions>();
    CLI::App* app = kesta.add_subcommand("generate", "Write reproducible white noise");
    app->footer(kHelpFooter);
    app->add_option("OUTPUT", options->output, "The file to write")->required()->type_name("");
    app->add_option("--noise", options->noise, "Kind of noise: white (default)")->type_name("KIND");
    AddNumberOption(*app, "--seed", options->seed, "Seed of the generator, 0 to 4294967295 (default 1)")
        ->type_name("N");
    AddNumberOption(*app, "--length", options->seconds, "Length in seconds")->required()->type_name("S");
    AddNumberOption(*app, "--rate", options->rate, "Sample rate in Hz, 1000 to 768000 (default 48000)")
        ->type_name("HZ");
    AddNumberOption(*app, "--channels", options->channels, "Channels, 1 to 32 (default 1)")->type_name("N");
    AddNumberOption(*app, "--level", options->levelDb, "Peak level in dBFS, -120 to 0 (default -6)")->type_name("DB");
    AddOutputOptions(*app, options->out);
    AddReportOptions(*app, options->report);
    return {app, [options] { return RunGenerate(*options); }};
}

}  // namespace kesta
