#include "dsp/white_noise.h"

#include <bit>
#include <cstdlib>

namespace dsp {

namespace {

constexpr uint32_t kA = 196314165u;
constexpr uint32_t kC = 907633515u;
constexpr uint32_t kB = 4289954869u;  // -5012427
constexpr uint32_t kD = 1663851u;

constexpr uint32_t Key(int j) {
    return 37041u + 12347u * static_cast<uint32_t>(j);
}
constexpr uint32_t Middle16(uint32_t x) {
    return (x >> 9) & 0xFFFFu;
}

}  // namespace

WhiteNoise::WhiteNoise() {
    Seed(static_cast<unsigned int>(std::rand()) & 0xFFFFu);
}

WhiteNoise::WhiteNoise(unsigned int seed) {
    Seed(seed);
}

void WhiteNoise::Seed(unsigned int seed) {
    uint32_t x[11];
    x[0] = static_cast<uint32_t>(seed) * kA + kC;
    for (int j = 1; j <= 5; ++j)
        x[j] = x[j - 1] * kA + kC;
    x[6] = x[5] * kA + kD;
    for (int j = 7; j <= 10; ++j)
        x[j] = x[j - 1] * kB + kD;
    for (int j = 1; j <= 10; ++j) {
        mState[j] = Middle16(x[j]) ^ Key(j);
        mLastOutput[j] = 0;
    }
    mState[0] = (Middle16(x[0]) ^ Key(0)) * kA + kC;
    mLastOutput[0] = mState[0] >> 9;
    mIndex = static_cast<int32_t>((mState[0] >> 9) % 11u);
}

uint32_t WhiteNoise::GetNext(int j) {
    mState[j] = mState[j] * kA + kC;
    mLastOutput[j] = mState[j] >> 9;
    return mLastOutput[j];
}

unsigned int WhiteNoise::dwWhite() {
    mIndex = (mIndex + 1) % 11;
    return GetNext(mIndex);
}

double WhiteNoise::fRandom() {
    mIndex = (mIndex + 1) % 11;
    const float twoToFour = std::bit_cast<float>(GetNext(mIndex) | 0x40000000u);
    return (static_cast<double>(twoToFour) - 2.0) * 0.5;
}

double WhiteNoise::fGaussian(double scale) {
    double sum = 0.0;
    for (int i = 0; i < 12; ++i)
        sum += fRandom();
    return (sum - 6.0) * 0.5 * scale;
}

}  // namespace dsp
