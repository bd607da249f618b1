// Smoke self-check of the overlap-save engine: a hook that leaves spectra alone makes the engine a
// pure delay of one frame, so analysis window, resynthesis and crossfade fit together.

#include <algorithm>
#include <cmath>
#include <vector>

#include "dsp/check_measures.h"
#include "dsp/overlap_save.h"
#include "dsp/self_checks.h"

namespace dsp::checks {

namespace {

constexpr int kN = 4096;
constexpr int kL = 585;
constexpr int kP = 1755;

class IdentityEngine : public OverlapSave {
public:
    using OverlapSave::OverlapSave;

protected:
    void OnSpectrum(float**, float**, int, int) override {}
};

// Runs a mono engine from Resume over x in blocks of `block` frames.
std::vector<float> Run(OverlapSave& engine, std::vector<float> x, int block) {
    std::vector<float> y(x.size(), 0.0f);
    engine.Resume();
    for (std::size_t pos = 0; pos < x.size(); pos += static_cast<std::size_t>(block)) {
        const int n = static_cast<int>(std::min<std::size_t>(static_cast<std::size_t>(block), x.size() - pos));
        engine.Process(x.data() + pos, y.data() + pos, n);
    }
    return y;
}

CheckOutcome IdentityHookIsADelayOfOneFrame() {
    const std::vector<float> x = UniformNoise(30000, 12345u, 1.0);
    IdentityEngine engine(kN, 1, kP, kL, OverlapSave::BlackmanHarris);
    const std::vector<float> y = Run(engine, x, 1000);
    double leadIn = 0.0, error = 0.0;
    for (std::size_t i = 0; i < y.size(); ++i) {
        if (i < static_cast<std::size_t>(kN))
            leadIn = std::max(leadIn, std::fabs(static_cast<double>(y[i])));
        else
            error = std::max(error, std::fabs(static_cast<double>(y[i]) - x[i - kN]));
    }
    const bool ok = leadIn == 0.0 && error <= 1e-5 && engine.GetLatency() == kN;
    return {ok, Format("latency %d (expect 4096); first 4096 outputs peak %.3g (expect 0); max error against the "
                       "input delayed by 4096 %.3g (bound 1e-5)",
                       engine.GetLatency(), leadIn, error)};
}

}  // namespace

void AddOverlapSaveChecks(CheckSuite& suite) {
    suite.Add("overlap-save", "identity hook delays by exactly one frame", IdentityHookIsADelayOfOneFrame);
}

}  // namespace dsp::checks
