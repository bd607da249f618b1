// Two real channels through one complex transform: the split recovers each channel's spectrum, and
// the combine undoes it so one inverse transform returns both channels.

#include <cmath>
#include <complex>
#include <random>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "dsp/fft.h"
#include "dsp/spectrum_packing.h"

namespace {

template <typename T>
std::vector<std::complex<long double>> RealDft(const std::vector<T>& x) {
    const std::size_t n = x.size();
    const long double step = -2.0L * std::acos(-1.0L) / static_cast<long double>(n);
    std::vector<std::complex<long double>> out(n);
    for (std::size_t k = 0; k < n; ++k)
        for (std::size_t t = 0; t < n; ++t)
            out[k] += static_cast<long double>(x[t]) * std::polar(1.0L, step * static_cast<long double>((k * t) % n));
    return out;
}

template <typename T>
std::vector<T> Noise(std::size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> dist(-1.0, 1.0);
    std::vector<T> v(n);
    for (auto& x : v) x = static_cast<T>(dist(rng));
    return v;
}

// Splits the transform of a + ib into channel slots 1 and 2 and checks both spectra; for float,
// combines them again (bins above n/2 poisoned: they must not be read) and inverts.
template <typename T, typename Engine>
void CheckSplitAndCombine(int n, double tol) {
    const auto a = Noise<T>(n, 21), b = Noise<T>(n, 22);
    std::vector<T> re = a, im = b;
    Engine fft(n);
    fft.FFT(re.data(), im.data(), 1);
    std::vector<T> aRe(n), aIm(n), bRe(n), bIm(n), spare(n);
    T* chRe[3] = {spare.data(), aRe.data(), bRe.data()};
    T* chIm[3] = {spare.data(), aIm.data(), bIm.data()};
    EXPECT_EQ(dsp::SplitComplexSpectrumToLR(re.data(), im.data(), 1, chRe, chIm, n), n / 2);
    const auto expectA = RealDft(a), expectB = RealDft(b);
    for (int k = 0; k < n; ++k) {
        EXPECT_NEAR(aRe[k], static_cast<double>(expectA[k].real()), tol) << k;
        EXPECT_NEAR(aIm[k], static_cast<double>(expectA[k].imag()), tol) << k;
        EXPECT_NEAR(bRe[k], static_cast<double>(expectB[k].real()), tol) << k;
        EXPECT_NEAR(bIm[k], static_cast<double>(expectB[k].imag()), tol) << k;
    }
    if constexpr (std::is_same_v<T, float>) {
        for (int k = n / 2 + 1; k < n; ++k) aRe[k] = aIm[k] = bRe[k] = bIm[k] = 1e30f;
        std::vector<float> zRe(n), zIm(n);
        dsp::CombineLRSpectrumToComplex(1, chRe, chIm, zRe.data(), zIm.data(), n);
        fft.FFT(zRe.data(), zIm.data(), -1);
        for (int k = 0; k < n; ++k) {
            EXPECT_NEAR(zRe[k] / n, a[k], 1e-5f) << k;
            EXPECT_NEAR(zIm[k] / n, b[k], 1e-5f) << k;
        }
    }
}

TEST(SpectrumPacking, SplitRecoversEachChannelsSpectrumAndCombineUndoesIt) {
    CheckSplitAndCombine<float, dsp::IppFFT32>(64, 2e-5);
    CheckSplitAndCombine<double, dsp::IppFFT>(128, 1e-12);
}

TEST(SpectrumPacking, SilentSecondChannelGivesExactZeros) {
    // An exactly conjugate-symmetric spectrum: the second channel cancels to exact zeros and the
    // first comes back as it went in.
    const int n = 32;
    const auto spectrum = RealDft(Noise<float>(n, 23));
    std::vector<float> re(n), im(n);
    for (int k = 0; k <= n / 2; ++k) {
        re[k] = re[(n - k) % n] = static_cast<float>(spectrum[k].real());
        im[k] = static_cast<float>(spectrum[k].imag());
        im[(n - k) % n] = -im[k];
    }
    im[0] = im[n / 2] = 0.0f;
    std::vector<float> aRe(n), aIm(n), bRe(n, 9.0f), bIm(n, 9.0f);
    float* outRe[2] = {aRe.data(), bRe.data()};
    float* outIm[2] = {aIm.data(), bIm.data()};
    dsp::SplitComplexSpectrumToLR(re.data(), im.data(), 0, outRe, outIm, n);
    EXPECT_EQ(bRe, std::vector<float>(n, 0.0f));
    EXPECT_EQ(bIm, std::vector<float>(n, 0.0f));
    EXPECT_EQ(aRe, re);
    EXPECT_EQ(aIm, im);
}

TEST(SpectrumPacking, TwoPointSplitWritesOnlyBinsZeroAndOne) {
    float re[2] = {3.0f, -1.0f}, im[2] = {5.0f, 2.0f};
    std::vector<float> aRe(4, 7.0f), aIm(4, 7.0f), bRe(4, 7.0f), bIm(4, 7.0f);
    float* outRe[2] = {aRe.data(), bRe.data()};
    float* outIm[2] = {aIm.data(), bIm.data()};
    EXPECT_EQ(dsp::SplitComplexSpectrumToLR(re, im, 0, outRe, outIm, 2), 1);
    EXPECT_EQ(aRe, (std::vector<float>{3.0f, -1.0f, 7.0f, 7.0f}));
    EXPECT_EQ(bRe, (std::vector<float>{5.0f, 2.0f, 7.0f, 7.0f}));
    EXPECT_EQ(aIm, (std::vector<float>{0.0f, 0.0f, 7.0f, 7.0f}));
    EXPECT_EQ(bIm, (std::vector<float>{0.0f, 0.0f, 7.0f, 7.0f}));
}

}  // namespace
