// Properties every analyzer and meter of the library keeps, checked by one driver over a table with
// one row per class: the figures (records, lists, levels) do not depend on how the host cuts the
// stream into blocks, bit for bit; two fresh objects agree, and a copy (constructed or assigned)
// made mid-measurement finishes with the original's figures; hostile input at the ends and middle
// of every setting's range and at low, common, high and odd sample rates gives no NaN; and handing
// over a block allocates nothing.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "dsp/dnz.h"
#include "dsp/frequency_analysis.h"
#include "dsp/levels.h"
#include "dsp/loudness.h"
#include "dsp/noclick.h"
#include "dsp/noclip.h"
#include "dsp/nohiss.h"
#include "dsp/nonoise.h"
#include "property_inputs.h"
#include "restoration/restoration_setup.h"
#include "support/allocation_counter.h"
#include "support/click_support.h"
#include "support/signals.h"

namespace {

using kesta::test::AllocationCounter;
using kesta::test::Channels;
using namespace kesta::test::properties;

using Figures = std::vector<double>;

// A measuring object and the host that feeds it, behind one interface.
class Meter {
public:
    virtual ~Meter() = default;
    virtual std::unique_ptr<Meter> Copy() const = 0;
    // This meter takes the state of `other` (same class) by the class's copy assignment.
    virtual void Assign(const Meter& other) = 0;
    // Starts a measurement of a stream of `frames` frames.
    virtual void Begin(long long frames) = 0;
    // Hands over the next block of about `size` frames of x (as the class's protocol allows);
    // false, without a call, once the measurement is complete.
    virtual bool Step(const Channels& x, int size) = 0;
    // Ends the measurement; every figure it gave, in a fixed order.
    virtual Figures Finish() = 0;
};

// How a DSPAnalyzer wants its blocks.
enum class Protocol {
    // Consecutive blocks of any size, each starting where the frames the last call took end,
    // reading the latency past the stream's end (as silence); a multi-pass analyzer starts again
    // from the beginning when IsCompleted closes a pass.
    kStream,
    // A block of at least GetDesiredBlockSize() frames (or what is left) wherever the last
    // Analyze sent the host; only the start of it is measured.
    kSnapshot,
};

template <class T>
class AnalyzerMeter final : public Meter {
public:
    using Read = Figures (*)(T&);
    AnalyzerMeter(T object, Protocol protocol, Read read)
        : mObject(std::move(object)), mProtocol(protocol), mRead(read) {}

    std::unique_ptr<Meter> Copy() const override { return std::make_unique<AnalyzerMeter>(*this); }
    void Assign(const Meter& other) override { *this = dynamic_cast<const AnalyzerMeter&>(other); }
    void Begin(long long frames) override {
        mFrames = frames;
        mPosition = 0;
        mFinished = false;
        // Room for a block of the whole stream and whatever the analyzer reads past it.
        const long long room = frames + std::max(8192, static_cast<int>(mObject.GetDesiredBlockSize()));
        mScratch.assign(kChannels, kesta::test::Signal(static_cast<std::size_t>(room)));
        ASSERT_TRUE(mObject.SetSelection(0, frames));
        mObject.Start(nullptr);
    }
    bool Step(const Channels& x, int size) override {
        if (mFinished || mObject.IsCompleted()) {
            mFinished = true;
            return false;
        }
        long long end = mFrames;
        int n = 0;
        if (mProtocol == Protocol::kStream) {
            end += mObject.GetLatency();
            if (mPosition >= end) mPosition = 0;  // IsCompleted closed a pass
            n = static_cast<int>(std::min<long long>(size, end - mPosition));
            EXPECT_LE(end, static_cast<long long>(mScratch[0].size()));
        } else {
            const long long want = std::max<long long>(size, mObject.GetDesiredBlockSize());
            n = static_cast<int>(std::min(want, end - mPosition));
        }
        std::array<float*, kChannels> data{};
        for (std::size_t c = 0; c < kChannels; ++c) {
            for (int i = 0; i < n; ++i) {
                const auto at = static_cast<std::size_t>(mPosition + i);
                mScratch[c][static_cast<std::size_t>(i)] = at < x[c].size() ? x[c][at] : 0.0f;
            }
            data[c] = mScratch[c].data();
        }
        const long long advance = mObject.Analyze(data.data(), kChannels, n);
        // A streaming analyzer may take fewer frames than it was given; at a pass's end the
        // multi-pass driver answers with something else than a count, and the block was taken whole.
        if (mProtocol == Protocol::kStream)
            mPosition += advance > 0 && advance <= n ? advance : n;
        else
            mPosition += advance;
        // A capture ends when the host runs out of selection, whatever IsCompleted says.
        mFinished = mProtocol == Protocol::kSnapshot && mPosition >= mFrames;
        return true;
    }
    Figures Finish() override {
        mObject.Done();
        return mRead(mObject);
    }

private:
    T mObject;
    Protocol mProtocol;
    Read mRead;
    long long mFrames = 0;
    long long mPosition = 0;
    bool mFinished = false;
    Channels mScratch;
};

// A meter that takes any block through Process(const float* const*, channels, frames).
template <class T>
class ProcessMeter final : public Meter {
public:
    using Read = Figures (*)(T&);
    ProcessMeter(T object, Read read) : mObject(std::move(object)), mRead(read) {}

    std::unique_ptr<Meter> Copy() const override { return std::make_unique<ProcessMeter>(*this); }
    void Assign(const Meter& other) override { *this = dynamic_cast<const ProcessMeter&>(other); }
    void Begin(long long frames) override {
        mFrames = frames;
        mPosition = 0;
        mObject.Reset();
    }
    bool Step(const Channels& x, int size) override {
        if (mPosition >= mFrames) return false;
        const int n = static_cast<int>(std::min<long long>(size, mFrames - mPosition));
        std::array<const float*, kChannels> data{};
        for (std::size_t c = 0; c < kChannels; ++c)
            data[c] = x[c].data() + mPosition;
        mObject.Process(data.data(), kChannels, n);
        mPosition += n;
        return true;
    }
    Figures Finish() override { return mRead(mObject); }

private:
    T mObject;
    Read mRead;
    long long mFrames = 0;
    long long mPosition = 0;
};

struct Row {
    std::string name;
    bool takesRate;
    std::vector<Knob> knobs;
    // A meter at `rate` (0 when the class takes none) with knob `knob` (-1: none) at `value`.
    std::function<std::unique_ptr<Meter>(int rate, int knob, float value)> make;
    // Whether a figure may read -infinity (a level of silence).
    bool levelsInDb = false;
};

// ---- Driving -----------------------------------------------------------------------------------

// The meter over the whole of x in blocks of `sizes` (cycled), stopping after `stopAfter` blocks
// when that is not negative. With `allocations`, the allocations made by the blocks are counted.
void Feed(Meter& meter, const Channels& x, const Sizes& sizes, long long* allocations = nullptr, int stopAfter = -1) {
    AllocationCounter counter;
    for (int i = 0; i != stopAfter && meter.Step(x, sizes[static_cast<std::size_t>(i) % sizes.size()]); ++i) {
    }
    if (allocations) *allocations = counter.Count();
}

Figures Measure(Meter& meter, const Channels& x, const Sizes& sizes, long long* allocations = nullptr) {
    meter.Begin(static_cast<long long>(x[0].size()));
    Feed(meter, x, sizes, allocations);
    return meter.Finish();
}

// ---- The table ---------------------------------------------------------------------------------

void AppendRanges(Figures& f, const std::vector<std::vector<dsp::utils::Range>>& lists) {
    for (const auto& list : lists) {
        f.push_back(static_cast<double>(list.size()));
        for (const dsp::utils::Range& r : list)
            f.insert(f.end(),
                     {static_cast<double>(r.start), static_cast<double>(r.length), static_cast<double>(r.done)});
    }
}

Row FindLevelsRow() {
    Row row{"FindLevels", true, {}, nullptr, true};
    row.make = [](int rate, int, float) {
        return std::make_unique<AnalyzerMeter<dsp::FindLevels>>(
            dsp::FindLevels(rate), Protocol::kStream, [](dsp::FindLevels& a) {
                Figures f;
                const dsp::Stats& s = a.GetStats();
                f.push_back(s.numChannels);
                for (int c = 0; c < s.numChannels; ++c) {
                    const dsp::StatData& d = s.channel[c];
                    f.insert(f.end(), {static_cast<double>(d.frames), d.dcOffset, d.minimum, d.maximum, d.peakDb,
                                       d.rmsDb, d.loudestRmsDb, d.quietestRmsDb, d.crestFactorDb,
                                       static_cast<double>(d.fullScaleCount), static_cast<double>(d.longestRun),
                                       static_cast<double>(d.bitDepth), static_cast<double>(d.zeroCrossings)});
                }
                return f;
            });
    };
    return row;
}

Row FindClicksRow() {
    using dsp::noclick::FindClicks;
    Row row{"FindClicks", true, {{"threshold", 0.0f, 100.0f}, {"complexity", 0.0f, 100.0f}}, nullptr};
    row.make = [](int rate, int knob, float value) {
        dsp::noclick::NOCLICK record = kesta::test::ClickRecord(kChannels, rate);
        if (knob == 0) record.threshold = value;
        if (knob == 1) record.complexity = static_cast<int32_t>(value);
        return std::make_unique<AnalyzerMeter<FindClicks>>(FindClicks(&record), Protocol::kStream, [](FindClicks& a) {
            Figures f;
            AppendRanges(f, a.GetParam()->foundClicks);
            return f;
        });
    };
    return row;
}

Row FindClippingRow() {
    using dsp::noclip::FindClipping;
    Row row{"FindClipping", true, {{"run length", 1.0f, 64.0f}, {"tolerance", 0.0f, 100.0f}}, nullptr};
    row.make = [](int rate, int knob, float value) {
        dsp::noclip::NOCLIPPING record;
        dsp::noclip::SetDefaultParameter(&record);
        record.channels = kChannels;
        record.sampleRate = static_cast<float>(rate);
        dsp::noclip::AllocateArrays(&record);
        if (knob == 0) record.minRunLength = static_cast<int32_t>(value);
        if (knob == 1) record.tolerancePercent = value;
        return std::make_unique<AnalyzerMeter<FindClipping>>(FindClipping(&record), Protocol::kStream,
                                                             [](FindClipping& a) {
                                                                 Figures f;
                                                                 AppendRanges(f, a.GetParam()->foundClips);
                                                                 return f;
                                                             });
    };
    return row;
}

// Bins 0 ... N/2 of every channel's rows.
template <class Value>
void AppendRows(Figures& f, Value* const* rows, int channels, int fftSize) {
    for (int c = 0; c < channels; ++c)
        f.insert(f.end(), rows[c], rows[c] + fftSize / 2 + 1);
}

int PowerOfTwoNear(float value) {
    return 1 << static_cast<int>(std::lround(std::log2(value)));
}

Row CaptureNoisePrintRow() {
    using dsp::nonoise::CaptureNoisePrint;
    using dsp::nonoise::NONOISE;
    Row row{"CaptureNoisePrint", false, {{"fft size", 32.0f, 4096.0f}, {"snapshots", 1.0f, 4000.0f}}, nullptr};
    row.make = [](int, int knob, float value) {
        kesta::test::Owned<NONOISE> record(kChannels, knob == 0 ? PowerOfTwoNear(value) : 512);
        if (knob == 1) record.r.maxSnapshots = static_cast<int32_t>(value);
        return std::make_unique<AnalyzerMeter<CaptureNoisePrint>>(
            CaptureNoisePrint(&record.r), Protocol::kSnapshot, [](CaptureNoisePrint& a) {
                const NONOISE& p = *a.GetParam();
                Figures f{static_cast<double>(p.frameCount)};
                f.insert(f.end(), p.dcMin, p.dcMin + p.channels);
                f.insert(f.end(), p.dcMax, p.dcMax + p.channels);
                for (double* const* rows : {p.binMin, p.binMax, p.binRms})
                    AppendRows(f, rows, p.channels, p.fftSize);
                return f;
            });
    };
    return row;
}

Row DNZNoisePrintRow() {
    using dsp::dnz::DNZ;
    using dsp::dnz::DNZNoisePrint;
    Row row{"DNZNoisePrint", false, {{"fft size", 256.0f, 4096.0f}, {"noise atoms", 1.0f, 16.0f}}, nullptr};
    row.make = [](int, int knob, float value) {
        kesta::test::Owned<DNZ> record(kChannels, knob == 0 ? PowerOfTwoNear(value) : 512);
        if (knob == 1) {
            FreeArrays(&record.r);
            record.r.noiseAtoms = static_cast<int16_t>(value);
            AllocateArrays(&record.r);
        }
        return std::make_unique<AnalyzerMeter<DNZNoisePrint>>(
            DNZNoisePrint(&record.r), Protocol::kSnapshot, [](DNZNoisePrint& a) {
                const DNZ& p = *a.GetParam();
                Figures f{static_cast<double>(p.frameCount)};
                const std::size_t n =
                    static_cast<std::size_t>(p.noiseAtoms) * static_cast<std::size_t>(p.fftSize / 2 + 1);
                for (int c = 0; c < p.channels; ++c) {
                    f.insert(f.end(), p.noiseDictionary[c], p.noiseDictionary[c] + n);
                    f.push_back(p.noiseCeiling[c]);
                }
                return f;
            });
    };
    return row;
}

Row CaptureNoiseFloorRow() {
    using dsp::nohiss::CaptureNoiseFloor;
    using dsp::nohiss::NOHISS;
    Row row{"CaptureNoiseFloor",
            true,
            {{"fft size", 32.0f, 4096.0f}, {"overlap", 2.0f, 16.0f}, {"smoothing", 0.0f, 100.0f}},
            nullptr};
    row.make = [](int rate, int knob, float value) {
        kesta::test::Owned<NOHISS> record(kChannels, knob == 0 ? PowerOfTwoNear(value) : 512);
        record.r.sampleRate = rate;
        if (knob == 1) record.r.overlap = static_cast<int16_t>(value);
        if (knob == 2) record.r.smoothingPercent = value;
        return std::make_unique<AnalyzerMeter<CaptureNoiseFloor>>(
            CaptureNoiseFloor(&record.r), Protocol::kSnapshot, [](CaptureNoiseFloor& a) {
                const NOHISS& p = *a.GetParam();
                Figures f{static_cast<double>(p.frameCount)};
                f.insert(f.end(), p.floorLevel, p.floorLevel + p.channels);
                AppendRows(f, p.floorRows, p.channels, p.fftSize);
                return f;
            });
    };
    return row;
}

Row Itu1770Row() {
    using dsp::Itu1770;
    Row row{"Itu1770", true, {{"range hop", 10.0f, 1000.0f}, {"weight", 0.0f, 10.0f}}, nullptr, true};
    row.make = [](int rate, int knob, float value) {
        Itu1770 meter(rate, kChannels);
        if (knob == 0) meter.SetLoudnessRangeHop(static_cast<int>(value));
        if (knob == 1) meter.SetChannelWeight(1, value);
        return std::make_unique<ProcessMeter<Itu1770>>(meter, [](Itu1770& m) {
            return Figures{m.GetMomentary(),
                           m.GetShortTerm(),
                           m.GetMaxMomentary(),
                           m.GetMaxShortTerm(),
                           m.GetIntegrated(),
                           m.GetLoudnessRange(),
                           static_cast<double>(m.GetFrameCount())};
        });
    };
    return row;
}

Row TruePeakRow() {
    using dsp::TruePeak;
    Row row{"TruePeak", true, {}, nullptr};
    row.make = [](int rate, int, float) {
        return std::make_unique<ProcessMeter<TruePeak>>(TruePeak(rate, kChannels), [](TruePeak& m) {
            Figures f;
            for (int c = 0; c < kChannels; ++c)
                f.insert(f.end(), {m.GetTruePeak(c), m.GetSamplePeak(c)});
            return f;
        });
    };
    return row;
}

// The spectrum worker behind the meters' Reset and Process.
struct Spectrum {
    dsp::FrequencyAnalysisWorker worker;
    void Reset() { worker.Reset(); }
    void Process(const float* const* data, int channels, int frames) { worker.Add(data, channels, frames); }
};

Row FrequencyAnalysisRow() {
    Row row{"FrequencyAnalysisWorker",
            false,
            {{"fft size", 16.0f, 65536.0f}, {"window", 0.0f, 9.0f}, {"hop", 0.0f, 4096.0f}},
            nullptr,
            true};
    row.make = [](int, int knob, float value) {
        Spectrum spectrum;
        spectrum.worker.Init(knob == 0 ? PowerOfTwoNear(value) : 1024, knob == 1 ? static_cast<int>(value) : 3,
                             kChannels, knob == 2 ? static_cast<int>(value) : 0);
        return std::make_unique<ProcessMeter<Spectrum>>(spectrum, [](Spectrum& s) {
            s.worker.Finish();
            Figures f{static_cast<double>(s.worker.GetFrameCount())};
            std::vector<double> levels(static_cast<std::size_t>(s.worker.GetBinCount()));
            for (int c = -1; c < kChannels; ++c) {
                s.worker.GetSpectrumDb(c, levels.data());
                f.insert(f.end(), levels.begin(), levels.end());
            }
            return f;
        });
    };
    return row;
}

std::vector<Row> Table() {
    return {FindLevelsRow(), FindClicksRow(), FindClippingRow(),      CaptureNoisePrintRow(), CaptureNoiseFloorRow(),
            Itu1770Row(),    TruePeakRow(),   FrequencyAnalysisRow(), DNZNoisePrintRow()};
}

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

class AnalyzerProperties : public testing::TestWithParam<Row> {};

// Long enough for several loudness gating blocks, click detection blocks and capture snapshots,
// with full-scale flat tops for the clipping finder.
Channels Material() {
    Channels x = Programme(40000);
    // Flat tops at both rails of both channels, so the clip levels are the rails and the tones'
    // own peaks stay well inside them.
    const struct {
        std::size_t channel, from, count;
        float level;
    } tops[] = {{0, 20000, 12, 1.0f}, {0, 26000, 8, -1.0f}, {1, 12000, 4, 1.0f}, {1, 31000, 5, -1.0f}};
    for (const auto& top : tops)
        std::fill_n(x[top.channel].begin() + static_cast<std::ptrdiff_t>(top.from), top.count, top.level);
    return x;
}

// Every partition gives the figures of one block, and no block allocates.
TEST_P(AnalyzerProperties, AnyPartitionGivesTheFiguresOfOneBlock) {
    const Row& row = GetParam();
    const Channels x = Material();
    const auto prototype = row.make(row.takesRate ? 65537 : 0, -1, 0.0f);
    ExpectEveryPartitionAsOneBlock({1 << 20}, [&](const Sizes& sizes, long long* allocations) {
        return Measure(*prototype->Copy(), x, sizes, allocations);
    });
}

// Two fresh meters agree; copies made mid-measurement by construction and by assignment finish
// with the original's figures.
TEST_P(AnalyzerProperties, FreshObjectsAgreeAndCopiesFinishTheMeasurement) {
    const Row& row = GetParam();
    const int rate = row.takesRate ? 44100 : 0;
    const Channels x = Material();
    const Sizes blocks = Partition(77);
    const Figures reference = Measure(*row.make(rate, -1, 0.0f), x, blocks);
    ASSERT_EQ(Difference(Measure(*row.make(rate, -1, 0.0f), x, blocks), reference), "");

    for (const int stop : {1, 7, 18}) {
        auto meter = row.make(rate, -1, 0.0f);
        meter->Begin(static_cast<long long>(x[0].size()));
        Feed(*meter, x, blocks, nullptr, stop);
        auto copy = meter->Copy();
        auto assigned = row.make(rate, -1, 0.0f);
        assigned->Assign(*meter);
        // The rest of the partition, from where the meters stopped.
        Sizes rest(blocks.begin() + stop % static_cast<int>(blocks.size()), blocks.end());
        rest.insert(rest.end(), blocks.begin(), blocks.begin() + stop % static_cast<int>(blocks.size()));
        for (Meter* m : {meter.get(), copy.get(), assigned.get()}) {
            Feed(*m, x, rest);
            EXPECT_EQ(Difference(m->Finish(), reference), "") << "after " << stop << " blocks";
        }
    }
}

// No NaN (and no infinite figure but a level of silence) for hostile input at every knob's ends
// and middle, at every rate.
TEST_P(AnalyzerProperties, FiguresStayMeaningfulAtEverySetting) {
    const Row& row = GetParam();
    Channels hostile = Hostile();
    for (auto& s : hostile)  // long enough for the largest capture size
        s.resize(3 * s.size(), 0.25f);
    ForEverySetting(row, [&](int rate, int knob, float value, const std::string& where) {
        const Figures f = Measure(*row.make(rate, knob, value), hostile, {1000, 3, 4096});
        ASSERT_FALSE(f.empty()) << where;
        for (std::size_t i = 0; i < f.size(); ++i) {
            const bool silenceLevel = row.levelsInDb && f[i] == -std::numeric_limits<double>::infinity();
            ASSERT_TRUE(std::isfinite(f[i]) || silenceLevel) << "figure " << i << " = " << f[i] << ", " << where;
        }
    });
}

INSTANTIATE_TEST_SUITE_P(EveryClass, AnalyzerProperties, testing::ValuesIn(Table()),
                         [](const testing::TestParamInfo<Row>& info) { return info.param.name; });

}  // namespace
