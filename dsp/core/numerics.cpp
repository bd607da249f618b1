#include "dsp/core/numerics.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>

namespace dsp::numerics {

namespace {

// The root inside the unit circle that belongs to a root u of |B|^2: z + 1/z = 2 - 4u, |z| < 1.
Complex ZeroOf(Complex u) {
    const Complex beta = 2.0 - 4.0 * u;
    Complex d = std::sqrt(16.0 * u * (u - 1.0));  // beta^2 - 4 without its cancellation near u = 0, 1
    if (std::abs(beta - d) > std::abs(beta + d)) d = -d;
    return 2.0 / (beta + d);  // 1 / the root outside, free of cancellation
}

}  // namespace

bool LeastSquares(double* const* M, int cols, int rows, double* b, double* x) {
    if (cols < 1 || cols > kMaxUnknowns || rows < cols) return false;
    double scale[kMaxUnknowns], diag[kMaxUnknowns];
    for (int j = 0; j < cols; ++j) {
        double sum = 0.0;
        for (int i = 0; i < rows; ++i)
            sum += M[j][i] * M[j][i];
        scale[j] = std::sqrt(sum);
        if (!(scale[j] > 0.0) || !std::isfinite(scale[j])) return false;
        for (int i = 0; i < rows; ++i)
            M[j][i] /= scale[j];
    }
    for (int k = 0; k < cols; ++k) {
        double* v = M[k];
        double norm2 = 0.0;
        for (int i = k; i < rows; ++i)
            norm2 += v[i] * v[i];
        double alpha = std::sqrt(norm2);
        if (!(alpha > 0.0)) return false;
        if (v[k] > 0.0) alpha = -alpha;
        v[k] -= alpha;  // v = column - alpha e_k, and v'v = -2 alpha v_k
        const double vv = -2.0 * alpha * v[k];
        auto reflect = [v, k, vv, rows](double* c) {
            double dot = 0.0;
            for (int i = k; i < rows; ++i)
                dot += v[i] * c[i];
            const double t = 2.0 * dot / vv;
            for (int i = k; i < rows; ++i)
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

bool PolynomialRoots(const double* p, int n, Complex* roots) {
    if (n < 1) return false;
    if (!(std::fabs(p[n]) > 0.0) || !std::isfinite(p[n])) return false;
    const double radius = std::pow(std::fabs(p[0] / p[n]), 1.0 / n);
    for (int k = 0; k < n; ++k)
        roots[k] = std::polar(radius, 0.4 + 2.0 * std::numbers::pi * k / n);
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

bool FactorInsideUnitCircle(const double* p, int n, double uScale, Complex* out) {
    Complex roots[kMaxUnknowns];
    if (n > kMaxUnknowns || !PolynomialRoots(p, n, roots)) return false;
    for (int k = 0; k < n; ++k) {
        out[k] = ZeroOf(uScale * roots[k]);
        if (!(std::abs(out[k]) < 1.0 - 1e-9)) return false;
    }
    return true;
}

bool PairRoots(const Complex* roots, int n, SectionFactor* factors) {
    if (n < 0 || n > kMaxUnknowns) return false;
    double reals[kMaxUnknowns];
    int realCount = 0, pairCount = 0, lowerCount = 0;
    for (int k = 0; k < n; ++k) {
        const Complex z = roots[k];
        const double tolerance = 1e-9 * (1.0 + std::abs(z));
        if (std::fabs(z.imag()) <= tolerance) {
            reals[realCount++] = z.real();
        } else if (z.imag() > 0.0) {
            factors[pairCount++] = {-2.0 * z.real(), std::norm(z), std::norm(1.0 - z)};
        } else {
            ++lowerCount;
        }
    }
    if (lowerCount != pairCount || 2 * pairCount + realCount != n) return false;
    for (int i = 1; i < realCount; ++i)  // a few values: insertion sort
        for (int j = i; j > 0 && reals[j - 1] > reals[j]; --j)
            std::swap(reals[j - 1], reals[j]);
    int factor = pairCount;
    for (int k = 0; k + 1 < realCount; k += 2)
        factors[factor++] = {-(reals[k] + reals[k + 1]), reals[k] * reals[k + 1],
                             std::fabs((1.0 - reals[k]) * (1.0 - reals[k + 1]))};
    if (realCount % 2 != 0) factors[factor] = {-reals[realCount - 1], 0.0, std::fabs(1.0 - reals[realCount - 1])};
    return true;
}

double Horner(const double* p, int n, double x) {
    double value = p[n];
    for (int k = n - 1; k >= 0; --k)
        value = value * x + p[k];
    return value;
}

}  // namespace dsp::numerics
