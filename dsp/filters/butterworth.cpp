// Butterworth cut filters: the matched-magnitude design (poles mapped exactly, zeros fitted to the
// analog curve) and the direct-form-I cascade that runs it.

#include "dsp/filters/butterworth.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <limits>
#include <numbers>

#include "dsp/core/denormal_guard.h"

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
constexpr double kLooseWeight = 0.05;
constexpr int kLawsonSteps = 12;

using Complex = std::complex<double>;
using Column = std::array<double, kGridSize>;

// An analog pole in radians per sample, s = re + j im; im > 0 stands for a conjugate pair, im = 0
// for the real pole of an odd order.
struct Pole {
    double re = 0.0, im = 0.0;
};

// |A(e^jw)|^2 of the section with pole p mapped to z = e^p, as products of |1 - z e^-jw|^2 =
// (1 - r)^2 + 4 r sin^2((w - arg z) / 2), which keeps full precision near DC for low cutoffs.
double PoleFactor(const Pole& p, double w) {
    const double r = std::exp(p.re);
    const double d = -std::expm1(p.re);  // 1 - r
    auto one = [r, d](double x) {
        const double h = std::sin(0.5 * x);
        return d * d + 4.0 * r * h * h;
    };
    return p.im == 0.0 ? one(w) : one(w - p.im) * one(w + p.im);
}

// Least squares: x minimising |M x - b| for the first `cols` columns of M (Householder QR on
// equilibrated columns). M and b are overwritten. False for a zero or non-finite column.
bool LeastSquares(std::array<Column, kMaxOrder>& M, int cols, Column& b, double* x) {
    double scale[kMaxOrder], diag[kMaxOrder];
    for (int j = 0; j < cols; ++j) {
        double sum = 0.0;
        for (double v : M[j])
            sum += v * v;
        scale[j] = std::sqrt(sum);
        if (!(scale[j] > 0.0) || !std::isfinite(scale[j])) return false;
        for (double& v : M[j])
            v /= scale[j];
    }
    for (int k = 0; k < cols; ++k) {
        Column& v = M[k];
        double norm2 = 0.0;
        for (int i = k; i < kGridSize; ++i)
            norm2 += v[i] * v[i];
        double alpha = std::sqrt(norm2);
        if (!(alpha > 0.0)) return false;
        if (v[k] > 0.0) alpha = -alpha;
        v[k] -= alpha;  // v = column - alpha e_k, and v'v = -2 alpha v_k
        const double vv = -2.0 * alpha * v[k];
        auto reflect = [&v, k, vv](Column& c) {
            double dot = 0.0;
            for (int i = k; i < kGridSize; ++i)
                dot += v[i] * c[i];
            const double t = 2.0 * dot / vv;
            for (int i = k; i < kGridSize; ++i)
                c[i] -= t * v[i];
        };
        for (int j = k + 1; j < cols; ++j)
            reflect(M[j]);
        reflect(b);
        diag[k] = alpha;
    }
    for (int k = cols - 1; k >= 0; --k) {
        double sum = b[k];
        for (int j = k + 1; j < cols; ++j)
            sum -= M[j][k] * x[j];
        x[k] = sum / diag[k];
    }
    for (int j = 0; j < cols; ++j)
        x[j] /= scale[j];
    return true;
}

// The n roots of p[0] + p[1] u + ... + p[n] u^n by the Aberth-Ehrlich iteration. False if they
// do not settle.
bool Roots(const double* p, int n, Complex* roots) {
    if (!(std::fabs(p[n]) > 0.0) || !std::isfinite(p[n])) return false;
    const double radius = std::pow(std::fabs(p[0] / p[n]), 1.0 / n);
    for (int k = 0; k < n; ++k)
        roots[k] = std::polar(radius, 0.4 + 2.0 * kPi * k / n);
    double worst = 1.0;
    for (int iteration = 0; iteration < 100 && worst > 1e-13; ++iteration) {
        worst = 0.0;
        for (int i = 0; i < n; ++i) {
            const Complex z = roots[i];
            Complex value = p[n], slope = 0.0;
            for (int k = n - 1; k >= 0; --k) {
                slope = slope * z + value;
                value = value * z + p[k];
            }
            if (value == 0.0) continue;
            const Complex ratio = value / slope;
            Complex sum = 0.0;
            for (int j = 0; j < n; ++j)
                if (j != i) sum += 1.0 / (z - roots[j]);
            const Complex step = ratio / (1.0 - ratio * sum);
            if (!std::isfinite(step.real()) || !std::isfinite(step.imag())) return false;
            roots[i] -= step;
            worst = std::max(worst, std::abs(step) / std::max(std::abs(roots[i]), 1e-300));
        }
    }
    return worst <= 1e-9;
}

// The zero inside the unit circle that belongs to a root u of |B|^2: z + 1/z = 2 - 4u, |z| < 1.
Complex ZeroOf(Complex u) {
    const Complex beta = 2.0 - 4.0 * u;
    Complex d = std::sqrt(beta * beta - 4.0);
    if (std::abs(beta - d) > std::abs(beta + d)) d = -d;
    return 2.0 / (beta + d);  // 1 / the root outside, free of cancellation
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
        double x[kMaxOrder];
        if (!LeastSquares(M, n, b, x)) break;
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
        for (int i = 0; i < kGridSize; ++i)
            lawson[i] *= std::sqrt(error[i] / all + 1e-9);
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
    Complex roots[kMaxOrder];
    if (!Roots(p, n, roots)) return false;
    for (int k = 0; k < n; ++k) {
        zeros[k] = ZeroOf(roots[k]);
        if (!(std::abs(zeros[k]) < 1.0 - 1e-9)) return false;  // a zero on the circle: P < 0 somewhere
    }
    return true;
}

// Shares the zeros out as numerators: conjugate pairs together, real zeros paired in order, the
// last real one to the first-order section for an odd order. False if the zeros are not real or
// conjugate pairs.
bool ShareZeros(const Complex* zeros, int n, Section* sections) {
    double reals[kMaxOrder];
    int realCount = 0, pairCount = 0, lowerCount = 0;
    for (int k = 0; k < n; ++k) {
        const Complex z = zeros[k];
        const double tolerance = 1e-9 * (1.0 + std::abs(z));
        if (std::fabs(z.imag()) <= tolerance) {
            reals[realCount++] = z.real();
        } else if (z.imag() > 0.0) {
            sections[pairCount++] = {1.0, -2.0 * z.real(), std::norm(z), 0.0, 0.0};
        } else {
            ++lowerCount;
        }
    }
    if (lowerCount != pairCount || 2 * pairCount + realCount != n) return false;
    for (int i = 1; i < realCount; ++i)  // a few values: insertion sort
        for (int j = i; j > 0 && reals[j - 1] > reals[j]; --j)
            std::swap(reals[j - 1], reals[j]);
    int section = pairCount;
    for (int k = 0; k + 1 < realCount; k += 2)
        sections[section++] = {1.0, -(reals[k] + reals[k + 1]), reals[k] * reals[k + 1], 0.0, 0.0};
    if (realCount % 2 != 0) sections[section] = {1.0, -reals[realCount - 1], 0.0, 0.0, 0.0};
    return true;
}

// High-pass gain: the numerator is (1 - z^-1)^n and G = |gain|^2 is chosen so that the worst
// in-band error in dB is as small as it can be (equal and opposite at its two extremes). Returns
// log G; 0 and false when no point of the band lies above the floor.
bool HighPassLogGain(const Design& d, const Pole* poles, const Grid& grid, double& logGain) {
    double lo = std::numeric_limits<double>::infinity(), hi = -lo;
    for (int i = 0; i < kGridSize; ++i) {
        if (grid.base[i] != 1.0) continue;
        double logRatio = d.order * std::log(4.0 * grid.u[i]) - std::log(grid.target[i]);
        for (int k = 0; k < d.sectionCount; ++k)
            logRatio -= std::log(PoleFactor(poles[k], grid.w[i]));
        lo = std::min(lo, logRatio);
        hi = std::max(hi, logRatio);
    }
    logGain = hi >= lo ? -0.5 * (lo + hi) : 0.0;
    return hi >= lo;
}

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

Design DesignCutFilter(bool lowPass, int order, double normalisedCutoff, double normalisedBandTop) {
    Design d;
    d.order = ClampOrder(order);
    d.lowPass = lowPass;
    d.normalisedCutoff = ClampNormalisedCutoff(normalisedCutoff);
    d.bandTop = normalisedBandTop > kMinBandTop ? std::min(normalisedBandTop, kMaxBandTop) : kMinBandTop;
    d.sectionCount = (d.order + 1) / 2;

    // Poles: wc e^(j (pi/2 + phi)), phi = (2k + 1) pi / 2n, mapped by z = e^s.
    const double wc = 2.0 * kPi * d.normalisedCutoff;
    Pole poles[kMaxSections];
    for (int k = 0; k < d.order / 2; ++k) {
        const double phi = (2.0 * k + 1.0) * kPi / (2.0 * d.order);
        poles[k] = {-wc * std::sin(phi), wc * std::cos(phi)};
    }
    if (d.order % 2 != 0) poles[d.sectionCount - 1] = {-wc, 0.0};

    Grid grid;
    FillGrid(grid, d);
    Section numerators[kMaxSections];
    bool fitted = false;
    double logGain = 0.0;
    if (lowPass) {
        Complex zeros[kMaxOrder];
        fitted = FitLowPassZeros(d, poles, grid, zeros) && ShareZeros(zeros, d.order, numerators);
    } else {
        fitted = HighPassLogGain(d, poles, grid, logGain);
    }
    double logSectionGains = 0.0;
    for (int k = 0; k < d.sectionCount; ++k) {
        const Pole& p = poles[k];
        const bool first = p.im == 0.0;
        Section& s = d.sections[static_cast<std::size_t>(k)];
        const double r = std::exp(p.re);
        s.a1 = first ? -r : -2.0 * r * std::cos(p.im);
        s.a2 = first ? 0.0 : r * r;
        if (lowPass) {
            // Unit gain at DC; |A(1)| from the pole directly (1 + a1 + a2 cancels at low cutoffs).
            Section n = numerators[k];
            if (!fitted) n = first ? Section{1.0, 1.0, 0.0, 0.0, 0.0} : Section{1.0, 2.0, 1.0, 0.0, 0.0};
            const double g = std::sqrt(PoleFactor(p, 0.0)) / (n.b0 + n.b1 + n.b2);
            s.b0 = g * n.b0;
            s.b1 = g * n.b1;
            s.b2 = g * n.b2;
        } else {
            // Unit gain at the Nyquist frequency, corrected by the fitted gain below.
            const double g = first ? 0.5 * (1.0 - s.a1) : 0.25 * (1.0 - s.a1 + s.a2);
            logSectionGains += std::log(g);
            s.b0 = g;
            s.b1 = first ? -g : -2.0 * g;
            s.b2 = first ? 0.0 : g;
        }
    }
    if (!lowPass && fitted) {
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
