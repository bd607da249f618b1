// SecondOrderIIRFilter: silence when new, the identity, split, in-place and overlapping calls, the
// single-precision delay cells bit for bit against a loop written here, coefficient changes, and
// decaying tails.

#include "dsp/second_order_iir_filter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "dsp/core/denormal_guard.h"
#include "dsp/filters/filter_design.h"
#include "support/signals.h"

namespace {

using dsp::SecondOrderIIRCoefficients;
using dsp::SecondOrderIIRFilter;
using kesta::test::Signal;
using kesta::test::WhiteNoise;

// A resonant peak at 44.1 kHz, as a coefficient source.
SecondOrderIIRCoefficients Resonator(double frequency = 800.0, double gainDb = 9.0, double q = 4.0) {
    const auto c = dsp::filter_design::PeakOrNotch(44100.0, frequency, gainDb, q, false);
    return {c.a1, c.a2, c.b0, c.b1, c.b2};
}

// Direct form II with the delay line held in Cell: float is what the filter promises.
template <typename Cell>
struct Reference {
    Cell w1 = 0, w2 = 0;
    float operator()(const SecondOrderIIRCoefficients& c, float in) {
        const double w = in - c.a1 * w1 - c.a2 * w2;
        const double y = c.b0 * w + c.b1 * w1 + c.b2 * w2;
        w2 = w1;
        w1 = static_cast<Cell>(w);
        return static_cast<float>(y);
    }
};

SecondOrderIIRFilter Made(const SecondOrderIIRCoefficients& c) {
    SecondOrderIIRFilter filter;
    filter.SetCoefficients(c);
    return filter;
}

Signal Filtered(SecondOrderIIRFilter& filter, const Signal& in) {
    Signal out(in.size());
    filter.Process(in.data(), out.data(), in.size());
    return out;
}

TEST(SecondOrderIIRFilter, NewFilterOutputsZerosAndUnitB0PassesTheInputBitExactly) {
    SecondOrderIIRFilter fresh;
    EXPECT_EQ(Filtered(fresh, WhiteNoise(1000, 1, 1.0)), Signal(1000, 0.0f));
    SecondOrderIIRFilter identity = Made({0.0, 0.0, 1.0, 0.0, 0.0});
    Signal in = WhiteNoise(4000, 2, 1.0);
    in[10] = 3.0e38f;
    in[11] = -1.0e-30f;
    EXPECT_EQ(Filtered(identity, in), in);
}

// Any split of the stream into calls (empty ones included), in place, or with the output one
// sample ahead of the input, gives the output of processing one sample at a time.
TEST(SecondOrderIIRFilter, SplitInPlaceAndOverlappingCallsActSampleBySample) {
    const Signal in = WhiteNoise(20000, 3, 0.7);
    SecondOrderIIRFilter whole = Made(Resonator()), inPlace = Made(Resonator()), withEmptyCalls = Made(Resonator());
    const Signal expected = Filtered(whole, in);
    for (int maxBlock : {1, 17, 1000}) {
        SecondOrderIIRFilter pieces = Made(Resonator());
        const kesta::test::Channels out = kesta::test::RunInRandomBlocks(
            {in}, [&](float** i, float** o, int n) { pieces.Process(i[0], o[0], static_cast<std::size_t>(n)); },
            maxBlock, 77);
        EXPECT_EQ(out[0], expected) << "blocks up to " << maxBlock;
    }
    Signal out(in.size()), buffer = in;
    for (std::size_t at = 0; at < in.size(); at += 500) {
        withEmptyCalls.Process(in.data() + at, out.data() + at, 0);
        withEmptyCalls.Process(in.data() + at, out.data() + at, 500);
    }
    EXPECT_EQ(out, expected);
    inPlace.Process(buffer.data(), buffer.data(), buffer.size());
    EXPECT_EQ(buffer, expected);

    SecondOrderIIRFilter shifted = Made(Resonator(2000.0, -6.0, 1.0)), stepwise = shifted;
    Signal a = in, b = in;
    a.push_back(0.0f);
    b.push_back(0.0f);
    shifted.Process(a.data(), a.data() + 1, in.size());
    for (std::size_t n = 0; n < in.size(); ++n)
        stepwise.Process(b.data() + n, b.data() + n + 1, 1);
    EXPECT_EQ(a, b);
}

// The output equals, bit for bit, the loop that rounds each new w to float before it enters the
// delay line, and differs from the same loop with double cells; a coefficient change keeps the
// cells, Reset clears them.
TEST(SecondOrderIIRFilter, DelayCellsAreHeldInSinglePrecision) {
    const Signal in = WhiteNoise(8000, 4, 0.9);
    const SecondOrderIIRCoefficients second = Resonator(3000.0, -9.0, 2.0);
    for (const SecondOrderIIRCoefficients& c :
         {Resonator(), Resonator(60.0, -15.0, 0.7), Resonator(15000.0, 12.0, 9.0)}) {
        SecondOrderIIRFilter filter = Made(c);
        Signal out(in.size());
        filter.Process(in.data(), out.data(), 6000);
        filter.SetCoefficients(second);
        filter.Process(in.data() + 6000, out.data() + 6000, 2000);
        Reference<float> single;
        Reference<double> full;
        std::size_t differs = 0;
        for (std::size_t n = 0; n < in.size(); ++n) {
            const SecondOrderIIRCoefficients& now = n < 6000 ? c : second;
            ASSERT_EQ(out[n], single(now, in[n])) << "sample " << n;
            differs += out[n] != full(now, in[n]) ? 1 : 0;
        }
        EXPECT_GT(differs, 0u) << "double delay cells must give different output";
        EXPECT_TRUE(filter.GetW1() == single.w1 && filter.GetW2() == single.w2);

        filter.Reset();
        SecondOrderIIRFilter fresh = Made(second);
        EXPECT_EQ(Filtered(filter, in), Filtered(fresh, in));
    }
}

// An impulse through the resonator decays to exact zeros, never subnormals, leaving the caller's
// mode alone; the unguarded reference loop does go subnormal.
TEST(SecondOrderIIRFilter, DecayingTailEndsInZerosNotSubnormals) {
    if (!dsp::DenormalGuard::Supported()) GTEST_SKIP() << "no flush-to-zero control on this architecture";
    const SecondOrderIIRCoefficients c = Resonator(800.0, 9.0, 10.0);
    const Signal in = kesta::test::Impulse(40000, 0);
    SecondOrderIIRFilter filter = Made(c);
    const Signal out = Filtered(filter, in);
    EXPECT_FALSE(dsp::DenormalGuard::FlushingEnabled());
    auto subnormal = [](float v) { return std::fpclassify(v) == FP_SUBNORMAL; };
    EXPECT_EQ(std::count_if(out.begin(), out.end(), subnormal), 0);
    EXPECT_EQ(out.back(), 0.0f);
    Reference<float> reference;
    std::size_t referenceSubnormals = 0;
    for (float x : in)
        referenceSubnormals += subnormal(reference(c, x)) || subnormal(reference.w1) ? 1 : 0;
    EXPECT_GT(referenceSubnormals, 0u) << "the unguarded loop must reach the subnormal range";
}

}  // namespace
