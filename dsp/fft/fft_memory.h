#pragma once
// 64-byte aligned scratch memory for FFT plans and engines.

#include <cstddef>
#include <memory>
#include <new>

namespace dsp::fft {

inline constexpr std::size_t kAlignment = 64;

struct AlignedDeleter {
    void operator()(void* p) const noexcept { ::operator delete(p, std::align_val_t{kAlignment}); }
};

using AlignedBytes = std::unique_ptr<void, AlignedDeleter>;

inline AlignedBytes AllocateAligned(std::size_t bytes) {
    return AlignedBytes(::operator new(bytes, std::align_val_t{kAlignment}));
}

inline std::shared_ptr<void> AllocateAlignedShared(std::size_t bytes) {
    return std::shared_ptr<void>(::operator new(bytes, std::align_val_t{kAlignment}), AlignedDeleter{});
}

}  // namespace dsp::fft
