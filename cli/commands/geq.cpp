// kesta geq INPUT OUTPUT: the graphic equaliser. One gain per band of an octave, half-octave or
// third-octave layout, turned into one linear-phase FIR filter; the settings can be kept in a
// preset file (the equaliser's own 140-byte settings chunk) and used again.

#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "command.h"
#include "dsp/graphic.h"
#include "equaliser_command.h"
#include "errors.h"
#include "pipeline/command_line.h"
#include "pipeline/command_support.h"
#include "pipeline/json_writer.h"

namespace kesta {

namespace {

using dsp::Graphic;

constexpr const char* kHelpFooter =
    R"help(Sets the level of each frequency band with one gain per band (dB, + louder, - quieter),
as one linear-phase filter: no band shifts the phase of another, and the processing delay is
compensated, so the output lines up with the input sample for sample.

  --bands 10   octaves:       31.25 62.5 125 250 500 1000 2000 4000 8000 16000 Hz (default)
  --bands 20   half octaves:  31.25, 44.2, 62.5, ... 22627 Hz
  --bands 30   third octaves: 31.25, 39.4, 49.6, ... 16000, 20159, 25398 Hz
  --gains G1,G2,...   one gain per band, from the lowest band up, -59.9 to 59.9 dB, exactly as
                      many as there are bands
  --gain G            master gain in dB, -64 to 64 (default 0)
  --accuracy N        half-length of the filter in samples, 10 to 8192 (default 1000). The
                      filter resolves a band only when it is long enough: at 44.1 kHz the
                      default reaches a band's gain from about 500 Hz up (a +12 dB octave band
                      gets 10.9 dB at 125 Hz); N of 4 x sample rate / (centre x ln r), with
                      r = 2, 1.41 or 1.26 for 10, 20 or 30 bands, keeps a band within 0.3 dB

--save-preset FILE keeps the settings (layout, gains, master gain, accuracy) as the equaliser's
140-byte settings chunk; --preset FILE uses them again (with --gain or --accuracy given too,
those replace the preset's). With --save-preset, INPUT and OUTPUT may be left out.

--response prints the gain in dB of the filter (master gain included) at the band centres and
the third-octave frequencies from 20 Hz to 20 kHz, computed from the designed filter itself, at
INPUT's sample rate or at --rate when no INPUT is given; OUTPUT may then be left out. The table
is printed even with --quiet; with --json it is the "response" array.

The output has the input's length, format, sample rate and channels. Boosts can push integer
formats past full scale: kesta then clips, warns, and says by how much to lower --gain.

Exit status: 0 done; 2 wrong command line; 3 input problem (also a damaged preset); 4 output
problem.

Examples:
  kesta geq take.wav bright.wav --gains 0,0,0,0,0,0,2,4,4,2
  kesta geq take.wav warm.wav --gains=-2,3,3,1,0,0,0,-1,-2,-3 --gain -3 --save-preset warm.kgq
  kesta geq other.wav other-warm.wav --preset warm.kgq
  kesta geq --response --rate 48000 --bands 30 --gains=0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,6,0,0,0,0,0,0,0,0,0,0,0,0,0,0)help";

constexpr double kLargestBandGainDb = 59.9;  // inside the widest gain range, 120 dB
constexpr double kDefaultGainRange = 48.0;
constexpr double kLowestMasterDb = -64.0, kHighestMasterDb = 64.0;
constexpr int kLowestAccuracy = 10, kHighestAccuracy = 8192, kDefaultAccuracy = 1000;

struct GeqSettings {
    int bands = 10;
    bool bandsGiven = false;
    std::string gains;  // as typed; empty: all 0 dB
    double masterDb = 0.0;
    bool masterGiven = false;
    int accuracy = kDefaultAccuracy;
    bool accuracyGiven = false;
    std::string preset;
    std::string savePreset;
};

// The names of the chunk's parameters, for messages about a preset.
std::string ParameterName(int index) {
    switch (index) {
        case Graphic::kAccuracy:
            return "accuracy";
        case Graphic::kMasterGain:
            return "master gain";
        case Graphic::kGainRange:
            return "gain range";
        case Graphic::kBandLayout:
            return "band layout";
        default:
            return "band " + std::to_string(index - Graphic::kFirstBand + 1) + " gain";
    }
}

// Reads a saved chunk: exactly 140 bytes.
std::string ReadPreset(const std::string& path) {
    const std::string what = "cannot use preset " + Quoted(path);
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) throw InputError(what, SystemReason(errno), "check the path");
    if (S_ISDIR(info.st_mode)) throw InputError(what, "it is a directory", "give the preset file");
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) throw InputError(what, SystemReason(errno), "check the path and its permissions");
    std::string bytes(Graphic::kChunkBytes + 1, '\0');
    const std::size_t got = std::fread(bytes.data(), 1, bytes.size(), file);
    const bool failed = std::ferror(file) != 0;
    const int error = errno;
    std::fclose(file);
    if (failed) throw InputError(what, SystemReason(error), "check the disk and the path");
    bytes.resize(got);
    const std::string size = std::to_string(Graphic::kChunkBytes);
    if (got < std::size_t(Graphic::kChunkBytes))
        throw InputError(
            what,
            "it holds " + std::to_string(got) + " bytes where a geq preset holds " + size + ", so it is truncated",
            "save the preset again with --save-preset");
    if (got > std::size_t(Graphic::kChunkBytes))
        throw InputError(what, "it is longer than the " + size + " bytes of a geq preset, so it is not one",
                         "give a file saved with --save-preset");
    return bytes;
}

// Refuses a chunk whose values the equaliser's parameter table does not allow.
void CheckPreset(const std::string& path, const std::string& bytes) {
    float values[Graphic::kParameterCount];
    std::memcpy(values, bytes.data(), sizeof(values));
    const Graphic bounds;
    for (int index = 0; index < Graphic::kParameterCount; ++index) {
        if (index == Graphic::kResetBands) continue;  // a command, not a setting
        float low = 0.0f, high = 0.0f;
        bounds.GetBounds(index, low, high);
        const float value = values[index];
        const bool layoutOk = index != Graphic::kBandLayout || value == 0.0f || value == 1.0f || value == 2.0f;
        if (value >= low && value <= high && layoutOk) continue;
        throw InputError("cannot use preset " + Quoted(path),
                         "its " + ParameterName(index) + " is " + FormatValue(value) +
                             (layoutOk ? ", outside " + FormatValue(low) + " to " + FormatValue(high) : "") +
                             ", so the file is damaged or not a geq preset",
                         "save the preset again with --save-preset");
    }
}

class GeqTool : public EqualiserTool {
public:
    explicit GeqTool(const GeqSettings& settings) : mSettings(settings) {}

    std::string Command() const override { return "geq"; }

    void CheckSettings() override {
        if (!mSettings.preset.empty() && (mSettings.bandsGiven || !mSettings.gains.empty()))
            throw UsageError("--preset cannot be combined with --bands or --gains", "",
                             "the preset holds the layout and the band gains; --gain and --accuracy may go with it");
        if (mSettings.masterGiven) CheckSetting("--gain", mSettings.masterDb, kLowestMasterDb, kHighestMasterDb, "dB");
        if (mSettings.accuracyGiven)
            CheckSetting("--accuracy", mSettings.accuracy, kLowestAccuracy, kHighestAccuracy, "samples");
        if (!mSettings.preset.empty()) {
            const std::string bytes = ReadPreset(mSettings.preset);
            CheckPreset(mSettings.preset, bytes);
            mEq.SetChunk(const_cast<char*>(bytes.data()), Graphic::kChunkBytes, true);
        } else {
            ConfigureFromOptions();
        }
        if (mSettings.masterGiven) Set(Graphic::kMasterGain, mSettings.masterDb);
        if (mSettings.accuracyGiven) Set(Graphic::kAccuracy, mSettings.accuracy);
    }

    // Bands above half the sample rate have nothing to act on; no setting is refused for it.
    void CheckRate(int, const std::string&) const override {}

    std::string SavedFile() const override { return mSettings.savePreset; }
    std::vector<std::string> ReadFiles() const override {
        if (mSettings.preset.empty()) return {};
        return {mSettings.preset};
    }
    std::string SavedBytes() override {
        void* chunk = nullptr;
        const int size = mEq.GetChunk(&chunk, true);
        return std::string(static_cast<const char*>(chunk), std::size_t(size));
    }

    void Prepare(int channels, int sampleRate) override {
        mEq.SetChannels(channels);
        mEq.SetSampleRate(sampleRate);
        mEq.UpdateImpulses();  // allocate and design now
        mEq.Resume();
    }

    int64_t Latency() override { return mEq.GetLatency(); }

    void Process(float** channels, int channelCount, int frames) override {
        mEq.Process(channels, channels, channelCount, frames);
    }

    double ResponseDb(double hz) override { return double(mEq.ComputeFilterResponse(float(hz))); }

    std::vector<ResponseMark> Marks() const override {
        std::vector<ResponseMark> marks;
        for (int k = 0; k < mEq.GetBandCount(); ++k)
            marks.push_back({mEq.GetBandFrequency(k), "band " + std::to_string(k + 1)});
        return marks;
    }

    void WriteSettings(JsonWriter& json) const override {
        json.Key("bands").Int(mEq.GetBandCount());
        json.Key("centres_hz").BeginArray();
        for (int k = 0; k < mEq.GetBandCount(); ++k)
            json.Number(mEq.GetBandFrequency(k));
        json.EndArray();
        json.Key("gains_db").BeginArray();
        for (int k = 0; k < mEq.GetBandCount(); ++k)
            json.Number(mEq.GetParameter(Graphic::kFirstBand + k));
        json.EndArray();
        json.Key("gain_db").Number(mEq.GetParameter(Graphic::kMasterGain));
        json.Key("accuracy").Int(int64_t(mEq.GetParameter(Graphic::kAccuracy)));
        if (mSettings.preset.empty())
            json.Key("preset").Null();
        else
            json.Key("preset").String(mSettings.preset);
    }

    std::string DescribeSettings() const override {
        std::string text = std::to_string(mEq.GetBandCount()) + " bands, gains";
        bool flat = true;
        for (int k = 0; k < mEq.GetBandCount(); ++k) {
            const float gain = mEq.GetParameter(Graphic::kFirstBand + k);
            flat = flat && gain == 0.0f;
            text += (k == 0 ? " " : ",") + FormatValue(gain);
        }
        if (flat) text = std::to_string(mEq.GetBandCount()) + " bands, all 0";
        text += " dB, master " + FormatValue(mEq.GetParameter(Graphic::kMasterGain)) + " dB";
        if (!mSettings.preset.empty()) text += " (preset " + mSettings.preset + ")";
        return text;
    }

private:
    void Set(int index, double value) {
        mEq.SetParameter(index, float(value));
        if (mEq.GetParameter(index) != float(value))
            throw std::logic_error("the graphic equaliser did not take parameter " + std::to_string(index) + " = " +
                                   FormatValue(value));
    }

    void ConfigureFromOptions() {
        const int bands = mSettings.bands;
        if (bands != 10 && bands != 20 && bands != 30)
            throw UsageError("--bands " + std::to_string(bands) + " is not a layout", "",
                             "give 10 (octaves), 20 (half octaves) or 30 (third octaves)");
        std::vector<double> gains(std::size_t(bands), 0.0);
        if (!mSettings.gains.empty()) {
            const std::string hint = "give one gain in dB per band, lowest band first, separated by commas";
            gains = ParseFields("--gains", mSettings.gains, ',', 1, std::size_t(-1), "a list of gains", hint);
            if (gains.size() != std::size_t(bands))
                throw UsageError("--gains has " + std::to_string(gains.size()) + " value(s), and " +
                                     std::to_string(bands) + " bands need " + std::to_string(bands),
                                 "", hint + (mSettings.bandsGiven ? "" : ", or choose the layout with --bands"));
            for (std::size_t k = 0; k < gains.size(); ++k)
                if (!(std::fabs(gains[k]) <= kLargestBandGainDb))
                    throw UsageError("--gains: the gain " + FormatValue(gains[k]) + " dB of band " +
                                         std::to_string(k + 1) + " is out of range",
                                     "", "give band gains from -59.9 to 59.9 dB");
        }
        double largest = 0.0;
        for (double gain : gains)
            largest = std::fmax(largest, std::fabs(gain));
        // The gain range holds band gains strictly inside +-range/2: the default 48 dB, or the
        // next tenth of a dB above twice the largest gain.
        const double range =
            largest < kDefaultGainRange / 2 ? kDefaultGainRange : std::floor(largest * 20.0) / 10.0 + 0.1;

        Set(Graphic::kBandLayout, bands == 10 ? 0 : bands == 20 ? 1 : 2);
        Set(Graphic::kAccuracy, kDefaultAccuracy);
        Set(Graphic::kGainRange, range);
        for (std::size_t k = 0; k < gains.size(); ++k)
            Set(Graphic::kFirstBand + int(k), gains[k]);
        Set(Graphic::kMasterGain, 0.0);
    }

    const GeqSettings& mSettings;
    Graphic mEq;
};

}  // namespace

Command AddGeqCommand(CLI::App& kesta) {
    auto options = std::make_shared<EqualiserOptions>();
    auto settings = std::make_shared<GeqSettings>();
    CLI::App* app = kesta.add_subcommand("geq", "Graphic equaliser: one gain per octave or fraction of an octave");
    app->footer(kHelpFooter);
    AddEqualiserOptions(*app, options);
    AddNumberOption(*app, "--bands", settings->bands, "Band layout: 10 (octaves, default), 20 or 30 (third octaves)")
        ->type_name("N")
        ->each([settings](const std::string&) { settings->bandsGiven = true; });
    app->add_option("--gains", settings->gains, "Band gains in dB, lowest band first, such as 0,0,3,3,0,0,0,0,-2,-4")
        ->type_name("G1,G2,...");
    AddNumberOption(*app, "--gain", settings->masterDb, "Master gain in dB, -64 to 64 (default 0)")
        ->type_name("DB")
        ->each([settings](const std::string&) { settings->masterGiven = true; });
    AddNumberOption(*app, "--accuracy", settings->accuracy, "Filter half-length in samples, 10 to 8192 (default 1000)")
        ->type_name("N")
        ->each([settings](const std::string&) { settings->accuracyGiven = true; });
    app->add_option("--preset", settings->preset, "Use the settings kept in FILE by --save-preset")->type_name("FILE");
    app->add_option("--save-preset", settings->savePreset, "Keep the settings in FILE")->type_name("FILE");
    return {app,
            [options, settings] {
                GeqTool tool(*settings);
                return RunEqualiserCommand(*options, tool);
            },
            [settings](const StageInput& in) { return MakeEqualiserStage(std::make_shared<GeqTool>(*settings), in); }};
}

}  // namespace kesta
