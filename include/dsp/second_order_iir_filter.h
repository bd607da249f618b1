#pragma once
// SecondOrderIIRFilter: a minimal single-channel biquad in direct form II with caller-supplied
// coefficients; no smoothing, enabling or shape design (see dsp/filter_section.h for those).
//
//   w = x - a1 w1 - a2 w2;   y = b0 w + b1 w1 + b2 w2;   w2 = w1, w1 = w
//
// computed in double per sample. The two delay cells are deliberately held at single precision
// while processing: they are rounded to float when a call starts, each new w is rounded to float
// before it enters the delay line, and they are stored back as doubles at the end of the call.
// The output is y rounded to float. (Keeping full double state gives slightly different output.)
//
// Latency: none. Processing runs with flush-to-zero / denormals-are-zero set and restores the
// caller's floating-point mode. No allocation. One thread at a time. Copies are member-wise.

#include <cstddef>

#include "dsp/kestadsp_export.h"

namespace dsp {

// H(z) = (b0 + b1 z^-1 + b2 z^-2) / (1 + a1 z^-1 + a2 z^-2); the leading 1 is not stored.
struct SecondOrderIIRCoefficients {
    double a1 = 0.0;
    double a2 = 0.0;
    double b0 = 0.0;
    double b1 = 0.0;
    double b2 = 0.0;
};

class KESTADSP_API SecondOrderIIRFilter {
public:
    // Delay cells and coefficients all zero: the filter outputs zeros until given coefficients.
    SecondOrderIIRFilter();

    // Takes the five coefficients; the delay cells are kept.
    void SetCoefficients(const SecondOrderIIRCoefficients& coefficients);
    // Zeroes the delay cells.
    void Reset();
    // Filters n samples. `in` and `out` may be the same buffer or overlap: samples are read and
    // written in order, one at a time. Any split of a stream into calls gives the same output.
    void Process(const float* in, float* out, std::size_t n);

    const SecondOrderIIRCoefficients& GetCoefficients() const { return mCoefficients; }
    double GetW1() const { return mW1; }
    double GetW2() const { return mW2; }

private:
    double mW1;
    double mW2;
    SecondOrderIIRCoefficients mCoefficients;
};

}  // namespace dsp
