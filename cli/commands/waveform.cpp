// kesta waveform IN OUT.png: a picture of a file's waveform, with the clicks and clipped runs a
// repair found marked from its report.

#include <CLI/CLI.hpp>
#include <memory>

#include "command.h"
#include "errors.h"
#include "pictures/picture_job.h"
#include "pictures/waveform_image.h"
#include "pipeline/job.h"
#include "pipeline/json_writer.h"

namespace kesta {

namespace {

constexpr const char* kHelpFooter =
    R"help(Draws the waveform as a PNG picture: for each channel and each column of pixels, a light bar from
the lowest to the highest sample in it and a darker one for its RMS level, on an amplitude axis
where full scale is 1 (FS), against time. The file is read once, so long files need little memory.

--marks FILE marks what a repair found, from the report of
  kesta declick --report FILE.csv|FILE.json    each click: a red band, a red mark at the top
  kesta declip --report FILE.csv|FILE.json     each clipped run: an orange band and mark below
Give --marks once for each report; the marks must belong to this file (its channels and length).
Drawn on the file that was repaired, they show where the damage was; on the repaired file, what
became of it.

Exit status: 0 done; 2 wrong command line; 3 input problem; 4 output problem.

Examples:
  kesta waveform take1.wav take1.png
  kesta declick record.wav clean.wav --report clicks.csv
  kesta waveform record.wav clicks.png --marks clicks.csv
  kesta waveform live.wav live.png --marks clicks.json --marks clips.json --width 2000)help";

struct WaveformOptions {
    std::string input;
    std::vector<std::string> marks;
    PictureOptions picture;
};

// Marks must lie in the file they are drawn on.
void CheckMarks(const std::vector<Mark>& marks, const std::string& path, const PictureInput& input) {
    const int channels = input.reader->Format().channels;
    for (const Mark& mark : marks) {
        if (mark.channel > channels)
            throw InputError(
                "the marks in " + Quoted(path) + " do not belong to " + Quoted(input.path),
                "a mark is on channel " + std::to_string(mark.channel) + " of a file with " + std::to_string(channels),
                "give the report of this file");
        if (mark.start >= input.frames)
            throw InputError("the marks in " + Quoted(path) + " do not belong to " + Quoted(input.path),
                             "a mark starts at frame " + std::to_string(mark.start) + ", past its end",
                             "give the report of this file");
    }
}

int RunWaveform(const WaveformOptions& options) {
    const Stopwatch clock;
    Console console(options.picture.report);
    PictureInput input = OpenPictureInput(options.input);
    Marks marks;
    std::vector<SafeOutput::Input> identities = {{input.path, input.reader->Identity()}};
    for (const std::string& path : options.marks) {
        Marks found;
        ReadMarks(path, found);
        CheckMarks(found.clicks, path, input);
        CheckMarks(found.clips, path, input);
        marks.clicks.insert(marks.clicks.end(), found.clicks.begin(), found.clicks.end());
        marks.clips.insert(marks.clips.end(), found.clips.begin(), found.clips.end());
        if (auto identity = IdentityOfPath(path)) identities.push_back({path, *identity});
    }

    const int channels = input.reader->Format().channels;
    const int smallest = SmallestWaveformHeight(channels);
    const int height = options.picture.height != PictureOptions::kDefaultHeight
                           ? options.picture.height
                           : std::min(kLargestPicture, std::max(200 + 200 * channels, smallest));
    const auto output = PrepareOutput(options.picture, height, smallest, identities);

    Canvas canvas(options.picture.width, height);
    DrawWaveform(canvas, input.path, *input.reader, input.frames, marks, !options.marks.empty(),
                 console.ShowsProgress());
    SavePicture(canvas, *output);

    ReportPicture(
        console, "waveform", {input.path}, options.picture, height, clock.Seconds(),
        [&](JsonWriter& json) {
            json.Key("clicks_marked").Int(int64_t(marks.clicks.size()));
            json.Key("clipped_runs_marked").Int(int64_t(marks.clips.size()));
        },
        options.marks.empty() ? std::string()
                              : ", " + std::to_string(marks.clicks.size()) + " click(s) and " +
                                    std::to_string(marks.clips.size()) + " clipped run(s) marked");
    return kExitOk;
}

}  // namespace

Command AddWaveformCommand(CLI::App& kesta) {
    auto options = std::make_shared<WaveformOptions>();
    CLI::App* app =
        kesta.add_subcommand("waveform", "Draw a file's waveform as PNG, with found clicks and clipping marked");
    app->footer(kHelpFooter);
    app->add_option("INPUT", options->input, "The audio file to draw")->required()->type_name("");
    app->add_option("OUTPUT", options->picture.output, "The picture to write (FILE.png)")->required()->type_name("");
    app->add_option("--marks", options->marks, "A declick or declip report (CSV or JSON) whose finds to mark")
        ->type_name("FILE");
    AddPictureOptions(*app, options->picture, "200 + 200 per channel");
    return {app, [options] { return RunWaveform(*options); }, nullptr};
}

}  // namespace kesta
