#pragma once
// What the print and the process of the factorisation reducer share (not exported).

#include "dsp/dnz.h"
#include "dsp/restoration/dnz/nmf_kernels.h"

namespace dsp::dnz::detail {

// Floats per spectrum row: the bins rounded up to whole vectors of 8; the rest stays zero.
inline int StrideFor(int bins) {
    return (bins + 7) & ~7;
}

// The Hann window of the frame engine (OverlapSave's analysis window), so print and process
// measure the same magnitudes.
void FrameWindow(float* window, int N);

// Scales each of `count` atoms (rows of `stride`, `bins` used) to sum to 1; sums[k] receives the
// sum before scaling (0 leaves the atom as it is). `ones` holds stride floats, 1 in the first
// `bins` and 0 after.
void NormaliseAtoms(const NmfKernels& k, float* atoms, int stride, int count, const float* ones, float* sums);

// A fixed, level-free starting shape for atom `index` (deterministic pseudo-random values in
// [0.5, 1.5) over the bins, zero past them), not yet normalised.
void StartingAtom(float* atom, int bins, int stride, int index);

}  // namespace dsp::dnz::detail
