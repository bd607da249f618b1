#include "dsp/core/cpu.h"

#if defined(KESTADSP_HAVE_AVX2) && defined(_MSC_VER) && !defined(__clang__)
#include <immintrin.h>
#include <intrin.h>
#endif

namespace dsp::detail {

namespace {

bool CpuHasAvx2Fma() {
#if defined(KESTADSP_HAVE_AVX2)
#if defined(__GNUC__) || defined(__clang__)
    // On Linux and macOS the kernel enables the AVX state whenever the CPU reports AVX2.
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
#elif defined(_MSC_VER)
    int regs[4];
    __cpuid(regs, 0);
    if (regs[0] < 7) return false;
    __cpuid(regs, 1);
    const bool fma = (regs[2] & (1 << 12)) != 0;
    const bool osxsave = (regs[2] & (1 << 27)) != 0;
    const bool avx = (regs[2] & (1 << 28)) != 0;
    if (!fma || !osxsave || !avx) return false;
    if ((_xgetbv(0) & 0x6) != 0x6) return false;  // XMM and YMM state saved by the OS
    __cpuidex(regs, 7, 0);
    return (regs[1] & (1 << 5)) != 0;
#else
    return false;
#endif
#else
    return false;
#endif
}

bool Avx2Usable() {
    static const bool usable = CpuHasAvx2Fma();
    return usable;
}

}  // namespace

bool IsaAvailable(Isa isa) {
    switch (isa) {
        case Isa::Best:
        case Isa::Portable:
            return true;
        case Isa::Avx2Fma:
            return Avx2Usable();
    }
    return false;
}

Isa BestIsa() {
    return Avx2Usable() ? Isa::Avx2Fma : Isa::Portable;
}

Isa ResolveIsa(Isa isa) {
    if (isa == Isa::Best) return BestIsa();
    return IsaAvailable(isa) ? isa : Isa::Portable;
}

const char* IsaName(Isa isa) {
    switch (ResolveIsa(isa)) {
        case Isa::Portable:
            return "portable";
        case Isa::Avx2Fma:
            return "avx2-fma";
        case Isa::Best:
            break;
    }
    return "unknown";
}

}  // namespace dsp::detail
