// Properties every streaming class of the library keeps, checked by one driver over a table with
// one row per class: any partition of the input into blocks gives the bits of one block; two
// fresh objects agree, and a copy (constructed or assigned) made mid-stream continues exactly as
// the original; the output stays finite (and under a promised ceiling) for hostile input at the
// ends and middle of every setting's range and at low, common, high and odd sample rates; and a
// processing call allocates nothing.

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "dsp/adaptive_noise.h"
#include "dsp/desk_filter.h"
#include "dsp/dnz.h"
#include "dsp/fft_convolver.h"
#include "dsp/graphic.h"
#include "dsp/hard_limit.h"
#include "dsp/noclick.h"
#include "dsp/noclip.h"
#include "dsp/nohiss.h"
#include "dsp/nonoise.h"
#include "dsp/parametric.h"
#include "dsp/resample.h"
#include "dsp/second_order_iir_filter.h"
#include "dsp/silence.h"
#include "dsp/stereo_expander.h"
#include "dsp/tonal_line_canceller.h"
#include "dsp/white_noise.h"
#include "property_inputs.h"
#include "restoration/restoration_setup.h"
#include "support/allocation_counter.h"
#include "support/click_support.h"
#include "support/signals.h"

namespace {

using kesta::test::AllocationCounter;
using kesta::test::Channels;
using kesta::test::Random;
using kesta::test::Signal;

using namespace kesta::test::properties;

// A streaming object behind one interface: frames in, whatever it produces out.
class Stream {
public:
    virtual ~Stream() = default;
    // A copy made by the class's copy constructor.
    virtual std::unique_ptr<Stream> Copy() const = 0;
    // This object made a copy of `other` (same class) by the class's copy assignment.
    virtual void Assign(const Stream& other) = 0;
    // Feeds `frames` frames of every channel; returns the frames written to out.
    virtual int Feed(float** in, float** out, int frames) = 0;
    // Room the output of a `frames`-frame call needs.
    virtual int Capacity(int frames) const = 0;
    // Silence to feed after the input so that everything it causes comes out.
    virtual int Tail() const = 0;
};

template <class T>
struct Ops {
    int (*feed)(T&, float** in, float** out, int frames);
    int (*tail)(const T&);
    int (*capacity)(const T&, int frames) = nullptr;
};

template <class T>
class Held final : public Stream {
public:
    template <class... Args>
    explicit Held(Ops<T> ops, Args&&... args) : mOps(ops), mObject(std::forward<Args>(args)...) {}
    T& object() { return mObject; }
    std::shared_ptr<void> keep;  // whatever the object points into

    std::unique_ptr<Stream> Copy() const override { return std::make_unique<Held>(*this); }
    void Assign(const Stream& other) override { mObject = dynamic_cast<const Held&>(other).mObject; }
    int Feed(float** in, float** out, int frames) override { return mOps.feed(mObject, in, out, frames); }
    int Capacity(int frames) const override { return mOps.capacity ? mOps.capacity(mObject, frames) : frames; }
    int Tail() const override { return mOps.tail(mObject); }

private:
    Ops<T> mOps;
    T mObject;
};

struct Row {
    std::string name;
    bool takesRate;
    std::vector<Knob> knobs;
    // A ready object at `rate` (0 when the class takes none) with knob `knob` (-1: none) at `value`.
    std::function<std::unique_ptr<Stream>(int rate, int knob, float value)> make;
    // The largest output magnitude the object promises with that setting (infinity: none).
    std::function<float(int knob, float value)> ceiling = [](int, float) {
        return std::numeric_limits<float>::infinity();
    };
};

// ---- Streaming ---------------------------------------------------------------------------------

// x followed by `tail` frames of silence, through `stream` in blocks of `sizes` (cycled), the
// output gathered. With `allocations`, the allocations made by the processing calls are counted.
Channels Drive(Stream& stream, const Channels& x, const Sizes& sizes, long long* allocations = nullptr) {
    const int frames = static_cast<int>(x[0].size());
    Sizes blocks;
    std::size_t room = 0;
    for (int pos = 0, i = 0; pos < frames; ++i) {
        blocks.push_back(std::min(sizes[i % sizes.size()], frames - pos));
        room += static_cast<std::size_t>(stream.Capacity(blocks.back()));
        pos += blocks.back();
    }
    Channels y(x.size(), Signal(room));
    Channels in = x;
    std::vector<float*> inPointers(x.size()), outPointers(x.size());
    std::size_t written = 0;
    int pos = 0;
    {
        AllocationCounter counter;
        for (int n : blocks) {
            for (std::size_t c = 0; c < x.size(); ++c) {
                inPointers[c] = in[c].data() + pos;
                outPointers[c] = y[c].data() + written;
            }
            written += static_cast<std::size_t>(stream.Feed(inPointers.data(), outPointers.data(), n));
            pos += n;
        }
        if (allocations) *allocations = counter.Count();
    }
    for (Signal& s : y)
        s.resize(written);
    return y;
}

Channels WithTail(Channels x, int frames) {
    for (Signal& s : x)
        s.resize(s.size() + static_cast<std::size_t>(frames), 0.0f);
    return x;
}

// ---- The table ---------------------------------------------------------------------------------

// Pointers to every channel of a vector of per-channel objects run one by one.
template <class Obj, class F>
int EachChannel(std::vector<Obj>& objects, float** in, float** out, int frames, F run) {
    int written = 0;
    for (std::size_t c = 0; c < objects.size(); ++c)
        written = run(objects[c], in[c], out[c], frames);
    return written;
}

// Knobs of an indexed-parameter class, with the ranges the class reports.
template <class T>
std::vector<Knob> IndexedKnobs(const std::vector<std::pair<int, std::string>>& indices) {
    T object;
    std::vector<Knob> knobs;
    for (auto [index, name] : indices) {
        Knob k{name, 0.0f, 0.0f};
        object.GetBounds(index, k.minimum, k.maximum);
        knobs.push_back(k);
    }
    return knobs;
}

template <class T>
Ops<T> ProcessOps() {
    return {[](T& p, float** in, float** out, int n) {
                // Some classes take the channel count from their set-up, others at every call.
                if constexpr (requires { p.Process(in, out, n); })
                    p.Process(in, out, n);
                else
                    p.Process(in, out, kChannels, n);
                return n;
            },
            [](const T& p) {
                if constexpr (requires { p.GetLatency(); })
                    return p.GetLatency();
                else
                    return 0;
            }};
}

Row HardLimitRow() {
    using dsp::HardLimit;
    const std::vector<std::pair<int, std::string>> indices = {{HardLimit::kCeiling, "ceiling"},
                                                              {HardLimit::kInputGain, "input gain"},
                                                              {HardLimit::kLookAhead, "look-ahead"},
                                                              {HardLimit::kRelease, "release"},
                                                              {HardLimit::kLink, "link"}};
    Row row{"HardLimit", true, IndexedKnobs<HardLimit>(indices), nullptr};
    row.make = [indices](int rate, int knob, float value) {
        auto s = std::make_unique<Held<HardLimit>>(ProcessOps<HardLimit>());
        HardLimit& p = s->object();
        p.SetChannels(kChannels);
        p.SetSampleRate(rate);
        p.SetParameter(HardLimit::kInputGain, 12.0f);
        if (knob >= 0) p.SetParameter(indices[static_cast<std::size_t>(knob)].first, value);
        p.Resume();
        return s;
    };
    row.ceiling = [](int knob, float value) {
        const float ceilingDb = knob == 0 ? value : -0.1f;
        return static_cast<float>(std::pow(10.0, ceilingDb / 20.0));
    };
    return row;
}

Row StereoExpanderRow() {
    using dsp::StereoExpanderDSP;
    const std::vector<std::pair<int, std::string>> indices = {{StereoExpanderDSP::kCenter, "centre"},
                                                              {StereoExpanderDSP::kWidth, "width"}};
    Row row{"StereoExpanderDSP", true, IndexedKnobs<StereoExpanderDSP>(indices), nullptr};
    row.make = [indices](int rate, int knob, float value) {
        auto s = std::make_unique<Held<StereoExpanderDSP>>(ProcessOps<StereoExpanderDSP>());
        StereoExpanderDSP& p = s->object();
        p.SetChannels(kChannels);
        p.SetSampleRate(rate);
        p.SetParameter(StereoExpanderDSP::kWidth, 170.0f);
        p.SetParameter(StereoExpanderDSP::kCenter, 30.0f);
        if (knob >= 0) p.SetParameter(indices[static_cast<std::size_t>(knob)].first, value);
        p.Resume();
        return s;
    };
    return row;
}

Row ParametricRow() {
    using dsp::Parametric;
    std::vector<std::pair<int, std::string>> indices;
    for (int i = 0; i < Parametric::kParameterCount; ++i)
        indices.emplace_back(i, "parameter " + std::to_string(i));
    Row row{"Parametric", true, IndexedKnobs<Parametric>(indices), nullptr};
    row.make = [](int rate, int knob, float value) {
        auto s = std::make_unique<Held<Parametric>>(ProcessOps<Parametric>());
        Parametric& p = s->object();
        p.SetChannels(kChannels);
        // Everything sounding, so that a setting at its end meets a working chain.
        const std::pair<int, float> settings[] = {
            {Parametric::kLowShelfGain, 9.0f},  {Parametric::kHighShelfGain, -6.0f},
            {Parametric::kHighPassOn, 1.0f},    {Parametric::kLowPassOn, 1.0f},
            {Parametric::kLowPassCutoff, 3e3f}, {Parametric::kLowShelfSecondOrder, 1.0f},
        };
        for (auto [index, v] : settings)
            p.SetParameter(index, v);
        for (int band = 0; band < Parametric::kBandCount; ++band) {
            p.SetParameter(Parametric::BandParameter(band, Parametric::kBandGain), band % 2 ? -12.0f : 12.0f);
            p.SetParameter(Parametric::BandParameter(band, Parametric::kBandOn), 1.0f);
        }
        if (knob >= 0) p.SetParameter(knob, value);
        // The frequency ranges are those of 44.1 kHz; a host moves them to another rate first.
        p.SetParameter(Parametric::kRangeSampleRate, static_cast<float>(rate));
        p.SetSampleRate(rate);
        p.Resume();
        return s;
    };
    return row;
}

Row GraphicRow() {
    using dsp::Graphic;
    const std::vector<std::pair<int, std::string>> indices = {
        {Graphic::kAccuracy, "accuracy"},      {Graphic::kMasterGain, "master"},
        {Graphic::kGainRange, "range"},        {Graphic::kResetBands, "reset"},
        {Graphic::kFirstBand, "first band"},   {Graphic::kFirstBand + 15, "band 15"},
        {Graphic::kFirstBand + 29, "band 29"}, {Graphic::kBandLayout, "layout"}};
    Row row{"Graphic", true, IndexedKnobs<Graphic>(indices), nullptr};
    row.make = [indices](int rate, int knob, float value) {
        auto s = std::make_unique<Held<Graphic>>(ProcessOps<Graphic>());
        Graphic& p = s->object();
        p.SetChannels(kChannels);
        p.SetSampleRate(rate);
        p.SetParameter(Graphic::kBandLayout, 2.0f);
        for (int band = 0; band < Graphic::kMaxBands; ++band)
            p.SetParameter(Graphic::kFirstBand + band, static_cast<float>((band * 7) % 25 - 12));
        if (knob >= 0) p.SetParameter(indices[static_cast<std::size_t>(knob)].first, value);
        p.UpdateImpulses();
        return s;
    };
    return row;
}

Row DeskFilterRow() {
    using dsp::fDeskFilter;
    Row row{"fDeskFilter",
            true,
            {{"kind", 0.0f, 3.0f},
             {"double precision", 0.0f, 1.0f},
             {"frequency", 20.0f, 0.49f},  // fraction of the rate at the maximum
             {"gain", -48.0f, 48.0f},
             {"q", 0.05f, 100.0f},
             {"state variable", 0.0f, 1.0f}},
            nullptr};
    row.make = [](int rate, int knob, float value) {
        using Filters = std::vector<fDeskFilter>;
        auto s = std::make_unique<Held<Filters>>(
            Ops<Filters>{[](Filters& f, float** in, float** out, int n) {
                             return EachChannel(f, in, out, n, [](fDeskFilter& one, float* x, float* y, int count) {
                                 std::copy_n(x, count, y);
                                 one.processInplace(y, count);
                                 return count;
                             });
                         },
                         [](const Filters&) { return 0; }},
            kChannels);
        float setting[6] = {3.0f, 0.0f, 1000.0f, 9.0f, 2.0f, 0.0f};
        if (knob >= 0) setting[knob] = knob == 2 && value < 1.0f ? value * static_cast<float>(rate) : value;
        for (fDeskFilter& f : s->object()) {
            f.ShiftGears(static_cast<dsp::eFilterKindType>(std::lround(setting[0])), setting[1] >= 0.5f, false);
            f.setStateVariable(setting[5] >= 0.5f);
            f.Setup(static_cast<float>(rate), setting[2], setting[3], setting[4], 0.0f, 0.0f);
        }
        return s;
    };
    return row;
}

Row SecondOrderIIRRow() {
    using dsp::SecondOrderIIRFilter;
    Row row{"SecondOrderIIRFilter", false, {{"pole radius", 0.0f, 0.9999f}, {"pole angle", 0.0f, 3.14159f}}, nullptr};
    row.make = [](int, int knob, float value) {
        using Filters = std::vector<SecondOrderIIRFilter>;
        auto s = std::make_unique<Held<Filters>>(
            Ops<Filters>{[](Filters& f, float** in, float** out, int n) {
                             return EachChannel(f, in, out, n,
                                                [](SecondOrderIIRFilter& one, float* x, float* y, int count) {
                                                    one.Process(x, y, static_cast<std::size_t>(count));
                                                    return count;
                                                });
                         },
                         [](const Filters&) { return 0; }},
            kChannels);
        double radius = 0.995, angle = 0.05;
        if (knob == 0) radius = value;
        if (knob == 1) angle = value;
        dsp::SecondOrderIIRCoefficients k;
        k.a1 = -2.0 * radius * std::cos(angle);
        k.a2 = radius * radius;
        k.b0 = 1.0 - radius;
        k.b2 = -(1.0 - radius);
        for (SecondOrderIIRFilter& f : s->object())
            f.SetCoefficients(k);
        return s;
    };
    return row;
}

Row ConvolverRow() {
    using dsp::FFTConvolver;
    Row row{"FFTConvolver", false, {{"taps", 1.0f, 4096.0f}}, nullptr};
    row.make = [](int, int knob, float value) {
        const int taps = knob == 0 ? static_cast<int>(value) : 300;
        auto s = std::make_unique<Held<FFTConvolver>>(ProcessOps<FFTConvolver>());
        int fftSize = 1;
        while (fftSize < 2 * taps)
            fftSize *= 2;
        s->object().Init(kChannels, taps, fftSize);
        const Signal noise = kesta::test::WhiteNoise(static_cast<std::size_t>(taps), 11, 1.0);
        std::vector<double> response(noise.begin(), noise.end());
        for (int i = 0; i < taps; ++i)
            response[static_cast<std::size_t>(i)] *= std::exp(-8.0 * i / taps);
        s->object().SetResponse(response.data(), 0.5);
        return s;
    };
    return row;
}

// Resamplers run from `rate` to 44.1 kHz (from 44.1 kHz to 48 kHz).
int Destination(int rate) {
    return rate == 44100 ? 48000 : 44100;
}

Row ResampleRow() {
    using dsp::Resample;
    Row row{"Resample",
            true,
            {{"order", 3.0f, 511.0f}, {"noise floor", 20.0f, 200.0f}, {"Nyquist shift", 0.0f, 1.0f}},
            nullptr};
    row.make = [](int rate, int knob, float value) {
        using Converters = std::vector<Resample>;
        auto s = std::make_unique<Held<Converters>>(
            Ops<Converters>{[](Converters& r, float** in, float** out, int n) {
                                return EachChannel(r, in, out, n, [](Resample& one, float* x, float* y, int count) {
                                    return one.Process(x, y, count);
                                });
                            },
                            [](const Converters& r) { return r[0].GetLatency() + 2 * r[0].GetFilterOrder(); },
                            [](const Converters& r, int n) { return r[0].GetOutputBufferSize(n); }},
            kChannels);
        for (Resample& r : s->object()) {
            r.SetSampleRates(rate, Destination(rate));
            if (knob == 0) r.SetFilterOrder(static_cast<int>(value));
            if (knob == 1) r.SetNoiseFloor(value);
            if (knob == 2) r.SetNyquistShift(value);
            r.Initialize();
        }
        return s;
    };
    return row;
}

Row LinearResampleRow() {
    using dsp::LinearResample;
    Row row{"LinearResample", true, {{"eat latency", 0.0f, 1.0f}}, nullptr};
    row.make = [](int rate, int knob, float value) {
        using Converters = std::vector<LinearResample>;
        auto s = std::make_unique<Held<Converters>>(
            Ops<Converters>{[](Converters& r, float** in, float** out, int n) {
                                return EachChannel(r, in, out, n,
                                                   [](LinearResample& one, float* x, float* y, int count) {
                                                       return one.Process(x, y, count);
                                                   });
                            },
                            [](const Converters&) { return 2; },
                            [](const Converters& r, int n) { return static_cast<int>(n * r[0].GetRatio()) + 2; }},
            kChannels, LinearResample(rate, Destination(rate)));
        for (LinearResample& r : s->object())
            r.SetEatLatency(knob == 0 && value >= 0.5f);
        return s;
    };
    return row;
}

Row WhiteNoiseRow() {
    Row row{"WhiteNoise", false, {{"seed", 0.0f, 4e9f}}, nullptr};
    row.make = [](int, int knob, float value) {
        auto s = std::make_unique<Held<dsp::WhiteNoise>>(
            Ops<dsp::WhiteNoise>{[](dsp::WhiteNoise& w, float**, float** out, int n) {
                                     for (int i = 0; i < n; ++i)
                                         for (int c = 0; c < kChannels; ++c)
                                             out[c][i] = static_cast<float>(c ? w.fRandom() : w.fGaussian(1.0));
                                     return n;
                                 },
                                 [](const dsp::WhiteNoise&) { return 0; }},
            knob == 0 ? static_cast<unsigned>(value) : 12345u);
        return s;
    };
    return row;
}

// Noise captured from seeded noise for the two spectral reducers.
constexpr int kPrintSize = 1024;

Row NoNoiseRow() {
    using dsp::nonoise::NONOISE;
    using dsp::nonoise::NoNoiseProcess;
    Row row{"NoNoiseProcess",
            false,
            {{"reduction", 0.0f, 100.0f},
             {"smoothing", 0.0f, 100.0f},
             {"transition", 0.0f, 40.0f},
             {"precision exponent", 0.0f, 4.0f},
             {"threshold offset", 0.0f, 10.0f},
             {"output mode", 1.0f, 2.0f}},
            nullptr};
    row.make = [](int, int knob, float value) {
        static const std::shared_ptr<kesta::test::Owned<NONOISE>> print = [] {
            auto owned = std::make_shared<kesta::test::Owned<NONOISE>>(kChannels, kPrintSize);
            dsp::nonoise::CaptureNoisePrint capture(&owned->r);
            kesta::test::RunCapture(capture, kesta::test::NoiseChannels(kChannels, 20000, 5, 0.05), 0, 20000);
            dsp::nonoise::CopyNoNoise(capture.GetParam(), &owned->r, false);
            return owned;
        }();
        auto s = std::make_unique<Held<NoNoiseProcess>>(ProcessOps<NoNoiseProcess>(), &print->r);
        NONOISE* p = s->object().GetParam();
        p->transitionDb = 6.0;
        double* fields[] = {&p->reductionDb, &p->smoothingPercent, &p->transitionDb, &p->precisionExponent,
                            &p->thresholdOffset};
        if (knob >= 0 && knob < 5) *fields[knob] = value;
        if (knob == 5) p->outputMode = static_cast<int16_t>(std::lround(value));
        s->object().ParameterChanged();
        s->object().Resume();
        return s;
    };
    return row;
}

Row NoHissRow() {
    using dsp::nohiss::NOHISS;
    using dsp::nohiss::NoHissProcess;
    Row row{
        "NoHissProcess",
        true,
        {{"reduction", 0.0f, 100.0f}, {"smoothing", 0.0f, 100.0f}, {"knee", 0.0f, 40.0f}, {"output mode", 1.0f, 2.0f}},
        nullptr};
    row.make = [](int rate, int knob, float value) {
        auto record = std::make_shared<kesta::test::Owned<NOHISS>>(kChannels, kPrintSize);
        record->r.sampleRate = rate;
        {
            dsp::nohiss::CaptureNoiseFloor capture(&record->r);
            kesta::test::RunCapture(capture, kesta::test::NoiseChannels(kChannels, 20000, 5, 0.05), 0, 20000);
            dsp::nohiss::CopyParameter(capture.GetParam(), &record->r);
        }
        dsp::nohiss::ComputeThresholdsFromFloor(&record->r);
        float* fields[] = {&record->r.reductionDb, &record->r.smoothingPercent, &record->r.kneeDb};
        if (knob >= 0 && knob < 3) *fields[knob] = value;
        if (knob == 3) record->r.outputMode = static_cast<int32_t>(std::lround(value));
        auto s = std::make_unique<Held<NoHissProcess>>(ProcessOps<NoHissProcess>(), &record->r);
        s->keep = record;
        s->object().Resume();
        return s;
    };
    return row;
}

Row DNZProcessRow() {
    using dsp::dnz::DNZ;
    using dsp::dnz::DNZProcess;
    Row row{"DNZProcess",
            false,
            {{"reduction", 0.0f, 120.0f}, {"smoothing", 0.0f, 99.0f}, {"output mode", 1.0f, 2.0f}},
            nullptr};
    row.make = [](int, int knob, float value) {
        static const std::shared_ptr<kesta::test::Owned<DNZ>> print = [] {
            auto owned = std::make_shared<kesta::test::Owned<DNZ>>(kChannels, kPrintSize);
            dsp::dnz::DNZNoisePrint capture(&owned->r);
            kesta::test::RunCapture(capture, kesta::test::NoiseChannels(kChannels, 20000, 5, 0.05), 0, 20000);
            dsp::dnz::CopyDNZ(capture.GetParam(), &owned->r, false);
            return owned;
        }();
        auto s = std::make_unique<Held<DNZProcess>>(ProcessOps<DNZProcess>(), &print->r);
        DNZ* p = s->object().GetParam();
        if (knob == 0) p->reductionDb = value;
        if (knob == 1) p->smoothingPercent = value;
        if (knob == 2) p->outputMode = static_cast<int16_t>(std::lround(value));
        s->object().ParameterChanged();
        s->object().Resume();
        return s;
    };
    return row;
}

Row AdaptiveNoiseRow() {
    using dsp::AdaptiveNoise;
    Row row{"AdaptiveNoise", true, {{"reduction", 0.0f, 120.0f}, {"residual", 0.0f, 1.0f}}, nullptr};
    row.make = [](int rate, int knob, float value) {
        auto s = std::make_unique<Held<AdaptiveNoise>>(ProcessOps<AdaptiveNoise>(), kChannels, rate);
        if (knob == 0) s->object().SetReductionDb(value);
        s->object().SetResidualOutput(knob == 1 && value >= 0.5f);
        s->object().ParameterChanged();
        s->object().Resume();
        return s;
    };
    return row;
}

Row TonalLineCancellerRow() {
    using dsp::TonalLineCanceller;
    Row row{"TonalLineCanceller", true, {}, nullptr};
    row.make = [](int rate, int, float) {
        return std::make_unique<Held<TonalLineCanceller>>(ProcessOps<TonalLineCanceller>(), kChannels, rate);
    };
    return row;
}

// Ranges over the programme's clicks and over the hostile signal's square wave and impulse.
std::vector<dsp::utils::Range> RepairRanges(int channel) {
    return {{1500 + 400 * channel, 3, 0}, {3070, 40, 0}, {3200, 2, 0}, {6500 + 400 * channel, 5, 0}, {11500, 90, 0}};
}

Row ReplaceClicksRow() {
    using dsp::noclick::ReplaceClicks;
    Row row{"ReplaceClicks", true, {{"complexity", 0.0f, 100.0f}}, nullptr};
    row.make = [](int rate, int knob, float value) {
        dsp::noclick::NOCLICK record = kesta::test::ClickRecord(kChannels, rate);
        if (knob == 0) record.complexity = static_cast<int32_t>(value);
        for (int c = 0; c < kChannels; ++c)
            record.repairClicks[static_cast<std::size_t>(c)] = RepairRanges(c);
        auto s = std::make_unique<Held<ReplaceClicks>>(ProcessOps<ReplaceClicks>(), &record);
        s->object().SetSelection(0, 1 << 24);
        s->object().Start();
        return s;
    };
    return row;
}

Row RepairClippingRow() {
    using dsp::noclip::NOCLIPPING;
    using dsp::noclip::RepairClipping;
    Row row{"RepairClipping",
            true,
            {{"gain", -100.0f, 24.0f},
             {"spectral", 0.0f, 1.0f},
             {"fft size", 8.0f, 256.0f},
             {"limiter", 0.0f, 1.0f},
             {"fill-in margin", 0.0f, 64.0f}},
            nullptr};
    row.make = [](int rate, int knob, float value) {
        NOCLIPPING record;
        dsp::noclip::SetDefaultParameter(&record);
        record.channels = kChannels;
        record.sampleRate = static_cast<float>(rate);
        record.useFFT = true;
        dsp::noclip::AllocateArrays(&record);
        if (knob == 0) record.gainDb = value;
        if (knob == 1) record.useFFT = value >= 0.5f;
        if (knob == 2) record.fftSize = 1 << static_cast<int>(std::lround(std::log2(value)));
        if (knob == 3) record.useLimiter = value >= 0.5f;
        if (knob == 4) record.fillInMargin = static_cast<int32_t>(value);
        for (int c = 0; c < kChannels; ++c)
            record.repairClips[static_cast<std::size_t>(c)] = RepairRanges(c);
        auto s = std::make_unique<Held<RepairClipping>>(ProcessOps<RepairClipping>(), &record);
        s->object().SetSelection(0, 1 << 24);
        s->object().Start();
        return s;
    };
    return row;
}

// The analyzer's output, frame for frame with its input: the length of each range it closes at the
// frame that closes it (the first louder one), 0 elsewhere.
Row FindSilenceRow() {
    using dsp::nosilence::FindSilence;
    Row row{"FindSilence",
            true,
            {{"threshold", -100.0f, 0.0f},
             {"hysteresis", 0.0f, 20.0f},
             {"minimum", 0.0f, 0.5f},
             {"hold", 0.0f, 0.1f},
             {"linked", 0.0f, 1.0f}},
            nullptr};
    row.make = [](int rate, int knob, float value) {
        dsp::nosilence::NOSILENCE settings;
        // Loud enough that the programme's zero crossings and the hostile signal's silence count.
        settings.thresholdDb = -12.0;
        settings.minimumSeconds = 0.0005;
        settings.holdSeconds = 0.0002;
        settings.linked = false;
        double* fields[] = {&settings.thresholdDb, &settings.hysteresisDb, &settings.minimumSeconds,
                            &settings.holdSeconds};
        if (knob >= 0 && knob < 4) *fields[knob] = value;
        if (knob == 4) settings.linked = value >= 0.5f;
        struct Finder {
            FindSilence find;
            long long position = 0;
            std::size_t reported[kChannels] = {};
        };
        auto s = std::make_unique<Held<Finder>>(
            Ops<Finder>{[](Finder& f, float** in, float** out, int n) {
                            f.find.Analyze(in, kChannels, n);
                            for (int c = 0; c < kChannels; ++c) {
                                std::fill_n(out[c], n, 0.0f);
                                const auto& ranges = f.find.GetRanges(c);
                                for (; f.reported[c] < ranges.size(); ++f.reported[c]) {
                                    const dsp::utils::Range& r = ranges[f.reported[c]];
                                    out[c][r.start + r.length - f.position] = static_cast<float>(r.length);
                                }
                            }
                            f.position += n;
                            return n;
                        },
                        [](const Finder&) { return 0; }},
            Finder{FindSilence(settings, rate, kChannels)});
        s->object().find.SetSelection(0, 1 << 24);
        s->object().find.Start(nullptr);
        return s;
    };
    return row;
}

Row DeleteSilenceRow() {
    using dsp::nosilence::DeleteSilence;
    Row row{"DeleteSilence", false, {{"fade", 0.0f, 4096.0f}}, nullptr};
    row.make = [](int, int knob, float value) {
        const int fade = knob == 0 ? static_cast<int>(value) : 300;
        // From the start, apart and close together, shorter than the fade, and out past the input.
        const std::vector<dsp::utils::Range> ranges = {{0, 700, 0},     {2000, 1500, 0}, {3600, 50, 0},
                                                       {3700, 2000, 0}, {7000, 90, 0},   {8100, 1 << 20, 0}};
        auto s = std::make_unique<Held<DeleteSilence>>(
            Ops<DeleteSilence>{[](DeleteSilence& p, float** in, float** out, int n) {
                                   p.Process(in, out, kChannels, n);
                                   return p.GetLastOutputFrames();
                               },
                               [](const DeleteSilence&) { return 0; }},
            ranges, 0, 1 << 22, fade, kChannels);
        s->object().Start();
        return s;
    };
    return row;
}

std::vector<Row> Table() {
    return {HardLimitRow(),      StereoExpanderRow(), ParametricRow(),    GraphicRow(),           DeskFilterRow(),
            SecondOrderIIRRow(), ConvolverRow(),      ResampleRow(),      LinearResampleRow(),    WhiteNoiseRow(),
            NoNoiseRow(),        NoHissRow(),         AdaptiveNoiseRow(), ReplaceClicksRow(),     RepairClippingRow(),
            FindSilenceRow(),    DeleteSilenceRow(),  DNZProcessRow(),    TonalLineCancellerRow()};
}

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

class StreamingProperties : public testing::TestWithParam<Row> {};

// Every partition gives the bits of one block, and no processing call allocates.
TEST_P(StreamingProperties, AnyPartitionGivesTheBitsOfOneBlock) {
    const Row& row = GetParam();
    const auto prototype = row.make(row.takesRate ? 65537 : 0, -1, 0.0f);  // an odd rate: no whole ratios
    const Channels x = WithTail(Programme(8192), prototype->Tail());
    ExpectEveryPartitionAsOneBlock({static_cast<int>(x[0].size())}, [&](const Sizes& sizes, long long* allocations) {
        return Drive(*prototype->Copy(), x, sizes, allocations);
    });
}

// Two fresh objects agree; copies made mid-stream by construction and by assignment go on as the
// original does.
TEST_P(StreamingProperties, FreshObjectsAgreeAndCopiesContinueTheStream) {
    const Row& row = GetParam();
    const int rate = row.takesRate ? 44100 : 0;
    auto original = row.make(rate, -1, 0.0f);
    const Channels x = WithTail(Programme(8192), original->Tail());
    const Sizes blocks = Partition(99);
    const Channels reference = Drive(*row.make(rate, -1, 0.0f), x, blocks);
    ASSERT_EQ(Difference(Drive(*row.make(rate, -1, 0.0f), x, blocks), reference), "");

    for (const std::size_t split : {std::size_t{2999}, x[0].size() / 2 + 1}) {
        auto stream = row.make(rate, -1, 0.0f);
        const Channels head = Drive(*stream, kesta::test::Slice(x, 0, split), blocks);
        auto copy = stream->Copy();
        auto assigned = row.make(rate, -1, 0.0f);
        assigned->Assign(*stream);
        const Channels rest = kesta::test::Slice(x, split, x[0].size());
        const std::size_t done = head[0].size();
        const Channels expected = kesta::test::Slice(reference, done, reference[0].size());
        EXPECT_EQ(Difference(Drive(*stream, rest, blocks), expected), "") << "original after " << split;
        EXPECT_EQ(Difference(Drive(*copy, rest, blocks), expected), "") << "copy after " << split;
        EXPECT_EQ(Difference(Drive(*assigned, rest, blocks), expected), "") << "assigned after " << split;
    }
}

// Finite output under any ceiling the class promises, for hostile input at every knob's ends
// and middle, at every rate.
TEST_P(StreamingProperties, OutputStaysFiniteAndBoundedAtEverySetting) {
    const Row& row = GetParam();
    ForEverySetting(row, [&](int rate, int knob, float value, const std::string& where) {
        auto stream = row.make(rate, knob, value);
        const Channels y = Drive(*stream, WithTail(Hostile(), stream->Tail()), {1000, 3, 4096});
        float peak = 0.0f;
        for (const Signal& s : y)
            for (float v : s) {
                ASSERT_TRUE(std::isfinite(v)) << where;
                peak = std::max(peak, std::fabs(v));
            }
        ASSERT_LE(peak, row.ceiling(knob, value)) << where;
    });
}

INSTANTIATE_TEST_SUITE_P(EveryClass, StreamingProperties, testing::ValuesIn(Table()),
                         [](const testing::TestParamInfo<Row>& info) { return info.param.name; });

}  // namespace
