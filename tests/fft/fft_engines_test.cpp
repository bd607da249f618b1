// Engine classes, working-data functions and the two-channel packing helpers: direction
// conventions, scaling, set-up and release, status codes. Accuracy over every size is the kernel
// tests' job; a naive DFT in long double is the reference here.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <type_traits>
#include <vector>

#include "dsp/fft.h"
#include "dsp/spectrum_packing.h"
#include "support/signals.h"

namespace {

using cld = std::complex<long double>;

// Seeded uniform noise in [-1, 1), exact in either precision.
template <typename T>
std::vector<T> Noise(std::size_t n, uint64_t seed) {
    const auto x = kesta::test::WhiteNoise(n, seed);
    return std::vector<T>(x.begin(), x.end());
}

template <typename T>
std::vector<cld> ToComplex(const std::vector<T>& re, const std::vector<T>& im = {}) {
    std::vector<cld> z(re.size());
    for (std::size_t i = 0; i < re.size(); ++i)
        z[i] = cld(re[i], im.empty() ? T(0) : im[i]);
    return z;
}

std::vector<cld> NaiveDft(const std::vector<cld>& x, int sign) {
    const std::size_t n = x.size();
    std::vector<cld> out(n);
    const long double step = sign * 2.0L * std::acos(-1.0L) / static_cast<long double>(n);
    for (std::size_t k = 0; k < n; ++k)
        for (std::size_t t = 0; t < n; ++t)
            out[k] += x[t] * std::polar(1.0L, step * static_cast<long double>((k * t) % n));
    return out;
}

// Largest |expected[k] * scale - (re[k * stride] + i im[k * stride])| over bins 0 ... count - 1
// (NaN if any value is NaN).
template <typename T>
double MaxErr(const std::vector<cld>& expected, std::size_t count, const T* re, const T* im, std::size_t stride = 1,
              long double scale = 1.0L) {
    long double worst = 0.0L;
    for (std::size_t k = 0; k < count; ++k) {
        const long double e = std::abs(expected[k] * scale - cld(re[k * stride], im[k * stride]));
        if (!(e <= worst)) worst = e;
    }
    return static_cast<double>(worst);
}

// Engines: 1 is forward and every other value inverse. Working-data functions: -1 is inverse and
// every other value forward. Neither scales, so forward then inverse gives N times the input.
TEST(FFTEngines, DirectionConventions) {
    const int n = 16;
    const auto re = Noise<float>(n, 1), im = Noise<float>(n, 2);
    const auto forward = NaiveDft(ToComplex(re, im), -1), inverse = NaiveDft(ToComplex(re, im), +1);
    dsp::IppFFT32 engine(n);
    auto wd = dsp::CreateFFTWorkingDataF(n);
    for (int direction : {1, 0, -1, 2, -2}) {
        SCOPED_TRACE(direction);
        auto r = re, i = im;
        ASSERT_EQ(engine.FFT(r.data(), i.data(), direction), dsp::kFftOk);
        EXPECT_LE(MaxErr(direction == 1 ? forward : inverse, n, r.data(), i.data()), 1e-5);
        r = re;
        i = im;
        dsp::LFFTF(r.data(), i.data(), n, direction, *wd);
        EXPECT_LE(MaxErr(direction == -1 ? inverse : forward, n, r.data(), i.data()), 1e-5);
    }

    auto dre = Noise<double>(n, 5), dim = Noise<double>(n, 6);
    const auto input = ToComplex(dre, dim), dForward = NaiveDft(input, -1), dInverse = NaiveDft(input, +1);
    std::vector<double> fr(n), fi(n), br(n), bi(n);
    dsp::IppFFT dEngine(n);
    dEngine.FFT(dre.data(), dim.data(), fr.data(), fi.data(), 1);
    EXPECT_LE(MaxErr(dForward, n, fr.data(), fi.data()), 1e-13);
    dEngine.FFT(fr.data(), fi.data(), br.data(), bi.data(), 0);
    EXPECT_LE(MaxErr(input, n, br.data(), bi.data(), 1, n), 1e-13);
    auto wdd = dsp::CreateFFTWorkingDataD(n);
    dsp::LFFTSD(dre.data(), dim.data(), br.data(), bi.data(), n, -1, *wdd);
    EXPECT_LE(MaxErr(dInverse, n, br.data(), bi.data()), 1e-13);
    dsp::LFFTD(dre.data(), dim.data(), n, 1, *wdd);
    EXPECT_LE(MaxErr(dForward, n, dre.data(), dim.data()), 1e-13);
}

TEST(FFTEngines, RealEnginesWriteCcsAndTheNormalisedOnesDivideByN) {
    const int n = 32;
    auto x = Noise<float>(n, 7);
    const auto spectrum = NaiveDft(ToComplex(x), -1);
    std::vector<float> out(n + 4, 123.0f);
    dsp::IppFFT32R fft(n);
    ASSERT_EQ(fft.FFT(x.data(), out.data(), 1), dsp::kFftOk);
    EXPECT_LE(MaxErr(spectrum, n / 2 + 1, out.data(), out.data() + 1, 2), 1e-5);
    EXPECT_EQ(out[1], 0.0f);
    EXPECT_EQ(out[n + 1], 0.0f);
    EXPECT_EQ(out[n + 2], 123.0f) << "a forward real transform writes exactly N + 2 values";

    // In place, then inverse: back to N times the input.
    std::vector<float> data = x;
    data.resize(n + 2);
    fft.FFT(data.data(), 1);
    fft.FFT(data.data(), -1);
    for (int k = 0; k < n; ++k)
        EXPECT_NEAR(data[k], n * x[k], 1e-4f);

    dsp::IppFFT32fReal f(n);
    ASSERT_EQ(f.FFT(x.data(), out.data()), dsp::kFftOk);
    EXPECT_LE(MaxErr(spectrum, n / 2 + 1, out.data(), out.data() + 1, 2, 1.0L / n), 1e-7);
    std::vector<double> xd(x.begin(), x.end()), outD(n + 2);
    dsp::IppFFT64fReal d(n);
    ASSERT_EQ(d.FFT(xd.data(), outD.data()), dsp::kFftOk);
    EXPECT_LE(MaxErr(spectrum, n / 2 + 1, outD.data(), outD.data() + 1, 2, 1.0L / n), 1e-15);
}

TEST(FFTEngines, SizesAndPlanOrders) {
    dsp::IppFFT32 fft(512);
    fft.Init(1024);
    EXPECT_EQ(fft.GetSize(), 1024);
    EXPECT_EQ(fft.GetPlanOrder(), 10);

    // A size that is not a power of two keeps its value but gets the plan of its lowest set bit.
    dsp::IppFFT32 twelve(12);
    EXPECT_EQ(twelve.GetSize(), 12);
    auto re = Noise<float>(12, 9), im = Noise<float>(12, 10);
    auto r = re, i = im;
    twelve.FFT(r.data(), i.data(), 1);
    const std::vector<float> re4(re.begin(), re.begin() + 4), im4(im.begin(), im.begin() + 4);
    EXPECT_LE(MaxErr(NaiveDft(ToComplex(re4, im4), -1), 4, r.data(), i.data()), 1e-5);
    EXPECT_TRUE(std::equal(r.begin() + 4, r.end(), re.begin() + 4));
    EXPECT_EQ(dsp::FFTOrderFromSize(0), -1);
    EXPECT_EQ(dsp::FFTOrderFromSize(1), 0);

    // Working data: the next power of two, at least 2.
    for (auto [size, length] : {std::pair{1, 2}, {3, 4}, {1024, 1024}, {1025, 2048}})
        EXPECT_TRUE(dsp::CreateFFTWorkingDataF(size)->PlanLength() == length &&
                    dsp::CreateFFTWorkingDataD(size)->PlanLength() == length)
            << size;
}

TEST(FFTEngines, NothingRunsWithoutAUsablePlan) {
    std::vector<float> re(8, 0.25f), im(8, 0.5f);
    const auto before = re;
    dsp::IppFFT32 never;
    EXPECT_FALSE(never.IsInitialized());
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
    std::vector<double> d(8, 1.0), dIm(8, 2.0), dOut(10, 2.0);
    EXPECT_EQ(zeroReal.FFT(d.data(), dOut.data()), dsp::kFftNullPlan);
    EXPECT_EQ(dOut, std::vector<double>(10, 2.0));

    // Working data of the wrong precision, or an empty handle.
    auto wdd = dsp::CreateFFTWorkingDataD(8);
    auto wdf = dsp::CreateFFTWorkingDataF(8);
    dsp::FFTWORKINGDATA_F empty;
    dsp::LFFTF(re.data(), im.data(), 8, 1, *wdd);
    dsp::LFFTF(re.data(), im.data(), 8, 1, empty);
    dsp::LFFTD(d.data(), dIm.data(), 8, 1, *wdf);
    EXPECT_EQ(re, before);
    EXPECT_EQ(d, std::vector<double>(8, 1.0));
}

TEST(FFTEngines, CopiesShareThePlanAndReleaseItOnce) {
    auto re = Noise<float>(64, 11), im = Noise<float>(64, 12);
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

TEST(FFTWorkingData, TwoRealSequencesThroughOneTransform) {
    const int n = 32;
    auto wd = dsp::CreateFFTWorkingDataF(n);
    auto x = Noise<float>(n, 17), y = Noise<float>(n, 18);
    std::vector<float> xRe(n), xIm(n), yRe(n), yIm(n);
    dsp::LFFT2CF(x.data(), y.data(), xRe.data(), xIm.data(), yRe.data(), yIm.data(), n, 1, *wd);
    EXPECT_LE(MaxErr(NaiveDft(ToComplex(x), -1), n, xRe.data(), xIm.data()), 1e-5);
    EXPECT_LE(MaxErr(NaiveDft(ToComplex(y), -1), n, yRe.data(), yIm.data()), 1e-5);
    EXPECT_EQ(xIm[0], 0.0f);
}

// Splits the transform of a + ib into channel slots 1 and 2 (all n bins, nothing past them); for
// float, combines them again (bins above n/2 poisoned: they must not be read) and inverts.
template <typename T, typename Engine>
void CheckSplitAndCombine(int n, double tol) {
    SCOPED_TRACE(n);
    auto a = Noise<T>(n, 21), b = Noise<T>(n, 22);
    std::vector<T> re = a, im = b;
    Engine fft(n);
    fft.FFT(re.data(), im.data(), 1);
    const T unwritten = T(-5);
    std::vector<T> aRe(n + 1, unwritten), aIm = aRe, bRe = aRe, bIm = aRe, spare = aRe;
    T* chRe[3] = {spare.data(), aRe.data(), bRe.data()};
    T* chIm[3] = {spare.data(), aIm.data(), bIm.data()};
    EXPECT_EQ(dsp::SplitComplexSpectrumToLR(re.data(), im.data(), 1, chRe, chIm, n), n / 2);
    EXPECT_LE(MaxErr(NaiveDft(ToComplex(a), -1), n, aRe.data(), aIm.data()), tol);
    EXPECT_LE(MaxErr(NaiveDft(ToComplex(b), -1), n, bRe.data(), bIm.data()), tol);
    EXPECT_TRUE(aRe[n] == unwritten && aIm[n] == unwritten && bRe[n] == unwritten && bIm[n] == unwritten);
    EXPECT_TRUE(std::all_of(spare.begin(), spare.end(), [&](T v) { return v == unwritten; }));
    if constexpr (std::is_same_v<T, float>) {
        for (int k = n / 2 + 1; k < n; ++k)
            aRe[k] = aIm[k] = bRe[k] = bIm[k] = 1e30f;
        std::vector<float> zRe(n), zIm(n);
        dsp::CombineLRSpectrumToComplex(1, chRe, chIm, zRe.data(), zIm.data(), n);
        fft.FFT(zRe.data(), zIm.data(), -1);
        EXPECT_LE(MaxErr(ToComplex(a, b), n, zRe.data(), zIm.data(), 1, n), 1e-5 * n);
    }
}

TEST(SpectrumPacking, SplitRecoversEachChannelsSpectrumAndCombineUndoesIt) {
    CheckSplitAndCombine<float, dsp::IppFFT32>(2, 1e-6);
    CheckSplitAndCombine<float, dsp::IppFFT32>(64, 2e-5);
    CheckSplitAndCombine<double, dsp::IppFFT>(128, 1e-12);
}

}  // namespace
