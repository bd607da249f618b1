// Butterworth cut filters: the matched-magnitude design (poles mapped exactly and zeros fitted to
// the analog curve, or poles and zeros fitted together where that follows the curve more closely)
// and the direct-form-I cascade that runs it.

#include "dsp/filters/butterworth.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <limits>
#include <numbers>

#include "dsp/core/denormal_guard.h"
#include "dsp/core/double_pair.h"
#include "dsp/core/numerics.h"

namespace dsp::butterworth {

namespace {

constexpr double kPi = std::numbers::pi;
constexpr double kMinNormalisedCutoff = 1e-6;
// Just below the Nyquist frequency.
constexpr double kMaxNormalisedCutoff = 0.4999;
constexpr double kMinBandTop = 0.001;
constexpr double kMaxBandTop = 0.49;

// The fitting grid: four decades log-spaced below the band top, evenly spaced points up to it
// (where the error concentrates) and a few loose ones above it.
constexpr int kLogPoints = 80;
constexpr int kEvenPoints = 40;
constexpr int kAbovePoints = 10;
constexpr int kGridSize = kLogPoints + kEvenPoints + kAbovePoints;
constexpr double kFloor = 1e-11;  // |H|^2 below -110 dB is followed loosely
constexpr double kLooseWeight = 0.01;
constexpr int kLawsonSteps = 12;
// The fit with free poles: tried only where the mapped poles miss the curve by more than 0.01 dB
// (as ln |H|^2), and for a low-pass only up to order 2 (from order 3 on the mapped poles come within
// 0.01 dB of it, at up to four times the cost); plain linearised steps (low-pass only) before the
// reweighted ones; the weight that holds a low-pass at -3 dB at its cutoff.
constexpr double kCloseEnough = 0.01 * std::numbers::ln10 / 10.0;
constexpr int kMaxFreeLowPassOrder = 2;
constexpr int kLinearisedSteps = 4;
constexpr int kFreeLawsonSteps = 8;
constexpr double kCutoffWeight = 1e4;
constexpr int kMaxUnknowns = 2 * kMaxFreeLowPassOrder > kMaxOrder + 1 ? 2 * kMaxFreeLowPassOrder : kMaxOrder + 1;

using numerics::Complex;
using numerics::FactorInsideUnitCircle;
using numerics::Horner;
// One column of a least-squares system: a row per grid point and one for a constraint.
using Column = std::array<double, kGridSize + 1>;

// An analog pole in radians per sample, s = re + j im; im > 0 stands for a conjugate pair, im = 0
// for the real pole of an odd order.
struct Pole {
    double re = 0.0, im = 0.0;
};

// |1 - z e^-jw|^2 = (1 - r)^2 + 4 r sin^2((w - angle) / 2) for a root z = r e^(j angle), which keeps
// full precision near DC for roots close to z = 1.
double RootFactor(double r, double angle, double w) {
    const double h = std::sin(0.5 * (w - angle));
    return (1.0 - r) * (1.0 - r) + 4.0 * r * h * h;
}

// |A(e^jw)|^2 of the section with pole p mapped to z = e^p: RootFactor of e^p (and of its conjugate)
// with 1 - r = -expm1(Re p) exactly.
double PoleFactor(const Pole& p, double w) {
    const double r = std::exp(p.re);
    const double d = -std::expm1(p.re);  // 1 - r
    auto one = [r, d](double x) {
        const double h = std::sin(0.5 * x);
        return d * d + 4.0 * r * h * h;
    };
    return p.im == 0.0 ? one(w) : one(w - p.im) * one(w + p.im);
}

// numerics::LeastSquares on columns of the grid.
bool LeastSquares(Column* M, int cols, int rows, Column& b, double* x) {
    double* columns[kMaxUnknowns];
    for (int j = 0; j < cols; ++j)
        columns[j] = M[j].data();
    return numerics::LeastSquares(columns, cols, rows, b.data(), x);
}

// One Lawson step: each point's weight grows with its share of the worst error.
void Reweight(Column& lawson, const Column& error, double worst) {
    for (int i = 0; i < kGridSize; ++i)
        lawson[i] *= std::sqrt(error[i] / worst + 1e-9);
}

struct Grid {
    Column w{}, u{}, target{}, base{};
};

// Grid frequencies (radians per sample), u = sin^2(w/2), the analog |H|^2 and the weight of each
// point (1 in the band where the curve is above the floor, kLooseWeight elsewhere).
void FillGrid(Grid& grid, const Design& d) {
    const double top = d.bandTop;
    for (int i = 0; i < kGridSize; ++i) {
        double f;
        if (i < kLogPoints) {
            f = top * std::pow(10.0, -4.0 + 4.0 * i / (kLogPoints - 1));
        } else if (i < kLogPoints + kEvenPoints) {
            f = top * (i - kLogPoints + 1) / kEvenPoints;
        } else {
            f = top + (0.5 - top) * (i - kLogPoints - kEvenPoints + 1) / kAbovePoints;
        }
        const double h = std::sin(kPi * f);
        grid.w[i] = 2.0 * kPi * f;
        grid.u[i] = h * h;
        const double m = Magnitude(d, f);
        grid.target[i] = m * m;
        grid.base[i] = (f <= top && grid.target[i] > kFloor) ? 1.0 : kLooseWeight;
    }
}

// Low-pass numerator: fits |B|^2 / |A(1)|^2 = 1 + u R(u) to the analog curve times |A|^2 / |A(1)|^2
// and factors it into zeros. False if it does not factor into zeros inside the unit circle.
bool FitLowPassZeros(const Design& d, const Pole* poles, const Grid& grid, Complex* zeros) {
    const int n = d.order;
    double dc[kMaxSections];
    for (int k = 0; k < d.sectionCount; ++k)
        dc[k] = PoleFactor(poles[k], 0.0);
    Column scaled{};  // target |A|^2 / |A(1)|^2: the fitted |B|^2 / |B(1)|^2 at each point
    for (int i = 0; i < kGridSize; ++i) {
        double a = 1.0;
        for (int k = 0; k < d.sectionCount; ++k)
            a *= PoleFactor(poles[k], grid.w[i]) / dc[k];
        scaled[i] = grid.target[i] * a;
    }
    // Basis u T*_j(u), T* the shifted Chebyshev polynomials on [0, 1].
    std::array<Column, kMaxOrder> basis{};
    for (int i = 0; i < kGridSize; ++i) {
        const double t = 2.0 * grid.u[i] - 1.0;
        double previous = 1.0, current = t;
        for (int j = 0; j < n; ++j) {
            const double value = j == 0 ? 1.0 : current;
            basis[static_cast<std::size_t>(j)][i] = grid.u[i] * value;
            if (j > 0) {
                const double next = 2.0 * t * current - previous;
                previous = current;
                current = next;
            }
        }
    }
    // Weighted least squares on the relative error, reweighted towards the minimax (Lawson); the
    // step with the smallest worst in-band error wins.
    Column lawson;
    lawson.fill(1.0);
    double best[kMaxOrder] = {}, bestError = std::numeric_limits<double>::infinity();
    for (int step = 0; step < kLawsonSteps; ++step) {
        std::array<Column, kMaxOrder> M;
        Column b;
        for (int i = 0; i < kGridSize; ++i) {
            const double weight = grid.base[i] * lawson[i] / scaled[i];
            for (int j = 0; j < n; ++j)
                M[static_cast<std::size_t>(j)][i] = weight * basis[static_cast<std::size_t>(j)][i];
            b[i] = grid.base[i] * lawson[i] - weight;
        }
        double x[kMaxUnknowns];
        if (!LeastSquares(M.data(), n, kGridSize, b, x)) break;
        Column error;
        double inBand = 0.0, all = 0.0;
        for (int i = 0; i < kGridSize; ++i) {
            double fit = 1.0;
            for (int j = 0; j < n; ++j)
                fit += x[j] * basis[static_cast<std::size_t>(j)][i];
            error[i] = grid.base[i] * std::fabs(fit / scaled[i] - 1.0);
            all = std::max(all, error[i]);
            if (grid.base[i] == 1.0) inBand = std::max(inBand, error[i]);
        }
        if (inBand < bestError) {
            bestError = inBand;
            std::copy(x, x + n, best);
        }
        if (!(all > 0.0)) break;
        Reweight(lawson, error, all);
    }
    if (!std::isfinite(bestError)) return false;

    // 1 + sum_j best_j u T*_j(u) as a power series in u.
    double p[kMaxOrder + 1] = {1.0};
    double previous[kMaxOrder + 1] = {1.0}, current[kMaxOrder + 1] = {-1.0, 2.0};
    for (int j = 0; j < n; ++j) {
        const double* c = j == 0 ? previous : current;
        for (int k = 0; k <= j; ++k)
            p[k + 1] += best[j] * c[k];
        if (j > 0) {
            double next[kMaxOrder + 1] = {};
            for (int k = 0; k <= j; ++k) {
                next[k] -= previous[k];
                next[k] -= 2.0 * current[k];
                next[k + 1] += 4.0 * current[k];
            }
            std::copy(current, current + kMaxOrder + 1, previous);
            std::copy(next, next + kMaxOrder + 1, current);
        }
    }
    return FactorInsideUnitCircle(p, n, 1.0, zeros);
}

// The worst in-band error, |ln(|H|^2 / curve)|, of the cascade with these n zeros and n poles: with
// unit gain at DC for a low-pass; for a high-pass with the gain G that centres the error (equal and
// opposite at its two extremes), returned as ln G. Infinite, with ln G = 0, when no point of the band
// lies above the floor.
double WorstError(const Design& d, const Complex* zeros, const Complex* poles, const Grid& grid, double& logGain) {
    const int n = d.order;
    double zeroR[kMaxOrder], zeroArg[kMaxOrder], poleR[kMaxOrder], poleArg[kMaxOrder];
    double dc = 1.0;
    for (int k = 0; k < n; ++k) {
        zeroR[k] = std::abs(zeros[k]);
        zeroArg[k] = std::arg(zeros[k]);
        poleR[k] = std::abs(poles[k]);
        poleArg[k] = std::arg(poles[k]);
        if (d.lowPass) dc *= std::norm(1.0 - poles[k]) / std::norm(1.0 - zeros[k]);
    }
    double lo = std::numeric_limits<double>::infinity(), hi = -lo;
    for (int i = 0; i < kGridSize; ++i) {
        if (grid.base[i] != 1.0) continue;
        double ratio = dc / grid.target[i];
        for (int k = 0; k < n; ++k)
            ratio *= RootFactor(zeroR[k], zeroArg[k], grid.w[i]) / RootFactor(poleR[k], poleArg[k], grid.w[i]);
        const double logRatio = std::log(ratio);
        lo = std::min(lo, logRatio);
        hi = std::max(hi, logRatio);
    }
    logGain = 0.0;
    if (!(hi >= lo)) return std::numeric_limits<double>::infinity();
    if (d.lowPass) return std::max(-lo, hi);
    logGain = -0.5 * (lo + hi);
    return 0.5 * (hi - lo);
}

// Poles and zeros fitted together. On the unit circle |H|^2 is N(x) / D(x), both of degree n in
// x = u / u(cutoff), u = sin^2(w/2). The high-pass keeps N = x^n (n zeros at DC) and fits D
// (n + 1 coefficients) by weighted least squares on the relative error t D / x^n - 1, t the analog
// |H|^2, reweighted towards the minimax (Lawson). The low-pass fits both with N(0) = D(0) = 1 (unit
// gain at DC) and N(1) = D(1) / 2 (-3 dB at the cutoff, held by a heavily weighted row): the error
// (N - t D) / (t D') is linear in the coefficients, D' the denominator of the step before (the
// mapped poles at first), a few plain steps and then the reweighted ones. The step with the smallest
// worst in-band error wins; D (and N) is then factored as the zeros are in FitLowPassZeros. False if
// the fit does not give roots inside the unit circle.
bool FitFreePoles(const Design& d, const Pole* analog, const Grid& grid, Complex* zeros, Complex* poles) {
    const int n = d.order;
    const bool lowPass = d.lowPass;
    const double h = std::sin(kPi * d.normalisedCutoff);
    const double scale = h * h;
    Column x{}, xn{};
    for (int i = 0; i < kGridSize; ++i) {
        x[i] = grid.u[i] / scale;
        xn[i] = std::pow(x[i], n);
    }
    // D' of the mapped poles: the product of (1 - x / x_k), x_k = -sinh^2(s_k / 2) / u(cutoff).
    double num[kMaxOrder + 1] = {1.0}, den[kMaxOrder + 1] = {1.0};
    int degree = 0;
    for (int k = 0; k < d.sectionCount; ++k) {
        const Complex sh = std::sinh(0.5 * Complex(analog[k].re, analog[k].im));
        const Complex inverse = -scale / (sh * sh);
        const bool pair = analog[k].im != 0.0;
        const double c1 = pair ? -2.0 * inverse.real() : -inverse.real(), c2 = pair ? std::norm(inverse) : 0.0;
        degree += pair ? 2 : 1;
        for (int j = degree; j >= 1; --j)
            den[j] += c1 * den[j - 1] + (j >= 2 ? c2 * den[j - 2] : 0.0);
    }
    const int cols = lowPass ? 2 * n : n + 1;
    const int rows = lowPass ? kGridSize + 1 : kGridSize;
    const int plainSteps = lowPass ? kLinearisedSteps : 0;
    Column lawson;
    lawson.fill(1.0);
    double bestNum[kMaxOrder + 1] = {}, bestDen[kMaxOrder + 1] = {};
    double bestError = std::numeric_limits<double>::infinity();
    for (int step = 0; step < plainSteps + kFreeLawsonSteps; ++step) {
        Column M[kMaxUnknowns];
        Column b;
        for (int i = 0; i < kGridSize; ++i) {
            const double t = grid.target[i], weight = grid.base[i] * lawson[i];
            double power = 1.0;
            if (lowPass) {
                const double w = weight / (t * Horner(den, n, x[i]));
                for (int k = 0; k < n; ++k) {
                    power *= x[i];
                    M[k][i] = w * power;
                    M[n + k][i] = -w * t * power;
                }
                b[i] = w * (t - 1.0);
            } else {
                const double w = weight * t / xn[i];
                for (int k = 0; k <= n; ++k) {
                    M[k][i] = w * power;
                    power *= x[i];
                }
                b[i] = weight;
            }
        }
        if (lowPass) {  // at the cutoff, x = 1: sum a_k - sum d_k / 2 = -1/2, relative to D'(1) / 2
            const double w = kCutoffWeight / (0.5 * Horner(den, n, 1.0));
            for (int k = 0; k < n; ++k) {
                M[k][kGridSize] = w;
                M[n + k][kGridSize] = -0.5 * w;
            }
            b[kGridSize] = -0.5 * w;
        }
        double c[kMaxUnknowns];
        if (!LeastSquares(M, cols, rows, b, c)) break;
        if (lowPass) {
            std::copy(c, c + n, num + 1);
            std::copy(c + n, c + 2 * n, den + 1);
        } else {
            std::copy(c, c + n + 1, den);
        }
        Column error{};
        double inBand = 0.0, all = 0.0;
        bool positive = true;
        for (int i = 0; i < kGridSize && positive; ++i) {
            const double numerator = lowPass ? Horner(num, n, x[i]) : xn[i], denominator = Horner(den, n, x[i]);
            positive = numerator > 0.0 && denominator > 0.0;
            error[i] = grid.base[i] * std::fabs(std::log(numerator / (grid.target[i] * denominator)));
            all = std::max(all, error[i]);
            if (grid.base[i] == 1.0) inBand = std::max(inBand, error[i]);
        }
        if (!positive || !std::isfinite(all)) break;  // a root on the unit circle: the weights would fail
        if (inBand < bestError) {
            bestError = inBand;
            std::copy(num, num + n + 1, bestNum);
            std::copy(den, den + n + 1, bestDen);
        }
        if (step >= plainSteps && all > 0.0) Reweight(lawson, error, all);
    }
    if (!std::isfinite(bestError)) return false;
    if (!FactorInsideUnitCircle(bestDen, n, scale, poles)) return false;
    return !lowPass || FactorInsideUnitCircle(bestNum, n, scale, zeros);
}

// One sample through a cascade of S second-order sections followed, when First, by one first-order
// section. m holds x1, x2 of the input and y1, y2 of each section, as in CutFilter::mMemory. V is
// double, or two channels in the lanes of a DoublePair with c's fields pairs of coefficients.
template <int S, bool First, typename V, typename Coefficients>
inline V Step(const Coefficients* c, V* m, V x) {
    V in = x;
    for (int k = 0; k < S; ++k) {
        const Coefficients& s = c[k];
        V& x1 = m[2 * k];
        V& x2 = m[2 * k + 1];
        V& y1 = m[2 * k + 2];
        V& y2 = m[2 * k + 3];
        const V y = (s.b0 * in + s.b1 * x1 + s.b2 * x2) - (s.a1 * y1 + s.a2 * y2);
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
        const Coefficients& s = c[S];
        V& x1 = m[2 * S];
        V& y1 = m[2 * S + 2];
        const V y = (s.b0 * in + s.b1 * x1) - s.a1 * y1;
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

using detail::DoublePair;

struct SectionPair {
    DoublePair b0, b1, b2, a1, a2;
};

// Two cascades of one shape, one per lane.
template <int S, bool First>
void RunPair(const Design& left, const Design& right, double* leftMemory, double* rightMemory, float* x0, float* x1,
             int count) {
    constexpr int kSections = S + (First ? 1 : 0);
    constexpr int kCells = 2 + 2 * kSections;
    SectionPair c[kSections];
    DoublePair m[kCells];
    for (int k = 0; k < kSections; ++k) {
        const Section& a = left.sections[static_cast<std::size_t>(k)];
        const Section& b = right.sections[static_cast<std::size_t>(k)];
        c[k] = {detail::MakePair(a.b0, b.b0), detail::MakePair(a.b1, b.b1), detail::MakePair(a.b2, b.b2),
                detail::MakePair(a.a1, b.a1), detail::MakePair(a.a2, b.a2)};
    }
    for (int i = 0; i < kCells; ++i)
        m[i] = detail::MakePair(leftMemory[i], rightMemory[i]);
    for (int i = 0; i < count; ++i)
        detail::StoreFloats(Step<S, First>(c, m, detail::LoadFloats(x0 + i, x1 + i)), x0 + i, x1 + i);
    for (int i = 0; i < kCells; ++i) {
        leftMemory[i] = detail::Left(m[i]);
        rightMemory[i] = detail::Right(m[i]);
    }
}

// f.operator()<S, First>() for the cascade of the given order (8 for anything above 7).
template <typename F>
auto ForOrder(int order, F&& f) {
    switch (order) {
        case 1:
            return f.template operator()<0, true>();
        case 2:
            return f.template operator()<1, false>();
        case 3:
            return f.template operator()<1, true>();
        case 4:
            return f.template operator()<2, false>();
        case 5:
            return f.template operator()<2, true>();
        case 6:
            return f.template operator()<3, false>();
        case 7:
            return f.template operator()<3, true>();
        default:
            return f.template operator()<4, false>();
    }
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

Design DesignCutFilter(bool lowPass, int order, double normalisedCutoff, double normalisedBandTop) {
    Design d;
    d.order = ClampOrder(order);
    d.lowPass = lowPass;
    d.normalisedCutoff = ClampNormalisedCutoff(normalisedCutoff);
    d.bandTop = normalisedBandTop > kMinBandTop ? std::min(normalisedBandTop, kMaxBandTop) : kMinBandTop;
    d.sectionCount = (d.order + 1) / 2;
    const int n = d.order;

    // Poles: wc e^(j (pi/2 + phi)), phi = (2k + 1) pi / 2n, mapped by z = e^s.
    const double wc = 2.0 * kPi * d.normalisedCutoff;
    Pole analog[kMaxSections];
    for (int k = 0; k < n / 2; ++k) {
        const double phi = (2.0 * k + 1.0) * kPi / (2.0 * n);
        analog[k] = {-wc * std::sin(phi), wc * std::cos(phi)};
    }
    if (n % 2 != 0) analog[d.sectionCount - 1] = {-wc, 0.0};
    Complex poles[kMaxOrder], zeros[kMaxOrder];
    for (int k = 0, j = 0; k < d.sectionCount; ++k) {
        poles[j++] = std::polar(std::exp(analog[k].re), analog[k].im);
        if (analog[k].im != 0.0) poles[j++] = std::polar(std::exp(analog[k].re), -analog[k].im);
    }

    // The mapped poles with their zeros (for a low-pass fitted, or n at the Nyquist frequency should
    // that fail; for a high-pass n at DC), then poles and zeros fitted together if that follows the
    // curve more closely.
    Grid grid;
    FillGrid(grid, d);
    numerics::SectionFactor numerators[kMaxSections], denominators[kMaxSections];
    if (!(lowPass && FitLowPassZeros(d, analog, grid, zeros) && numerics::PairRoots(zeros, n, numerators))) {
        std::fill(zeros, zeros + n, Complex(lowPass ? -1.0 : 1.0));
        numerics::PairRoots(zeros, n, numerators);
    }
    numerics::PairRoots(poles, n, denominators);
    double logGain = 0.0;
    double error = WorstError(d, zeros, poles, grid, logGain);
    if (error > kCloseEnough && (!lowPass || n <= kMaxFreeLowPassOrder)) {
        Complex freeZeros[kMaxOrder], freePoles[kMaxOrder];
        std::copy(zeros, zeros + n, freeZeros);
        numerics::SectionFactor freeNumerators[kMaxSections], freeDenominators[kMaxSections];
        double freeLogGain = 0.0;
        if (FitFreePoles(d, analog, grid, freeZeros, freePoles) && numerics::PairRoots(freeZeros, n, freeNumerators) &&
            numerics::PairRoots(freePoles, n, freeDenominators)) {
            const double freeError = WorstError(d, freeZeros, freePoles, grid, freeLogGain);
            if (freeError < error) {
                error = freeError;
                logGain = freeLogGain;
                std::copy(freeNumerators, freeNumerators + d.sectionCount, numerators);
                std::copy(freeDenominators, freeDenominators + d.sectionCount, denominators);
            }
        }
    }

    double logSectionGains = 0.0;
    for (int k = 0; k < d.sectionCount; ++k) {
        const numerics::SectionFactor& a = denominators[k];
        const numerics::SectionFactor& b = numerators[k];
        const bool first = k == d.sectionCount - 1 && n % 2 != 0;
        Section& s = d.sections[static_cast<std::size_t>(k)];
        s.a1 = a.c1;
        s.a2 = a.c2;
        // Unit gain at DC for a low-pass; for a high-pass unit gain at the Nyquist frequency,
        // corrected by the fitted gain below.
        const double g = lowPass ? a.dc / b.dc : (first ? 0.5 * (1.0 - a.c1) : 0.25 * (1.0 - a.c1 + a.c2));
        if (!lowPass) logSectionGains += std::log(g);
        s.b0 = g;
        s.b1 = g * b.c1;
        s.b2 = g * b.c2;
    }
    if (!lowPass && std::isfinite(error)) {
        // Share the correction sqrt(G) / prod(g_k) out evenly.
        const double c = std::exp((0.5 * logGain - logSectionGains) / d.sectionCount);
        for (int k = 0; k < d.sectionCount; ++k) {
            Section& s = d.sections[static_cast<std::size_t>(k)];
            s.b0 *= c;
            s.b1 *= c;
            s.b2 *= c;
        }
    }
    return d;
}

double Magnitude(const Design& design, double normalisedFrequency) {
    const double r =
        design.lowPass ? normalisedFrequency / design.normalisedCutoff : design.normalisedCutoff / normalisedFrequency;
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
    ForOrder(mDesign.order, [&]<int S, bool First>() { Run<S, First>(mDesign, mMemory.data(), data, count); });
}

void CutFilter::ProcessPairInplace(CutFilter& left, CutFilter& right, float* x0, float* x1, int count) {
    if (left.mDesign.order != right.mDesign.order) {
        left.ProcessInplace(x0, count);
        right.ProcessInplace(x1, count);
        return;
    }
    DenormalGuard guard;
    ForOrder(left.mDesign.order, [&]<int S, bool First>() {
        RunPair<S, First>(left.mDesign, right.mDesign, left.mMemory.data(), right.mMemory.data(), x0, x1, count);
    });
}

double CutFilter::ProcessSample(double x) {
    const Section* c = mDesign.sections.data();
    double* m = mMemory.data();
    return ForOrder(mDesign.order, [&]<int S, bool First>() { return Step<S, First>(c, m, x); });
}

}  // namespace dsp::butterworth
