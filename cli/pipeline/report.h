#pragma once
// The pieces of a command's report that describe audio, shared so every command shows a file's
// format and levels the same way, as text and in JSON.

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "io/audio_format.h"
#include "json_writer.h"
#include "level_meter.h"

namespace kesta {

// "format": {...}, "sample_rate", "channels", "frames", "duration_seconds", "duration" as fields
// of the object being written.
void WriteAudioFields(JsonWriter& json, const AudioFormat& format, int64_t frames);
// "warnings": [...] as a field of the object being written.
void WriteWarnings(JsonWriter& json, const std::vector<std::string>& warnings);
// An array of {"channel", "peak", "peak_dbfs", "rms_dbfs", "dc_offset"}.
void WriteLevels(JsonWriter& json, const std::vector<ChannelLevels>& levels);

// The per-channel table: Channel, Peak, Peak dBFS, RMS dBFS, DC offset.
void PrintLevels(std::ostream& out, const std::vector<ChannelLevels>& levels);

// Per channel, the RMS level of `after` minus that of `before`, in dB.
std::vector<double> LevelChanges(const std::vector<ChannelLevels>& before, const std::vector<ChannelLevels>& after);
// "3.2 dB louder" or "38.2 dB quieter" for the mean change over channels (finite ones only), or "none".
std::string DescribeChange(const std::vector<double>& changes);

}  // namespace kesta
