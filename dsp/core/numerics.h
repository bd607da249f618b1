#pragma once
// General numerics for filter design (not exported): least squares, polynomial roots, and the
// factoring of a fitted squared magnitude into the roots and second-order factors of a cascade.
// Everything works in double on fixed scratch (no allocation) and reports failure by returning
// false, never by throwing.

#include <complex>

namespace dsp::numerics {

using Complex = std::complex<double>;

// The most unknowns of a least-squares system and the highest polynomial degree handled.
inline constexpr int kMaxUnknowns = 32;

// x minimising |M x - b| over the first `rows` rows of the `cols` columns M[0 ... cols - 1]
// (Householder QR on equilibrated columns). M and b are overwritten. False for a zero or
// non-finite column, fewer rows than columns, or more than kMaxUnknowns columns.
bool LeastSquares(double* const* M, int cols, int rows, double* b, double* x);

// The n roots of p[0] + p[1] u + ... + p[n] u^n by the Aberth-Ehrlich iteration. False if they
// do not settle, p[n] is 0 or not finite, or n is outside 1 ... kMaxUnknowns.
bool PolynomialRoots(const double* p, int n, Complex* roots);

// p[0] + p[1] x + ... + p[n] x^n.
double Horner(const double* p, int n, double x);

// A squared magnitude |B(e^jw)|^2 written as a polynomial p[0] + ... + p[n] v^n in v = u / uScale,
// u = sin^2(w/2), factored into the n roots z of B inside the unit circle (each root u_k gives
// z + 1/z = 2 - 4 u_k). False if the roots do not settle or one lies on the circle (the
// polynomial is negative somewhere on it).
bool FactorInsideUnitCircle(const double* p, int n, double uScale, Complex* out);

// A factor 1 + c1 z^-1 + c2 z^-2 of a section's numerator or denominator (c2 = 0 for a
// first-order one), and its magnitude at DC taken from its roots, which keeps full precision for
// roots near z = 1.
struct SectionFactor {
    double c1 = 0.0, c2 = 0.0, dc = 1.0;
};

// Shares n roots out as factors: conjugate pairs together (in the order given), real roots paired
// in ascending order, the last real one alone (first order) for an odd count; (n + 1) / 2 factors
// at most. False if the complex roots do not split evenly above and below the real axis.
bool PairRoots(const Complex* roots, int n, SectionFactor* factors);

}  // namespace dsp::numerics
