#pragma once
// A command's report, printed once at the end as the text summary or the --json object, and the
// pieces that describe audio, shared so every command shows a file's format and levels the same
// way, as text and in JSON.

#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "io/audio_format.h"
#include "json_writer.h"
#include "level_meter.h"

namespace kesta {

class AudioOutput;
class Console;

// What a command found and did, filled as it goes: its fields for the JSON object
// {"command", the fields in order, "warnings", "seconds"} and its lines for the text summary.
// Print shows one of them as the console says (nothing with --quiet) and returns the exit status.
//
//   JobReport report(console, "gain");
//   report.Field("gain_db", db).Input(path, reader.Format(), reader.FramesRead()).Output(output);
//   report.Line(output.Summary() + ", gain " + ...);
//   return report.Print(clock.Seconds());
class JobReport {
public:
    JobReport(Console& console, std::string_view command);
    ~JobReport();
    JobReport(const JobReport&) = delete;
    JobReport& operator=(const JobReport&) = delete;

    // A named value of the object.
    JobReport& Field(std::string_view key, double value);
    JobReport& Field(std::string_view key, int64_t value);
    JobReport& Field(std::string_view key, int value) { return Field(key, int64_t(value)); }
    JobReport& Field(std::string_view key, bool value);
    JobReport& Field(std::string_view key, std::string_view value);
    JobReport& Field(std::string_view key, const char* value) { return Field(key, std::string_view(value)); }
    JobReport& Field(std::string_view key, const std::string& value) { return Field(key, std::string_view(value)); }
    // The value, or null when there is none.
    JobReport& Field(std::string_view key, const std::optional<std::string>& value);
    JobReport& Field(std::string_view key, const std::vector<double>& values);
    // An object of fields that `fill` writes.
    JobReport& Object(std::string_view key, const std::function<void(JsonWriter&)>& fill);
    // The JSON being written, for fields beyond these.
    JsonWriter& Json() { return mJson; }

    // "input": {"file", the audio fields of `frames` frames}.
    JobReport& Input(const std::string& path, const AudioFormat& format, int64_t frames);
    // "output": {what AudioOutput::WriteFields writes, then what `more` adds}.
    JobReport& Output(const AudioOutput& output, const std::function<void(JsonWriter&)>& more = nullptr);

    // A line of the text summary (without its newline).
    JobReport& Line(std::string line);
    // Where the text summary goes (standard output unless told).
    JobReport& TextOn(std::ostream& out) {
        mTextOut = &out;
        return *this;
    }

    // Fields that follow "warnings", in this order: the timings, then "realtime_factor" for `frames`
    // at `rate` in `seconds` (by default the seconds Print is given).
    JobReport& Timing(std::string key, double seconds);
    JobReport& RealTime(int64_t frames, int rate, std::optional<double> seconds = std::nullopt);

    // Prints the report; returns kExitOk.
    int Print(double seconds);

private:
    Console& mConsole;
    struct RealTimeOf {
        int64_t frames;
        int rate;
        std::optional<double> seconds;
    };
    std::vector<std::pair<std::string, double>> mTimings;
    std::optional<RealTimeOf> mRealTime;
    std::ostringstream mText;
    std::ostream* mTextOut;
    std::ostringstream mJsonText;
    JsonWriter mJson;
};

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
