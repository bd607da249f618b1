// Self-checks of the analysis windows and the fade curves. Each compares the library's output with
// a closed form evaluated here, or with a known exact value.

#include <cmath>
#include <string>
#include <vector>

#include "dsp/check_measures.h"
#include "dsp/fades.h"
#include "dsp/fft_window.h"
#include "dsp/self_checks.h"

namespace dsp::checks {

namespace {

constexpr const char* kWindowFamily = "windows";
constexpr const char* kFadeFamily = "fades";

// Hann over 1024 samples against 0.5 (1 - cos(2 pi j / 1024)) in long double; edge 0, peak 1,
// and the periodic symmetry w[512 + k] == w[512 - k].
CheckOutcome CheckHannClosedForm() {
    constexpr int n = 1024;
    std::vector<double> w(n);
    if (!GetFFTWindow(w.data(), n, 1.0, kWindowHann | kWindowMirror, 0.0)) return {false, "allocation failed"};
    const long double pi = std::acos(-1.0L);
    double maxError = 0.0;
    for (int j = 0; j < n; ++j) {
        const long double expected = 0.5L * (1.0L - std::cos(2.0L * pi * j / n));
        maxError = std::fmax(maxError, static_cast<double>(std::fabs(static_cast<long double>(w[j]) - expected)));
    }
    bool symmetric = true;
    for (int k = 1; k < n / 2; ++k)
        symmetric = symmetric && w[n / 2 + k] == w[n / 2 - k];
    const double bound = 1e-14;
    const bool passed = maxError <= bound && w[0] == 0.0 && w[n / 2] == 1.0 && symmetric;
    return {passed, Format("max |w - closed form| = %.3g (bound %.0e); edge %.3g (expect 0), peak %.17g (expect 1), "
                           "symmetric about the peak: %s",
                           maxError, bound, w[0], w[n / 2], symmetric ? "yes" : "no")};
}

// A window over half the buffer: 256 zeros, 512 window samples, 256 zeros, gain 2.
CheckOutcome CheckHalfFractionPlacement() {
    constexpr int n = 1024;
    std::vector<double> w(n, -1.0);
    if (!GetFFTWindow(w.data(), n, 0.5, kWindowHamming | kWindowMirror, 0.0)) return {false, "allocation failed"};
    int leadingZeros = 0;
    while (leadingZeros < n && w[leadingZeros] == 0.0)
        ++leadingZeros;
    int trailingZeros = 0;
    while (trailingZeros < n && w[n - 1 - trailingZeros] == 0.0)
        ++trailingZeros;
    double peak = 0.0;
    for (double v : w)
        peak = std::fmax(peak, v);
    const bool passed = leadingZeros == 256 && trailingZeros == 256 && peak == 2.0;
    return {passed, Format("leading zeros %d, window samples %d, trailing zeros %d (expect 256/512/256); peak %.17g "
                           "(expect gain 2)",
                           leadingZeros, n - leadingZeros - trailingZeros, trailingZeros, peak)};
}

// The overlap-save pair: analysis (type | 0x1100) times synthesis (type | 0x1900) is 1 on every
// sample where the analysis is not 0, and 0 where it is, for all eight shapes.
CheckOutcome CheckReciprocalPair() {
    constexpr int n = 4096;
    std::vector<float> analysis(n), synthesis(n);
    double maxError = 0.0;
    int zeroMismatches = 0;
    for (unsigned int type = 0; type < 8; ++type) {
        if (!GetFFTWindow(analysis.data(), n, 1.0, type | 0x1100u, 140.0) ||
            !GetFFTWindow(synthesis.data(), n, 1.0, type | 0x1900u, 140.0)) {
            return {false, "allocation failed"};
        }
        for (int j = 0; j < n; ++j) {
            if (analysis[j] == 0.0f) {
                zeroMismatches += synthesis[j] != 0.0f;
            } else {
                const double product = static_cast<double>(analysis[j]) * synthesis[j];
                maxError = std::fmax(maxError, std::fabs(product - 1.0));
            }
        }
    }
    const double bound = std::ldexp(1.0, -23);
    const bool passed = maxError <= bound && zeroMismatches == 0;
    return {passed, Format("max |analysis x synthesis - 1| = %.3g over 8 shapes (bound 2^-23 = %.3g); zero samples "
                           "with a non-zero inverse: %d (expect 0)",
                           maxError, bound, zeroMismatches)};
}

// Kaiser at 50 dB uses beta = 0.1102 x 41.3; its edge sample is 1 / I0(beta), with I0 summed here
// to convergence (at this beta the library's 19-term series has converged too).
CheckOutcome CheckKaiser50() {
    constexpr int n = 256;
    std::vector<double> w(n);
    if (!GetFFTWindow(w.data(), n, 1.0, kWindowKaiser | kWindowMirror, 50.0)) return {false, "allocation failed"};
    const long double beta = 0.1102L * 41.3L;
    long double i0 = 0.0L;
    for (int k = 0; k < 60; ++k) {
        const long double term = std::pow(beta / 2.0L, k) / std::tgamma(k + 1.0L);
        i0 += term * term;
    }
    const long double expected = 1.0L / i0;
    const double relError = static_cast<double>(std::fabs((w[0] - expected) / expected));
    const double bound = 1e-12;
    const bool passed = relError <= bound && w[n / 2] == 1.0;
    return {passed,
            Format("edge %.15g vs 1/I0(4.55126) = %.15Lg, relative error %.3g (bound %.0e); peak %.17g (expect 1)",
                   w[0], expected, relError, bound, w[n / 2])};
}

CheckOutcome CheckFadeEndpoints() {
    const float shapes[] = {-10.0f, -3.5f, 0.5f, 7.0f};
    int wrong = 0;
    for (float m : shapes) {
        wrong += CalculateLogFadeValue(0.0f, m) != 0.0f;
        wrong += CalculateLogFadeValue(1.0f, m) != 1.0f;
    }
    const float cosineMid = CalculateCosineFadeValue(0.5f, 1.0f);
    const float linear = CalculateLogFadeValue(0.3f, 0.0f);
    const bool passed = wrong == 0 && cosineMid == 0.5f && linear == 0.3f;
    return {passed, Format("log fade endpoints off 0/1: %d of 8 (expect 0); cosine fade at 0.5 = %.9g (expect 0.5); "
                           "log fade with shape 0 at 0.3 = %.9g (expect 0.3)",
                           wrong, cosineMid, linear)};
}

CheckOutcome CheckOppositeShapesAtZero() {
    const int cosine = GetOppositeFadeShapeValForConstantPowerCrossfade_Cosine(0);
    const int log = GetOppositeFadeShapeValForConstantPowerCrossfade_Log(0);
    const int outside = GetOppositeFadeShapeValForConstantPowerCrossfade_Cosine(101) +
                        GetOppositeFadeShapeValForConstantPowerCrossfade_Log(-101);
    const bool passed = cosine == 36 && log == 44 && outside == 0;
    return {passed,
            Format("opposite of 0: cosine %d (expect 36), log %d (expect 44); outside -100...100: %d (expect 0)",
                   cosine, log, outside)};
}

}  // namespace

void AddWindowChecks(CheckSuite& suite) {
    suite.Add(kWindowFamily, "Hann against its closed form", CheckHannClosedForm);
    suite.Add(kWindowFamily, "half-frame window placement and gain", CheckHalfFractionPlacement);
    suite.Add(kWindowFamily, "analysis x reciprocal window = 1", CheckReciprocalPair);
    suite.Add(kWindowFamily, "Kaiser 50 dB edge = 1/I0(beta)", CheckKaiser50);
    suite.Add(kFadeFamily, "fade endpoints and midpoint", CheckFadeEndpoints);
    suite.Add(kFadeFamily, "constant-power opposite settings", CheckOppositeShapesAtZero);
}

}  // namespace dsp::checks
