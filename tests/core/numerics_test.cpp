// Filter-design numerics against values built from their definitions: systems with a known
// solution, polynomials multiplied out from chosen roots, squared magnitudes of chosen zeros.

#include "dsp/core/numerics.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <vector>

namespace {

using dsp::numerics::Complex;

// Coefficients of c * prod (x - r_k), lowest power first, from roots closed under conjugation.
std::vector<double> Multiply(const std::vector<Complex>& roots, double c) {
    std::vector<Complex> p{c};
    for (const Complex& r : roots) {
        std::vector<Complex> next(p.size() + 1);
        for (std::size_t k = 0; k < p.size(); ++k) {
            next[k + 1] += p[k];
            next[k] -= r * p[k];
        }
        p = next;
    }
    std::vector<double> real;
    for (const Complex& v : p)
        real.push_back(v.real());
    return real;
}

// Every expected root has a found root within `tolerance` (each used once).
void ExpectSameRoots(std::vector<Complex> expected, std::vector<Complex> found, double tolerance) {
    ASSERT_EQ(expected.size(), found.size());
    for (const Complex& e : expected) {
        auto nearest = std::min_element(found.begin(), found.end(), [&](const Complex& a, const Complex& b) {
            return std::abs(a - e) < std::abs(b - e);
        });
        EXPECT_LT(std::abs(*nearest - e), tolerance) << e;
        found.erase(nearest);
    }
}

TEST(Numerics, LeastSquaresSolvesAndProjects) {
    // A cubic sampled exactly is recovered; with one value disturbed, the residual is orthogonal
    // to every column (the normal equations hold).
    constexpr int rows = 40, cols = 4;
    const double truth[cols] = {0.5, -2.0, 3.0, 0.25};
    for (double disturbance : {0.0, 0.3}) {
        std::array<std::array<double, rows>, cols> M{}, copy{};
        std::array<double, rows> b{}, original{};
        for (int i = 0; i < rows; ++i) {
            const double t = -1.0 + 2.0 * i / (rows - 1);
            double power = 1.0;
            for (int j = 0; j < cols; ++j, power *= t) {
                M[j][i] = power;
                b[i] += truth[j] * power;
            }
        }
        b[7] += disturbance;
        copy = M;
        original = b;
        double* columns[cols] = {M[0].data(), M[1].data(), M[2].data(), M[3].data()};
        double x[cols];
        ASSERT_TRUE(dsp::numerics::LeastSquares(columns, cols, rows, b.data(), x));
        for (int j = 0; j < cols; ++j) {
            if (disturbance == 0.0) {
                EXPECT_NEAR(x[j], truth[j], 1e-12);
            }
            long double dot = 0.0L;
            for (int i = 0; i < rows; ++i) {
                long double fit = 0.0L;
                for (int k = 0; k < cols; ++k)
                    fit += static_cast<long double>(copy[k][i]) * x[k];
                dot += copy[j][i] * (original[i] - fit);
            }
            EXPECT_NEAR(static_cast<double>(dot), 0.0, 1e-12);
        }
    }
    // A zero column, and more columns than rows, are refused.
    std::array<double, 3> zero{}, one{1.0, 1.0, 1.0}, b{1.0, 2.0, 3.0};
    double* bad[2] = {one.data(), zero.data()};
    double x[2];
    EXPECT_FALSE(dsp::numerics::LeastSquares(bad, 2, 3, b.data(), x));
    EXPECT_FALSE(dsp::numerics::LeastSquares(bad, 2, 1, b.data(), x));
}

TEST(Numerics, PolynomialRootsFindChosenRoots) {
    const std::vector<std::vector<Complex>> cases = {
        {{2.0, 0.0}},
        {{-0.5, 0.0}, {3.0, 0.0}},
        {{0.3, 0.9}, {0.3, -0.9}, {-1e-3, 0.0}},
        {{0.99, 0.05}, {0.99, -0.05}, {0.97, 0.0}, {0.95, 0.0}, {-0.2, 0.4}, {-0.2, -0.4}, {5.0, 0.0}},
        {{1e-4, 0.0}, {2e-4, 0.0}, {1e-4, 1e-4}, {1e-4, -1e-4}},
    };
    for (const auto& roots : cases) {
        const std::vector<double> p = Multiply(roots, 1.7);
        std::vector<Complex> found(roots.size());
        ASSERT_TRUE(dsp::numerics::PolynomialRoots(p.data(), static_cast<int>(roots.size()), found.data()));
        ExpectSameRoots(roots, found, 1e-9 * (1.0 + std::abs(roots.back())));
        Complex product = 1.7;  // Horner agrees with the product form
        for (const Complex& r : roots)
            product *= 0.5 - r;
        EXPECT_NEAR(dsp::numerics::Horner(p.data(), static_cast<int>(roots.size()), 0.5), product.real(),
                    1e-12 * (1.0 + std::abs(product)));
    }
    const double leadingZero[3] = {1.0, 2.0, 0.0};
    Complex out[2];
    EXPECT_FALSE(dsp::numerics::PolynomialRoots(leadingZero, 2, out));
}

TEST(Numerics, SquaredMagnitudeFactorsIntoTheZerosInsideTheCircle) {
    // |B|^2 of B with these zeros, as a polynomial in u = sin^2(w/2): each zero z contributes the
    // root u = (2 - z - 1/z) / 4. Factoring must give back the zeros (not their mirror images).
    const std::vector<Complex> zeros = {{0.9, 0.3}, {0.9, -0.3}, {-0.5, 0.0}, {0.999, 0.0}};
    std::vector<Complex> uRoots;
    for (const Complex& z : zeros)
        uRoots.push_back((2.0 - z - 1.0 / z) / 4.0);
    for (double uScale : {1.0, 0.01}) {
        std::vector<Complex> scaled;
        for (const Complex& u : uRoots)
            scaled.push_back(u / uScale);
        const std::vector<double> p = Multiply(scaled, 2.5);
        Complex found[4];
        ASSERT_TRUE(dsp::numerics::FactorInsideUnitCircle(p.data(), 4, uScale, found));
        ExpectSameRoots(zeros, {found, found + 4}, 1e-9);
    }
    // A zero on the circle (z = -1: |B|^2 touches 0 at the Nyquist frequency, u = 1) is refused.
    const double onCircle[2] = {-1.0, 1.0};
    Complex out[1];
    EXPECT_FALSE(dsp::numerics::FactorInsideUnitCircle(onCircle, 1, 1.0, out));
}

TEST(Numerics, PairRootsBuildsSectionFactors) {
    // A conjugate pair, then real roots paired in ascending order, the odd one last and alone.
    const Complex roots[5] = {{0.8, 0.0}, {0.5, 0.5}, {-0.3, 0.0}, {0.5, -0.5}, {0.1, 0.0}};
    dsp::numerics::SectionFactor f[3];
    ASSERT_TRUE(dsp::numerics::PairRoots(roots, 5, f));
    auto expect = [](const dsp::numerics::SectionFactor& got, Complex a, Complex b, bool single) {
        const Complex c1 = single ? -a : -(a + b), c2 = single ? 0.0 : a * b;
        const double dc = std::abs(single ? 1.0 - a : (1.0 - a) * (1.0 - b));
        EXPECT_NEAR(got.c1, c1.real(), 1e-15);
        EXPECT_NEAR(got.c2, c2.real(), 1e-15);
        EXPECT_NEAR(got.dc, dc, 1e-15);
    };
    expect(f[0], roots[1], roots[3], false);
    expect(f[1], roots[2], roots[4], false);
    expect(f[2], roots[0], 0.0, true);
    const Complex unpaired[2] = {{0.5, 0.5}, {0.4, 0.5}};  // two above the axis, none below
    EXPECT_FALSE(dsp::numerics::PairRoots(unpaired, 2, f));
}

}  // namespace
