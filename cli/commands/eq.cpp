// kesta eq INPUT OUTPUT: the parametric equaliser. A low and a high shelf, up to five peaking
// bands, Butterworth high-pass and low-pass filters and an output gain, each option set onto the
// equaliser's parameters as given (and refused, not altered, when out of range).

#include <CLI/CLI.hpp>
#include <cmath>
#include <memory>
#include <stdexcept>
#include <vector>

#include "command.h"
#include "dsp/parametric.h"
#include "equaliser_command.h"
#include "errors.h"
#include "pipeline/command_line.h"
#include "pipeline/command_support.h"
#include "pipeline/json_writer.h"
#include "pipeline/units.h"

namespace kesta {

namespace {

using dsp::Parametric;

constexpr const char* kHelpFooter =
    R"help(Shapes the tone of a file with recursive filters, in this order on every channel:

  --highpass F[:ORDER]  Butterworth high-pass at F Hz, order 1 to 8 (default 4: 24 dB per
                        octave); removes rumble below F
  --lowpass F[:ORDER]   Butterworth low-pass at F Hz, order 1 to 8 (default 4)
  --low-shelf F:G       lifts (G > 0) or lowers (G < 0) everything below about F Hz by G dB
  --high-shelf F:G      the same above about F Hz (first-order shelves, gentle slopes)
  --band F:Q:G          a peak (G > 0) or dip (G < 0) of G dB centred on F Hz; Q sets the width
                        (Q 1 is about 1.4 octaves wide, Q 4 about a third of an octave);
                        up to five --band options
  --gain G              output gain in dB, -96 to 48 (default 0)

Frequencies go from 20 to 22050 Hz and must lie below half the sample rate; gains of shelves
and bands from -48 to 48 dB; Q from 0.0001 to 10000. A value outside its range is refused with
the range, never changed. A band or shelf of 0 dB does nothing; with no options the output
equals the input.

--response prints the gain in dB of the settings (output gain included) at the third-octave
frequencies from 20 Hz to 20 kHz and at every frequency the settings name, at INPUT's sample
rate, or at --rate when no INPUT is given; OUTPUT may then be left out, and nothing is written.
The table is printed even with --quiet; with --json it is the "response" array.

The output has the input's length, format, sample rate and channels, and is aligned with it
sample for sample. It is written to a temporary file and moved into place when complete. Boosts
can push integer formats past full scale: kesta then clips, warns, and says by how much to lower
--gain (float files keep every value).

Exit status: 0 done; 2 wrong command line; 3 input problem; 4 output problem.

Examples:
  kesta eq voice.wav voice-eq.wav --highpass 80 --band 3000:1.5:3 --high-shelf 8000:-2
  kesta eq mix.wav mix-eq.wav --low-shelf 120:2 --band 400:2:-3 --lowpass 18000:2 --gain -1
  kesta eq --response --band 1000:1:6 voice.wav
  kesta eq --response --rate 48000 --highpass 100:8 --json)help";

constexpr double kLowestHz = 20.0, kHighestHz = 22050.0;
constexpr double kLargestGainDb = 48.0;
constexpr double kLowestQ = 0.0001, kHighestQ = 10000.0;
constexpr double kLowestOutputDb = -96.0, kHighestOutputDb = 48.0;
constexpr int kDefaultOrder = 4;

struct EqSettings {
    std::string lowShelf, highShelf, highpass, lowpass;  // as typed; empty when not given
    std::vector<std::string> bands;
    double gainDb = 0.0;
};

struct Shelf {
    bool on = false;
    double hz = 0.0, db = 0.0;
    std::string text;
};
struct Band {
    double hz = 0.0, q = 0.0, db = 0.0;
    std::string text;
};
struct Cut {
    bool on = false;
    double hz = 0.0;
    int order = kDefaultOrder;
    std::string text;
};

std::string Signed(double db) {
    return (db >= 0 ? "+" : "") + FormatValue(db);
}

Shelf ParseShelf(const std::string& option, const std::string& text) {
    if (text.empty()) return {};
    const auto fields = ParseFields(option, text, ':', 2, 2, "FREQ:GAIN",
                                    "give the corner in Hz and the gain in dB, such as " + option + " 100:-3");
    CheckField(option, text, "frequency", fields[0], kLowestHz, kHighestHz, "Hz");
    CheckField(option, text, "gain", fields[1], -kLargestGainDb, kLargestGainDb, "dB");
    return {true, fields[0], fields[1], text};
}

Band ParseBand(const std::string& text) {
    const auto fields = ParseFields("--band", text, ':', 3, 3, "FREQ:Q:GAIN",
                                    "give the centre in Hz, the Q and the gain in dB, such as --band 1000:1.5:-6");
    CheckField("--band", text, "frequency", fields[0], kLowestHz, kHighestHz, "Hz");
    CheckField("--band", text, "Q", fields[1], kLowestQ, kHighestQ, "");
    CheckField("--band", text, "gain", fields[2], -kLargestGainDb, kLargestGainDb, "dB");
    return {fields[0], fields[1], fields[2], text};
}

Cut ParseCut(const std::string& option, const std::string& text) {
    if (text.empty()) return {};
    const auto fields = ParseFields(option, text, ':', 1, 2, "FREQ[:ORDER]",
                                    "give the cutoff in Hz and optionally the order 1 to 8, such as " + option +
                                        (option == "--highpass" ? " 80:4" : " 16000:4"));
    CheckField(option, text, "frequency", fields[0], kLowestHz, kHighestHz, "Hz");
    Cut cut{true, fields[0], kDefaultOrder, text};
    if (fields.size() == 2) {
        CheckField(option, text, "order", fields[1], 1, 8, "");
        if (fields[1] != std::floor(fields[1]))
            throw UsageError(option + " " + text + ": the order " + FormatValue(fields[1]) + " is not a whole number",
                             "", "give an order from 1 to 8");
        cut.order = int(fields[1]);
    }
    return cut;
}

class EqTool : public EqualiserTool {
public:
    explicit EqTool(const EqSettings& settings) : mSettings(settings) {}

    std::string Command() const override { return "eq"; }

    void CheckSettings() override {
        mLowShelf = ParseShelf("--low-shelf", mSettings.lowShelf);
        mHighShelf = ParseShelf("--high-shelf", mSettings.highShelf);
        if (int(mSettings.bands.size()) > Parametric::kBandCount)
            throw UsageError(std::to_string(mSettings.bands.size()) + " --band options given", "",
                             "the equaliser has five bands; give at most five");
        mBands.clear();
        for (const std::string& text : mSettings.bands)
            mBands.push_back(ParseBand(text));
        mHighPass = ParseCut("--highpass", mSettings.highpass);
        mLowPass = ParseCut("--lowpass", mSettings.lowpass);
        CheckSetting("--gain", mSettings.gainDb, kLowestOutputDb, kHighestOutputDb, "dB");
        Configure(mEq, 0, Parametric::kBandCount, true);
    }

    void CheckRate(int sampleRate, const std::string& source) const override {
        const double nyquist = sampleRate / 2.0;
        const auto check = [&](const std::string& option, const std::string& text, double hz) {
            if (hz < nyquist) return;
            throw UsageError(option + " " + text + ": the frequency " + FormatValue(hz) +
                                 " Hz is not below half the sample rate " + source,
                             "", "give a frequency below " + FormatValue(nyquist) + " Hz");
        };
        if (mLowShelf.on) check("--low-shelf", mLowShelf.text, mLowShelf.hz);
        if (mHighShelf.on) check("--high-shelf", mHighShelf.text, mHighShelf.hz);
        for (const Band& band : mBands)
            check("--band", band.text, band.hz);
        if (mHighPass.on) check("--highpass", mHighPass.text, mHighPass.hz);
        if (mLowPass.on) check("--lowpass", mLowPass.text, mLowPass.hz);
    }

    void Prepare(int channels, int sampleRate) override {
        mEq.SetChannels(channels);
        mEq.SetSampleRate(sampleRate);
        mEq.Resume();  // every section on its settings from the first sample, no glide
        // Two parts of about the same work: the cut filters, the shelves and the first bands, then
        // the other bands and the output gain. Each section hands on a float in either case, and a
        // section that is off passes its input on untouched, so the parts give the whole's bits.
        const auto sections = [](const Cut& cut) { return cut.on ? (cut.order + 1) / 2 : 0; };
        const int total =
            sections(mHighPass) + sections(mLowPass) + int(mLowShelf.on) + int(mHighShelf.on) + int(mBands.size());
        int head = total - int(mBands.size()), split = 0;
        while (split < int(mBands.size()) && 2 * head < total) {
            ++head;
            ++split;
        }
        mParts.clear();
        if (split == int(mBands.size())) return;
        for (const bool head : {true, false}) {
            auto part = std::make_unique<Parametric>();
            Configure(*part, head ? 0 : split, head ? split : Parametric::kBandCount, head);
            part->SetChannels(channels);
            part->SetSampleRate(sampleRate);
            part->Resume();
            mParts.push_back(std::move(part));
        }
    }

    int Parts() override { return mParts.empty() ? 1 : int(mParts.size()); }

    void ProcessPart(int part, float** channels, int channelCount, int frames) override {
        if (mParts.empty()) return Process(channels, channelCount, frames);
        mParts[std::size_t(part)]->Process(channels, channels, channelCount, frames);
    }

    int64_t Latency() override { return mEq.GetLatency(); }

    void Process(float** channels, int channelCount, int frames) override {
        mEq.Process(channels, channels, channelCount, frames);
    }

    double ResponseDb(double hz) override {
        return LinearToDb(std::fabs(double(mEq.ComputeFilterResponse(float(hz))))) +
               double(mEq.GetParameter(Parametric::kOutputGain));
    }

    std::vector<ResponseMark> Marks() const override {
        std::vector<ResponseMark> marks;
        if (mHighPass.on) marks.push_back({mHighPass.hz, "high-pass"});
        if (mLowShelf.on) marks.push_back({mLowShelf.hz, "low shelf"});
        for (std::size_t k = 0; k < mBands.size(); ++k)
            marks.push_back({mBands[k].hz, "band " + std::to_string(k + 1)});
        if (mHighShelf.on) marks.push_back({mHighShelf.hz, "high shelf"});
        if (mLowPass.on) marks.push_back({mLowPass.hz, "low-pass"});
        return marks;
    }

    void WriteSettings(JsonWriter& json) const override {
        const auto shelf = [&](const char* key, const Shelf& s) {
            json.Key(key);
            if (!s.on) {
                json.Null();
                return;
            }
            json.BeginObject().Key("frequency_hz").Number(s.hz).Key("gain_db").Number(s.db).EndObject();
        };
        const auto cut = [&](const char* key, const Cut& c) {
            json.Key(key);
            if (!c.on) {
                json.Null();
                return;
            }
            json.BeginObject().Key("frequency_hz").Number(c.hz).Key("order").Int(c.order).EndObject();
        };
        cut("highpass", mHighPass);
        cut("lowpass", mLowPass);
        shelf("low_shelf", mLowShelf);
        shelf("high_shelf", mHighShelf);
        json.Key("bands").BeginArray();
        for (const Band& band : mBands)
            json.BeginObject()
                .Key("frequency_hz")
                .Number(band.hz)
                .Key("q")
                .Number(band.q)
                .Key("gain_db")
                .Number(band.db)
                .EndObject();
        json.EndArray();
        json.Key("gain_db").Number(mSettings.gainDb);
    }

    std::string DescribeSettings() const override {
        std::vector<std::string> parts;
        if (mHighPass.on)
            parts.push_back("high-pass " + FormatValue(mHighPass.hz) + " Hz order " + std::to_string(mHighPass.order));
        if (mLowPass.on)
            parts.push_back("low-pass " + FormatValue(mLowPass.hz) + " Hz order " + std::to_string(mLowPass.order));
        if (mLowShelf.on)
            parts.push_back("low shelf " + FormatValue(mLowShelf.hz) + " Hz " + Signed(mLowShelf.db) + " dB");
        if (mHighShelf.on)
            parts.push_back("high shelf " + FormatValue(mHighShelf.hz) + " Hz " + Signed(mHighShelf.db) + " dB");
        for (const Band& band : mBands)
            parts.push_back("band " + FormatValue(band.hz) + " Hz Q " + FormatValue(band.q) + " " + Signed(band.db) +
                            " dB");
        if (mSettings.gainDb != 0.0) parts.push_back("gain " + Signed(mSettings.gainDb) + " dB");
        if (parts.empty()) return "flat (no filter, 0 dB)";
        std::string text = parts[0];
        for (std::size_t i = 1; i < parts.size(); ++i)
            text += ", " + parts[i];
        return text;
    }

private:
    // Sets a parameter and checks that the equaliser took the value as given (the options are
    // checked against the same ranges, so anything else is a fault of kesta's own).
    static void Set(Parametric& eq, int index, double value) {
        eq.SetParameter(index, float(value));
        if (eq.GetParameter(index) != float(value))
            throw std::logic_error("the equaliser did not take parameter " + std::to_string(index) + " = " +
                                   FormatValue(value));
    }

    // `eq` on the settings, with only bands [fromBand, toBand) on; the head holds the cut filters and
    // the shelves, the rest the output gain.
    void Configure(Parametric& eq, int fromBand, int toBand, bool head) const {
        const auto Set = [&eq](int index, double value) { EqTool::Set(eq, index, value); };
        Set(Parametric::kConstantQ, 1);
        Set(Parametric::kStateVariable, 0);
        Set(Parametric::kBypass, 0);
        // Shelves: first order, off unless given.
        Set(Parametric::kLowShelfSecondOrder, 0);
        Set(Parametric::kHighShelfSecondOrder, 0);
        if (mLowShelf.on) {
            Set(Parametric::kLowShelfFrequency, mLowShelf.hz);
            Set(Parametric::kLowShelfGain, mLowShelf.db);
        }
        Set(Parametric::kLowShelfOn, head && mLowShelf.on ? 1 : 0);
        if (mHighShelf.on) {
            Set(Parametric::kHighShelfFrequency, mHighShelf.hz);
            Set(Parametric::kHighShelfGain, mHighShelf.db);
        }
        Set(Parametric::kHighShelfOn, head && mHighShelf.on ? 1 : 0);
        // Bands: frequency first, then Q (which sets the bandwidth), gain, on.
        for (int k = 0; k < Parametric::kBandCount; ++k) {
            const int base = Parametric::kFirstBand + 4 * k;
            if (std::size_t(k) < mBands.size() && k >= fromBand && k < toBand) {
                Set(base + Parametric::kBandFrequency, mBands[std::size_t(k)].hz);
                Set(base + Parametric::kBandQ, mBands[std::size_t(k)].q);
                Set(base + Parametric::kBandGain, mBands[std::size_t(k)].db);
                Set(base + Parametric::kBandOn, 1);
            } else {
                Set(base + Parametric::kBandGain, 0);
                Set(base + Parametric::kBandOn, 0);
            }
        }
        if (mHighPass.on) {
            Set(Parametric::kHighPassCutoff, mHighPass.hz);
            Set(Parametric::kHighPassOrder, mHighPass.order);
        }
        Set(Parametric::kHighPassOn, head && mHighPass.on ? 1 : 0);
        if (mLowPass.on) {
            Set(Parametric::kLowPassCutoff, mLowPass.hz);
            Set(Parametric::kLowPassOrder, mLowPass.order);
        }
        Set(Parametric::kLowPassOn, head && mLowPass.on ? 1 : 0);
        Set(Parametric::kOutputGain, head && toBand < Parametric::kBandCount ? 0.0 : mSettings.gainDb);
    }

    const EqSettings& mSettings;
    Shelf mLowShelf, mHighShelf;
    std::vector<Band> mBands;
    Cut mHighPass, mLowPass;
    Parametric mEq;
    std::vector<std::unique_ptr<Parametric>> mParts;  // the sections cut in two, when worth it
};

}  // namespace

Command AddEqCommand(CLI::App& kesta) {
    auto options = std::make_shared<EqualiserOptions>();
    auto settings = std::make_shared<EqSettings>();
    CLI::App* app = kesta.add_subcommand("eq", "Parametric equaliser: shelves, bands, high- and low-pass");
    app->footer(kHelpFooter);
    AddEqualiserOptions(*app, options);
    app->add_option("--low-shelf", settings->lowShelf, "Low shelf: corner in Hz and gain in dB, such as 100:-3")
        ->type_name("F:G");
    app->add_option("--high-shelf", settings->highShelf, "High shelf: corner in Hz and gain in dB, such as 8000:2")
        ->type_name("F:G");
    app->add_option("--band", settings->bands,
                    "Peaking band: centre in Hz, Q and gain in dB, such as 1000:1.5:-6 (up to five)")
        ->type_name("F:Q:G")
        ->allow_extra_args(false);  // one value per --band: INPUT may follow
    app->add_option("--highpass", settings->highpass, "Butterworth high-pass: cutoff in Hz, order 1-8 (default 4)")
        ->type_name("F[:ORDER]");
    app->add_option("--lowpass", settings->lowpass, "Butterworth low-pass: cutoff in Hz, order 1-8 (default 4)")
        ->type_name("F[:ORDER]");
    AddNumberOption(*app, "--gain", settings->gainDb, "Output gain in dB, -96 to 48 (default 0)")->type_name("DB");
    return {app,
            [options, settings] {
                EqTool tool(*settings);
                return RunEqualiserCommand(*options, tool);
            },
            [settings](const StageInput& in) { return MakeEqualiserStage(std::make_shared<EqTool>(*settings), in); }};
}

}  // namespace kesta
