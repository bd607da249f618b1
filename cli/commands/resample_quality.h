#pragma once
// The quality presets of `kesta resample` (also measured by bench/resample_compare).
//
// A preset names a stop-band floor and where the pass band ends, as a fraction of the lower of the
// two Nyquist frequencies. The order follows from the Kaiser window's width rule: a transition of
// D Hz reaches a floor of A dB with about (A - 8) fs / (14.36 D) taps at input rate fs. The Nyquist
// shift then moves the cut-off down by half that transition, so the stop band begins at the lower
// Nyquist frequency and nothing above it folds back (the resampler's default places its -6 dB point
// there instead).

#include <algorithm>
#include <cmath>
#include <string_view>

#include "dsp/resample.h"

namespace kesta {

struct ResampleQuality {
    const char* name;
    double floor;     // stop-band depth, dB
    double passband;  // end of the pass band, fraction of the lower Nyquist frequency
};

inline constexpr ResampleQuality kResampleQualities[] = {
    {"fast", 90.0, 0.90},
    {"standard", 130.0, 0.90},
    {"high", 150.0, 0.91},
    {"best", 175.0, 0.92},
};
inline constexpr std::string_view kDefaultResampleQuality = "standard";
// Orders above this are not built (a table row of 128 KB).
inline constexpr int kMaxResampleOrder = 16383;

inline const ResampleQuality* FindResampleQuality(std::string_view name) {
    for (const ResampleQuality& q : kResampleQualities)
        if (name == q.name) return &q;
    return nullptr;
}

struct ResampleDesign {
    int order;
    double floor;
    double nyquistShift;
};

inline ResampleDesign DesignResample(const ResampleQuality& q, int source, int dest) {
    const double width = (1.0 - q.passband) * std::min(source, dest) / 2.0;
    const double taps = std::ceil((q.floor - 8.0) * source / (14.36 * width));
    const int order = static_cast<int>(std::min(taps, static_cast<double>(kMaxResampleOrder))) | 1;
    // The cut-off falls by shift * 7.5 / order of the input's Nyquist frequency when upsampling and
    // by (shift - 0.31) * 6.25 / order of the input rate when downsampling; either way by half the
    // transition.
    const double shift = source > dest ? 0.31 + (q.floor - 8.0) / 179.5 : (q.floor - 8.0) / 107.7;
    return {order, q.floor, shift};
}

// A resampler set up for the preset and the rates, not yet initialised.
inline void ConfigureResample(dsp::Resample& r, const ResampleQuality& q, int source, int dest) {
    const ResampleDesign d = DesignResample(q, source, dest);
    r.SetSampleRates(source, dest);
    r.SetFilterOrder(d.order);
    r.SetNoiseFloor(d.floor);
    r.SetNyquistShift(d.nyquistShift);
}

}  // namespace kesta
