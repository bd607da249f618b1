// fDeskFilter: the section class follows kind, precision and order; shifting gears hands the
// settings over; a shift to the same slot changes nothing; forwarded operations act on the held
// section exactly as on a section of its own; copies are deep.

#include "dsp/desk_filter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "support/signals.h"

namespace {

using namespace dsp;
using kesta::test::Signal;

const dFilterSection& AsDouble(const fDeskFilter& desk) {
    return dynamic_cast<const dFilterSection&>(desk.section());
}

const std::type_info& ClassOf(const fDeskFilter& desk) {
    const FilterSection& held = desk.section();
    return typeid(held);
}

// Runs noise through both and returns whether the outputs agree bit for bit.
template <typename A, typename B>
bool SameOutput(A& a, B& b, std::size_t frames = 3000) {
    Signal x = kesta::test::WhiteNoise(frames, 8, 0.5), y = x;
    a.processInplace(x.data(), static_cast<int>(x.size()));
    b.processInplace(y.data(), static_cast<int>(y.size()));
    return x == y;
}

TEST(DeskFilter, ShiftGearsInstallsTheClassOfTheTable) {
    const std::type_info* classes[4][2][2] = {
        // [kind][double precision][first order]
        {{&typeid(fNotch), &typeid(fNotch)}, {&typeid(dNotch), &typeid(dNotch)}},
        {{&typeid(fHISHELVE2), &typeid(fHISHELVE)}, {&typeid(dHISHELVE2), &typeid(dHISHELVE)}},
        {{&typeid(fLOSHELVE2), &typeid(fLOSHELVE)}, {&typeid(dLOSHELVE2), &typeid(dLOSHELVE)}},
        {{&typeid(fPARA), &typeid(fPARA)}, {&typeid(dPARA), &typeid(dPARA)}},
    };
    fDeskFilter desk;
    EXPECT_EQ(ClassOf(desk), typeid(fNotch));
    for (int kind = 0; kind < 4; ++kind)
        for (bool doublePrecision : {false, true})
            for (bool firstOrder : {false, true}) {
                desk.ShiftGears(static_cast<eFilterKindType>(kind), doublePrecision, firstOrder);
                const bool shelf = kind == kFilterHighShelf || kind == kFilterLowShelf;
                EXPECT_EQ(ClassOf(desk), *classes[kind][doublePrecision][firstOrder])
                    << kind << " " << doublePrecision << " " << firstOrder;
                EXPECT_TRUE(desk.getType() == kind && desk.isDoublePrecision() == doublePrecision &&
                            desk.isFirstOrder() == (firstOrder && shelf));
            }
}

// The slot already held (a notch counts as second order) leaves section, memory and glide alone.
TEST(DeskFilter, ShiftToTheSameSlotLeavesTheSectionUntouched) {
    fDeskFilter desk(kFilterLowShelf, true, false);
    desk.Setup(44100.0f, 200.0f, 6.0f, 1.0f, 0.0f, 0.0f);
    for (int n = 0; n < 500; ++n)
        desk.processOneSample(0.3f);
    fDeskFilter untouched(desk);
    const FilterSection* before = &desk.section();
    desk.ShiftGears(kFilterLowShelf, true, false);
    EXPECT_EQ(&desk.section(), before);
    EXPECT_TRUE(SameOutput(desk, untouched));

    fDeskFilter notch(kFilterNotch, false, true);
    const FilterSection* held = &notch.section();
    notch.ShiftGears(kFilterNotch, false, false);
    EXPECT_EQ(&notch.section(), held);
}

// A first-order low shelf moved to second order keeps frequency, gain, smoothing time and the
// realisation, starts from the identity with clear memory, and has the response of a second-order
// low shelf set up directly.
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
    EXPECT_TRUE(s.getSampleRate() == 48000.0f && s.getFrequency() == 250.0f && s.getGainDb() == 9.0f);
    EXPECT_EQ(desk.getSmoothingTime(), 0.01f);
    EXPECT_TRUE(desk.isStateVariable() && desk.isEnabled());
    // The glide length comes from the new section's construction rate (44100 Hz).
    EXPECT_EQ(s.getRampRemaining(), 441);
    dLOSHELVE2 fresh;
    EXPECT_EQ(AsDouble(desk).runningCoefficients(), fresh.runningCoefficients());
    EXPECT_EQ(AsDouble(desk).state().mX1, 0.0);

    dLOSHELVE2 direct;
    direct.Setup(48000.0f, 250.0f, 9.0f, 1.0f, 0.0f, 0.0f);
    for (float f : {20.0f, 100.0f, 250.0f, 1000.0f, 10000.0f})
        EXPECT_EQ(desk.computeResponse(f, 1.0f), direct.computeResponse(f, 1.0f)) << f << " Hz";
}

// setType and setDoublePrecision always choose the first-order shelf; a 0 dB hand-over ends
// disabled; a kind outside 0 ... 3 keeps the section but sets it up again (clearing the memory).
TEST(DeskFilter, SetTypeSetDoublePrecisionAndOddHandOvers) {
    fDeskFilter desk(kFilterLowShelf, false, false);
    desk.Setup(44100.0f, 3000.0f, -7.0f, 0.7f, 0.0f, 0.0f);
    desk.setType(kFilterHighShelf);
    EXPECT_EQ(ClassOf(desk), typeid(fHISHELVE));
    EXPECT_EQ(desk.section().getGainDb(), -7.0f);
    desk.ShiftGears(kFilterHighShelf, false, false);
    desk.setDoublePrecision(true);
    EXPECT_EQ(ClassOf(desk), typeid(dHISHELVE));

    fDeskFilter flat(kFilterHighShelf, false, true);
    flat.Setup(44100.0f, 1000.0f, 0.0f, 1.0f, 0.0f, 0.0f);
    flat.setEnable(true);
    flat.ShiftGears(kFilterLowShelf, false, true);
    EXPECT_FALSE(flat.isEnabled());
    EXPECT_EQ(flat.processOneSample(0.375f), 0.375f);

    fDeskFilter odd(kFilterPeak, true, false);
    odd.Setup(44100.0f, 1000.0f, 6.0f, 2.0f, 0.0f, 0.0f);
    odd.TerminateRamp();
    for (int n = 0; n < 10; ++n)
        odd.processOneSample(0.5f);
    ASSERT_NE(AsDouble(odd).state().mY1, 0.0);
    const FilterSection* held = &odd.section();
    odd.ShiftGears(static_cast<eFilterKindType>(7), true, false);
    EXPECT_EQ(&odd.section(), held);
    EXPECT_EQ(static_cast<int>(odd.getType()), 7);
    EXPECT_EQ(AsDouble(odd).state().mY1, 0.0);
    EXPECT_TRUE(odd.isEnabled());
}

// Q handed over = frequency / recorded bandwidth: a notch's own Q, infinite from a shelf.
TEST(DeskFilter, QHandedOverIsFrequencyOverTheRecordedBandwidth) {
    for (const auto& [kind, q] :
         {std::pair{kFilterNotch, 5.0f}, std::pair{kFilterHighShelf, std::numeric_limits<float>::infinity()}}) {
        fDeskFilter desk(kind, true, kind != kFilterNotch);
        desk.Setup(44100.0f, 2000.0f, -20.0f, 5.0f, 0.0f, 0.0f);
        desk.ShiftGears(kFilterPeak, true, false);
        dPARA direct;
        direct.Setup(44100.0f, 2000.0f, -20.0f, q, 0.0f, 0.0f);
        EXPECT_EQ(AsDouble(desk).targetCoefficients(), direct.targetCoefficients()) << kind;
    }
}

// Each forwarded operation leaves the desk filter's section and a lone section of the same class
// in the same state, with the same results in every entry point.
TEST(DeskFilter, EveryForwardedOperationReachesTheSection) {
    fDeskFilter desk(kFilterPeak, true, false);
    dPARA alone;
    const Signal noise = kesta::test::WhiteNoise(64, 3, 0.5);
    // Applied through the desk filter's own forwarding members and directly to the lone section.
    auto apply = [](auto& s, int step) {
        if (step == 0) s.setSmoothingTime(0.002f);
        if (step == 1) s.Setup(44100.0f, 900.0f, 5.0f, 1.2f, 0.0f, 0.0f);
        if (step == 2) s.SetupCoefficients(44100.0f, 1500.0f, -8.0f, 3.0f, 0.0f, 0.0f);
        if (step == 3) s.ConvertCoefficientsToStateVariableForm();
        if (step == 4) s.setStateVariable(true);
        if (step == 5) s.TerminateRamp();
        if (step == 6) s.ClearState();
        if (step == 7) s.disable();
        if (step == 8) s.enable();
        if (step == 9) s.setEnable(false);
        if (step == 10) s.setEnable(true), s.ClearCoefficients();
    };
    for (int step = 0; step <= 10; ++step) {
        SCOPED_TRACE(step);
        apply(desk, step);
        apply(alone, step);
        EXPECT_EQ(AsDouble(desk).targetCoefficients(), alone.targetCoefficients());
        EXPECT_TRUE(desk.isEnabled() == alone.isEnabled() && desk.isStateVariable() == alone.isStateVariable() &&
                    desk.getSmoothingTime() == alone.getSmoothingTime());
        Signal a = noise, b = noise;
        std::vector<double> da(noise.begin(), noise.end()), db = da;
        desk.processInplace(a.data(), static_cast<int>(a.size()));
        alone.processInplace(b.data(), static_cast<int>(b.size()));
        desk.dprocessInplace(da.data(), static_cast<int>(da.size()));
        alone.dprocessInplace(db.data(), static_cast<int>(db.size()));
        EXPECT_TRUE(a == b && da == db);
        EXPECT_EQ(desk.processOneSample(0.2f), alone.processOneSample(0.2f));
        EXPECT_EQ(desk.dprocessOneSample(-0.3), alone.dprocessOneSample(-0.3));
        EXPECT_EQ(desk.computeResponse(700.0f, 0.5f), alone.computeResponse(700.0f, 0.5f));
    }
}

// Copies are deep: each continues the stream exactly as the original, and changing one leaves
// the other alone.
TEST(DeskFilter, CopiesAreDeepAndComplete) {
    fDeskFilter original(kFilterHighShelf, false, false);
    original.Setup(44100.0f, 4000.0f, 10.0f, 1.0f, 0.0f, 0.0f);
    for (int n = 0; n < 300; ++n)
        original.processOneSample(0.25f);  // mid-glide, memory non-zero
    fDeskFilter copy(original), assigned;
    assigned = original;
    EXPECT_NE(&copy.section(), &original.section());
    fDeskFilter reference(original);
    EXPECT_TRUE(SameOutput(original, copy));
    EXPECT_TRUE(SameOutput(reference, assigned));
    copy.ShiftGears(kFilterPeak, true, false);
    EXPECT_EQ(ClassOf(original), typeid(fHISHELVE2));
}

}  // namespace
