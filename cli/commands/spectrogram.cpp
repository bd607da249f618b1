// kesta spectrogram IN OUT.png: a picture of a file's level over time and frequency; with
// --compare OTHER, a before/after pair on matching scales.

#include <CLI/CLI.hpp>
#include <memory>

#include "command.h"
#include "errors.h"
#include "pictures/picture_job.h"
#include "pictures/spectrogram_image.h"
#include "pipeline/command_line.h"
#include "pipeline/job.h"
#include "pipeline/json_writer.h"

namespace kesta {

namespace {

constexpr const char* kHelpFooter =
    R"help(Draws a spectrogram as a PNG picture: time from left to right, frequency from bottom to top, and
the level in each place as a colour on the scale beside it, in dB below full scale (a sine at
full scale reads 0 dB). Steady noise shows as an even haze, hiss as a haze that rises towards
the top, tones as horizontal lines, clicks as thin vertical lines across many frequencies.

Each column of pixels shows the mean power of the FFT frames that fall in it (the file is read
once, so long files need little memory); the frames overlap by at least three quarters.

--compare OTHER draws OTHER below INPUT with the same time, frequency and level scales, for a
before/after view of a repair: what was removed shows as a darker area in the second picture.

  --scale log|linear   frequency axis: log (20 Hz up, the default) spreads the low octaves out
  --window NAME        blackman-harris (default), hann, hamming, blackman, kaiser, triangular, welch
  --fft-size N         frame length, a power of two from 256 to 32768 (default 2048): longer
                       separates frequencies better and smears time more
  --range DB           levels shown, from 0 dBFS down to -DB (20 to 200, default 120)

Exit status: 0 done; 2 wrong command line; 3 input problem; 4 output problem.

Examples:
  kesta spectrogram take1.wav take1.png
  kesta spectrogram tape.wav before-after.png --compare tape-clean.wav --range 100
  kesta spectrogram voice.flac voice.png --scale linear --fft-size 1024 --width 1600)help";

struct SpectrogramOptions {
    std::string input;
    std::string compare;
    std::string scale = "log";
    std::string window = "blackman-harris";
    int fftSize = 2048;
    double rangeDb = 120.0;
    PictureOptions picture;
};

SpectrogramSettings CheckOptions(const SpectrogramOptions& o) {
    SpectrogramSettings settings;
    if (o.scale != "log" && o.scale != "linear")
        throw UsageError("--scale " + Quoted(o.scale) + " is not a frequency scale", "", "give log or linear");
    settings.logFrequency = o.scale == "log";
    bool known = false;
    std::vector<std::string> names;
    for (const WindowName& w : SpectrogramWindows()) {
        names.push_back(w.name);
        if (o.window == w.name) {
            settings.window = w.shape;
            known = true;
        }
    }
    if (!known) {
        const std::string nearest = NearestName(o.window, names);
        throw UsageError("--window " + Quoted(o.window) + " is not a window",
                         nearest.empty() ? "" : "did you mean " + nearest + "?",
                         "give blackman-harris, hann, hamming, blackman, kaiser, triangular or welch");
    }
    if (o.fftSize < 256 || o.fftSize > 32768 || (o.fftSize & (o.fftSize - 1)) != 0)
        throw UsageError("--fft-size " + std::to_string(o.fftSize) + " is not allowed", "",
                         "give a power of two from 256 to 32768");
    settings.fftSize = o.fftSize;
    CheckSetting("--range", o.rangeDb, 20.0, 200.0, "dB");
    settings.rangeDb = o.rangeDb;
    return settings;
}

int RunSpectrogram(const SpectrogramOptions& options) {
    const Stopwatch clock;
    const SpectrogramSettings settings = CheckOptions(options);
    Console console(options.picture.report);
    std::vector<PictureInput> inputs;
    inputs.push_back(OpenPictureInput(options.input));
    if (!options.compare.empty()) inputs.push_back(OpenPictureInput(options.compare));

    const int panels = int(inputs.size());
    const int height =
        options.picture.height != PictureOptions::kDefaultHeight ? options.picture.height : 200 + 400 * panels;
    std::vector<SafeOutput::Input> identities;
    for (const PictureInput& input : inputs)
        identities.push_back({input.path, input.reader->Identity()});
    const auto output = PrepareOutput(options.picture, height, 100 + 140 * panels, identities);

    Canvas canvas(options.picture.width, height);
    std::vector<SpectrogramSource> sources;
    for (PictureInput& input : inputs)
        sources.push_back({input.path, input.reader.get(), input.frames});
    DrawSpectrograms(canvas, sources, settings, console.ShowsProgress());
    SavePicture(canvas, *output);

    std::vector<std::string> paths;
    for (const PictureInput& input : inputs)
        paths.push_back(input.path);
    ReportPicture(
        console, "spectrogram", paths, options.picture, height, clock.Seconds(),
        [&](JsonWriter& json) {
            json.Key("fft_size").Int(settings.fftSize);
            json.Key("window").String(options.window);
            json.Key("scale").String(options.scale);
            json.Key("range_db").Number(settings.rangeDb);
        },
        ", " + options.scale + " frequency, " + std::to_string(settings.fftSize) + "-point " + options.window +
            " frames, 0 to -" + FormatValue(settings.rangeDb) + " dBFS");
    return kExitOk;
}

}  // namespace

Command AddSpectrogramCommand(CLI::App& kesta) {
    auto options = std::make_shared<SpectrogramOptions>();
    CLI::App* app = kesta.add_subcommand("spectrogram", "Draw a file's spectrogram (or a before/after pair) as PNG");
    app->footer(kHelpFooter);
    app->add_option("INPUT", options->input, "The audio file to draw")->required()->type_name("");
    app->add_option("OUTPUT", options->picture.output, "The picture to write (FILE.png)")->required()->type_name("");
    app->add_option("--compare", options->compare, "A second file drawn below INPUT on the same scales")
        ->type_name("OTHER");
    app->add_option("--scale", options->scale, "Frequency axis: log (default) or linear")->type_name("log|linear");
    app->add_option("--window", options->window, "FFT window (default blackman-harris)")->type_name("NAME");
    AddNumberOption(*app, "--fft-size", options->fftSize, "Frame length, a power of two (default 2048)")
        ->type_name("N");
    AddNumberOption(*app, "--range", options->rangeDb, "Levels shown below 0 dBFS (default 120)")->type_name("DB");
    AddPictureOptions(*app, options->picture, "600, 1000 with --compare");
    return {app, [options] { return RunSpectrogram(*options); }, nullptr};
}

}  // namespace kesta
