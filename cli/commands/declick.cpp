// kesta declick INPUT OUTPUT: finds clicks and crackle and replaces them from the audio around them.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <ostream>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

#include "command.h"
#include "dsp/noclick.h"
#include "errors.h"
#include "io/block_reader.h"
#include "io/safe_output.h"
#include "pipeline/command_line.h"
#include "pipeline/command_support.h"
#include "pipeline/console.h"
#include "pipeline/job.h"
#include "pipeline/json_writer.h"
#include "pipeline/progress.h"
#include "pipeline/report.h"
#include "pipeline/units.h"

namespace kesta {

namespace {

using dsp::noclick::NOCLICK;
using dsp::utils::Range;

constexpr double kMaxThreshold = 200.0;
constexpr int kMaxComplexity = 200;
// A found range is extended by this much (at 44.1 kHz) before repair: a click's decaying tail
// falls under the detection level well before it is inaudible.
constexpr double kTailSeconds = 8.0 / 44100.0;

constexpr const char* kHelpFooter =
    R"help(Clicks and crackle are short disturbances (a scratch on a record, a digital glitch) that the
music around them cannot explain. kesta predicts every sample from the samples before it with a
model fitted to the surrounding 70 ms, and marks samples whose prediction error stands out from
the error's local level over +-0.7 ms. A buzz (such events at a fixed spacing of up to 256
samples, 5.8 ms at 44.1 kHz) is left alone; sparser series, such as drum hits, are judged one by
one. Each marked stretch is then redrawn from the model so that it continues the audio on both
sides; every other sample is written unchanged.

--threshold T (default 55, 0 ... 200): a sample counts as a click when its prediction error is
  more than (T + 25) / 10 times the local error level (8x by default). Lower finds more and
  quieter clicks; higher only the loudest. Sharp attacks that belong to the sound (consonants,
  drum hits, mouth clicks) are marked too: on speech and music about 1 in 3 marked stretches
  was one at 55, 1 in 7 at 125 and 1 in 18 at 200.
--complexity C (default 16, 0 ... 200): detail of the model, 20 + C/2 past samples per
  prediction. Higher follows dense, tonal music better and runs slower.
--report FILE: every click found, one line (FILE.csv) or object (FILE.json) each: channel
  (1 = first), start in frames and seconds, length in frames and milliseconds, and whether it
  was repaired. The stretch repaired is the stretch listed.
--detect-only: find and report, write no audio (give no OUTPUT).

The output has the input's length, format and rate and is aligned with it sample for sample.
It is written to a temporary file beside OUTPUT and moved into place only when complete; an
existing OUTPUT or report is replaced only with --force.

Exit status: 0 done; 2 wrong command line; 3 input problem; 4 output problem.

Examples:
  kesta declick record.wav record-clean.wav
  kesta declick record.flac clean.flac --threshold 40 --report clicks.csv
  kesta declick take.wav --detect-only --report clicks.json)help";

struct DeclickOptions {
    std::string input;
    std::string output;
    double threshold = 55.0;
    int complexity = 16;
    std::string report;
    bool detectOnly = false;
    OutputOptions out;
    ReportOptions reportOptions;
};

enum class ReportKind { None, Csv, Json };

ReportKind KindOf(const std::string& path) {
    if (path.empty()) return ReportKind::None;
    std::string ext = std::filesystem::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    if (ext == ".csv") return ReportKind::Csv;
    if (ext == ".json") return ReportKind::Json;
    throw UsageError("--report " + Quoted(path) + " has no known format", "its name ends in neither .csv nor .json",
                     "name it FILE.csv or FILE.json");
}

void CheckOptions(const DeclickOptions& o) {
    CheckSetting("--threshold", o.threshold, 0.0, kMaxThreshold, "");
    CheckSetting("--complexity", o.complexity, 0, kMaxComplexity, "");
    if (o.detectOnly && !o.output.empty())
        throw UsageError("OUTPUT " + Quoted(o.output) + " would not be written", "--detect-only writes no audio",
                         "leave OUTPUT out, or drop --detect-only");
    if (!o.detectOnly && o.output.empty())
        throw UsageError("no OUTPUT given", "", "give the file to write, or --detect-only to find clicks only");
    if (o.detectOnly && o.report.empty() && o.reportOptions.quiet && !o.reportOptions.json)
        throw UsageError("--detect-only with --quiet and no --report has nothing to show", "",
                         "add --report FILE or --json");
    KindOf(o.report);
    if (!o.report.empty() && !o.output.empty() && SameTarget(o.report, o.output))
        throw UsageError("--report and OUTPUT name the same file " + Quoted(o.report), "", "give two names");
}

// Appends a found click to a channel's repair list: with its tail, inside the file, and joined
// with the last range when it overlaps or touches it (blocks of the detector overlap, so a click
// may be reported twice). Clicks must come in order of start.
void AddToRepairList(std::vector<Range>& list, Range r, int tail, int64_t frames) {
    r.length = int32_t(std::min<int64_t>(r.length + tail, frames - r.start));
    if (!list.empty() && r.start <= list.back().start + list.back().length)
        list.back().length =
            int32_t(std::max(list.back().start + list.back().length, r.start + r.length) - list.back().start);
    else
        list.push_back(r);
}

// The detector over a stream of `frames` frames, fed a hop at a time (silence after the end): each
// click found goes to the repair lists in order of start, as the sorted list of the whole pass would
// give it, as soon as no click found later can start before it. The detector reports every click
// that starts before the end of its latest analysed block's first hop (later blocks start there);
// what it has reported is taken from its list at once, so only the clicks near its frontier are held.
class ClickCollector {
public:
    ClickCollector(const NOCLICK& record, int64_t frames, int tail)
        : mFind(&record), mFrames(frames), mTail(tail), mWaiting(std::size_t(record.channels)) {
        mFind.SetSelection(0, frames);
        mFind.Start(nullptr);
    }
    bool Finished() const { return mFinished; }

    // Analyses the next hop of every channel and adds to `lists` the clicks now known to be in order.
    void Analyze(float** hop, std::vector<std::vector<Range>>& lists) {
        using dsp::noclick::FindClicks;
        if (mFinished) return;
        const int channels = int(mWaiting.size());
        mFind.Analyze(hop, channels, FindClicks::kHop);
        mFed += FindClicks::kHop;
        const int64_t blocks = (FindClicks::kLeadIn + mFed - FindClicks::kRead) / FindClicks::kHop;
        int64_t frontier = -FindClicks::kLeadIn + blocks * FindClicks::kHop + FindClicks::kOffset + FindClicks::kHop;
        if (mFind.IsCompleted()) {
            mFind.Done();
            mFinished = true;
            frontier = std::numeric_limits<int64_t>::max();
        }
        for (int c = 0; c < channels; ++c) {
            std::vector<Range>& found = mFind.GetParam()->foundClicks[std::size_t(c)];
            std::vector<Range>& waiting = mWaiting[std::size_t(c)];
            for (const Range& r : found)  // the last ones, sorted by Done, may reach back before mFinal
                if (!mFinished || r.start >= mFinal) waiting.push_back(r);
            found.clear();
            std::stable_sort(waiting.begin(), waiting.end(), dsp::utils::CompareLowerBound);
            auto ready = waiting.begin();
            while (ready != waiting.end() && ready->start < frontier)
                ++ready;
            for (auto r = waiting.begin(); r != ready; ++r)
                AddToRepairList(lists[std::size_t(c)], *r, mTail, mFrames);
            waiting.erase(waiting.begin(), ready);
        }
        mFinal = frontier;
    }

private:
    dsp::noclick::FindClicks mFind;
    int64_t mFrames;
    int mTail;
    int64_t mFed = 0;
    bool mFinished = false;
    int64_t mFinal = std::numeric_limits<int64_t>::min();  // clicks starting before it are in the lists
    std::vector<std::vector<Range>> mWaiting;              // found, but not yet known to be in order
};

// One detection pass over the whole file, a hop at a time (silence after its end): the repair list
// of every channel.
std::vector<std::vector<Range>> FindAll(BlockReader& reader, const NOCLICK& record, int64_t frames, int tail,
                                        Progress& progress) {
    ClickCollector collector(record, frames, tail);
    const int channels = reader.Format().channels;
    AudioBlock block = reader.MakeBlock(std::size_t(dsp::noclick::FindClicks::kHop));
    std::vector<float*> pointers(static_cast<std::size_t>(channels));
    for (int c = 0; c < channels; ++c)
        pointers[std::size_t(c)] = block.Channel(c);
    std::vector<std::vector<Range>> lists(static_cast<std::size_t>(channels));
    while (!collector.Finished()) {
        const bool more = reader.Read(block);
        const std::size_t got = more ? block.Frames() : 0;
        for (int c = 0; c < channels; ++c)
            std::fill(block.Channel(c) + got, block.Channel(c) + block.Capacity(), 0.0f);
        progress.Advance(int64_t(got));
        collector.Analyze(pointers.data(), lists);
        if (got < block.Capacity() && reader.FramesRead() < frames)
            throw InputError("cannot read all of " + Quoted(reader.Path()), "it ended early", "");
    }
    return lists;
}

// Detection and repair in one stream, for a chain: the same samples as the two passes of the
// command. A repair list entry is final once every click that could join it is known. The repair
// runs kDelay frames behind the detector, which keeps the detector's frontier more than a block
// beyond every range the repair takes, so each range it takes is the one the command's list holds
// (or one too long to repair either way).
class DeclickStage : public Stage {
public:
    DeclickStage(const NOCLICK& record, int64_t frames, int tail)
        : mFind(record, frames, tail), mFix(&record), mChannels(record.channels) {
        using dsp::noclick::FindClicks;
        mFix.GetParam()->repairClicks.assign(std::size_t(mChannels), {});
        // The repair hears kDelay frames of silence first, and its blocks keep their places.
        mFix.SetSelection(-kDelay, frames + kDelay);
        mFix.Start();
        mChunk.assign(std::size_t(mChannels) * FindClicks::kHop, 0.0f);
        mChunkPointers.resize(std::size_t(mChannels));
        for (int c = 0; c < mChannels; ++c)
            mChunkPointers[std::size_t(c)] = mChunk.data() + std::size_t(c) * FindClicks::kHop;
        mDelay.assign(std::size_t(mChannels) * kDelay, 0.0f);
    }
    int64_t Latency() const override { return kDelay + mFix.GetLatency(); }
    void Process(float** channels, int, int frames) override {
        using dsp::noclick::FindClicks;
        for (int done = 0; done < frames;) {
            const int n = std::min(frames - done, FindClicks::kHop - mChunkFill);
            for (int c = 0; c < mChannels; ++c)
                std::copy_n(channels[c] + done, n, mChunkPointers[std::size_t(c)] + mChunkFill);
            mChunkFill += n;
            done += n;
            if (mChunkFill == FindClicks::kHop) {
                mChunkFill = 0;
                mFind.Analyze(mChunkPointers.data(), mFix.GetParam()->repairClicks);
            }
        }
        for (int c = 0; c < mChannels; ++c) {
            float* delay = mDelay.data() + std::size_t(c) * kDelay;
            for (int i = 0, at = mDelayAt; i < frames; ++i) {
                std::swap(channels[c][i], delay[at]);
                at = at + 1 == kDelay ? 0 : at + 1;
            }
        }
        mDelayAt = int((mDelayAt + int64_t(frames)) % kDelay);
        mFix.Process(channels, channels, mChannels, frames);
    }

private:
    static constexpr int kDelay = 2 * dsp::noclick::FindClicks::kHop;

    ClickCollector mFind;
    dsp::noclick::ReplaceClicks mFix;
    int mChannels;
    std::vector<float> mChunk;  // the detector's next hop, per channel
    std::vector<float*> mChunkPointers;
    int mChunkFill = 0;
    std::vector<float> mDelay;
    int mDelayAt = 0;
};

class ReplaceStage : public Stage {
public:
    ReplaceStage(const NOCLICK& record, std::vector<std::vector<Range>> ranges, int64_t frames) : mFix(&record) {
        mFix.GetParam()->repairClicks = std::move(ranges);
        mFix.SetSelection(0, frames);
        mFix.Start();
    }
    int64_t Latency() const override { return mFix.GetLatency(); }
    void Process(float** channels, int channelCount, int frames) override {
        mFix.Process(channels, channels, channelCount, frames);
    }
    // The ranges it repairs, per channel (the only copy of the list).
    const std::vector<std::vector<Range>>& Ranges() { return mFix.GetParam()->repairClicks; }

private:
    dsp::noclick::ReplaceClicks mFix;
};

// Text for a file descriptor, handed on 64 KiB at a time, so a long report is never held whole.
// A stream swallows its buffer's exceptions: a failed write is kept and thrown by Flush.
class DescriptorBuffer : public std::streambuf {
public:
    DescriptorBuffer(int fd, std::string target) : mFd(fd), mTarget(std::move(target)), mBuffer(1 << 16) {
        setp(mBuffer.data(), mBuffer.data() + mBuffer.size());
    }
    // Writes what is buffered; throws the first failure.
    void Flush() {
        if (!mFailure) Drain();
        if (mFailure) std::rethrow_exception(mFailure);
    }

private:
    int_type overflow(int_type c) override {
        if (!mFailure) Drain();
        if (mFailure) return traits_type::eof();
        if (!traits_type::eq_int_type(c, traits_type::eof())) sputc(traits_type::to_char_type(c));
        return traits_type::not_eof(c);
    }
    void Drain() {
        try {
            WriteAll(mFd, std::string(pbase(), pptr()), mTarget);
        } catch (...) {
            mFailure = std::current_exception();
        }
        setp(mBuffer.data(), mBuffer.data() + mBuffer.size());
    }

    int mFd;
    std::string mTarget;
    std::vector<char> mBuffer;
    std::exception_ptr mFailure;
};

// Every range of every channel, in order of start (the lower channel first at equal starts), into
// the report `fd`.
void WriteReport(int fd, const std::string& path, ReportKind kind, const std::vector<std::vector<Range>>& ranges,
                 int rate, bool repaired) {
    DescriptorBuffer buffer(fd, path);
    std::ostream text(&buffer);
    std::vector<std::size_t> next(ranges.size(), 0);
    // Calls `row` with each channel (from 1) and range in turn.
    const auto merge = [&](const auto& row) {
        for (;;) {
            std::size_t first = ranges.size();
            for (std::size_t c = 0; c < ranges.size(); ++c)
                if (next[c] < ranges[c].size() &&
                    (first == ranges.size() || ranges[c][next[c]].start < ranges[first][next[first]].start))
                    first = c;
            if (first == ranges.size()) return;
            row(int(first) + 1, ranges[first][next[first]++]);
        }
    };
    if (kind == ReportKind::Csv) {
        text << "channel,start_frame,start_seconds,length_frames,length_ms,repaired\n";
        merge([&](int channel, const Range& r) {
            char line[160];
            std::snprintf(line, sizeof line, "%d,%lld,%.6f,%d,%.3f,%s\n", channel, (long long)r.start,
                          double(r.start) / rate, r.length, 1000.0 * r.length / rate, repaired ? "yes" : "no");
            text << line;
        });
    } else {
        JsonWriter json(text);
        json.BeginObject();
        json.Key("sample_rate").Int(rate);
        json.Key("clicks").BeginArray();
        merge([&](int channel, const Range& r) {
            json.BeginObject();
            json.Key("channel").Int(channel);
            json.Key("start_frame").Int(r.start);
            json.Key("start_seconds").Number(double(r.start) / rate);
            json.Key("length_frames").Int(r.length);
            json.Key("length_ms").Number(1000.0 * r.length / rate);
            json.Key("repaired").Bool(repaired);
            json.EndObject();
        });
        json.EndArray();
        json.EndObject();
    }
    buffer.Flush();
}

NOCLICK MakeRecord(const DeclickOptions& options, const AudioFormat& format) {
    NOCLICK record;
    dsp::noclick::SetDefaultParameter(&record);
    record.channels = format.channels;
    record.sampleRate = float(format.sampleRate);
    record.threshold = options.threshold;
    record.complexity = options.complexity;
    dsp::noclick::AllocateArrays(&record);
    return record;
}

int TailFrames(const AudioFormat& format) {
    return int(std::lround(kTailSeconds * format.sampleRate));
}

std::unique_ptr<Stage> MakeDeclickStage(const DeclickOptions& options, const StageInput& in) {
    CheckSetting("--threshold", options.threshold, 0.0, kMaxThreshold, "");
    CheckSetting("--complexity", options.complexity, 0, kMaxComplexity, "");
    if (options.detectOnly || !options.report.empty())
        throw UsageError("a declick step does not list its clicks", "",
                         "run 'kesta declick --detect-only --report FILE' on its own for the list");
    if (!in.frames)
        throw InputError("cannot declick " + Quoted(in.path), "its length is not known in advance (a stream)",
                         "save it to a file first");
    return std::make_unique<DeclickStage>(MakeRecord(options, in.format), *in.frames, TailFrames(in.format));
}

int RunDeclick(const DeclickOptions& options) {
    CheckOptions(options);
    const ReportKind kind = KindOf(options.report);
    const Stopwatch clock;
    Console console(options.reportOptions);

    BlockReader reader(options.input);
    const AudioFormat& format = reader.Format();
    const std::optional<int64_t> header = reader.HeaderFrames();
    if (!header || !reader.Seekable())
        throw InputError("cannot declick " + Quoted(options.input), "its length is not known in advance (a stream)",
                         "save it to a file first");
    const int64_t frames = *header;

    std::unique_ptr<AudioOutput> output;
    if (!options.detectOnly)
        output = std::make_unique<AudioOutput>(
            options.output, reader, std::vector<SafeOutput::Input>{{options.input, reader.Identity()}}, options.out);
    std::unique_ptr<SafeOutput> reportFile;
    if (kind != ReportKind::None)
        reportFile = std::make_unique<SafeOutput>(options.report,
                                                  std::vector<SafeOutput::Input>{{options.input, reader.Identity()}},
                                                  options.out.force, options.out.sync);

    const NOCLICK record = MakeRecord(options, format);
    std::vector<std::vector<Range>> found;
    {
        Progress progress(options.detectOnly ? "declick: detect" : "declick: 1/2 detect", header, format.sampleRate,
                          console.ShowsProgress());
        found = FindAll(reader, record, frames, TailFrames(format), progress);
    }
    std::optional<ReplaceStage> stage;
    if (output) {
        reader.Rewind();
        stage.emplace(record, std::move(found), frames);
        Progress progress("declick: 2/2 repair", header, format.sampleRate, console.ShowsProgress());
        StreamStages(reader, *output, {&*stage}, progress);
    }
    const std::vector<std::vector<Range>>& ranges = stage ? stage->Ranges() : found;
    if (reportFile) {
        WriteReport(reportFile->Descriptor(), options.report, kind, ranges, format.sampleRate, bool(output));
        reportFile->Commit();
    }
    if (output) {
        output->Commit();
        WarnAfterStream(console, reader, *output, "the input was already at full scale");
    }

    std::vector<int64_t> counts(ranges.size()), samples(ranges.size());
    for (std::size_t c = 0; c < ranges.size(); ++c) {
        counts[c] = int64_t(ranges[c].size());
        for (const Range& r : ranges[c])
            samples[c] += r.length;
    }
    JobReport report(console, "declick");
    report.Field("threshold", options.threshold).Field("complexity", options.complexity);
    report.Field("detect_only", options.detectOnly).Input(options.input, format, frames);
    if (output) report.Output(*output).Line(output->Summary());
    report.Json().Key("channels").BeginArray();
    for (std::size_t c = 0; c < ranges.size(); ++c) {
        const double percent = frames > 0 ? 100.0 * double(samples[c]) / double(frames) : 0.0;
        JsonWriter& json = report.Json();
        json.BeginObject();
        json.Key("channel").Int(int64_t(c) + 1);
        json.Key("clicks").Int(counts[c]);
        json.Key("samples").Int(samples[c]);
        json.Key("percent").Number(percent);
        json.EndObject();
        char line[200];
        std::snprintf(line, sizeof line, "Channel %zu: %lld click(s) %s, %lld samples (%.4f%%)", c + 1,
                      (long long)counts[c], output ? "repaired" : "found", (long long)samples[c], percent);
        report.Line(line);
    }
    report.Json().EndArray();
    if (!options.report.empty()) report.Field("report", options.report).Line("Report: " + options.report);
    return report.Print(clock.Seconds());
}

}  // namespace

Command AddDeclickCommand(CLI::App& kesta) {
    auto options = std::make_shared<DeclickOptions>();
    CLI::App* app = kesta.add_subcommand("declick", "Find clicks and crackle and replace them");
    app->footer(kHelpFooter);
    app->add_option("INPUT", options->input, "The audio file to read")->required()->type_name("");
    app->add_option("OUTPUT", options->output, "The file to write (not INPUT; none with --detect-only)")->type_name("");
    AddNumberOption(*app, "--threshold", options->threshold,
                    "Detection threshold 0 ... 200 (default 55; lower finds more)")
        ->type_name("T");
    AddNumberOption(*app, "--complexity", options->complexity, "Model detail 0 ... 200 (default 16)")->type_name("C");
    app->add_option("--report", options->report, "Write every click found to FILE.csv or FILE.json")->type_name("FILE");
    app->add_flag("--detect-only", options->detectOnly, "Find and report clicks; write no audio");
    AddOutputOptions(*app, options->out);
    AddReportOptions(*app, options->reportOptions);
    return {app, [options] { return RunDeclick(*options); },
            [options](const StageInput& in) { return MakeDeclickStage(*options, in); }};
}

}  // namespace kesta
