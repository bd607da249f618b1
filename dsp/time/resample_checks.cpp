// Self-check of the resampler: a 1 kHz tone converted up and down comes out as the same tone
// delayed by exactly the reported latency (compared with the sine evaluated at the output's
// source time, after the filter has filled).

#include <algorithm>
#include <cmath>
#include <vector>

#include "dsp/check_measures.h"
#include "dsp/resample.h"
#include "dsp/self_checks.h"

namespace dsp::checks {

namespace {

// Largest difference from 0.5 sin(2 pi 1000 t) at t = (k - latency) / dest, past the first
// 2 * latency output samples.
double ToneError(int source, int dest) {
    Resample r;
    r.SetSampleRates(source, dest);
    r.Initialize();
    const int n = source / 4;
    std::vector<float> in(static_cast<std::size_t>(n)), out(static_cast<std::size_t>(r.GetOutputBufferSize(n)));
    const double w = 2.0 * 3.141592653589793 * 1000.0;
    for (int i = 0; i < n; ++i)
        in[static_cast<std::size_t>(i)] = static_cast<float>(0.5 * std::sin(w * i / source));
    const int produced = r.Process(in.data(), out.data(), n);
    const int latency = r.GetLatency();
    double worst = produced > 3 * latency ? 0.0 : 1.0;
    for (int k = 2 * latency; k < produced; ++k)
        worst = std::max(worst, std::fabs(out[static_cast<std::size_t>(k)] - 0.5 * std::sin(w * (k - latency) / dest)));
    return worst;
}

CheckOutcome ToneKeepsItsTimeAndLevel() {
    const double up = ToneError(44100, 48000), down = ToneError(48000, 44100);
    return {up <= 1e-6 && down <= 1e-6,
            Format("largest error from the delayed tone: 44.1->48 kHz %.3g, 48->44.1 kHz %.3g (bound 1e-6)", up, down)};
}

}  // namespace

void AddResampleChecks(CheckSuite& suite) {
    suite.Add("resample", "1 kHz tone delayed by exactly the latency", ToneKeepsItsTimeAndLevel);
}

}  // namespace dsp::checks
