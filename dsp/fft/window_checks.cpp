// Smoke self-check of the analysis windows: every shape's analysis and synthesis pair multiplies
// to exactly one (the property the overlap-save engine stands on).

#include <cmath>
#include <vector>

#include "dsp/check_measures.h"
#include "dsp/fft_window.h"
#include "dsp/self_checks.h"

namespace dsp::checks {

namespace {

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

}  // namespace

void AddWindowChecks(CheckSuite& suite) {
    suite.Add("windows", "analysis x reciprocal window = 1", CheckReciprocalPair);
}

}  // namespace dsp::checks
