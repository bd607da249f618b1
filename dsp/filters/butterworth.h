#pragma once
// Butterworth cut filters (high-pass and low-pass, order 1 to 8) for the parametric equaliser.
//
// Design: the analog Butterworth prototype of order n, factored into conjugate pole pairs
// s^2 + 2 sin((2k + 1) pi / 2n) s + 1 (k = 0 ... n/2 - 1) plus s + 1 for odd n, each mapped to z by
// the bilinear transform with the cutoff prewarped: s = (1/K) (1 - z^-1) / (1 + z^-1), K = tan(pi fc/fs).
// On the unit circle s = j tan(pi f/fs) / K, so the realised magnitude is exactly
//
//   low-pass   |H|^2 = 1 / (1 + (tan(pi f/fs) / K)^(2n))
//   high-pass  |H|^2 = 1 / (1 + (K / tan(pi f/fs))^(2n))
//
// which is the analog Butterworth response on prewarped frequencies: -3.01 dB at the cutoff for
// every order, maximally flat, and a zero at the Nyquist frequency (low-pass) or at DC (high-pass).
// Magnitude() evaluates that formula with the same K the sections were built from, so an
// equaliser's drawn curve and its output agree by construction.
//
// Running: the sections are second-order (and one first-order for odd n) in direct form I, in
// double, sharing memory between neighbours (a section's output history is the next one's input
// history). Each sample passes through the whole cascade before the next is read, so block
// partitions never change the output. Fixed-size storage: no allocation anywhere.
//
// Reference: the bilinear transform with frequency prewarping, A. V. Oppenheim and R. W. Schafer,
// Discrete-Time Signal Processing, ch. 7 (design of IIR filters from continuous-time filters).

#include <array>

namespace dsp::butterworth {

constexpr int kMaxOrder = 8;
constexpr int kMaxSections = (kMaxOrder + 1) / 2;

// The normalised cutoff fc/fs is held in [1e-6, 0.4999] before it is prewarped: an equaliser's
// cutoff may lie above the Nyquist frequency of a low sample rate. The order is held in [1, 8].
double ClampNormalisedCutoff(double normalisedCutoff);
int ClampOrder(int order);
// K = tan(pi x ClampNormalisedCutoff(normalisedCutoff)).
double PrewarpedCutoff(double normalisedCutoff);

// One section: y = b0 x + b1 x1 + b2 x2 - a1 y1 - a2 y2 (b2 = a2 = 0 for the first-order one).
struct Section {
    double b0 = 1.0, b1 = 0.0, b2 = 0.0, a1 = 0.0, a2 = 0.0;
};

struct Design {
    int order = 1;
    int sectionCount = 0;  // ceil(order / 2); the first-order section, if any, is the last
    bool lowPass = true;
    double normalisedCutoff = 0.0;  // as held, fc/fs
    double prewarped = 0.0;         // K
    std::array<Section, kMaxSections> sections{};
};

// Coefficients of the cascade (order and cutoff held as above).
Design DesignCutFilter(bool lowPass, int order, double normalisedCutoff);

// The realised |H| at normalised frequency f/fs (the formula above, in double).
double Magnitude(const Design& design, double normalisedFrequency);

// One channel's cut filter: a design and the cascade's memory.
class CutFilter {
public:
    // Takes the new coefficients. The memory is kept when only the cutoff moves (no click from a
    // cleared history) and cleared when the order or type changes (the sections mean other things).
    void SetDesign(const Design& design);
    const Design& GetDesign() const { return mDesign; }
    void Clear();
    // In place on float samples; the arithmetic and the memory are double.
    void ProcessInplace(float* data, int count);
    double ProcessSample(double x);

private:
    Design mDesign = DesignCutFilter(true, 1, 0.25);
    // x1, x2 of the cascade input, then y1, y2 of every section (the next section's x1, x2).
    std::array<double, 2 + 2 * kMaxSections> mMemory{};
};

}  // namespace dsp::butterworth
