#pragma once
// 64-byte aligned float blocks for the streaming engines' hot buffers (rings, frames, spectra).
// A block is carved into per-channel arrays that each start on a 64-byte boundary.

#include <cstddef>
#include <cstring>
#include <new>

namespace dsp::detail {

inline constexpr std::size_t kFloatAlignment = 64;
inline constexpr std::size_t kFloatsPerAlignment = kFloatAlignment / sizeof(float);

// Length rounded up so that the next array carved after it stays aligned.
inline std::size_t AlignedFloatStride(std::size_t count) {
    return (count + kFloatsPerAlignment - 1) / kFloatsPerAlignment * kFloatsPerAlignment;
}

// Zeroed block of `count` floats; null for 0. Allocation failure propagates as std::bad_alloc.
inline float* AllocateAlignedFloats(std::size_t count) {
    if (count == 0) return nullptr;
    auto* p = static_cast<float*>(::operator new (count * sizeof(float), std::align_val_t{kFloatAlignment}));
    std::memset(p, 0, count * sizeof(float));
    return p;
}

inline void FreeAlignedFloats(float* p) noexcept {
    if (p != nullptr) ::operator delete (p, std::align_val_t{kFloatAlignment});
}

}  // namespace dsp::detail
