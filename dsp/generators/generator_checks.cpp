// Self-check of the white noise source: uniform draws stay in [0, 1) with mean 1/2, and a
// re-seeded source repeats its sequence.

#include <cmath>

#include "dsp/check_measures.h"
#include "dsp/self_checks.h"
#include "dsp/white_noise.h"

namespace dsp::checks {

namespace {

CheckOutcome UniformDrawsAreReproducible() {
    WhiteNoise a(12345u), b(1u);
    double sum = 0.0, largest = 0.0;
    const int draws = 200000;
    for (int i = 0; i < draws; ++i) {
        const double v = a.fRandom();
        sum += v;
        largest = std::fmax(largest, v);
    }
    b.Seed(12345u);
    a.Seed(12345u);
    int differ = 0;
    for (int i = 0; i < 1000; ++i)
        differ += a.dwWhite() != b.dwWhite() ? 1 : 0;
    const double mean = sum / draws;
    return {std::fabs(mean - 0.5) <= 0.005 && largest < 1.0 && differ == 0,
            Format("mean %.5f (expect 0.5 +- 0.005), largest %.9f (< 1), re-seeded draws differing %d (expect 0)", mean,
                   largest, differ)};
}

}  // namespace

void AddGeneratorChecks(CheckSuite& suite) {
    suite.Add("generators", "white noise: uniform mean, range, reproducible seed", UniformDrawsAreReproducible);
}

}  // namespace dsp::checks
