#include "dsp/fades.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <latch>
#include <thread>
#include <vector>

namespace {

using dsp::GetOppositeFadeShapeValForConstantPowerCrossfade_Cosine;
using dsp::GetOppositeFadeShapeValForConstantPowerCrossfade_Log;

// Defined first so that, run in file order, it makes the first calls of the process (under CTest
// every test runs in a process of its own anyway). The tables are built on first use; many threads
// arriving at once must all see complete tables.
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
    std::vector<int> reference;
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

// Structure that a mistyped or shifted row would break: a steeper fade needs a shallower opposite,
// so both tables fall with the setting; and pairing is mutual, so the opposite of the opposite
// comes back to the setting within the tables' rounding (away from the clamped ends).
TEST(OppositeFadeShape, TablesFallAndPairMutually) {
    using Fn = int (*)(int);
    const struct {
        Fn fn;
        int slack;
        const char* name;
    } tables[] = {
        {GetOppositeFadeShapeValForConstantPowerCrossfade_Cosine, 2, "cosine"},
        {GetOppositeFadeShapeValForConstantPowerCrossfade_Log, 1, "log"},
    };
    for (const auto& table : tables) {
        for (int s = -100; s < 100; ++s)
            ASSERT_GE(table.fn(s), table.fn(s + 1)) << table.name << " " << s;
        int paired = 0;
        for (int s = -100; s <= 100; ++s) {
            const int opposite = table.fn(s);
            if (opposite <= -100 || opposite >= 100) continue;
            ASSERT_LE(std::abs(table.fn(opposite) - s), table.slack) << table.name << " " << s;
            ++paired;
        }
        EXPECT_GT(paired, 100) << table.name;
    }
}

long double CosineFade(long double x, long double shape) {
    return (1.0L - std::cos(std::acos(-1.0L) * std::pow(x, shape))) / 2.0L;
}

long double LogFade(long double x, long double m) {
    const long double a = std::exp(-m), b = std::exp(-m * x);
    return 1.0L - (b - a) / (1.0L - a);
}

TEST(CosineFade, EndpointsMidpointAndCurve) {
    for (float shape : {0.1f, 0.5f, 1.0f, 3.0f, 10.0f}) {
        EXPECT_EQ(dsp::CalculateCosineFadeValue(0.0f, shape), 0.0f) << shape;
        EXPECT_EQ(dsp::CalculateCosineFadeValue(1.0f, shape), 1.0f) << shape;
        for (int k = 1; k < 64; ++k) {
            const float x = k / 64.0f;
            ASSERT_NEAR(dsp::CalculateCosineFadeValue(x, shape), static_cast<double>(CosineFade(x, shape)), 4e-7)
                << "x " << x << " shape " << shape;
        }
    }
    EXPECT_EQ(dsp::CalculateCosineFadeValue(0.5f, 1.0f), 0.5f);
    EXPECT_NEAR(dsp::CalculateCosineFadeValue(0.25f, 1.0f), static_cast<float>((2.0 - std::sqrt(2.0)) / 4.0), 1e-7f);
}

TEST(LogFade, LinearAtZeroEndpointsExactAndCurve) {
    for (float x : {0.0f, 0.123f, 0.5f, 0.9999f, 1.0f})
        EXPECT_EQ(dsp::CalculateLogFadeValue(x, 0.0f), x);
    for (float m : {-10.0f, -3.5f, -0.1f, 0.1f, 2.0f, 10.0f}) {
        EXPECT_EQ(dsp::CalculateLogFadeValue(0.0f, m), 0.0f) << m;
        EXPECT_EQ(dsp::CalculateLogFadeValue(1.0f, m), 1.0f) << m;
        for (int k = 1; k < 64; ++k) {
            const float x = k / 64.0f;
            ASSERT_NEAR(dsp::CalculateLogFadeValue(x, m), static_cast<double>(LogFade(x, m)), 2e-6)
                << "x " << x << " m " << m;
        }
    }
    // Positive m rises fast (above the line), negative m slowly.
    EXPECT_GT(dsp::CalculateLogFadeValue(0.5f, 3.0f), 0.5f);
    EXPECT_LT(dsp::CalculateLogFadeValue(0.5f, -3.0f), 0.5f);
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
