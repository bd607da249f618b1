#pragma once
// Butterworth cut filters (high-pass and low-pass, order 1 to 8) for the parametric equaliser.
//
// The filters follow the analog Butterworth magnitude on the plain frequency ratio,
//
//   low-pass   |H(f)| = 1 / sqrt(1 + (f / fc)^(2n))
//   high-pass  |H(f)| = 1 / sqrt(1 + (fc / f)^(2n)),
//
// without the frequency warping of a bilinear design, so the curve an equaliser draws from that
// formula is the curve it plays.
//
// Design (a matched-magnitude design):
//   - Poles. The analog prototype of order n has its poles at wc e^(j theta), theta = pi/2 +
//     (2k + 1) pi / 2n, wc = 2 pi fc/fs: conjugate pairs plus one real pole for odd n. Each maps
//     exactly to z = e^(s) (s in radians per sample), so every resonance sits where the analog
//     one does. Always stable: |z| = e^(Re s) < 1. The first-order section, if any, is the last.
//   - Zeros. On the unit circle a numerator's squared magnitude is a polynomial of degree n in
//     u = sin^2(pi f/fs). The low-pass numerator is fitted as a whole: P(u) = |A(1)|^2 + u R(u)
//     (exact unit gain at DC) with R chosen by weighted least squares on the relative error
//     P / (|H_analog|^2 |A|^2) - 1 over a grid, reweighted a few times towards the minimax error
//     (Lawson). P is then factored: each root u_i gives a zero z_i + 1/z_i = 2 - 4 u_i, taken
//     inside the unit circle, and the zeros are shared out between the sections (conjugate pairs
//     together), each section scaled to unit gain at DC. The high-pass keeps all n zeros at DC,
//     (1 - z^-1)^n, and only its gain is fitted (minimax in dB).
//   - The fitted band. Points count fully from 0 to the band top the caller names (the equaliser
//     names 20 kHz; at most 0.49 fs) wherever the analog curve lies above -110 dB, and with a
//     weight of 0.05 elsewhere, which keeps P positive and the response loosely on the curve (a
//     few dB) above the band top.
//   - Should P ever fail to factor into zeros inside the unit circle, the low-pass falls back to
//     n zeros at the Nyquist frequency (still stable, still unit gain at DC).
//
// Accuracy: the worst |error| in dB from 20 Hz to min(20 kHz, 0.49 fs) wherever the curve is
// above -100 dB, over cutoffs from 20 Hz to 20 kHz, band top 20 kHz, for orders 1 ... 8:
//
//   low-pass   44.1 kHz  0.36 0.16 0.075 0.05 0.05 0.045 0.035 0.03
//              48 kHz    0.23 0.075 0.05 0.05 0.035 0.017 0.009 0.005
//              88.2, 96  below 0.03
//   high-pass  44.1 kHz  0.58 0.70 0.58 0.44 0.32 0.22 0.16 0.11
//              48 kHz    0.42 0.40 0.26 0.14 0.075 0.04 0.02 0.01
//              88.2, 96  below 0.04
//
// Where 0.1 dB is out of reach, and why:
//   - Low-pass of order 1 (44.1 and 48 kHz, any cutoff) or 2 (44.1 kHz, cutoffs from about
//     50 Hz): n poles fall off as 1/sin^n(pi f/fs) rather than 1/f^n, and one or two zeros cannot
//     undo that well enough up to 20 kHz (the error sits in the stop band, not at the cutoff).
//   - High-pass with a high cutoff at 44.1 / 48 kHz: its zeros must stay at DC, so the poles alone
//     shape the top of the band. Within 0.1 dB up to a cutoff of 7 / 11.5 / 14.5 / 16.3 / 17.8 /
//     18.5 / 19.3 / 19.8 kHz (orders 1-8) at 44.1 kHz, 8.5 / 13.8 / 17 / 19 kHz (orders 1-4, all of
//     20 kHz from order 5) at 48 kHz.
//   - A cutoff held at 0.4999 fs (one above the Nyquist frequency of a low rate) runs 0.8-1.3 dB
//     off for a high-pass; at 32 kHz the low-pass reaches 0.55 dB (order 1) to 0.09 dB (order 8).
//
// Running: the sections are second-order (and one first-order for odd n) in direct form I, in
// double, sharing memory between neighbours (a section's output history is the next one's input
// history). Each sample passes through the whole cascade before the next is read, so block
// partitions never change the output. Fixed-size storage: no allocation anywhere, the design
// included (some 30 us for a first-order low-pass, 200 us for an eighth-order one).
//
// Reference: M. Vicanek, "Matched Second Order Digital Filters" (2016), for the parametrisation of
// a biquad's squared magnitude and the recovery of its coefficients.

#include <array>

namespace dsp::butterworth {

constexpr int kMaxOrder = 8;
constexpr int kMaxSections = (kMaxOrder + 1) / 2;

// The normalised cutoff fc/fs is held in [1e-6, 0.4999]: an equaliser's cutoff may lie above the
// Nyquist frequency of a low sample rate. The order is held in [1, 8].
double ClampNormalisedCutoff(double normalisedCutoff);
int ClampOrder(int order);

// One section: y = b0 x + b1 x1 + b2 x2 - a1 y1 - a2 y2 (b2 = a2 = 0 for the first-order one).
struct Section {
    double b0 = 1.0, b1 = 0.0, b2 = 0.0, a1 = 0.0, a2 = 0.0;
};

struct Design {
    int order = 1;
    int sectionCount = 0;  // ceil(order / 2); the first-order section, if any, is the last
    bool lowPass = true;
    double normalisedCutoff = 0.0;  // as held, fc/fs
    double bandTop = 0.49;          // as held, top of the fitted band / fs
    std::array<Section, kMaxSections> sections{};
};

// Coefficients of the cascade. normalisedBandTop is the top of the band the magnitude must follow
// (20 kHz / fs for audio), held in [0.001, 0.49].
Design DesignCutFilter(bool lowPass, int order, double normalisedCutoff, double normalisedBandTop = 0.49);

// The analog Butterworth |H| the design follows, at normalised frequency f/fs (the formula above).
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
