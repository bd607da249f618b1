// Self-checks of clipping repair: a tone clipped at half its peak is found as runs exactly where
// the unclipped tone stands within 10 % of the clip level, and the repair brings the runs back
// towards the unclipped tone while leaving every other sample as it was. Expectations come from
// the unclipped tone itself.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>
#include <vector>

#include "dsp/check_measures.h"
#include "dsp/noclip.h"
#include "dsp/self_checks.h"

namespace dsp::checks {

namespace {

using noclip::NOCLIPPING;
using utils::Range;

constexpr std::size_t kFrames = 22050;

struct ClippedTone {
    std::vector<float> clean, clipped;
    ClippedTone() : clean(kFrames), clipped(kFrames) {
        for (std::size_t i = 0; i < kFrames; ++i) {
            clean[i] = static_cast<float>(0.8 * std::sin(2.0 * std::numbers::pi * 523.0 * i / 44100.0 + 0.2));
            clipped[i] = std::clamp(clean[i], -0.4f, 0.4f);
        }
    }
};

NOCLIPPING MonoRecord() {
    NOCLIPPING r;
    noclip::SetDefaultParameter(&r);
    r.channels = 1;
    r.gainDb = 0.0f;
    r.useLimiter = false;
    noclip::AllocateArrays(&r);
    return r;
}

std::vector<Range> FindRuns(const NOCLIPPING& r, std::vector<float>& x) {
    noclip::FindClipping find(&r);
    find.SetSelection(0, static_cast<long long>(x.size()));
    find.Start(nullptr);
    for (long long pos = 0; !find.IsCompleted();) {
        float* data[1] = {x.data() + pos};
        const int n = static_cast<int>(std::min<long long>(find.GetDesiredBlockSize(), kFrames - pos));
        find.Analyze(data, 1, n);
        pos = pos + n >= static_cast<long long>(kFrames) ? 0 : pos + n;
    }
    find.Done();
    return find.GetParam()->foundClips[0];
}

CheckOutcome RunsStandWhereTheToneIsNearTheClipLevel() {
    ClippedTone tone;
    const std::vector<Range> runs = FindRuns(MonoRecord(), tone.clipped);
    const float edge = 0.4f - 0.4f * 0.1f;
    std::size_t mismatched = 0, flagged = 0;
    std::vector<char> inRun(kFrames, 0);
    for (const Range& r : runs)
        std::fill_n(inRun.begin() + r.start, r.length, 1);
    for (std::size_t i = 0; i < kFrames; ++i) {
        flagged += inRun[i];
        mismatched += (std::fabs(tone.clean[i]) >= edge) != (inRun[i] != 0);
    }
    return {mismatched == 0 && !runs.empty(),
            Format("%zu runs, %zu samples; %zu samples disagree with |tone| >= 0.36 (expect 0)", runs.size(), flagged,
                   mismatched)};
}

CheckOutcome RepairBringsRunsBackAndLeavesTheRest() {
    ClippedTone tone;
    NOCLIPPING r = MonoRecord();
    r.repairClips.assign(1, FindRuns(r, tone.clipped));
    noclip::RepairClipping repair(&r);
    repair.SetSelection(0, static_cast<long long>(kFrames));
    repair.Start();
    const std::size_t latency = static_cast<std::size_t>(repair.GetLatency());
    std::vector<float> in = tone.clipped, out(kFrames + latency);
    in.resize(kFrames + latency, 0.0f);
    float* inPtr[1] = {in.data()};
    float* outPtr[1] = {out.data()};
    repair.Process(inPtr, outPtr, 1, static_cast<int>(in.size()));
    std::vector<char> inRun(kFrames, 0);
    for (const Range& range : repair.GetParam()->repairClips[0])
        std::fill_n(inRun.begin() + range.start, range.length, 1);
    double before = 0.0, after = 0.0;
    std::size_t changed = 0;
    for (std::size_t i = 0; i < kFrames; ++i) {
        const float y = out[i + latency];
        if (inRun[i]) {
            before += std::pow(tone.clipped[i] - tone.clean[i], 2.0);
            after += std::pow(y - tone.clean[i], 2.0);
        } else {
            changed += y != tone.clipped[i];
        }
    }
    const double gainDb = 10.0 * std::log10(before / after);
    return {gainDb >= 15.0 && changed == 0,
            Format("error over the runs %.1f dB lower (expect >= 15); %zu samples outside changed (expect 0)", gainDb,
                   changed)};
}

}  // namespace

void AddNoClipChecks(CheckSuite& suite) {
    suite.Add("clipping", "runs of a tone clipped at half its peak", RunsStandWhereTheToneIsNearTheClipLevel);
    suite.Add("clipping", "repair reduces the error, other samples untouched", RepairBringsRunsBackAndLeavesTheRest);
}

}  // namespace dsp::checks
