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

}  // namespace kesta::test::properties
