// Engine classes and working-data functions: direction conventions, scaling, set-up and release,
// status codes. Accuracy over every size is the kernel tests' job; a naive DFT is the reference here.

#include <cmath>
#include <complex>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "dsp/fft.h"

namespace {

using cld = std::complex<long double>;

std::vector<cld> NaiveDft(const std::vector<cld>& x, int sign) {
    const std::size_t n = x.size();
    std::vector<cld> out(n);
    const long double step = sign * 2.0L * std::acos(-1.0L) / static_cast<long double>(n);
    for (std::size_t k = 0; k < n; ++k)
        for (std::size_t t = 0; t < n; ++t)
            out[k] += x[t] * std::polar(1.0L, step * static_cast<long double>((k * t) % n));
    return out;
}

template <typename T>
std::vector<T> RandomVector(std::size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> dist(-1.0, 1.0);
    std::vector<T> v(n);
    for (auto& x : v) x = static_cast<T>(dist(rng));
    return v;
}

// im == nullptr: a real sequence.
template <typename T>
std::vector<cld> ToComplex(const std::vector<T>& re, const std::vector<T>* im = nullptr) {
    std::vector<cld> z(re.size());
    for (std::size_t i = 0; i < re.size(); ++i) z[i] = cld(re[i], im != nullptr ? (*im)[i] : T(0));
    return z;
}

template <typename T>
void ExpectSpectrumNear(const std::vector<cld>& expected, const T* re, const T* im, double tol) {
    for (std::size_t k = 0; k < expected.size(); ++k) {
        EXPECT_NEAR(static_cast<double>(re[k]), static_cast<double>(expected[k].real()), tol) << "bin " << k;
        EXPECT_NEAR(static_cast<double>(im[k]), static_cast<double>(expected[k].imag()), tol) << "bin " << k;
    }
}

// CCS: bin k at ccs[2k], ccs[2k + 1], for k = 0 ... N/2, expected scaled by `scale`.
template <typename T>
void ExpectCcsNear(const std::vector<cld>& expected, const T* ccs, double scale, double tol) {
    for (std::size_t k = 0; k <= expected.size() / 2; ++k) {
        EXPECT_NEAR(ccs[2 * k], static_cast<double>(expected[k].real()) * scale, tol) << "bin " << k;
        EXPECT_NEAR(ccs[2 * k + 1], static_cast<double>(expected[k].imag()) * scale, tol) << "bin " << k;
    }
}

// Unscaled both ways, so forward then inverse gives N times the input.
TEST(FFTEngines, DirectionOneIsForwardAndEveryOtherValueInverse) {
    const int n = 16;
    auto re = RandomVector<float>(n, 1), im = RandomVector<float>(n, 2);
    const auto input = ToComplex(re, &im);
    dsp::IppFFT32 fft(n);
    for (int direction : {1, 0, -1, 2}) {
        auto r = re, i = im;
        ASSERT_EQ(fft.FFT(r.data(), i.data(), direction), dsp::kFftOk);
        ExpectSpectrumNear(NaiveDft(input, direction == 1 ? -1 : +1), r.data(), i.data(), 1e-5);
    }

    auto dre = RandomVector<double>(64, 5), dim = RandomVector<double>(64, 6);
    std::vector<double> fr(64), fi(64), br(64), bi(64);
    dsp::IppFFT dfft(64);
    dfft.FFT(dre.data(), dim.data(), fr.data(), fi.data(), 1);
    ExpectSpectrumNear(NaiveDft(ToComplex(dre, &dim), -1), fr.data(), fi.data(), 1e-12);
    dfft.FFT(fr.data(), fi.data(), br.data(), bi.data(), 0);
    for (int k = 0; k < 64; ++k) EXPECT_NEAR(br[k], 64.0 * dre[k], 1e-12);
}

TEST(FFTEngines, RealForwardWritesCcsWithExactZeroImaginaryAtDcAndNyquist) {
    const int n = 32;
    auto x = RandomVector<float>(n, 7);
    std::vector<float> out(n + 4, 123.0f);
    dsp::IppFFT32R fft(n);
    ASSERT_EQ(fft.FFT(x.data(), out.data(), 1), dsp::kFftOk);
    ExpectCcsNear(NaiveDft(ToComplex(x), -1), out.data(), 1.0, 1e-5);
    EXPECT_EQ(out[1], 0.0f);
    EXPECT_EQ(out[n + 1], 0.0f);
    EXPECT_EQ(out[n + 2], 123.0f) << "a forward real transform writes exactly N + 2 values";

    // In place, then inverse: back to N times the input.
    std::vector<float> data(n + 2);
    std::copy(x.begin(), x.end(), data.begin());
    fft.FFT(data.data(), 1);
    fft.FFT(data.data(), -1);
    for (int k = 0; k < n; ++k) EXPECT_NEAR(data[k], n * x[k], 1e-4f);
}

TEST(FFTEngines, NormalisedRealEnginesDivideTheForwardTransformByN) {
    const int n = 256;
    std::vector<float> ones(n, 1.0f), out(n + 2, -1.0f);
    dsp::IppFFT32fReal f(n);
    ASSERT_EQ(f.FFT(ones.data(), out.data()), dsp::kFftOk);
    EXPECT_NEAR(out[0], 1.0f, 1e-7f);
    for (int k = 1; k < n + 2; ++k) EXPECT_NEAR(out[k], 0.0f, 1e-7f) << k;

    auto x = RandomVector<double>(n, 8);
    std::vector<double> spectrum(n + 2);
    dsp::IppFFT64fReal d(n);
    ASSERT_EQ(d.FFT(x.data(), spectrum.data()), dsp::kFftOk);
    ExpectCcsNear(NaiveDft(ToComplex(x), -1), spectrum.data(), 1.0 / n, 1e-15);
}

TEST(FFTEngines, SetUpReleaseAndOrderRules) {
    dsp::IppFFT32 fft(512);
    EXPECT_EQ(fft.GetPlanOrder(), 9);
    fft.Init(1024);
    EXPECT_EQ(fft.GetSize(), 1024);
    EXPECT_EQ(fft.GetPlanOrder(), 10);

    // A size that is not a power of two keeps its value but gets the plan of its lowest set bit.
    dsp::IppFFT32 twelve(12);
    EXPECT_EQ(twelve.GetSize(), 12);
    EXPECT_EQ(twelve.GetPlanOrder(), 2);
    auto re = RandomVector<float>(12, 9), im = RandomVector<float>(12, 10);
    auto r = re, i = im;
    twelve.FFT(r.data(), i.data(), 1);
    const std::vector<float> re4(re.begin(), re.begin() + 4), im4(im.begin(), im.begin() + 4);
    ExpectSpectrumNear(NaiveDft(ToComplex(re4, &im4), -1), r.data(), i.data(), 1e-5);
    for (int k = 4; k < 12; ++k) EXPECT_EQ(r[k], re[k]);

    EXPECT_EQ(dsp::FFTOrderFromSize(0), -1);
    EXPECT_EQ(dsp::FFTOrderFromSize(1), 0);
    EXPECT_EQ(dsp::FFTOrderFromSize(65536), 16);
}

TEST(FFTEngines, StatusWithoutAPlanLeavesDataUntouched) {
    std::vector<float> re(8, 0.25f), im(8, 0.5f);
    const auto before = re;

    dsp::IppFFT32 never;
    EXPECT_FALSE(never.IsInitialized());
    EXPECT_EQ(never.GetSize(), 0);
    EXPECT_EQ(never.FFT(re.data(), im.data(), 1), dsp::kFftNotInitialized);

    dsp::IppFFT32R released(8);
    released.DeInit();
    EXPECT_EQ(released.GetSize(), 0);
    EXPECT_EQ(released.FFT(re.data(), 1), dsp::kFftNotInitialized);

    // Size 0 asks for a plan that cannot exist; the engine still counts as set up.
    dsp::IppFFT32 zero(0);
    EXPECT_TRUE(zero.IsInitialized());
    EXPECT_EQ(zero.FFT(re.data(), im.data(), 1), dsp::kFftNullPlan);
    dsp::IppFFT64fReal zeroReal(0);
    std::vector<double> d(8, 1.0), dOut(10, 2.0);
    EXPECT_EQ(zeroReal.FFT(d.data(), dOut.data()), dsp::kFftNullPlan);
    EXPECT_EQ(dOut, std::vector<double>(10, 2.0));
    EXPECT_EQ(re, before);
}

TEST(FFTEngines, CopiesShareThePlanAndReleaseItOnce) {
    auto re = RandomVector<float>(64, 11), im = RandomVector<float>(64, 12);
    auto r1 = re, i1 = im, r2 = re, i2 = im;
    {
        dsp::IppFFT32 a(64);
        dsp::IppFFT32 b;
        b = a;
        a.FFT(r1.data(), i1.data(), 1);
        a.DeInit();  // b keeps the shared plan alive
        EXPECT_EQ(b.FFT(r2.data(), i2.data(), 1), dsp::kFftOk);
    }
    EXPECT_EQ(r1, r2);
    EXPECT_EQ(i1, i2);
}

TEST(FFTWorkingData, PlanLengthIsTheNextPowerOfTwoFromTwo) {
    EXPECT_EQ(dsp::CreateFFTWorkingDataF(1)->PlanLength(), 2);
    EXPECT_EQ(dsp::CreateFFTWorkingDataF(3)->PlanLength(), 4);
    EXPECT_EQ(dsp::CreateFFTWorkingDataD(1024)->PlanLength(), 1024);
    EXPECT_EQ(dsp::CreateFFTWorkingDataD(1025)->PlanLength(), 2048);
}

TEST(FFTWorkingData, MinusOneIsInverseAndEveryOtherDirectionForward) {
    const int n = 16;
    auto wd = dsp::CreateFFTWorkingDataF(n);
    auto re = RandomVector<float>(n, 13), im = RandomVector<float>(n, 14);
    for (int direction : {1, 0, 5, -1}) {
        auto r = re, i = im;
        dsp::LFFTF(r.data(), i.data(), n, direction, *wd);
        ExpectSpectrumNear(NaiveDft(ToComplex(re, &im), direction == -1 ? +1 : -1), r.data(), i.data(), 1e-5);
    }

    auto wdd = dsp::CreateFFTWorkingDataD(n);
    const auto dre = RandomVector<double>(n, 15), dim = RandomVector<double>(n, 16);
    auto r = dre, i = dim;
    std::vector<double> outRe(n), outIm(n);
    dsp::LFFTSD(r.data(), i.data(), outRe.data(), outIm.data(), n, -1, *wdd);
    ExpectSpectrumNear(NaiveDft(ToComplex(dre, &dim), +1), outRe.data(), outIm.data(), 1e-13);
    dsp::LFFTD(r.data(), i.data(), n, 1, *wdd);
    ExpectSpectrumNear(NaiveDft(ToComplex(dre, &dim), -1), r.data(), i.data(), 1e-13);
}

TEST(FFTWorkingData, WrongPrecisionOrEmptyHandleDoesNothing) {
    std::vector<float> re(8, 1.0f), im(8, 2.0f);
    std::vector<double> dre(8, 1.0), dim(8, 2.0);
    auto wdd = dsp::CreateFFTWorkingDataD(8);
    auto wdf = dsp::CreateFFTWorkingDataF(8);
    dsp::LFFTF(re.data(), im.data(), 8, 1, *wdd);
    dsp::LFFTD(dre.data(), dim.data(), 8, 1, *wdf);
    dsp::FFTWORKINGDATA_F empty;
    dsp::LFFTF(re.data(), im.data(), 8, 1, empty);
    EXPECT_EQ(re, std::vector<float>(8, 1.0f));
    EXPECT_EQ(dre, std::vector<double>(8, 1.0));
}

TEST(FFTWorkingData, TwoRealSequencesThroughOneTransform) {
    const int n = 32;
    auto wd = dsp::CreateFFTWorkingDataF(n);
    auto x = RandomVector<float>(n, 17), y = RandomVector<float>(n, 18);
    std::vector<float> xRe(n), xIm(n), yRe(n), yIm(n);
    dsp::LFFT2CF(x.data(), y.data(), xRe.data(), xIm.data(), yRe.data(), yIm.data(), n, 1, *wd);
    ExpectSpectrumNear(NaiveDft(ToComplex(x), -1), xRe.data(), xIm.data(), 1e-5);
    ExpectSpectrumNear(NaiveDft(ToComplex(y), -1), yRe.data(), yIm.data(), 1e-5);
    EXPECT_EQ(xIm[0], 0.0f);
}

}  // namespace
