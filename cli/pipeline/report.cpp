#include "report.h"

#include <cmath>
#include <cstdio>
#include <iostream>

#include "console.h"
#include "errors.h"
#include "job.h"
#include "text_table.h"
#include "units.h"

namespace kesta {

JobReport::JobReport(Console& console, std::string_view command)
    : mConsole(console), mTextOut(&std::cout), mJson(mJsonText) {
    mJson.BeginObject();
    mJson.Key("command").String(command);
}

JobReport::~JobReport() = default;

JobReport& JobReport::Field(std::string_view key, double value) {
    mJson.Key(key).Number(value);
    return *this;
}

JobReport& JobReport::Field(std::string_view key, int64_t value) {
    mJson.Key(key).Int(value);
    return *this;
}

JobReport& JobReport::Field(std::string_view key, bool value) {
    mJson.Key(key).Bool(value);
    return *this;
}

JobReport& JobReport::Field(std::string_view key, std::string_view value) {
    mJson.Key(key).String(value);
    return *this;
}

JobReport& JobReport::Field(std::string_view key, const std::optional<std::string>& value) {
    if (value)
        mJson.Key(key).String(*value);
    else
        mJson.Key(key).Null();
    return *this;
}

JobReport& JobReport::Field(std::string_view key, const std::vector<double>& values) {
    mJson.Key(key).BeginArray();
    for (double value : values)
        mJson.Number(value);
    mJson.EndArray();
    return *this;
}

JobReport& JobReport::Object(std::string_view key, const std::function<void(JsonWriter&)>& fill) {
    mJson.Key(key).BeginObject();
    fill(mJson);
    mJson.EndObject();
    return *this;
}

JobReport& JobReport::Input(const std::string& path, const AudioFormat& format, int64_t frames) {
    return Object("input", [&](JsonWriter& json) {
        json.Key("file").String(path);
        WriteAudioFields(json, format, frames);
    });
}

JobReport& JobReport::Output(const AudioOutput& output, const std::function<void(JsonWriter&)>& more) {
    return Object("output", [&](JsonWriter& json) {
        output.WriteFields(json);
        if (more) more(json);
    });
}

JobReport& JobReport::Line(std::string line) {
    mText << line << '\n';
    return *this;
}

JobReport& JobReport::Timing(std::string key, double seconds) {
    mTimings.emplace_back(std::move(key), seconds);
    return *this;
}

JobReport& JobReport::RealTime(int64_t frames, int rate, std::optional<double> seconds) {
    mRealTime = RealTimeOf{frames, rate, seconds};
    return *this;
}

int JobReport::Print(double seconds) {
    if (mConsole.Json()) {
        WriteWarnings(mJson, mConsole.Warnings());
        for (const auto& [key, value] : mTimings)
            mJson.Key(key).Number(value);
        if (mRealTime)
            WriteRealTimeFactor(mJson, mRealTime->frames, mRealTime->rate, mRealTime->seconds.value_or(seconds));
        mJson.Key("seconds").Number(seconds);
        mJson.EndObject();
        std::cout << mJsonText.str() << '\n';  // the writer ends its document only when destroyed
    } else if (mConsole.ShowsText()) {
        *mTextOut << mText.str();
    }
    return kExitOk;
}

void WriteAudioFields(JsonWriter& json, const AudioFormat& format, int64_t frames) {
    json.Key("format").BeginObject();
    json.Key("container").String(ContainerName(format.sndfileFormat));
    json.Key("encoding").String(EncodingName(format.sndfileFormat));
    json.Key("description").String(DescribeFormat(format.sndfileFormat));
    json.EndObject();
    json.Key("sample_rate").Int(format.sampleRate);
    json.Key("channels").Int(format.channels);
    json.Key("frames").Int(frames);
    json.Key("duration_seconds").Number(double(frames) / format.sampleRate);
    json.Key("duration").String(FormatLength(frames, format.sampleRate));
}

void WriteWarnings(JsonWriter& json, const std::vector<std::string>& warnings) {
    json.Key("warnings").BeginArray();
    for (const std::string& warning : warnings)
        json.String(warning);
    json.EndArray();
}

void WriteLevels(JsonWriter& json, const std::vector<ChannelLevels>& levels) {
    json.BeginArray();
    for (std::size_t c = 0; c < levels.size(); ++c) {
        json.BeginObject();
        json.Key("channel").Int(int64_t(c) + 1);
        json.Key("peak").Number(levels[c].peak);
        json.Key("peak_dbfs").Number(LinearToDb(levels[c].peak));  // null for silence
        json.Key("rms_dbfs").Number(LinearToDb(levels[c].rms));
        json.Key("dc_offset").Number(levels[c].mean);
        json.EndObject();
    }
    json.EndArray();
}

void PrintLevels(std::ostream& out, const std::vector<ChannelLevels>& levels) {
    TextTable table;
    table.AddColumn("Channel", TextTable::Align::Right);
    table.AddColumn("Peak", TextTable::Align::Right);
    table.AddColumn("Peak dBFS", TextTable::Align::Right);
    table.AddColumn("RMS dBFS", TextTable::Align::Right);
    table.AddColumn("DC offset", TextTable::Align::Right);
    for (std::size_t c = 0; c < levels.size(); ++c) {
        char peak[32], mean[32];
        std::snprintf(peak, sizeof(peak), "%.6f", levels[c].peak);
        // No "-0.000000": an offset below the shown precision is 0.
        std::snprintf(mean, sizeof(mean), "%.6f", std::fabs(levels[c].mean) < 5e-7 ? 0.0 : levels[c].mean);
        table.AddRow({std::to_string(c + 1), peak, FormatDb(LinearToDb(levels[c].peak)),
                      FormatDb(LinearToDb(levels[c].rms)), mean});
    }
    table.Print(out);
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
