#pragma once
// DenormalGuard: a scoped flush-to-zero / denormals-are-zero mode for the processing entry points
// of recursive filters.
//
// A recursive filter fed with silence decays towards zero and its memory passes through the
// subnormal range, where many CPUs take a slow path on every multiply. Under the guard, subnormal
// results are flushed to zero (FTZ) and subnormal operands read as zero (DAZ), so a decaying tail
// ends in exact zeros at full speed. The guard restores the caller's mode on exit.
//
// x86-64: MXCSR bits 15 (FTZ) and 6 (DAZ); they govern SSE arithmetic, which is all scalar float
// and double arithmetic on that architecture. arm64: FPCR bit 24 (FZ), which covers both. Elsewhere
// the guard does nothing and Supported() is false.
//
// Guards nest cheaply: when the mode is already set (an equaliser's entry point calling its
// sections), the guard only reads the control register and writes nothing, on entry or on exit.
// Header-only and private to the library; not thread-shared (the mode is per thread).

#include <cstdint>

#if defined(__x86_64__) || defined(_M_X64)
#include <xmmintrin.h>
#define KESTA_DENORMAL_GUARD_X86 1
#elif defined(__aarch64__) && (defined(__GNUC__) || defined(__clang__))
#define KESTA_DENORMAL_GUARD_ARM64 1
#endif

namespace dsp {

class DenormalGuard {
public:
    DenormalGuard() noexcept : mSaved(ReadMode()) {
        const uint64_t wanted = mSaved | kFlushBits;
        if (wanted != mSaved) WriteMode(wanted);
    }
    ~DenormalGuard() {
        if ((mSaved | kFlushBits) != mSaved) WriteMode(mSaved);
    }
    DenormalGuard(const DenormalGuard&) = delete;
    DenormalGuard& operator=(const DenormalGuard&) = delete;

    // True where the guard can change the floating-point mode.
    static constexpr bool Supported() { return kFlushBits != 0; }
    // True when the calling thread currently flushes (all the guard's bits are set).
    static bool FlushingEnabled() { return Supported() && (ReadMode() & kFlushBits) == kFlushBits; }

private:
#if defined(KESTA_DENORMAL_GUARD_X86)
    static constexpr uint64_t kFlushBits = 0x8000u | 0x0040u;  // FTZ | DAZ
    static uint64_t ReadMode() {
        return _mm_getcsr();
    }
    static void WriteMode(uint64_t mode) {
        _mm_setcsr(static_cast<unsigned int>(mode));
    }
#elif defined(KESTA_DENORMAL_GUARD_ARM64)
    static constexpr uint64_t kFlushBits = uint64_t{1} << 24;  // FZ
    static uint64_t ReadMode() {
        uint64_t fpcr;
        __asm__ __volatile__("mrs %0, fpcr" : "=r"(fpcr));
        return fpcr;
    }
    static void WriteMode(uint64_t mode) {
        __asm__ __volatile__("msr fpcr, %0" : : "r"(mode));
    }
#else
    static constexpr uint64_t kFlushBits = 0;
    static uint64_t ReadMode() {
        return 0;
    }
    static void WriteMode(uint64_t) {}
#endif

    uint64_t mSaved;
};

}  // namespace dsp
