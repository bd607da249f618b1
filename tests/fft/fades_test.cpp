#include "dsp/fades.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <latch>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using dsp::GetOppositeFadeShapeValForConstantPowerCrossfade_Cosine;
using dsp::GetOppositeFadeShapeValForConstantPowerCrossfade_Log;

// First in the file so it makes the process's first calls: tables built on first use must look
// complete to every thread arriving at once.
TEST(OppositeFadeShape, FirstUseFromManyThreadsAtOnce) {
    constexpr int kThreads = 8;
    std::latch go(kThreads);
    std::vector<std::vector<int>> seen(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            go.arrive_and_wait();
            for (int s = -101; s <= 101; ++s) {
                seen[t].push_back(GetOppositeFadeShapeValForConstantPowerCrossfade_Cosine(s));
                seen[t].push_back(GetOppositeFadeShapeValForConstantPowerCrossfade_Log(s));
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    std::vector<int> reference;  // after every thread is done, so the tables are complete
    for (int s = -101; s <= 101; ++s) {
        reference.push_back(GetOppositeFadeShapeValForConstantPowerCrossfade_Cosine(s));
        reference.push_back(GetOppositeFadeShapeValForConstantPowerCrossfade_Log(s));
    }
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(seen[t], reference) << "thread " << t;
}

TEST(OppositeFadeShape, TabulatedValues) {
    struct Row {
        int setting, cosine, log;
    };
    const Row rows[] = {
        {-100, 86, 100}, {-77, 78, 100}, {-50, 66, 100}, {-25, 53, 100},  {-24, 52, 97},    {-1, 37, 45},
        {0, 36, 44},     {17, 21, 20},   {18, 20, 19},   {19, 19, 18},    {20, 18, 17},     {36, 0, 5},
        {44, -11, 0},    {50, -20, -4},  {85, -97, -20}, {86, -100, -20}, {100, -100, -25},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(GetOppositeFadeShapeValForConstantPowerCrossfade_Cosine(r.setting), r.cosine) << r.setting;
        EXPECT_EQ(GetOppositeFadeShapeValForConstantPowerCrossfade_Log(r.setting), r.log) << r.setting;
    }
    for (int outside : {101, -101, 1000, INT_MIN, INT_MAX}) {
        EXPECT_EQ(GetOppositeFadeShapeValForConstantPowerCrossfade_Cosine(outside), 0) << outside;
        EXPECT_EQ(GetOppositeFadeShapeValForConstantPowerCrossfade_Log(outside), 0) << outside;
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

long double CosineFade(long double x, long double shape) {
    return (1.0L - std::cos(std::acos(-1.0L) * std::pow(x, shape))) / 2.0L;
}

long double LogFade(long double x, long double m) {
    const long double a = std::exp(-m), b = std::exp(-m * x);
    return 1.0L - (b - a) / (1.0L - a);
}

TEST(Fades, CurvesMatchTheirFormulasWithExactEndpoints) {
    for (float shape : {0.1f, 0.5f, 1.0f, 3.0f, 10.0f}) {
        EXPECT_EQ(dsp::CalculateCosineFadeValue(0.0f, shape), 0.0f) << shape;
        EXPECT_EQ(dsp::CalculateCosineFadeValue(1.0f, shape), 1.0f) << shape;
        for (int k = 1; k < 64; ++k) {
            const double want = static_cast<double>(CosineFade(k / 64.0L, shape));
            ASSERT_NEAR(dsp::CalculateCosineFadeValue(k / 64.0f, shape), want, 4e-7) << k << "/64, " << shape;
        }
    }
    EXPECT_EQ(dsp::CalculateCosineFadeValue(0.5f, 1.0f), 0.5f);
    for (float x : {0.0f, 0.123f, 0.5f, 0.9999f, 1.0f})
        EXPECT_EQ(dsp::CalculateLogFadeValue(x, 0.0f), x) << "m = 0 is linear";
    for (float m : {-10.0f, -3.5f, -0.1f, 0.1f, 2.0f, 10.0f}) {
        EXPECT_EQ(dsp::CalculateLogFadeValue(0.0f, m), 0.0f) << m;
        EXPECT_EQ(dsp::CalculateLogFadeValue(1.0f, m), 1.0f) << m;
        for (int k = 1; k < 64; ++k) {
            const double want = static_cast<double>(LogFade(k / 64.0L, m));
            ASSERT_NEAR(dsp::CalculateLogFadeValue(k / 64.0f, m), want, 2e-6) << k << "/64, " << m;
        }
    }
}

TEST(FadeModifiers, VerticalSettingToShape) {
    EXPECT_EQ(dsp::GetCosineVerticalModifier(0.0f), 1.0f);
    EXPECT_NEAR(dsp::GetCosineVerticalModifier(100.0f), 0.1f, 1e-8f);
    EXPECT_NEAR(dsp::GetCosineVerticalModifier(-100.0f), 10.0f, 1e-5f);
    EXPECT_NEAR(dsp::GetCosineVerticalModifier(50.0f), static_cast<float>(1.0 / std::sqrt(10.0)), 1e-7f);
    EXPECT_EQ(dsp::GetLogVerticalModifier(-35.0f), -3.5f);
    EXPECT_EQ(dsp::GetLogVerticalModifier(100.0f), 10.0f);
    EXPECT_EQ(dsp::GetLogVerticalModifier(0.0f), 0.0f);
}

}  // namespace
