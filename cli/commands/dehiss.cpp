// kesta dehiss INPUT OUTPUT: hiss reduction. The hiss floor (per channel and frequency bin, the
// highest smoothed level the hiss reaches) is taken from a hiss-only stretch or read from a saved
// print; a threshold sits --sensitivity dB above it, and every bin below its threshold is turned
// down, with a soft knee.

#include <CLI/CLI.hpp>
#include <memory>

#include "command.h"
#include "dsp/nohiss.h"
#include "pipeline/command_line.h"
#include "pipeline/json_writer.h"
#include "spectral_command.h"

namespace kesta {

namespace {

using dsp::nohiss::CaptureNoiseFloor;
using dsp::nohiss::NOHISS;
using dsp::nohiss::NoHissProcess;

constexpr const char* kHelpFooter =
    R"help(Removes broadband hiss (tape, preamp, microphone self-noise) with a per-frequency downward
expander: the hiss floor is measured on a stretch where only the hiss is heard, each frequency
gets a threshold --sensitivity dB above its floor, and whatever stays below its threshold is
turned down. Choose the stretch with --noise (seconds, START:END; ':1.5' means from the start,
'58:' to the end), in INPUT or in another recording with --noise-file; it must hold at least one
FFT frame (--fft-size, default 4096 frames: 0.093 s at 44.1 kHz), and a second or more measures
the floor better.

--save-print FILE keeps the floor, --print FILE uses a kept one (its FFT size, channel count and
sample rate must match the input). With --save-print, OUTPUT may be left out to only measure.
The settings are those of the command line, not those of the run that saved the floor.

  --sensitivity DB   threshold above the measured floor (default 6): raise it for more
                     reduction, lower it when quiet detail close to the hiss suffers
  --reduction DB     depth of the reduction (default 24, which turns hiss down by 12 dB:
                     the gain floor is 10^(-DB/40))
  --knee DB          width of the soft knee below the threshold (default 7)
  --smoothing PCT    how slowly a bin's measured level falls (default 65)
  --residual         writes what would be removed

The output has the input's length, format, sample rate and channels and is aligned with it
sample for sample (the processing delay is compensated). It is written to a temporary file and
moved into place when complete. The report gives the level change, and for a --noise stretch of
INPUT how much quieter that stretch became.

Exit status: 0 done; 2 wrong command line (also a floor that does not fit the input);
3 input problem (also a damaged print file); 4 output problem.

Examples:
  kesta dehiss tape.wav clean.wav --noise 0:2
  kesta dehiss tape.wav --noise 0:2 --save-print tape.khf
  kesta dehiss side2.wav clean2.wav --print tape.khf --sensitivity 8
  kesta dehiss tape.wav hiss.wav --noise 0:2 --residual)help";

struct DehissSettings {
    double sensitivityDb = dsp::nohiss::kDefaultSensitivityDb;
    double reductionDb = 24.0;
    double kneeDb = 7.0;
    double smoothingPercent = 65.0;
};

class DehissTool : public SpectralTool {
public:
    DehissTool(const SpectralOptions& options, const DehissSettings& settings)
        : mOptions(options), mSettings(settings) {}

    std::string Command() const override { return "dehiss"; }
    PrintKind Kind() const override { return PrintKind::HissFloor; }

    void CheckSettings() const override {
        CheckSetting("--sensitivity", mSettings.sensitivityDb, -30.0, 40.0, "dB");
        CheckSetting("--reduction", mSettings.reductionDb, 0.0, 120.0, "dB");
        CheckSetting("--knee", mSettings.kneeDb, 0.0, 40.0, "dB");
        CheckSetting("--smoothing", mSettings.smoothingPercent, 0.0, 99.0, "percent");
    }

    // One whole frame: a shorter stretch would be measured with zeros after it.
    int64_t MinimumCaptureFrames(int fftSize) const override { return fftSize; }

    std::unique_ptr<dsp::DSPAnalyzer> MakeCapture(int channels, int sampleRate, int fftSize) override {
        NoHissPtr record = MakeNoHiss(channels, fftSize, sampleRate);
        Apply(*record);
        return std::make_unique<CaptureNoiseFloor>(record.get());  // takes a copy
    }

    void TakeCapture(const dsp::DSPAnalyzer& capture) override {
        const NOHISS* floor = static_cast<const CaptureNoiseFloor&>(capture).GetParam();
        mRecord = MakeNoHiss(floor->channels, floor->fftSize, floor->sampleRate);
        dsp::nohiss::CopyParameter(floor, mRecord.get());
        dsp::nohiss::ComputeThresholdsFromFloor(mRecord.get(), float(mSettings.sensitivityDb));
    }

    void TakePrint(PrintFile&& print) override {
        mRecord = std::move(print.hiss);
        dsp::nohiss::ComputeThresholdsFromFloor(mRecord.get(), float(mSettings.sensitivityDb));
    }

    std::string EncodePrint(int, PrintSpan span) const override { return EncodeHissFloor(*mRecord, span); }

    std::unique_ptr<dsp::OverlapSave> MakeProcess(int, int) override {
        Apply(*mRecord);
        auto process = std::make_unique<NoHissProcess>(mRecord.get());
        process->Resume();
        return process;
    }

    void WriteSettings(JsonWriter& json) const override {
        json.Key("sensitivity_db").Number(mSettings.sensitivityDb);
        json.Key("reduction_db").Number(mSettings.reductionDb);
        json.Key("knee_db").Number(mSettings.kneeDb);
        json.Key("smoothing_percent").Number(mSettings.smoothingPercent);
    }

    std::string DescribeSettings() const override {
        return "sensitivity " + FormatValue(mSettings.sensitivityDb) + " dB, reduction " +
               FormatValue(mSettings.reductionDb) + " dB, knee " + FormatValue(mSettings.kneeDb) + " dB, smoothing " +
               FormatValue(mSettings.smoothingPercent) + "%";
    }

private:
    void Apply(NOHISS& record) const {
        record.reductionDb = float(mSettings.reductionDb);
        record.kneeDb = float(mSettings.kneeDb);
        record.smoothingPercent = float(mSettings.smoothingPercent);
        record.outputMode = mOptions.residual ? 2 : 1;
    }

    const SpectralOptions& mOptions;
    const DehissSettings& mSettings;
    NoHissPtr mRecord;
};

}  // namespace

Command AddDehissCommand(CLI::App& kesta) {
    auto options = std::make_shared<SpectralOptions>();
    auto settings = std::make_shared<DehissSettings>();
    CLI::App* app = kesta.add_subcommand("dehiss", "Remove broadband hiss, using its measured floor");
    app->footer(kHelpFooter);
    AddSpectralOptions(*app, options);
    AddNumberOption(*app, "--sensitivity", settings->sensitivityDb,
                    "Threshold above the measured floor in dB, -30 to 40 (default 6)")
        ->type_name("DB");
    AddNumberOption(*app, "--reduction", settings->reductionDb, "Depth of the reduction in dB, 0 to 120 (default 24)")
        ->type_name("DB");
    AddNumberOption(*app, "--knee", settings->kneeDb, "Width of the soft knee in dB, 0 to 40 (default 7)")
        ->type_name("DB");
    AddNumberOption(*app, "--smoothing", settings->smoothingPercent,
                    "Smoothing of the measured levels, percent, 0 to 99 (default 65)")
        ->type_name("PCT");
    return {
        app,
        [options, settings] { return RunSpectralCommand(*options, std::make_shared<DehissTool>(*options, *settings)); },
        [options, settings](const StageInput& in) {
            return MakeSpectralStage(*options, std::make_shared<DehissTool>(*options, *settings), in);
        }};
}

}  // namespace kesta
