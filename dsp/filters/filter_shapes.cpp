// Coefficient design of the filter-section shapes, and the shapes' SetupCoefficients.
//
// All design arithmetic is double; the single-precision classes round the finished coefficients
// (and, for the second-order shelves, each sum before it is normalised) to float.

#include <algorithm>
#include <cmath>
#include <numbers>

#include "dsp/filter_section.h"
#include "dsp/filters/filter_design.h"

namespace dsp::filter_design {

namespace {

constexpr double kPi = std::numbers::pi;

// G (linear gain) and S = sqrt((GB^2 - 1) / (G^2 - GB^2)), the bandwidth factor that puts the
// band-edge gain GB at the corner (shelves) or at the band edges (peak, notch).
struct EdgeFactor {
    double G;
    double S;
};

EdgeFactor MakeEdgeFactor(double gainDb) {
    const double G = std::pow(10.0, gainDb / 20.0);
    const double GB = std::pow(10.0, BandEdgeGainDb(gainDb) / 20.0);
    return {G, std::sqrt((GB * GB - 1.0) / (G * G - GB * GB))};
}

// The shared part of the second-order shelves: an analogue second-order shelf prototype with
// Butterworth damping (sqrt 2 to the precision the design has always used), mapped through the
// bilinear transform with the corner folded into t. The high shelf is the low shelf designed at
// the mirrored corner (sampleRate / 2 - frequency, which negates t) and mirrored in frequency
// (z -> -z, which negates b1 and a1).
DirectForm SecondOrderShelf(double t, double gainDb, bool high, bool roundSums) {
    constexpr double r = 1.41421356237;
    const double G = std::pow(10.0, gainDb / 20.0);
    double GB;
    if (gainDb >= 6.0 || gainDb <= -6.0)
        GB = G <= 1.0 ? G * r : G / r;
    else
        GB = std::sqrt(G);
    const double d = G * G - GB * GB;
    // d vanishes at 0 dB (G = GB = 1): the flat prototype, k = 1.
    const double k = std::fabs(d) > 1.65436e-24 ? std::pow((GB * GB - 1.0) / d, 0.25) : 1.0;
    const double m = std::sqrt(G) * k;

    const double N0 = m * m + 1.0 + r * m;
    const double N1 = -2.0 * (1.0 - m * m);
    const double N2 = m * m + 1.0 - r * m;
    const double D0 = k * k + 1.0 + r * k;
    const double D1 = -2.0 * (1.0 - k * k);
    const double D2 = k * k + 1.0 - r * k;
    const double n = 1.0 / (D0 + t * D1 + t * t * D2);

    auto sum = [roundSums](double s) { return roundSums ? static_cast<double>(static_cast<float>(s)) : s; };
    const double sign = high ? -1.0 : 1.0;
    DirectForm c;
    c.b0 = sum(N0 + t * N1 + t * t * N2) * n;
    c.b1 = sign * (sum(2.0 * t * (N0 + N2) + N1 * (t * t + 1.0)) * n);
    c.b2 = sum(t * t * N0 + t * N1 + N2) * n;
    c.a1 = sign * (sum(2.0 * t * (D0 + D2) + D1 * (t * t + 1.0)) * n);
    c.a2 = sum(t * t * D0 + t * D1 + D2) * n;
    return c;
}

}  // namespace

double BandEdgeGainDb(double gainDb) {
    if (gainDb > 6.0) return gainDb - 3.0;
    if (gainDb > -6.0) return gainDb / 2.0;
    return gainDb + 3.0;
}

DirectForm FirstOrderHighShelf(double sampleRate, double frequency, double gainDb) {
    DirectForm c;
    if (gainDb == 0.0) return c;
    const EdgeFactor e = MakeEdgeFactor(gainDb);
    const double t = std::tan(kPi * frequency / sampleRate);
    const double beta = e.S / t;
    c.b0 = (1.0 + e.G * beta) / (1.0 + beta);
    c.b1 = (1.0 - e.G * beta) / (1.0 + beta);
    c.a1 = (1.0 - beta) / (1.0 + beta);
    return c;
}

DirectForm FirstOrderLowShelf(double sampleRate, double frequency, double gainDb) {
    DirectForm c;
    if (gainDb == 0.0) return c;
    const EdgeFactor e = MakeEdgeFactor(gainDb);
    const double t = std::tan(kPi * frequency / sampleRate);
    const double beta = e.S * t;
    c.b0 = (1.0 + e.G * beta) / (1.0 + beta);
    c.b1 = -(1.0 - e.G * beta) / (1.0 + beta);
    c.a1 = -(1.0 - beta) / (1.0 + beta);
    return c;
}

DirectForm PeakOrNotch(double sampleRate, double frequency, double gainDb, double q, bool clamp) {
    DirectForm c;
    if (gainDb == 0.0) return c;
    double x = frequency / sampleRate;
    double w = (frequency / q) / sampleRate;
    if (clamp) {
        x = x < 1e-5 ? 1e-5 : std::min(x, 0.99999);
        w = w < 1e-5 ? 1e-5 : std::min(w, 0.49999);
    }
    const EdgeFactor e = MakeEdgeFactor(gainDb);
    const double omega0 = 2.0 * kPi * x;
    const double beta = e.S * std::tan(kPi * w);
    c.b0 = (1.0 + e.G * beta) / (1.0 + beta);
    c.b1 = -2.0 * std::cos(omega0) / (1.0 + beta);
    c.a1 = c.b1;
    c.b2 = (1.0 - e.G * beta) / (1.0 + beta);
    c.a2 = (1.0 - beta) / (1.0 + beta);
    return c;
}

DirectForm SecondOrderHighShelf(double sampleRate, double frequency, double gainDb, bool roundSums) {
    const double t = std::tan(kPi * ((0.5 - frequency / sampleRate) - 0.25));
    return SecondOrderShelf(t, gainDb, true, roundSums);
}

DirectForm SecondOrderLowShelf(double sampleRate, double frequency, double gainDb, bool roundSums) {
    const double t = std::tan(kPi * (frequency / sampleRate - 0.25));
    return SecondOrderShelf(t, gainDb, false, roundSums);
}

StateVariableForm ToStateVariableForm(const DirectForm& c) {
    const double b0 = c.b0, b1 = c.b1, b2 = c.b2, a1 = c.a1, a2 = c.a2;
    const double p = a2 + 1.0;
    const double h = (a1 / 2.0) * (a1 / 2.0);
    const double K = (1.0 - a2) * (p * p - a1 * a1);
    const double e = b1 - b0 * a1;
    const double A = -a1 / 2.0;

    // A = [[-a1/2, A12], [A21, -a1/2]] has characteristic polynomial z^2 + a1 z + a2 whenever
    // A12 A21 = h - a2; D = b0 takes the direct path and B, C share out the remainder
    // e z + (b2 - b0 a2). The scalings keep the two states at comparable levels.
    StateVariableForm s;
    s.A11 = A;
    s.A22 = A;
    s.D = b0;
    auto realPoles = [&] {
        s.A12 = std::sqrt(std::max(0.0, (a2 - 3.0) * h / p + 1.0));
        s.A21 = (h - a2) / s.A12;
        s.B1 = 0.0;
        s.B2 = std::sqrt(std::max(0.0, K / (p * (1.0 + h) - a1 * a1)));
        s.C1 = (b2 - b0 * a2 + A * e) / (s.A12 * s.B2);
        s.C2 = e / s.B2;
    };

    if (a1 * a1 - 4.0 * a2 >= 0.0) {
        realPoles();
        return s;
    }
    const double r = (b2 - b0 * a2) / e;
    const double q = std::sqrt(r * r - a1 * r + a2);
    const double u = -K / ((r - q) * 2.0 * a1 - ((r - q) * (r - q) + 1.0) * p);
    const double v = -K / (2.0 * a1 * (r + q) - ((r + q) * (r + q) + 1.0) * p);
    // Also taken when u or v is NaN (e = 0: no first-order part to share out).
    if (!(u >= 0.0 && v >= 0.0)) {
        realPoles();
        return s;
    }
    const double su = std::sqrt(u);
    const double sv = std::sqrt(v);
    const double scale = std::sqrt((sv * sv + a2 - 1.0) * (h - a2) / (su * su + a2 - 1.0));
    const double c1 = e / (2.0 * su);
    const double c2 = e / (2.0 * sv);
    if (e >= 0.0) {
        s.A12 = (h - a2) / scale;
        s.A21 = scale;
        s.B1 = su;
        s.B2 = sv;
        s.C1 = c1;
        s.C2 = c2;
    } else {
        s.A12 = -scale;
        s.A21 = -(h - a2) / scale;
        s.B1 = -sv;
        s.B2 = su;
        s.C1 = -c2;
        s.C2 = c1;
    }
    return s;
}

}  // namespace dsp::filter_design

namespace dsp {

using namespace filter_design;

// ---- First-order shelves --------------------------------------------------------------------

fHISHELVE::fHISHELVE() {
    setFirstOrder(true);
}

void fHISHELVE::SetupCoefficients(float sampleRate, float frequency, float gainDb, float, float, float) {
    storeSettings(sampleRate, frequency, gainDb);
    const DirectForm c = FirstOrderHighShelf(sampleRate, frequency, gainDb);
    setTargetFirstOrder(c.b0, c.b1, c.a1);
    SetupRamp();
}

dHISHELVE::dHISHELVE() {
    setFirstOrder(true);
}

void dHISHELVE::SetupCoefficients(float sampleRate, float frequency, float gainDb, float, float, float) {
    storeSettings(sampleRate, frequency, gainDb);
    const DirectForm c = FirstOrderHighShelf(sampleRate, frequency, gainDb);
    setTargetFirstOrder(c.b0, c.b1, c.a1);
    SetupRamp();
}

fLOSHELVE::fLOSHELVE() {
    setFirstOrder(true);
}

void fLOSHELVE::SetupCoefficients(float sampleRate, float frequency, float gainDb, float, float, float) {
    storeSettings(sampleRate, frequency, gainDb);
    const DirectForm c = FirstOrderLowShelf(sampleRate, frequency, gainDb);
    setTargetFirstOrder(c.b0, c.b1, c.a1);
    SetupRamp();
}

dLOSHELVE::dLOSHELVE() {
    setFirstOrder(true);
}

void dLOSHELVE::SetupCoefficients(float sampleRate, float frequency, float gainDb, float, float, float) {
    storeSettings(sampleRate, frequency, gainDb);
    const DirectForm c = FirstOrderLowShelf(sampleRate, frequency, gainDb);
    setTargetFirstOrder(c.b0, c.b1, c.a1);
    SetupRamp();
}

// ---- Second-order shelves -------------------------------------------------------------------

fHISHELVE2::fHISHELVE2() {
    setFirstOrder(false);
    setDoublePrecision(false);
}

void fHISHELVE2::SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float, float) {
    setDoublePrecision(false);
    storeSettings(sampleRate, frequency, gainDb);
    mBandwidth = frequency / q;
    const DirectForm c = SecondOrderHighShelf(sampleRate, frequency, gainDb, true);
    setTargetDirectForm(c.b0, c.b1, c.b2, c.a1, c.a2);
    SetupRamp();
}

dHISHELVE2::dHISHELVE2() {
    setFirstOrder(false);
}

void dHISHELVE2::SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float, float) {
    storeSettings(sampleRate, frequency, gainDb);
    mBandwidth = frequency / q;
    const DirectForm c = SecondOrderHighShelf(sampleRate, frequency, gainDb, false);
    setTargetDirectForm(c.b0, c.b1, c.b2, c.a1, c.a2);
    SetupRamp();
}

fLOSHELVE2::fLOSHELVE2() {
    setFirstOrder(false);
    setDoublePrecision(false);
}

void fLOSHELVE2::SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float, float) {
    setDoublePrecision(false);
    storeSettings(sampleRate, frequency, gainDb);
    mBandwidth = frequency / q;
    const DirectForm c = SecondOrderLowShelf(sampleRate, frequency, gainDb, true);
    setTargetDirectForm(c.b0, c.b1, c.b2, c.a1, c.a2);
    SetupRamp();
}

dLOSHELVE2::dLOSHELVE2() {
    setFirstOrder(false);
}

void dLOSHELVE2::SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float, float) {
    storeSettings(sampleRate, frequency, gainDb);
    mBandwidth = frequency / q;
    const DirectForm c = SecondOrderLowShelf(sampleRate, frequency, gainDb, false);
    setTargetDirectForm(c.b0, c.b1, c.b2, c.a1, c.a2);
    SetupRamp();
}

// ---- Peak and notch -------------------------------------------------------------------------

fPARA::fPARA() = default;

void fPARA::SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float, float) {
    storeSettings(sampleRate, frequency, gainDb);
    const DirectForm c = PeakOrNotch(sampleRate, frequency, gainDb, q, true);
    setTargetDirectForm(c.b0, c.b1, c.b2, c.a1, c.a2);
    SetupRamp();
}

dPARA::dPARA() = default;

void dPARA::SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float, float) {
    storeSettings(sampleRate, frequency, gainDb);
    const DirectForm c = PeakOrNotch(sampleRate, frequency, gainDb, q, true);
    setTargetDirectForm(c.b0, c.b1, c.b2, c.a1, c.a2);
    SetupRamp();
}

fNotch::fNotch() = default;

void fNotch::SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float, float) {
    storeSettings(sampleRate, frequency, gainDb);
    mBandwidth = frequency / q;
    const DirectForm c = PeakOrNotch(sampleRate, frequency, gainDb, q, false);
    setTargetDirectForm(c.b0, c.b1, c.b2, c.a1, c.a2);
    SetupRamp();
}

dNotch::dNotch() = default;

void dNotch::SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float, float) {
    storeSettings(sampleRate, frequency, gainDb);
    mBandwidth = frequency / q;
    const DirectForm c = PeakOrNotch(sampleRate, frequency, gainDb, q, false);
    setTargetDirectForm(c.b0, c.b1, c.b2, c.a1, c.a2);
    SetupRamp();
}

}  // namespace dsp
