// SecondOrderIIRFilter: silence from a new object, the identity, block-split invariance, in-place
// and overlapping buffers, the single-precision delay cells (bit for bit against a loop written
// here), coefficient changes that keep the memory, and decaying tails.

#include "dsp/second_order_iir_filter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <span>
#include <vector>

#include "dsp/core/denormal_guard.h"
#include "support/metrics.h"
#include "support/signals.h"

namespace {

using dsp::SecondOrderIIRCoefficients;
using dsp::SecondOrderIIRFilter;
using kesta::test::Signal;

// A resonant peak (RBJ cookbook form, designed here in long double): 800 Hz, +9 dB, Q 4 at 44.1 kHz.
SecondOrderIIRCoefficients Resonator(double frequency = 800.0, double gainDb = 9.0, double q = 4.0,
                                     double rate = 44100.0) {
    const long double A = std::pow(10.0L, gainDb / 40.0L);
    const long double w0 = 2.0L * std::numbers::pi_v<long double> * frequency / rate;
    const long double alpha = std::sin(w0) / (2.0L * q);
    const long double a0 = 1.0L + alpha / A;
    SecondOrderIIRCoefficients c;
    c.b0 = static_cast<double>((1.0L + alpha * A) / a0);
    c.b1 = static_cast<double>(-2.0L * std::cos(w0) / a0);
    c.b2 = static_cast<double>((1.0L - alpha * A) / a0);
    c.a1 = c.b1;
    c.a2 = static_cast<double>((1.0L - alpha / A) / a0);
    return c;
}

// Direct form II with the delay line held in float: the arithmetic the filter promises.
struct SinglePrecisionCells {
    float w1 = 0.0f, w2 = 0.0f;
    float operator()(const SecondOrderIIRCoefficients& c, float in) {
        const double x = in;
        const double w = x - c.a1 * w1 - c.a2 * w2;
        const double y = c.b0 * w + c.b1 * w1 + c.b2 * w2;
        w2 = w1;
        w1 = static_cast<float>(w);
        return static_cast<float>(y);
    }
};

// The same with the delay line in double: what the filter deliberately does not do.
struct DoubleCells {
    double w1 = 0.0, w2 = 0.0;
    float operator()(const SecondOrderIIRCoefficients& c, float in) {
        const double x = in;
        const double w = x - c.a1 * w1 - c.a2 * w2;
        const double y = c.b0 * w + c.b1 * w1 + c.b2 * w2;
        w2 = w1;
        w1 = w;
        return static_cast<float>(y);
    }
};

Signal Filtered(SecondOrderIIRFilter& filter, const Signal& in) {
    Signal out(in.size());
    filter.Process(in.data(), out.data(), in.size());
    return out;
}

TEST(SecondOrderIIRFilter, NewFilterOutputsZeros) {
    SecondOrderIIRFilter filter;
    const Signal out = Filtered(filter, kesta::test::WhiteNoise(1000, 1, 1.0));
    EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](float v) { return v == 0.0f; }));
}

TEST(SecondOrderIIRFilter, UnitB0PassesTheInputBitExactly) {
    SecondOrderIIRFilter filter;
    SecondOrderIIRCoefficients c;
    c.b0 = 1.0;
    filter.SetCoefficients(c);
    Signal in = kesta::test::WhiteNoise(4000, 2, 1.0);
    in[10] = 3.0e38f;
    in[11] = -1.0e-30f;
    in[12] = 0.0f;
    EXPECT_EQ(Filtered(filter, in), in);
}

// Any split of the stream into calls, empty calls included, gives the output of one call.
TEST(SecondOrderIIRFilter, OneCallEqualsSeveralShorterCalls) {
    const Signal in = kesta::test::WhiteNoise(20000, 3, 0.7);
    SecondOrderIIRFilter whole;
    whole.SetCoefficients(Resonator());
    const Signal expected = Filtered(whole, in);
    for (int maxBlock : {1, 17, 1000}) {
        SecondOrderIIRFilter pieces;
        pieces.SetCoefficients(Resonator());
        const kesta::test::Channels out = kesta::test::RunInRandomBlocks(
            {in}, [&](float** i, float** o, int n) { pieces.Process(i[0], o[0], static_cast<std::size_t>(n)); },
            maxBlock, 77);
        EXPECT_EQ(out[0], expected) << "blocks up to " << maxBlock;
    }
    SecondOrderIIRFilter withEmptyCalls;
    withEmptyCalls.SetCoefficients(Resonator());
    Signal out(in.size());
    for (std::size_t at = 0; at < in.size(); at += 500) {
        withEmptyCalls.Process(in.data() + at, out.data() + at, 0);
        withEmptyCalls.Process(in.data() + at, out.data() + at, 500);
    }
    EXPECT_EQ(out, expected);
}

// The delay cells are float: the output equals, bit for bit, the loop above that rounds each new w
// to float before it enters the delay line, and it differs from the same loop with double cells.
TEST(SecondOrderIIRFilter, DelayCellsAreHeldInSinglePrecision) {
    const Signal in = kesta::test::WhiteNoise(8000, 4, 0.9);
    for (const SecondOrderIIRCoefficients& c :
         {Resonator(), Resonator(60.0, -15.0, 0.7), Resonator(15000.0, 12.0, 9.0)}) {
        SecondOrderIIRFilter filter;
        filter.SetCoefficients(c);
        const Signal out = Filtered(filter, in);
        SinglePrecisionCells single;
        DoubleCells full;
        std::size_t differs = 0;
        for (std::size_t n = 0; n < in.size(); ++n) {
            ASSERT_EQ(out[n], single(c, in[n])) << "sample " << n;
            differs += out[n] != full(c, in[n]) ? 1 : 0;
        }
        EXPECT_GT(differs, 0u) << "double delay cells must give different output";
        EXPECT_EQ(filter.GetW1(), static_cast<double>(single.w1));
        EXPECT_EQ(filter.GetW2(), static_cast<double>(single.w2));
    }
}

// In place, and with output overlapping the input one sample ahead, the result is that of
// processing one sample at a time (each output becoming the next input in the shifted case).
TEST(SecondOrderIIRFilter, InPlaceAndOverlappingBuffersActSampleBySample) {
    const Signal in = kesta::test::WhiteNoise(3000, 5, 0.5);
    SecondOrderIIRFilter separate, inPlace;
    separate.SetCoefficients(Resonator());
    inPlace.SetCoefficients(Resonator());
    Signal buffer = in;
    inPlace.Process(buffer.data(), buffer.data(), buffer.size());
    EXPECT_EQ(buffer, Filtered(separate, in));

    SecondOrderIIRFilter shifted, stepwise;
    shifted.SetCoefficients(Resonator(2000.0, -6.0, 1.0));
    stepwise.SetCoefficients(Resonator(2000.0, -6.0, 1.0));
    Signal a(in.size() + 1), b(in.size() + 1);
    std::copy(in.begin(), in.end(), a.begin());
    std::copy(in.begin(), in.end(), b.begin());
    shifted.Process(a.data(), a.data() + 1, in.size());
    for (std::size_t n = 0; n < in.size(); ++n)
        stepwise.Process(b.data() + n, b.data() + n + 1, 1);
    EXPECT_EQ(a, b);
}

// SetCoefficients keeps the delay cells (the stream continues through the change); Reset clears
// them (the output restarts as from a new filter).
TEST(SecondOrderIIRFilter, SetCoefficientsKeepsTheCellsResetClearsThem) {
    const Signal in = kesta::test::WhiteNoise(4000, 6, 0.5);
    const SecondOrderIIRCoefficients first = Resonator(), second = Resonator(3000.0, -9.0, 2.0);
    SecondOrderIIRFilter filter;
    filter.SetCoefficients(first);
    Signal out(in.size());
    filter.Process(in.data(), out.data(), 2000);
    filter.SetCoefficients(second);
    filter.Process(in.data() + 2000, out.data() + 2000, 2000);
    SinglePrecisionCells reference;
    for (std::size_t n = 0; n < in.size(); ++n)
        ASSERT_EQ(out[n], reference(n < 2000 ? first : second, in[n])) << "sample " << n;

    filter.Reset();
    EXPECT_EQ(filter.GetW1(), 0.0);
    EXPECT_EQ(filter.GetW2(), 0.0);
    SecondOrderIIRFilter fresh;
    fresh.SetCoefficients(second);
    EXPECT_EQ(Filtered(filter, in), Filtered(fresh, in));
}

// An impulse decaying through the resonator ends in exact zeros, never in subnormal values, and
// the caller's floating-point mode is untouched; without the guard the same loop goes subnormal.
TEST(SecondOrderIIRFilter, DecayingTailEndsInZerosNotSubnormals) {
    if (!dsp::DenormalGuard::Supported()) GTEST_SKIP() << "no flush-to-zero control on this architecture";
    const SecondOrderIIRCoefficients c = Resonator(800.0, 9.0, 10.0);
    Signal in(40000, 0.0f);
    in[0] = 1.0f;
    SecondOrderIIRFilter filter;
    filter.SetCoefficients(c);
    Signal out(in.size());
    for (std::size_t at = 0; at < in.size(); at += 4096)
        filter.Process(in.data() + at, out.data() + at, std::min<std::size_t>(4096, in.size() - at));
    EXPECT_FALSE(dsp::DenormalGuard::FlushingEnabled());
    auto subnormal = [](float v) { return std::fpclassify(v) == FP_SUBNORMAL; };
    EXPECT_EQ(std::count_if(out.begin(), out.end(), subnormal), 0);
    EXPECT_EQ(out.back(), 0.0f);
    EXPECT_EQ(filter.GetW1(), 0.0);

    SinglePrecisionCells reference;
    std::size_t referenceSubnormals = 0;
    for (float x : in)
        referenceSubnormals += subnormal(reference(c, x)) || subnormal(reference.w1) ? 1 : 0;
    EXPECT_GT(referenceSubnormals, 0u) << "the unguarded loop must reach the subnormal range";
}

}  // namespace
