#pragma once
// WhiteNoise: the library's reproducible random source, eleven 32-bit linear congruential
// generators (x := 196314165 x + 907633515 mod 2^32, read out as x >> 9) used in rotation.
//
// Read-outs: dwWhite, a 23-bit integer (0 ... 8388607); fRandom, uniform in [0, 1) with 23-bit
// resolution (the float 2 (1 + v / 2^23), minus 2, halved); fGaussian(scale), the sum of twelve
// fRandom values less 6, times scale / 2 (zero mean, standard deviation scale / 2, within
// +-3 scale).
//
// Seeding spreads one number over the eleven states: six steps of the generator, then one with
// the increment 1663851 and four more with the multiplier 4289954869 (-5012427), each step's
// bits 9 ... 24 keyed by 37041 + 12347 j; generator 0 takes one more step. Two objects seeded
// alike give the same numbers on every platform. The default constructor seeds from the standard
// library's rand() (its low 16 bits).
//
// No allocation; one multiply-add per draw. One thread at a time; copies continue the sequence.

#include <cstdint>

#include "dsp/kestadsp_export.h"

namespace dsp {

class KESTADSP_API WhiteNoise {
public:
    WhiteNoise();
    explicit WhiteNoise(unsigned int seed);

    void Seed(unsigned int seed);

    unsigned int dwWhite();
    double fRandom();
    double fGaussian(double scale);

private:
    uint32_t GetNext(int j);

    uint32_t mState[11] = {};
    uint32_t mLastOutput[11] = {};
    int32_t mIndex = 0;
};

}  // namespace dsp
