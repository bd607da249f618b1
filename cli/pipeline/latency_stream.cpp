#include "latency_stream.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "units.h"

namespace kesta {

int64_t StreamWithLatency(BlockReader& reader, BlockWriter& writer, Progress& progress, int64_t latency,
                          const ProcessBlock& process, const StreamWatchers& watchers) {
    const int channels = reader.Format().channels;
    AudioBlock block = reader.MakeBlock();
    std::vector<float*> pointers(static_cast<std::size_t>(channels));
    int64_t toDrop = latency, inPosition = 0, outPosition = 0;

    auto processAndWrite = [&]() {
        for (int c = 0; c < channels; ++c)
            pointers[std::size_t(c)] = block.Channel(c);
        process(pointers.data(), channels, int(block.Frames()));
        const std::size_t frames = block.Frames();
        const std::size_t drop = std::size_t(std::min<int64_t>(toDrop, int64_t(frames)));
        toDrop -= int64_t(drop);
        if (drop == frames) return;
        if (drop > 0) {
            for (int c = 0; c < channels; ++c)
                std::memmove(block.Channel(c), block.Channel(c) + drop, (frames - drop) * sizeof(float));
            block.SetFrames(frames - drop);
        }
        if (watchers.output) watchers.output(block, outPosition);
        writer.Write(block);
        outPosition += int64_t(block.Frames());
    };

    while (reader.Read(block)) {
        if (watchers.input) watchers.input(block, inPosition);
        const int64_t frames = int64_t(block.Frames());
        inPosition += frames;
        processAndWrite();
        progress.Advance(frames);
    }
    for (int64_t zeros = latency; zeros > 0;) {
        const std::size_t frames = std::size_t(std::min<int64_t>(zeros, int64_t(block.Capacity())));
        for (int c = 0; c < channels; ++c)
            std::fill_n(block.Channel(c), frames, 0.0f);
        block.SetFrames(frames);
        processAndWrite();
        zeros -= int64_t(frames);
    }
    return outPosition;
}

std::vector<double> LevelChanges(const std::vector<ChannelLevels>& before, const std::vector<ChannelLevels>& after) {
    std::vector<double> change;
    for (std::size_t c = 0; c < before.size(); ++c)
        change.push_back(LinearToDb(after[c].rms) - LinearToDb(before[c].rms));
    return change;
}

std::string DescribeChange(const std::vector<double>& changes) {
    double sum = 0.0;
    int count = 0;
    for (double change : changes)
        if (std::isfinite(change)) sum += change, ++count;
    if (count == 0) return "none";
    const double mean = sum / count;
    if (std::fabs(mean) < 0.05) return "none";
    return FormatDb(std::fabs(mean), 1) + (mean < 0 ? " dB quieter" : " dB louder");
}

}  // namespace kesta
