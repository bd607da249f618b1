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
// Design (a matched-magnitude design): two candidates, and the one whose worst in-band error is
// smaller is kept.
//   - Poles mapped. The analog prototype of order n has its poles at wc e^(j theta), theta = pi/2 +
//     (2k + 1) pi / 2n, wc = 2 pi fc/fs: conjugate pairs plus one real pole for odd n. Each maps
//     exactly to z = e^(s) (s in radians per sample), so every resonance sits where the analog
//     one does. Always stable: |z| = e^(Re s) < 1.
//   - Zeros for the mapped poles. On the unit circle a numerator's squared magnitude is a
//     polynomial of degree n in u = sin^2(pi f/fs). The low-pass numerator is fitted as a whole:
//     P(u) = |A(1)|^2 + u R(u) (exact unit gain at DC) with R chosen by weighted least squares on the
//     relative error P / (|H_analog|^2 |A|^2) - 1 over a grid, reweighted a few times towards the
//     minimax error (Lawson). P is then factored: each root u_i gives a zero z_i + 1/z_i = 2 - 4 u_i,
//     taken inside the unit circle. Should P fail to factor so, the low-pass takes n zeros at the
//     Nyquist frequency. The high-pass keeps all n zeros at DC, (1 - z^-1)^n, and only its gain is
//     fitted (minimax in dB).
//   - Poles and zeros fitted together. |H|^2 is N(u) / D(u), both of degree n (2n + 1 free values).
//     The high-pass keeps N = u^n and fits D by weighted least squares on the relative error,
//     reweighted towards the minimax. The low-pass fits N and D with unit gain at DC and exactly
//     -3 dB at the cutoff, the error linearised about the denominator of the step before (the
//     mapped poles at first). D and N factor into poles and zeros inside the unit circle as above;
//     a fit that does not is dropped. Tried only where the mapped poles miss the curve by more than
//     0.01 dB, and for the low-pass only up to order 2: from order 3 the mapped poles come within
//     0.01 dB of it.
//   - The sections: conjugate pairs of poles and zeros together, real ones paired in order, the
//     first-order section (odd n) last. Each low-pass section has unit gain at DC; the high-pass
//     gain is shared out evenly.
//   - The fitted band. Points count fully from 0 to the band top the caller names (the equaliser
//     names 20 kHz; at most 0.49 fs) wherever the analog curve lies above -110 dB, and with a
//     weight of 0.01 elsewhere, which keeps the response loosely on the curve (within 2.5 dB) above
//     the band top.
//
// Accuracy: the worst |error| in dB from 20 Hz to min(20 kHz, 0.49 fs) wherever the curve is
// above -100 dB, over cutoffs from 20 Hz to 20 kHz, band top 20 kHz, for orders 1 ... 8:
//
//   low-pass   44.1 kHz  0.35 0.14 0.07 0.033 0.016 0.012 0.01 0.005
//              48 kHz    0.23 0.06 0.02 0.012 0.011 0.007 0.005 0.002
//              88.2, 96  below 0.015
//   high-pass  44.1 kHz  0.18 0.095 0.045 0.022 0.011 0.01 0.01 0.01
//              48 kHz    0.115 0.041 0.013 0.01 0.01 0.01 0.01 0.01
//              88.2, 96  within 0.01
//
// Where 0.1 dB is out of reach, and why:
//   - Low-pass of order 1 (44.1 kHz below a cutoff of 18.9 kHz, 48 kHz below 10.7 kHz) or 2
//     (44.1 kHz, most cutoffs from 35 Hz on; 0.1-0.14 dB): n poles near DC fall off as
//     1/sin^n(pi f/fs) rather than 1/f^n, and n zeros follow (sin(pi f/fs) / (pi f/fs))^(2n) as a
//     function of u only to within 0.27 dB (order 1, 44.1 kHz), 0.17 dB (order 1, 48 kHz) and
//     0.14 dB (order 2, 44.1 kHz) up to 20 kHz, wherever the poles are. Left entirely free, the
//     poles come down to those figures only by moving the error from the stop band up to the
//     corner (0.16 dB off at a 1 kHz cutoff), so the low-pass holds -3 dB at its cutoff and gains
//     from free poles at high cutoffs: order 1 at 12 kHz 0.13 dB (mapped poles 0.3), order 2
//     0.09 dB (0.15).
//   - High-pass of order 1 with a cutoff above 10.5 kHz (44.1 kHz) or 16.6 kHz (48 kHz): one pole
//     and a gain are all it has to follow the curve up to the band top.
//   - A cutoff held at 0.4999 fs (one above the Nyquist frequency of a low rate) runs up to 0.19
//     (44.1 kHz) and 0.28 dB (32 kHz) off for an order-1 high-pass, less for higher orders; at
//     32 kHz the low-pass reaches 0.52 dB (order 1) to 0.085 dB (order 8).
//
// Running: the sections are second-order (and one first-order for odd n) in direct form I, in
// double, sharing memory between neighbours (a section's output history is the next one's input
// history). Each sample passes through the whole cascade before the next is read, so block
// partitions never change the output. Fixed-size storage: no allocation anywhere, the design
// included (some 10 us for a high-pass to 280 us for an eighth-order low-pass; the fit with free
// poles, where it runs, adds 30-130 us).
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
    // Two channels' filters at once, one in each lane of a vector register: the same bits as
    // left.ProcessInplace(x0) and right.ProcessInplace(x1), for filters of the same order.
    static void ProcessPairInplace(CutFilter& left, CutFilter& right, float* x0, float* x1, int count);
    double ProcessSample(double x);

private:
    Design mDesign = DesignCutFilter(true, 1, 0.25);
    // x1, x2 of the cascade input, then y1, y2 of every section (the next section's x1, x2).
    std::array<double, 2 + 2 * kMaxSections> mMemory{};
};

}  // namespace dsp::butterworth
