// kesta denoise INPUT OUTPUT: noise reduction. The print method takes a print of the noise (per
// channel and frequency bin, how its magnitude is distributed) from a noise-only stretch, or reads
// a saved one, and attenuates every bin of the audio where it does not rise above the print; the
// adaptive method needs no print and tracks the noise while the audio streams.

#include <CLI/CLI.hpp>
#include <memory>

#include "command.h"
#include "dsp/adaptive_noise.h"
#include "dsp/dnz.h"
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
    R"help(Removes steady background noise (hum, hiss, fan, tape and room noise) by one of three methods.

--method print (the default when a noise source is given) works from a noise print: a portrait
of the noise, per channel and frequency, taken from a stretch where only the noise is heard.
Choose that stretch with --noise (seconds, START:END; ':1.5' means from the start, '58:' to the
end), in INPUT or in another recording of the same noise with --noise-file. The print is taken
with --fft-size (a power of two from 256 to 16384, default 4096: larger separates close
frequencies better, smaller follows changes faster) and needs at least that many frames plus 3.
--save-print FILE keeps the print, --print FILE uses a kept one (its FFT size, channel count and
sample rate must match the input). With --save-print, OUTPUT may be left out to only take the
print. The settings are those of the command line, not those of the run that saved the print.

--method adaptive (the default without a noise source) needs no print: it learns the noise
while it plays, follows noise that changes slowly, and leaves sustained tones and voices alone.
It takes the pauses, where it finds no programme, up to 40 dB further down than --reduction,
sinking over 0.15 s after the programme stops and back at once when it returns. A --noise
stretch is then only measured for the report. It takes no --print, --noise-file,
--save-print, --fft-size, --smoothing or --transition.

--method nmf takes its noise source like print (--noise, --noise-file, --print) but learns from
it a few spectral shapes of the noise; while the audio streams it splits every moment into those
shapes and shapes of its own for the programme, learned as it goes, and keeps what the
programme's shapes explain. It follows noise that swells and fades, and hum lines, closely, and
takes the pauses, where it finds no programme, 30 dB further down than --reduction. Its
--save-print keeps those shapes (a noise dictionary, which only --method nmf reads back);
--fft-size defaults to about 46 ms (2048 at 44.1 kHz).

  --reduction DB     how far the noise is pushed down (default 40 with print and adaptive, 30
                     with nmf; 0 passes the audio through, changed only by rounding)
  --smoothing PCT    print: how slowly a bin's measured level falls from frame to frame (default
                     65); higher gives fewer warbling artefacts ("musical noise"), lower keeps
                     quick detail; nmf: how long the programme's share of a bin is remembered
                     (default 40)
  --transition DB    print: widens the soft knee between removed and kept (default 0)
  --residual         writes what would be removed, to hear whether anything wanted goes with it
  --keep-lines       adaptive and nmf: no line canceller (see below)

Before their spectral reduction, adaptive and nmf cancel steady tonal lines: mains hum and its
harmonics, a whine, any tone that holds its frequency and level for seconds. Each line found is
rebuilt from the audio around it and subtracted, which takes it down much further than a spectral
reduction can where music or speech shares its frequencies; a note or a voice, which moves, is
not taken for one. This looks 4 s ahead, so the first lines are found from the start. The report
lists the lines cancelled.

The output has the input's length, format, sample rate and channels and is aligned with it
sample for sample (the processing delay is compensated). It is written to a temporary file and
moved into place when complete. The report names the method and gives the level change overall,
in a --noise stretch of INPUT, and in the pauses (stretches of 50 ms more than 20 dB below the
programme's level), where what is left of the noise is heard most.

Exit status: 0 done; 2 wrong command line (also a print that does not fit the input);
3 input problem (also a damaged print file); 4 output problem.

Examples:
  kesta denoise take1.wav clean.wav
  kesta denoise take1.wav clean.wav --noise 0:1.5
  kesta denoise take1.wav clean.wav --method nmf --noise 0:1.5
  kesta denoise take2.wav clean2.wav --method nmf --print room.knd
  kesta denoise take1.wav --noise 0:1.5 --save-print room.knp
  kesta denoise take2.wav clean2.wav --print room.knp --reduction 30
  kesta denoise take1.wav removed.wav --noise-file roomtone.wav --residual)help";

struct DenoiseSettings {
    std::string method;  // empty: print with a noise source, adaptive without
    double reductionDb = 40.0;
    bool reductionGiven = false;
    double smoothingPercent = 65.0;
    bool smoothingGiven = false;
    double transitionDb = 0.0;
    bool transitionGiven = false;
    bool keepLines = false;  // --keep-lines: no line canceller before adaptive and nmf
};

// Adaptive and nmf run the line canceller first, unless --keep-lines or --reduction 0.
bool LinesCancelled(const DenoiseSettings& settings, double reductionDb) {
    return !settings.keepLines && reductionDb != 0.0;
}

std::unique_ptr<dsp::TonalLineCanceller> MakeCanceller(const DenoiseSettings& settings, double reductionDb,
                                                       int channels, int sampleRate) {
    if (!LinesCancelled(settings, reductionDb)) return nullptr;
    return std::make_unique<dsp::TonalLineCanceller>(channels, sampleRate);
}

// The method the command line asks for: --method, or print when a noise source is given and
// adaptive when none is.
std::string ResolveMethod(const SpectralOptions& options, const DenoiseSettings& settings) {
    if (settings.method.empty())
        return options.printPath.empty() && options.noiseFile.empty() && options.noiseRange.empty() ? "adaptive"
                                                                                                    : "print";
    if (settings.method == "nmf" && options.printPath.empty() && options.noiseFile.empty() &&
        options.noiseRange.empty())
        throw UsageError("--method nmf needs a noise source", "it learns the noise's shapes from a noise-only stretch",
                         "give --noise START:END or --noise-file FILE, or --method adaptive");
    if (settings.method != "print" && settings.method != "adaptive" && settings.method != "nmf")
        throw UsageError("--method " + settings.method + " is not a denoise method", "",
                         "give --method print, adaptive or nmf");
    return settings.method;
}

class DenoiseTool : public SpectralTool {
public:
    DenoiseTool(const SpectralOptions& options, const DenoiseSettings& settings)
        : mOptions(options), mSettings(settings) {}

    std::string Command() const override { return "denoise"; }
    PrintKind Kind() const override { return PrintKind::NoisePrint; }
    std::string Method() const override { return "print"; }

    void CheckSettings() const override {
        CheckSetting("--reduction", mSettings.reductionDb, 0.0, 120.0, "dB");
        CheckSetting("--smoothing", mSettings.smoothingPercent, 0.0, 99.0, "percent");
        CheckSetting("--transition", mSettings.transitionDb, 0.0, 40.0, "dB");
        if (mSettings.keepLines)
            throw UsageError("--keep-lines applies to --method adaptive and nmf only",
                             "the print method cancels no lines", "leave it out");
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

    std::unique_ptr<dsp::OverlapSave> MakeProcess(int, int) override {
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

// The adaptive reducer: no print; the noise is tracked while the audio streams.
class AdaptiveDenoiseTool : public SpectralTool {
public:
    AdaptiveDenoiseTool(const SpectralOptions& options, const DenoiseSettings& settings)
        : mOptions(options), mSettings(settings) {}

    std::string Command() const override { return "denoise"; }
    PrintKind Kind() const override { return PrintKind::NoisePrint; }
    bool LearnsNoise() const override { return true; }
    std::string Method() const override { return "adaptive"; }

    void CheckSettings() const override {
        CheckSetting("--reduction", ReductionDb(), 0.0, 120.0, "dB");
        for (auto [given, name] : {std::pair{mSettings.smoothingGiven, "--smoothing applies to --method print and nmf"},
                                   std::pair{mSettings.transitionGiven, "--transition applies to --method print"}})
            if (given)
                throw UsageError(std::string(name) + " only", "",
                                 "leave it out, or give a noise source for the print method");
        if (mOptions.residual && ReductionDb() == 0.0)
            throw UsageError("--residual with --reduction 0 has nothing to write", "",
                             "a reduction of 0 removes nothing; give a reduction above 0");
    }

    // Never asked: the command takes no print for this tool.
    int64_t MinimumCaptureFrames(int) const override { return 0; }
    std::unique_ptr<dsp::DSPAnalyzer> MakeCapture(int, int, int) override { return nullptr; }
    void TakeCapture(const dsp::DSPAnalyzer&) override {}
    void TakePrint(PrintFile&&) override {}
    std::string EncodePrint(int, PrintSpan) const override { return {}; }

    std::unique_ptr<dsp::OverlapSave> MakeProcess(int channels, int sampleRate) override {
        auto process = std::make_unique<dsp::AdaptiveNoise>(channels, sampleRate, ReductionDb());
        process->SetResidualOutput(mOptions.residual && !CancelsLines());
        process->Resume();
        return process;
    }
    std::unique_ptr<dsp::TonalLineCanceller> MakeLineCanceller(int channels, int sampleRate) override {
        return MakeCanceller(mSettings, ReductionDb(), channels, sampleRate);
    }

    void WriteSettings(JsonWriter& json) const override { json.Key("reduction_db").Number(ReductionDb()); }

    std::string DescribeSettings() const override {
        if (ReductionDb() == 0.0) return "reduction 0 dB (unchanged)";
        return "reduction " + FormatValue(ReductionDb()) + " dB";
    }

private:
    double ReductionDb() const {
        return mSettings.reductionGiven ? mSettings.reductionDb : dsp::AdaptiveNoise::kDefaultReductionDb;
    }
    bool CancelsLines() const { return LinesCancelled(mSettings, ReductionDb()); }

    const SpectralOptions& mOptions;
    const DenoiseSettings& mSettings;
};

// The factorisation reducer: a dictionary of noise shapes learned from the noise stretch, the
// signal's shapes learned while the audio streams.
class NmfDenoiseTool : public SpectralTool {
public:
    NmfDenoiseTool(const SpectralOptions& options, const DenoiseSettings& settings)
        : mOptions(options), mSettings(settings) {}

    std::string Command() const override { return "denoise"; }
    PrintKind Kind() const override { return PrintKind::NoiseDictionary; }
    std::string Method() const override { return "nmf"; }
    int DefaultFftSize(int sampleRate) const override { return dsp::dnz::FrameLengthFor(sampleRate); }

    void CheckSettings() const override {
        CheckSetting("--reduction", ReductionDb(), 0.0, 120.0, "dB");
        CheckSetting("--smoothing", SmoothingPercent(), 0.0, 99.0, "percent");
        if (mSettings.transitionGiven)
            throw UsageError("--transition applies to --method print only", "", "leave it out");
        if (mOptions.residual && ReductionDb() == 0.0)
            throw UsageError("--residual with --reduction 0 has nothing to write", "",
                             "a reduction of 0 removes nothing; give a reduction above 0");
    }

    // One spectrum of fftSize frames is the least a dictionary is learned from.
    int64_t MinimumCaptureFrames(int fftSize) const override { return fftSize; }

    std::unique_ptr<dsp::DSPAnalyzer> MakeCapture(int channels, int, int fftSize) override {
        dsp::dnz::DNZ record;
        dsp::dnz::SetDefaultParameter(&record);
        record.channels = int16_t(channels);
        record.fftSize = int16_t(fftSize);
        dsp::dnz::AllocateArrays(&record);
        auto capture = std::make_unique<dsp::dnz::DNZNoisePrint>(&record);  // takes a copy
        dsp::dnz::FreeArrays(&record);
        return capture;
    }

    void TakeCapture(const dsp::DSPAnalyzer& capture) override {
        mRecord.reset(dsp::dnz::CloneDNZ(static_cast<const dsp::dnz::DNZNoisePrint&>(capture).GetParam()));
    }

    void TakePrint(PrintFile&& print) override { mRecord = std::move(print.dictionary); }

    std::string EncodePrint(int sampleRate, PrintSpan span) const override {
        return EncodeNoiseDictionary(*mRecord, sampleRate, span);
    }

    std::unique_ptr<dsp::TonalLineCanceller> MakeLineCanceller(int channels, int sampleRate) override {
        return MakeCanceller(mSettings, ReductionDb(), channels, sampleRate);
    }

    std::unique_ptr<dsp::OverlapSave> MakeProcess(int, int) override {
        mRecord->reductionDb = ReductionDb();
        mRecord->smoothingPercent = SmoothingPercent();
        mRecord->outputMode = mOptions.residual && !CancelsLines() ? 2 : 1;
        auto process = std::make_unique<dsp::dnz::DNZProcess>(mRecord.get());
        process->Resume();
        return process;
    }

    void WriteSettings(JsonWriter& json) const override {
        json.Key("reduction_db").Number(ReductionDb());
        json.Key("smoothing_percent").Number(SmoothingPercent());
    }

    std::string DescribeSettings() const override {
        if (ReductionDb() == 0.0) return "reduction 0 dB (unchanged)";
        return "reduction " + FormatValue(ReductionDb()) + " dB, smoothing " + FormatValue(SmoothingPercent()) + "%";
    }

private:
    double ReductionDb() const {
        return mSettings.reductionGiven ? mSettings.reductionDb : dsp::dnz::DNZ{}.reductionDb;
    }
    bool CancelsLines() const { return LinesCancelled(mSettings, ReductionDb()); }
    double SmoothingPercent() const {
        return mSettings.smoothingGiven ? mSettings.smoothingPercent : dsp::dnz::DNZ{}.smoothingPercent;
    }

    const SpectralOptions& mOptions;
    const DenoiseSettings& mSettings;
    DnzPtr mRecord;
};

// The tool of the method the command line asks for.
std::shared_ptr<SpectralTool> MakeDenoiseTool(const SpectralOptions& options, const DenoiseSettings& settings) {
    const std::string method = ResolveMethod(options, settings);
    if (method == "adaptive") return std::make_shared<AdaptiveDenoiseTool>(options, settings);
    if (method == "nmf") return std::make_shared<NmfDenoiseTool>(options, settings);
    return std::make_shared<DenoiseTool>(options, settings);
}

}  // namespace

Command AddDenoiseCommand(CLI::App& kesta) {
    auto options = std::make_shared<SpectralOptions>();
    auto settings = std::make_shared<DenoiseSettings>();
    CLI::App* app = kesta.add_subcommand("denoise", "Remove steady background noise, using a print of the noise");
    app->footer(kHelpFooter);
    AddSpectralOptions(*app, options);
    app->add_option("--method", settings->method,
                    "print (a print of the noise from --noise, --noise-file or --print), adaptive (learns the "
                    "noise as it goes; the default without a noise source) or nmf (noise shapes from --noise or "
                    "--noise-file, the programme's learned as it goes)")
        ->type_name("METHOD");
    AddNumberOption(*app, "--reduction", settings->reductionDb,
                    "Reduction in dB, 0 to 120 (default 40 for print and adaptive, 30 for nmf; 0: unchanged)")
        ->type_name("DB")
        ->each([settings](const std::string&) { settings->reductionGiven = true; });
    AddNumberOption(*app, "--smoothing", settings->smoothingPercent,
                    "Smoothing, percent, 0 to 99 (default 65 for print, 40 for nmf)")
        ->type_name("PCT")
        ->each([settings](const std::string&) { settings->smoothingGiven = true; });
    app->add_flag("--keep-lines", settings->keepLines,
                  "adaptive and nmf: leave steady tonal lines (hum) to the spectral reduction instead of cancelling "
                  "them first");
    AddNumberOption(*app, "--transition", settings->transitionDb,
                    "Width of the soft knee in dB, 0 to 40 (default 0; print only)")
        ->type_name("DB")
        ->each([settings](const std::string&) { settings->transitionGiven = true; });
    return {app,
            [options, settings] {
                const std::shared_ptr<SpectralTool> tool = MakeDenoiseTool(*options, *settings);
                return RunSpectralCommand(*options, tool);
            },
            [options, settings](const StageInput& in) {
                return MakeSpectralStage(*options, MakeDenoiseTool(*options, *settings), in);
            }};
}

}  // namespace kesta
