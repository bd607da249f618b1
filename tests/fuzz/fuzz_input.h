#pragma once
// Reading a fuzzer's bytes as a sequence of values; past the end every value reads as 0.

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kesta_fuzz {

class Input {
public:
    Input(const uint8_t* data, std::size_t size) : mData(data), mSize(size) {}

    uint8_t Byte() { return mOffset < mSize ? mData[mOffset++] : 0; }
    float Float() {
        uint8_t bytes[4] = {Byte(), Byte(), Byte(), Byte()};
        float v;
        std::memcpy(&v, bytes, sizeof v);
        return v;
    }
    // The bytes not read yet.
    const uint8_t* Rest() const { return mData + (mOffset < mSize ? mOffset : mSize); }
    std::size_t Left() const { return mOffset < mSize ? mSize - mOffset : 0; }
    void Skip(std::size_t n) { mOffset += n < Left() ? n : Left(); }

private:
    const uint8_t* mData;
    std::size_t mSize;
    std::size_t mOffset = 0;
};

// Deterministic test audio in [-1, 1): a small linear congruential generator.
inline void FillNoise(float* out, std::size_t n, uint32_t seed) {
    for (std::size_t i = 0; i < n; ++i) {
        seed = seed * 1664525u + 1013904223u;
        out[i] = float(int32_t(seed)) / 2147483648.0f;
    }
}

}  // namespace kesta_fuzz
