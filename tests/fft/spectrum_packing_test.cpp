// Two real channels through one complex transform: the split must recover each channel's own
// spectrum, and the combine must undo it so one inverse transform returns both channels.

#include <cmath>
#include <complex>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "dsp/fft.h"
#include "dsp/spectrum_packing.h"

namespace {

template <typename T>
std::vector<std::complex<long double>> RealDft(const std::vector<T>& x) {
    const std::size_t n = x.size();
    const long double pi = 3.141592653589793238462643383279502884L;
    std::vector<std::complex<long double>> out(n);
    for (std::size_t k = 0; k < n; ++k)
        for (std::size_t t = 0; t < n; ++t) {
            const long double angle = -2.0L * pi * static_cast<long double>((k * t) % n) / static_cast<long double>(n);
            out[k] += static_cast<long double>(x[t]) * std::complex<long double>(std::cos(angle), std::sin(angle));
        }
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

template <typename T, typename Engine>
void CheckSplitRecoversBothSpectra(int n, double tol) {
    auto a = Noise<T>(n, 21), b = Noise<T>(n, 22);
    std::vector<T> re = a, im = b;
    Engine fft(n);
    fft.FFT(re.data(), im.data(), 1);
    std::vector<T> aRe(n), aIm(n), bRe(n), bIm(n), spare(n);
    T* outRe[3] = {spare.data(), aRe.data(), bRe.data()};
    T* outIm[3] = {spare.data(), aIm.data(), bIm.data()};
    EXPECT_EQ(dsp::SplitComplexSpectrumToLR(re.data(), im.data(), 1, outRe, outIm, n), n / 2);
    const auto expectA = RealDft(a), expectB = RealDft(b);
    for (int k = 0; k < n; ++k) {
        EXPECT_NEAR(aRe[k], static_cast<double>(expectA[k].real()), tol) << k;
        EXPECT_NEAR(aIm[k], static_cast<double>(expectA[k].imag()), tol) << k;
        EXPECT_NEAR(bRe[k], static_cast<double>(expectB[k].real()), tol) << k;
        EXPECT_NEAR(bIm[k], static_cast<double>(expectB[k].imag()), tol) << k;
    }
}

TEST(SpectrumPacking, SplitRecoversEachChannelsSpectrum) {
    CheckSplitRecoversBothSpectra<float, dsp::IppFFT32>(64, 2e-5);
    CheckSplitRecoversBothSpectra<double, dsp::IppFFT>(128, 1e-12);
}

TEST(SpectrumPacking, SilentSecondChannelGivesExactZeros) {
    // The spectrum of a real signal, exactly conjugate-symmetric: the silent channel's share of it
    // must cancel to exact zeros, and the first channel must come back as it went in.
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
    for (int k = 0; k < n; ++k) {
        EXPECT_EQ(bRe[k], 0.0f) << k;
        EXPECT_EQ(bIm[k], 0.0f) << k;
        EXPECT_EQ(aRe[k], re[k]) << k;
        EXPECT_EQ(aIm[k], im[k]) << k;
    }
}

TEST(SpectrumPacking, CombineThenInverseReturnsBothChannels) {
    const int n = 256;
    auto a = Noise<float>(n, 24), b = Noise<float>(n, 25);
    std::vector<float> re = a, im = b;
    dsp::IppFFT32 fft(n);
    fft.FFT(re.data(), im.data(), 1);
    std::vector<float> aRe(n), aIm(n), bRe(n), bIm(n);
    float* chRe[2] = {aRe.data(), bRe.data()};
    float* chIm[2] = {aIm.data(), bIm.data()};
    dsp::SplitComplexSpectrumToLR(re.data(), im.data(), 0, chRe, chIm, n);
    // Bins above n/2 must not be read by the combine.
    for (int k = n / 2 + 1; k < n; ++k) aRe[k] = aIm[k] = bRe[k] = bIm[k] = 1e30f;
    std::vector<float> zRe(n), zIm(n);
    dsp::CombineLRSpectrumToComplex(0, chRe, chIm, zRe.data(), zIm.data(), n);
    fft.FFT(zRe.data(), zIm.data(), -1);
    for (int k = 0; k < n; ++k) {
        EXPECT_NEAR(zRe[k] / n, a[k], 1e-5f) << k;
        EXPECT_NEAR(zIm[k] / n, b[k], 1e-5f) << k;
    }
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
