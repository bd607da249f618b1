#pragma once
// Inputs shared by the property suites: random block partitions, a stereo programme and a
// hostile signal, the setting ranges a row can move, and a bit-exact comparison.

#include <algorithm>
#include <bit>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "support/signals.h"

namespace kesta::test::properties {

inline constexpr int kChannels = 2;
inline constexpr int kPartitions = 50;

using Sizes = std::vector<int>;

// A setting a row can move, and its range.
struct Knob {
    std::string name;
    float minimum;
    float maximum;
};

// The minimum, midpoint and maximum of a knob.
inline std::vector<float> KnobValues(const Knob& k) {
    return {k.minimum, 0.5f * (k.minimum + k.maximum), k.maximum};
}

// A random partition: single frames, primes and any size up to 8192, mixed.
inline Sizes Partition(uint64_t seed) {
    static constexpr int kPrimes[] = {2, 3, 5, 7, 13, 31, 127, 257, 509, 1021, 2039, 4093, 8191};
    Random random(seed);
    Sizes sizes;
    for (int i = 0; i < 64; ++i) {
        const double kind = random.Uniform();
        sizes.push_back(kind < 0.15 ? 1 : kind < 0.5 ? kPrimes[random.UniformInt(0, 12)] : random.UniformInt(1, 8192));
    }
    return sizes;
}

// Programme: two channels of tones in noise with a few sharp clicks.
inline Channels Programme(std::size_t frames) {
    Channels x = NoiseChannels(kChannels, frames, 7, 0.05);
    for (int c = 0; c < kChannels; ++c) {
        const Signal tone = Sine(frames, 330.0 + 270.0 * c, 44100.0, 0.4);
        for (std::size_t i = 0; i < frames; ++i)
            x[c][i] += tone[i];
        for (std::size_t i = 1500 + 400 * c; i < frames; i += 5000)
            x[c][i] = 0.95f;
    }
    return x;
}

// Full-scale square wave, DC, silence, a single-sample impulse and denormal-range noise in a row.
inline Channels Hostile() {
    constexpr std::size_t kPart = 1024;
    Signal s;
    for (std::size_t i = 0; i < kPart; ++i)
        s.push_back((i / 37) % 2 ? -1.0f : 1.0f);
    s.insert(s.end(), kPart, 1.0f);
    s.insert(s.end(), kPart, 0.0f);
    s.push_back(1.0f);
    s.insert(s.end(), kPart - 1, 0.0f);
    Random random(3);
    const float tiny = std::numeric_limits<float>::denorm_min();
    for (std::size_t i = 0; i < kPart; ++i)
        s.push_back(static_cast<float>(random.UniformInt(-1 << 20, 1 << 20)) * tiny);
    Channels x(kChannels, s);
    std::reverse(x[1].begin(), x[1].end());
    return x;
}

template <class T>
bool SameBits(T a, T b) {
    using Bits = std::conditional_t<sizeof(T) == 4, uint32_t, uint64_t>;
    return std::bit_cast<Bits>(a) == std::bit_cast<Bits>(b);
}

// Where two sequences of figures or samples first differ ("" when they are the same, bit for bit).
template <class T>
std::string Difference(const std::vector<T>& a, const std::vector<T>& b) {
    if (a.size() != b.size()) return "lengths " + std::to_string(a.size()) + " and " + std::to_string(b.size());
    const auto at = std::mismatch(a.begin(), a.end(), b.begin(), SameBits<T>);
    if (at.first == a.end()) return "";
    return "entry " + std::to_string(at.first - a.begin()) + ": " + std::to_string(*at.first) + " vs " +
           std::to_string(*at.second);
}

inline std::string Difference(const Channels& a, const Channels& b) {
    if (a.size() != b.size()) return "channel counts differ";
    for (std::size_t c = 0; c < a.size(); ++c)
        if (const std::string d = Difference(a[c], b[c]); !d.empty()) return "channel " + std::to_string(c) + ", " + d;
    return "";
}

// `run(sizes, &allocations)` over every random partition gives the bits it gives over `whole`
// sizes, and allocates nothing.
template <class Run>
void ExpectEveryPartitionAsOneBlock(const Sizes& whole, Run run) {
    const auto expected = run(whole, nullptr);
    for (uint64_t seed = 1; seed <= kPartitions; ++seed) {
        long long allocations = 0;
        ASSERT_EQ(Difference(run(Partition(seed), &allocations), expected), "") << "partition " << seed;
        ASSERT_EQ(allocations, 0) << "partition " << seed;
    }
}

// Calls `test(rate, knob, value, where)` for the defaults and for every knob of `row` at its ends and
// middle, at low, common, high and odd rates (rate 0 when the class takes none).
template <class Row, class Test>
void ForEverySetting(const Row& row, Test test) {
    const std::vector<int> rates = row.takesRate ? std::vector<int>{8000, 44100, 192000, 65537} : std::vector<int>{0};
    for (int rate : rates)
        for (int knob = -1; knob < static_cast<int>(row.knobs.size()); ++knob) {
            const Knob* k = knob >= 0 ? &row.knobs[static_cast<std::size_t>(knob)] : nullptr;
            for (float value : k ? KnobValues(*k) : std::vector<float>{0.0f})
                test(
                    rate, knob, value,
                    (k ? k->name : "defaults") + " = " + std::to_string(value) + " at " + std::to_string(rate) + " Hz");
        }
}

}  // namespace kesta::test::properties
