#include "picture_job.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <iostream>

#include "cairo_library.h"
#include "errors.h"
#include "pipeline/command_line.h"
#include "pipeline/json_writer.h"
#include "pipeline/report.h"
#include "plot.h"

namespace kesta {

void AddPictureOptions(CLI::App& command, PictureOptions& options, const std::string& defaultHeight) {
    AddNumberOption(command, "--width", options.width,
                    "Width of the picture in pixels (" + std::to_string(kSmallestPicture) + " to " +
                        std::to_string(kLargestPicture) + ", default 1200)")
        ->type_name("PIXELS");
    AddNumberOption(command, "--height", options.height,
                    "Height of the picture in pixels (default " + defaultHeight + ")")
        ->type_name("PIXELS");
    AddForceOption(command, options.force);
    AddReportOptions(command, options.report);
}

PictureInput OpenPictureInput(const std::string& path) {
    PictureInput input{path, std::make_unique<BlockReader>(path), 0};
    const std::optional<int64_t> frames = input.reader->HeaderFrames();
    if (!frames)
        throw InputError("cannot draw " + Quoted(path), "its length is not known in advance (a pipe)",
                         "save it to a file first");
    if (*frames < 2)
        throw InputError("cannot draw " + Quoted(path), *frames == 0 ? "it holds no audio" : "it holds a single frame",
                         "a picture needs at least two frames");
    input.frames = *frames;
    return input;
}

std::unique_ptr<SafeOutput> PrepareOutput(const PictureOptions& options, int height, int smallestHeight,
                                          const std::vector<SafeOutput::Input>& inputs) {
    CheckSetting("--width", options.width, kSmallestPicture, kLargestPicture, "pixels");
    CheckSetting("--height", height, std::max(kSmallestPicture, smallestHeight), kLargestPicture, "pixels");
    std::string extension = options.output.size() >= 4 ? options.output.substr(options.output.size() - 4) : "";
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    if (options.output != "-" && extension != ".png")
        throw UsageError("cannot write a picture to " + Quoted(options.output), "pictures are PNG files",
                         "name it FILE.png");
    Cairo();  // missing cairo stops the command before any work
    return std::make_unique<SafeOutput>(options.output, inputs, options.force);
}

void SavePicture(Canvas& canvas, SafeOutput& output) {
    canvas.WritePng(output);
    output.Commit();
}

void ReportPicture(Console& console, const std::string& command, const std::vector<std::string>& inputs,
                   const PictureOptions& options, int height, double seconds,
                   const std::function<void(JsonWriter&)>& fields, const std::string& textExtra) {
    JobReport report(console, command);
    report.Json().Key("inputs").BeginArray();
    for (const std::string& input : inputs)
        report.Json().String(input);
    report.Json().EndArray();
    report.Field("output", options.output).Field("width", options.width).Field("height", height);
    fields(report.Json());
    // A picture written to standard output leaves its summary to standard error.
    report.TextOn(options.output == "-" ? std::cerr : std::cout);
    report.Line("Wrote " + options.output + ": " + std::to_string(options.width) + " x " + std::to_string(height) +
                " pixels" + textExtra);
    report.Print(seconds);
}

}  // namespace kesta
