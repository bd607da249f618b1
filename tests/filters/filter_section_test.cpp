// Filter sections: every shape in both precisions against the designed band-edge gains and an
// exact direct form I on the settled coefficients; the glide; block against one-sample
// processing; the enable/setup/copy rules; and the flush-to-zero guard.

#include "dsp/filter_section.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include "dsp/core/denormal_guard.h"
#include "dsp/filters/section_lanes.h"
#include "support/metrics.h"
#include "support/signals.h"

namespace {

using namespace dsp;
using kesta::test::Signal;
using kesta::test::ToDb;
using kesta::test::WhiteNoise;
using FC = FilterCoefficient;
using Set = std::array<double, FC::Count>;
using Memory4 = std::array<double, 4>;

enum class Shape { HighShelf1, LowShelf1, HighShelf2, LowShelf2, Peak, Notch };

template <typename T>
std::unique_ptr<FilterSection> New() {
    return std::make_unique<T>();
}

struct ShapeCase {
    const char* name;
    Shape shape;
    bool doublePrecision;
    std::unique_ptr<FilterSection> (*make)();
};

const ShapeCase kShapes[] = {
    {"fHISHELVE", Shape::HighShelf1, false, New<fHISHELVE>},
    {"dHISHELVE", Shape::HighShelf1, true, New<dHISHELVE>},
    {"fLOSHELVE", Shape::LowShelf1, false, New<fLOSHELVE>},
    {"dLOSHELVE", Shape::LowShelf1, true, New<dLOSHELVE>},
    {"fHISHELVE2", Shape::HighShelf2, false, New<fHISHELVE2>},
    {"dHISHELVE2", Shape::HighShelf2, true, New<dHISHELVE2>},
    {"fLOSHELVE2", Shape::LowShelf2, false, New<fLOSHELVE2>},
    {"dLOSHELVE2", Shape::LowShelf2, true, New<dLOSHELVE2>},
    {"fPARA", Shape::Peak, false, New<fPARA>},
    {"dPARA", Shape::Peak, true, New<dPARA>},
    {"fNotch", Shape::Notch, false, New<fNotch>},
    {"dNotch", Shape::Notch, true, New<dNotch>},
};

bool IsFirstOrder(Shape s) {
    return s == Shape::HighShelf1 || s == Shape::LowShelf1;
}
bool IsSecondOrderShelf(Shape s) {
    return s == Shape::HighShelf2 || s == Shape::LowShelf2;
}

// Coefficient sets and memory of either precision, widened exactly to double.
struct Snapshot {
    Set running, increment, target;
    Memory4 memory;
};
template <typename S>
Snapshot TakeAs(const S& s) {
    Snapshot o;
    std::copy(s.runningCoefficients().begin(), s.runningCoefficients().end(), o.running.begin());
    std::copy(s.incrementCoefficients().begin(), s.incrementCoefficients().end(), o.increment.begin());
    std::copy(s.targetCoefficients().begin(), s.targetCoefficients().end(), o.target.begin());
    o.memory = {s.state().mX1, s.state().mX2, s.state().mY1, s.state().mY2};
    return o;
}
Snapshot Take(const FilterSection& s) {
    if (auto* f = dynamic_cast<const fFilterSection*>(&s)) return TakeAs(*f);
    return TakeAs(dynamic_cast<const dFilterSection&>(s));
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

// Direct form I run in long double on the given coefficients: free of the rounding of a float or
// double recursion, the reference for both realisations.
std::vector<long double> ExactDirectForm(const Set& c, const Signal& x) {
    std::vector<long double> y(x.size());
    long double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
    for (std::size_t n = 0; n < x.size(); ++n) {
        y[n] = (c[FC::b0] * static_cast<long double>(x[n]) + c[FC::b1] * x1 + c[FC::b2] * x2) -
               (c[FC::a1] * y1 + c[FC::a2] * y2);
        x2 = x1, x1 = x[n], y2 = y1, y1 = y[n];
    }
    return y;
}

class EveryShape : public testing::TestWithParam<ShapeCase> {};

INSTANTIATE_TEST_SUITE_P(FilterSection, EveryShape, testing::ValuesIn(kShapes),
                         [](const auto& info) { return std::string(info.param.name); });

// Shelves reach the band-edge gain at the corner and unity / the full gain at DC and Nyquist; the
// peak and notch reach the full gain at the centre and the band-edge gain at the band edges w1, w2
// (w2 - w1 = 2 pi bandwidth / rate, tan(w1/2) tan(w2/2) = tan^2(w0/2); q = 2 here).
TEST_P(EveryShape, ResponseReachesTheBandEdgeGain) {
    const ShapeCase& c = GetParam();
    const double tolerance = c.doublePrecision ? 1e-6 : 2e-3;
    constexpr long double kPi = std::numbers::pi_v<long double>;
    const bool low = c.shape == Shape::LowShelf1 || c.shape == Shape::LowShelf2;
    const bool high = c.shape == Shape::HighShelf1 || c.shape == Shape::HighShelf2;
    for (float rate : {44100.0f, 96000.0f})
        for (float corner : {1000.0f, 5000.0f})
            for (float gain : {-12.0f, -6.0f, -3.0f, 3.0f, 6.0f, 12.0f}) {
                auto section = c.make();
                SetUpSettled(*section, rate, corner, gain, 2.0f);
                auto at = [&](long double f) { return ToDb(section->computeResponse(static_cast<float>(f), 1.0f)); };
                const double edge = static_cast<double>(EdgeGainDb(c.shape, gain));
                SCOPED_TRACE(std::to_string(rate) + " Hz rate, corner " + std::to_string(corner) + ", gain " +
                             std::to_string(gain));
                EXPECT_NEAR(at(corner), low || high ? edge : gain, tolerance);
                EXPECT_NEAR(at(0), low ? gain : 0.0, tolerance);
                EXPECT_NEAR(at(rate / 2), high ? gain : 0.0, tolerance);
                if (low || high) continue;
                // t = tan(w1/2) solves t (t + T) = k (1 - t T), with T = tan(dw/2), k = tan^2(w0/2).
                const long double T = std::tan(kPi * corner / 2 / rate), k = std::pow(std::tan(kPi * corner / rate), 2);
                const long double w1 = 2 * std::atan((std::sqrt(T * T * (1 + k) * (1 + k) + 4 * k) - T * (1 + k)) / 2);
                EXPECT_NEAR(at(w1 * rate / (2 * kPi)), edge, tolerance) << "lower edge";
                EXPECT_NEAR(at(w1 * rate / (2 * kPi) + corner / 2), edge, tolerance) << "upper edge";
            }
}

// After settling, each realisation is within 1e-5 of max(1, peak) of direct form I run exactly on
// the section's own coefficients. The state-variable form holds at every corner in both precisions
// (worst seen 1.3e-6 in float). A float direct form I holds only from corners at 2% of the rate
// up: below that the rounding of its float recursion grows about as (rate / corner)^2, to 3e-4 at
// 100 Hz and 96 kHz. First-order shapes run one recursion in both modes, so they agree exactly.
TEST_P(EveryShape, BothRealisationsMatchAnExactDirectFormAfterSettling) {
    const ShapeCase& c = GetParam();
    const Signal noise = WhiteNoise(16384, 42, 0.5);
    for (float rate : {44100.0f, 96000.0f})
        for (float f : {100.0f, 1000.0f, 3000.0f, rate / 4})
            for (float gain : {-18.0f, -3.0f, 3.0f, 18.0f})
                for (float q : {0.05f, 0.7f, 4.0f}) {
                    // The notch does not clamp: a bandwidth beyond half the rate is no filter at all.
                    if (c.shape == Shape::Notch && f / q >= 0.45f * rate) continue;
                    auto direct = c.make(), stateVariable = c.make();
                    stateVariable->setStateVariable(true);
                    SetUpSettled(*direct, rate, f, gain, q);
                    SetUpSettled(*stateVariable, rate, f, gain, q);
                    Signal a = noise, b = noise;
                    direct->processInplace(a.data(), static_cast<int>(a.size()));
                    stateVariable->processInplace(b.data(), static_cast<int>(b.size()));
                    // Settled, the section runs on exactly the set computeResponse reads, so the
                    // band-edge test above and this one tie the drawn response to the processing.
                    ASSERT_EQ(Take(*direct).running, Take(*direct).target);
                    const std::vector<long double> exact = ExactDirectForm(Take(*direct).running, noise);
                    double peak = 1.0, directError = 0.0, stateVariableError = 0.0;
                    for (std::size_t n = 4096; n < a.size(); ++n) {
                        peak = std::max(peak, static_cast<double>(std::fabs(exact[n])));
                        directError = std::max(directError, static_cast<double>(std::fabs(a[n] - exact[n])));
                        stateVariableError =
                            std::max(stateVariableError, static_cast<double>(std::fabs(b[n] - exact[n])));
                    }
                    SCOPED_TRACE(std::to_string(rate) + " Hz rate, " + std::to_string(f) + " Hz, " +
                                 std::to_string(gain) + " dB, q " + std::to_string(q));
                    ASSERT_LE(stateVariableError, 1e-5 * peak);
                    if (c.doublePrecision || f >= 0.02f * rate) {
                        ASSERT_LE(directError, 1e-5 * peak);
                    }
                    if (IsFirstOrder(c.shape)) {
                        ASSERT_EQ(a, b);
                    }
                }
}

// A glide lasts exactly rampLength samples along a straight line and ends on the exact target,
// whether it starts from the identity (enable) or from the middle of another glide.
TEST_P(EveryShape, GlideLastsExactlyRampLengthAndEndsOnTheTarget) {
    auto section = GetParam().make();
    ASSERT_EQ(section->getRampLength(), 1323);
    const double tolerance = GetParam().doublePrecision ? 1e-12 : 1e-4;
    auto run = [&](int n) {
        for (int i = 0; i < n; ++i)
            section->processOneSample(0.1f);
    };
    section->SetupCoefficients(44100.0f, 2000.0f, 9.0f, 1.5f, 0.0f, 0.0f);
    section->enable();
    ASSERT_EQ(Take(*section).running, Identity());
    for (int glide = 0; glide < 2; ++glide) {
        if (glide == 1) {
            section->SetupCoefficients(44100.0f, 500.0f, -6.0f, 1.5f, 0.0f, 0.0f);
            run(300);
            section->SetupCoefficients(44100.0f, 800.0f, 4.0f, 1.5f, 0.0f, 0.0f);
        }
        const Snapshot start = Take(*section);
        run(661);
        const Set half = Take(*section).running;
        for (int i = FC::b0; i <= FC::a2; ++i)
            EXPECT_NEAR(half[i], start.running[i] + 661.0 * (start.target[i] - start.running[i]) / 1323.0,
                        tolerance * (1 + std::fabs(start.target[i])))
                << "glide " << glide << ", index " << i;
        run(1322 - 661);
        EXPECT_TRUE(section->IsRamping());
        EXPECT_NE(Take(*section).running, start.target);
        run(1);
        EXPECT_FALSE(section->IsRamping());
        EXPECT_EQ(Take(*section).running, start.target);
    }
}

// processInplace equals processOneSample bit for bit, through a glide and after it, in both
// realisations, cut into random blocks; dprocessInplace likewise equals dprocessOneSample.
TEST_P(EveryShape, BlockProcessingIsBitIdenticalToOneSampleAtATime) {
    const Signal noise = WhiteNoise(6000, 7, 0.8);
    for (bool stateVariable : {false, true}) {
        SCOPED_TRACE(stateVariable ? "state variable" : "direct form");
        auto make = [&] {
            auto s = GetParam().make();
            s->setStateVariable(stateVariable);
            s->Setup(48000.0f, 3000.0f, 8.0f, 1.0f, 0.0f, 0.0f);
            return s;
        };
        auto one = make(), pieces = make(), dOne = make(), dBlock = make();
        Signal expected(noise.size()), parts = noise;
        std::vector<double> dExpected(noise.size()), dWhole(noise.begin(), noise.end());
        for (std::size_t n = 0; n < noise.size(); ++n) {
            expected[n] = one->processOneSample(noise[n]);
            dExpected[n] = dOne->dprocessOneSample(noise[n]);
        }
        dBlock->dprocessInplace(dWhole.data(), static_cast<int>(dWhole.size()));
        kesta::test::Random random(stateVariable ? 3 : 4);
        for (std::size_t at = 0; at < parts.size();) {
            const int n = std::min<int>(random.UniformInt(0, 700), static_cast<int>(parts.size() - at));
            pieces->processInplace(parts.data() + at, n);
            at += static_cast<std::size_t>(n);
        }
        EXPECT_EQ(parts, expected);
        EXPECT_EQ(dWhole, dExpected);
    }
}

// Exactly 0 dB leaves the section off and passing its input bit for bit; switched on, the
// first-order shelves, peak and notch hold the identity, the second-order shelves a flat response.
TEST_P(EveryShape, SetupWithZeroGainDisablesAndPassesInputBitExactly) {
    const Signal noise = WhiteNoise(512, 9, 1.0);
    auto section = GetParam().make();
    section->Setup(44100.0f, 1000.0f, 0.0f, 2.0f, 0.0f, 0.0f);
    EXPECT_FALSE(section->isEnabled());
    EXPECT_EQ(section->computeResponse(300.0f, 0.7f), 0.7f);
    Signal out = noise;
    section->processInplace(out.data(), static_cast<int>(out.size()));
    EXPECT_EQ(out, noise);
    section->setEnable(true);
    if (IsSecondOrderShelf(GetParam().shape)) {
        for (float f : {20.0f, 1000.0f, 20000.0f})
            EXPECT_NEAR(section->computeResponse(f, 1.0f), 1.0f, 1e-6f);
    } else {
        const Set t = Take(*section).target;
        EXPECT_TRUE(std::equal(t.begin(), t.begin() + FC::A11, Identity().begin()));
    }
}

// enable on a disabled section restarts the glide from the identity, on an enabled one it changes
// nothing; a disabled section passes samples unchanged and holds its glide. A change of
// realisation clears the memory; only switching on starts a glide.
TEST(FilterSection, EnableFadesInDisableHoldsAndRealisationSwitchClearsMemory) {
    fPARA section;
    SetUpSettled(section, 44100.0f, 1000.0f, 12.0f);
    const Set target = Take(section).target;
    section.enable();
    EXPECT_EQ(Take(section).running, target);
    EXPECT_FALSE(section.IsRamping());
    section.disable();
    section.enable();
    EXPECT_EQ(Take(section).running, Identity());
    EXPECT_EQ(section.getRampRemaining(), 1323);
    EXPECT_EQ(section.processOneSample(0.5f), 0.5f);
    for (int n = 0; n < 100; ++n)
        section.processOneSample(0.5f);
    section.disable();
    const Set held = Take(section).running;
    Signal block(64, 0.3f);
    section.processInplace(block.data(), 64);
    EXPECT_EQ(block, Signal(64, 0.3f));
    EXPECT_TRUE(section.dprocessOneSample(0.1) == 0.1 && section.processOneSample(-0.7f) == -0.7f);
    EXPECT_EQ(Take(section).running, held);
    EXPECT_EQ(section.getRampRemaining(), 1222);

    dPARA modes;
    SetUpSettled(modes, 44100.0f, 1000.0f, 6.0f);
    for (const bool on : {true, false}) {
        for (int n = 0; n < 10; ++n)
            modes.processOneSample(0.5f);
        ASSERT_NE(Take(modes).memory, Memory4{});
        const int32_t remaining = modes.getRampRemaining();
        modes.setStateVariable(on);
        EXPECT_EQ(Take(modes).memory, Memory4{});
        EXPECT_EQ(modes.getRampRemaining(), on ? modes.getRampLength() : remaining);
    }
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
    const Snapshot fresh = Take(copied);
    EXPECT_EQ(copied.getRampRemaining(), source.getRampRemaining());
    EXPECT_TRUE(fresh.running == Identity() && fresh.target == Identity() && fresh.memory == Memory4{});

    fLOSHELVE2 assigned;
    assigned = source;
    EXPECT_EQ(Take(assigned).increment, Take(source).increment);
    for (int n = 0; n < 100; ++n)
        ASSERT_EQ(assigned.processOneSample(0.1f), source.processOneSample(0.1f));

    fPARA other;
    for (int n = 0; n < 5; ++n)
        other.processOneSample(0.5f);
    other.CopyCoefficients(source);
    const Snapshot taken = Take(other);
    EXPECT_TRUE(taken.running == Take(source).running && taken.target == Take(source).target);
    EXPECT_TRUE(other.getRampRemaining() == source.getRampRemaining() && other.isEnabled());
    EXPECT_EQ(taken.memory, Memory4{});

    dPARA wider;
    wider.CopyCoefficients(source);
    EXPECT_EQ(Take(wider).target, Identity());
    EXPECT_FALSE(wider.isEnabled());
}

// The peak clamps its normalised frequency (to [1e-5, 0.99999]) and bandwidth (to 0.49999); the
// notch does not. Each pair has the same bandwidth, so only a clamp makes the targets equal.
TEST(FilterSection, PeakClampsFrequencyAndBandwidthNotchDoesNot) {
    struct Pair {
        float fa, qa, fb, qb;
    };
    for (const Pair& p : {Pair{50000.0f, 50.0f, 60000.0f, 60.0f}, Pair{0.1f, 0.0001f, 0.2f, 0.0002f},
                          Pair{1000.0f, 0.01f, 1000.0f, 0.02f}})
        for (const bool peak : {true, false}) {
            auto a = peak ? New<dPARA>() : New<dNotch>(), b = peak ? New<dPARA>() : New<dNotch>();
            a->SetupCoefficients(44100.0f, p.fa, -10.0f, p.qa, 0.0f, 0.0f);
            b->SetupCoefficients(44100.0f, p.fb, -10.0f, p.qb, 0.0f, 0.0f);
            EXPECT_EQ(Take(*a).target == Take(*b).target, peak) << p.fa << " Hz " << (peak ? "peak" : "notch");
        }
}

// The guard flushes inside its scope and gives the caller's mode back, nested or not. An impulse
// decaying through a resonant section ends in exact zeros, never subnormals, while the same
// recursion run here without the guard does pass through subnormals; the entry points leave the
// caller's mode as they found it.
TEST(DenormalGuard, FlushesInItsScopeAndDecayingTailsEndInZeros) {
    if (!DenormalGuard::Supported()) GTEST_SKIP() << "no flush-to-zero control on this architecture";
    ASSERT_FALSE(DenormalGuard::FlushingEnabled());
    volatile float tiny = 1e-37f, half = 0.0625f;
    EXPECT_NE(tiny * half, 0.0f);
    {
        DenormalGuard guard;
        EXPECT_EQ(tiny * half, 0.0f);
        { DenormalGuard inner; }
        EXPECT_TRUE(DenormalGuard::FlushingEnabled());
    }
    EXPECT_FALSE(DenormalGuard::FlushingEnabled());

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
    EXPECT_EQ(Take(section).memory, Memory4{});
    float x1 = 0, x2 = 0, y1 = 0, y2 = 0;
    for (std::size_t n = 0; n < reference.size(); ++n) {
        const float x = n == 0 ? 1.0f : 0.0f;
        const float y = (c[FC::b0] * x + c[FC::b1] * x1 + c[FC::b2] * x2) - (c[FC::a1] * y1 + c[FC::a2] * y2);
        x2 = x1, x1 = x, y2 = y1, y1 = y;
        reference[n] = y;
    }
    EXPECT_GT(subnormals(reference), 0) << "the reference must reach the subnormal range";
    section.processOneSample(0.5f);
    section.dprocessOneSample(0.5);
    EXPECT_FALSE(DenormalGuard::FlushingEnabled());
}

// ---- Two channels side by side ------------------------------------------------------------

using dsp::detail::Isa;

using Chain = std::vector<std::unique_ptr<FilterSection>>;

// One channel's chain: first- and second-order shelves, a peak, a notch in state-variable form
// and a peak left off. `variant` picks how the right channel differs from the left.
enum class Variant { Same, OwnSettingsAndGlides, EnabledDiffers, FormDiffers, PrecisionDiffers };

Chain MakeChain(bool right, Variant variant) {
    const float shift = right && variant != Variant::Same ? 1.5f : 0.0f;
    Chain c;
    c.push_back(std::make_unique<dLOSHELVE>());
    c.push_back(std::make_unique<dHISHELVE2>());
    if (right && variant == Variant::PrecisionDiffers) {
        c.push_back(std::make_unique<fPARA>());
    } else {
        c.push_back(std::make_unique<dPARA>());
    }
    c.push_back(std::make_unique<dNotch>());
    c.push_back(std::make_unique<dPARA>());
    c[3]->setStateVariable(!(right && variant == Variant::FormDiffers));
    const float settings[][3] = {{200, 6}, {6000, -4}, {1000, 9}, {3000, -20}};  // Hz, dB
    for (std::size_t k = 0; k < 4; ++k)
        SetUpSettled(*c[k], 44100.0f, settings[k][0], settings[k][1] + shift, 1.5f);
    if (right && variant == Variant::EnabledDiffers) c[1]->disable();
    if (variant == Variant::OwnSettingsAndGlides) {
        // Glides of different lengths under way in the two channels (the peak's is cut short).
        c[2]->SetupCoefficients(44100.0f, right ? 1500.0f : 700.0f, 3.0f, 2.0f, 0.0f, 0.0f);
        if (right) {
            c[0]->SetupCoefficients(44100.0f, 150.0f, 2.0f, 1.0f, 0.0f, 0.0f);
            c[2]->setSmoothingTime(0.01f);
            c[2]->SetupRamp();
        }
    }
    return c;
}

std::vector<FilterSection*> Pointers(Chain& c) {
    std::vector<FilterSection*> p;
    for (auto& s : c)
        p.push_back(s.get());
    return p;
}

// The lanes give the bits of every section run over each channel in turn, whatever the chains
// hold: settled or gliding by different amounts (lanes after the longest glide), or unlike in
// enabled state, form or precision (each channel on its own); a chain of one section and blocks
// shorter than the chain included.
TEST(SectionLanes, PairedChannelsGiveTheBitsOfEachSectionInTurn) {
    struct Case {
        const char* name;
        Variant variant;
        std::size_t sections;  // the chain's first so many
    };
    const Case cases[] = {{"same", Variant::Same, 5},
                          {"one section", Variant::Same, 1},
                          {"three sections", Variant::Same, 3},
                          {"own settings and glides", Variant::OwnSettingsAndGlides, 5},
                          {"enabled differs", Variant::EnabledDiffers, 5},
                          {"form differs", Variant::FormDiffers, 5},
                          {"precision differs", Variant::PrecisionDiffers, 5}};
    std::vector<Isa> builds{Isa::Portable};
    if (dsp::detail::IsaAvailable(Isa::Avx2Fma)) builds.push_back(Isa::Avx2Fma);
    for (const Isa isa : builds)
        for (const auto& [name, variant, sections] : cases) {
            SCOPED_TRACE(std::string(name) + " in the " + dsp::detail::IsaName(isa) + " build");
            Chain refLeft = MakeChain(false, variant), refRight = MakeChain(true, variant);
            Chain left = MakeChain(false, variant), right = MakeChain(true, variant);
            for (Chain* c : {&refLeft, &refRight, &left, &right})
                c->resize(sections);
            const std::vector<FilterSection*> l = Pointers(left), r = Pointers(right);
            Signal expected0 = WhiteNoise(5000, 21, 0.7), expected1 = WhiteNoise(5000, 22, 0.7);
            Signal x0 = expected0, x1 = expected1;
            kesta::test::Random random(23);
            for (std::size_t at = 0; at < x0.size();) {
                const int n =
                    std::min<int>(random.UniformInt(0, 3) == 0 ? random.UniformInt(0, 3) : random.UniformInt(4, 900),
                                  static_cast<int>(x0.size() - at));
                for (std::size_t k = 0; k < refLeft.size(); ++k) {
                    refLeft[k]->processInplace(expected0.data() + at, n);
                    refRight[k]->processInplace(expected1.data() + at, n);
                }
                detail::SectionLanes::ProcessPair(l.data(), r.data(), static_cast<int>(l.size()), x0.data() + at,
                                                  x1.data() + at, n, isa);
                at += static_cast<std::size_t>(n);
            }
            EXPECT_EQ(x0, expected0);
            EXPECT_EQ(x1, expected1);
            EXPECT_NE(x0, WhiteNoise(5000, 21, 0.7));  // the chain did act
        }
}

}  // namespace
