#pragma once
// What `kesta eq` and `kesta geq` share: INPUT and OUTPUT, the response table (--response, at
// INPUT's sample rate or --rate), a latency-compensated pass of the equaliser over INPUT, and the
// report.
//
// The run, in order (nothing is written until every check has passed, and the files appear only
// once complete):
//   1. the settings are checked by themselves (ranges, shapes, a preset's contents), then what the
//      command line asks for (OUTPUT, --response, a file the tool saves) and where the rate of the
//      response comes from;
//   2. INPUT is opened (only its format is needed for --response alone), and the settings are
//      checked against its sample rate (frequencies must lie below half of it);
//   3. the outputs are prepared (SafeOutput: refused early when they exist or are an input);
//   4. the equaliser is set up for INPUT's channels and rate and streamed over it, its latency
//      compensated (latency_stream.h): OUTPUT has INPUT's length and is aligned with it;
//   5. the files are moved into place; a text or JSON report follows, with the response table
//      when asked for.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "pipeline/console.h"
#include "pipeline/job.h"

namespace CLI {
class App;
}

namespace kesta {

class JsonWriter;

struct EqualiserOptions {
    std::string input;   // empty: none (--response --rate, or a preset to save)
    std::string output;  // empty: no audio to write
    bool response = false;
    int rate = 0;  // --rate, 0 when not given
    OutputOptions out;
    ReportOptions report;
};

// A frequency the settings name (a band's centre, a shelf's corner), marked in the response table.
struct ResponseMark {
    double hz = 0.0;
    std::string name;  // "band 2", "low shelf"
};

// What differs between the equalisers.
class EqualiserTool {
public:
    virtual ~EqualiserTool() = default;

    virtual std::string Command() const = 0;  // "eq"
    // Checks the settings by themselves and reads what they name (a preset); throws usage errors
    // (input errors for an unreadable preset).
    virtual void CheckSettings() = 0;
    // Throws a usage error for settings that audio at this sample rate cannot take; `source` names
    // the rate for the message: "of 'in.wav' (44100 Hz)", "of 48000 Hz (--rate)".
    virtual void CheckRate(int sampleRate, const std::string& source) const = 0;

    // A file the run writes besides OUTPUT (geq's --save-preset), or "".
    virtual std::string SavedFile() const { return {}; }
    // Files the settings were read from (a preset), kept safe from being written over.
    virtual std::vector<std::string> ReadFiles() const { return {}; }
    // The bytes of SavedFile().
    virtual std::string SavedBytes() { return {}; }

    // Sets the equaliser up for a stream of this shape, settings applied, ready to process.
    virtual void Prepare(int channels, int sampleRate) = 0;
    // Frames the output lags the input by (after Prepare).
    virtual int64_t Latency() = 0;
    // Processes a block of every channel in place.
    virtual void Process(float** channels, int channelCount, int frames) = 0;
    // Runs of whole sections the equaliser can be cut into (after Prepare), the output of one the
    // input of the next, together the same bits as Process: a threaded stream runs each on a thread
    // of its own. Each part is without latency.
    virtual int Parts() { return 1; }
    // Processes part `part` of a block of every channel in place.
    virtual void ProcessPart(int part, float** channels, int channelCount, int frames) {
        if (part == 0) Process(channels, channelCount, frames);
    }
    // The gain of the whole equaliser at `hz`, in dB, from the library's response (after Prepare).
    virtual double ResponseDb(double hz) = 0;
    // The frequencies the settings name.
    virtual std::vector<ResponseMark> Marks() const = 0;

    // The settings as fields of the JSON object being written, and as words for the summary.
    virtual void WriteSettings(JsonWriter& json) const = 0;
    virtual std::string DescribeSettings() const = 0;
};

// The equaliser as a chain's stage: settings checked by themselves and against the input's rate,
// prepared for its channels. `owner` keeps what the tool refers to alive.
std::unique_ptr<Stage> MakeEqualiserStage(std::shared_ptr<EqualiserTool> tool, const StageInput& in);

// Adds INPUT, OUTPUT, --response, --rate, --force, --quiet and --json.
void AddEqualiserOptions(CLI::App& app, std::shared_ptr<EqualiserOptions> options);

// Runs the command; returns the exit status, throws CliError on failure.
int RunEqualiserCommand(const EqualiserOptions& options, EqualiserTool& tool);

// The fields of an option value such as "1000:1.5:-6", split at `separator` and read as numbers
// (spaces around a field are allowed). Throws a usage error "OPTION TEXT is not SHAPE (HINT)"
// when the count is outside [fewest, most] or a field is not a number.
std::vector<double> ParseFields(const std::string& option, const std::string& text, char separator, std::size_t fewest,
                                std::size_t most, const std::string& shape, const std::string& hint);

// Throws a usage error "OPTION TEXT: the WHAT VALUE UNIT is out of range (give a WHAT from LOW to
// HIGH UNIT)" unless low <= value <= high.
void CheckField(const std::string& option, const std::string& text, const std::string& what, double value, double low,
                double high, const std::string& unit);

// A frequency in Hz as people read it: "31.25", "62.5", "1000", "12500".
std::string FormatHz(double hz);

}  // namespace kesta
