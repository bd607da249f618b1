// Windows against their formulas in long double: the non-zero part is W = 2h samples from
// (L - W) / 2, sample j using rising-half index i = h - |j - h|.

#include "dsp/fft_window.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <vector>

#include "support/signals.h"

namespace {

using dsp::GetFFTWindow;

const long double kPi = std::acos(-1.0L);

// The Bessel series truncated after 19 terms, as the windows use it.
long double I0(long double x) {
    long double sum = 1.0L, term = 1.0L;
    for (int k = 1; k <= 19; ++k) {
        term *= x / (2.0L * k);
        sum += term * term;
    }
    return sum;
}

long double KaiserBeta(long double A) {
    if (A >= 50.0L) return 0.1102L * (A - 8.7L);
    if (A > 21.0L) return 0.5842L * std::pow(A - 21.0L, 0.4L) + 0.07886L * (A - 21.0L);
    return 0.0L;
}

// Value of the shape at rising-half index i, without gain.
long double Shape(unsigned int shape, int i, int h, long double A) {
    const long double x = i * kPi / h, W = 2.0L * h;
    switch (shape) {
        case 0:
            return 1.0L - std::fabs(1.0L - 2.0L * i / W);
        case 1:
            return 0.5L * (1.0L - std::cos(x));
        case 2:
            return 0.54L - 0.46L * std::cos(i * kPi / (h - 1.0L));
        case 3:
            return 0.42L - 0.5L * std::cos(x) + 0.08L * std::cos(2.0L * x);
        case 4: {
            const long double u = (i - (W - 2.0L) / 2.0L) / h;
            return 1.0L - u * u;
        }
        case 5:
            return 0.35875L - 0.48829L * std::cos(x) + 0.14128L * std::cos(2.0L * x) - 0.01168L * std::cos(3.0L * x);
        default: {
            const long double t = (i - h) / (1.0L * h);
            const long double beta = KaiserBeta(shape == 6 ? 140.0L : shape == 7 ? 180.0L : A);
            return I0(beta * std::sqrt(1.0L - t * t)) / I0(beta);
        }
    }
}

// The expected buffer of `length` samples for the common case (bit 0x100 only).
std::vector<long double> Expected(unsigned int shape, int length, double fraction, long double A = 0.0L) {
    const long double g = static_cast<float>(1.0 / fraction);
    const int h = static_cast<int>(length * fraction * 0.5);
    const int start = (length - 2 * h) / 2;
    std::vector<long double> w(length, 0.0L);
    for (int j = 0; j < 2 * h; ++j)
        w[start + j] = g * Shape(shape, h - std::abs(j - h), h, A);
    return w;
}

std::vector<double> Window(int length, double fraction, unsigned int flags, double attenuation = 140.0) {
    std::vector<double> w((flags & 0x600u) != 0 ? 2 * length : length, -7.0);
    EXPECT_TRUE(GetFFTWindow(w.data(), length, fraction, flags, attenuation));
    return w;
}

void ExpectMatches(const std::vector<double>& got, const std::vector<long double>& want, long double tolerance) {
    ASSERT_EQ(got.size(), want.size());
    for (std::size_t k = 0; k < got.size(); ++k)
        ASSERT_NEAR(got[k], want[k], tolerance) << "sample " << k;
}

// The zero runs and gain follow from the placement: fraction 0.5 on 1024 samples is 256 zeros, 512
// window samples at gain 2, 256 zeros.
TEST(FFTWindow, EveryShapeMatchesItsFormulaInDoubleAndFloat) {
    for (auto [length, fraction] : {std::pair{64, 1.0}, {4096, 1.0}, {1024, 0.5}, {1000, 0.75}, {999, 0.3}}) {
        for (unsigned int shape = 0; shape <= 8; ++shape) {
            SCOPED_TRACE(testing::Message() << "shape " << shape << " length " << length << " fraction " << fraction);
            const long double g = static_cast<float>(1.0 / fraction);  // gain rounded to float
            const auto d = Window(length, fraction, shape | dsp::kWindowMirror, 65.0);
            ExpectMatches(d, Expected(shape, length, fraction, 65.0L), 2e-14L * g);
            std::vector<float> f(length);
            ASSERT_TRUE(
                GetFFTWindow(f.data(), length, fraction, shape | dsp::kWindowMirror | dsp::kWindowFloatOutput, 65.0));
            for (int k = 0; k < length; ++k)
                ASSERT_EQ(f[k], static_cast<float>(d[k])) << "float output, sample " << k;
        }
    }
}

TEST(FFTWindow, MultiplyAndReciprocalFlags) {
    constexpr int n = 512;
    const auto noise = kesta::test::WhiteNoise(n, 7, 3.0);
    std::vector<double> x(noise.begin(), noise.end());
    x[300] = 0.0;  // a zero product stays zero under the reciprocal

    const unsigned int flags = dsp::kWindowBlackmanHarris | dsp::kWindowMirror | dsp::kWindowMultiply;
    const auto w = Window(n, 0.75, dsp::kWindowBlackmanHarris | dsp::kWindowMirror);
    std::vector<double> d = x, r = x;
    std::vector<float> f(x.begin(), x.end());
    ASSERT_TRUE(GetFFTWindow(d.data(), n, 0.75, flags, 140.0));
    ASSERT_TRUE(GetFFTWindow(f.data(), n, 0.75, flags | dsp::kWindowFloatOutput, 140.0));
    ASSERT_TRUE(GetFFTWindow(r.data(), n, 0.75, flags | dsp::kWindowReciprocal, 140.0));
    for (int k = 0; k < n; ++k) {
        const double product = x[k] * w[k], exact = static_cast<double>(static_cast<float>(x[k])) * w[k];
        ASSERT_EQ(d[k], product) << k;
        ASSERT_NEAR(f[k], exact, std::fabs(exact) * 0x1p-23) << k;
        ASSERT_EQ(r[k], product == 0.0 ? 0.0 : 1.0 / product) << k;
    }
}

// 0x200 / 0x400 lay the window over 2 x length samples with the halves swapped (peak at sample 0);
// without 0x100 only the rising half is written, and without any layout bit only its first sample.
TEST(FFTWindow, LayoutBits) {
    constexpr int length = 48;
    constexpr unsigned int hamming = dsp::kWindowHamming;
    for (double fraction : {1.0, 0.5}) {
        const auto laid = Expected(hamming, 2 * length, fraction);
        for (unsigned int bit : {dsp::kWindowDoubleLength, dsp::kWindowDoubleLengthAlt}) {
            SCOPED_TRACE(testing::Message() << "bit " << bit << " fraction " << fraction);
            const auto w = Window(length, fraction, hamming | dsp::kWindowMirror | bit);
            ASSERT_EQ(w.size(), 2u * length);
            for (int p = 0; p < 2 * length; ++p)
                ASSERT_NEAR(w[p], static_cast<double>(laid[(p + length) % (2 * length)]), 1e-14) << p;
        }
    }
    const auto rising = Window(length, 1.0, hamming | dsp::kWindowDoubleLength);
    const auto full = Window(length, 1.0, hamming | dsp::kWindowMirror | dsp::kWindowDoubleLength);
    for (int p = 0; p < 2 * length; ++p)
        ASSERT_EQ(rising[p], p == 0 || p >= length ? full[p] : 0.0) << p;

    const auto first = Window(100, 0.5, hamming);
    for (int k = 0; k < 100; ++k)
        ASSERT_NEAR(first[k], k == 25 ? 2.0 * 0.08 : 0.0, 1e-15) << k;
}

TEST(FFTWindow, KaiserBetaRegions) {
    const unsigned int kaiser = dsp::kWindowKaiser | dsp::kWindowMirror;
    // 50 takes the upper branch, 30 the middle one (the formula test covers 65, and shapes 6 and 7
    // there show that the fixed-attenuation Kaisers ignore the argument).
    for (long double A : {50.0L, 30.0L}) {
        SCOPED_TRACE(testing::Message() << "A " << static_cast<double>(A));
        ExpectMatches(Window(300, 1.0, kaiser, static_cast<double>(A)), Expected(8, 300, 1.0, A), 1e-14L);
    }
    // At 21 dB and below beta is 0: flat at the gain over all W samples; just above, not flat.
    for (double A : {21.0, -5.0}) {
        const auto w = Window(400, 0.5, kaiser, A);
        for (int k = 0; k < 400; ++k)
            ASSERT_EQ(w[k], (k >= 100 && k < 300) ? 2.0 : 0.0) << "A " << A << " sample " << k;
    }
    EXPECT_LT(Window(400, 1.0, kaiser, 21.5)[0], 1.0);
}

TEST(FrequencyAnalysisWorker, FlagsAndOffsetPerWindowType) {
    const double offsets[8] = {2.8272381991077715, 2.830710787814143,  2.6211142407565706, 3.3711967532375824,
                               2.121611447316372,  3.9458130062104555, 4.275628861515862,  4.841723675840993};
    for (int type : {0, 1, 2, 3, 4, 5, 6, 7, 8, 255, 1 << 20, -1}) {
        const int expected = type >= 0 && type < 8 ? type : 0;
        unsigned int flags = 1;
        double offset = 0.0;
        dsp::FrequencyAnalysisWorker::GetFlagsAndOffsetFromWindowType(type, flags, offset);
        EXPECT_EQ(flags, 0x2100u + expected) << type;
        EXPECT_EQ(offset, offsets[expected]) << type;
    }
    // The 0x2000 mark changes nothing in the window itself.
    EXPECT_EQ(Window(200, 1.0, 0x2105u), Window(200, 1.0, 0x105u));
}

}  // namespace
