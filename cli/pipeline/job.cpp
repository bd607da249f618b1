#include "job.h"

#include <sndfile.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>

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
    FunctionStage(int64_t latency, std::function<void(float**, int, int)> process, bool light)
        : mLatency(latency), mProcess(std::move(process)), mLight(light) {}
    int64_t Latency() const override { return mLatency; }
    void Process(float** channels, int channelCount, int frames) override { mProcess(channels, channelCount, frames); }
    bool Light() const override { return mLight; }

private:
    int64_t mLatency;
    std::function<void(float**, int, int)> mProcess;
    bool mLight;
};

// What the two kinds of split stage share: the groups, and where each group's channels start.
class ChannelSplit {
public:
    explicit ChannelSplit(std::vector<ChannelGroup> groups) : mGroups(std::move(groups)) {
        if (mGroups.empty()) throw std::logic_error("a channel split without groups");
        for (const ChannelGroup& group : mGroups) {
            mFirst.push_back(mChannels);
            mChannels += group.channels;
        }
    }
    virtual ~ChannelSplit() = default;

    const std::vector<ChannelGroup>& Groups() const { return mGroups; }
    int First(std::size_t group) const { return mFirst[group]; }

protected:
    Stage& Leader() const { return *mGroups.front().stage; }
    void CheckChannels(int channelCount) const {
        if (channelCount != mChannels) throw std::logic_error("a channel split was given other channels");
    }
    void EndGroups() {
        for (ChannelGroup& group : mGroups)
            group.stage->EndOfInput();
    }

    std::vector<ChannelGroup> mGroups;
    std::vector<int> mFirst;
    int mChannels = 0;
};

class InPlaceSplit : public Stage, public ChannelSplit {
public:
    using ChannelSplit::ChannelSplit;
    int64_t Latency() const override { return Leader().Latency(); }
    void Process(float** channels, int channelCount, int frames) override {
        CheckChannels(channelCount);
        for (std::size_t g = 0; g < mGroups.size(); ++g)
            mGroups[g].stage->Process(channels + mFirst[g], mGroups[g].channels, frames);
    }
    void EndOfInput() override { EndGroups(); }
};

class ResizingSplit : public ResizingStage, public ChannelSplit {
public:
    using ChannelSplit::ChannelSplit;
    int64_t Latency() const override { return Leader().Latency(); }
    int OutputRate(int inputRate) const override { return Resizer(0).OutputRate(inputRate); }
    int64_t OutputFrames(int64_t inputFrames) const override { return Resizer(0).OutputFrames(inputFrames); }
    std::size_t MaxOutputFrames(std::size_t inputFrames) const override {
        return Resizer(0).MaxOutputFrames(inputFrames);
    }
    std::size_t Convert(const float* const* in, float* const* out, int channelCount, std::size_t frames) override {
        CheckChannels(channelCount);
        std::size_t made = 0;
        for (std::size_t g = 0; g < mGroups.size(); ++g) {
            const std::size_t groupMade =
                Resizer(g).Convert(in + mFirst[g], out + mFirst[g], mGroups[g].channels, frames);
            if (g > 0 && groupMade != made) throw std::logic_error("the groups of a channel split made unlike lengths");
            made = groupMade;
        }
        return made;
    }
    void EndOfInput() override { EndGroups(); }

private:
    ResizingStage& Resizer(std::size_t group) const { return static_cast<ResizingStage&>(*mGroups[group].stage); }
};

}  // namespace

std::unique_ptr<Stage> MakeChannelSplit(std::vector<ChannelGroup> groups) {
    if (!groups.empty() && dynamic_cast<ResizingStage*>(groups.front().stage.get()) != nullptr) {
        for (const ChannelGroup& group : groups)
            if (dynamic_cast<ResizingStage*>(group.stage.get()) == nullptr)
                throw std::logic_error("a channel split mixes resizing and in-place stages");
        return std::make_unique<ResizingSplit>(std::move(groups));
    }
    return std::make_unique<InPlaceSplit>(std::move(groups));
}

std::unique_ptr<Stage> SplitByChannel(int channels, const std::function<std::unique_ptr<Stage>()>& make) {
    std::vector<ChannelGroup> groups;
    for (int c = 0; c < channels; ++c)
        groups.push_back({1, make()});
    return MakeChannelSplit(std::move(groups));
}

const Stage& FirstGroup(const Stage& stage) {
    const auto* split = dynamic_cast<const ChannelSplit*>(&stage);
    return split != nullptr ? *split->Groups().front().stage : stage;
}

void AddOutputOptions(CLI::App& command, OutputOptions& options) {
    AddForceOption(command, options.force);
    AddNumberOption(command, "--bits", options.bits, "Write integer PCM samples of 8, 16, 24 or 32 bits")
        ->type_name("N");
    command.add_flag("--float", options.floatSamples, "Write 32-bit float samples (keeps levels beyond full scale)");
    command.add_flag("--sync", options.sync,
                     "Save the output to disk before finishing also when it is new (a replaced file always is)");
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

std::unique_ptr<Stage> MakeStage(int64_t latency, std::function<void(float**, int, int)> process, bool light) {
    return std::make_unique<FunctionStage>(latency, std::move(process), light);
}

void ResizingStage::Process(float**, int, int) {
    throw std::logic_error("a resizing stage was asked to process in place");
}

// The format, rate included, the descriptive data and the length of what OUTPUT holds.
struct AudioOutput::Shape {
    AudioFormat format;
    AudioMetadata metadata;
    std::optional<int64_t> frames;
};

// What `stages` make of `source`: the rate and length they give, the markers moved along.
AudioOutput::Shape AudioOutput::ShapeOf(const BlockReader& source, const std::vector<Stage*>& stages) {
    AudioOutput::Shape shape{source.Format(), source.Metadata(), source.HeaderFrames()};
    for (const Stage* stage : stages) {
        const auto* resizing = dynamic_cast<const ResizingStage*>(stage);
        if (!resizing) continue;
        shape.format.sampleRate = resizing->OutputRate(shape.format.sampleRate);
        if (shape.frames) shape.frames = resizing->OutputFrames(*shape.frames);
        for (Marker& marker : shape.metadata.markers)
            marker.frame = resizing->OutputFrames(marker.frame);
    }
    return shape;
}

AudioOutput::AudioOutput(const std::string& path, const Shape& shape, const std::vector<SafeOutput::Input>& inputs,
                         const OutputOptions& options)
    : mPath(path),
      mOutput((CheckSingleRun(options.batch), path), inputs, options.force, options.sync),
      mWriter(mOutput.Descriptor(), path, ChooseEncodedFormat(shape.format, path, options), mOutput.Syncs()),
      mWritten(shape.format.channels) {
    mMetadataLost = mWriter.SetMetadata(shape.metadata);
    if (shape.frames) mWriter.ExpectFrames(*shape.frames);
}

AudioOutput::AudioOutput(const std::string& path, const BlockReader& source,
                         const std::vector<SafeOutput::Input>& inputs, const OutputOptions& options,
                         const std::vector<Stage*>& stages)
    : AudioOutput(path, ShapeOf(source, stages), inputs, options) {}

AudioOutput::AudioOutput(const std::string& path, const AudioFormat& basis, int64_t frames,
                         const OutputOptions& options)
    : AudioOutput(path, Shape{basis, AudioMetadata{}, frames}, {}, options) {}

void AudioOutput::Write(AudioBlock& block) {
    mWriter.Write(block);
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

namespace {

// Runs blocks from a source through the stages to a destination: each stage's latency dropped from
// its own output (so every stage hears its input aligned, as a command run on the previous
// command's file would), and at the end silence fed to each stage in turn until it has made all
// the frames its input makes.
class StageRunner {
public:
    using Deliver = std::function<void(AudioBlock& block, int64_t position)>;

    StageRunner(int channels, std::size_t blockFrames, const std::vector<Stage*>& stages, Deliver deliver)
        : mChannels(channels), mBlock(channels, blockFrames), mDeliver(std::move(deliver)) {
        std::size_t largest = blockFrames, frames = blockFrames;
        for (Stage* stage : stages) {
            Leg leg{stage, dynamic_cast<ResizingStage*>(stage), stage->Latency(), 0, 0, std::nullopt};
            if (leg.resizing) frames = std::max(frames, leg.resizing->MaxOutputFrames(frames));
            largest = std::max(largest, frames);
            mLegs.push_back(leg);
        }
        if (largest > blockFrames || std::any_of(mLegs.begin(), mLegs.end(), [](const Leg& l) { return l.resizing; }))
            mSpare = {AudioBlock(channels, largest), AudioBlock(channels, largest)};
        mIn.resize(std::size_t(channels));
        mOut.resize(std::size_t(channels));
    }

    // The block the source fills.
    AudioBlock& Block() { return mBlock; }

    // Runs the block's frames through every stage.
    void Run() { RunFrom(0, mBlock, mBlock.Frames()); }
    // The same for a block of another owner (of at most the capacity the runner was made for); the
    // stages work in it in place.
    void RunOn(AudioBlock& block) { RunFrom(0, block, block.Frames()); }

    // Brings every stage's delayed tail out, through the stages after it. Returns the frames delivered.
    int64_t Finish() {
        for (std::size_t k = 0; k < mLegs.size(); ++k) {
            Leg& leg = mLegs[k];
            leg.limit = leg.resizing ? leg.resizing->OutputFrames(leg.fed) : leg.fed;
            if (leg.made > *leg.limit)
                throw std::logic_error("a stage made more frames than it declared for its input");
            // An in-place stage owes exactly its latency; a resizing one is fed until it has made its
            // frames (with a bound, should it never).
            int64_t zeros = leg.resizing ? 0 : leg.stage->Latency();
            int64_t idle = 0;
            leg.stage->EndOfInput();
            while (leg.resizing ? leg.made < leg.limit : zeros > 0) {
                const std::size_t frames = leg.resizing
                                               ? mBlock.Capacity()
                                               : std::size_t(std::min<int64_t>(zeros, int64_t(mBlock.Capacity())));
                for (int c = 0; c < mChannels; ++c)
                    std::fill_n(mBlock.Channel(c), frames, 0.0f);
                const int64_t before = leg.made;
                RunFrom(k, mBlock, frames, false);
                zeros -= int64_t(frames);
                idle = leg.made == before ? idle + 1 : 0;
                if (idle > 1000) throw std::logic_error("a stage made no frames from silence after its input");
            }
        }
        return mDelivered;
    }

private:
    struct Leg {
        Stage* stage;
        ResizingStage* resizing;  // null for a stage that works in place
        int64_t toDrop;
        int64_t fed = 0;               // frames of input given to it (silence that flushes it left out)
        int64_t made = 0;              // frames it passed on
        std::optional<int64_t> limit;  // once its input is complete: the frames it must pass on
    };

    // Runs the first `frames` frames of `block` through the stages from `first` on, then delivers
    // what is left. `input`: the frames are the input of stage `first`, not silence flushing it.
    void RunFrom(std::size_t first, AudioBlock& block, std::size_t frames, bool input = true) {
        AudioBlock* current = &block;
        for (std::size_t k = first; k < mLegs.size() && frames > 0; ++k) {
            Leg& leg = mLegs[k];
            if (k > first || input) leg.fed += int64_t(frames);
            Pointers(*current, mIn);
            if (leg.resizing) {
                AudioBlock* next = current == &mSpare[0] ? &mSpare[1] : &mSpare[0];
                Pointers(*next, mOut);
                frames = leg.resizing->Convert(mIn.data(), mOut.data(), mChannels, frames);
                current = next;
            } else {
                leg.stage->Process(mIn.data(), mChannels, int(frames));
            }
            const std::size_t drop = std::size_t(std::min<int64_t>(leg.toDrop, int64_t(frames)));
            leg.toDrop -= int64_t(drop);
            if (drop > 0)
                for (int c = 0; c < mChannels; ++c)
                    std::memmove(current->Channel(c), current->Channel(c) + drop, (frames - drop) * sizeof(float));
            frames -= drop;
            if (leg.limit) frames = std::size_t(std::min<int64_t>(int64_t(frames), *leg.limit - leg.made));
            leg.made += int64_t(frames);
        }
        if (frames == 0) return;
        current->SetFrames(frames);
        mDeliver(*current, mDelivered);
        mDelivered += int64_t(frames);
    }

    void Pointers(AudioBlock& block, std::vector<float*>& pointers) const {
        for (int c = 0; c < mChannels; ++c)
            pointers[std::size_t(c)] = block.Channel(c);
    }

    int mChannels;
    AudioBlock mBlock;
    std::vector<AudioBlock> mSpare;  // converted audio, for resizing stages
    std::vector<float*> mIn, mOut;
    std::vector<Leg> mLegs;
    Deliver mDeliver;
    int64_t mDelivered = 0;
};

int64_t StreamFile(BlockReader& reader, const std::vector<Stage*>& stages, Progress& progress,
                   const WatchBlock& watchInput, StageRunner::Deliver deliver) {
    StageRunner runner(reader.Format().channels, BlockReader::kDefaultBlockFrames, stages, std::move(deliver));
    AudioBlock& block = runner.Block();
    int64_t position = 0;
    while (reader.Read(block)) {
        if (watchInput) watchInput(block, position);
        position += int64_t(block.Frames());
        runner.Run();
        progress.Advance(int64_t(block.Frames()));
    }
    return runner.Finish();
}

// A fixed ring of blocks handed from one thread to the next in order: the producer fills the next
// free block and pushes it, the consumer takes the oldest, uses it and releases it. Nothing is
// allocated after construction. Channel groups on threads of their own make several producers
// (each filling its channels of every block) or several consumers (each reading every block): a
// block is there to take once every producer has pushed it, and free again once every consumer
// has released it.
class BlockRing {
public:
    BlockRing(int channels, std::size_t frames, std::size_t depth, std::size_t producers = 1, std::size_t consumers = 1)
        : mPushed(producers, 0), mReleased(consumers, 0) {
        mBlocks.reserve(depth);
        for (std::size_t i = 0; i < depth; ++i)
            mBlocks.emplace_back(channels, frames);
    }

    // The next block for `producer` to fill; null once the consumers have stopped or a producer failed.
    AudioBlock* Acquire(std::size_t producer = 0) {
        std::unique_lock lock(mMutex);
        const uint64_t next = mPushed[producer];
        mChanged.wait(lock, [&] { return next - Least(mReleased) < mBlocks.size() || mStopped || mAborted; });
        return mStopped || mAborted ? nullptr : &mBlocks[next % mBlocks.size()];
    }
    void Push(std::size_t producer = 0) {
        Update([&] { ++mPushed[producer]; });
    }
    // A producer makes no more blocks; the stream ends once all have said so.
    void End() {
        Update([this] { ++mEnded; });
    }
    // A producer failed: the stream ends after the blocks every producer pushed, and the other
    // producers get no more blocks to fill.
    void Abort() {
        Update([this] { mAborted = true; });
    }

    // The oldest block `consumer` has not taken; null at the end of the stream or once stopped.
    AudioBlock* Take(std::size_t consumer = 0) {
        std::unique_lock lock(mMutex);
        const uint64_t next = mReleased[consumer];
        auto ended = [this] { return mAborted || mEnded == mPushed.size(); };
        mChanged.wait(lock, [&] { return next < Least(mPushed) || ended() || mStopped; });
        return mStopped || next == Least(mPushed) ? nullptr : &mBlocks[next % mBlocks.size()];
    }
    void Release(std::size_t consumer = 0) {
        Update([&] { ++mReleased[consumer]; });
    }
    // A consumer takes no more: wakes a producer waiting for room.
    void Stop() {
        Update([this] { mStopped = true; });
    }

private:
    template <typename Change>
    void Update(Change change) {
        {
            const std::lock_guard lock(mMutex);
            change();
        }
        mChanged.notify_all();
    }
    static uint64_t Least(const std::vector<uint64_t>& counts) {
        return *std::min_element(counts.begin(), counts.end());
    }

    std::vector<AudioBlock> mBlocks;
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::vector<uint64_t> mPushed;    // blocks each producer has pushed
    std::vector<uint64_t> mReleased;  // blocks each consumer has released
    std::size_t mEnded = 0;           // producers that have ended
    bool mAborted = false, mStopped = false;
};

// Thrown inside a pipeline thread whose consumer has stopped (it failed): not an error of its own.
struct PipelineStopped {};

// Blocks in flight between two threads: enough to ride out uneven block times, few enough that the
// memory stays that of a handful of blocks.
constexpr std::size_t kRingDepth = 4;

// Whether a stream runs reading, processing and writing on threads of their own: not when its
// stages are all light (the hand-offs would cost more than the overlap saves), nor with
// KESTA_THREADS=1 (the output is the same bit for bit).
bool Overlapped(const std::vector<Stage*>& stages) {
    const char* threads = std::getenv("KESTA_THREADS");
    return (threads == nullptr || std::strcmp(threads, "1") != 0) &&
           !std::all_of(stages.begin(), stages.end(), [](const Stage* stage) { return stage->Light(); });
}

// Starts `body` on a thread of its own. KESTA_THREAD_LIMIT=N (for tests) lets only the first N
// threads of the process start, the rest failing as when the system has no thread to give.
std::thread StartThread(std::function<void()> body) {
    static std::atomic<long> started{0};
    static const long limit = [] {
        const char* text = std::getenv("KESTA_THREAD_LIMIT");
        return text == nullptr ? -1 : std::strtol(text, nullptr, 10);
    }();
    if (limit >= 0 && started.fetch_add(1) >= limit)
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    return std::thread(std::move(body));
}

// StreamStages on threads: this thread reads; each group of stages runs on a thread of its own (a
// chain's steps one after another, as a pipeline), and a group that is one split stage on as many
// threads as it has channel groups (lanes), each on its own channels; one more thread encodes and
// writes. Every object is used by one thread at a time, in the same order as in one thread, so the
// output is the same. An error stops the threads before it and lets the ones after it finish the
// blocks before it, so the error reported is the one a single thread would have met first.
int64_t StreamOverlapped(BlockReader& reader, AudioOutput& output, const std::vector<Stage*>& stages,
                         Progress& progress, const StreamWatchers& watchers) {
    const int channels = reader.Format().channels;
    // Watchers may share state between them: with both, the stages stay on one thread.
    std::vector<std::vector<Stage*>> groups;
    if (stages.size() <= 1 || (watchers.input && watchers.output))
        groups.push_back(stages);
    else
        for (Stage* stage : stages)
            groups.push_back({stage});

    // The lanes of each group: its channel groups when it is one split stage (and no watcher needs
    // its whole output block), else one lane of every channel.
    struct Lane {
        std::vector<Stage*> stages;
        int first = 0, channels = 0;
    };
    std::vector<std::vector<Lane>> lanes;
    for (std::size_t k = 0; k < groups.size(); ++k) {
        const bool watched = k + 1 == groups.size() && watchers.output;
        auto* split = groups[k].size() == 1 ? dynamic_cast<ChannelSplit*>(groups[k].front()) : nullptr;
        lanes.emplace_back();
        if (split == nullptr || split->Groups().size() < 2 || watched) {
            lanes.back().push_back({groups[k], 0, channels});
            continue;
        }
        for (std::size_t g = 0; g < split->Groups().size(); ++g)
            lanes.back().push_back({{split->Groups()[g].stage.get()}, split->First(g), split->Groups()[g].channels});
    }

    // rings[k] feeds group k; the last feeds the writer. Each holds the largest block its producer makes.
    std::vector<std::unique_ptr<BlockRing>> rings;
    std::vector<std::size_t> frames{BlockReader::kDefaultBlockFrames};
    rings.push_back(std::make_unique<BlockRing>(channels, frames.back(), kRingDepth, 1, lanes.front().size()));
    for (std::size_t k = 0; k < groups.size(); ++k) {
        std::size_t largest = frames.back();
        for (Stage* stage : groups[k])
            if (const auto* resizing = dynamic_cast<ResizingStage*>(stage))
                largest = std::max(largest, resizing->MaxOutputFrames(largest));
        frames.push_back(largest);
        const std::size_t consumers = k + 1 < groups.size() ? lanes[k + 1].size() : 1;
        rings.push_back(std::make_unique<BlockRing>(channels, largest, kRingDepth, lanes[k].size(), consumers));
    }

    // errors[0]: reading; then one per lane, group after group; errors.back(): writing.
    std::vector<std::exception_ptr> errors(1);
    for (const auto& group : lanes)
        errors.resize(errors.size() + group.size());
    errors.emplace_back();
    int64_t written = 0;
    // Lane `slot` of the errors failed: its output ring `ring` ends, its input ring stops.
    auto fail = [&](std::size_t slot, std::size_t ring, std::exception_ptr error) {
        errors[slot] = std::move(error);
        rings[ring]->Abort();  // the threads after it finish what came before
        if (ring > 0) rings[ring - 1]->Stop();
    };

    std::vector<std::thread> threads;
    auto start = [&](std::function<void()> body) {
        try {
            threads.push_back(StartThread(std::move(body)));
        } catch (const std::system_error& error) {
            // The threads already started wait for blocks that will never come: stop them first.
            for (const auto& ring : rings)
                ring->Stop();
            for (std::thread& thread : threads)
                thread.join();
            throw CliError(kExitFault, "cannot start a thread to process " + Quoted(reader.Path()),
                           SystemReason(error.code().value()),
                           "free some system resources, or run on one thread with KESTA_THREADS=1");
        }
    };
    std::size_t slot = 1;
    for (std::size_t k = 0; k < groups.size(); ++k) {
        for (std::size_t j = 0; j < lanes[k].size(); ++j, ++slot) {
            start([&, k, j, slot] {
                BlockRing& in = *rings[k];
                BlockRing& out = *rings[k + 1];
                const Lane& lane = lanes[k][j];
                const bool whole = lanes[k].size() == 1;
                const bool last = k + 1 == groups.size();
                try {
                    StageRunner runner(lane.channels, frames[k], lane.stages, [&](AudioBlock& block, int64_t position) {
                        if (last && watchers.output) watchers.output(block, position);
                        AudioBlock* next = out.Acquire(j);
                        if (next == nullptr) throw PipelineStopped{};
                        for (int c = 0; c < lane.channels; ++c)
                            std::copy_n(block.Channel(c), block.Frames(), next->Channel(lane.first + c));
                        if (j == 0) next->SetFrames(block.Frames());  // the lanes make alike lengths
                        out.Push(j);
                    });
                    int64_t position = 0;
                    while (AudioBlock* block = in.Take(j)) {
                        if (k == 0 && j == 0 && watchers.input) watchers.input(*block, position);
                        position += int64_t(block->Frames());
                        if (whole) {
                            runner.RunOn(*block);
                            in.Release(j);
                            continue;
                        }
                        // Lanes share the block: each works on a copy of its channels.
                        AudioBlock& own = runner.Block();
                        for (int c = 0; c < lane.channels; ++c)
                            std::copy_n(block->Channel(lane.first + c), block->Frames(), own.Channel(c));
                        own.SetFrames(block->Frames());
                        in.Release(j);
                        runner.Run();
                    }
                    const int64_t made = runner.Finish();
                    if (last && j == 0) written = made;
                    out.End();
                } catch (const PipelineStopped&) {
                    in.Stop();
                    out.End();
                } catch (...) {
                    fail(slot, k + 1, std::current_exception());
                }
            });
        }
    }
    start([&] {
        BlockRing& in = *rings.back();
        try {
            while (AudioBlock* block = in.Take()) {
                output.Write(*block);
                in.Release();
            }
        } catch (...) {
            errors.back() = std::current_exception();
            in.Stop();
        }
    });

    try {
        BlockRing& out = *rings.front();
        while (AudioBlock* block = out.Acquire()) {
            if (!reader.Read(*block)) break;
            const int64_t got = int64_t(block->Frames());
            out.Push();
            progress.Advance(got);
        }
        out.End();
    } catch (...) {
        fail(0, 0, std::current_exception());
    }
    for (std::thread& thread : threads)
        thread.join();
    for (auto error = errors.rbegin(); error != errors.rend(); ++error)
        if (*error) std::rethrow_exception(*error);
    return written;
}

}  // namespace

int64_t StreamStages(BlockReader& reader, AudioOutput& output, const std::vector<Stage*>& stages, Progress& progress,
                     const StreamWatchers& watchers) {
    const int64_t written = Overlapped(stages) ? StreamOverlapped(reader, output, stages, progress, watchers)
                                               : StreamFile(reader, stages, progress, watchers.input,
                                                            [&](AudioBlock& block, int64_t position) {
                                                                if (watchers.output) watchers.output(block, position);
                                                                output.Write(block);
                                                            });
    output.Finish();
    return written;
}

int64_t StreamToSink(BlockReader& reader, const std::vector<Stage*>& stages, Progress& progress,
                     const WatchBlock& sink) {
    return StreamFile(reader, stages, progress, nullptr,
                      [&](AudioBlock& block, int64_t position) { sink(block, position); });
}

int64_t StreamGenerated(Generator& generator, int64_t frames, AudioOutput& output, const std::vector<Stage*>& stages,
                        Progress& progress) {
    const int channels = output.Format().channels;
    StageRunner runner(channels, BlockReader::kDefaultBlockFrames, stages,
                       [&](AudioBlock& block, int64_t) { output.Write(block); });
    AudioBlock& block = runner.Block();
    std::vector<float*> pointers(static_cast<std::size_t>(channels));
    for (int c = 0; c < channels; ++c)
        pointers[std::size_t(c)] = block.Channel(c);
    for (int64_t done = 0; done < frames;) {
        const std::size_t n = std::size_t(std::min<int64_t>(frames - done, int64_t(block.Capacity())));
        generator.Generate(pointers.data(), channels, int(n));
        block.SetFrames(n);
        runner.Run();
        done += int64_t(n);
        progress.Advance(int64_t(n));
    }
    const int64_t written = runner.Finish();
    output.Finish();
    return written;
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
