// Graphic equaliser: parameter limits, the settings chunk, the response measured on processed
// sines, the single-band update against a full redesign, and streaming (latency, partitions,
// copies, allocation).

#include "dsp/graphic.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "support/allocation_counter.h"
#include "support/metrics.h"
#include "support/signals.h"

namespace {

using dsp::Graphic;
using namespace kesta::test;

BlockFunction Feed(Graphic& eq, int channels) {
    return [&eq, channels](float** in, float** out, int frames) { eq.Process(in, out, channels, frames); };
}

Channels Stream(Graphic& eq, const Channels& input, int blockSize = 4096) {
    return RunInBlocks(input, Feed(eq, static_cast<int>(input.size())), blockSize);
}

// Gain in dB at `frequency`, measured on a processed sine once the impulse is full.
double MeasuredGainDb(Graphic& eq, double frequency, double rate) {
    const double amplitude = 0.25;
    const auto settle = static_cast<std::size_t>(eq.GetLatency() + eq.GetParameter(Graphic::kAccuracy) * 2);
    const Channels out = Stream(eq, {Sine(settle + 32768, frequency, rate, amplitude)}, 8192);
    return ToDb(LevelAt(std::span<const float>(out[0]).subspan(settle), frequency, rate) / amplitude);
}

void RandomSettings(Graphic& eq, uint64_t seed) {
    Random random(seed);
    eq.SetParameter(0, 1500.0f);
    eq.SetParameter(1, -3.5f);
    eq.SetParameter(2, 30.0f);
    eq.SetParameter(34, 2.0f);
    for (int k = 0; k < 30; ++k)
        eq.SetParameter(4 + k, static_cast<float>(random.Uniform() * 28.0 - 14.0));
}

// ---- Parameters ---------------------------------------------------------------------------------

// An out-of-range value becomes the midpoint of the range, not the nearest end; the layout value
// rounds at 0.5 and 1.5; indices outside the table are ignored.
TEST(GraphicParameters, OutOfRangeValueBecomesTheMidpointAndOutsideIndicesAreIgnored) {
    struct Row {
        int index;
        float value, stored;
    };
    Graphic eq;
    for (const Row& row : {Row{4, 100.0f, 0.0f}, Row{1, -65.0f, 0.0f}, Row{0, 5.0f, 4101.0f},
                           Row{5, std::nanf(""), 0.0f}, Row{34, 7.0f, 1.0f}, Row{34, -0.4f, 0.0f}, Row{34, 0.49f, 0.0f},
                           Row{34, 0.5f, 1.0f}, Row{34, 1.49f, 1.0f}, Row{34, 1.5f, 2.0f}, Row{34, 2.49f, 2.0f}}) {
        eq.SetParameter(row.index, 7.0f);
        eq.SetParameter(row.index, row.value);
        EXPECT_EQ(eq.GetParameter(row.index), row.stored) << row.index << " := " << row.value;
        if (row.index == 34) {
            EXPECT_EQ(eq.GetBandCount(), 10 * (1 + static_cast<int>(row.stored))) << row.value;
        }
    }
    float lo = 123, hi = 456;
    eq.GetBounds(35, lo, hi);
    eq.GetBounds(-1, lo, hi);
    EXPECT_TRUE(lo == 123 && hi == 456);
    eq.SetParameter(35, 5.0f);
    eq.SetParameter(-1, 5.0f);
    EXPECT_EQ(eq.GetParameter(35), 0.0f);
}

// Band gains stay inside half the range; narrowing the range pulls the current layout's bands in
// (and nothing else); a change of at most 1e-7 dB is no change; the reset command zeroes every band
// and is not stored.
TEST(GraphicParameters, BandGainsStayInsideHalfTheRangeAndResetZeroesThem) {
    Graphic eq;
    eq.SetParameter(4, 30.0f);
    eq.SetParameter(5, -24.0f);
    eq.SetParameter(6, 23.5f);
    eq.SetParameter(19, 30.0f);  // band 16: outside the 10-band layout
    EXPECT_EQ(eq.GetParameter(4), 23.99f);
    EXPECT_EQ(eq.GetParameter(5), -23.99f);
    EXPECT_EQ(eq.GetParameter(6), 23.5f);
    eq.SetParameter(2, 20.04f);  // rounded to one decimal
    EXPECT_EQ(eq.GetParameter(2), 20.0f);
    EXPECT_EQ(eq.GetParameter(4), 9.99f);
    EXPECT_EQ(eq.GetParameter(5), -9.99f);
    EXPECT_EQ(eq.GetParameter(6), 9.99f);
    EXPECT_EQ(eq.GetParameter(19), 23.99f);
    eq.SetParameter(7, 0.001f);
    eq.SetParameter(7, 0.001f + 5e-8f);
    EXPECT_EQ(eq.GetParameter(7), 0.001f);

    eq.SetParameter(1, 5.0f);
    eq.SetParameter(3, 1.0f);
    for (int k = 0; k < 30; ++k)
        EXPECT_EQ(eq.GetParameter(4 + k), 0.0f) << k;
    EXPECT_EQ(eq.GetParameter(3), 0.0f);
    EXPECT_EQ(eq.GetParameter(1), 5.0f);
}

// ---- Chunk --------------------------------------------------------------------------------------

TEST(GraphicChunk, RoundTripRestoresEveryParameterAndTheSameOutput) {
    Graphic a;
    RandomSettings(a, 2);
    void* data = nullptr;
    ASSERT_EQ(a.GetChunk(&data, true), 140);
    float values[35];  // the parameters as floats in index order
    std::memcpy(values, data, sizeof values);
    Graphic b;
    b.SetParameter(7, 4.0f);
    ASSERT_EQ(b.SetChunk(data, 140, true), 140);
    for (int i = 0; i < 35; ++i)
        EXPECT_TRUE(values[i] == a.GetParameter(i) && b.GetParameter(i) == a.GetParameter(i)) << i;
    EXPECT_EQ(b.GetBandCount(), 30);
    const Channels input = NoiseChannels(2, 20000, 3, 0.5);
    EXPECT_EQ(Stream(b, input), Stream(a, input));
}

// A short chunk sets only the parameters it holds; bytes past 140 are not taken.
TEST(GraphicChunk, ShortChunkCopiesOnlyItsBytesAndLongChunkIsTruncated) {
    Graphic source;
    for (const auto& [index, value] :
         {std::pair{0, 600.0f}, std::pair{1, -2.0f}, std::pair{2, 40.0f}, std::pair{4, -3.0f}, std::pair{5, -5.0f}})
        source.SetParameter(index, value);
    void* data = nullptr;
    source.GetChunk(&data, false);

    Graphic target;
    target.SetParameter(34, 1.0f);
    for (int k = 0; k < 30; ++k)
        target.SetParameter(4 + k, 6.0f);
    EXPECT_EQ(target.SetChunk(nullptr, 500, false), 140);
    ASSERT_EQ(target.SetChunk(data, 20, false), 20);  // parameters 0 ... 4
    for (int i = 0; i < 35; ++i)
        EXPECT_EQ(target.GetParameter(i), i < 5 ? source.GetParameter(i) : i < 34 ? 6.0f : 1.0f) << i;
    EXPECT_EQ(target.GetLatency(), source.GetLatency());  // the accuracy came with the chunk

    std::vector<float> longChunk(125, 9.0f);
    std::memcpy(longChunk.data(), data, 140);
    ASSERT_EQ(target.SetChunk(longChunk.data(), 500, false), 140);
    for (int i = 0; i < 35; ++i)
        EXPECT_EQ(target.GetParameter(i), source.GetParameter(i)) << i;
}

// A chunk edited by another program: a value outside its range, NaN and infinities included,
// becomes the range's midpoint as through SetParameter, and the output stays finite.
TEST(GraphicChunk, OutOfRangeOrNonFiniteValuesBecomeTheMidpoint) {
    const float nan = std::nanf(""), inf = HUGE_VALF;
    struct Row {
        int index;
        float value, stored;
    };
    const Row rows[] = {
        {0, inf, 4101.0f}, {1, nan, 0.0f},  {2, -inf, 60.75f}, {4, nan, 0.0f},  {5, 71.0f, 0.0f},
        {6, -inf, 0.0f},   {33, inf, 0.0f}, {34, nan, 0.995f}, {7, 3.0f, 3.0f},  // in range: kept as it is
        {3, nan, 0.5f}};
    Graphic source;
    void* data = nullptr;
    source.GetChunk(&data, false);
    float chunk[35];
    std::memcpy(chunk, data, sizeof chunk);
    for (const Row& row : rows)
        chunk[row.index] = row.value;
    Graphic eq;
    ASSERT_EQ(eq.SetChunk(chunk, 140, false), 140);
    for (const Row& row : rows)
        EXPECT_EQ(eq.GetParameter(row.index), row.stored) << row.index;
    const Channels out = Stream(eq, NoiseChannels(2, 6000, 4, 0.5), 64);
    for (const auto& channel : out)
        EXPECT_TRUE(std::all_of(channel.begin(), channel.end(), [](float v) { return std::isfinite(v); }));
}

// ---- Response -----------------------------------------------------------------------------------

struct LayoutCase {
    int layout;
    int rate;
};

class GraphicLayout : public ::testing::TestWithParam<LayoutCase> {};

// Every band the impulse can resolve reaches +12 dB at its centre, and leaves the centres two bands
// away alone. Band k is resolved when the window's main lobe (+-4 rate / 2N Hz) lies within half
// the log-axis distance fk ln r to the neighbouring centres, i.e. N >= 4 rate / (fk ln r) <= 8192.
// Everything below the first centre belongs to band 1, so it reaches down to DC.
TEST_P(GraphicLayout, BoostedBandReachesItsGainAtItsCentreAndStaysLocal) {
    const int layout = GetParam().layout, bands = 10 * (layout + 1);
    const double rate = GetParam().rate, ratio = std::pow(2.0, 1.0 / (layout + 1));
    int measured = 0;
    for (int k = 0; k < bands; ++k) {
        const double centre = 31.25 * std::pow(ratio, k), accuracy = std::ceil(4.0 * rate / (centre * std::log(ratio)));
        if (accuracy > 8192.0 || centre >= rate / 2) continue;
        Graphic eq;
        eq.SetChannels(1);
        eq.SetSampleRate(GetParam().rate);
        eq.SetParameter(34, static_cast<float>(layout));
        eq.SetParameter(0, static_cast<float>(std::max(accuracy, 1000.0)));
        eq.SetParameter(4 + k, 12.0f);
        const double gain = MeasuredGainDb(eq, centre, rate);
        ++measured;
        SCOPED_TRACE(std::to_string(bands) + " bands, band " + std::to_string(k) + " at " + std::to_string(centre));
        EXPECT_NEAR(gain, 12.0, 0.5);
        EXPECT_NEAR(eq.ComputeFilterResponse(static_cast<float>(centre)), gain, 0.02);
        for (double away : {centre * ratio * ratio, centre / (ratio * ratio)}) {
            if (away > 20.0 && away < rate / 2) {
                EXPECT_NEAR(eq.ComputeFilterResponse(static_cast<float>(away)), 0.0, 0.1) << away << " Hz";
            }
        }
        if (k == 0) {
            EXPECT_NEAR(eq.ComputeFilterResponse(5.0f), 12.0, 0.5);
        }
    }
    EXPECT_GE(measured, bands / 2);
}

INSTANTIATE_TEST_SUITE_P(Layouts, GraphicLayout,
                         ::testing::Values(LayoutCase{0, 44100}, LayoutCase{1, 48000}, LayoutCase{2, 44100}),
                         [](const auto& info) {
                             return std::to_string(10 * (info.param.layout + 1)) + "BandsAt" +
                                    std::to_string(info.param.rate);
                         });

// The master gain needs no redesign: output from the next call on carries it.
TEST(GraphicResponse, MasterGainScalesTheOutputFromTheNextCall) {
    Graphic eq;
    eq.SetChannels(1);
    const int latency = eq.GetLatency();
    const Signal x = WhiteNoise(static_cast<std::size_t>(latency) * 3, 4, 0.5);
    Signal y(x.size());
    float* in[2] = {const_cast<float*>(x.data()), const_cast<float*>(x.data()) + latency};
    float* out[2] = {y.data(), y.data() + latency};
    eq.Process(&in[0], &out[0], 1, latency);
    eq.SetParameter(1, -6.0f);
    eq.Process(&in[1], &out[1], 1, latency * 2);
    const double gain = std::pow(10.0, -6.0 / 20.0);
    for (std::size_t i = 2 * static_cast<std::size_t>(latency); i < y.size(); ++i)
        ASSERT_NEAR(y[i], gain * x[i - latency], 1e-6) << i;
}

// ---- Single-band update -------------------------------------------------------------------------

// Random single-band changes (every fifth back to 0 dB, which a redesign leaves out), a band
// outside the layout and a narrower range (which limits the gains) give the impulse of a full
// redesign with the stored settings, in the impulse and in what is streamed; the impulse stays
// symmetric, so the phase is linear.
TEST(GraphicUpdate, SingleBandUpdateEqualsAFullRedesign) {
    for (int layout = 0; layout < 3; ++layout) {
        const int bands = 10 * (layout + 1);
        Random random(20 + layout);
        Graphic incremental;
        incremental.SetParameter(34, static_cast<float>(layout));
        for (int k = 0; k < bands; k += 3)
            incremental.SetParameter(4 + k, static_cast<float>(random.Uniform() * 40.0 - 20.0));
        incremental.UpdateImpulses();
        for (int step = 0; step < 25; ++step) {
            const int band = step == 23 ? bands : random.UniformInt(0, bands - 1);
            const double gain = step % 5 == 4 ? 0.0 : random.Uniform() * 40.0 - 20.0;
            if (band < 30) incremental.SetParameter(4 + band, static_cast<float>(gain));
            if (step == 24) incremental.SetParameter(2, 24.0f);
            incremental.UpdateImpulses();
            Graphic full;
            for (int i : {2, 34})
                full.SetParameter(i, incremental.GetParameter(i));
            for (int k = 0; k < bands; ++k)
                full.SetParameter(4 + k, incremental.GetParameter(4 + k));
            full.UpdateImpulses();
            ASSERT_EQ(incremental.GetImpulseLength(), full.GetImpulseLength());
            const double* h = incremental.GetImpulse();
            const int n = incremental.GetImpulseLength() / 2;
            double worst = 0.0;
            for (int i = 0; i < 2 * n; ++i)
                worst = std::max(worst, std::fabs(h[i] - full.GetImpulse()[i]));
            ASSERT_LE(worst, 1e-9) << bands << " bands, step " << step;
            ASSERT_EQ(h[0], 0.0);
            for (int d = 1; d < n; ++d)
                ASSERT_EQ(h[n + d], h[n - d]) << d;
            if (step == 10) {  // a single-band update reaches the filter the stream runs on
                const Channels x = NoiseChannels(2, 12000, 30, 0.5);
                ASSERT_LE(MaxAbsDiff(Stream(incremental, x)[1], Stream(full, x)[1]), 1e-5) << bands << " bands";
            }
        }
    }
}

// ---- Streaming ----------------------------------------------------------------------------------

// Flat settings are a pure delay of the latency asked before anything is set up; an accuracy change
// mid-stream starts a new stream with the new latency.
TEST(GraphicStreaming, FlatSettingsAreAPureDelayOfTheLatency) {
    for (int accuracy : {10, 1000, 1537, 3000})
        for (int channels : {1, 2, 3}) {
            Graphic eq;
            eq.SetChannels(channels);
            for (int change : {accuracy, 400}) {
                eq.SetParameter(0, static_cast<float>(change));
                const int latency = eq.GetLatency();
                const Channels input = NoiseChannels(channels, static_cast<std::size_t>(latency) + 9000, 5, 0.9);
                const Channels output = Stream(eq, input, 1000);
                for (int c = 0; c < channels; ++c)
                    ASSERT_LE(MaxAbsDiff(output[c], Delayed(input[c], static_cast<std::size_t>(latency))), 1e-6)
                        << "N = " << change << ", channel " << c << " of " << channels;
            }
        }
}

// A Resume starts the stream over, and one frame at a time matches the block path.
TEST(GraphicStreaming, ResumeRestartsAndFramesMatchBlocks) {
    auto make = [](int channels) {
        Graphic eq;
        eq.SetChannels(channels);
        RandomSettings(eq, 7);
        eq.SetParameter(0, 1000.0f);
        return eq;
    };
    const Channels input = NoiseChannels(3, 23000, 8, 0.5);
    Graphic whole = make(3);
    const Channels reference = Stream(whole, input, static_cast<int>(input[0].size()));
    Stream(whole, input, 777);
    whole.Resume();
    EXPECT_EQ(Stream(whole, input), reference);

    Graphic single = make(3);
    Channels bySample = ZeroChannels(3, input[0].size());
    for (std::size_t i = 0; i < input[0].size(); ++i) {
        float in[3] = {input[0][i], input[1][i], input[2][i]}, out[3];
        single.ProcessOneSample(in, out);
        for (int c = 0; c < 3; ++c)
            bySample[c][i] = out[c];
    }
    EXPECT_EQ(bySample, reference);
}

// No allocation while streaming, through a single-band update, a full redesign and a gain change.
TEST(GraphicStreaming, ProcessAllocatesNothing) {
    Graphic eq;
    RandomSettings(eq, 18);
    Channels buffer = NoiseChannels(2, 4096, 19, 0.5);
    float* io[2] = {buffer[0].data(), buffer[1].data()};
    eq.Process(io, io, 2, 4096);  // the first call sets everything up

    AllocationCounter allocations;
    for (const auto& [index, value] : {std::pair{6, 3.0f}, std::pair{2, 24.0f}, std::pair{1, -2.0f}}) {
        eq.SetParameter(index, value);
        for (int round = 0; round < 2; ++round) {
            eq.Process(io, io, 2, 4096);
            float in[2] = {0.1f, -0.1f}, out[2];
            eq.ProcessOneSample(in, out);
        }
    }
    EXPECT_EQ(allocations.Count(), 0);
}

}  // namespace
