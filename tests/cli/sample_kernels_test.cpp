// The sample-format conversions of every build this CPU runs, against a reference written with the
// C library's rounding (nearbyint in double), over every layout, channel counts with and without a
// vector path, lengths around the vector width, and the values where conversions go wrong: full
// scale, just beyond it, ties between two integers, -0, denormals, NaN and infinities.

#include "io/sample_kernels.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

namespace kesta {
namespace {

struct Case {
    SampleLayout layout;
    int bits;
};
constexpr Case kCases[] = {{SampleLayout::Int16, 16}, {SampleLayout::Int24, 24}, {SampleLayout::Int32, 8},
                           {SampleLayout::Int32, 16}, {SampleLayout::Int32, 24}, {SampleLayout::Int32, 32},
                           {SampleLayout::Float, 0}};
constexpr int kChannelCounts[] = {1, 2, 3};
constexpr std::size_t kLengths[] = {0, 1, 7, 8, 9, 17, 23, 4099};

// Planar test audio: the awkward values first, in every position modulo the vector width, then noise
// reaching past full scale.
std::vector<std::vector<float>> Audio(int channels, std::size_t frames, int bits, unsigned seed) {
    const double step = bits > 0 ? std::ldexp(1.0, -(bits - 1)) : 0x1p-23;
    const float special[] = {1.0f,
                             -1.0f,
                             std::nextafter(1.0f, 0.0f),
                             std::nextafter(1.0f, 2.0f),
                             -std::nextafter(1.0f, 2.0f),
                             2.0f,
                             -3.5f,
                             1e30f,
                             -1e30f,
                             -0.0f,
                             0.0f,
                             1e-40f,
                             -1e-40f,
                             float(2.5 * step),  // ties: to 2 and to 4
                             float(3.5 * step),
                             float(-2.5 * step),
                             float(0.5 * step),
                             float(1.0 - 0.5 * step)};
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> noise(-1.3f, 1.3f);
    auto audio = std::vector<std::vector<float>>(std::size_t(channels), std::vector<float>(frames));
    std::size_t k = std::size_t(seed);
    for (auto& channel : audio)
        for (float& x : channel)
            x = (k++ % 3 == 0) ? special[(k / 3) % std::size(special)] : noise(random);
    return audio;
}

std::vector<const float*> Pointers(const std::vector<std::vector<float>>& audio) {
    std::vector<const float*> p;
    for (const auto& channel : audio)
        p.push_back(channel.data());
    return p;
}

// What the file must hold for x: its integer, left-justified in 32 bits for Int32.
int64_t Expected(float x, const Case& c) {
    const double scale = std::ldexp(1.0, c.bits - 1);
    const double limited = std::fmax(-1.0, std::fmin(1.0, double(x)));
    const double q = std::fmin(scale - 1, std::nearbyint(limited * scale));
    return c.layout == SampleLayout::Int32 ? int64_t(q) * (int64_t(1) << (32 - c.bits)) : int64_t(q);
}

int64_t Stored(const std::vector<uint8_t>& bytes, SampleLayout layout, std::size_t index) {
    if (layout == SampleLayout::Int16) {
        int16_t v;
        std::memcpy(&v, bytes.data() + 2 * index, 2);
        return v;
    }
    if (layout == SampleLayout::Int24) {
        const uint8_t* p = bytes.data() + 3 * index;
        const int32_t v = int32_t(uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16);
        return v >= (1 << 23) ? v - (1 << 24) : v;
    }
    int32_t v;
    std::memcpy(&v, bytes.data() + 4 * index, 4);
    return v;
}

TEST(SampleKernelsTest, EncodingRoundsTiesToEvenSaturatesAndTalliesInEveryBuild) {
    for (const SampleKernels* build : SampleKernelBuilds())
        for (const Case& c : kCases)
            for (int channels : kChannelCounts)
                for (std::size_t frames : kLengths) {
                    SCOPED_TRACE(testing::Message() << "layout " << int(c.layout) << ", " << c.bits << " bits, "
                                                    << channels << " channels, " << frames << " frames");
                    const auto audio = Audio(channels, frames, c.bits, unsigned(frames + std::size_t(channels)));
                    // One spare byte beyond the samples: a store past them shows there.
                    std::vector<uint8_t> bytes(frames * std::size_t(channels) * LayoutBytes(c.layout) + 1, 0xA5);
                    EncodeTally tally{0.25};
                    build->encode[int(c.layout)](Pointers(audio).data(), bytes.data(), channels, frames, c.bits, tally);
                    EXPECT_EQ(bytes.back(), 0xA5);
                    double peak = 0.25;
                    uint64_t beyond = 0;
                    for (int ch = 0; ch < channels; ++ch)
                        for (std::size_t i = 0; i < frames; ++i) {
                            const float x = audio[std::size_t(ch)][i];
                            peak = std::fmax(peak, std::fabs(double(x)));
                            beyond += std::fabs(x) > 1.0f;
                            const std::size_t at = i * std::size_t(channels) + std::size_t(ch);
                            if (c.layout == SampleLayout::Float) {
                                float stored;
                                std::memcpy(&stored, bytes.data() + 4 * at, 4);
                                ASSERT_EQ(std::memcmp(&stored, &x, 4), 0) << "frame " << i;
                            } else {
                                ASSERT_EQ(Stored(bytes, c.layout, at), Expected(x, c)) << "frame " << i << ": " << x;
                            }
                        }
                    EXPECT_EQ(tally.peak, peak);
                    EXPECT_EQ(tally.beyond, beyond);
                    EXPECT_FALSE(tally.nonFinite);
                }
}

TEST(SampleKernelsTest, ANonFiniteSampleAnywhereIsReported) {
    const float bad[] = {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                         -std::numeric_limits<float>::infinity()};
    for (const SampleKernels* build : SampleKernelBuilds())
        for (int channels : kChannelCounts)
            for (std::size_t at : {std::size_t(0), std::size_t(5), std::size_t(8), std::size_t(22)})
                for (float value : bad) {
                    auto audio = Audio(channels, 23, 16, 7);
                    audio[std::size_t(channels - 1)][at] = value;
                    std::vector<uint8_t> bytes(23 * std::size_t(channels) * 4);
                    for (const Case& c : kCases) {
                        EncodeTally tally;
                        build->encode[int(c.layout)](Pointers(audio).data(), bytes.data(), channels, 23, c.bits, tally);
                        EXPECT_TRUE(tally.nonFinite) << channels << " channels, sample " << at << ", " << value;
                    }
                }
}

TEST(SampleKernelsTest, DecodingScalesEveryIntegerExactly) {
    std::mt19937 random(3);
    for (const SampleKernels* build : SampleKernelBuilds())
        for (SampleLayout layout : {SampleLayout::Int16, SampleLayout::Int24, SampleLayout::Int32, SampleLayout::Float})
            for (int channels : kChannelCounts)
                for (std::size_t frames : kLengths) {
                    const std::size_t samples = frames * std::size_t(channels);
                    std::vector<uint8_t> bytes(samples * LayoutBytes(layout));
                    for (std::size_t i = 0; i < bytes.size(); ++i)
                        bytes[i] = uint8_t(random());
                    // The extremes of the depth at the start, where there are samples for them.
                    const int width = LayoutBytes(layout);
                    if (layout != SampleLayout::Float && samples >= 2) {
                        std::memset(bytes.data(), 0, std::size_t(2 * width));
                        bytes[std::size_t(width - 1)] = 0x80;  // the most negative value
                        std::memset(bytes.data() + width, 0xFF, std::size_t(width));
                        bytes[std::size_t(2 * width - 1)] = 0x7F;  // the most positive
                    }
                    std::vector<std::vector<float>> out(std::size_t(channels), std::vector<float>(frames, 99.0f));
                    std::vector<float*> pointers;
                    for (auto& channel : out)
                        pointers.push_back(channel.data());
                    build->decode[int(layout)](bytes.data(), pointers.data(), channels, frames);
                    const int bits = 8 * width;
                    for (int ch = 0; ch < channels; ++ch)
                        for (std::size_t i = 0; i < frames; ++i) {
                            const std::size_t at = i * std::size_t(channels) + std::size_t(ch);
                            const float got = out[std::size_t(ch)][i];
                            if (layout == SampleLayout::Float) {
                                ASSERT_EQ(std::memcmp(&got, bytes.data() + 4 * at, 4), 0);
                            } else {
                                // A 32-bit integer rounds to float once; the scaling is exact.
                                const float expected =
                                    float(double(float(Stored(bytes, layout, at))) * std::ldexp(1.0, -(bits - 1)));
                                ASSERT_EQ(got, expected) << "layout " << int(layout) << ", frame " << i;
                            }
                        }
                }
}

TEST(SampleKernelsTest, SaturationKeepsSignedZeroAndLimitsToFullScale) {
    for (const SampleKernels* build : SampleKernelBuilds())
        for (std::size_t n : kLengths) {
            auto audio = Audio(1, n, 16, unsigned(n));
            std::vector<float> x = audio[0];
            build->saturate(x.data(), n);
            for (std::size_t i = 0; i < n; ++i) {
                const float expected = std::fmax(-1.0f, std::fmin(1.0f, audio[0][i]));
                ASSERT_EQ(x[i], expected);
                ASSERT_EQ(std::signbit(x[i]), std::signbit(expected)) << i;
            }
        }
}

}  // namespace
}  // namespace kesta
