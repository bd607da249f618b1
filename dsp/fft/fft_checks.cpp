// Smoke self-checks of the FFT on this CPU's kernel: a complex transform against a direct DFT
// evaluated in long double, and two real channels separated from one complex transform.

#include <algorithm>
#include <cmath>
#include <complex>
#include <vector>

#include "dsp/check_measures.h"
#include "dsp/fft.h"
#include "dsp/self_checks.h"
#include "dsp/spectrum_packing.h"

namespace dsp::checks {

namespace {

// A deterministic test signal without a random engine: a sum of incommensurate sines.
double TestSignal(int i, int salt) {
    return 0.5 * std::sin(0.37 * i + salt) + 0.3 * std::cos(1.91 * i * (salt + 1)) + 0.1 * std::sin(0.011 * i * i);
}

double DirectDftError(const std::vector<float>& inRe, const std::vector<float>& inIm, const std::vector<float>& outRe,
                      const std::vector<float>& outIm) {
    const std::size_t n = inRe.size();
    const long double pi = 3.141592653589793238462643383279502884L;
    long double err = 0, ref = 0;
    for (std::size_t k = 0; k < n; ++k) {
        std::complex<long double> sum = 0;
        for (std::size_t t = 0; t < n; ++t) {
            const long double angle = -2.0L * pi * static_cast<long double>((k * t) % n) / static_cast<long double>(n);
            sum += std::complex<long double>(inRe[t], inIm[t]) *
                   std::complex<long double>(std::cos(angle), std::sin(angle));
        }
        err += std::norm(sum - std::complex<long double>(outRe[k], outIm[k]));
        ref += std::norm(sum);
    }
    return static_cast<double>(std::sqrt(err / ref));
}

CheckOutcome ComplexFloatMatchesDirectDft() {
    double worst = 0;
    for (int n : {2, 8, 64, 512}) {
        std::vector<float> re(n), im(n), outRe(n), outIm(n);
        for (int i = 0; i < n; ++i) {
            re[i] = static_cast<float>(TestSignal(i, 1));
            im[i] = static_cast<float>(TestSignal(i, 2));
        }
        IppFFT32 fft(n);
        fft.FFT(re.data(), im.data(), outRe.data(), outIm.data(), 1);
        worst = std::max(worst, DirectDftError(re, im, outRe, outIm) / std::log2(n));
    }
    const double bound = 1e-6;
    return {worst <= bound, Format("relative RMS error / log2 N = %.2e (bound %.0e), N = 2 ... 512", worst, bound)};
}

CheckOutcome SplitSeparatesTwoChannels() {
    const int n = 256;
    std::vector<float> a(n), b(n), re(n), im(n);
    for (int k = 0; k < n; ++k) {
        a[k] = re[k] = static_cast<float>(TestSignal(k, 5));
        b[k] = im[k] = static_cast<float>(TestSignal(k, 6));
    }
    IppFFT32 fft(n);
    fft.FFT(re.data(), im.data(), 1);
    std::vector<float> aRe(n), aIm(n), bRe(n), bIm(n), zeros(n, 0.0f);
    float* outRe[2] = {aRe.data(), bRe.data()};
    float* outIm[2] = {aIm.data(), bIm.data()};
    SplitComplexSpectrumToLR(re.data(), im.data(), 0, outRe, outIm, n);
    const double errA = DirectDftError(a, zeros, aRe, aIm);
    const double errB = DirectDftError(b, zeros, bRe, bIm);
    const double worst = std::max(errA, errB);
    return {worst <= 1e-5, Format("relative RMS error of the separated spectra = %.2e (bound %.0e)", worst, 1e-5)};
}

}  // namespace

void AddFftChecks(CheckSuite& suite) {
    suite.Add("fft", "complex float vs direct DFT", ComplexFloatMatchesDirectDft);
    suite.Add("fft", "two channels in one transform", SplitSeparatesTwoChannels);
}

}  // namespace dsp::checks
