// Filter sections: every shape in both precisions against measured sine gains and the designed
// band-edge gains, the glide, state-variable against direct form, block against one-sample
// processing, the enable/setup/copy rules, and the flush-to-zero guard.

#include "dsp/filter_section.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <numbers>
#include <span>
#include <string>
#include <vector>

#include "dsp/core/denormal_guard.h"
#include "support/metrics.h"
#include "support/signals.h"

namespace {

using namespace dsp;
using kesta::test::LevelAt;
using kesta::test::Signal;
using kesta::test::ToDb;
using kesta::test::WhiteNoise;
using FC = FilterCoefficient;
using Set = std::array<double, FC::Count>;
using Memory4 = std::array<double, 4>;

enum class Shape { HighShelf1, LowShelf1, HighShelf2, LowShelf2, Peak, Notch };

struct ShapeCase {
    const char* name;
    Shape shape;
    bool doublePrecision;
};

const ShapeCase kShapes[] = {
    {"fHISHELVE", Shape::HighShelf1, false},
    {"dHISHELVE", Shape::HighShelf1, true},
    {"fLOSHELVE", Shape::LowShelf1, false},
    {"dLOSHELVE", Shape::LowShelf1, true},
    {"fHISHELVE2", Shape::HighShelf2, false},
    {"dHISHELVE2", Shape::HighShelf2, true},
    {"fLOSHELVE2", Shape::LowShelf2, false},
    {"dLOSHELVE2", Shape::LowShelf2, true},
    {"fPARA", Shape::Peak, false},
    {"dPARA", Shape::Peak, true},
    {"fNotch", Shape::Notch, false},
    {"dNotch", Shape::Notch, true},
};

template <typename F, typename D>
std::unique_ptr<FilterSection> Pick(bool doublePrecision) {
    if (doublePrecision) return std::make_unique<D>();
    return std::make_unique<F>();
}

std::unique_ptr<FilterSection> Make(const ShapeCase& c) {
    switch (c.shape) {
        case Shape::HighShelf1:
            return Pick<fHISHELVE, dHISHELVE>(c.doublePrecision);
        case Shape::LowShelf1:
            return Pick<fLOSHELVE, dLOSHELVE>(c.doublePrecision);
        case Shape::HighShelf2:
            return Pick<fHISHELVE2, dHISHELVE2>(c.doublePrecision);
        case Shape::LowShelf2:
            return Pick<fLOSHELVE2, dLOSHELVE2>(c.doublePrecision);
        case Shape::Peak:
            return Pick<fPARA, dPARA>(c.doublePrecision);
        case Shape::Notch:
            return Pick<fNotch, dNotch>(c.doublePrecision);
    }
    return nullptr;
}

bool IsFirstOrder(Shape s) {
    return s == Shape::HighShelf1 || s == Shape::LowShelf1;
}
bool IsSecondOrderShelf(Shape s) {
    return s == Shape::HighShelf2 || s == Shape::LowShelf2;
}

// The notch does not clamp: a bandwidth beyond half the rate is not a filter anyone sets up.
bool Meaningful(Shape s, float rate, float frequency, float q) {
    return s != Shape::Notch || frequency / q < 0.45f * rate;
}

// Coefficient sets of either precision, widened exactly to double.
template <typename Get>
Set Widen(const FilterSection& s, Get get) {
    Set out{};
    if (auto* f = dynamic_cast<const fFilterSection*>(&s)) {
        const auto& c = get(*f);
        std::copy(c.begin(), c.end(), out.begin());
    } else {
        const auto& c = get(dynamic_cast<const dFilterSection&>(s));
        std::copy(c.begin(), c.end(), out.begin());
    }
    return out;
}
Set Running(const FilterSection& s) {
    return Widen(
        s, [](const auto& x) -> const auto& { return x.runningCoefficients(); });
}
Set Target(const FilterSection& s) {
    return Widen(
        s, [](const auto& x) -> const auto& { return x.targetCoefficients(); });
}
Set Increment(const FilterSection& s) {
    return Widen(
        s, [](const auto& x) -> const auto& { return x.incrementCoefficients(); });
}
Memory4 Memory(const FilterSection& s) {
    if (auto* f = dynamic_cast<const fFilterSection*>(&s))
        return {f->state().mX1, f->state().mX2, f->state().mY1, f->state().mY2};
    const auto& d = dynamic_cast<const dFilterSection&>(s);
    return {d.state().mX1, d.state().mX2, d.state().mY1, d.state().mY2};
}

Set Identity() {
    Set s{};
    s[FC::b0] = 1.0;
    s[FC::D] = 1.0;
    return s;
}

void SetUpSettled(FilterSection& s, float rate, float frequency, float gainDb, float q = 2.0f) {
    s.Setup(rate, frequency, gainDb, q, 0.0f, 0.0f);
    s.TerminateRamp();
}

// Band-edge gain in dB: g -+ 3 dB (first order, peak, notch; g / 2 for |g| < 6), and
// g -+ 20 log10(sqrt 2) for the second-order shelves.
long double EdgeGainDb(Shape shape, long double g) {
    if (IsSecondOrderShelf(shape)) {
        if (g >= 6 || g <= -6) return g + (g > 0 ? -1 : 1) * 20.0L * std::log10(1.41421356237L);
        return g / 2;
    }
    if (g > 6) return g - 3;
    if (g > -6) return g / 2;
    return g + 3;
}

class EveryShape : public testing::TestWithParam<ShapeCase> {};

INSTANTIATE_TEST_SUITE_P(FilterSection, EveryShape, testing::ValuesIn(kShapes),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_P(EveryShape, ComputeResponseMatchesMeasuredSineGain) {
    constexpr std::size_t settle = 4096, measure = 8192;
    for (float rate : {44100.0f, 96000.0f})
        for (float gain : {-12.0f, -3.0f, 3.0f, 12.0f})
            for (double f : {100.0, 1000.0, 10000.0}) {
                auto section = Make(GetParam());
                SetUpSettled(*section, rate, 1000.0f, gain);
                const Signal in = kesta::test::Sine(settle + measure, f, rate, 0.5);
                Signal out = in;
                section->processInplace(out.data(), static_cast<int>(out.size()));
                const double measuredDb = ToDb(LevelAt(std::span<const float>(out).subspan(settle), f, rate) /
                                               LevelAt(std::span<const float>(in).subspan(settle), f, rate));
                EXPECT_NEAR(measuredDb, ToDb(section->computeResponse(static_cast<float>(f), 1.0f)), 0.05)
                    << rate << " Hz rate, " << gain << " dB, at " << f << " Hz";
            }
}

// Shelves reach the band-edge gain at the corner and unity / the full gain at DC and Nyquist; the
// peak and notch reach the full gain at the centre and the band-edge gain at the band edges w1, w2
// (w2 - w1 = 2 pi bandwidth / rate, tan(w1/2) tan(w2/2) = tan^2(w0/2)).
TEST_P(EveryShape, ResponseReachesTheBandEdgeGain) {
    const ShapeCase& c = GetParam();
    const double tolerance = c.doublePrecision ? 1e-6 : 2e-3;
    constexpr long double kPi = std::numbers::pi_v<long double>;
    const float q = 2.0f;
    for (float rate : {44100.0f, 96000.0f})
        for (float corner : {1000.0f, 5000.0f})
            for (float gain : {-12.0f, -6.0f, -3.0f, 3.0f, 6.0f, 12.0f}) {
                auto section = Make(c);
                SetUpSettled(*section, rate, corner, gain, q);
                auto at = [&](long double f) { return ToDb(section->computeResponse(static_cast<float>(f), 1.0f)); };
                const double edge = static_cast<double>(EdgeGainDb(c.shape, gain));
                const bool low = c.shape == Shape::LowShelf1 || c.shape == Shape::LowShelf2;
                const bool high = c.shape == Shape::HighShelf1 || c.shape == Shape::HighShelf2;
                SCOPED_TRACE(std::to_string(rate) + " Hz rate, corner " + std::to_string(corner) + ", gain " +
                             std::to_string(gain));
                EXPECT_NEAR(at(corner), low || high ? edge : gain, tolerance);
                EXPECT_NEAR(at(0), low ? gain : 0.0, tolerance);
                EXPECT_NEAR(at(rate / 2), high ? gain : 0.0, tolerance);
                if (low || high) continue;
                const long double w0 = 2 * kPi * corner / rate, dw = 2 * kPi * (corner / q) / rate;
                const long double k = std::tan(w0 / 2) * std::tan(w0 / 2);
                long double lo = 0, hi = w0;  // bisection for w1
                for (int i = 0; i < 200; ++i) {
                    const long double m = (lo + hi) / 2;
                    (std::tan(m / 2) * std::tan((m + dw) / 2) < k ? lo : hi) = m;
                }
                EXPECT_NEAR(at(lo * rate / (2 * kPi)), edge, tolerance) << "lower edge";
                EXPECT_NEAR(at((lo + dw) * rate / (2 * kPi)), edge, tolerance) << "upper edge";
            }
}

// After settling, the state-variable output of noise is within 1e-5 of max(1, peak) of the direct
// form's (identical for first-order shapes). Float direct form I is itself too inexact at low
// corners, so single precision is compared from 3 kHz up.
TEST_P(EveryShape, StateVariableMatchesDirectFormAfterSettling) {
    const ShapeCase& c = GetParam();
    const Signal noise = WhiteNoise(16384, 42, 0.5);
    for (float rate : {44100.0f, 96000.0f}) {
        const std::vector<float> corners = c.doublePrecision ? std::vector<float>{100.0f, 1000.0f, 10000.0f, rate / 4}
                                                             : std::vector<float>{3000.0f, 10000.0f, rate / 4};
        for (float f : corners)
            for (float gain : {-18.0f, -3.0f, 3.0f, 18.0f})
                for (float q : {0.05f, 0.7f, 4.0f}) {
                    if (!Meaningful(c.shape, rate, f, q)) continue;
                    auto direct = Make(c), stateVariable = Make(c);
                    stateVariable->setStateVariable(true);
                    SetUpSettled(*direct, rate, f, gain, q);
                    SetUpSettled(*stateVariable, rate, f, gain, q);
                    Signal a = noise, b = noise;
                    direct->processInplace(a.data(), static_cast<int>(a.size()));
                    stateVariable->processInplace(b.data(), static_cast<int>(b.size()));
                    double peak = 1.0, error = 0.0;
                    for (std::size_t n = 4096; n < a.size(); ++n) {
                        peak = std::max(peak, static_cast<double>(std::fabs(a[n])));
                        error = std::max(error, static_cast<double>(std::fabs(a[n] - b[n])));
                    }
                    ASSERT_LE(error, 1e-5 * peak) << rate << " Hz rate, " << f << " Hz, " << gain << " dB, q " << q;
                    if (IsFirstOrder(c.shape)) {
                        EXPECT_EQ(a, b);
                    }
                }
    }
}

// A glide lasts exactly rampLength samples along a straight line and ends on the exact target; a
// new target mid-glide starts a full glide from wherever the running set is.
TEST_P(EveryShape, GlideLastsExactlyRampLengthAndEndsOnTheTarget) {
    auto section = Make(GetParam());
    ASSERT_EQ(section->getRampLength(), 1323);
    section->SetupCoefficients(44100.0f, 2000.0f, 9.0f, 1.5f, 0.0f, 0.0f);
    section->enable();
    const Set start = Running(*section), target = Target(*section);
    ASSERT_EQ(start, Identity());
    auto run = [&](int n) {
        for (int i = 0; i < n; ++i)
            section->processOneSample(0.1f);
    };
    run(661);
    const Set half = Running(*section);
    const double tolerance = GetParam().doublePrecision ? 1e-12 : 1e-4;
    for (int i = FC::b0; i <= FC::a2; ++i)
        EXPECT_NEAR(half[i], start[i] + 661.0 * (target[i] - start[i]) / 1323.0, tolerance * (1 + std::fabs(target[i])))
            << "index " << i;
    run(1322 - 661);
    EXPECT_TRUE(section->IsRamping());
    EXPECT_NE(Running(*section), target);
    run(1);
    EXPECT_FALSE(section->IsRamping());
    EXPECT_EQ(Running(*section), target);

    section->SetupCoefficients(44100.0f, 500.0f, -6.0f, 1.5f, 0.0f, 0.0f);
    run(300);
    const Set mid = Running(*section);
    section->SetupCoefficients(44100.0f, 800.0f, 4.0f, 1.5f, 0.0f, 0.0f);
    const Set increment = Increment(*section), newTarget = Target(*section);
    for (int i = FC::b0; i <= FC::a2; ++i)
        EXPECT_NEAR(increment[i], (newTarget[i] - mid[i]) / 1323, 1e-6) << "index " << i;
    run(1322);
    EXPECT_TRUE(section->IsRamping());
    run(1);
    EXPECT_EQ(Running(*section), newTarget);
}

// processInplace equals processOneSample bit for bit, through a glide and after it, in both
// realisations, for float and double samples, whole or cut into random blocks.
TEST_P(EveryShape, BlockProcessingIsBitIdenticalToOneSampleAtATime) {
    const Signal noise = WhiteNoise(6000, 7, 0.8);
    for (bool stateVariable : {false, true}) {
        SCOPED_TRACE(stateVariable ? "state variable" : "direct form");
        auto make = [&] {
            auto s = Make(GetParam());
            s->setStateVariable(stateVariable);
            s->Setup(48000.0f, 3000.0f, 8.0f, 1.0f, 0.0f, 0.0f);
            return s;
        };
        auto one = make(), block = make(), pieces = make(), dOne = make(), dBlock = make();
        Signal expected(noise.size()), whole = noise, parts = noise;
        std::vector<double> dExpected(noise.size()), dWhole(noise.begin(), noise.end());
        for (std::size_t n = 0; n < noise.size(); ++n) {
            expected[n] = one->processOneSample(noise[n]);
            dExpected[n] = dOne->dprocessOneSample(noise[n]);
        }
        block->processInplace(whole.data(), static_cast<int>(whole.size()));
        dBlock->dprocessInplace(dWhole.data(), static_cast<int>(dWhole.size()));
        kesta::test::Random random(stateVariable ? 3 : 4);
        for (std::size_t at = 0; at < parts.size();) {
            const int n = std::min<int>(random.UniformInt(0, 700), static_cast<int>(parts.size() - at));
            pieces->processInplace(parts.data() + at, n);
            at += static_cast<std::size_t>(n);
        }
        EXPECT_EQ(whole, expected);
        EXPECT_EQ(parts, expected);
        EXPECT_EQ(dWhole, dExpected);
    }
}

// Exactly 0 dB leaves the section off and passing its input bit for bit; switched on, the
// first-order shelves, peak and notch hold the identity, the second-order shelves a flat response.
TEST(FilterSection, SetupWithZeroGainDisablesAndPassesInputBitExactly) {
    const Signal noise = WhiteNoise(512, 9, 1.0);
    for (const ShapeCase& c : kShapes) {
        SCOPED_TRACE(c.name);
        auto section = Make(c);
        section->Setup(44100.0f, 1000.0f, 0.0f, 2.0f, 0.0f, 0.0f);
        EXPECT_FALSE(section->isEnabled());
        EXPECT_EQ(section->computeResponse(300.0f, 0.7f), 0.7f);
        Signal out = noise;
        section->processInplace(out.data(), static_cast<int>(out.size()));
        EXPECT_EQ(out, noise);
        EXPECT_EQ(section->processOneSample(-1e-30f), -1e-30f);
        section->setEnable(true);
        if (IsSecondOrderShelf(c.shape)) {
            for (float f : {20.0f, 1000.0f, 20000.0f})
                EXPECT_NEAR(section->computeResponse(f, 1.0f), 1.0f, 1e-6f);
        } else {
            const Set t = Target(*section);
            EXPECT_TRUE(std::equal(t.begin(), t.begin() + FC::A11, Identity().begin()));
        }
    }
}

// enable on a disabled section restarts the glide from the identity, on an enabled one it changes
// nothing; a disabled section passes samples unchanged and holds its glide.
TEST(FilterSection, EnableFadesInAndDisableHoldsTheGlide) {
    fPARA section;
    SetUpSettled(section, 44100.0f, 1000.0f, 12.0f);
    const Set target = Target(section);
    section.enable();
    EXPECT_EQ(Running(section), target);
    EXPECT_FALSE(section.IsRamping());

    section.disable();
    section.enable();
    EXPECT_EQ(Running(section), Identity());
    EXPECT_EQ(section.getRampRemaining(), 1323);
    EXPECT_EQ(section.processOneSample(0.5f), 0.5f);
    for (int n = 0; n < 100; ++n)
        section.processOneSample(0.5f);

    section.disable();
    const Set held = Running(section);
    Signal block(64, 0.3f);
    section.processInplace(block.data(), 64);
    EXPECT_EQ(block, Signal(64, 0.3f));
    EXPECT_EQ(section.dprocessOneSample(0.1), 0.1);
    EXPECT_EQ(Running(section), held);
    EXPECT_EQ(section.getRampRemaining(), 1222);
}

// A change of realisation clears the memory; only switching on starts a glide.
TEST(FilterSection, StateVariableSwitchClearsMemoryAndGlidesOnlyWhenTurnedOn) {
    dPARA section;
    SetUpSettled(section, 44100.0f, 1000.0f, 6.0f);
    for (int n = 0; n < 10; ++n)
        section.processOneSample(0.5f);
    ASSERT_NE(Memory(section), Memory4{});
    section.setStateVariable(true);
    EXPECT_EQ(Memory(section), Memory4{});
    EXPECT_EQ(section.getRampRemaining(), section.getRampLength());
    for (int n = 0; n < 10; ++n)
        section.processOneSample(0.5f);
    const int32_t remaining = section.getRampRemaining();
    section.setStateVariable(false);
    EXPECT_EQ(Memory(section), Memory4{});
    EXPECT_EQ(section.getRampRemaining(), remaining);
    EXPECT_FALSE(section.isStateVariable());
}

// Copy construction carries settings and counters but starts from identity sets and clear memory;
// assignment carries everything; CopyCoefficients takes sets, counters and the enabled flag from
// the same precision, clears the memory, and ignores the other precision.
TEST(FilterSection, CopyConstructionAndAssignmentDifferAsIntended) {
    fLOSHELVE2 source;
    source.setSmoothingTime(0.01f);
    source.Setup(48000.0f, 300.0f, -9.0f, 0.5f, 0.0f, 0.0f);
    for (int n = 0; n < 50; ++n)
        source.processOneSample(0.25f);

    fLOSHELVE2 copied(source);
    EXPECT_TRUE(copied.getSampleRate() == 48000.0f && copied.getFrequency() == 300.0f && copied.getGainDb() == -9.0f &&
                copied.getBandwidth() == 600.0f && copied.getSmoothingTime() == 0.01f && copied.isEnabled());
    EXPECT_EQ(copied.getRampRemaining(), source.getRampRemaining());
    EXPECT_EQ(Running(copied), Identity());
    EXPECT_EQ(Target(copied), Identity());
    EXPECT_EQ(Memory(copied), Memory4{});

    fLOSHELVE2 assigned;
    assigned = source;
    EXPECT_EQ(Increment(assigned), Increment(source));
    for (int n = 0; n < 100; ++n)
        ASSERT_EQ(assigned.processOneSample(0.1f), source.processOneSample(0.1f));

    fPARA other;
    for (int n = 0; n < 5; ++n)
        other.processOneSample(0.5f);
    other.CopyCoefficients(source);
    EXPECT_EQ(Running(other), Running(source));
    EXPECT_EQ(Target(other), Target(source));
    EXPECT_TRUE(other.getRampRemaining() == source.getRampRemaining() && other.isEnabled());
    EXPECT_EQ(Memory(other), Memory4{});

    dPARA wider;
    wider.CopyCoefficients(source);
    EXPECT_EQ(Target(wider), Identity());
    EXPECT_FALSE(wider.isEnabled());
}

// The peak clamps its normalised frequency (to [1e-5, 0.99999]) and bandwidth (to 0.49999); the
// notch does not. Each pair has the same bandwidth, so only a clamp makes the targets equal.
TEST(FilterSection, PeakClampsFrequencyAndBandwidthNotchDoesNot) {
    struct Pair {
        float fa, qa, fb, qb;
    };
    for (const Pair& p : {Pair{50000.0f, 50.0f, 60000.0f, 60.0f}, Pair{0.1f, 0.0001f, 0.2f, 0.0002f},
                          Pair{1000.0f, 0.01f, 1000.0f, 0.02f}}) {
        for (const bool peak : {true, false}) {
            auto a = Make({"", peak ? Shape::Peak : Shape::Notch, true});
            auto b = Make({"", peak ? Shape::Peak : Shape::Notch, true});
            a->SetupCoefficients(44100.0f, p.fa, -10.0f, p.qa, 0.0f, 0.0f);
            b->SetupCoefficients(44100.0f, p.fb, -10.0f, p.qb, 0.0f, 0.0f);
            EXPECT_EQ(Target(*a) == Target(*b), peak) << p.fa << " Hz " << (peak ? "peak" : "notch");
        }
    }
    dNotch notch;
    notch.SetupCoefficients(44100.0f, 1000.0f, 6.0f, 4.0f, 0.0f, 0.0f);
    EXPECT_EQ(notch.getBandwidth(), 250.0f);
}

// The guard sets flush-to-zero for its scope and gives the caller's mode back, nested or not, and
// every processing entry point leaves the caller's mode as it found it.
TEST(DenormalGuard, SetsTheModeAndRestoresTheCallers) {
    if (!DenormalGuard::Supported()) GTEST_SKIP() << "no flush-to-zero control on this architecture";
    ASSERT_FALSE(DenormalGuard::FlushingEnabled());
    volatile float tiny = 1e-37f, half = 0.0625f;
    EXPECT_NE(tiny * half, 0.0f);
    {
        DenormalGuard guard;
        EXPECT_EQ(tiny * half, 0.0f);
        {
            DenormalGuard inner;
            EXPECT_TRUE(DenormalGuard::FlushingEnabled());
        }
        EXPECT_TRUE(DenormalGuard::FlushingEnabled());
    }
    EXPECT_FALSE(DenormalGuard::FlushingEnabled());
    EXPECT_NE(tiny * half, 0.0f);

    dPARA section;
    SetUpSettled(section, 44100.0f, 1000.0f, 6.0f);
    float f = 0.5f;
    double d = 0.5;
    section.processOneSample(0.5f);
    section.dprocessOneSample(0.5);
    section.processInplace(&f, 1);
    section.dprocessInplace(&d, 1);
    EXPECT_FALSE(DenormalGuard::FlushingEnabled());
    {
        DenormalGuard caller;
        section.processInplace(&f, 1);
        EXPECT_TRUE(DenormalGuard::FlushingEnabled());
    }
}

// An impulse decaying through a resonant section ends in exact zeros, never subnormals, while the
// same recursion run here without the guard does pass through subnormals.
TEST(DenormalGuard, DecayingTailEndsInZerosNotSubnormals) {
    if (!DenormalGuard::Supported()) GTEST_SKIP() << "no flush-to-zero control on this architecture";
    auto subnormals = [](const auto& x) {
        return std::count_if(x.begin(), x.end(), [](auto v) { return std::fpclassify(v) == FP_SUBNORMAL; });
    };
    fPARA section;
    SetUpSettled(section, 44100.0f, 1000.0f, 12.0f, 8.0f);
    const auto c = section.runningCoefficients();
    std::vector<float> out(20000, 0.0f), reference(out.size(), 0.0f);
    out[0] = 1.0f;
    section.processInplace(out.data(), static_cast<int>(out.size()));
    EXPECT_EQ(subnormals(out), 0);
    EXPECT_EQ(out.back(), 0.0f);
    EXPECT_EQ(Memory(section), Memory4{});
    float x1 = 0, x2 = 0, y1 = 0, y2 = 0;
    for (std::size_t n = 0; n < reference.size(); ++n) {
        const float x = n == 0 ? 1.0f : 0.0f;
        const float y = (c[FC::b0] * x + c[FC::b1] * x1 + c[FC::b2] * x2) - (c[FC::a1] * y1 + c[FC::a2] * y2);
        x2 = x1, x1 = x, y2 = y1, y1 = y;
        reference[n] = y;
    }
    EXPECT_GT(subnormals(reference), 0) << "the reference must reach the subnormal range";

    dPARA stateVariable;
    stateVariable.setStateVariable(true);
    SetUpSettled(stateVariable, 44100.0f, 1000.0f, 12.0f, 8.0f);
    std::vector<double> dOut(120000, 0.0);
    dOut[0] = 1.0;
    for (std::size_t at = 0; at < dOut.size(); at += 1000)
        stateVariable.dprocessInplace(dOut.data() + at, 1000);
    EXPECT_EQ(subnormals(dOut), 0);
    EXPECT_EQ(dOut.back(), 0.0);
}

}  // namespace
