// Parametric equaliser: the parameter table's rules (midpoints, switches, constant Q, the range
// command), the drawn response against the Butterworth formula and measured sines, and streaming
// (block partitions, entry points, bypass, Resume, copies, tails, allocation).

#include "dsp/parametric.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <numbers>
#include <string>
#include <vector>

#include "dsp/core/denormal_guard.h"
#include "dsp/self_checks.h"
#include "support/allocation_counter.h"
#include "support/metrics.h"
#include "support/signals.h"

namespace {

using dsp::Parametric;
using namespace kesta::test;
using P = Parametric::Param;

constexpr int BandParam(int band, int offset) {
    return Parametric::BandParameter(band, offset);
}

// |H| of the bilinear Butterworth design on prewarped frequencies, in long double.
long double ButterworthMagnitude(bool lowPass, int order, long double cutoff, long double f, long double rate) {
    const long double t = std::tan(std::numbers::pi_v<long double> * f / rate);
    const long double k = std::tan(std::numbers::pi_v<long double> * cutoff / rate);
    const long double r = lowPass ? t / k : k / t;
    return 1.0L / std::sqrt(1.0L + std::pow(r, 2.0L * order));
}

// Steady-state gain in dB of channel 0's block path at f: a sine run through a copy of `eq`,
// measured after the transients have died away.
double MeasuredGainDb(const Parametric& eq, double f, double rate, double settleSeconds = 0.5) {
    Parametric run(eq);
    const auto settle = static_cast<std::size_t>(settleSeconds * rate);
    const auto measure = static_cast<std::size_t>(0.5 * rate);
    const double amplitude = 0.5;
    Signal x = Sine(settle + measure, f, rate, amplitude);
    run.Process(x.data(), x.data(), static_cast<int>(x.size()));
    return ToDb(LevelAt(std::span<const float>(x).subspan(settle), f, rate) / amplitude);
}

// Every shelf and band audible.
void ShapeEverySection(Parametric& eq) {
    eq.SetParameter(P::kLowShelfFrequency, 100.0f);
    eq.SetParameter(P::kLowShelfGain, 6.0f);
    eq.SetParameter(P::kHighShelfFrequency, 8000.0f);
    eq.SetParameter(P::kHighShelfGain, -4.0f);
    const float q[Parametric::kBandCount] = {2.0f, 1.5f, 4.0f, 3.0f, 2.0f};
    const float gain[Parametric::kBandCount] = {5.0f, -6.0f, 8.0f, -10.0f, 4.0f};
    for (int k = 0; k < Parametric::kBandCount; ++k) {
        eq.SetParameter(BandParam(k, Parametric::kBandQ), q[k]);
        eq.SetParameter(BandParam(k, Parametric::kBandGain), gain[k]);
    }
}

void SetCutFilters(Parametric& eq, float highPass, float lowPass, int order) {
    eq.SetParameter(P::kHighPassOn, 1.0f);
    eq.SetParameter(P::kHighPassCutoff, highPass);
    eq.SetParameter(P::kHighPassOrder, static_cast<float>(order));
    eq.SetParameter(P::kLowPassOn, 1.0f);
    eq.SetParameter(P::kLowPassCutoff, lowPass);
    eq.SetParameter(P::kLowPassOrder, static_cast<float>(order));
}

// ---- Parameters ---------------------------------------------------------------------------

// An out-of-range value becomes the midpoint; switches read on from 0.5; constant Q and bypass
// are read as switches but kept as given; indices outside the table are ignored.
TEST(ParametricParameters, OutOfRangeValueBecomesTheMidpointAndSwitchesReadAtHalf) {
    struct Row {
        int index;
        float value, stored;
    };
    const int bandOn = BandParam(0, Parametric::kBandOn);
    Parametric eq;
    for (const Row& row :
         {Row{P::kLowShelfGain, 60.0f, 0.0f}, Row{P::kOutputGain, 50.0f, -24.0f},
          Row{P::kLowShelfFrequency, 10.0f, 11035.0f}, Row{P::kHighPassOrder, std::nanf(""), 4.5f},
          Row{bandOn, 2.0f, 0.0f}, Row{bandOn, 0.5f, 1.0f}, Row{bandOn, 0.49f, 0.0f}, Row{P::kHighPassOn, 0.7f, 1.0f},
          Row{P::kConstantQ, 0.7f, 0.7f}, Row{P::kBypass, 3.0f, 0.5f}}) {
        eq.SetParameter(row.index, row.value);
        EXPECT_EQ(eq.GetParameter(row.index), row.stored) << row.index << " set to " << row.value;
    }
    std::vector<float> before;
    for (int i = 0; i < Parametric::kParameterCount; ++i)
        before.push_back(eq.GetParameter(i));
    eq.SetParameter(45, 1.0f);
    eq.SetParameter(-1, 1.0f);
    for (int i = 0; i < Parametric::kParameterCount; ++i)
        EXPECT_EQ(eq.GetParameter(i), before[static_cast<std::size_t>(i)]) << i;
    EXPECT_EQ(eq.GetParameter(45), 0.0f);
}

TEST(ParametricParameters, BandFrequencyMoveKeepsQInConstantQModeAndBandwidthOtherwise) {
    const int f = BandParam(0, Parametric::kBandFrequency), q = BandParam(0, Parametric::kBandQ);
    const int bw = P::kFirstBandwidth;
    {
        Parametric eq;  // constant Q by default
        eq.SetParameter(f, 100.0f);
        EXPECT_EQ(eq.GetParameter(bw), 50.0f);
        EXPECT_EQ(eq.GetParameter(q), 2.0f);
        // Setting Q or the bandwidth derives the other without any limit ...
        eq.SetParameter(q, 0.001f);
        EXPECT_FLOAT_EQ(eq.GetParameter(bw), 100000.0f);
        // ... but a frequency move holds the derived value in [0.0001, 10000].
        eq.SetParameter(f, 200.0f);
        EXPECT_EQ(eq.GetParameter(bw), 10000.0f);
        // The same frequency again is no move: nothing is re-derived.
        eq.SetParameter(bw, 30.0f);
        EXPECT_FLOAT_EQ(eq.GetParameter(q), 200.0f / 30.0f);
        eq.SetParameter(q, 0.001f);
        eq.SetParameter(f, 200.0f);
        EXPECT_FLOAT_EQ(eq.GetParameter(bw), 200000.0f);
    }
    {
        Parametric eq;
        eq.SetParameter(P::kConstantQ, 0.0f);
        eq.SetParameter(f, 100.0f);
        EXPECT_EQ(eq.GetParameter(q), 4.0f);
        EXPECT_EQ(eq.GetParameter(bw), 25.0f);
        eq.SetParameter(bw, 0.001f);
        EXPECT_FLOAT_EQ(eq.GetParameter(q), 100000.0f);
        eq.SetParameter(f, 50.0f);
        EXPECT_EQ(eq.GetParameter(q), 10000.0f);
        EXPECT_FLOAT_EQ(eq.GetParameter(bw), 0.001f);
    }
}

TEST(ParametricParameters, RangeCommandRescalesEveryFrequencyAndStoresNothing) {
    const int frequencies[] = {0, 2, 4, 8, 12, 16, 20, 38, 41};
    // f' = lo + (f - lo) (new/2 - lo) / (current/2 - lo), at most current/2 (and, at a new rate
    // below twice the minimum, no less than the minimum).
    auto expected = [](long double f, long double lo, long double current, long double next) {
        const long double v = lo + (f - lo) * (next / 2 - lo) / (current / 2 - lo);
        return static_cast<float>(std::clamp(v, lo, current / 2));
    };
    for (const float newRate : {32000.0f, 96000.0f, 0.0f}) {
        Parametric eq;
        eq.SetParameter(P::kLowPassCutoff, 15000.0f);
        eq.SetParameter(BandParam(2, Parametric::kBandQ), 3.0f);
        std::vector<float> before;
        for (int i = 0; i < Parametric::kParameterCount; ++i)
            before.push_back(eq.GetParameter(i));
        eq.SetParameter(P::kRangeSampleRate, newRate);
        for (int index : frequencies) {
            float lo, hi;
            eq.GetBounds(index, lo, hi);
            EXPECT_FLOAT_EQ(eq.GetParameter(index),
                            expected(before[static_cast<std::size_t>(index)], lo, 44100, newRate))
                << "rate " << newRate << " index " << index;
        }
        // Constant Q: each band keeps its Q and takes bandwidth = frequency / Q, held in
        // [0.0001, 10000] as after any frequency move.
        for (int k = 0; k < Parametric::kBandCount; ++k) {
            const float q = eq.GetParameter(BandParam(k, Parametric::kBandQ));
            EXPECT_EQ(q, before[static_cast<std::size_t>(BandParam(k, Parametric::kBandQ))]);
            EXPECT_FLOAT_EQ(
                eq.GetParameter(P::kFirstBandwidth + k),
                std::clamp(eq.GetParameter(BandParam(k, Parametric::kBandFrequency)) / q, 0.0001f, 10000.0f))
                << "rate " << newRate << " band " << k;
        }
        EXPECT_EQ(eq.GetParameter(P::kRangeSampleRate), 44100.0f);
        EXPECT_EQ(eq.GetSampleRate(), 44100);
    }
    // A value that rounds to the current rate is no command.
    Parametric eq;
    eq.SetParameter(P::kRangeSampleRate, 44100.4f);
    EXPECT_EQ(eq.GetParameter(P::kHighShelfFrequency), 18000.0f);
    // In fixed-bandwidth mode the bands keep their bandwidth instead.
    eq.SetParameter(P::kConstantQ, 0.0f);
    eq.SetParameter(P::kRangeSampleRate, 22050.0f);
    EXPECT_EQ(eq.GetParameter(P::kFirstBandwidth + 3), 1600.0f);
    EXPECT_FLOAT_EQ(eq.GetParameter(BandParam(3, Parametric::kBandQ)), eq.GetParameter(BandParam(3, 0)) / 1600.0f);
}

// ---- Cut filters and the drawn response ------------------------------------------------------

TEST(ParametricCutFilters, DrawnCurveIsTheButterworthFormulaWithTheOrderRoundedHalfUp) {
    for (const float order : {1.0f, 2.0f, 3.0f, 4.49f, 4.5f, 6.0f, 7.0f, 8.0f}) {
        const int n = static_cast<int>(order + 0.5f);
        for (const bool lowPass : {false, true}) {
            Parametric eq;  // shelves and bands at 0 dB: only the cut filter shapes the curve
            eq.SetParameter(lowPass ? P::kLowPassOn : P::kHighPassOn, 1.0f);
            eq.SetParameter(lowPass ? P::kLowPassCutoff : P::kHighPassCutoff, 2500.0f);
            eq.SetParameter(lowPass ? P::kLowPassOrder : P::kHighPassOrder, order);
            for (const float f : {300.0f, 1200.0f, 2500.0f, 4000.0f, 12000.0f}) {
                const long double expected = ButterworthMagnitude(lowPass, n, 2500.0L, f, 44100.0L);
                EXPECT_NEAR(eq.ComputeFilterResponse(f), static_cast<double>(expected),
                            5e-6 * static_cast<double>(expected))
                    << "order " << order << (lowPass ? " low" : " high") << "-pass at " << f;
            }
        }
    }
}

class ParametricDrawnResponse : public ::testing::TestWithParam<int> {};

// Every shelf and band plus both cut filters; odd orders with first-order shelves in direct form,
// even orders with second-order shelves, and the state-variable realisation from order 5 on.
TEST_P(ParametricDrawnResponse, MatchesTheMeasuredResponseAcrossTheAudioBand) {
    const int order = GetParam();
    Parametric eq;
    eq.SetChannels(1);
    ShapeEverySection(eq);
    SetCutFilters(eq, 40.0f, 12000.0f, order);
    eq.SetParameter(P::kLowShelfSecondOrder, order % 2 == 0 ? 1.0f : 0.0f);
    eq.SetParameter(P::kHighShelfSecondOrder, order % 2 == 0 ? 1.0f : 0.0f);
    eq.SetParameter(P::kStateVariable, order >= 5 ? 1.0f : 0.0f);
    eq.Resume();
    for (int i = 0; i < 30; ++i) {  // log-spaced from 20 Hz to 20 kHz
        const auto f = static_cast<float>(20.0 * std::pow(1000.0, i / 29.0));
        EXPECT_NEAR(MeasuredGainDb(eq, f, 44100.0), ToDb(eq.ComputeFilterResponse(f)), 0.1) << "at " << f << " Hz";
    }
}

INSTANTIATE_TEST_SUITE_P(CutOrders, ParametricDrawnResponse, ::testing::Range(1, 9),
                         [](const auto& info) { return "Order" + std::to_string(info.param); });

// A change of rate rebuilds every filter for the new rate; a cutoff above the new Nyquist
// frequency is held just below it, in the filter and in the curve alike.
TEST(ParametricDrawnResponseRates, FollowsTheRateAfterARebuild) {
    for (const int rate : {96000, 32000}) {
        Parametric eq;
        eq.SetChannels(1);
        ShapeEverySection(eq);
        SetCutFilters(eq, 25.0f, 20000.0f, 5);
        eq.Resume();
        float sample = 0.25f;
        eq.Process(&sample, &sample, 1);
        eq.SetSampleRate(rate);
        eq.Resume();
        for (const double fraction : {0.0006, 0.004, 0.02, 0.1, 0.3, 0.45}) {
            const auto f = static_cast<float>(fraction * rate);
            EXPECT_NEAR(MeasuredGainDb(eq, f, rate), ToDb(eq.ComputeFilterResponse(f)), 0.1)
                << rate << " Hz at " << f << " Hz";
        }
    }
}

// ---- Sections switched off, bypass, pending changes -----------------------------------------

TEST(ParametricSwitches, SectionsSwitchedOffOrBelowTheThresholdPassAudioBitExactly) {
    const Signal x = WhiteNoise(5000, 3, 0.5);
    auto passes = [&x](Parametric& eq) {
        Signal y(x.size());
        eq.Process(const_cast<float*>(x.data()), y.data(), static_cast<int>(x.size()));
        return y == x;
    };
    Parametric eq;
    eq.SetChannels(1);
    ShapeEverySection(eq);
    eq.SetParameter(P::kLowShelfOn, 0.0f);
    eq.SetParameter(P::kHighShelfOn, 0.0f);
    for (int k = 0; k < Parametric::kBandCount; ++k)
        eq.SetParameter(BandParam(k, Parametric::kBandOn), 0.0f);
    EXPECT_TRUE(passes(eq));
    // Changing an off band's gain, or an off shelf's order, does not switch it on.
    eq.SetParameter(BandParam(2, Parametric::kBandGain), 12.0f);
    eq.SetParameter(P::kLowShelfSecondOrder, 1.0f);
    eq.SetParameter(P::kHighShelfSecondOrder, 1.0f);
    EXPECT_TRUE(passes(eq));
    // On, but below 0.0001 dB.
    eq.SetParameter(BandParam(2, Parametric::kBandOn), 1.0f);
    eq.SetParameter(BandParam(2, Parametric::kBandGain), 0.00009f);
    eq.SetParameter(P::kLowShelfOn, 1.0f);
    eq.SetParameter(P::kLowShelfGain, -0.00009f);
    EXPECT_TRUE(passes(eq));
    EXPECT_FLOAT_EQ(eq.ComputeFilterResponse(1000.0f), 1.0f);
    // The same band just above the threshold is audible.
    eq.SetParameter(BandParam(2, Parametric::kBandGain), 0.5f);
    EXPECT_FALSE(passes(eq));
}

TEST(ParametricSwitches, BypassCopiesTheInputBitExactlyWithEverythingOn) {
    Parametric eq;
    eq.SetChannels(2);
    ShapeEverySection(eq);
    SetCutFilters(eq, 80.0f, 9000.0f, 6);
    eq.SetParameter(P::kOutputGain, -7.0f);
    eq.SetParameter(P::kBypass, 1.0f);
    const Channels x = NoiseChannels(2, 3000, 5, 0.5);
    Channels y = ZeroChannels(2, 3000);
    eq.Process(const_cast<float*>(x[0].data()), y[0].data(), 3000);
    EXPECT_EQ(y[0], x[0]);
    EXPECT_EQ(RunInBlocks(
                  x, [&eq](float** in, float** out, int n) { eq.Process(in, out, 2, n); }, 256),
              x);
    eq.SetParameter(P::kBypass, 0.0f);
    eq.Process(const_cast<float*>(x[0].data()), y[0].data(), 3000);
    EXPECT_NE(y[0], x[0]);
}

// ---- Streaming ------------------------------------------------------------------------------

// Everything on (started without Resume, so the first 30 ms glide from silence), and at a fixed
// frame a batch of changes that glide, redesign the cut filters and switch the realisation.
Channels StreamWithChanges(const Channels& input, int channels,
                           const std::function<Channels(Parametric&, const Channels&)>& run) {
    Parametric eq;
    eq.SetChannels(channels);
    ShapeEverySection(eq);
    SetCutFilters(eq, 50.0f, 11000.0f, 5);
    eq.SetParameter(P::kLowShelfSecondOrder, 1.0f);
    const std::size_t split = 7001;
    Channels head(input.size()), tail(input.size());
    for (std::size_t c = 0; c < input.size(); ++c) {
        head[c].assign(input[c].begin(), input[c].begin() + static_cast<std::ptrdiff_t>(split));
        tail[c].assign(input[c].begin() + static_cast<std::ptrdiff_t>(split), input[c].end());
    }
    Channels out = run(eq, head);
    eq.SetParameter(BandParam(1, Parametric::kBandGain), 9.0f);
    eq.SetParameter(BandParam(3, Parametric::kBandFrequency), 2000.0f);
    eq.SetParameter(P::kHighShelfGain, 3.0f);
    eq.SetParameter(P::kLowPassOrder, 8.0f);
    eq.SetParameter(P::kHighPassCutoff, 90.0f);
    eq.SetParameter(P::kStateVariable, 1.0f);
    eq.SetParameter(P::kOutputGain, -2.0f);
    const Channels second = run(eq, tail);
    for (std::size_t c = 0; c < out.size(); ++c)
        out[c].insert(out[c].end(), second[c].begin(), second[c].end());
    return out;
}

TEST(ParametricStreaming, BlockPartitionDoesNotChangeOutput) {
    const Channels input = NoiseChannels(2, 20000, 9, 0.5);
    auto blocks = [](int size) {
        return [size](Parametric& eq, const Channels& x) {
            return RunInBlocks(
                x, [&eq](float** in, float** out, int n) { eq.Process(in, out, 2, n); }, size);
        };
    };
    const Channels reference = StreamWithChanges(input, 2, blocks(512));
    EXPECT_EQ(StreamWithChanges(input, 2, blocks(1)), reference);
    EXPECT_EQ(StreamWithChanges(input, 2, blocks(7)), reference);
    EXPECT_EQ(StreamWithChanges(input, 2,
                                [](Parametric& eq, const Channels& x) {
                                    return RunInRandomBlocks(
                                        x, [&eq](float** in, float** out, int n) { eq.Process(in, out, 2, n); }, 700,
                                        11);
                                }),
              reference);

    // Channel 0's own entry point, on a one-channel equaliser, is the same chain.
    const Channels mono = StreamWithChanges({input[0]}, 1, [](Parametric& eq, const Channels& x) {
        return RunInRandomBlocks(
            x, [&eq](float** in, float** out, int n) { eq.Process(in[0], out[0], n); }, 300, 12);
    });
    EXPECT_EQ(mono[0], reference[0]);
    EXPECT_NE(reference[0], reference[1]);
}

TEST(ParametricStreaming, OneSamplePathIsTheBlockPathWithoutCutFilters) {
    Parametric block, frames;
    for (Parametric* eq : {&block, &frames}) {
        eq->SetChannels(2);
        ShapeEverySection(*eq);
        eq->SetParameter(P::kHighShelfSecondOrder, 1.0f);
        eq->SetParameter(P::kOutputGain, 3.0f);
    }
    const Channels input = NoiseChannels(2, 6000, 13, 0.5);
    const Channels expected = RunInBlocks(
        input, [&block](float** in, float** out, int n) { block.Process(in, out, 2, n); }, 333);
    // Cut filters and the bypass do not act on the per-frame path.
    SetCutFilters(frames, 500.0f, 1000.0f, 8);
    frames.SetParameter(P::kBypass, 1.0f);
    Channels output = ZeroChannels(2, 6000);
    for (std::size_t i = 0; i < 6000; ++i) {
        float in[2] = {input[0][i], input[1][i]}, out[2];
        frames.ProcessOneSample(in, out);
        output[0][i] = out[0];
        output[1][i] = out[1];
    }
    EXPECT_EQ(output, expected);
}

TEST(ParametricStreaming, ResumePutsEverySectionOnItsTargetAtOnce) {
    const Signal x = WhiteNoise(4000, 15, 0.5);
    auto configured = [] {
        Parametric eq;
        eq.SetChannels(1);
        ShapeEverySection(eq);
        return eq;
    };
    Parametric resumed = configured();
    resumed.Resume();
    Signal a = x;
    resumed.Process(a.data(), a.data(), 4000);

    // Built without Resume, the sections glide in from silence: after 30 ms of zeros (which leave
    // the memory at zero) they stand where Resume put them.
    Parametric glided = configured();
    glided.SetupFilters();
    Signal b = x;
    glided.Process(b.data(), b.data(), 4000);
    EXPECT_NE(a, b);
    Signal zeros(2000, 0.0f);
    Parametric settled = configured();
    settled.Process(zeros.data(), zeros.data(), 2000);
    Signal c = x;
    settled.Process(c.data(), c.data(), 4000);
    EXPECT_EQ(c, a);
}

TEST(ParametricStreaming, CopyContinuesTheStreamExactly) {
    const Channels head = NoiseChannels(2, 5000, 17, 0.5);
    const Channels tail = NoiseChannels(2, 5000, 18, 0.5);
    auto run = [](Parametric& eq, const Channels& x) {
        return RunInBlocks(
            x, [&eq](float** in, float** out, int n) { eq.Process(in, out, 2, n); }, 512);
    };
    Parametric original;
    ShapeEverySection(original);
    SetCutFilters(original, 60.0f, 10000.0f, 7);
    run(original, head);  // mid-glide at the copy: the glide must carry over too
    Parametric copy(original);
    Parametric assigned;
    assigned.SetChannels(5);
    assigned.Process(nullptr, nullptr, 0);
    assigned = original;
    const Channels expected = run(original, tail);
    EXPECT_EQ(run(copy, tail), expected);
    EXPECT_EQ(run(assigned, tail), expected);
}

TEST(ParametricStreaming, DecayingTailEndsInZerosWithoutSubnormals) {
    Parametric eq;
    eq.SetChannels(1);
    ShapeEverySection(eq);
    SetCutFilters(eq, 30.0f, 15000.0f, 8);
    eq.Resume();
    Signal x = WhiteNoise(4410, 19, 0.5);
    x.resize(6 * 44100, 0.0f);
    for (std::size_t pos = 0; pos < x.size(); pos += 512)
        eq.Process(x.data() + pos, x.data() + pos, static_cast<int>(std::min<std::size_t>(512, x.size() - pos)));
    for (std::size_t i = 0; i < x.size(); ++i)
        ASSERT_NE(std::fpclassify(x[i]), FP_SUBNORMAL) << i;
    EXPECT_EQ(x.back(), 0.0f);
    // The caller's floating-point mode is back as it was.
    EXPECT_FALSE(dsp::DenormalGuard::FlushingEnabled());
}

TEST(ParametricStreaming, ProcessAllocatesNothing) {
    Parametric eq;
    ShapeEverySection(eq);
    SetCutFilters(eq, 40.0f, 16000.0f, 4);
    eq.Resume();
    Channels buffer = NoiseChannels(2, 2048, 21, 0.5);
    float* io[2] = {buffer[0].data(), buffer[1].data()};

    AllocationCounter allocations;
    const std::pair<int, float> changes[] = {{BandParam(0, Parametric::kBandGain), -3.0f},
                                             {BandParam(4, Parametric::kBandFrequency), 9000.0f},
                                             {P::kLowPassOrder, 7.0f},
                                             {P::kHighPassCutoff, 120.0f},
                                             {P::kStateVariable, 1.0f},
                                             {BandParam(2, Parametric::kBandOn), 0.0f},
                                             {P::kHighShelfGain, 5.0f},
                                             {P::kOutputGain, -1.0f}};
    for (const auto& [index, value] : changes) {
        eq.SetParameter(index, value);
        eq.Process(io, io, 2, 2048);
        eq.Process(io[0], io[0], 512);
        float in[2] = {0.1f, -0.1f}, out[2];
        eq.ProcessOneSample(in, out);
        EXPECT_GT(eq.ComputeFilterResponse(1000.0f), 0.0f);
    }
    EXPECT_EQ(allocations.Count(), 0);
}

// ---- Self-checks --------------------------------------------------------------------------------

TEST(ParametricSelfChecks, AllPass) {
    dsp::checks::CheckSuite suite;
    dsp::checks::AddParametricChecks(suite);
    ASSERT_EQ(suite.Size(), 3u);
    for (const auto& result : suite.Run())
        EXPECT_TRUE(result.outcome.passed) << result.name << ": " << result.outcome.detail;
}

}  // namespace
