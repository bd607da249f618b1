#pragma once
// libebur128's reading of planar audio of any sample type: the loudness tests' second opinion.
// Only where the target uses kesta_use_ebur128 and libebur128 is installed.

#if KESTA_HAVE_EBUR128
#include <ebur128.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace kesta::test {

struct Ebur128Reading {
    double integrated = 0.0, range = 0.0, truePeakDb = 0.0;
};

template <class Channel>
Ebur128Reading MeasureWithEbur128(const std::vector<Channel>& x, int rate) {
    const auto channels = static_cast<unsigned>(x.size());
    const std::size_t frames = x[0].size();
    ebur128_state* st = ebur128_init(channels, static_cast<unsigned long>(rate),
                                     EBUR128_MODE_I | EBUR128_MODE_LRA | EBUR128_MODE_TRUE_PEAK);
    std::vector<double> interleaved(frames * channels);
    for (std::size_t n = 0; n < frames; ++n)
        for (unsigned c = 0; c < channels; ++c)
            interleaved[n * channels + c] = static_cast<double>(x[c][n]);
    ebur128_add_frames_double(st, interleaved.data(), frames);
    Ebur128Reading r;
    ebur128_loudness_global(st, &r.integrated);
    ebur128_loudness_range(st, &r.range);
    double peak = 0.0;
    for (unsigned c = 0; c < channels; ++c) {
        double p = 0.0;
        ebur128_true_peak(st, c, &p);
        peak = std::max(peak, p);
    }
    r.truePeakDb = 20.0 * std::log10(peak);
    ebur128_destroy(&st);
    return r;
}

}  // namespace kesta::test
#endif
