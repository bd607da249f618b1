// SecondOrderIIRFilter: direct form II with single-precision delay cells.

#include "dsp/second_order_iir_filter.h"

#include "dsp/core/denormal_guard.h"

namespace dsp {

SecondOrderIIRFilter::SecondOrderIIRFilter() : mW1(0.0), mW2(0.0), mCoefficients{} {}

void SecondOrderIIRFilter::SetCoefficients(const SecondOrderIIRCoefficients& coefficients) {
    mCoefficients = coefficients;
}

void SecondOrderIIRFilter::Reset() {
    mW1 = 0.0;
    mW2 = 0.0;
}

void SecondOrderIIRFilter::Process(const float* in, float* out, std::size_t n) {
    if (n == 0) return;
    DenormalGuard guard;
    const double a1 = mCoefficients.a1, a2 = mCoefficients.a2;
    const double b0 = mCoefficients.b0, b1 = mCoefficients.b1, b2 = mCoefficients.b2;
    // The delay line is single precision by design; the arithmetic around it is double.
    float w1 = static_cast<float>(mW1);
    float w2 = static_cast<float>(mW2);
    for (std::size_t i = 0; i < n; ++i) {
        const double x = in[i];  // read before out[i] is written: in and out may overlap
        const double w = x - a1 * w1 - a2 * w2;
        const double y = b0 * w + b1 * w1 + b2 * w2;
        out[i] = static_cast<float>(y);
        w2 = w1;
        w1 = static_cast<float>(w);
    }
    mW1 = w1;
    mW2 = w2;
}

}  // namespace dsp
