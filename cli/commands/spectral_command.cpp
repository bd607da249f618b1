#include "spectral_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <deque>
#include <optional>
#include <vector>

#include "errors.h"
#include "io/block_reader.h"
#include "io/block_writer.h"
#include "io/file_identity.h"
#include "io/safe_output.h"
#include "pipeline/analysis.h"
#include "pipeline/command_line.h"
#include "pipeline/command_support.h"
#include "pipeline/job.h"
#include "pipeline/json_writer.h"
#include "pipeline/level_meter.h"
#include "pipeline/progress.h"
#include "pipeline/report.h"
#include "pipeline/units.h"

namespace kesta {

namespace {

// Seconds with millisecond precision, as "1.500".
std::string FormatSeconds(double seconds) {
    char text[48];
    std::snprintf(text, sizeof(text), "%.3f", seconds);
    return text;
}

// A length of `frames` frames in seconds, rounded up to the millisecond (so "at least" stays true).
std::string FormatSecondsUp(int64_t frames, int rate) {
    return FormatSeconds(std::ceil(double(frames) * 1000.0 / rate) / 1000.0);
}

// The sum of x[i]² for i < count in double (each square of a float is exact there), over eight
// running sums so that the additions do not wait on one another.
double SumOfSquares(const float* x, int64_t count) {
    double lanes[8] = {};
    int64_t i = 0;
    for (; i + 8 <= count; i += 8)
        for (int k = 0; k < 8; ++k)
            lanes[k] += double(x[i + k]) * double(x[i + k]);
    double rest = 0.0;
    for (; i < count; ++i)
        rest += double(x[i]) * double(x[i]);
    return (((lanes[0] + lanes[4]) + (lanes[1] + lanes[5])) + ((lanes[2] + lanes[6]) + (lanes[3] + lanes[7]))) + rest;
}

// The energy of the frames of a stream that fall inside [start, end), per channel.
class RangeMeter {
public:
    RangeMeter(int channels, int64_t start, int64_t end) : mStart(start), mEnd(end), mSquares(std::size_t(channels)) {}

    void Add(const AudioBlock& block, int64_t position) {
        const int64_t from = std::max(mStart, position), to = std::min(mEnd, position + int64_t(block.Frames()));
        if (from >= to) return;
        for (int c = 0; c < block.Channels(); ++c) {
            mSquares[std::size_t(c)] += SumOfSquares(block.Channel(c) + (from - position), to - from);
        }
        mFrames += to - from;
    }
    double RmsDb(int channel) const {
        return mFrames > 0 ? LinearToDb(std::sqrt(mSquares[std::size_t(channel)] / double(mFrames))) : -INFINITY;
    }

private:
    int64_t mStart, mEnd;
    std::vector<double> mSquares;
    int64_t mFrames = 0;
};

// What happens between the programme's phrases: per window of 50 ms the energy of the input and
// of the output (all channels), and from them the level change over the windows more than 20 dB
// below the programme's level (the 95th percentile of the windows' levels). The windows are kept
// by input level in steps of 0.05 dB, each step holding its windows' count and energies in and
// out, so the meter's memory stays the same for any length of programme; the percentile and the
// 20 dB line are found to within one step.
class PauseMeter {
public:
    explicit PauseMeter(int rate)
        : mWindow(std::max(1, rate / 20)), mSeconds(double(mWindow) / rate), mSteps(std::size_t(kSteps)) {}

    // The input's windows wait for the output's, which come later by the processing delay.
    void AddInput(const AudioBlock& block) {
        Accumulate(mIn, block, [this](double energy) { mPending.push_back(energy); });
    }
    void AddOutput(const AudioBlock& block) {
        Accumulate(mOut, block, [this](double energy) {
            if (mPending.empty()) return;
            const double in = mPending.front();
            mPending.pop_front();
            if (in <= 0.0) return;
            Step& step = mSteps[StepOf(in)];
            ++step.windows;
            step.in += in;
            step.out += energy;
            ++mWindows;
        });
    }

    struct Pauses {
        bool found = false;  // false when the programme has no such windows (or no level at all)
        double changeDb = 0.0;
        double seconds = 0.0;
    };
    Pauses Measure() const {
        if (mWindows == 0) return {};
        const int64_t rank = mWindows * 95 / 100;  // the percentile's window, counted from the quietest
        int64_t below = 0;
        int top = 0;
        while (below + mSteps[std::size_t(top)].windows <= rank)
            below += mSteps[std::size_t(top++)].windows;
        double in = 0.0, out = 0.0;
        int64_t count = 0;
        for (int k = 0; k < top - kStepsIn20Db; ++k) {
            in += mSteps[std::size_t(k)].in;
            out += mSteps[std::size_t(k)].out;
            count += mSteps[std::size_t(k)].windows;
        }
        if (count == 0) return {};
        return {true, std::max(10.0 * std::log10(out / in), -200.0), double(count) * mSeconds};
    }

private:
    static constexpr double kLowestDb = -300.0, kStepDb = 0.05;
    static constexpr int kSteps = 8000;  // to +100 dB: beyond any window of float samples near full scale
    static constexpr int kStepsIn20Db = 400;

    struct Step {
        int64_t windows = 0;
        double in = 0.0, out = 0.0;
    };
    struct Window {
        int64_t frames = 0;
        double energy = 0.0;
    };

    static std::size_t StepOf(double energy) {
        const double step = std::floor((10.0 * std::log10(energy) - kLowestDb) / kStepDb);
        return std::size_t(std::clamp(step, 0.0, double(kSteps - 1)));
    }

    // Adds the block to the open window, handing each completed window's energy to `done`.
    template <typename Done>
    void Accumulate(Window& window, const AudioBlock& block, Done done) {
        const int64_t frames = int64_t(block.Frames());
        for (int64_t i = 0; i < frames;) {
            const int64_t end = std::min(frames, i + mWindow - window.frames);
            for (int c = 0; c < block.Channels(); ++c) {
                const float* x = block.Channel(c);
                double sum = 0.0;
                for (int64_t j = i; j < end; ++j)
                    sum += double(x[j]) * double(x[j]);
                window.energy += sum;
            }
            window.frames += end - i;
            i = end;
            if (window.frames == mWindow) {
                done(window.energy);
                window = {};
            }
        }
    }

    int64_t mWindow;
    double mSeconds;
    std::vector<Step> mSteps;
    int64_t mWindows = 0;
    Window mIn, mOut;
    std::deque<double> mPending;  // input windows whose output has not come yet
};

// Where the print comes from, once resolved.
struct NoiseSource {
    enum class Kind { Range, File, Print, None } kind = Kind::Range;  // None: the processor learns it
    std::string path;                                                 // the file the stretch is in, or the print file
    int64_t start = 0;
    int64_t frames = 0;
    int snapshots = 0;
};

// The stretch of `reader`'s file the print is taken from: the --noise range, or the whole file.
void ResolveStretch(const SpectralOptions& options, const std::optional<TimeRange>& range, const BlockReader& reader,
                    int64_t minimumFrames, int fftSize, NoiseSource& source) {
    const int rate = reader.Format().sampleRate;
    const std::optional<int64_t> total = reader.HeaderFrames();
    const std::string rangeText = "--noise " + options.noiseRange;
    if (!range) {
        if (!total)
            throw UsageError("cannot tell the length of " + Quoted(reader.Path()), "it is a stream",
                             "give the stretch to use with --noise START:END");
        source.start = 0;
        source.frames = *total;
    } else {
        const int64_t start = std::llround(range->start * rate);
        int64_t end = 0;
        if (range->hasEnd) {
            end = std::llround(range->end * rate);
        } else if (total) {
            end = *total;
        } else {
            throw UsageError(rangeText + " has no end, and the length of " + Quoted(reader.Path()) + " is not known",
                             "", "give the range as START:END");
        }
        if (total && (start >= *total || end > *total)) {
            const std::string length = FormatSeconds(double(*total) / rate);
            throw UsageError(rangeText + (start >= *total ? " starts after the end of " : " reaches past the end of ") +
                                 Quoted(reader.Path()),
                             "the file is " + length + " s long", "give a range within 0:" + length);
        }
        if (end <= start)
            throw UsageError(rangeText + " holds no whole frame at " + std::to_string(rate) + " Hz", "",
                             "give a longer stretch");
        source.start = start;
        source.frames = end - start;
    }
    if (source.frames < minimumFrames) {
        const std::string what =
            range ? rangeText + " is too short for a " : Quoted(reader.Path()) + " is too short for a ";
        throw UsageError(what + "capture",
                         "it holds " + FormatSeconds(double(source.frames) / rate) +
                             " s, and the capture needs at least " + FormatSecondsUp(minimumFrames, rate) + " s, " +
                             std::to_string(minimumFrames) + " frames at " + std::to_string(rate) +
                             " Hz with FFT size " + std::to_string(fftSize),
                         "choose a longer noise-only stretch, or a smaller --fft-size");
    }
}

// Streams the selection through the capture (of `channels` channels), reading only forward.
int RunCapture(dsp::DSPAnalyzer& capture, BlockReader& reader, const NoiseSource& source, Progress& progress,
               int channels) {
    return RunAnalysis(capture, reader, {source.start, source.frames}, channels, progress, [&](int64_t end) {
        // A file shorter than its header said, or a stream without a length.
        throw InputError("cannot take the noise print from " + Quoted(reader.Path()),
                         "it ends at " + FormatSeconds(double(end) / reader.Format().sampleRate) +
                             " s, before the end of the noise stretch",
                         "give a --noise range inside the file");
    });
}

// What the processing pass measured.
struct StreamMeasures {
    LevelMeter input;
    std::optional<RangeMeter> noiseIn, noiseOut;
    PauseMeter pauses;
    StreamMeasures(int channels, int rate) : input(channels), pauses(rate) {}
};

// The processor, after a line canceller when the tool has one, as one stage. With --residual and
// a canceller, the processor writes the cleaned audio and the stage gives the input, delayed as the
// two delay it, less their output: what the two removed together.
class SpectralStage : public Stage {
public:
    SpectralStage(std::shared_ptr<SpectralTool> tool, std::unique_ptr<dsp::OverlapSave> process,
                  std::unique_ptr<dsp::TonalLineCanceller> lines, bool residual, int channels)
        : mTool(std::move(tool)),
          mProcess(std::move(process)),
          mLines(std::move(lines)),
          mSkip(mLines ? mLines->GetLatency() : 0) {
        if (residual && mLines) {
            mDelay = std::size_t(Latency());
            mHistory.assign(std::size_t(channels) * mDelay, 0.0f);
            mDelayed.assign(std::size_t(channels) * kChunk, 0.0f);
        }
        mPointers.resize(std::size_t(channels));
    }

    int64_t Latency() const override { return (mLines ? mLines->GetLatency() : 0) + mProcess->GetLatency(); }
    void EndOfInput() override {
        if (mLines) mLines->MarkEnd();
    }

    void Process(float** channels, int count, int frames) override {
        for (int done = 0; done < frames;) {
            const int n = std::min(frames - done, int(kChunk));
            for (int c = 0; c < count; ++c)
                mPointers[std::size_t(c)] = channels[c] + done;
            float** p = mPointers.data();
            if (!mHistory.empty())
                for (int c = 0; c < count; ++c) {
                    float* history = mHistory.data() + std::size_t(c) * mDelay;
                    float* delayed = mDelayed.data() + std::size_t(c) * kChunk;
                    for (int i = 0; i < n; ++i) {
                        const std::size_t at = (mPosition + std::size_t(i)) % mDelay;
                        delayed[i] = history[at];  // the frame Latency() back, read before it is replaced
                        history[at] = p[c][i];
                    }
                }
            if (mLines) {
                // The processor starts on the canceller's first real frame, not on the silence of
                // its latency (the adaptive reducer would take that for the noise): those frames
                // leave the stage as silence instead, and the stage's latency stays the sum.
                mLines->Process(p, p, count, n);
                const int skip = int(std::min<int64_t>(mSkip, n));
                mSkip -= skip;
                for (int c = 0; c < count; ++c) {
                    std::fill(p[c], p[c] + skip, 0.0f);
                    p[c] += skip;
                }
                if (n > skip) mProcess->Process(p, p, count, n - skip);
                for (int c = 0; c < count; ++c)
                    p[c] -= skip;
            } else {
                mProcess->Process(p, p, count, n);
            }
            if (!mHistory.empty()) {
                for (int c = 0; c < count; ++c) {
                    const float* delayed = mDelayed.data() + std::size_t(c) * kChunk;
                    for (int i = 0; i < n; ++i)
                        p[c][i] = delayed[i] - p[c][i];
                }
                mPosition = (mPosition + std::size_t(n)) % mDelay;
            }
            done += n;
        }
    }

    const dsp::OverlapSave& Processor() const { return *mProcess; }
    const dsp::TonalLineCanceller* Lines() const { return mLines.get(); }

private:
    static constexpr std::size_t kChunk = 4096;

    std::shared_ptr<SpectralTool> mTool;  // the processor reads the tool's record: destroyed last
    std::unique_ptr<dsp::OverlapSave> mProcess;
    std::unique_ptr<dsp::TonalLineCanceller> mLines;
    int64_t mSkip;           // frames of the canceller's latency not yet passed over
    std::size_t mDelay = 0;  // the history's length: the latency
    std::size_t mPosition = 0;
    std::vector<float> mHistory, mDelayed;
    std::vector<float*> mPointers;
};

std::unique_ptr<SpectralStage> MakeStageOf(const SpectralOptions& options, std::shared_ptr<SpectralTool> tool,
                                           int channels, int sampleRate) {
    std::unique_ptr<dsp::OverlapSave> process = tool->MakeProcess(channels, sampleRate);
    std::unique_ptr<dsp::TonalLineCanceller> lines = tool->MakeLineCanceller(channels, sampleRate);
    return std::make_unique<SpectralStage>(std::move(tool), std::move(process), std::move(lines), options.residual,
                                           channels);
}

// Runs INPUT through the stage into OUTPUT with its latency compensated, measuring the levels on
// the way.
void StreamThrough(Stage& stage, BlockReader& reader, AudioOutput& output, Progress& progress,
                   StreamMeasures& measures) {
    StreamWatchers watchers;
    watchers.input = [&](const AudioBlock& block, int64_t position) {
        measures.input.Add(block);
        measures.pauses.AddInput(block);
        if (measures.noiseIn) measures.noiseIn->Add(block, position);
    };
    watchers.output = [&](const AudioBlock& block, int64_t position) {
        measures.pauses.AddOutput(block);
        if (measures.noiseOut) measures.noiseOut->Add(block, position);
    };
    StreamStages(reader, output, {&stage}, progress, watchers);
}

// The lines a canceller found, over all channels, to a tenth of a hertz and in rising order.
std::vector<double> LinesFound(const dsp::TonalLineCanceller& lines, int channels) {
    std::vector<double> found;
    for (int c = 0; c < channels; ++c)
        for (int i = 0; i < lines.GetLineCount(c); ++i)
            found.push_back(std::round(lines.GetLineFrequency(c, i) * 10.0) / 10.0);
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    return found;
}

// Where the print comes from, opened and checked: a capture to run and the reader it streams, or
// the print read from a file (given to the tool already).
struct NoisePlan {
    NoiseSource source;
    int fftSize = 0;
    int channels = 0;                          // the input's: a mono noise file is captured into every channel
    std::unique_ptr<BlockReader> noiseReader;  // when the print comes from another file
    BlockReader* captureReader = nullptr;
    std::unique_ptr<dsp::DSPAnalyzer> capture;
};

// Checks the command line by itself; returns the --noise range, if given.
std::optional<TimeRange> CheckRequest(const SpectralOptions& options, const SpectralTool& tool) {
    tool.CheckSettings();
    if (options.fftSize < kSmallestFftSize || options.fftSize > kLargestFftSize ||
        (options.fftSize & (options.fftSize - 1)) != 0)
        throw UsageError("--fft-size " + std::to_string(options.fftSize) + " is not usable", "",
                         "give a power of two from 256 to 16384, such as 4096");
    if (tool.LearnsNoise()) {
        const std::string method = "--method " + tool.Method();
        if (!options.printPath.empty() || !options.noiseFile.empty() || !options.savePrint.empty())
            throw UsageError(method + " takes no noise print", "it learns the noise while it runs",
                             "leave out --print, --noise-file and --save-print, or give --method print");
        if (options.fftSizeGiven)
            throw UsageError(method + " chooses its own FFT size", "", "leave out --fft-size, or give --method print");
        if (options.output.empty()) throw UsageError("no output file given", "", "name the file to write");
        std::optional<TimeRange> range;
        if (!options.noiseRange.empty()) range = ParseTimeRange(options.noiseRange, "--noise");
        return range;
    }
    const bool fromPrint = !options.printPath.empty();
    if (fromPrint && (!options.noiseRange.empty() || !options.noiseFile.empty()))
        throw UsageError("--print cannot be combined with --noise or --noise-file", "",
                         "use a saved print, or take a new one from a noise stretch");
    if (fromPrint && !options.savePrint.empty())
        throw UsageError("--print cannot be combined with --save-print", "",
                         "--save-print keeps a print taken by this run; a run with --print takes none");
    if (!fromPrint && options.noiseRange.empty() && options.noiseFile.empty())
        throw UsageError("no noise source given", "",
                         "give --noise START:END (a noise-only stretch of INPUT), --noise-file FILE or --print FILE");
    if (options.output.empty() && options.savePrint.empty())
        throw UsageError("no output file given", "",
                         "name the file to write, or give --save-print FILE to keep only the print");
    if (!options.output.empty() && !options.savePrint.empty() && SameTarget(options.output, options.savePrint))
        throw UsageError("--save-print names the same file as OUTPUT", "", "keep the print in a file of its own");
    std::optional<TimeRange> range;
    if (!options.noiseRange.empty()) range = ParseTimeRange(options.noiseRange, "--noise");
    return range;
}

void CheckChannels(const AudioFormat& format, const std::string& command, const std::string& input) {
    if (format.channels > kPrintMaxChannels)
        throw InputError("cannot " + command + " " + Quoted(input),
                         "it has " + std::to_string(format.channels) + " channels; kesta handles up to " +
                             std::to_string(kPrintMaxChannels),
                         "split the file into groups of channels");
}

// `readsInputTwice`: the input is read again after a capture from a stretch of it.
NoisePlan PlanNoise(const SpectralOptions& options, SpectralTool& tool, BlockReader& reader,
                    const std::optional<TimeRange>& range, bool readsInputTwice) {
    const AudioFormat& format = reader.Format();
    const bool fromPrint = !options.printPath.empty();
    NoisePlan plan;
    plan.fftSize = options.fftSizeGiven ? options.fftSize : tool.DefaultFftSize(format.sampleRate);
    plan.channels = format.channels;
    if (tool.LearnsNoise()) {
        // No print: a --noise stretch is only measured.
        plan.source.kind = NoiseSource::Kind::None;
        if (range) {
            ResolveStretch(options, range, reader, 1, 0, plan.source);
            plan.source.kind = NoiseSource::Kind::Range;
        }
        plan.source.path = reader.Path();
        return plan;
    }
    if (fromPrint) {
        PrintFile print = ReadPrintFile(options.printPath);
        CheckPrintMatches(print, options.printPath, tool.Kind(), format.channels, format.sampleRate,
                          options.fftSizeGiven ? options.fftSize : 0, options.input);
        plan.source.kind = NoiseSource::Kind::Print;
        plan.source.path = options.printPath;
        plan.source.start = print.span.start;
        plan.source.frames = print.span.frames;
        plan.fftSize = print.fftSize;
        tool.TakePrint(std::move(print));
    } else {
        if (!options.noiseFile.empty()) {
            plan.noiseReader = std::make_unique<BlockReader>(options.noiseFile);
            const AudioFormat& noise = plan.noiseReader->Format();
            if (noise.channels != format.channels && noise.channels != 1)
                throw UsageError(
                    "cannot take a print for " + Quoted(options.input) + " from " + Quoted(options.noiseFile),
                    "it has " + std::to_string(noise.channels) + " channel(s), the input " +
                        std::to_string(format.channels),
                    "give a noise file with as many channels as the input, or a mono one for every channel");
            if (noise.sampleRate != format.sampleRate)
                throw UsageError(
                    "cannot take a print for " + Quoted(options.input) + " from " + Quoted(options.noiseFile),
                    "it is at " + std::to_string(noise.sampleRate) + " Hz, the input at " +
                        std::to_string(format.sampleRate) + " Hz",
                    "give a noise file at the input's sample rate");
            plan.captureReader = plan.noiseReader.get();
            plan.source.kind = NoiseSource::Kind::File;
        } else {
            plan.captureReader = &reader;
            plan.source.kind = NoiseSource::Kind::Range;
            if (readsInputTwice && !reader.Seekable())
                throw InputError("cannot read " + Quoted(options.input) + " twice", "it is a stream, not a file",
                                 "save it to a file first, or take the print from --noise-file");
        }
        plan.source.path = plan.captureReader->Path();
        ResolveStretch(options, range, *plan.captureReader, tool.MinimumCaptureFrames(plan.fftSize), plan.fftSize,
                       plan.source);
        plan.capture = tool.MakeCapture(format.channels, format.sampleRate, plan.fftSize);
        if (!plan.capture->SetSelection(plan.source.start, plan.source.frames))
            throw UsageError("the noise stretch is too short for a capture", "", "choose a longer noise-only stretch");
    }

    return plan;
}

// Streams the capture of the plan and gives its print to the tool.
void CaptureNoise(NoisePlan& plan, SpectralTool& tool, Progress& progress) {
    plan.source.snapshots = RunCapture(*plan.capture, *plan.captureReader, plan.source, progress, plan.channels);
    tool.TakeCapture(*plan.capture);
    plan.capture.reset();
}

void WriteNumbers(JsonWriter& json, const std::vector<double>& values) {
    json.BeginArray();
    for (double v : values)
        json.Number(v);
    json.EndArray();
}

}  // namespace

TimeRange ParseTimeRange(const std::string& text, const std::string& option) {
    const std::string shown = option + " " + text;
    const std::string hint = "give START:END in seconds, such as " + option + " 0:1.5";
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos || text.find(':', colon + 1) != std::string::npos)
        throw UsageError(shown + " is not a time range", "", hint);
    const std::string first = text.substr(0, colon), second = text.substr(colon + 1);
    TimeRange range;
    if (first.empty() && second.empty()) throw UsageError(shown + " is not a time range", "", hint);
    if (!first.empty() && !ParseNumber(first, range.start))
        throw UsageError(shown + " is not a time range", Quoted(first) + " is not a number of seconds", hint);
    if (!second.empty()) {
        if (!ParseNumber(second, range.end))
            throw UsageError(shown + " is not a time range", Quoted(second) + " is not a number of seconds", hint);
        range.hasEnd = true;
    }
    if (range.start < 0.0 || (range.hasEnd && range.end < 0.0))
        throw UsageError(shown + " has a negative time", "", "times count in seconds from the start of the file");
    if (range.hasEnd && range.end <= range.start)
        throw UsageError(shown + (range.end < range.start ? " ends before it starts" : " is empty"), "",
                         "give START:END with START before END");
    return range;
}

void AddSpectralOptions(CLI::App& app, std::shared_ptr<SpectralOptions> options) {
    app.add_option("INPUT", options->input, "The audio file to clean")->required()->type_name("");
    app.add_option("OUTPUT", options->output, "The file to write (not INPUT); may be left out with --save-print")
        ->type_name("");
    app.add_option("--noise", options->noiseRange,
                   "A noise-only stretch of INPUT (or of --noise-file) in seconds, START:END, such as 0:1.5")
        ->type_name("START:END");
    app.add_option("--noise-file", options->noiseFile,
                   "Take the print from this file instead (all of it, or the --noise stretch in it; a mono file "
                   "serves every channel)")
        ->type_name("FILE");
    app.add_option("--print", options->printPath, "Use a print saved before with --save-print")->type_name("FILE");
    app.add_option("--save-print", options->savePrint, "Keep the print taken by this run in FILE")->type_name("FILE");
    AddNumberOption(app, "--fft-size", options->fftSize,
                    "FFT length of capture and processing, a power of two from 256 to 16384 (default 4096; with "
                    "--print, the print's)")
        ->type_name("N")
        ->each([options](const std::string&) { options->fftSizeGiven = true; });
    app.add_flag("--residual", options->residual, "Write what is removed instead of the cleaned audio");
    AddOutputOptions(app, options->out);
    AddBatchOptions(app, options->out.batch);
    AddReportOptions(app, options->report);
}

std::unique_ptr<Stage> MakeSpectralStage(const SpectralOptions& options, std::shared_ptr<SpectralTool> tool,
                                         const StageInput& in) {
    const std::optional<TimeRange> range = CheckRequest(options, *tool);
    if (!options.savePrint.empty())
        throw UsageError("a chain step does not save a print", "",
                         "save it with 'kesta " + tool->Command() + " --save-print FILE'");
    if (!in.first && !tool->LearnsNoise() && options.printPath.empty() && options.noiseFile.empty())
        throw UsageError("a " + tool->Command() + " step after another cannot take its print from INPUT",
                         "the steps before it change what it would hear",
                         "make it the first step, or give it noise-file= or print=");
    BlockReader reader(in.path);
    CheckChannels(reader.Format(), tool->Command(), in.path);
    NoisePlan plan = PlanNoise(options, *tool, reader, range, true);
    if (plan.capture) {
        Progress progress("capture", plan.source.start + plan.source.frames, reader.Format().sampleRate,
                          in.console.ShowsProgress());
        CaptureNoise(plan, *tool, progress);
    }
    return MakeStageOf(options, std::move(tool), in.format.channels, in.format.sampleRate);
}

int RunSpectralCommand(const SpectralOptions& options, std::shared_ptr<SpectralTool> toolPointer) {
    SpectralTool& tool = *toolPointer;
    const Stopwatch clock;
    const std::string command = tool.Command();

    // 1. The command line by itself.
    const std::optional<TimeRange> range = CheckRequest(options, tool);
    const bool fromPrint = !options.printPath.empty();

    // 2. The input and the noise source.
    BlockReader reader(options.input);
    const AudioFormat& format = reader.Format();
    CheckChannels(format, command, options.input);
    NoisePlan plan = PlanNoise(options, tool, reader, range, !options.output.empty());
    NoiseSource& source = plan.source;
    const int fftSize = plan.fftSize;
    const std::unique_ptr<BlockReader>& noiseReader = plan.noiseReader;
    BlockReader* captureReader = plan.captureReader;
    std::unique_ptr<dsp::DSPAnalyzer>& capture = plan.capture;

    // 3. The outputs, refused now rather than after the work.
    std::vector<SafeOutput::Input> inputs = {{options.input, reader.Identity()}};
    if (noiseReader) inputs.push_back({options.noiseFile, noiseReader->Identity()});
    if (fromPrint)
        if (auto identity = IdentityOfPath(options.printPath)) inputs.push_back({options.printPath, *identity});
    std::unique_ptr<SafeOutput> printOutput;
    if (!options.savePrint.empty())
        printOutput = std::make_unique<SafeOutput>(options.savePrint, inputs, options.out.force, options.out.sync);
    std::optional<AudioOutput> output;
    if (!options.output.empty()) output.emplace(options.output, reader, inputs, options.out);

    Console console(options.report);

    // One bar for the capture and the processing.
    std::optional<int64_t> work = capture ? source.start + source.frames : 0;
    if (output) work = reader.HeaderFrames() ? std::optional(*work + *reader.HeaderFrames()) : std::nullopt;
    Progress progress(capture ? "capture" : command, work, format.sampleRate, console.ShowsProgress());

    // 4. The capture.
    double captureSeconds = 0.0;
    if (capture) {
        const Stopwatch captureClock;
        CaptureNoise(plan, tool, progress);
        captureSeconds = captureClock.Seconds();
        if (printOutput)
            WriteAll(printOutput->Descriptor(), tool.EncodePrint(format.sampleRate, {source.start, source.frames}),
                     options.savePrint);
    }

    // 5. The processing.
    double processSeconds = 0.0;
    StreamMeasures measures(format.channels, format.sampleRate);
    std::unique_ptr<SpectralStage> stage;
    if (output) {
        if (captureReader == &reader) reader.Rewind();
        const Stopwatch processClock;
        stage = MakeStageOf(options, toolPointer, format.channels, format.sampleRate);
        if (source.kind == NoiseSource::Kind::Range) {
            // The stretch less one frame at either end, where the processing also hears what lies
            // beyond the stretch (when that leaves a frame or more).
            const int64_t frame = stage->Processor().GetFrameLength();
            int64_t from = source.start, to = source.start + source.frames;
            if (to - from >= 3 * frame) from += frame, to -= frame;
            measures.noiseIn.emplace(format.channels, from, to);
            measures.noiseOut.emplace(format.channels, from, to);
        }
        progress.Next(command);
        StreamThrough(*stage, reader, *output, progress, measures);
        processSeconds = processClock.Seconds();
    }

    progress.Finish();

    // 6. Into place.
    if (printOutput) printOutput->Commit();
    if (output) output->Commit();

    const int rate = format.sampleRate;
    const int64_t frames = reader.FramesRead();
    std::vector<double> levelChange, noiseChange;
    if (output) {
        WarnAfterStream(console, reader, *output, "add --float to keep them");
        levelChange = LevelChanges(measures.input.Levels(), output->Levels());
        if (measures.noiseIn)
            for (int c = 0; c < format.channels; ++c)
                noiseChange.push_back(measures.noiseOut->RmsDb(c) - measures.noiseIn->RmsDb(c));
    }
    const double seconds = clock.Seconds();

    const char* sourceName = source.kind == NoiseSource::Kind::Range  ? "range"
                             : source.kind == NoiseSource::Kind::File ? "file"
                             : source.kind == NoiseSource::Kind::None ? "none"
                                                                      : "print";
    const PauseMeter::Pauses pauses = output ? measures.pauses.Measure() : PauseMeter::Pauses{};
    JobReport report(console, command);
    report.Input(options.input, format, output ? frames : reader.HeaderFrames().value_or(0));
    if (!tool.Method().empty()) report.Field("method", tool.Method());
    report.Object("noise", [&](JsonWriter& json) {
        json.Key("source").String(sourceName);
        if (tool.LearnsNoise()) {
            // Nothing captured: only the stretch the report measures, if one was given.
            if (source.kind == NoiseSource::Kind::Range) {
                json.Key("start_seconds").Number(double(source.start) / rate);
                json.Key("end_seconds").Number(double(source.start + source.frames) / rate);
            }
            return;
        }
        json.Key("file").String(source.path);
        json.Key("kind").String(PrintKindName(tool.Kind()));
        json.Key("fft_size").Int(fftSize);
        json.Key("start_seconds").Number(double(source.start) / rate);
        json.Key("end_seconds").Number(double(source.start + source.frames) / rate);
        json.Key("start_frame").Int(source.start);
        json.Key("frames").Int(source.frames);
        if (source.kind == NoiseSource::Kind::Print)
            json.Key("snapshots").Null();
        else
            json.Key("snapshots").Int(source.snapshots);
    });
    report.Object("settings", [&](JsonWriter& json) {
        tool.WriteSettings(json);
        json.Key("residual").Bool(options.residual);
    });
    const dsp::TonalLineCanceller* lines = stage ? stage->Lines() : nullptr;
    const std::vector<double> linesFound = lines ? LinesFound(*lines, format.channels) : std::vector<double>{};
    if (lines)
        report.Object("lines", [&](JsonWriter& json) {
            json.Key("cancelled").Int(int64_t(linesFound.size()));
            json.Key("frequencies_hz");
            WriteNumbers(json, linesFound);
        });
    report.Field("saved_print", printOutput ? std::optional(options.savePrint) : std::nullopt);
    if (output)
        report.Output(*output, [&](JsonWriter& json) {
            json.Key("level_change_db");
            WriteNumbers(json, levelChange);
            json.Key("noise_level_change_db");
            if (measures.noiseIn)
                WriteNumbers(json, noiseChange);
            else
                json.Null();
            json.Key("pause_level_change_db");
            if (pauses.found)
                json.Number(pauses.changeDb);
            else
                json.Null();
            json.Key("pause_seconds").Number(pauses.seconds);
        });
    else
        report.Json().Key("output").Null();
    WriteTimings(report.Json(), frames, rate, processSeconds, seconds, captureSeconds);

    const std::string stretch = FormatSeconds(double(source.start) / rate) + "-" +
                                FormatSeconds(double(source.start + source.frames) / rate) + " s";
    if (tool.LearnsNoise())
        report.Line("Method " + tool.Method() + ": the noise is learnt while processing, no print taken");
    else if (source.kind == NoiseSource::Kind::Print)
        report.Line("Using the " + PrintKindName(tool.Kind()) + " in " + options.printPath + " (taken from " + stretch +
                    ", FFT size " + std::to_string(fftSize) + ")");
    else
        report.Line("Took a " + PrintKindName(tool.Kind()) + " from " + stretch + " of " + source.path + " (" +
                    std::to_string(source.snapshots) + " snapshots, FFT size " + std::to_string(fftSize) + ")");
    if (printOutput) report.Line("Saved the print in " + options.savePrint);
    if (output) {
        report.Line(output->Summary() + ", " + tool.DescribeSettings() +
                    (options.residual ? ", what was removed" : ""));
        std::string change = "Level change: " + DescribeChange(levelChange) + " overall";
        if (measures.noiseIn) change += ", " + DescribeChange(noiseChange) + " in the noise stretch";
        if (pauses.found)
            change += ", " + FormatValue(std::round(pauses.changeDb * 10.0) / 10.0) + " dB in the pauses (" +
                      FormatSeconds(pauses.seconds) + " s)";
        report.Line(change + " " + RealTimeText(frames, rate, processSeconds));
        if (lines) {
            std::string text = "Steady lines cancelled first: " + std::to_string(linesFound.size());
            for (std::size_t i = 0; i < linesFound.size(); ++i)
                text +=
                    (i == 0 ? " (" : ", ") + FormatValue(linesFound[i]) + (i + 1 == linesFound.size() ? " Hz)" : "");
            report.Line(text);
        }
    }
    return report.Print(seconds);
}

}  // namespace kesta
