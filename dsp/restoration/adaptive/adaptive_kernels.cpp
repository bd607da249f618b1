// AdaptiveNoise's per-bin loops, built once per instruction set (kesta_add_kernels). The loops are
// written for the compiler's vectoriser: no branches, no calls, exp and log as polynomials.

#include "dsp/restoration/adaptive/adaptive_kernels.h"

#include <cstdint>
#include <cstring>

namespace dsp::adaptive::KESTADSP_ISA {

namespace {

inline int32_t Bits(float x) {
    int32_t i;
    std::memcpy(&i, &x, sizeof i);
    return i;
}

inline float FromBits(int32_t i) {
    float x;
    std::memcpy(&x, &i, sizeof x);
    return x;
}

inline float Min(float a, float b) {
    return a < b ? a : b;
}
inline float Max(float a, float b) {
    return a > b ? a : b;
}

// e^x for x in any range (clamped to [−87, 88], where the result stays a normal float), relative
// error about 2e−7: x = n·ln 2 + r with |r| <= ln2/2, e^r by its Taylor series to r^6.
inline float Exp(float x) {
    x = Min(Max(x, -87.0f), 88.0f);
    const float t = x * 1.44269504f;
    const int32_t n = static_cast<int32_t>(t + (t >= 0.0f ? 0.5f : -0.5f));
    const float fn = static_cast<float>(n);
    const float r = (x - fn * 0.693145751953125f) - fn * 1.428606765330187e-06f;
    const float p =
        1.0f +
        r * (1.0f + r * (0.5f + r * (0.16666667f + r * (0.041666667f + r * (0.0083333333f + r * 0.0013888889f)))));
    return p * FromBits((n + 127) << 23);
}

// ln x for a positive normal x, absolute error about 1e−7 (plus the rounding of e·ln 2): x = 2^e·m
// with m in [√½, √2), ln m = 2·atanh((m − 1)/(m + 1)) by its series to the ninth power.
inline float Log(float x) {
    const int32_t bits = Bits(x);
    int32_t e = ((bits >> 23) & 0xff) - 127;
    float m = FromBits((bits & 0x7fffff) | 0x3f800000);
    const bool high = m > 1.41421356f;
    m = high ? m * 0.5f : m;
    e = high ? e + 1 : e;
    const float r = (m - 1.0f) / (m + 1.0f);
    const float r2 = r * r;
    const float series = 2.0f * r * (1.0f + r2 * (0.33333333f + r2 * (0.2f + r2 * (0.14285714f + r2 * 0.11111111f))));
    return static_cast<float>(e) * 0.69314718f + series;
}

// 0 at or below kRampLow, 1 at or above kRampHigh, linear in the log between.
inline float Ramp(float z) {
    const float t = (Log(Max(z, 1e-30f)) + 2.30258509f) * (1.0f / 1.15129255f);  // ln 10, ln √10
    return Min(Max(t, 0.0f), 1.0f);
}

void Prepare(const float* re, const float* im, const ChannelRows& rows, const FrameRows& frame, int bins,
             const FrameConstants& k) {
    const float dd = k.dd, fresh = 1.0f - k.dd;
    const float* noise = rows.noise;
    const float* prevClean = rows.prevClean;
    float* power = frame.power;
    float* xiRow = frame.xi;
    float* vRow = frame.v;
    float* lnRatio = frame.lnLsa;
    float* lnV = frame.lnV;
#if defined(__GNUC__)
#pragma GCC ivdep
#endif
    for (int b = 0; b < bins; ++b) {
        const float y2 = re[b] * re[b] + im[b] * im[b];
        const float lambda = Max(noise[b], kPowerFloor);
        const float gamma = y2 / lambda;
        const float xi = Max(dd * prevClean[b] / lambda + fresh * Max(gamma - 1.0f, 0.0f), kXiMin);
        const float ratio = xi / (1.0f + xi);
        const float v = ratio * gamma;
        power[b] = y2;
        xiRow[b] = xi;
        vRow[b] = v;
        lnRatio[b] = Log(ratio);
        lnV[b] = Log(Max(v, 1e-30f));
    }
}

void Apply(float* re, float* im, const ChannelRows& rows, const FrameRows& frame, int bins, const FrameConstants& k) {
    const float floorLog = k.floorLog;
    const float framePrior = k.framePrior;
    float* prevClean = rows.prevClean;
    const float* power = frame.power;
    const float* xiRow = frame.xi;
    const float* vRow = frame.v;
    const float* lnLsa = frame.lnLsa;
    const float* local = frame.local;
    const float* global = frame.global;
    float* gains = frame.gain;
    float* spread = frame.local;  // free once the gains are made
#if defined(__GNUC__)
#pragma GCC ivdep
#endif
    for (int b = 0; b < bins; ++b) {
        const float absence = Min(1.0f - Ramp(local[b]) * Ramp(global[b]) * framePrior, kAbsenceMax);
        // p = 1 / (1 + q/(1 − q) · (1 + ξ) · e^(−v))
        const float odds = absence / (1.0f - absence) * (1.0f + xiRow[b]) * Exp(-vRow[b]);
        const float p = k.frameGate / (1.0f + odds);
        const float gain = Exp(p * lnLsa[b] + (1.0f - p) * floorLog);
        prevClean[b] = Exp(2.0f * lnLsa[b]) * power[b];
        gains[b] = gain;
    }
    // Each bin takes the largest gain of itself and its two neighbours. A component's main lobe
    // under the Hann window spans four bins, and its gain is decided where it peaks: a lower gain on
    // the lobe's flanks would cut the component's edges away and leave them as error, which on a
    // loud partial over quiet noise is larger than the noise the flanks held.
    if (bins < 2) return;
    const float first = Max(gains[0], gains[1]);
    const float last = Max(gains[bins - 2], gains[bins - 1]);
#if defined(__GNUC__)
#pragma GCC ivdep
#endif
    for (int b = 1; b < bins - 1; ++b) {
        const float g = Max(Max(gains[b - 1], gains[b]), gains[b + 1]);
        spread[b] = g;
    }
    spread[0] = first;
    spread[bins - 1] = last;
#if defined(__GNUC__)
#pragma GCC ivdep
#endif
    for (int b = 0; b < bins; ++b) {
        re[b] *= spread[b];
        im[b] *= spread[b];
    }
}

void Track(const ChannelRows& rows, const FrameRows& frame, int bins, const FrameConstants& k, int seedFrame) {
    const float* power = frame.power;
    float* noise = rows.tracked;
    float* presence = rows.presence;
    float* smoothPower = rows.smoothPower;
    float* subMin = rows.subMin;
    const float* windowMin = rows.windowMin;
    float* logMean = rows.logMean;
    float* logSquare = rows.logSquare;
    const float la = k.logAlpha, sa = k.powerAlpha, pa = k.presenceAlpha, na = k.noiseAlpha;
    for (int b = 0; b < bins; ++b) {
        const float l = Log(Max(power[b], kPowerFloor));
        logMean[b] = la * logMean[b] + (1.0f - la) * l;
        logSquare[b] = la * logSquare[b] + (1.0f - la) * l * l;
    }
    if (seedFrame > 0) {
        // The mean so far; the minimum search starts from it, not from single frames.
        const float share = 1.0f / static_cast<float>(seedFrame);
        for (int b = 0; b < bins; ++b) {
            const float lambda = Max(noise[b], kPowerFloor);
            noise[b] = lambda + (Max(power[b], kPowerFloor) - lambda) * share;
            smoothPower[b] = noise[b];
            rows.ceiling[b] = noise[b];
            rows.noise[b] = noise[b];
        }
        return;
    }
    const float c = kPresentSnr / (1.0f + kPresentSnr);
#if defined(__GNUC__)
#pragma GCC ivdep
#endif
    for (int b = 0; b < bins; ++b) {
        const float y2 = power[b];
        const float lambda = Max(noise[b], kPowerFloor);
        const float sp = sa * smoothPower[b] + (1.0f - sa) * y2;
        smoothPower[b] = sp;
        subMin[b] = Min(subMin[b], sp);
        const float present = 1.0f / (1.0f + (1.0f + kPresentSnr) * Exp(-(y2 / lambda) * c));
        const float smoothed = pa * presence[b] + (1.0f - pa) * present;
        presence[b] = smoothed;
        const float estimate = kUnbias * (1.0f - present) * y2 + present * lambda;
        float updated = na * lambda + (1.0f - na) * estimate;
        const float variance = logSquare[b] - logMean[b] * logMean[b];
        const float noiseLike = Min(Max((variance - kSteadyVariance) * (1.0f / kVarianceSpan), 0.0f), 1.0f);
        const float bound = kMinimumBias * Min(windowMin[b], subMin[b]);
        const float upper = lambda + noiseLike * Max(bound - lambda, 0.0f);
        updated = Min(updated, upper);
        const float crept = Max(updated, Min(lambda * (1.0f + (k.creep - 1.0f) * noiseLike), upper));
        updated = smoothed > kStuck ? crept : updated;
        noise[b] = Max(updated, kPowerFloor);
    }
}

void Limit(const ChannelRows& rows, int bins, float rise, float fall, float held, float heldScale) {
    const float* tracked = rows.tracked;
    float* applied = rows.noise;
    float* ceiling = rows.ceiling;
#if defined(__GNUC__)
#pragma GCC ivdep
#endif
    for (int b = 0; b < bins; ++b) {
        const float t = tracked[b];
        const float c = ceiling[b];
        const float moved = t > c ? Min(t, c * rise) : Max(t, c * fall);
        const float next = t > held * c ? c * heldScale : moved;
        ceiling[b] = next;
        applied[b] = Min(t, next);
    }
}

}  // namespace

const AdaptiveKernels& AdaptiveKernelTable() {
    static const AdaptiveKernels table{Prepare, Apply, Track, Limit};
    return table;
}

}  // namespace dsp::adaptive::KESTADSP_ISA
