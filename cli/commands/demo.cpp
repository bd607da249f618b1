// kesta demo [DIR]: a damaged recording made up on the spot, restored step by step through the
// chain's own steps, measured against the clean programme it was made from, with pictures.

#include <sndfile.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>

#include "command.h"
#include "demo/demo_recording.h"
#include "errors.h"
#include "io/block_reader.h"
#include "io/block_writer.h"
#include "io/safe_output.h"
#include "pipeline/command_line.h"
#include "pipeline/console.h"
#include "pipeline/job.h"
#include "pipeline/json_writer.h"
#include "pipeline/progress.h"
#include "pipeline/text_table.h"
#include "pipeline/units.h"
#ifdef KESTA_PICTURES
#include "pictures/cairo_library.h"
#include "pictures/picture_job.h"
#include "pictures/spectrogram_image.h"
#include "pictures/waveform_image.h"
#endif

namespace kesta {

namespace {

constexpr const char* kHelpFooter =
    R"help(Makes up a recording, damages it, restores it, and shows what each step did. Nothing needs to be
given: the recording is 16 s of stereo at 44.1 kHz, a musical passage (harmonic notes with vibrato
and attack/decay envelopes) and a speech-like passage (syllables in words, with pauses), with
stretches of nothing around them. The damage is what an old transfer has: steady broadband noise,
hiss, loud clicks, faint crackle, and clipping.

The restoration is the chain
  declip:gain=0,no-limiter,tolerance=2  declick  denoise:noise=0:1.5  limit
run one step at a time, each on the audio the step before left (the noise print is taken from
the first 1.5 s, where there is only noise). The clipping is digital, flat to the bit, so declip
takes only flat tops (--tolerance 2): at the default 10 % it would also redraw natural peaks near
each channel's highest level, most of them in the channel that never clipped. For every step the
table gives:
  SNR vs clean   the clean programme's power over the power of what differs from it
  noise-only     the noise's level where there is no programme (the median of its 10 ms RMS
                 levels, so a click does not count as noise)
  pauses         the same in the pauses between the spoken words
  found          what the step found and how much of the inserted damage it repaired (clipped
                 runs shorter than 3 samples are below what declip looks for)
Below the table: the noise reduction from the damaged to the restored recording, and the time.

DIR (default kesta-demo) receives clean.wav, damaged.wav, after-STEP.wav for the steps before
the last, restored.wav, clicks.csv and clips.csv (in the reports' formats of kesta declick and
kesta declip), report.json, and when kesta draws pictures, spectrogram.png (damaged above,
restored below) and waveform.png (the damaged recording, found clicks and clipping marked).
A DIR a demo wrote before is written over; other files there are refused unless --force.

The same --seed gives the same recording and the same table every run.

Exit status: 0 done; 2 wrong command line; 4 DIR cannot be written.

Examples:
  kesta demo
  kesta demo /tmp/demo --seed 7
  kesta spectrogram kesta-demo/damaged.wav both.png --compare kesta-demo/restored.wav)help";

struct DemoOptions {
    std::string dir = "kesta-demo";
    int seed = 1;
    bool force = false;
    ReportOptions report;
};

struct Step {
    const char* name;
    const char* text;
};
constexpr Step kPlan[] = {{"declip", "declip:gain=0,no-limiter,tolerance=2"},
                          {"declick", "declick"},
                          {"denoise", "denoise:noise=0:1.5"},
                          {"limit", "limit"}};

const char* const kFileNames[] = {"clean.wav",         "damaged.wav",     "after-declip.wav", "after-declick.wav",
                                  "after-denoise.wav", "restored.wav",    "clicks.csv",       "clips.csv",
                                  "report.json",       "spectrogram.png", "waveform.png"};

using Channels = std::vector<std::vector<float>>;

void WriteWav(const std::string& path, const Channels& audio, int rate) {
    SafeOutput output(path, {}, true);
    const AudioFormat format{SF_FORMAT_WAV | SF_FORMAT_FLOAT, rate, int(audio.size())};
    BlockWriter writer(output.Descriptor(), path, format);
    AudioBlock block(format.channels, BlockReader::kDefaultBlockFrames);
    for (std::size_t at = 0; at < audio[0].size(); at += block.Capacity()) {
        const std::size_t n = std::min(block.Capacity(), audio[0].size() - at);
        for (int c = 0; c < format.channels; ++c)
            std::copy_n(audio[std::size_t(c)].begin() + std::ptrdiff_t(at), n, block.Channel(c));
        block.SetFrames(n);
        writer.Write(block);
    }
    writer.Finish();
    output.Commit();
}

Channels ReadWav(const std::string& path) {
    BlockReader reader(path);
    Channels audio(std::size_t(reader.Format().channels));
    AudioBlock block = reader.MakeBlock();
    while (reader.Read(block))
        for (int c = 0; c < block.Channels(); ++c)
            audio[std::size_t(c)].insert(audio[std::size_t(c)].end(), block.Channel(c),
                                         block.Channel(c) + block.Frames());
    return audio;
}

void WriteText(const std::string& path, const std::string& text) {
    SafeOutput output(path, {}, true);
    WriteAll(output.Descriptor(), text, path);
    output.Commit();
}

// One step of the chain over the file `in` into `out`, made and streamed as `kesta chain` does.
void RunStep(const Step& step, const std::string& in, const std::string& out, Console& console) {
    BlockReader reader(in);
    OutputOptions options;
    options.force = true;
    options.floatSamples = true;
    AudioOutput output(out, reader, {{in, reader.Identity()}}, options);
    // A step that analyses all it will hear first (declip) reads the file again through this.
    const ReplayAudio replay = [&in](const std::function<void(const AudioBlock&)>& sink) {
        BlockReader again(in);
        Progress unseen("", again.HeaderFrames(), again.Format().sampleRate, false);
        StreamToSink(again, {}, unseen, [&sink](const AudioBlock& block, int64_t) { sink(block); });
    };
    const std::unique_ptr<Stage> stage =
        MakeChainStage(step.text, StageInput{in, reader.Format(), true, console, reader.HeaderFrames(), replay});
    Progress progress(step.name, reader.HeaderFrames(), reader.Format().sampleRate, console.ShowsProgress());
    StreamStages(reader, output, {stage.get()}, progress);
    output.Commit();
}

// The stretches a step changed: samples that differ, joined where less than 9 samples apart.
std::vector<InsertedClick> ChangedRuns(const Channels& before, const Channels& after) {
    std::vector<InsertedClick> runs;
    for (std::size_t c = 0; c < before.size(); ++c)
        for (std::size_t i = 0; i < before[c].size(); ++i) {
            if (before[c][i] == after[c][i]) continue;
            if (!runs.empty() && runs.back().channel == int(c) &&
                int64_t(i) - (runs.back().start + runs.back().length) < 9)
                runs.back().length = int(int64_t(i) + 1 - runs.back().start);
            else
                runs.push_back({int(c), int64_t(i), 1});
        }
    return runs;
}

// How many of `inserted` a run of the same channel overlaps.
int Covered(const std::vector<InsertedClick>& inserted, const std::vector<InsertedClick>& runs) {
    int count = 0;
    for (const InsertedClick& click : inserted)
        count += std::any_of(runs.begin(), runs.end(), [&](const InsertedClick& run) {
            return run.channel == click.channel && run.start < click.start + click.length &&
                   click.start < run.start + run.length;
        });
    return count;
}

double SnrDb(const Channels& clean, const Channels& x) {
    double signal = 0.0, error = 0.0;
    for (std::size_t c = 0; c < clean.size(); ++c)
        for (std::size_t i = 0; i < clean[c].size(); ++i) {
            signal += double(clean[c][i]) * clean[c][i];
            const double d = double(x[c][i]) - clean[c][i];
            error += d * d;
        }
    return 10.0 * std::log10(signal / std::max(error, 1e-30));
}

// The median of the 10 ms RMS levels inside the stretches, in dBFS.
double MedianLevelDbfs(const Channels& x, const std::vector<Stretch>& stretches, int rate) {
    const int64_t block = rate / 100;
    std::vector<double> powers;
    for (const auto& channel : x)
        for (const Stretch& s : stretches)
            for (int64_t at = s.start; at + block <= s.end; at += block) {
                double sum = 0.0;
                for (int64_t i = at; i < at + block; ++i)
                    sum += double(channel[std::size_t(i)]) * channel[std::size_t(i)];
                powers.push_back(sum / double(block));
            }
    std::nth_element(powers.begin(), powers.begin() + std::ptrdiff_t(powers.size() / 2), powers.end());
    return 10.0 * std::log10(std::max(powers[powers.size() / 2], 1e-30));
}

struct StageResult {
    const Step* step = nullptr;  // null: the damaged recording
    bool available = true;
    double snrDb = 0.0, noiseOnlyDbfs = 0.0, pausesDbfs = 0.0, seconds = 0.0;
    std::vector<InsertedClick> changed;
    std::string found;
};

void Measure(StageResult& result, const Channels& audio, const DemoRecording& recording) {
    result.snrDb = SnrDb(recording.clean, audio);
    result.noiseOnlyDbfs = MedianLevelDbfs(audio, recording.noiseOnly, recording.rate);
    result.pausesDbfs = MedianLevelDbfs(audio, recording.pauses, recording.rate);
}

std::string Fixed(double value, int decimals) {
    char text[32];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

std::string ClicksCsv(const std::vector<InsertedClick>& runs, int rate) {
    std::ostringstream text;
    text << "channel,start_frame,start_seconds,length_frames,length_ms,repaired\n";
    for (const InsertedClick& r : runs)
        text << r.channel + 1 << ',' << r.start << ',' << Fixed(double(r.start) / rate, 6) << ',' << r.length << ','
             << Fixed(1000.0 * r.length / rate, 3) << ",yes\n";
    return text.str();
}

std::string ClipsCsv(const std::vector<InsertedClick>& runs, int rate) {
    std::ostringstream text;
    text << "channel,start,start_seconds,length,repaired\n";
    for (const InsertedClick& r : runs)
        text << r.channel + 1 << ',' << r.start << ',' << Fixed(double(r.start) / rate, 6) << ',' << r.length
             << ",yes\n";
    return text.str();
}

// Refuses a DIR holding files of the demo's names that an earlier demo did not write.
void CheckDirectory(const DemoOptions& options) {
    namespace fs = std::filesystem;
    std::error_code error;
    if (fs::exists(options.dir, error) && !fs::is_directory(options.dir, error))
        throw OutputError("cannot write the demo into " + Quoted(options.dir), "it is not a directory",
                          "give a directory name");
    std::ifstream report(fs::path(options.dir) / "report.json");
    std::string start(40, '\0');
    report.read(start.data(), 40);
    const bool earlierDemo = start.find("\"command\": \"demo\"") != std::string::npos;
    for (const char* name : kFileNames)
        if (!options.force && !earlierDemo && fs::exists(fs::path(options.dir) / name, error))
            throw OutputError("cannot write the demo into " + Quoted(options.dir),
                              Quoted(name) + " is there and was not written by kesta demo",
                              "choose another directory, or add --force");
    fs::create_directories(options.dir, error);
    if (error)
        throw OutputError("cannot create " + Quoted(options.dir), SystemReason(error.value()),
                          "check the path and its permissions");
}

int RunDemo(const DemoOptions& options) {
    const Stopwatch clock;
    Console console(options.report);
    if (options.seed < 0)
        throw UsageError("--seed " + std::to_string(options.seed) + " is negative", "", "give 0 or more");
    CheckDirectory(options);
    const auto path = [&](const std::string& name) { return (std::filesystem::path(options.dir) / name).string(); };

    const Stopwatch synthesis;
    const DemoRecording recording = MakeDemoRecording(uint64_t(options.seed));
    const int rate = recording.rate;
    WriteWav(path("clean.wav"), recording.clean, rate);
    WriteWav(path("damaged.wav"), recording.damaged, rate);
    const double synthesisSeconds = synthesis.Seconds();

    std::vector<StageResult> results(1);
    Measure(results[0], recording.damaged, recording);
    int last = -1;
    for (int k = 0; k < int(std::size(kPlan)); ++k)
        if (IsChainStep(kPlan[k].name)) last = k;

    Channels previous = recording.damaged;
    std::string previousPath = path("damaged.wav");
    std::vector<InsertedClick> clicksFound, clipsFound;
    for (int k = 0; k < int(std::size(kPlan)); ++k) {
        StageResult result;
        result.step = &kPlan[k];
        result.available = IsChainStep(kPlan[k].name);
        if (!result.available) {
            result.found = "not run: kesta chain has no " + std::string(kPlan[k].name) + " step yet";
            results.push_back(result);
            continue;
        }
        const std::string out = k == last ? path("restored.wav") : path("after-" + std::string(kPlan[k].name) + ".wav");
        const Stopwatch stepClock;
        RunStep(kPlan[k], previousPath, out, console);
        result.seconds = stepClock.Seconds();
        const Channels audio = ReadWav(out);
        Measure(result, audio, recording);
        result.changed = ChangedRuns(previous, audio);
        const std::string name = kPlan[k].name;
        if (name == "declip") {
            clipsFound = result.changed;
            // The finder asks for 3 samples in a row; shorter runs are repaired only inside a longer
            // stretch it took in.
            std::vector<InsertedClick> longer, shorter;
            for (const InsertedClick& run : recording.clippedRuns)
                (run.length >= 3 ? longer : shorter).push_back(run);
            result.found = std::to_string(result.changed.size()) + " clipped runs; repaired " +
                           std::to_string(Covered(longer, result.changed)) + " of " + std::to_string(longer.size()) +
                           " runs of 3+ samples, " + std::to_string(Covered(shorter, result.changed)) + " of " +
                           std::to_string(shorter.size()) + " shorter";
        } else if (name == "declick") {
            clicksFound = result.changed;
            result.found = std::to_string(result.changed.size()) + " clicks; repaired " +
                           std::to_string(Covered(recording.clicks, result.changed)) + " of " +
                           std::to_string(recording.clicks.size()) + " clicks, " +
                           std::to_string(Covered(recording.crackle, result.changed)) + " of " +
                           std::to_string(recording.crackle.size()) + " crackle ticks";
        }
        results.push_back(result);
        previous = audio;
        previousPath = out;
    }
    WriteText(path("clicks.csv"), ClicksCsv(clicksFound, rate));
    WriteText(path("clips.csv"), ClipsCsv(clipsFound, rate));

    const Stopwatch pictureClock;
    std::vector<std::string> files = {"clean.wav", "damaged.wav"};
    for (int k = 0; k < last; ++k)
        if (IsChainStep(kPlan[k].name)) files.push_back("after-" + std::string(kPlan[k].name) + ".wav");
    files.insert(files.end(), {"restored.wav", "clicks.csv", "clips.csv", "report.json"});
#ifdef KESTA_PICTURES
    bool drawing = true;
    try {
        Cairo();
    } catch (const CliError& error) {
        console.Warn(error.Message() + "; the demo leaves out its pictures");
        drawing = false;
    }
    if (drawing) {
        BlockReader damaged(path("damaged.wav")), restored(path(last >= 0 ? "restored.wav" : "damaged.wav"));
        Canvas spectrogram(1000, 820);
        SpectrogramSettings settings;
        settings.rangeDb = 110.0;
        DrawSpectrograms(
            spectrogram,
            {{"damaged.wav", &damaged, recording.Frames()}, {"restored.wav", &restored, recording.Frames()}}, settings,
            false);
        SafeOutput spectrogramFile(path("spectrogram.png"), {}, true);
        SavePicture(spectrogram, spectrogramFile);

        BlockReader again(path("damaged.wav"));
        Canvas waveform(1000, 520);
        Marks marks;
        for (const InsertedClick& r : clicksFound)
            marks.clicks.push_back({r.channel + 1, r.start, r.length});
        for (const InsertedClick& r : clipsFound)
            marks.clips.push_back({r.channel + 1, r.start, r.length});
        DrawWaveform(waveform, "damaged.wav", again, recording.Frames(), marks, true, false);
        SafeOutput waveformFile(path("waveform.png"), {}, true);
        SavePicture(waveform, waveformFile);
        files.insert(files.end(), {"spectrogram.png", "waveform.png"});
    }
#endif
    const double pictureSeconds = pictureClock.Seconds();

    const StageResult& damaged = results.front();
    const StageResult& restored =
        results.back().available || last < 0 ? results.back() : results[std::size_t(last) + 1];
    const double noiseOnlyReduction = damaged.noiseOnlyDbfs - restored.noiseOnlyDbfs;
    const double pausesReduction = damaged.pausesDbfs - restored.pausesDbfs;

    std::ostringstream report;
    {
        JsonWriter json(report);
        json.BeginObject();
        json.Key("command").String("demo");
        json.Key("seed").Int(options.seed);
        json.Key("directory").String(options.dir);
        json.Key("sample_rate").Int(rate);
        json.Key("channels").Int(int64_t(recording.clean.size()));
        json.Key("frames").Int(recording.Frames());
        json.Key("damage").BeginObject();
        json.Key("clicks").Int(int64_t(recording.clicks.size()));
        json.Key("crackle_ticks").Int(int64_t(recording.crackle.size()));
        json.Key("clipped_runs").Int(int64_t(recording.clippedRuns.size()));
        json.Key("clip_level").Number(recording.clipLevel);
        json.Key("noise_dbfs").Number(recording.noiseDbfs);
        json.Key("hiss_dbfs").Number(recording.hissDbfs);
        json.EndObject();
        json.Key("stages").BeginArray();
        for (const StageResult& r : results) {
            json.BeginObject();
            json.Key("stage").String(r.step ? r.step->name : "damaged");
            if (r.step) json.Key("step").String(r.step->text);
            json.Key("run").Bool(r.available);
            if (r.available) {
                json.Key("snr_db").Number(r.snrDb);
                json.Key("noise_only_dbfs").Number(r.noiseOnlyDbfs);
                json.Key("pauses_dbfs").Number(r.pausesDbfs);
                if (r.step) json.Key("changed_stretches").Int(int64_t(r.changed.size()));
            }
            if (!r.found.empty()) json.Key("found").String(r.found);
            json.EndObject();
        }
        json.EndArray();
        json.Key("noise_reduction_db").BeginObject();
        json.Key("noise_only").Number(noiseOnlyReduction);
        json.Key("pauses").Number(pausesReduction);
        json.EndObject();
        json.Key("files").BeginArray();
        for (const std::string& file : files)
            json.String(file);
        json.EndArray();
        json.Key("timings").BeginObject();
        json.Key("synthesis_seconds").Number(synthesisSeconds);
        for (const StageResult& r : results)
            if (r.step && r.available) json.Key(std::string(r.step->name) + "_seconds").Number(r.seconds);
        json.Key("pictures_seconds").Number(pictureSeconds);
        json.Key("total_seconds").Number(clock.Seconds());
        json.EndObject();
        json.EndObject();
    }
    report << '\n';
    WriteText(path("report.json"), report.str());

    if (console.Json()) {
        std::cout << report.str();
    } else if (console.ShowsText()) {
        std::cout << "kesta demo: " << Fixed(double(recording.Frames()) / rate, 1) << " s of stereo at " << rate
                  << " Hz (seed " << options.seed << "), damaged and restored in " << options.dir << "\n"
                  << "damage: " << recording.clicks.size() << " clicks, " << recording.crackle.size()
                  << " crackle ticks, " << recording.clippedRuns.size() << " clipped runs (at "
                  << Fixed(recording.clipLevel, 2) << "), noise " << Fixed(recording.noiseDbfs, 0) << " dBFS, hiss "
                  << Fixed(recording.hissDbfs, 0) << " dBFS\n\n";
        TextTable table;
        table.AddColumn("stage");
        table.AddColumn("SNR vs clean", TextTable::Align::Right);
        table.AddColumn("noise-only", TextTable::Align::Right);
        table.AddColumn("pauses", TextTable::Align::Right);
        table.AddColumn("found");
        for (const StageResult& r : results) {
            if (!r.available) {
                table.AddRow({r.step->name, "-", "-", "-", r.found});
                continue;
            }
            table.AddRow({r.step ? r.step->name : "damaged", Fixed(r.snrDb, 2) + " dB",
                          Fixed(r.noiseOnlyDbfs, 1) + " dBFS", Fixed(r.pausesDbfs, 1) + " dBFS", r.found});
        }
        table.Print(std::cout);
        std::cout << "\nnoise reduction: " << Fixed(noiseOnlyReduction, 1) << " dB in the noise-only stretches, "
                  << Fixed(pausesReduction, 1) << " dB in the pauses\n";
        std::cout << "files in " << options.dir << ":";
        for (const std::string& file : files)
            std::cout << ' ' << file;
        std::cout << "\ntook " << Fixed(clock.Seconds(), 1) << " s (making the recording " << Fixed(synthesisSeconds, 1)
                  << " s";
        for (const StageResult& r : results)
            if (r.step && r.available) std::cout << ", " << r.step->name << ' ' << Fixed(r.seconds, 1) << " s";
        std::cout << ", pictures " << Fixed(pictureSeconds, 1) << " s)\n";
    }
    return kExitOk;
}

}  // namespace

Command AddDemoCommand(CLI::App& kesta) {
    auto options = std::make_shared<DemoOptions>();
    CLI::App* app =
        kesta.add_subcommand("demo", "Restore a made-up damaged recording step by step and show what each step did");
    app->footer(kHelpFooter);
    app->add_option("DIR", options->dir, "Where the files go (default kesta-demo)")->type_name("");
    AddNumberOption(*app, "--seed", options->seed, "Which recording to make up (default 1)")->type_name("N");
    AddForceOption(*app, options->force);
    AddReportOptions(*app, options->report);
    return {app, [options] { return RunDemo(*options); }, nullptr};
}

}  // namespace kesta
