#pragma once
// 64-byte aligned memory (not exported): raw scratch bytes for FFT plans and engines, and zeroed
// blocks of float or double that the streaming engines and processors carve into per-channel
// arrays, each starting on a 64-byte boundary. Allocation failure propagates as std::bad_alloc.

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

namespace dsp::detail {

inline constexpr std::size_t kAlignment = 64;

struct AlignedDeleter {
    void operator()(void* p) const noexcept { ::operator delete (p, std::align_val_t{kAlignment}); }
};

using AlignedBytes = std::unique_ptr<void, AlignedDeleter>;

inline AlignedBytes AllocateAlignedBytes(std::size_t bytes) {
    return AlignedBytes(::operator new (bytes, std::align_val_t{kAlignment}));
}

inline std::shared_ptr<void> AllocateAlignedShared(std::size_t bytes) {
    return std::shared_ptr<void>(::operator new (bytes, std::align_val_t{kAlignment}), AlignedDeleter{});
}

// `count` rounded up so that the next array carved after it stays aligned.
template <typename T>
std::size_t AlignedStride(std::size_t count) {
    constexpr std::size_t perAlignment = kAlignment / sizeof(T);
    return (count + perAlignment - 1) / perAlignment * perAlignment;
}

// Block of `count` values of T, not initialised; null for 0. Release with FreeAlignedArray.
template <typename T>
T* AllocateAlignedArrayUninitialised(std::size_t count) {
    if (count == 0) return nullptr;
    return static_cast<T*>(::operator new (count * sizeof(T), std::align_val_t{kAlignment}));
}

// Zeroed block of `count` values of T; null for 0. Release with FreeAlignedArray.
template <typename T>
T* AllocateAlignedArray(std::size_t count) {
    T* p = AllocateAlignedArrayUninitialised<T>(count);
    if (p != nullptr) std::memset(static_cast<void*>(p), 0, count * sizeof(T));
    return p;
}

template <typename T>
void FreeAlignedArray(T* p) noexcept {
    if (p != nullptr) ::operator delete (static_cast<void*>(p), std::align_val_t{kAlignment});
}

}  // namespace dsp::detail
