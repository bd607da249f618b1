#pragma once
// Coefficient design of the filter sections, apart from the classes that run them: each function
// takes settings and returns coefficients computed in double. The section classes store the
// results in their own precision.
//
// Direct-form convention: H(z) = (b0 + b1 z^-1 + b2 z^-2) / (1 + a1 z^-1 + a2 z^-2).

namespace dsp::filter_design {

struct DirectForm {
    double b0 = 1.0;
    double b1 = 0.0;
    double b2 = 0.0;
    double a1 = 0.0;
    double a2 = 0.0;
};

// s1' = A11 s1 + A12 s2 + B1 x;  s2' = A21 s1 + A22 s2 + B2 x;  y = C1 s1 + C2 s2 + D x.
struct StateVariableForm {
    double A11 = 0.0, A12 = 0.0, A21 = 0.0, A22 = 0.0;
    double B1 = 0.0, B2 = 0.0;
    double C1 = 0.0, C2 = 0.0;
    double D = 1.0;
};

// Band-edge gain in dB of the first-order shelves, the peak and the notch.
double BandEdgeGainDb(double gainDb);

// First-order shelves (b2 = a2 = 0). Identity for a gain of exactly 0 dB.
DirectForm FirstOrderHighShelf(double sampleRate, double frequency, double gainDb);
DirectForm FirstOrderLowShelf(double sampleRate, double frequency, double gainDb);

// Peak / cut with bandwidth frequency / q. `clamp` holds the normalised frequency in
// [1e-5, 0.99999] and the normalised bandwidth in [1e-5, 0.49999] (the peak); the notch does not
// clamp. Identity for a gain of exactly 0 dB.
DirectForm PeakOrNotch(double sampleRate, double frequency, double gainDb, double q, bool clamp);

// Second-order shelves. `roundSums` rounds each numerator and denominator sum to single precision
// before it is normalised, as the single-precision classes do.
DirectForm SecondOrderHighShelf(double sampleRate, double frequency, double gainDb, bool roundSums);
DirectForm SecondOrderLowShelf(double sampleRate, double frequency, double gainDb, bool roundSums);

// The state-variable realisation of a (normalised) second-order direct form, with the same
// transfer function. Degenerate inputs give non-finite values, as the formulas do.
StateVariableForm ToStateVariableForm(const DirectForm& c);

}  // namespace dsp::filter_design
