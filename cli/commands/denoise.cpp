// kesta denoise INPUT OUTPUT: noise-print noise reduction. A print of the noise (per channel and
// frequency bin, how its magnitude is distributed) is taken from a noise-only stretch, or read from
// a saved print, and every bin of the audio is attenuated where it does not rise above the print.

#include <CLI/CLI.hpp>
#include <memory>

#include "command.h"
#include "dsp/nonoise.h"
#include "errors.h"
#include "pipeline/command_line.h"
#include "pipeline/json_writer.h"
#include "spectral_command.h"

namespace kesta {

namespace {

using dsp::nonoise::CaptureNoisePrint;
using dsp::nonoise::NONOISE;
using dsp::nonoise::NoNoiseProcess;

constexpr const char* kHelpFooter =
    R"help(Removes steady broadband noise (hum, hiss, fan, tape and room noise) by its noise print: a
portrait of the noise, per channel and frequency, taken from a stretch where only the noise is
heard. Choose that stretch with --noise (seconds, START:END; ':1.5' means from the start, '58:'
to the end), in INPUT or in another recording of the same noise with --noise-file. The print is
taken with --fft-size (a power of two from 256 to 16384, default 4096: larger separates close
frequencies better, smaller follows changes faster) and needs at least that many frames plus 3.

--save-print FILE keeps the print, --print FILE uses a kept one (its FFT size, channel count and
sample rate must match the input). With --save-print, OUTPUT may be left out to only take the
print. The settings are those of the command line, not those of the run that saved the print.

  --reduction DB     how far the noise is pushed down (default 40; 0 passes the audio through,
                     changed only by rounding)
  --smoothing PCT    how slowly a bin's measured level falls from frame to frame (default 65);
                     higher gives fewer warbling artefacts ("musical noise"), lower keeps
                     quick detail
  --transition DB    widens the soft knee between removed and kept (default 0)
  --residual         writes what would be removed, to hear whether anything wanted goes with it

The output has the input's length, format, sample rate and channels and is aligned with it
sample for sample (the processing delay is compensated). It is written to a temporary file and
moved into place when complete. The report gives the level change, and for a --noise stretch of
INPUT how much quieter that stretch became.

Exit status: 0 done; 2 wrong command line (also a print that does not fit the input);
3 input problem (also a damaged print file); 4 output problem.

Examples:
  kesta denoise take1.wav clean.wav --noise 0:1.5
  kesta denoise take1.wav --noise 0:1.5 --save-print room.knp
  kesta denoise take2.wav clean2.wav --print room.knp --reduction 30
  kesta denoise take1.wav removed.wav --noise-file roomtone.wav --residual)help";

struct DenoiseSettings {
    double reductionDb = 40.0;
    double smoothingPercent = 65.0;
    double transitionDb = 0.0;
};

class DenoiseTool : public SpectralTool {
public:
    DenoiseTool(const SpectralOptions& options, const DenoiseSettings& settings)
        : mOptions(options), mSettings(settings) {}

    std::string Command() const override { return "denoise"; }
    PrintKind Kind() const override { return PrintKind::NoisePrint; }

    void CheckSettings() const override {
        CheckSetting("--reduction", mSettings.reductionDb, 0.0, 120.0, "dB");
        CheckSetting("--smoothing", mSettings.smoothingPercent, 0.0, 99.0, "percent");
        CheckSetting("--transition", mSettings.transitionDb, 0.0, 40.0, "dB");
        if (mOptions.residual && mSettings.reductionDb == 0.0)
            throw UsageError("--residual with --reduction 0 has nothing to write", "",
                             "a reduction of 0 removes nothing; give a reduction above 0");
    }

    // CaptureNoisePrint needs snapshots at least 3 frames apart.
    int64_t MinimumCaptureFrames(int fftSize) const override { return int64_t(fftSize) + 3; }

    std::unique_ptr<dsp::DSPAnalyzer> MakeCapture(int channels, int, int fftSize) override {
        NoNoisePtr record = MakeNoNoise(channels, fftSize);
        Apply(*record);
        return std::make_unique<CaptureNoisePrint>(record.get());  // takes a copy
    }

    void TakeCapture(const dsp::DSPAnalyzer& capture) override {
        const NONOISE* print = static_cast<const CaptureNoisePrint&>(capture).GetParam();
        mRecord.reset(new NONOISE{});
        dsp::nonoise::CopyNoNoise(print, mRecord.get(), true);
    }

    void TakePrint(PrintFile&& print) override { mRecord = std::move(print.noise); }

    std::string EncodePrint(int sampleRate, PrintSpan span) const override {
        return EncodeNoisePrint(*mRecord, sampleRate, span);
    }

    std::unique_ptr<dsp::OverlapSave> MakeProcess() override {
        Apply(*mRecord);
        auto process = std::make_unique<NoNoiseProcess>(mRecord.get());
        process->Resume();
        return process;
    }

    void WriteSettings(JsonWriter& json) const override {
        json.Key("reduction_db").Number(mSettings.reductionDb);
        json.Key("smoothing_percent").Number(mSettings.smoothingPercent);
        json.Key("transition_db").Number(mSettings.transitionDb);
    }

    std::string DescribeSettings() const override {
        if (mSettings.reductionDb == 0.0) return "reduction 0 dB (unchanged)";
        return "reduction " + FormatValue(mSettings.reductionDb) + " dB, smoothing " +
               FormatValue(mSettings.smoothingPercent) + "%, transition " + FormatValue(mSettings.transitionDb) + " dB";
    }

private:
    void Apply(NONOISE& record) const {
        record.reductionDb = mSettings.reductionDb;
        record.smoothingPercent = mSettings.smoothingPercent;
        record.transitionDb = mSettings.transitionDb;
        record.outputMode = mOptions.residual ? 2 : 1;
    }

    const SpectralOptions& mOptions;
    const DenoiseSettings& mSettings;
    NoNoisePtr mRecord;
};

}  // namespace

Command AddDenoiseCommand(CLI::App& kesta) {
    auto options = std::make_shared<SpectralOptions>();
    auto settings = std::make_shared<DenoiseSettings>();
    CLI::App* app = kesta.add_subcommand("denoise", "Remove steady background noise, using a print of the noise");
    app->footer(kHelpFooter);
    AddSpectralOptions(*app, options);
    AddNumberOption(*app, "--reduction", settings->reductionDb, "Reduction in dB, 0 to 120 (default 40; 0: unchanged)")
        ->type_name("DB");
    AddNumberOption(*app, "--smoothing", settings->smoothingPercent,
                    "Smoothing of the measured levels, percent, 0 to 99 (default 65)")
        ->type_name("PCT");
    AddNumberOption(*app, "--transition", settings->transitionDb, "Width of the soft knee in dB, 0 to 40 (default 0)")
        ->type_name("DB");
    return {app,
            [options, settings] {
                DenoiseTool tool(*options, *settings);
                return RunSpectralCommand(*options, tool);
            },
            [options, settings](const StageInput& in) {
                return MakeSpectralStage(*options, std::make_shared<DenoiseTool>(*options, *settings), in);
            }};
}

}  // namespace kesta
