#pragma once
// The per-bin loops of the hiss reducer: a plain scalar form (the definition, here) and the
// kernel builds (hiss_kernels.cpp, one per instruction set, picked for the CPU; see
// dsp/core/kernel_dispatch.h). Every build uses only correctly rounded IEEE operations (multiply,
// add, subtract, divide, square root, compare, select) in the same order, never a fused
// multiply-add, so all give identical bits; a test holds them to that.

#include <math.h>

#include "dsp/core/cpu.h"

namespace dsp::nohiss::kernels {

// Single-precision constants of the gain rule.
struct GainRule {
    float floorGain;          // G
    float oneMinusFloorGain;  // 1 - G
    float kneeRatio;          // r: the knee starts at lo = r * T
};

// The scalar forms live in an unnamed namespace so that every kernel build keeps its own copy.
namespace {
namespace scalar {

// m[k] = |X[k]| / divisor for k in [from, to).
inline void Magnitudes(const float* re, const float* im, float* m, int from, int to, float divisor) {
    for (int k = from; k < to; ++k)
        m[k] = ::sqrtf(re[k] * re[k] + im[k] * im[k]) / divisor;
}

// 1 at S >= T; G + (1 - G)(S - lo)/(T - lo) for lo <= S < T; G below lo.
inline float Gain(float s, float t, const GainRule& rule) {
    const float lo = rule.kneeRatio * t;
    if (s >= t) return 1.0f;
    if (s >= lo) return rule.floorGain + rule.oneMinusFloorGain * (s - lo) / (t - lo);
    return rule.floorGain;
}

// re[k], im[k] *= Gain(S[k], T[k]) for k in [from, to).
inline void ApplyGains(float* re, float* im, const float* S, const float* T, int from, int to, const GainRule& rule) {
    for (int k = from; k < to; ++k) {
        const float g = Gain(S[k], T[k], rule);
        re[k] *= g;
        im[k] *= g;
    }
}

// The smoothing recurrence over bins [from, to) of one row (S points at bin 0 and may be read from
// S[from - 2] to S[to + 1]). At bin k, S[k-2] and S[k-1] already hold this frame's values and
// S[k+1], S[k+2] the last frame's; the smoothed value falls slowly (decay d) when the
// neighbourhood q is below it and follows it fast (0.92 of q) when it is above.
inline void SmoothRow(float* S, const float* m, int from, int to, float d, float oneMinusD) {
    for (int k = from; k < to; ++k) {
        const float q = 0.1f * S[k - 2] + 0.2f * S[k - 1] + 0.4f * m[k] + 0.2f * S[k + 1] + 0.1f * S[k + 2];
        S[k] = q <= S[k] ? S[k] * d + oneMinusD * q : S[k] * 0.08f + q * 0.92f;
    }
}

}  // namespace scalar
}  // namespace

// The kernel builds: Magnitudes and ApplyGains as their scalar forms; SmoothPair runs SmoothRow
// on two rows at once (the recurrence is a chain through S[k-1], so a row cannot be vectorised
// across bins; two rows side by side pay the chain's latency once).
struct HissKernels {
    void (*magnitudes)(const float* re, const float* im, float* m, int from, int to, float divisor);
    void (*applyGains)(float* re, float* im, const float* S, const float* T, int from, int to, const GainRule& rule);
    void (*smoothPair)(float* SA, float* SB, const float* mA, const float* mB, int from, int to, float d,
                       float oneMinusD);
};

namespace portable {
const HissKernels& HissKernelTable();
}
namespace avx2 {
const HissKernels& HissKernelTable();
}

// The build `isa` asks for (the portable one where it is missing here); Best is picked once.
const HissKernels& HissKernelsFor(dsp::detail::Isa isa = dsp::detail::Isa::Best);

}  // namespace dsp::nohiss::kernels
