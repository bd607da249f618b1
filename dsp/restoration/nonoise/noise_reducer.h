#pragma once
// NOISEREDUCER: NoNoiseProcess's working state between Resume and Suspend, and the two halves of
// the gain rule (not exported).
//
// The reducer proper holds the per-bin position curve, the magnitude scale, the knee spread, the
// smoothing state and the decay. Beside it are tables that UpdateParameter derives from the print
// (per channel and bin: the knee [lo, hi], its width and the ceiling r before the t/m limit), so a
// frame only measures, smooths and applies. They hold exactly the values the per-frame formulas
// give; they change only with the record.
//
// Channels are kept in groups of two (0 and 1, 2 and 3, ...; an odd last channel alone) with their
// smoothing rows interleaved: the smoothing recursion is a chain of dependent additions along the
// bins, and two channels share one chain in the two lanes of a vector register.

#include <cstdint>
#include <vector>

namespace dsp::nonoise {

struct NOISEREDUCER {
    int32_t size = 0;         // N, the engine's FFT length
    double* curve = nullptr;  // [N] position s per bin (mirrored: curve[k] = curve[N − k])
    double magScale = 0.0;    // 1 / (fftSize · 0.25)
    double spread = 1.0;      // 10^(transitionDb / 20)
    double decay = 0.0;       // smoothingPercent / 100
    double oneMinusDecay = 1.0;
    bool firstFrame = true;  // the next frame seeds the smoothing rows

    int32_t channels = 0;  // the engine's channel count
    int32_t bins = 0;      // N/2 + 1
    // Per channel: whether the print covers it. A channel the print lacks, or every channel of a
    // print of another FFT size, gets tables that give a gain of exactly 1.
    std::vector<unsigned char> active;

    // Per channel and bin, from the print.
    struct Tables {
        double* lo = nullptr;         // lower knee edge: below it the whole magnitude is noise
        double* hi = nullptr;         // upper knee edge: above it hi is subtracted
        double* kneeWidth = nullptr;  // hi − lo
        double* ceiling = nullptr;    // r before the t/m limit; may exceed 1
        double* magnitude = nullptr;  // scratch: this frame's (smoothed) magnitudes
    };
    struct Group {
        int first = 0;  // first channel
        int lanes = 1;  // 1 or 2 channels
        Tables lane[2];
        // The smoothed magnitudes: one row of N + 8 values per lane, interleaved (bin k of lane l
        // at k·lanes + l); the pointer is 4 bins into the row, so bins −4 ... N + 3 are valid.
        // Entries outside 0 ... N/2 stay zero: they are the edge bins' neighbours in the smoothing.
        double* smoothed = nullptr;
    };
    std::vector<Group> groups;

    double* storage = nullptr;  // every array above, one 64-byte aligned block
};

namespace detail {

// ---- design: once per bin whenever the record changes ----------------------------------------

// The largest fraction of a bin that may be removed, R = 1 − 10^(−D/20). D is reductionDb, except
// that 0 (processing off) gives 100 and anything below 1 acts as 1.
double ReductionCeiling(double reductionDb);

struct BinRule {
    double lo;
    double hi;
    double ceiling;
};

// avg, mx, mn: the bin's binRms, binMax, binMin; s: its position (thresholdOffset + curve);
// spread: 10^(transitionDb/20); R from ReductionCeiling.
BinRule MakeBinRule(double avg, double mx, double mn, double s, double spread, double precisionExponent, double R);

// ---- running: once per frame -------------------------------------------------------------------

enum class Smoothing {
    Off,   // the raw magnitude decides
    Seed,  // the first frame: its magnitudes become the smoothed values
    Run,   // recursion over the smoothed values
};

// Which code runs the frame kernel. Every path gives the same bits; tests run each.
enum class KernelPath {
    Best,      // SSE2 for the smoothing, the best gain kernel build for the CPU
    Sse2,      // SSE2 throughout (x86-64 baseline; the portable gain kernel build)
    Portable,  // plain scalar code (the build for other CPUs)
};

// The gain 1 − min(r, t/m) of one bin; 1 when m is 0. In an unnamed namespace and free of
// library templates, so each kernel build keeps its own copy (see dsp/core/kernel_dispatch.h).
namespace {
inline double BinGain(double m, double lo, double hi, double width, double ceiling) {
    double t;
    if (m < lo)
        t = m;
    else if (m >= hi)
        t = hi;
    else
        t = m + ((m - lo) / width) * (hi - m);
    if (m == 0.0) return 1.0;
    const double ratio = t / m;
    return 1.0 - (ratio < ceiling ? ratio : ceiling);  // std::min(ceiling, t / m), written out
}
}  // namespace

// The gains pass of one channel: re[k], im[k] *= BinGain(t.magnitude[k], ...) for k in [0, n),
// in double, rounded back to float. One build per instruction set, the same bits from each
// (noise_gain_kernels.cpp).
struct GainKernels {
    void (*apply)(float* re, float* im, const NOISEREDUCER::Tables& t, int n);
};
namespace portable {
const GainKernels& GainKernelTable();
}
namespace avx2 {
const GainKernels& GainKernelTable();
}

// One group's bins 0 ... n − 1 through the rule: m = |X|·magScale; smoothing; t from the knee;
// X *= 1 − min(r, t/m) (left alone when m = 0). re[lane], im[lane] are the group's channels.
// A path the build or the CPU lacks falls back to the next one down.
void ReduceGroup(float* const* re, float* const* im, const NOISEREDUCER::Group& group, int n, double magScale,
                 Smoothing mode, double decay, double oneMinusDecay, KernelPath path = KernelPath::Best);

}  // namespace detail

}  // namespace dsp::nonoise
