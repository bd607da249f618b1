#pragma once
// What the CPU running the library can execute (not exported). Detection runs once; every kernel
// family asks here, through PickKernels (kernel_dispatch.h), which of its builds to run.

namespace dsp::detail {

enum class Isa {
    Best,      // the fastest kernels this CPU can run
    Portable,  // the baseline build, any CPU of the architecture
    Avx2Fma,   // x86-64 with AVX2 and FMA (the `avx2` kernel builds)
};

// True when kernels for `isa` were compiled in and this CPU can run them.
bool IsaAvailable(Isa isa);
// The set Best resolves to on this CPU.
Isa BestIsa();
// `isa` with Best resolved, or Portable when `isa` is not available here.
Isa ResolveIsa(Isa isa);
const char* IsaName(Isa isa);

}  // namespace dsp::detail
