#include "job.h"

#include <sndfile.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstring>

#include "command_line.h"
#include "console.h"
#include "errors.h"
#include "json_writer.h"
#include "report.h"
#include "units.h"

namespace kesta {

namespace {

class FunctionStage : public Stage {
public:
    FunctionStage(int64_t latency, std::function<void(float**, int, int)> process)
        : mLatency(latency), mProcess(std::move(process)) {}
    int64_t Latency() const override { return mLatency; }
    void Process(float** channels, int channelCount, int frames) override { mProcess(channels, channelCount, frames); }

private:
    int64_t mLatency;
    std::function<void(float**, int, int)> mProcess;
};

}  // namespace

void AddOutputOptions(CLI::App& command, OutputOptions& options) {
    AddForceOption(command, options.force);
    AddNumberOption(command, "--bits", options.bits, "Write integer PCM samples of 8, 16, 24 or 32 bits")
        ->type_name("N");
    command.add_flag("--float", options.floatSamples, "Write 32-bit float samples (keeps levels beyond full scale)");
}

AudioFormat ChooseEncodedFormat(const AudioFormat& input, const std::string& outputPath, const OutputOptions& options) {
    AudioFormat format = ChooseOutputFormat(input, outputPath);
    if (options.bits == 0 && !options.floatSamples) return format;
    if (options.bits != 0 && options.floatSamples)
        throw UsageError("--bits cannot be combined with --float", "", "choose integer samples or float samples");
    std::vector<int> encodings;
    std::string asked;
    if (options.floatSamples) {
        encodings = {SF_FORMAT_FLOAT};
        asked = "--float";
    } else {
        asked = "--bits " + std::to_string(options.bits);
        switch (options.bits) {
            case 8:
                encodings = {SF_FORMAT_PCM_S8, SF_FORMAT_PCM_U8};
                break;  // WAV holds 8 bits unsigned only
            case 16:
                encodings = {SF_FORMAT_PCM_16};
                break;
            case 24:
                encodings = {SF_FORMAT_PCM_24};
                break;
            case 32:
                encodings = {SF_FORMAT_PCM_32};
                break;
            default:
                throw UsageError(asked + " is not a sample size", "", "give --bits 8, 16, 24 or 32");
        }
    }
    for (int encoding : encodings) {
        if (Writable(format.Container() | encoding, format)) {
            format.sndfileFormat = format.Container() | encoding;
            return format;
        }
    }
    throw UsageError("cannot write " + Quoted(outputPath) + " with " + asked,
                     ContainerName(format.sndfileFormat) + " does not hold that encoding",
                     "leave out " + asked + ", or name the output .wav, .flac or .aiff");
}

std::unique_ptr<Stage> MakeStage(int64_t latency, std::function<void(float**, int, int)> process) {
    return std::make_unique<FunctionStage>(latency, std::move(process));
}

AudioOutput::AudioOutput(const std::string& path, const BlockReader& source,
                         const std::vector<SafeOutput::Input>& inputs, const OutputOptions& options)
    : mPath(path),
      mOutput((CheckSingleRun(options.batch), path), inputs, options.force),
      mWriter(mOutput.Descriptor(), path, ChooseEncodedFormat(source.Format(), path, options)),
      mClips(!IsFloatEncoding(mWriter.Format().sndfileFormat)),
      mWritten(source.Format().channels) {
    mMetadataLost = mWriter.SetMetadata(source.Metadata());
    if (source.HeaderFrames()) mWriter.ExpectFrames(*source.HeaderFrames());
}

void AudioOutput::Write(AudioBlock& block) {
    mWriter.Write(block);
    for (int c = 0; c < block.Channels(); ++c) {
        float* x = block.Channel(c);
        for (std::size_t i = 0; i < block.Frames(); ++i) {
            mUnclippedPeak = std::fmax(mUnclippedPeak, std::fabs(double(x[i])));
            if (mClips) x[i] = std::fmax(-1.0f, std::fmin(1.0f, x[i]));  // what the encoding saturated to
        }
    }
    mWritten.Add(block);
}

double AudioOutput::Peak() const {
    double peak = 0.0;
    for (const ChannelLevels& level : mWritten.Levels())
        peak = std::fmax(peak, level.peak);
    return peak;
}

std::string AudioOutput::Summary() const {
    const AudioFormat& format = Format();
    return "Wrote " + mPath + ": " + DescribeFormat(format.sndfileFormat) + ", " + std::to_string(format.sampleRate) +
           " Hz, " + std::to_string(format.channels) + " channel(s), " +
           FormatLength(mWriter.FramesWritten(), format.sampleRate);
}

void AudioOutput::WriteFields(JsonWriter& json) const {
    json.Key("file").String(mPath);
    WriteAudioFields(json, Format(), mWriter.FramesWritten());
    json.Key("clipped_samples").Int(int64_t(mWriter.ClippedSamples()));
    json.Key("levels");
    WriteLevels(json, Levels());
}

int64_t StreamStages(BlockReader& reader, AudioOutput& output, const std::vector<Stage*>& stages, Progress& progress,
                     const StreamWatchers& watchers) {
    const int channels = reader.Format().channels;
    AudioBlock block = reader.MakeBlock();
    std::vector<float*> pointers(static_cast<std::size_t>(channels));
    for (int c = 0; c < channels; ++c)
        pointers[std::size_t(c)] = block.Channel(c);
    // Each stage's latency is dropped from its own output, so every stage hears its input aligned,
    // as a command run on the previous command's file would.
    std::vector<int64_t> toDrop;
    for (const Stage* stage : stages)
        toDrop.push_back(stage->Latency());
    int64_t inPosition = 0, outPosition = 0;

    // Runs the block's first `frames` frames through the stages from `first` on, then writes what is left.
    auto runFrom = [&](std::size_t first, std::size_t frames) {
        for (std::size_t k = first; k < stages.size() && frames > 0; ++k) {
            stages[k]->Process(pointers.data(), channels, int(frames));
            const std::size_t drop = std::size_t(std::min<int64_t>(toDrop[k], int64_t(frames)));
            toDrop[k] -= int64_t(drop);
            if (drop == 0) continue;
            for (int c = 0; c < channels; ++c)
                std::memmove(block.Channel(c), block.Channel(c) + drop, (frames - drop) * sizeof(float));
            frames -= drop;
        }
        if (frames == 0) return;
        block.SetFrames(frames);
        if (watchers.output) watchers.output(block, outPosition);
        outPosition += int64_t(frames);
        output.Write(block);
    };

    while (reader.Read(block)) {
        if (watchers.input) watchers.input(block, inPosition);
        const int64_t frames = int64_t(block.Frames());
        inPosition += frames;
        runFrom(0, block.Frames());
        progress.Advance(frames);
    }
    // Silence after the input brings each stage's delayed tail out, through the stages after it.
    for (std::size_t k = 0; k < stages.size(); ++k) {
        for (int64_t zeros = stages[k]->Latency(); zeros > 0;) {
            const std::size_t frames = std::size_t(std::min<int64_t>(zeros, int64_t(block.Capacity())));
            for (int c = 0; c < channels; ++c)
                std::fill_n(block.Channel(c), frames, 0.0f);
            runFrom(k, frames);
            zeros -= int64_t(frames);
        }
    }
    output.Finish();
    return outPosition;
}

void WarnAfterStream(Console& console, const BlockReader& reader, const AudioOutput& output,
                     const std::string& advice) {
    if (auto mismatch = reader.LengthWarning()) console.Warn(*mismatch);
    for (const std::string& lost : output.MetadataLost())
        console.Warn(lost);
    if (output.Writer().ClippedSamples() > 0)
        console.Warn(std::to_string(output.Writer().ClippedSamples()) +
                     " samples went beyond full scale and were clipped in " + Quoted(output.Path()) + " (" + advice +
                     ")");
}

std::string RealTimeText(int64_t frames, int rate, double seconds) {
    return "(" + FormatElapsed(seconds) + ", " +
           (seconds > 0 ? std::to_string(int(std::lround(double(frames) / rate / seconds))) : std::string("-")) +
           "x real time)";
}

void WriteRealTimeFactor(JsonWriter& json, int64_t frames, int rate, double seconds) {
    if (seconds > 0)
        json.Key("realtime_factor").Number(double(frames) / rate / seconds);
    else
        json.Key("realtime_factor").Null();
}

void WriteTimings(JsonWriter& json, int64_t frames, int rate, double processSeconds, double totalSeconds,
                  std::optional<double> captureSeconds) {
    json.Key("timings").BeginObject();
    if (captureSeconds) json.Key("capture_seconds").Number(*captureSeconds);
    json.Key("process_seconds").Number(processSeconds);
    json.Key("total_seconds").Number(totalSeconds);
    WriteRealTimeFactor(json, frames, rate, processSeconds);
    json.EndObject();
}

}  // namespace kesta
