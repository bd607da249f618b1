// Butterworth cut filters: bilinear design with a prewarped cutoff and the direct-form-I cascade
// that runs it.

#include "dsp/filters/butterworth.h"

#include <cmath>
#include <numbers>

#include "dsp/core/denormal_guard.h"

namespace dsp::butterworth {

namespace {

constexpr double kMinNormalisedCutoff = 1e-6;
// Just below the Nyquist frequency, where K = tan(pi/2) would be infinite.
constexpr double kMaxNormalisedCutoff = 0.4999;

// One sample through a cascade of S second-order sections followed, when First, by one first-order
// section. m holds x1, x2 of the input and y1, y2 of each section, as in CutFilter::mMemory.
template <int S, bool First>
inline double Step(const Section* c, double* m, double x) {
    double in = x;
    for (int k = 0; k < S; ++k) {
        const Section& s = c[k];
        double& x1 = m[2 * k];
        double& x2 = m[2 * k + 1];
        double& y1 = m[2 * k + 2];
        double& y2 = m[2 * k + 3];
        const double y = (s.b0 * in + s.b1 * x1 + s.b2 * x2) - (s.a1 * y1 + s.a2 * y2);
        x2 = x1;
        x1 = in;
        in = y;
        // y1, y2 move when the next section (or the loop's end) shifts its x1, x2; the last
        // section's pair is shifted below.
        if (k == S - 1 && !First) {
            y2 = y1;
            y1 = y;
        }
    }
    if constexpr (First) {
        const Section& s = c[S];
        double& x1 = m[2 * S];
        double& y1 = m[2 * S + 2];
        const double y = (s.b0 * in + s.b1 * x1) - s.a1 * y1;
        m[2 * S + 1] = x1;
        x1 = in;
        y1 = y;
        in = y;
    }
    return in;
}

template <int S, bool First>
void Run(const Design& d, double* memory, float* data, int count) {
    // Coefficients and memory in locals so that the compiler keeps them in registers.
    constexpr int kSections = S + (First ? 1 : 0);
    constexpr int kCells = 2 + 2 * kSections;
    Section c[kSections];
    double m[kCells];
    for (int k = 0; k < kSections; ++k)
        c[k] = d.sections[static_cast<std::size_t>(k)];
    for (int i = 0; i < kCells; ++i)
        m[i] = memory[i];
    for (int i = 0; i < count; ++i)
        data[i] = static_cast<float>(Step<S, First>(c, m, static_cast<double>(data[i])));
    for (int i = 0; i < kCells; ++i)
        memory[i] = m[i];
}

}  // namespace

double ClampNormalisedCutoff(double normalisedCutoff) {
    if (!(normalisedCutoff > kMinNormalisedCutoff)) return kMinNormalisedCutoff;  // NaN too
    if (normalisedCutoff > kMaxNormalisedCutoff) return kMaxNormalisedCutoff;
    return normalisedCutoff;
}

int ClampOrder(int order) {
    return order < 1 ? 1 : (order > kMaxOrder ? kMaxOrder : order);
}

double PrewarpedCutoff(double normalisedCutoff) {
    return std::tan(std::numbers::pi * ClampNormalisedCutoff(normalisedCutoff));
}

Design DesignCutFilter(bool lowPass, int order, double normalisedCutoff) {
    Design d;
    d.order = ClampOrder(order);
    d.lowPass = lowPass;
    d.normalisedCutoff = ClampNormalisedCutoff(normalisedCutoff);
    d.prewarped = PrewarpedCutoff(d.normalisedCutoff);
    const double K = d.prewarped;
    const double K2 = K * K;
    const int pairs = d.order / 2;
    for (int k = 0; k < pairs; ++k) {
        // Prototype pair s^2 + c s + 1 with c = 2 sin((2k + 1) pi / 2n): the poles at angles
        // pi/2 + (2k + 1) pi / 2n from the positive real axis, on the unit circle.
        const double c = 2.0 * std::sin((2.0 * k + 1.0) * std::numbers::pi / (2.0 * d.order));
        const double norm = 1.0 / (1.0 + c * K + K2);
        Section& s = d.sections[static_cast<std::size_t>(k)];
        if (lowPass) {
            // K^2 (1 + z^-1)^2 over the bilinear denominator.
            s.b0 = K2 * norm;
            s.b1 = 2.0 * s.b0;
            s.b2 = s.b0;
        } else {
            // (1 - z^-1)^2 over the same denominator.
            s.b0 = norm;
            s.b1 = -2.0 * norm;
            s.b2 = norm;
        }
        s.a1 = 2.0 * (K2 - 1.0) * norm;
        s.a2 = (1.0 - c * K + K2) * norm;
    }
    d.sectionCount = pairs;
    if (d.order % 2 != 0) {
        // Prototype s + 1: K (1 + z^-1) or (1 - z^-1) over (1 + K) + (K - 1) z^-1.
        const double norm = 1.0 / (1.0 + K);
        Section& s = d.sections[static_cast<std::size_t>(pairs)];
        s.b0 = lowPass ? K * norm : norm;
        s.b1 = lowPass ? s.b0 : -norm;
        s.b2 = 0.0;
        s.a1 = (K - 1.0) * norm;
        s.a2 = 0.0;
        ++d.sectionCount;
    }
    return d;
}

double Magnitude(const Design& design, double normalisedFrequency) {
    const double t = std::tan(std::numbers::pi * normalisedFrequency);
    const double r = design.lowPass ? t / design.prewarped : design.prewarped / t;
    return 1.0 / std::sqrt(1.0 + std::pow(r, 2 * design.order));
}

void CutFilter::SetDesign(const Design& design) {
    const bool sameShape = design.order == mDesign.order && design.lowPass == mDesign.lowPass;
    mDesign = design;
    if (!sameShape) Clear();
}

void CutFilter::Clear() {
    mMemory.fill(0.0);
}

void CutFilter::ProcessInplace(float* data, int count) {
    DenormalGuard guard;  // nests for free under an equaliser's own guard
    double* m = mMemory.data();
    switch (mDesign.order) {
        case 1:
            Run<0, true>(mDesign, m, data, count);
            break;
        case 2:
            Run<1, false>(mDesign, m, data, count);
            break;
        case 3:
            Run<1, true>(mDesign, m, data, count);
            break;
        case 4:
            Run<2, false>(mDesign, m, data, count);
            break;
        case 5:
            Run<2, true>(mDesign, m, data, count);
            break;
        case 6:
            Run<3, false>(mDesign, m, data, count);
            break;
        case 7:
            Run<3, true>(mDesign, m, data, count);
            break;
        default:
            Run<4, false>(mDesign, m, data, count);
            break;
    }
}

double CutFilter::ProcessSample(double x) {
    const Section* c = mDesign.sections.data();
    double* m = mMemory.data();
    switch (mDesign.order) {
        case 1:
            return Step<0, true>(c, m, x);
        case 2:
            return Step<1, false>(c, m, x);
        case 3:
            return Step<1, true>(c, m, x);
        case 4:
            return Step<2, false>(c, m, x);
        case 5:
            return Step<2, true>(c, m, x);
        case 6:
            return Step<3, false>(c, m, x);
        case 7:
            return Step<3, true>(c, m, x);
        default:
            return Step<4, false>(c, m, x);
    }
}

}  // namespace dsp::butterworth
