#pragma once
// The one flow of a kesta command, shared by every command:
//
//   BlockReader reader(input);                                  // input errors, exit 3
//   ... settings checked against the input, analysis passes prepared ...
//   AudioOutput output(path, reader, {{input, reader.Identity()}}, options.output);  // refusals, exit 4
//   ... analysis passes streamed (a capture over a stretch of the file) ...
//   std::vector<Stage*> stages = {...};                         // the command's processors
//   StreamStages(reader, output, stages, progress, watchers);   // latency compensated
//   output.Commit();                                            // only now does OUTPUT appear
//   WarnAfterStream(console, reader, output, advice);           // length and clipping warnings
//
// The output keeps the input's format unless its name or --bits/--float choose another; it is
// written to a temporary file beside the target and moved into place only when complete.
//
// Three other shapes of command use the same stream:
//   - output of another rate or length (resampling, removing silence): the command's stage derives
//     from ResizingStage and says what rate it makes and exactly how many frames it makes of N input
//     frames. Make the stages first and give them to AudioOutput (its rate, its expected length and
//     the markers' new places come from them); StreamStages then writes exactly that many frames.
//   - no input (a generator): a Generator fills the blocks; AudioOutput(path, basis, frames, options)
//     and StreamGenerated(generator, frames, output, stages, progress).
//   - no audio output (an analysis): StreamToSink(reader, stages, progress, sink) hands every block,
//     as the stages leave it, to the command's analyzers; the command only reports.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "batch.h"
#include "io/audio_block.h"
#include "io/audio_format.h"
#include "io/block_reader.h"
#include "io/block_writer.h"
#include "io/safe_output.h"
#include "level_meter.h"
#include "progress.h"

namespace CLI {
class App;
}

namespace kesta {

class Console;
class JsonWriter;

// What a command that writes audio lets the person choose about OUTPUT.
struct OutputOptions {
    bool force = false;
    int bits = 0;               // --bits: 8, 16, 24 or 32 bits integer PCM; 0 keeps the chosen encoding
    bool floatSamples = false;  // --float: 32-bit float samples
    bool sync = false;          // --sync: on disk before the command ends, also as a new file
    BatchOptions batch;         // refused in a single run
};
// Adds --force, --bits, --float and --sync.
void AddOutputOptions(CLI::App& command, OutputOptions& options);

// The format OUTPUT gets: ChooseOutputFormat's, with the encoding --bits or --float asks for.
// Throws a usage error when the container cannot hold that encoding (Ogg, MP3) or both are given.
AudioFormat ChooseEncodedFormat(const AudioFormat& input, const std::string& outputPath, const OutputOptions& options);

class Stopwatch {
public:
    double Seconds() const { return std::chrono::duration<double>(Clock::now() - mStart).count(); }

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point mStart = Clock::now();
};

// A processor of a stream: every block of every channel in place, the output lagging the input by
// Latency() frames. A command's factory makes one, set up for the input's channels and rate.
class Stage {
public:
    virtual ~Stage() = default;
    virtual int64_t Latency() const = 0;
    virtual void Process(float** channels, int channelCount, int frames) = 0;
    // The input is complete: what follows is the silence that brings the delayed tail out.
    virtual void EndOfInput() {}
    // Whether the stage costs less than handing its blocks to another thread (a gain, a fixed mix of
    // the channels): a stream of such stages alone runs on one thread.
    virtual bool Light() const { return false; }
};

// A stage whose output has another rate or length than its input (a resampler, a silence remover).
// It converts each block from one buffer into another instead of processing in place; its latency
// counts output frames (the stream drops that many from the start, and feeds silence after the input
// until the stage has made OutputFrames(input frames) frames after them).
class ResizingStage : public Stage {
public:
    // The rate of the output for input at `inputRate`.
    virtual int OutputRate(int inputRate) const { return inputRate; }
    // The frames of output the first `inputFrames` input frames make, latency left out: exactly what
    // OUTPUT holds for an input of that length, and where a marker at input frame `inputFrames` lands.
    // Never decreasing; the frames the stage has made (less its latency) never exceed it.
    virtual int64_t OutputFrames(int64_t inputFrames) const = 0;
    // The most frames one Convert call makes of `inputFrames` frames.
    virtual std::size_t MaxOutputFrames(std::size_t inputFrames) const = 0;
    // Converts `frames` frames of every channel of `in` into `out` and returns the frames made.
    virtual std::size_t Convert(const float* const* in, float* const* out, int channelCount, std::size_t frames) = 0;

private:
    // The stream calls Convert: a stage that changes the length cannot work in place.
    void Process(float**, int, int) final;
};

// The audio of a command without an input (a generator), block after block.
class Generator {
public:
    virtual ~Generator() = default;
    // Writes the next `frames` frames of every channel.
    virtual void Generate(float** channels, int channelCount, int frames) = 0;
};

// A stage made of a function, for processors without delay or state worth a class; `light` as
// Stage::Light.
std::unique_ptr<Stage> MakeStage(int64_t latency, std::function<void(float**, int, int)> process, bool light = false);

// Consecutive channels that a processor of their own handles, sharing nothing with the others.
struct ChannelGroup {
    int channels = 1;              // how many channels, from the one after the previous group's
    std::unique_ptr<Stage> stage;  // made for that many channels
};

// A stage made of channel groups (one resampler per channel, a limiter per channel when the
// channels are not linked): it runs them one after another, and a threaded stream runs each on a
// thread of its own. The groups' stages must be alike (the same latency and, for resizing stages,
// the same rate and length), as when they are made from the same settings. A resizing stage makes
// a resizing split.
std::unique_ptr<Stage> MakeChannelSplit(std::vector<ChannelGroup> groups);

// One group per channel, each made by `make` (called for channel 0, 1, ...; always with 1 channel).
std::unique_ptr<Stage> SplitByChannel(int channels, const std::function<std::unique_ptr<Stage>()>& make);

// The first group's stage of a split stage; `stage` itself otherwise.
const Stage& FirstGroup(const Stage& stage);

// An audio file being written: refused before any work when it exists (without --force) or is one
// of the inputs; measured as written (levels after the encoding's clipping); in place on Commit.
class AudioOutput {
public:
    // OUTPUT for what `stages` make of `source`'s audio: the input's format at the rate the stages
    // give, its descriptive data, its markers moved to where the stages put their frames.
    AudioOutput(const std::string& path, const BlockReader& source, const std::vector<SafeOutput::Input>& inputs,
                const OutputOptions& options, const std::vector<Stage*>& stages = {});
    // OUTPUT for `frames` frames made without an input: `basis` gives the rate and the channels, and
    // the container and encoding when OUTPUT's name has no extension.
    AudioOutput(const std::string& path, const AudioFormat& basis, int64_t frames, const OutputOptions& options);

    const std::string& Path() const { return mPath; }
    const AudioFormat& Format() const { return mWriter.Format(); }
    const BlockWriter& Writer() const { return mWriter; }

    // Writes a block (which may then hold the clipped samples).
    void Write(AudioBlock& block);
    // Completes the file; the work is done.
    void Finish() { mWriter.Finish(); }
    void Commit() { mOutput.Commit(); }

    // What of the input's descriptive data the output's container cannot keep, one line each.
    const std::vector<std::string>& MetadataLost() const { return mMetadataLost; }

    // Levels of what was written, and the largest magnitude before clipping.
    std::vector<ChannelLevels> Levels() const { return mWritten.Levels(); }
    double Peak() const;
    double UnclippedPeak() const { return mWriter.UnclippedPeak(); }

    // "Wrote PATH: WAV (PCM 16-bit), 44100 Hz, 2 channel(s), 0:01.500"
    std::string Summary() const;
    // "file", the audio fields, "clipped_samples" and "levels" of the JSON "output" object.
    void WriteFields(JsonWriter& json) const;

private:
    struct Shape;  // format, descriptive data and expected length
    static Shape ShapeOf(const BlockReader& source, const std::vector<Stage*>& stages);
    AudioOutput(const std::string& path, const Shape& shape, const std::vector<SafeOutput::Input>& inputs,
                const OutputOptions& options);

    std::string mPath;
    SafeOutput mOutput;
    BlockWriter mWriter;
    LevelMeter mWritten;
    std::vector<std::string> mMetadataLost;
};

// Sees a block of the stream and the position of its first frame.
using WatchBlock = std::function<void(const AudioBlock& block, int64_t position)>;
struct StreamWatchers {
    WatchBlock input;   // each block read, before processing
    WatchBlock output;  // each block leaving the last stage, its latency dropped, before writing
};

// Streams the rest of `reader` through every stage in turn into `output`, advancing `progress` by
// the frames read. Each stage's first Latency() output frames are dropped and silence fed into it
// after its input, so every stage hears its input aligned and the output has the input's length
// (or the length a ResizingStage makes of it), aligned with it sample for sample. Returns the
// frames written.
int64_t StreamStages(BlockReader& reader, AudioOutput& output, const std::vector<Stage*>& stages, Progress& progress,
                     const StreamWatchers& watchers = {});

// The same stream for a command without an audio output: `sink` sees every block as the stages
// leave it (with none, as read). Returns the frames `sink` saw.
int64_t StreamToSink(BlockReader& reader, const std::vector<Stage*>& stages, Progress& progress,
                     const WatchBlock& sink);

// The same stream for a command without an input: `frames` frames of `generator` through the stages
// into `output`. Returns the frames written.
int64_t StreamGenerated(Generator& generator, int64_t frames, AudioOutput& output, const std::vector<Stage*>& stages,
                        Progress& progress);

// The warnings every audio output may need after its stream: a length other than the header's,
// descriptive data the output cannot keep, and samples clipped (with `advice` on how to avoid it, in parentheses).
void WarnAfterStream(Console& console, const BlockReader& reader, const AudioOutput& output, const std::string& advice);

// "(1.2 s, 35x real time)" for `frames` frames at `rate` processed in `seconds`.
std::string RealTimeText(int64_t frames, int rate, double seconds);
// "realtime_factor" as a field of the object being written (null when nothing was timed).
void WriteRealTimeFactor(JsonWriter& json, int64_t frames, int rate, double seconds);
// The "timings" object of a report: a capture pass's seconds when there was one, the processing
// and total seconds, and the processing's real-time factor.
void WriteTimings(JsonWriter& json, int64_t frames, int rate, double processSeconds, double totalSeconds,
                  std::optional<double> captureSeconds = std::nullopt);

}  // namespace kesta
