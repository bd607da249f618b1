#pragma once
// A latency-compensated pass of a streaming processor over a whole input, shared by the commands
// whose processing delays the audio (denoise, dehiss, geq) and those that do not (eq).
//
// The processor is fed the input block by block; the first `latency` frames it gives back are
// dropped, and `latency` frames of silence are fed after the input, so the output has exactly the
// input's length and is aligned with it sample for sample. Memory: one block.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "io/audio_block.h"
#include "io/block_reader.h"
#include "io/block_writer.h"
#include "level_meter.h"
#include "progress.h"

namespace kesta {

// Processes `frames` frames of `channelCount` channels in place.
using ProcessBlock = std::function<void(float** channels, int channelCount, int frames)>;
// Sees a block of the stream and the position of its first frame in the file.
using WatchBlock = std::function<void(const AudioBlock& block, int64_t position)>;

struct StreamWatchers {
    WatchBlock input;   // each block read, before processing
    WatchBlock output;  // each block written, after the latency is dropped
};

// Streams the rest of `reader` through `process` into `writer`, advancing `progress` by the
// frames read. Returns the frames written (the frames read).
int64_t StreamWithLatency(BlockReader& reader, BlockWriter& writer, Progress& progress, int64_t latency,
                          const ProcessBlock& process, const StreamWatchers& watchers = {});

// Per channel, the RMS level of `after` minus that of `before`, in dB.
std::vector<double> LevelChanges(const std::vector<ChannelLevels>& before, const std::vector<ChannelLevels>& after);
// "3.2 dB louder" or "38.2 dB quieter" for the mean change over channels (finite ones only), or "none".
std::string DescribeChange(const std::vector<double>& changes);

}  // namespace kesta
