// fDeskFilter: the section class follows kind, precision and order; shifting gears hands the
// settings over and yields the new kind's response; a shift to the same slot changes nothing;
// every forwarded operation acts on the held section exactly as on a section of its own.

#include "dsp/desk_filter.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <span>
#include <typeinfo>
#include <vector>

#include "support/metrics.h"
#include "support/signals.h"

namespace {

using namespace dsp;
using FC = FilterCoefficient;

const dFilterSection& AsDouble(const fDeskFilter& desk) {
    return dynamic_cast<const dFilterSection&>(desk.section());
}

const std::type_info& ClassOf(const fDeskFilter& desk) {
    const FilterSection& held = desk.section();
    return typeid(held);
}

// The class the table names for each kind, precision and order.
const std::type_info& ExpectedClass(eFilterKindType kind, bool doublePrecision, bool firstOrder) {
    switch (kind) {
        case kFilterNotch:
            return doublePrecision ? typeid(dNotch) : typeid(fNotch);
        case kFilterHighShelf:
            if (firstOrder) return doublePrecision ? typeid(dHISHELVE) : typeid(fHISHELVE);
            return doublePrecision ? typeid(dHISHELVE2) : typeid(fHISHELVE2);
        case kFilterLowShelf:
            if (firstOrder) return doublePrecision ? typeid(dLOSHELVE) : typeid(fLOSHELVE);
            return doublePrecision ? typeid(dLOSHELVE2) : typeid(fLOSHELVE2);
        case kFilterPeak:
            return doublePrecision ? typeid(dPARA) : typeid(fPARA);
    }
    return typeid(void);
}

TEST(DeskFilter, ShiftGearsInstallsTheClassOfTheTable) {
    fDeskFilter desk;
    EXPECT_EQ(ClassOf(desk), typeid(fNotch));
    EXPECT_EQ(desk.getType(), kFilterNotch);
    for (eFilterKindType kind : {kFilterNotch, kFilterHighShelf, kFilterLowShelf, kFilterPeak}) {
        for (bool doublePrecision : {false, true}) {
            for (bool firstOrder : {false, true}) {
                desk.ShiftGears(kind, doublePrecision, firstOrder);
                EXPECT_EQ(ClassOf(desk), ExpectedClass(kind, doublePrecision, firstOrder))
                    << kind << " " << doublePrecision << " " << firstOrder;
                EXPECT_EQ(desk.getType(), kind);
                EXPECT_EQ(desk.isDoublePrecision(), doublePrecision);
                const bool shelf = kind == kFilterHighShelf || kind == kFilterLowShelf;
                EXPECT_EQ(desk.isFirstOrder(), shelf && firstOrder);
            }
        }
    }
}

// Asking for the kind, precision and order already held leaves the section, its memory and its
// glide alone: the output continues exactly as if nothing had been called.
TEST(DeskFilter, ShiftToTheSameSlotLeavesTheSectionUntouched) {
    const kesta::test::Signal noise = kesta::test::WhiteNoise(2000, 5, 0.5);
    fDeskFilter desk(kFilterLowShelf, true, false);
    desk.Setup(44100.0f, 200.0f, 6.0f, 1.0f, 0.0f, 0.0f);
    kesta::test::Signal head(noise.begin(), noise.begin() + 500);
    desk.processInplace(head.data(), static_cast<int>(head.size()));
    fDeskFilter untouched(desk);
    const FilterSection* before = &desk.section();

    desk.ShiftGears(kFilterLowShelf, true, false);
    EXPECT_EQ(&desk.section(), before);
    kesta::test::Signal a(noise.begin() + 500, noise.end()), b = a;
    desk.processInplace(a.data(), static_cast<int>(a.size()));
    untouched.processInplace(b.data(), static_cast<int>(b.size()));
    EXPECT_EQ(a, b);

    // A notch holds firstOrder = false, so only a request with firstOrder false is "the same".
    fDeskFilter notch(kFilterNotch, false, true);
    const FilterSection* held = &notch.section();
    notch.ShiftGears(kFilterNotch, false, false);
    EXPECT_EQ(&notch.section(), held);
}

// A first-order low shelf moved to second order keeps frequency, gain, smoothing time and the
// state-variable setting, starts from the identity with clear memory, and settles to the response
// of a second-order low shelf set up directly; a sine measured through it agrees.
TEST(DeskFilter, ShiftingGearsKeepsTheSettingsAndGivesTheNewKindsResponse) {
    fDeskFilter desk(kFilterLowShelf, true, true);
    desk.setSmoothingTime(0.01f);
    desk.setStateVariable(true);
    desk.Setup(48000.0f, 250.0f, 9.0f, 1.0f, 0.0f, 0.0f);
    for (int n = 0; n < 1000; ++n)
        desk.processOneSample(0.3f);

    desk.ShiftGears(kFilterLowShelf, true, false);
    ASSERT_EQ(ClassOf(desk), typeid(dLOSHELVE2));
    const FilterSection& s = desk.section();
    EXPECT_EQ(s.getSampleRate(), 48000.0f);
    EXPECT_EQ(s.getFrequency(), 250.0f);
    EXPECT_EQ(s.getGainDb(), 9.0f);
    EXPECT_EQ(desk.getSmoothingTime(), 0.01f);
    EXPECT_TRUE(desk.isStateVariable());
    EXPECT_TRUE(desk.isEnabled());
    // The first-order shelf recorded no bandwidth: the Q handed over is infinite.
    EXPECT_EQ(s.getBandwidth(), 0.0f);
    // The glide length comes from the new section's construction rate (44100 Hz).
    EXPECT_EQ(s.getRampLength(), 441);
    EXPECT_EQ(s.getRampRemaining(), 441);
    auto running = AsDouble(desk).runningCoefficients();
    EXPECT_EQ(running[FC::b0], 1.0);
    EXPECT_EQ(running[FC::D], 1.0);
    EXPECT_EQ(running[FC::a1], 0.0);
    EXPECT_EQ(AsDouble(desk).state().mX1, 0.0);

    dLOSHELVE2 direct;
    direct.Setup(48000.0f, 250.0f, 9.0f, 1.0f, 0.0f, 0.0f);
    for (float f : {20.0f, 100.0f, 250.0f, 1000.0f, 10000.0f})
        EXPECT_EQ(desk.computeResponse(f, 1.0f), direct.computeResponse(f, 1.0f)) << f << " Hz";
    EXPECT_NEAR(20 * std::log10(desk.computeResponse(250.0f, 1.0f)), 9.0 - 20 * std::log10(1.41421356237), 1e-6);

    // Run past the glide, then measure a 100 Hz tone.
    constexpr std::size_t settle = 4096, measure = 8192;
    const kesta::test::Signal in = kesta::test::Sine(settle + measure, 100.0, 48000.0, 0.5);
    kesta::test::Signal out = in;
    desk.processInplace(out.data(), static_cast<int>(out.size()));
    const double gain = kesta::test::LevelAt(std::span<const float>(out).subspan(settle), 100.0, 48000.0) /
                        kesta::test::LevelAt(std::span<const float>(in).subspan(settle), 100.0, 48000.0);
    EXPECT_NEAR(20 * std::log10(gain), 20 * std::log10(desk.computeResponse(100.0f, 1.0f)), 0.05);
}

// setType and setDoublePrecision always choose the first-order variant of a shelf.
TEST(DeskFilter, SetTypeAndSetDoublePrecisionChooseTheFirstOrderShelf) {
    fDeskFilter desk(kFilterLowShelf, false, false);
    desk.Setup(44100.0f, 3000.0f, -7.0f, 0.7f, 0.0f, 0.0f);
    desk.setType(kFilterHighShelf);
    EXPECT_EQ(ClassOf(desk), typeid(fHISHELVE));
    EXPECT_EQ(desk.getType(), kFilterHighShelf);
    EXPECT_EQ(desk.section().getFrequency(), 3000.0f);
    EXPECT_EQ(desk.section().getGainDb(), -7.0f);

    desk.ShiftGears(kFilterHighShelf, false, false);
    desk.setDoublePrecision(true);
    EXPECT_EQ(ClassOf(desk), typeid(dHISHELVE));
    EXPECT_TRUE(desk.isDoublePrecision());
    EXPECT_TRUE(desk.isFirstOrder());
}

// The hand-over passes Q = frequency / recorded bandwidth: from a notch it is the notch's own Q;
// from a shelf (no bandwidth recorded) it is infinite, and the peak clamps the resulting bandwidth.
TEST(DeskFilter, QHandedOverIsFrequencyOverTheRecordedBandwidth) {
    fDeskFilter desk(kFilterNotch, true, false);
    desk.Setup(44100.0f, 2000.0f, -20.0f, 5.0f, 0.0f, 0.0f);
    desk.ShiftGears(kFilterPeak, true, false);
    dPARA fromNotch;
    fromNotch.Setup(44100.0f, 2000.0f, -20.0f, 2000.0f / 400.0f, 0.0f, 0.0f);
    EXPECT_EQ(AsDouble(desk).targetCoefficients(), fromNotch.targetCoefficients());

    fDeskFilter shelf(kFilterHighShelf, true, true);
    shelf.Setup(44100.0f, 2000.0f, -20.0f, 5.0f, 0.0f, 0.0f);
    shelf.ShiftGears(kFilterPeak, true, false);
    dPARA fromShelf;
    fromShelf.Setup(44100.0f, 2000.0f, -20.0f, std::numeric_limits<float>::infinity(), 0.0f, 0.0f);
    EXPECT_EQ(AsDouble(shelf).targetCoefficients(), fromShelf.targetCoefficients());
}

// Setup decides the final enabled state: a section handed a gain of 0 dB ends disabled even when
// the old one was on.
TEST(DeskFilter, ZeroGainHandOverEndsDisabled) {
    fDeskFilter desk(kFilterHighShelf, false, true);
    desk.Setup(44100.0f, 1000.0f, 0.0f, 1.0f, 0.0f, 0.0f);
    desk.setEnable(true);
    desk.ShiftGears(kFilterLowShelf, false, true);
    EXPECT_FALSE(desk.isEnabled());
    EXPECT_EQ(desk.processOneSample(0.375f), 0.375f);
}

// A kind outside 0 ... 3 builds nothing: the held section takes the hand-over from itself (its
// Setup runs again and clears the memory) and the kind is recorded as given.
TEST(DeskFilter, OutOfRangeKindKeepsTheSectionAndSetsItUpAgain) {
    fDeskFilter desk(kFilterPeak, true, false);
    desk.Setup(44100.0f, 1000.0f, 6.0f, 2.0f, 0.0f, 0.0f);
    desk.TerminateRamp();
    for (int n = 0; n < 10; ++n)
        desk.processOneSample(0.5f);
    ASSERT_NE(AsDouble(desk).state().mY1, 0.0);
    const FilterSection* held = &desk.section();
    desk.ShiftGears(static_cast<eFilterKindType>(7), true, false);
    EXPECT_EQ(&desk.section(), held);
    EXPECT_EQ(ClassOf(desk), typeid(dPARA));
    EXPECT_EQ(static_cast<int>(desk.getType()), 7);
    EXPECT_EQ(AsDouble(desk).state().mY1, 0.0);
    EXPECT_TRUE(desk.isEnabled());
}

// Each forwarded operation, applied to the desk filter and to a section of the same class on its
// own, leaves both in the same state and gives the same results, bit for bit.
TEST(DeskFilter, EveryForwardedOperationReachesTheSection) {
    fDeskFilter desk(kFilterPeak, true, false);
    dPARA alone;
    auto same = [&](const char* step) {
        const dFilterSection& held = AsDouble(desk);
        EXPECT_EQ(held.runningCoefficients(), alone.runningCoefficients()) << step;
        EXPECT_EQ(held.incrementCoefficients(), alone.incrementCoefficients()) << step;
        EXPECT_EQ(held.targetCoefficients(), alone.targetCoefficients()) << step;
        EXPECT_EQ(held.getRampRemaining(), alone.getRampRemaining()) << step;
        EXPECT_EQ(held.state().mX1, alone.state().mX1) << step;
        EXPECT_EQ(held.state().mY1, alone.state().mY1) << step;
        EXPECT_EQ(desk.isEnabled(), alone.isEnabled()) << step;
        EXPECT_EQ(desk.isStateVariable(), alone.isStateVariable()) << step;
        EXPECT_EQ(desk.getSmoothingTime(), alone.getSmoothingTime()) << step;
    };
    const kesta::test::Signal noise = kesta::test::WhiteNoise(64, 3, 0.5);
    auto run = [&](const char* step) {
        kesta::test::Signal a = noise, b = noise;
        desk.processInplace(a.data(), static_cast<int>(a.size()));
        alone.processInplace(b.data(), static_cast<int>(b.size()));
        EXPECT_EQ(a, b) << step;
        std::vector<double> da(noise.begin(), noise.end()), db = da;
        desk.dprocessInplace(da.data(), static_cast<int>(da.size()));
        alone.dprocessInplace(db.data(), static_cast<int>(db.size()));
        EXPECT_EQ(da, db) << step;
        EXPECT_EQ(desk.processOneSample(0.2f), alone.processOneSample(0.2f)) << step;
        EXPECT_EQ(desk.dprocessOneSample(-0.3), alone.dprocessOneSample(-0.3)) << step;
        EXPECT_EQ(desk.computeResponse(700.0f, 0.5f), alone.computeResponse(700.0f, 0.5f)) << step;
        same(step);
    };

    desk.setSmoothingTime(0.002f), alone.setSmoothingTime(0.002f);
    same("setSmoothingTime");
    desk.Setup(44100.0f, 900.0f, 5.0f, 1.2f, 0.0f, 0.0f), alone.Setup(44100.0f, 900.0f, 5.0f, 1.2f, 0.0f, 0.0f);
    run("Setup");
    desk.SetupCoefficients(44100.0f, 1500.0f, -8.0f, 3.0f, 0.0f, 0.0f);
    alone.SetupCoefficients(44100.0f, 1500.0f, -8.0f, 3.0f, 0.0f, 0.0f);
    run("SetupCoefficients");
    desk.ConvertCoefficientsToStateVariableForm(), alone.ConvertCoefficientsToStateVariableForm();
    EXPECT_NE(alone.targetCoefficients()[FC::A12], 0.0);
    same("ConvertCoefficientsToStateVariableForm");
    desk.setStateVariable(true), alone.setStateVariable(true);
    run("setStateVariable");
    desk.TerminateRamp(), alone.TerminateRamp();
    run("TerminateRamp");
    desk.ClearState(), alone.ClearState();
    same("ClearState");
    desk.disable(), alone.disable();
    run("disable");
    desk.enable(), alone.enable();
    run("enable");
    desk.setEnable(false), alone.setEnable(false);
    run("setEnable");
    desk.setEnable(true), alone.setEnable(true);
    desk.ClearCoefficients(), alone.ClearCoefficients();
    run("ClearCoefficients");
}

// Copies are complete and independent: the copy continues the stream exactly as the original.
TEST(DeskFilter, CopiesAreDeepAndComplete) {
    fDeskFilter original(kFilterHighShelf, false, false);
    original.Setup(44100.0f, 4000.0f, 10.0f, 1.0f, 0.0f, 0.0f);
    for (int n = 0; n < 300; ++n)
        original.processOneSample(0.25f);  // mid-glide, memory non-zero

    fDeskFilter copy(original);
    fDeskFilter assigned;
    assigned = original;
    EXPECT_NE(&copy.section(), &original.section());
    EXPECT_EQ(ClassOf(copy), typeid(fHISHELVE2));
    EXPECT_EQ(ClassOf(assigned), typeid(fHISHELVE2));
    const kesta::test::Signal noise = kesta::test::WhiteNoise(3000, 8, 0.5);
    kesta::test::Signal a = noise, b = noise, c = noise;
    original.processInplace(a.data(), static_cast<int>(a.size()));
    copy.processInplace(b.data(), static_cast<int>(b.size()));
    assigned.processInplace(c.data(), static_cast<int>(c.size()));
    EXPECT_EQ(a, b);
    EXPECT_EQ(a, c);

    copy.ShiftGears(kFilterPeak, true, false);
    EXPECT_EQ(ClassOf(original), typeid(fHISHELVE2));
}

}  // namespace
