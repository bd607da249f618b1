#pragma once
// The per-bin loops of AdaptiveNoise (not exported), built once per instruction set
// (adaptive_kernels.cpp, see dsp/core/kernel_dispatch.h). Each loop is free of branches so the
// compiler runs it on whole vectors; exp and log are polynomial forms made of correctly rounded
// IEEE operations in a fixed order (no fused multiply-add), so every build gives the same bits.

#include "dsp/core/cpu.h"

namespace dsp::adaptive {

// Tracker: the a-priori SNR assumed under presence (15 dB), and the smoothed presence above which
// the estimate counts as stuck.
constexpr float kPresentSnr = 31.622777f;
constexpr float kStuck = 0.95f;
// With that fixed SNR the update (1 − p)·|X|² + p·λ settles about 1.1 dB under the true noise
// power of Gaussian noise (the mean of p is not that of the prior); weighting the frame's share by
// this factor removes the bias (found by simulating the recursion on exponential powers).
constexpr float kUnbias = 1.19f;
// The minimum of the smoothed noise power lies below its mean; the estimate may rise to this
// multiple of the minimum (4.8 dB).
constexpr float kMinimumBias = 3.0f;
// ln|X|² of noise has variance π²/6 ≈ 1.64 whatever its level; a steady tone has almost none.
// Rises are weighted from 0 at a variance of kSteadyVariance to 1 at kSteadyVariance + kVarianceSpan.
constexpr float kSteadyVariance = 0.5f;
constexpr float kVarianceSpan = 0.7f;

// Gain rule: the smallest a-priori SNR (−25 dB), the largest a-priori absence probability, and
// the ramp of the smoothed a-priori SNR (−10 dB to −5 dB) from absent to present.
constexpr float kXiMin = 0.0031622777f;
constexpr float kAbsenceMax = 0.95f;
constexpr float kRampLow = 0.1f;
constexpr float kRampHigh = 0.31622777f;

// Powers below this count as silence (|X|² units; a full-scale sine reads about (N/4)²).
constexpr float kPowerFloor = 1e-20f;
// An empty minimum.
constexpr float kNoMinimum = 1e30f;

// One channel's rows, each of `bins` floats.
struct ChannelRows {
    float* noise;            // λ, the noise power the gains use: tracked, rising no faster than the ceiling
    float* tracked;          // the tracker's own estimate
    float* ceiling;          // slowly rising, slowly falling bound of the estimate
    float* presence;         // smoothed presence probability of the tracker
    float* prevClean;        // G_lsa² |X|² of the last frame
    float* smoothPower;      // power smoothed for the minimum search
    float* subMin;           // minimum of smoothPower in the current sub-window
    const float* windowMin;  // minimum over the completed sub-windows
    float* logMean;          // running mean of ln |X|²
    float* logSquare;        // running mean of (ln |X|²)²
};

// Per-frame scratch rows, each of `bins` floats.
struct FrameRows {
    float* power;   // |X|²
    float* xi;      // a-priori SNR
    float* v;       // ξγ / (1 + ξ)
    float* lnLsa;   // ln of the ratio ξ/(1 + ξ) in, ln of the LSA gain out (after the table step)
    float* lnV;     // ln v
    float* local;   // smoothed a-priori SNR averaged over 3 bins
    float* global;  // and over 31 bins
    float* gain;    // the gain of each bin, before it is spread to the neighbours
};

struct FrameConstants {
    float dd;          // decision-directed weight of the last frame
    float floorLog;    // ln Gmin
    float noiseAlpha;  // noise update smoothing
    float presenceAlpha;
    float powerAlpha;
    float logAlpha;
    float creep;  // largest rise per frame of a stuck estimate (power ratio)
    // Whether the frame holds signal at all, from 0 to 1: framePrior scales the a-priori presence
    // of every bin, frameGate (the laxer of the two) the conditional presence.
    float framePrior = 1.0f;
    float frameGate = 1.0f;
};

struct AdaptiveKernels {
    // power, xi, v, ln(ξ/(1 + ξ)) into lnLsa, ln v.
    void (*prepare)(const float* re, const float* im, const ChannelRows& rows, const FrameRows& frame, int bins,
                    const FrameConstants& k);
    // The gains (lnLsa holds the LSA gain's log), each bin's spread over its neighbours: re, im
    // scaled, prevClean updated; frame.local is overwritten.
    void (*apply)(float* re, float* im, const ChannelRows& rows, const FrameRows& frame, int bins,
                  const FrameConstants& k);
    // The noise tracker from frame.power; seedFrame > 0: the first frames, averaged (seedFrame is
    // the count including this one).
    void (*track)(const ChannelRows& rows, const FrameRows& frame, int bins, const FrameConstants& k, int seedFrame);
    // The applied estimate: the tracked one, no higher than the ceiling, which moves towards the
    // tracked estimate by at most `rise` up and `fall` down per frame (power ratios); where the
    // tracked estimate is over `held` times the ceiling, the ceiling is scaled by `heldScale`.
    void (*limit)(const ChannelRows& rows, int bins, float rise, float fall, float held, float heldScale);
};

namespace portable {
const AdaptiveKernels& AdaptiveKernelTable();
}
namespace avx2 {
const AdaptiveKernels& AdaptiveKernelTable();
}

const AdaptiveKernels& AdaptiveKernelsFor(dsp::detail::Isa isa = dsp::detail::Isa::Best);

}  // namespace dsp::adaptive
