// Self-check of the stereo expander: at width 300 % a frame (1, 0.25) becomes (1.75, -0.5), the
// matrix (2, -1, -1, 2) applied by hand.

#include <cmath>

#include "dsp/check_measures.h"
#include "dsp/self_checks.h"
#include "dsp/stereo_expander.h"

namespace dsp::checks {

namespace {

CheckOutcome WideMatrixMixesAsExpected() {
    StereoExpanderDSP expander;
    expander.SetParameter(StereoExpanderDSP::kWidth, 300.0f);
    float left = 1.0f, right = 0.25f;
    float* channels[2] = {&left, &right};
    expander.Process(channels, channels, 1);
    const double error = std::fmax(std::fabs(left - 1.75), std::fabs(right + 0.5));
    return {error <= 1e-6, Format("(1, 0.25) -> (%.7g, %.7g), expect (1.75, -0.5)", left, right)};
}

}  // namespace

void AddStereoExpanderChecks(CheckSuite& suite) {
    suite.Add("stereo", "width 300 % mixes (2, -1, -1, 2)", WideMatrixMixesAsExpected);
}

}  // namespace dsp::checks
