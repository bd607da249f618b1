// Fade curves against their formulas in long double, and the fixed constant-power opposite tables.

#include "dsp/fades.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <tuple>

namespace {

using dsp::GetOppositeFadeShapeValForConstantPowerCrossfade_Cosine;
using dsp::GetOppositeFadeShapeValForConstantPowerCrossfade_Log;

TEST(OppositeFadeShape, TabulatedValuesAndZeroOutsideTheRange) {
    struct Row {
        int setting, cosine, log;
    };
    for (const Row& r : {Row{-100, 86, 100}, Row{-25, 53, 100}, Row{-24, 52, 97}, Row{-1, 37, 45}, Row{0, 36, 44},
                         Row{18, 20, 19}, Row{44, -11, 0}, Row{85, -97, -20}, Row{86, -100, -20}, Row{100, -100, -25},
                         Row{101, 0, 0}, Row{-101, 0, 0}, Row{INT_MIN, 0, 0}, Row{INT_MAX, 0, 0}}) {
        EXPECT_EQ(GetOppositeFadeShapeValForConstantPowerCrossfade_Cosine(r.setting), r.cosine) << r.setting;
        EXPECT_EQ(GetOppositeFadeShapeValForConstantPowerCrossfade_Log(r.setting), r.log) << r.setting;
    }
}

// Catches mistyped rows anywhere: both tables fall with the setting, and the opposite of the
// opposite comes back within rounding (away from the clamped ends).
TEST(OppositeFadeShape, TablesFallAndPairMutually) {
    for (auto [fn, slack, name] : {std::tuple{&GetOppositeFadeShapeValForConstantPowerCrossfade_Cosine, 2, "cosine"},
                                   std::tuple{&GetOppositeFadeShapeValForConstantPowerCrossfade_Log, 1, "log"}}) {
        int paired = 0;
        for (int s = -100; s <= 100; ++s) {
            const int opposite = fn(s);
            ASSERT_GE(opposite, fn(std::min(s + 1, 100))) << name << " " << s;
            if (opposite <= -100 || opposite >= 100) continue;
            ASSERT_LE(std::abs(fn(opposite) - s), slack) << name << " " << s;
            ++paired;
        }
        EXPECT_GT(paired, 100) << name;
    }
}

TEST(Fades, CurvesMatchTheirFormulasWithExactEndpoints) {
    const long double pi = std::acos(-1.0L);
    for (float shape : {0.1f, 1.0f, 10.0f}) {
        EXPECT_EQ(dsp::CalculateCosineFadeValue(0.0f, shape), 0.0f) << shape;
        EXPECT_EQ(dsp::CalculateCosineFadeValue(1.0f, shape), 1.0f) << shape;
        for (int k = 1; k < 64; ++k) {
            const long double want = (1.0L - std::cos(pi * std::pow(k / 64.0L, shape))) / 2.0L;
            ASSERT_NEAR(dsp::CalculateCosineFadeValue(k / 64.0f, shape), static_cast<double>(want), 4e-7) << k;
        }
    }
    EXPECT_EQ(dsp::CalculateCosineFadeValue(0.5f, 1.0f), 0.5f);
    for (float x : {0.123f, 0.9999f})
        EXPECT_EQ(dsp::CalculateLogFadeValue(x, 0.0f), x) << "m = 0 is linear";
    for (float m : {-10.0f, -0.1f, 2.0f}) {
        EXPECT_EQ(dsp::CalculateLogFadeValue(0.0f, m), 0.0f) << m;
        EXPECT_EQ(dsp::CalculateLogFadeValue(1.0f, m), 1.0f) << m;
        for (int k = 1; k < 64; ++k) {
            const long double a = std::exp(-m * 1.0L), b = std::exp(-m * (k / 64.0L));
            ASSERT_NEAR(dsp::CalculateLogFadeValue(k / 64.0f, m), static_cast<double>(1.0L - (b - a) / (1.0L - a)),
                        2e-6)
                << k << "/64, " << m;
        }
    }
    // The user's vertical setting (-100 ... 100) to each curve's shape.
    EXPECT_EQ(dsp::GetCosineVerticalModifier(0.0f), 1.0f);
    EXPECT_NEAR(dsp::GetCosineVerticalModifier(-100.0f), 10.0f, 1e-5f);
    EXPECT_EQ(dsp::GetLogVerticalModifier(-35.0f), -3.5f);
}

}  // namespace
