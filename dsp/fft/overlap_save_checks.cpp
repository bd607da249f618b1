// Self-checks of the overlap-save engine: a hook that leaves spectra alone makes the engine a pure
// delay of one frame; the output does not depend on the block sizes; the base hook is a low-pass
// at one eighth of the band. Expectations are analytic (a delayed copy, a tone's known amplitude).

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include "dsp/check_measures.h"
#include "dsp/overlap_save.h"
#include "dsp/self_checks.h"

namespace dsp::checks {

namespace {

constexpr int kN = 4096;
constexpr int kL = 585;
constexpr int kP = 1755;
constexpr double kRate = 48000.0;

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

CheckOutcome BlockSizeDoesNotChangeOutput() {
    const std::vector<float> x = UniformNoise(20000, 777u, 1.0);
    OverlapSave engine(kN, 1, kP, kL, OverlapSave::Hann);
    const std::vector<float> reference = Run(engine, x, 4096);
    const bool ones = Run(engine, x, 1) == reference;
    const bool sevens = Run(engine, x, 7) == reference;
    const bool whole = Run(engine, x, 20000) == reference;
    const bool ok = ones && sevens && whole;
    return {ok, std::string("blocks of 1, 7 and 20000 frames equal blocks of 4096 bit for bit: ") +
                    (ones ? "yes" : "no") + ", " + (sevens ? "yes" : "no") + ", " + (whole ? "yes" : "no")};
}

CheckOutcome BaseHookIsALowPassAtOneEighthOfTheBand() {
    // Bins are 48000/4096 Hz wide; bins 0 ... 256 (up to 3000 Hz) are kept.
    const double amplitude = 0.4;
    std::vector<float> x(60000);
    for (std::size_t i = 0; i < x.size(); ++i) {
        const double t = static_cast<double>(i) / kRate;
        x[i] = static_cast<float>(amplitude * std::sin(2.0 * std::numbers::pi * 1000.0 * t) +
                                  amplitude * std::sin(2.0 * std::numbers::pi * 9000.0 * t));
    }
    OverlapSave engine(kN, 1, kP, kL, OverlapSave::Kaiser140);
    const std::vector<float> y = Run(engine, x, 2048);
    // Measured after two frames, once the output is steady; the other tone sits far away.
    const float* steady = y.data() + 2 * kN;
    const std::size_t count = y.size() - 2 * kN;
    const double keptDb = 20.0 * std::log10(ToneAmplitude(steady, count, 1000.0, kRate) / amplitude);
    const double removedDb = 20.0 * std::log10(ToneAmplitude(steady, count, 9000.0, kRate) / amplitude + 1e-30);
    const bool ok = std::fabs(keptDb) <= 0.01 && removedDb <= -100.0;
    return {ok,
            Format("1 kHz tone %.3g dB (expect 0 +- 0.01); 9 kHz tone %.3g dB (expect below -100)", keptDb, removedDb)};
}

}  // namespace

void AddOverlapSaveChecks(CheckSuite& suite) {
    suite.Add("overlap-save", "identity hook delays by exactly one frame", IdentityHookIsADelayOfOneFrame);
    suite.Add("overlap-save", "output independent of block size", BlockSizeDoesNotChangeOutput);
    suite.Add("overlap-save", "base hook low-pass at one eighth of the band", BaseHookIsALowPassAtOneEighthOfTheBand);
}

}  // namespace dsp::checks
