// White noise source: the sequences of two seeds, in all three read-outs, against the generator
// written out here in 64-bit arithmetic (reduced modulo 2^32 after every step), and reseeding.

#include "dsp/white_noise.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <vector>

namespace {

// The seeding and drawing rules in 64-bit integers.
struct Reference {
    uint64_t state[11] = {};
    int index = 0;

    explicit Reference(uint64_t seed) {
        const uint64_t M = 0xFFFFFFFFull, A = 196314165, C = 907633515, B = 4289954869ull, D = 1663851;
        uint64_t x[11];
        x[0] = (seed * A + C) & M;
        for (int j = 1; j <= 5; ++j)
            x[j] = (x[j - 1] * A + C) & M;
        x[6] = (x[5] * A + D) & M;
        for (int j = 7; j <= 10; ++j)
            x[j] = (x[j - 1] * B + D) & M;
        for (int j = 1; j <= 10; ++j)
            state[j] = ((x[j] >> 9) & 0xFFFF) ^ static_cast<uint64_t>(37041 + 12347 * j);
        state[0] = ((((x[0] >> 9) & 0xFFFF) ^ 37041) * A + C) & M;
        index = static_cast<int>((state[0] >> 9) % 11);
    }
    uint64_t Next() {
        index = (index + 1) % 11;
        state[index] = (state[index] * 196314165 + 907633515) & 0xFFFFFFFFull;
        return state[index] >> 9;
    }
};

TEST(WhiteNoise, SequencesMatchTheGeneratorForTwoSeeds) {
    for (unsigned int seed : {0u, 2024061u}) {
        dsp::WhiteNoise noise(seed);
        Reference ref(seed);
        for (int i = 0; i < 50; ++i)
            ASSERT_EQ(noise.dwWhite(), ref.Next()) << "seed " << seed << " draw " << i;
        for (int i = 0; i < 50; ++i) {
            const double expected = (std::bit_cast<float>(static_cast<uint32_t>(ref.Next() | 0x40000000u)) - 2.0) * 0.5;
            ASSERT_EQ(noise.fRandom(), expected) << "seed " << seed << " uniform " << i;
        }
        double sum = 0.0;
        for (int i = 0; i < 12; ++i)
            sum += (std::bit_cast<float>(static_cast<uint32_t>(ref.Next() | 0x40000000u)) - 2.0) * 0.5;
        EXPECT_EQ(noise.fGaussian(3.0), (sum - 6.0) * 0.5 * 3.0);
    }
}

TEST(WhiteNoise, SeedsRepeatAndDiffer) {
    dsp::WhiteNoise a(5u), b(6u);
    std::vector<unsigned int> first, other;
    for (int i = 0; i < 100; ++i) {
        first.push_back(a.dwWhite());
        other.push_back(b.dwWhite());
    }
    EXPECT_NE(first, other);
    a.Seed(5u);
    dsp::WhiteNoise copy = a;
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(a.dwWhite(), first[static_cast<std::size_t>(i)]);
        EXPECT_EQ(copy.dwWhite(), first[static_cast<std::size_t>(i)]);
    }
}

}  // namespace
