#pragma once
// What `kesta denoise` and `kesta dehiss` share: a noise source (a stretch of the input, another
// file, or a saved print), a capture that streams that stretch, a print file kept or read, and a
// latency-compensated pass of a spectral processor over the whole input.
//
// The run, in order (nothing is written until every check has passed, and OUTPUT and the saved
// print appear only once complete):
//   1. the options are checked (ranges of the settings, one noise source, something to write);
//   2. INPUT is opened; the print is read and matched to it, or the noise file opened and the
//      range resolved and checked against its length and the capture's minimum;
//   3. the outputs are prepared (SafeOutput: refused early when they exist or are an input);
//   4. the capture streams the noise stretch (an analyzer reads overlapping blocks at the
//      positions it asks for; the reader moves forward only, keeping one block in memory);
//   5. the processor runs over INPUT: the first GetLatency() output frames are dropped and as
//      many zeros fed at the end, so OUTPUT has INPUT's length and is aligned with it;
//   6. the print and OUTPUT are moved into place; a text or JSON report follows.

#include <cstdint>
#include <memory>
#include <string>

#include "command.h"
#include "dsp/dsp_analyzer.h"
#include "dsp/overlap_save.h"
#include "dsp/tonal_line_canceller.h"
#include "pipeline/command_support.h"  // FormatValue, CheckSetting
#include "pipeline/console.h"
#include "pipeline/job.h"
#include "prints/noise_print_file.h"

namespace CLI {
class App;
}

namespace kesta {

class JsonWriter;

inline constexpr int kSmallestFftSize = 256;
inline constexpr int kLargestFftSize = 16384;
inline constexpr int kDefaultFftSize = 4096;

struct SpectralOptions {
    std::string input;
    std::string output;      // empty: capture only (with --save-print)
    std::string noiseRange;  // --noise START:END, seconds; empty when not given
    std::string noiseFile;   // --noise-file
    std::string printPath;   // --print
    std::string savePrint;   // --save-print
    int fftSize = kDefaultFftSize;
    bool fftSizeGiven = false;  // --fft-size was on the command line
    bool residual = false;
    OutputOptions out;
    ReportOptions report;
};

// A stretch of time as given to --noise: "START:END" in seconds, either side may be left out
// (":1.5" from the start, "3:" to the end).
struct TimeRange {
    double start = 0.0;
    bool hasEnd = false;
    double end = 0.0;
};
// Throws a usage error for anything but a well-formed, non-empty, non-negative range.
TimeRange ParseTimeRange(const std::string& text, const std::string& option);

// What differs between the tools: their record, capture and processor, and their settings.
class SpectralTool {
public:
    virtual ~SpectralTool() = default;

    virtual std::string Command() const = 0;  // "denoise"
    virtual PrintKind Kind() const = 0;
    // Whether the processor learns the noise while it streams: no print is taken or read (the
    // print options are refused), and a --noise stretch only marks what the report measures.
    virtual bool LearnsNoise() const { return false; }
    // The method's name for the report, where the command has several ("print", "adaptive").
    virtual std::string Method() const { return ""; }
    // Usage errors for settings out of range.
    virtual void CheckSettings() const = 0;
    // The FFT size when --fft-size is not given.
    virtual int DefaultFftSize(int /*sampleRate*/) const { return kDefaultFftSize; }
    // The shortest stretch, in frames, the capture can take a print from.
    virtual int64_t MinimumCaptureFrames(int fftSize) const = 0;

    // A capture for audio of this shape (owning whatever record it is made from).
    virtual std::unique_ptr<dsp::DSPAnalyzer> MakeCapture(int channels, int sampleRate, int fftSize) = 0;
    // Takes the finished capture's result as the print to use.
    virtual void TakeCapture(const dsp::DSPAnalyzer& capture) = 0;
    // Takes a print read from a file (of this tool's kind, checked to fit the audio).
    virtual void TakePrint(PrintFile&& print) = 0;
    // The print in use, as the bytes of a print file.
    virtual std::string EncodePrint(int sampleRate, PrintSpan span) const = 0;

    // The processor for the print in use (or for audio of this shape, when it learns the noise),
    // with the settings (and --residual) applied, resumed and ready for a stream.
    virtual std::unique_ptr<dsp::OverlapSave> MakeProcess(int channels, int sampleRate) = 0;
    // A canceller of steady tonal lines to run before the processor, or null. With one, the
    // processor must write the cleaned audio even with --residual: the stage then gives the input
    // less what comes out of the two.
    virtual std::unique_ptr<dsp::TonalLineCanceller> MakeLineCanceller(int /*channels*/, int /*sampleRate*/) {
        return nullptr;
    }

    // The settings as fields of the JSON object being written, and as words for the summary.
    virtual void WriteSettings(JsonWriter& json) const = 0;
    virtual std::string DescribeSettings() const = 0;
};

// Adds INPUT, OUTPUT and the options every spectral command has: --noise, --noise-file, --print,
// --save-print, --fft-size, --residual, --force, --quiet, --json.
void AddSpectralOptions(CLI::App& app, std::shared_ptr<SpectralOptions> options);

// The tool as a chain's stage: its print read, or captured now from its noise source, and its
// processor made. The options and settings the tool refers to must outlive the stage.
std::unique_ptr<Stage> MakeSpectralStage(const SpectralOptions& options, std::shared_ptr<SpectralTool> tool,
                                         const StageInput& in);

// Runs the command; returns the exit status, throws CliError on failure.
int RunSpectralCommand(const SpectralOptions& options, std::shared_ptr<SpectralTool> tool);

}  // namespace kesta
