#include "dsp/analysis/k_weighting.h"

#include <cmath>
#include <numbers>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace dsp::detail {

namespace {

// The two stages at 48 kHz as the loudness recommendation publishes them.
constexpr Itu1770::Stage kShelf48k{1.53512485958697, -2.69169618940638, 1.19839281085285, -1.69065929318241,
                                   0.73248077421585};
constexpr Itu1770::Stage kHighPass48k{1.0, -2.0, 1.0, -1.99004745483398, 0.99007225036621};

// Direct form I, both stages sharing the shelf's output history (the high-pass input). Per
// channel the state is x[n-1], x[n-2], u[n-1], u[n-2], y[n-1], y[n-2] (u: shelf output). Each
// output is the older terms first, then the newest feedback, so the recursion waits on one
// product and one difference per stage.
template <typename T>
struct Section {
    T b0, b1, b2, a1, a2;
    T Step(T x, T x1, T x2, T y1, T y2) const { return ((b0 * x + b1 * x1) + (b2 * x2 - a2 * y2)) - a1 * y1; }
};

template <typename T>
struct Channel {
    T x1, x2, u1, u2, y1, y2;
    T Step(const Section<T>& shelf, const Section<T>& highPass, T x) {
        const T u = shelf.Step(x, x1, x2, u1, u2);
        const T y = highPass.Step(u, u1, u2, y1, y2);
        x2 = x1, x1 = x, u2 = u1, u1 = u, y2 = y1, y1 = y;
        return y;
    }
};

Section<double> Scalar(const Itu1770::Stage& c) {
    return {c.b0, c.b1, c.b2, c.a1, c.a2};
}

void RunOne(const Itu1770::Stage& shelf, const Itu1770::Stage& highPass, const float* x, int n, double* state,
            double* squares) {
    const Section<double> k = Scalar(shelf), h = Scalar(highPass);
    Channel<double> c{state[0], state[1], state[2], state[3], state[4], state[5]};
    // The sum carries on from the caller's, square by square, so that where a block ends never
    // changes the order of the additions.
    double sum = *squares;
    for (int i = 0; i < n; ++i) {
        const double y = c.Step(k, h, static_cast<double>(x[i]));
        sum += y * y;
    }
    state[0] = c.x1, state[1] = c.x2, state[2] = c.u1, state[3] = c.u2, state[4] = c.y1, state[5] = c.y2;
    *squares = sum;
}

#if defined(__SSE2__)

// Two channels in the two lanes of SSE2 registers: the same products and sums as the scalar
// form, lane by lane, so the results are the same bits at half the instructions.
struct Pd {
    __m128d v;
    friend Pd operator+(Pd a, Pd b) { return {_mm_add_pd(a.v, b.v)}; }
    friend Pd operator-(Pd a, Pd b) { return {_mm_sub_pd(a.v, b.v)}; }
    friend Pd operator*(Pd a, Pd b) { return {_mm_mul_pd(a.v, b.v)}; }
};

Pd Both(double a, double b) {
    return {_mm_set_pd(b, a)};
}

Section<Pd> Paired(const Itu1770::Stage& c) {
    return {Both(c.b0, c.b0), Both(c.b1, c.b1), Both(c.b2, c.b2), Both(c.a1, c.a1), Both(c.a2, c.a2)};
}

void RunPair(const Itu1770::Stage& shelf, const Itu1770::Stage& highPass, const float* x0, const float* x1, int n,
             double* s, double* t, double* squares) {
    const Section<Pd> k = Paired(shelf), h = Paired(highPass);
    Channel<Pd> c{Both(s[0], t[0]), Both(s[1], t[1]), Both(s[2], t[2]),
                  Both(s[3], t[3]), Both(s[4], t[4]), Both(s[5], t[5])};
    Pd sum = Both(squares[0], squares[1]);
    for (int i = 0; i < n; ++i) {
        const Pd y = c.Step(k, h, Both(static_cast<double>(x0[i]), static_cast<double>(x1[i])));
        sum = sum + y * y;
    }
    const Pd* fields[6] = {&c.x1, &c.x2, &c.u1, &c.u2, &c.y1, &c.y2};
    for (int j = 0; j < 6; ++j) {
        _mm_storel_pd(&s[j], fields[j]->v);
        _mm_storeh_pd(&t[j], fields[j]->v);
    }
    _mm_storel_pd(&squares[0], sum.v);
    _mm_storeh_pd(&squares[1], sum.v);
}

#else

void RunPair(const Itu1770::Stage& shelf, const Itu1770::Stage& highPass, const float* x0, const float* x1, int n,
             double* s, double* t, double* squares) {
    RunOne(shelf, highPass, x0, n, s, &squares[0]);
    RunOne(shelf, highPass, x1, n, t, &squares[1]);
}

#endif

}  // namespace

Itu1770::Stage DesignKStage(const Itu1770::Stage& d, int sampleRate) {
    // Prototype polynomials in the 48 kHz bilinear variable s: multiplying the transfer function
    // through by (1 + z^-1)^2 with z^-1 = (1 - s) / (1 + s).
    const double n2 = d.b0 - d.b1 + d.b2, n1 = 2.0 * (d.b0 - d.b2), n0 = d.b0 + d.b1 + d.b2;
    const double d2 = 1.0 - d.a1 + d.a2, d1 = 2.0 * (1.0 - d.a2), d0 = 1.0 + d.a1 + d.a2;
    // The poles' natural frequency is sqrt(d0 / d2) = tan(pi f0 / 48000); at the new rate the same
    // f0 sits at tan(pi f0 / rate), so s48 = c s with c the ratio of the two.
    const double warped48k = std::sqrt(d0 / d2);
    const double f0 = std::atan(warped48k) * 48000.0 / std::numbers::pi;
    const double c = warped48k / std::tan(std::numbers::pi * f0 / sampleRate);
    const double N2 = n2 * c * c, N1 = n1 * c, D2 = d2 * c * c, D1 = d1 * c;
    // Back to z: X2 (1 - z^-1)^2 + X1 (1 - z^-2) + X0 (1 + z^-1)^2.
    const double a0 = D2 + D1 + d0;
    return {(N2 + N1 + n0) / a0, 2.0 * (n0 - N2) / a0, (N2 - N1 + n0) / a0, 2.0 * (d0 - D2) / a0, (D2 - D1 + d0) / a0};
}

Itu1770::Stage KShelf(int sampleRate) {
    return DesignKStage(kShelf48k, sampleRate);
}

Itu1770::Stage KHighPass(int sampleRate) {
    return DesignKStage(kHighPass48k, sampleRate);
}

void RunKWeighting(const Itu1770::Stage& shelf, const Itu1770::Stage& highPass, const float* const* x, int count,
                   int begin, int n, double* const* state, double* squares) {
    if (count == 2)
        RunPair(shelf, highPass, x[0] + begin, x[1] + begin, n, state[0], state[1], squares);
    else
        RunOne(shelf, highPass, x[0] + begin, n, state[0], squares);
}

}  // namespace dsp::detail
