// kesta spectrum INPUT: the averaged spectrum of a file or a stretch of it, as text, CSV, JSON or
// a PNG picture.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "command.h"
#include "dsp/frequency_analysis.h"
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

#ifdef KESTA_PICTURES
#include "pictures/cairo_library.h"
#include "pictures/picture_job.h"
#include "pictures/plot.h"
#endif

namespace kesta {

namespace {

constexpr const char* kHelpFooter =
    R"help(Cuts INPUT (or --start/--length of it) into frames of --fft-size samples, --hop apart (half a
frame by default), windows each and averages the power of every frequency bin over the frames and
the channels (--channel N for one). A bin's level is the RMS a sine centred on it would have: a
full-scale sine reads -3.0 dB (kesta spectrogram shows the peak instead, 0 dB); noise reads its
mean power per bin, lower the more bins share it. --window chooses the frames' window:
hann (default), hamming, blackman, blackman-harris, welch, triangular, kaiser140, kaiser180
(the two Kaiser windows read a centred sine about 0.1 and 0.2 dB low).

Prints the strongest peaks; --csv every bin (frequency in Hz, level in dB); --json the settings,
the peaks and every bin; --png FILE draws the level over a logarithmic frequency axis
(with --width, --height in pixels and --range dB below the highest bin).

Exit status: 0 done; 2 wrong command line; 3 input problem; 4 output problem (the picture).

Examples:
  kesta spectrum hum.wav
  kesta spectrum take.flac --start 12 --length 2 --fft-size 16384 --csv > hum.csv
  kesta spectrum mix.wav --png mix-spectrum.png --window blackman-harris)help";

struct WindowChoice {
    const char* name;
    int type;
};
constexpr WindowChoice kWindows[] = {{"triangular", dsp::FrequencyAnalysisWorker::Triangular},
                                     {"hann", dsp::FrequencyAnalysisWorker::Hann},
                                     {"hamming", dsp::FrequencyAnalysisWorker::Hamming},
                                     {"blackman", dsp::FrequencyAnalysisWorker::Blackman},
                                     {"welch", dsp::FrequencyAnalysisWorker::Welch},
                                     {"blackman-harris", dsp::FrequencyAnalysisWorker::BlackmanHarris},
                                     {"kaiser140", dsp::FrequencyAnalysisWorker::Kaiser140},
                                     {"kaiser180", dsp::FrequencyAnalysisWorker::Kaiser180}};

struct SpectrumOptions {
    std::string input;
    int fftSize = 4096;
    std::string window = "hann";
    int hop = 0;
    double start = 0.0;
    double length = -1.0;  // to the end
    int channel = 0;       // 0: all
    int peaks = 10;
    bool csv = false;
    std::string png;
    int width = 1200;
    int height = 600;
    double rangeDb = 120.0;
    bool force = false;
    ReportOptions report;
};

int CheckWindow(const std::string& name) {
    std::vector<std::string> names;
    for (const WindowChoice& w : kWindows) {
        if (name == w.name) return w.type;
        names.push_back(w.name);
    }
    const std::string nearest = NearestName(name, names);
    throw UsageError("--window " + Quoted(name) + " is not a window",
                     nearest.empty() ? "" : "did you mean " + nearest + "?",
                     "give hann, hamming, blackman, blackman-harris, welch, triangular, kaiser140 or kaiser180");
}

void CheckOptions(const SpectrumOptions& o) {
    if (o.fftSize < dsp::FrequencyAnalysisWorker::kMinFFTSize ||
        o.fftSize > dsp::FrequencyAnalysisWorker::kMaxFFTSize || (o.fftSize & (o.fftSize - 1)) != 0)
        throw UsageError("--fft-size " + std::to_string(o.fftSize) + " is not allowed", "",
                         "give a power of two from 16 to 65536");
    CheckWindow(o.window);
    if (o.hop != 0) CheckSetting("--hop", o.hop, 1, o.fftSize, "frames");
    CheckSetting("--start", o.start, 0.0, 1e7, "s");
    if (o.length != -1.0) CheckSetting("--length", o.length, 0.001, 1e7, "s");
    CheckSetting("--channel", o.channel, 0, 32, "(0: all channels)");
    CheckSetting("--peaks", o.peaks, 0, 1000, "");
    if (o.csv && o.report.json)
        throw UsageError("--csv and --json cannot be used together", "", "choose one report format");
    if (!o.png.empty()) {
#ifdef KESTA_PICTURES
        CheckSetting("--range", o.rangeDb, 10.0, 300.0, "dB");
#else
        throw UsageError("--png is not available", "this kesta was built without cairo",
                         "install libcairo2-dev (scripts/setup does) and build kesta again");
#endif
    }
}

struct Peak {
    double frequency;
    double db;
};

// Bins higher than both neighbours, the strongest first (at most `count`).
std::vector<Peak> FindPeaks(const std::vector<double>& levels, double rate, int fftSize, int count) {
    std::vector<Peak> peaks;
    for (std::size_t k = 1; k + 1 < levels.size(); ++k)
        if (std::isfinite(levels[k]) && levels[k] > levels[k - 1] && levels[k] >= levels[k + 1])
            peaks.push_back({static_cast<double>(k) * rate / fftSize, levels[k]});
    std::sort(peaks.begin(), peaks.end(), [](const Peak& a, const Peak& b) { return a.db > b.db; });
    if (peaks.size() > static_cast<std::size_t>(count)) peaks.resize(static_cast<std::size_t>(count));
    return peaks;
}

#ifdef KESTA_PICTURES
// The spectrum as a line over a log-frequency axis from 10 Hz (or the first bin) to Nyquist.
void DrawSpectrum(Canvas& canvas, const std::vector<double>& levels, double rate, int fftSize, double rangeDb,
                  const std::string& title) {
    const Rgb ink{0.15, 0.15, 0.17}, line{0.12, 0.35, 0.75};
    canvas.Fill({1.0, 1.0, 1.0});
    double top = -std::numeric_limits<double>::infinity();
    for (double v : levels)
        top = std::max(top, v);
    top = std::isfinite(top) ? 10.0 * std::ceil(top / 10.0) : 0.0;
    const AxisScale x{std::max(10.0, rate / fftSize), rate / 2.0, true};
    const AxisScale y{top - rangeDb, top, false};
    const Rect area{80.0, 40.0, canvas.Width() - 110.0, canvas.Height() - 100.0};
    canvas.Text(area.x, 22.0, title, 13.0, ink, 0.0, 0.5, true);
    canvas.LeftAxis(area, y, LinearTicks(y, area.height, 40.0), "level (dB)", true);
    canvas.BottomAxis(area, x, FrequencyTicks(x, area.width), "frequency (Hz)");
    cairo_t* cr = canvas.Context();
    Cairo().save(cr);
    Cairo().rectangle(cr, area.x, area.y, area.width, area.height);
    Cairo().clip(cr);
    Cairo().set_source_rgb(cr, line.r, line.g, line.b);
    Cairo().set_line_width(cr, 1.2);
    bool drawing = false;
    for (std::size_t k = 1; k < levels.size(); ++k) {
        const double f = static_cast<double>(k) * rate / fftSize;
        if (f < x.low) continue;
        const double level = std::max(levels[k], y.low - 10.0);
        const double px = area.x + x.Fraction(f) * area.width;
        const double py = area.Bottom() - y.Fraction(level) * area.height;
        if (drawing)
            Cairo().line_to(cr, px, py);
        else
            Cairo().move_to(cr, px, py);
        drawing = true;
    }
    Cairo().stroke(cr);
    Cairo().restore(cr);
}
#endif

int RunSpectrum(const SpectrumOptions& o) {
    CheckOptions(o);
    const Stopwatch clock;
    Console console(o.report);
    BlockReader reader(o.input);
    const AudioFormat format = reader.Format();
    const int rate = format.sampleRate;
    if (format.channels > dsp::FrequencyAnalysisWorker::kMaxChannels)
        throw InputError("cannot analyse " + Quoted(o.input), std::to_string(format.channels) + " channels",
                         "kesta spectrum reads files of up to 32 channels");
    if (o.channel > format.channels)
        throw UsageError("--channel " + std::to_string(o.channel) + " is not in " + Quoted(o.input),
                         "it has " + std::to_string(format.channels) + " channel(s)",
                         "give 1 to " + std::to_string(format.channels) + ", or 0 for all");
#ifdef KESTA_PICTURES
    PictureOptions picture;
    picture.output = o.png;
    picture.width = o.width;
    picture.height = o.height;
    picture.force = o.force;
    std::unique_ptr<SafeOutput> output;
    if (!o.png.empty()) output = PrepareOutput(picture, o.height, 200, {{o.input, reader.Identity()}});
#endif

    const auto first = static_cast<int64_t>(std::llround(o.start * rate));
    const int64_t last = o.length < 0 ? std::numeric_limits<int64_t>::max()
                                      : first + std::max<int64_t>(1, std::llround(o.length * rate));
    dsp::FrequencyAnalysisWorker worker;
    worker.Init(o.fftSize, CheckWindow(o.window), format.channels, o.hop);
    std::vector<const float*> pointers(static_cast<std::size_t>(format.channels));
    int64_t used = 0;
    {
        Progress progress("spectrum", reader.HeaderFrames(), rate, console.ShowsProgress());
        StreamToSink(reader, {}, progress, [&](const AudioBlock& block, int64_t position) {
            const int64_t from = std::max(first, position);
            const int64_t to = std::min(last, position + static_cast<int64_t>(block.Frames()));
            if (to <= from) return;
            for (int c = 0; c < block.Channels(); ++c)
                pointers[static_cast<std::size_t>(c)] = block.Channel(c) + (from - position);
            worker.Add(pointers.data(), block.Channels(), static_cast<int>(to - from));
            used += to - from;
        });
    }
    if (auto mismatch = reader.LengthWarning()) console.Warn(*mismatch);
    if (used == 0)
        throw InputError("nothing to analyse in " + Quoted(o.input),
                         "it holds " + FormatLength(reader.FramesRead(), rate) + ", which ends before --start",
                         "give a --start inside the file");
    worker.Finish();
    std::vector<double> levels(static_cast<std::size_t>(worker.GetBinCount()));
    worker.GetSpectrumDb(o.channel - 1, levels.data());
    const std::vector<Peak> peaks = FindPeaks(levels, rate, o.fftSize, o.peaks);

    if (o.csv) {
        if (!o.report.quiet) {
            std::cout << "frequency_hz,level_db\n";
            for (std::size_t k = 0; k < levels.size(); ++k)
                std::cout << FormatDb(static_cast<double>(k) * rate / o.fftSize, 3) << ',' << FormatDb(levels[k], 3)
                          << '\n';
        }
    }
#ifdef KESTA_PICTURES
    if (output) {
        Canvas canvas(o.width, o.height);
        DrawSpectrum(canvas, levels, rate, o.fftSize, o.rangeDb,
                     o.input + ": " + std::to_string(o.fftSize) + "-point " + o.window + " frames, " +
                         std::to_string(worker.GetFrameCount()) + " averaged");
        SavePicture(canvas, *output);
    }
#endif
    if (o.csv) return kExitOk;

    JobReport report(console, "spectrum");
    report.Input(o.input, format, reader.FramesRead());
    report.Object("settings", [&](JsonWriter& json) {
        json.Key("fft_size").Int(o.fftSize);
        json.Key("window").String(o.window);
        json.Key("hop").Int(worker.GetHop());
        json.Key("start_seconds").Number(static_cast<double>(first) / rate);
        json.Key("frames_analysed").Int(used);
        json.Key("frames_averaged").Int(worker.GetFrameCount());
        json.Key("channel").Int(o.channel);
    });
    if (!o.png.empty()) report.Field("picture", o.png);
    report.Object("peaks", [&](JsonWriter& json) {
        json.Key("list").BeginArray();
        for (const Peak& p : peaks)
            json.BeginObject().Key("frequency_hz").Number(p.frequency).Key("level_db").Number(p.db).EndObject();
        json.EndArray();
    });
    report.Object("spectrum", [&](JsonWriter& json) {
        json.Key("bin_hz").Number(static_cast<double>(rate) / o.fftSize);
        json.Key("level_db").BeginArray();
        for (double v : levels)
            json.Number(v);
        json.EndArray();
    });
    std::ostringstream text;
    text << o.input << ": " << FormatLength(used, rate) << " analysed, " << worker.GetFrameCount() << " frame(s) of "
         << o.fftSize << " (" << o.window << "), " << FormatDb(static_cast<double>(rate) / o.fftSize, 2)
         << " Hz per bin, " << (o.channel == 0 ? "all channels" : "channel " + std::to_string(o.channel));
    report.Line(text.str());
    if (!peaks.empty()) {
        TextTable table;
        table.AddColumn("Peak Hz", TextTable::Align::Right);
        table.AddColumn("Level dB", TextTable::Align::Right);
        for (const Peak& p : peaks)
            table.AddRow({FormatDb(p.frequency, 1), FormatDb(p.db, 2)});
        std::ostringstream rows;
        table.Print(rows);
        std::string lines = rows.str();
        if (!lines.empty() && lines.back() == '\n') lines.pop_back();
        report.Line(lines);
    }
    if (!o.png.empty()) report.Line("Wrote " + o.png);
    return report.Print(clock.Seconds());
}

}  // namespace

Command AddSpectrumCommand(CLI::App& kesta) {
    auto options = std::make_shared<SpectrumOptions>();
    CLI::App* app = kesta.add_subcommand("spectrum", "Measure the averaged spectrum of a file");
    app->footer(kHelpFooter);
    app->add_option("INPUT", options->input, "The audio file to read")->required()->type_name("");
    AddNumberOption(*app, "--fft-size", options->fftSize, "Frame length, a power of two, 16 to 65536 (default 4096)")
        ->type_name("N");
    app->add_option("--window", options->window, "The frames' window (default hann)")->type_name("NAME");
    AddNumberOption(*app, "--hop", options->hop, "Frames between frame starts (default half a frame)")->type_name("N");
    AddNumberOption(*app, "--start", options->start, "Where to begin, seconds (default 0)")->type_name("S");
    AddNumberOption(*app, "--length", options->length, "How much to read, seconds (default: to the end)")
        ->type_name("S");
    AddNumberOption(*app, "--channel", options->channel, "One channel, from 1 (default 0: all, power-averaged)")
        ->type_name("N");
    AddNumberOption(*app, "--peaks", options->peaks, "Peaks to list (default 10)")->type_name("N");
    app->add_flag("--csv", options->csv, "Every bin as frequency,level lines, with a header");
    app->add_option("--png", options->png, "Draw the spectrum into FILE.png")->type_name("FILE");
    AddNumberOption(*app, "--width", options->width, "Picture width in pixels (default 1200)")->type_name("PX");
    AddNumberOption(*app, "--height", options->height, "Picture height in pixels (default 600)")->type_name("PX");
    AddNumberOption(*app, "--range", options->rangeDb, "dB shown below the highest bin (default 120)")->type_name("DB");
    AddForceOption(*app, options->force);
    AddReportOptions(*app, options->report);
    return {app, [options] { return RunSpectrum(*options); }, nullptr};
}

}  // namespace kesta
