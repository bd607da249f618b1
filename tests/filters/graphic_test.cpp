// Graphic equaliser: parameters and their limits, the settings chunk, the designed response
// (measured on processed sines), the single-band update against a full redesign, and streaming
// (latency, block partitions, channels, copies, allocation).

#include "dsp/graphic.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <numbers>
#include <vector>

#include "support/allocation_counter.h"
#include "support/metrics.h"
#include "support/signals.h"

namespace {

using dsp::Graphic;
using namespace kesta::test;

constexpr double kRate = 44100.0;

// Layout index (parameter 34) -> band ratio r, from the band spacing: octave, half, third.
double Ratio(int layout) {
    return std::pow(2.0, 1.0 / (layout + 1));
}

BlockFunction Feed(Graphic& eq, int channels) {
    return [&eq, channels](float** in, float** out, int frames) { eq.Process(in, out, channels, frames); };
}

Channels Stream(Graphic& eq, const Channels& input, int blockSize = 4096) {
    return RunInBlocks(input, Feed(eq, static_cast<int>(input.size())), blockSize);
}

void ExpectSameImpulse(const Graphic& a, const Graphic& b, double tolerance) {
    ASSERT_EQ(a.GetImpulseLength(), b.GetImpulseLength());
    double worst = 0.0;
    for (int i = 0; i < a.GetImpulseLength(); ++i)
        worst = std::max(worst, std::fabs(a.GetImpulse()[i] - b.GetImpulse()[i]));
    EXPECT_LE(worst, tolerance);
}

// Gain in dB of `eq` at `frequency`, measured on a processed sine once the impulse is full.
double MeasuredGainDb(Graphic& eq, double frequency, double rate = kRate) {
    const double amplitude = 0.25;
    const std::size_t settle = static_cast<std::size_t>(eq.GetLatency() + eq.GetParameter(Graphic::kAccuracy) * 2);
    const std::size_t measured = 32768;
    const Channels out = Stream(eq, {Sine(settle + measured, frequency, rate, amplitude)}, 8192);
    return ToDb(LevelAt(std::span<const float>(out[0]).subspan(settle), frequency, rate) / amplitude);
}

// ---- Parameters ---------------------------------------------------------------------------------

TEST(GraphicParameters, DefaultsAndBoundsFollowTheTable) {
    Graphic eq;
    struct Row {
        int index;
        float value, min, max;
    };
    for (const Row& row :
         {Row{0, 1000, 10, 8192}, Row{1, 0, -64, 64}, Row{2, 48, 1.5f, 120}, Row{34, 0, -0.5f, 2.49f}}) {
        float lo = 0, hi = 0;
        eq.GetBounds(row.index, lo, hi);
        EXPECT_EQ(eq.GetParameter(row.index), row.value) << row.index;
        EXPECT_EQ(lo, row.min) << row.index;
        EXPECT_EQ(hi, row.max) << row.index;
    }
    for (int k = 0; k < 30; ++k) {
        float lo = 0, hi = 0;
        eq.GetBounds(4 + k, lo, hi);
        EXPECT_EQ(eq.GetParameter(4 + k), 0.0f);
        EXPECT_EQ(lo, -70.0f);
        EXPECT_EQ(hi, 70.0f);
    }
    // Outside the table: ignored.
    float lo = 123, hi = 456;
    eq.GetBounds(35, lo, hi);
    eq.GetBounds(-1, lo, hi);
    EXPECT_EQ(lo, 123);
    EXPECT_EQ(hi, 456);
    eq.SetParameter(35, 5.0f);
    eq.SetParameter(-1, 5.0f);
    EXPECT_EQ(eq.GetParameter(35), 0.0f);
    EXPECT_EQ(eq.GetBandCount(), 10);
}

TEST(GraphicParameters, OutOfRangeValueBecomesTheMidpointNotTheNearestEnd) {
    Graphic eq;
    eq.SetParameter(4, 7.0f);
    eq.SetParameter(4, 100.0f);  // [-70, 70] -> 0
    EXPECT_EQ(eq.GetParameter(4), 0.0f);
    eq.SetParameter(1, -65.0f);  // [-64, 64] -> 0
    EXPECT_EQ(eq.GetParameter(1), 0.0f);
    eq.SetParameter(0, 5.0f);  // [10, 8192] -> 4101
    EXPECT_EQ(eq.GetParameter(0), 4101.0f);
    eq.SetParameter(34, 7.0f);  // [-0.5, 2.49] -> 0.995 -> the 20-band layout
    EXPECT_EQ(eq.GetParameter(34), 1.0f);
    EXPECT_EQ(eq.GetBandCount(), 20);
    eq.SetParameter(5, std::nanf(""));
    EXPECT_EQ(eq.GetParameter(5), 0.0f);
}

TEST(GraphicParameters, BandGainsStayInsideHalfTheRange) {
    Graphic eq;
    eq.SetParameter(4, 30.0f);
    EXPECT_EQ(eq.GetParameter(4), 23.99f);
    eq.SetParameter(5, -24.0f);
    EXPECT_EQ(eq.GetParameter(5), -23.99f);
    eq.SetParameter(6, 23.5f);
    EXPECT_EQ(eq.GetParameter(6), 23.5f);
    eq.SetParameter(19, 30.0f);  // band 16: outside the 10-band layout

    // Narrowing the range pulls the current layout's bands inside it, and nothing else.
    eq.SetParameter(2, 20.04f);  // rounded to one decimal: 20.0
    EXPECT_EQ(eq.GetParameter(2), 20.0f);
    EXPECT_EQ(eq.GetParameter(4), 9.99f);
    EXPECT_EQ(eq.GetParameter(5), -9.99f);
    EXPECT_EQ(eq.GetParameter(6), 9.99f);
    EXPECT_EQ(eq.GetParameter(19), 23.99f);
    eq.SetParameter(2, 30.26f);
    EXPECT_EQ(eq.GetParameter(2), 30.3f);

    // A change of at most 1e-7 dB is not a change.
    eq.SetParameter(7, 0.001f);
    eq.SetParameter(7, 0.001f + 5e-8f);
    EXPECT_EQ(eq.GetParameter(7), 0.001f);
}

TEST(GraphicParameters, ResetCommandZeroesEveryBandAndIsNotStored) {
    Graphic eq;
    for (int k = 0; k < 30; ++k)
        eq.SetParameter(4 + k, static_cast<float>(k % 7) - 3.0f);
    eq.SetParameter(1, 5.0f);
    eq.SetParameter(3, 1.0f);
    for (int k = 0; k < 30; ++k)
        EXPECT_EQ(eq.GetParameter(4 + k), 0.0f);
    EXPECT_EQ(eq.GetParameter(3), 0.0f);
    EXPECT_EQ(eq.GetParameter(1), 5.0f);
}

TEST(GraphicParameters, LayoutSelectsBandCountAndCentres) {
    struct Case {
        float value;
        int bands;
    };
    for (const Case& c :
         {Case{-0.4f, 10}, Case{0.49f, 10}, Case{0.5f, 20}, Case{1.49f, 20}, Case{1.5f, 30}, Case{2.49f, 30}}) {
        Graphic eq;
        eq.SetParameter(34, c.value);
        ASSERT_EQ(eq.GetBandCount(), c.bands) << c.value;
        const int layout = c.bands / 10 - 1;
        for (int k = 0; k < c.bands; ++k)
            EXPECT_NEAR(eq.GetBandFrequency(k), 31.25 * std::pow(2.0, static_cast<double>(k) / (layout + 1)), 1e-9);
        EXPECT_EQ(eq.GetBandFrequency(c.bands), 0.0);
    }
}

// ---- Chunk --------------------------------------------------------------------------------------

void RandomSettings(Graphic& eq, uint64_t seed) {
    Random random(seed);
    eq.SetParameter(0, 1500.0f);
    eq.SetParameter(1, -3.5f);
    eq.SetParameter(2, 30.0f);
    eq.SetParameter(34, 2.0f);
    for (int k = 0; k < 30; ++k)
        eq.SetParameter(4 + k, static_cast<float>(random.Uniform() * 28.0 - 14.0));
}

TEST(GraphicChunk, IsTheParametersAsFloatsInIndexOrder) {
    Graphic eq;
    RandomSettings(eq, 1);
    void* data = nullptr;
    ASSERT_EQ(eq.GetChunk(&data, true), 140);
    ASSERT_NE(data, nullptr);
    float values[35];
    std::memcpy(values, data, sizeof values);
    for (int i = 0; i < 35; ++i)
        EXPECT_EQ(values[i], eq.GetParameter(i)) << i;
    EXPECT_EQ(eq.GetChunk(nullptr, false), 140);
}

TEST(GraphicChunk, RoundTripRestoresEveryParameterAndTheSameOutput) {
    Graphic a;
    RandomSettings(a, 2);
    void* data = nullptr;
    a.GetChunk(&data, true);
    std::vector<unsigned char> saved(static_cast<unsigned char*>(data), static_cast<unsigned char*>(data) + 140);

    Graphic b;
    b.SetParameter(7, 4.0f);
    ASSERT_EQ(b.SetChunk(saved.data(), 140, true), 140);
    for (int i = 0; i < 35; ++i)
        EXPECT_EQ(b.GetParameter(i), a.GetParameter(i)) << i;
    EXPECT_EQ(b.GetBandCount(), 30);
    EXPECT_EQ(b.GetLatency(), a.GetLatency());

    const Channels input = NoiseChannels(2, 20000, 3, 0.5);
    EXPECT_EQ(Stream(b, input), Stream(a, input));
}

TEST(GraphicChunk, ShortChunkCopiesOnlyItsBytesAndLongChunkIsTruncated) {
    EXPECT_EQ(Graphic().SetChunk(nullptr, 500, true), 140);
    EXPECT_EQ(Graphic().SetChunk(nullptr, 20, true), 20);

    Graphic source;
    source.SetParameter(0, 600.0f);
    source.SetParameter(1, -2.0f);
    source.SetParameter(2, 40.0f);
    source.SetParameter(4, -3.0f);
    source.SetParameter(5, -5.0f);
    void* data = nullptr;
    source.GetChunk(&data, false);

    Graphic target;
    target.SetParameter(34, 1.0f);
    for (int k = 0; k < 30; ++k)
        target.SetParameter(4 + k, 6.0f);
    ASSERT_EQ(target.SetChunk(data, 20, false), 20);  // parameters 0 ... 4
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(target.GetParameter(i), source.GetParameter(i)) << i;
    for (int k = 1; k < 30; ++k)
        EXPECT_EQ(target.GetParameter(4 + k), 6.0f) << k;
    EXPECT_EQ(target.GetBandCount(), 20);
    EXPECT_EQ(target.GetLatency(), source.GetLatency());  // the accuracy came with the chunk

    // Bytes past 140 are not taken.
    std::vector<float> longChunk(125, 9.0f);
    std::memcpy(longChunk.data(), data, 140);
    ASSERT_EQ(target.SetChunk(longChunk.data(), 500, false), 140);
    for (int i = 0; i < 35; ++i)
        EXPECT_EQ(target.GetParameter(i), source.GetParameter(i)) << i;
    EXPECT_EQ(target.GetBandCount(), 10);
}

// ---- Response -----------------------------------------------------------------------------------

TEST(GraphicResponse, DefaultImpulseHas2000TapsAndAn8192PointTransform) {
    Graphic eq;
    eq.UpdateImpulses();
    EXPECT_EQ(eq.GetImpulseLength(), 2000);
    EXPECT_EQ(eq.GetFFTSize(), 8192);
    EXPECT_EQ(eq.GetBlockLength(), 8192 - 2000 + 2);
}

// Design accuracy that resolves band k: the Blackman-Harris main lobe of the 2N - 1 taps is
// +-4 rate / (2N) Hz; keep it within half the distance fk ln r on the log axis to the neighbours'
// centres. That is N = 1000 from about 500 Hz (octaves) and N up to 8192 for a third-octave 125 Hz.
int AccuracyFor(double centre, double ratio, double rate) {
    const double n = 4.0 * rate / (centre * std::log(ratio));
    return std::clamp(static_cast<int>(std::ceil(n)), 1000, 8192);
}

class GraphicLayout : public ::testing::TestWithParam<int> {};

TEST_P(GraphicLayout, BoostedBandReachesItsGainAtItsCentre) {
    const int layout = GetParam();
    const int bands = 10 * (layout + 1);
    const double ratio = Ratio(layout);
    for (int k = 0; k < bands; ++k) {
        const double centre = 31.25 * std::pow(ratio, k);
        if (centre < 125.0 || centre >= kRate / 2) continue;
        Graphic eq;
        eq.SetChannels(1);
        eq.SetParameter(34, static_cast<float>(layout));
        eq.SetParameter(0, static_cast<float>(AccuracyFor(centre, ratio, kRate)));
        eq.SetParameter(4 + k, 12.0f);
        const double gain = MeasuredGainDb(eq, centre);
        EXPECT_NEAR(gain, 12.0, 0.5) << bands << " bands, band " << k << " at " << centre << " Hz";
        // The response the host reads is the one the audio gets.
        EXPECT_NEAR(eq.ComputeFilterResponse(static_cast<float>(centre)), gain, 0.02) << centre;
    }
}

INSTANTIATE_TEST_SUITE_P(Layouts, GraphicLayout, ::testing::Values(0, 1, 2),
                         [](const auto& info) { return std::to_string(10 * (info.param + 1)) + "Bands"; });

TEST(GraphicResponse, CutBandsStayLocalAtAnotherSampleRate) {
    // Third octaves at 48 kHz: -12 dB on two bands; the centres two bands away are untouched
    // (each band's share ends at its neighbours' centres).
    const double rate = 48000.0, ratio = Ratio(2);
    for (int band : {14, 22}) {
        Graphic eq;
        eq.SetChannels(1);
        eq.SetSampleRate(48000);
        eq.SetParameter(34, 2.0f);
        eq.SetParameter(0, 4000.0f);
        eq.SetParameter(4 + band, -12.0f);
        const double centre = 31.25 * std::pow(ratio, band);
        EXPECT_NEAR(MeasuredGainDb(eq, centre, rate), -12.0, 0.5) << centre;
        eq.Resume();
        EXPECT_NEAR(MeasuredGainDb(eq, centre * ratio * ratio, rate), 0.0, 0.1);
        eq.Resume();
        EXPECT_NEAR(MeasuredGainDb(eq, centre / ratio / ratio, rate), 0.0, 0.1);
    }
}

TEST(GraphicResponse, FirstBandReachesDownToDc) {
    // Everything below the first centre belongs to band 1, so it acts as a low shelf.
    Graphic eq;
    eq.SetChannels(1);
    eq.SetParameter(0, 8192.0f);
    eq.SetParameter(4, 12.0f);
    EXPECT_NEAR(MeasuredGainDb(eq, 10.0), 12.0, 0.5);
    EXPECT_NEAR(eq.ComputeFilterResponse(0.0f), 12.0, 0.5);
}

TEST(GraphicResponse, ImpulseIsSymmetricSoThePhaseIsLinear) {
    for (int layout = 0; layout < 3; ++layout) {
        Graphic eq;
        RandomSettings(eq, 10 + layout);
        eq.SetParameter(34, static_cast<float>(layout));
        eq.UpdateImpulses();
        const int n = eq.GetImpulseLength() / 2;
        const double* h = eq.GetImpulse();
        EXPECT_EQ(h[0], 0.0);
        for (int d = 1; d < n; ++d)
            ASSERT_EQ(h[n + d], h[n - d]) << d;
    }
}

TEST(GraphicResponse, MasterGainScalesTheOutputFromTheNextCall) {
    Graphic eq;
    eq.SetChannels(1);
    const int latency = eq.GetLatency();
    const Signal x = WhiteNoise(static_cast<std::size_t>(latency) * 3, 4, 0.5);
    Signal y(x.size());
    float* in = const_cast<float*>(x.data());
    float* out = y.data();
    eq.Process(&in, &out, 1, latency);
    eq.SetParameter(1, -6.0f);  // no change flag: picked up by the next call
    float* in2 = in + latency;
    float* out2 = out + latency;
    eq.Process(&in2, &out2, 1, latency * 2);
    const double gain = std::pow(10.0, -6.0 / 20.0);
    // Output from the block after the change on carries the gain.
    for (std::size_t i = 2 * static_cast<std::size_t>(latency); i < y.size(); ++i)
        ASSERT_NEAR(y[i], gain * x[i - latency], 1e-6) << i;
}

// ---- Single-band update -------------------------------------------------------------------------

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
            const int band = random.UniformInt(0, bands - 1);
            // Every fifth step takes a band back to 0 dB, which a redesign leaves out altogether.
            const double gain = step % 5 == 4 ? 0.0 : random.Uniform() * 40.0 - 20.0;
            incremental.SetParameter(4 + band, static_cast<float>(gain));
            incremental.UpdateImpulses();

            Graphic full;
            for (int i : {2, 34})
                full.SetParameter(i, incremental.GetParameter(i));
            for (int k = 0; k < bands; ++k)
                full.SetParameter(4 + k, incremental.GetParameter(4 + k));
            full.UpdateImpulses();
            ExpectSameImpulse(incremental, full, 1e-9);
        }
    }
}

TEST(GraphicUpdate, BandOutsideTheLayoutLeavesTheImpulseAlone) {
    Graphic eq, reference;
    eq.SetParameter(5, 3.0f);
    reference.SetParameter(5, 3.0f);
    eq.UpdateImpulses();
    reference.UpdateImpulses();
    eq.SetParameter(4 + 25, 10.0f);
    eq.UpdateImpulses();
    ExpectSameImpulse(eq, reference, 0.0);
}

TEST(GraphicUpdate, NarrowerRangeRedesignsWithTheLimitedGains) {
    Graphic eq, reference;
    eq.SetParameter(4, 20.0f);
    eq.SetParameter(9, -3.0f);
    eq.UpdateImpulses();
    eq.SetParameter(2, 20.0f);
    eq.UpdateImpulses();
    reference.SetParameter(2, 20.0f);
    reference.SetParameter(4, 9.99f);
    reference.SetParameter(9, -3.0f);
    reference.UpdateImpulses();
    ExpectSameImpulse(eq, reference, 1e-12);
}

// ---- Streaming ----------------------------------------------------------------------------------

TEST(GraphicStreaming, FlatSettingsAreAPureDelayOfTheLatency) {
    for (int accuracy : {10, 1000, 1537, 3000}) {
        for (int channels : {1, 2, 3}) {
            Graphic eq;
            eq.SetChannels(channels);
            eq.SetParameter(0, static_cast<float>(accuracy));
            const int latency = eq.GetLatency();  // asked before anything is set up
            const Channels input = NoiseChannels(channels, static_cast<std::size_t>(latency) + 20000, 5, 0.9);
            const Channels output = Stream(eq, input, 1000);
            for (int c = 0; c < channels; ++c)
                ASSERT_LE(MaxAbsDiff(output[c], Delayed(input[c], static_cast<std::size_t>(latency))), 1e-6)
                    << "N = " << accuracy << ", channel " << c << " of " << channels;
        }
    }
}

TEST(GraphicStreaming, AccuracyChangeStartsAStreamWithTheNewLatency) {
    Graphic eq;
    eq.SetChannels(1);
    const Signal x = WhiteNoise(40000, 6, 0.5);
    Signal y(x.size());
    float* in = const_cast<float*>(x.data());
    float* out = y.data();
    const int first = 5000;
    eq.Process(&in, &out, 1, first);
    eq.SetParameter(0, 400.0f);
    const int latency = eq.GetLatency();
    float* in2 = in + first;
    float* out2 = out + first;
    eq.Process(&in2, &out2, 1, static_cast<int>(x.size()) - first);
    const Signal expected = Delayed(std::span<const float>(x).subspan(first), static_cast<std::size_t>(latency));
    EXPECT_LE(MaxAbsDiff(std::span<const float>(y).subspan(first), expected), 1e-6);
}

TEST(GraphicStreaming, BlockPartitionDoesNotChangeOutput) {
    auto make = [] {
        Graphic eq;
        RandomSettings(eq, 7);
        eq.SetParameter(0, 1000.0f);
        return eq;
    };
    const Channels input = NoiseChannels(2, 23000, 8, 0.5);
    Graphic whole = make();
    const Channels reference = Stream(whole, input, static_cast<int>(input[0].size()));
    for (int block : {1, 7, 512, 4096, 6194, 10000}) {
        Graphic eq = make();
        EXPECT_EQ(Stream(eq, input, block), reference) << block;
    }
    Graphic random = make();
    EXPECT_EQ(RunInRandomBlocks(input, Feed(random, 2), 3000, 9), reference);

    Graphic single = make();
    Channels bySample = ZeroChannels(2, input[0].size());
    for (std::size_t i = 0; i < input[0].size(); ++i) {
        float in[2] = {input[0][i], input[1][i]};
        float out[2];
        single.ProcessOneSample(in, out);
        bySample[0][i] = out[0];
        bySample[1][i] = out[1];
    }
    EXPECT_EQ(bySample, reference);

    // In place.
    Graphic inPlace = make();
    Channels buffer = input;
    float* io[2] = {buffer[0].data(), buffer[1].data()};
    inPlace.Process(io, io, 2, static_cast<int>(buffer[0].size()));
    EXPECT_EQ(buffer, reference);
}

TEST(GraphicStreaming, ChannelsAreFilteredIndependently) {
    // Three channels: two share a transform, the third is paired with silence. Each must come out
    // as if it had been filtered alone.
    const Channels input = NoiseChannels(3, 20000, 11, 0.5);
    Graphic eq;
    eq.SetChannels(3);
    RandomSettings(eq, 12);
    const Channels output = Stream(eq, input, 777);
    for (int c = 0; c < 3; ++c) {
        Graphic mono;
        mono.SetChannels(1);
        RandomSettings(mono, 12);
        const Channels alone = Stream(mono, {input[c]}, 777);
        EXPECT_LE(MaxAbsDiff(output[c], alone[0]), 1e-6) << c;
        EXPECT_GT(Rms(alone[0]), 0.05);
    }
}

TEST(GraphicStreaming, ResumeStartsANewStream) {
    const Channels input = NoiseChannels(2, 15000, 13, 0.5);
    Graphic eq;
    RandomSettings(eq, 14);
    const Channels first = Stream(eq, input);
    eq.Resume();
    EXPECT_EQ(Stream(eq, input), first);
}

TEST(GraphicStreaming, CopyContinuesTheStreamOnItsOwn) {
    const Channels head = NoiseChannels(2, 9000, 15, 0.5);
    const Channels tail = NoiseChannels(2, 12000, 16, 0.5);
    Graphic original;
    RandomSettings(original, 17);
    Stream(original, head);
    Graphic copy(original);
    Graphic assigned;
    assigned = original;
    const Channels expected = Stream(original, tail);
    EXPECT_EQ(Stream(copy, tail), expected);
    EXPECT_EQ(Stream(assigned, tail), expected);
}

TEST(GraphicStreaming, ProcessAllocatesNothing) {
    Graphic eq;
    RandomSettings(eq, 18);
    Channels buffer = NoiseChannels(2, 4096, 19, 0.5);
    float* io[2] = {buffer[0].data(), buffer[1].data()};
    eq.Process(io, io, 2, 4096);  // the first call sets everything up

    kesta::test::AllocationCounter allocations;
    for (int round = 0; round < 8; ++round) {
        switch (round) {
            case 2:
                eq.SetParameter(6, 3.0f);
                break;  // single-band update
            case 4:
                eq.SetParameter(2, 24.0f);
                break;  // full redesign
            case 6:
                eq.SetParameter(1, -2.0f);
                break;  // master gain
            default:
                break;
        }
        eq.Process(io, io, 2, 4096);
        float in[2] = {0.1f, -0.1f}, out[2];
        eq.ProcessOneSample(in, out);
    }
    EXPECT_EQ(allocations.Count(), 0);
}

}  // namespace
