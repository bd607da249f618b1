// Self-checks of click detection and repair: an impulse in noise is reported where it is and
// nothing else is; silence and a regular impulse train give no clicks; a dropout in a pair of sines
// is refilled with the sines and no other sample changes. Expectations are the inserted damage and
// the undamaged signal.

#include <cmath>
#include <numbers>
#include <vector>

#include "dsp/check_measures.h"
#include "dsp/noclick.h"
#include "dsp/self_checks.h"

namespace dsp::checks {

namespace {

using noclick::NOCLICK;
using utils::Range;

constexpr int kFrames = 30000;

NOCLICK MonoRecord() {
    NOCLICK r;
    noclick::SetDefaultParameter(&r);
    r.channels = 1;
    noclick::AllocateArrays(&r);
    return r;
}

// The single detection pass over x (zeros past its end), as a host runs it.
std::vector<Range> Find(const std::vector<float>& x) {
    const NOCLICK record = MonoRecord();
    noclick::FindClicks find(&record);
    std::vector<float> block(noclick::FindClicks::kHop);
    float* data = block.data();
    find.SetSelection(0, static_cast<long long>(x.size()));
    find.Start(nullptr);
    for (std::size_t pos = 0; !find.IsCompleted();) {
        for (std::size_t i = 0; i < block.size(); ++i)
            block[i] = pos + i < x.size() ? x[pos + i] : 0.0f;
        pos += static_cast<std::size_t>(find.Analyze(&data, 1, static_cast<int>(block.size())));
    }
    find.Done();
    return find.GetParam()->foundClicks[0];
}

CheckOutcome ImpulseInNoiseIsReportedWhereItIs() {
    std::vector<float> x = UniformNoise(kFrames, 99u, 0.01);
    x[12345] = 0.5f;
    const std::vector<Range> found = Find(x);
    bool ok = !found.empty();
    for (const Range& r : found)
        ok = ok && r.start >= 12343 && r.start <= 12345 && r.start + r.length > 12345;
    return {ok, Format("%zu range(s), first at %lld (expect 12343 ... 12345, covering 12345)", found.size(),
                       found.empty() ? -1LL : static_cast<long long>(found[0].start))};
}

CheckOutcome SilenceAndARegularTrainGiveNoClicks() {
    std::vector<float> train = UniformNoise(kFrames, 7u, 0.001);
    for (int pos = 2000; pos < kFrames - 2000; pos += 200)
        train[static_cast<std::size_t>(pos)] = 0.5f;
    const std::size_t silent = Find(std::vector<float>(kFrames, 0.0f)).size(), rhythm = Find(train).size();
    return {silent == 0 && rhythm == 0,
            Format("silence: %zu, train every 200 samples: %zu (expect 0 and 0)", silent, rhythm)};
}

CheckOutcome DropoutInSinesIsRefilled() {
    std::vector<float> clean(kFrames), x(kFrames);
    for (int n = 0; n < kFrames; ++n)
        clean[n] = static_cast<float>(0.3 * std::sin(2.0 * std::numbers::pi * 440.0 * n / 44100.0) +
                                      0.2 * std::sin(2.0 * std::numbers::pi * 1230.0 * n / 44100.0 + 1.0));
    x = clean;
    std::fill_n(x.begin() + 15000, 16, 0.0f);
    NOCLICK record = MonoRecord();
    record.repairClicks[0] = {{15000, 16, 0}};
    noclick::ReplaceClicks fix(&record);
    const int latency = fix.GetLatency();
    x.resize(kFrames + latency, 0.0f);
    std::vector<float> y(x.size());
    fix.SetSelection(0, kFrames);
    fix.Start();
    for (std::size_t pos = 0; pos < x.size(); pos += 1000) {
        float* in = x.data() + pos;
        float* out = y.data() + pos;
        fix.Process(&in, &out, 1, static_cast<int>(std::min<std::size_t>(1000, x.size() - pos)));
    }
    double gapError = 0.0;
    int changedOutside = 0;
    for (int n = 0; n < kFrames; ++n) {
        const float v = y[static_cast<std::size_t>(n + latency)];
        if (n >= 15000 && n < 15016)
            gapError = std::max(gapError, std::fabs(static_cast<double>(v) - clean[n]));
        else
            changedOutside += v != x[static_cast<std::size_t>(n)];
    }
    const bool ok = gapError < 1e-3 && changedOutside == 0 && fix.GetParam()->repairClicks[0][0].done == 1;
    return {ok, Format("largest error in the gap %.3g (bound 1e-3); %d samples changed outside it (expect 0)", gapError,
                       changedOutside)};
}

}  // namespace

void AddNoClickChecks(CheckSuite& suite) {
    suite.Add("clicks", "an impulse in noise is reported where it is", ImpulseInNoiseIsReportedWhereItIs);
    suite.Add("clicks", "silence and a regular impulse train give no clicks", SilenceAndARegularTrainGiveNoClicks);
    suite.Add("clicks", "a dropout in two sines is refilled, nothing else changes", DropoutInSinesIsRefilled);
}

}  // namespace dsp::checks
