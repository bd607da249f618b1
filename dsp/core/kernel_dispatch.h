#pragma once
// The library's one way of running code built for the CPU at hand (not exported).
//
// A hot loop that gains from wider vectors becomes a kernel family:
//  1. A private header declares its table of plain function pointers and, in a namespace per
//     instruction set, the function that returns each build's table:
//         struct WindowKernels { void (*multiply)(const float*, const float*, float*, int); };
//         namespace portable { const WindowKernels& WindowKernelTable(); }
//         namespace avx2 { const WindowKernels& WindowKernelTable(); }
//  2. One source defines the loops and the table inside `namespace KESTADSP_ISA { ... }`. The
//     layer's CMakeLists builds it once per instruction set with
//         kesta_add_kernels(<layer> SOURCES window_kernels.cpp)
//     (or ISAS <set> for a source written for one set only). Code in that source that is not in
//     the KESTADSP_ISA namespace must have internal linkage (an unnamed namespace, static), and
//     it must not define inline or template functions of shared headers: the linker may keep
//     any one copy of those, built for a CPU the caller may not have.
//  3. The caller picks a table once (at construction, or into a function-local static):
//         const WindowKernels& k = detail::PickKernels<WindowKernels>(
//             portable::WindowKernelTable(), KESTADSP_AVX2_TABLE(avx2::WindowKernelTable()));
// Builds of one family give the same bits wherever their arithmetic is specified to (tests run
// every build the CPU has through ResolveIsa); FFT kernels may differ in rounding.

#include "dsp/core/cpu.h"

// The address of an AVX2 build's table where the library carries AVX2 kernels, else null.
#if defined(KESTADSP_HAVE_AVX2)
#define KESTADSP_AVX2_TABLE(table) (&(table))
#else
#define KESTADSP_AVX2_TABLE(table) nullptr
#endif

namespace dsp::detail {

// The table of the build `isa` asks for (Best: the fastest this CPU runs); the portable one where
// that build is missing or the CPU cannot run it.
template <typename Table>
const Table& PickKernels(const Table& portable, const Table* avx2, Isa isa = Isa::Best) {
    if (avx2 != nullptr && ResolveIsa(isa) == Isa::Avx2Fma) return *avx2;
    return portable;
}

}  // namespace dsp::detail
