#include "dsp/fft_window.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <memory>
#include <new>

// Layout of a window.
//
// The buffer holds L samples (L = length, or 2 x length with 0x200/0x400). The non-zero part is
// W = 2h samples long, h = (int)(L * fraction * 0.5), and starts at s = (L - W) / 2. Within it,
// sample j (0 <= j < W) takes the value of the rising half at i = j for j <= h and at i = W - j
// past the peak, so the peak (j = h) is stored once and the value k after it equals the value k
// before it. This is the periodic form an FFT frame wants: every shape starts at its edge value on
// the first sample of the non-zero part (no shape is shifted by one), and the mirror of that first
// sample would land on s + W, which is outside the window and stays 0.
//
// With 0x200 or 0x400 the window is laid out as above over 2 x length samples and the two halves
// of that buffer are then swapped (out[p] = laid[(p + length) mod 2 x length]): the peak lands on
// sample 0 and, when the window fills the buffer, it is even about that sample circularly (a
// zero-phase window for FFT filtering). Both bits do the same.
//
// Without 0x100 only the rising half is written (j <= h); without any of 0x100/0x200/0x400 only
// the first sample of the non-zero part. A shape code above 8 leaves the window at zero.

namespace dsp {

namespace {

// The shapes are defined with this value of pi in double; stored prints depend on it.
constexpr double kPi = 3.141592653589793;

// 1 + sum_{k=1..19} ((x/2)^k / k!)^2. The series stops after k = 19 on purpose: for the large
// betas of the 140/180 dB windows the tail is not negligible, and the window values include it.
double BesselI0Series(double x) {
    const double half = x * 0.5;
    double term = 1.0;
    double sum = 1.0;
    for (int k = 1; k < 20; ++k) {
        term *= half / k;
        sum += term * term;
    }
    return sum;
}

double KaiserBeta(double attenuation) {
    if (attenuation >= 50.0) return 0.1102 * (attenuation - 8.7);
    if (attenuation > 21.0) {
        const double a = attenuation - 21.0;
        return 0.5842 * std::pow(a, 0.4) + 0.07886 * a;
    }
    return 0.0;
}

// Fills rise[0 .. count-1] with the shape's rising half, i = 0 ... count-1 (count <= h + 1).
void ComputeRisingHalf(double* rise, int count, unsigned int shape, int h, double g, double attenuation) {
    const int W = 2 * h;
    const double N = h;
    switch (shape) {
        case kWindowTriangular:
            for (int i = 0; i < count; ++i)
                rise[i] = g * (1.0 - std::fabs(1.0 - 2.0 * i / W));
            break;
        case kWindowHann:
            for (int i = 0; i < count; ++i)
                rise[i] = g * 0.5 * (1.0 - std::cos(i * kPi / N));
            break;
        case kWindowHamming:
            // The cosine runs over N - 1, not N: the peak value 1 is reached at i = N - 1 and
            // i = N is a hair below it. Keep it; the window values are part of stored results.
            // (A two-sample window, N = 1, divides by zero and comes out NaN; not guarded.)
            for (int i = 0; i < count; ++i)
                rise[i] = g * (0.54 - 0.46 * std::cos(i * kPi / (N - 1.0)));
            break;
        case kWindowBlackman:
            // The edge is not exactly 0 in double (0.42 - 0.5 + 0.08 leaves about -1.4e-17).
            for (int i = 0; i < count; ++i) {
                rise[i] = g * (0.42 - 0.5 * std::cos(i * kPi / N) + 0.08 * std::cos(2.0 * i * kPi / N));
            }
            break;
        case kWindowWelch: {
            // The parabola is centred on (W - 2) / 2 = N - 1, one sample before the peak position;
            // mirrored about N this leaves a slight dip on the peak sample.
            const double centre = (W - 2) / 2.0;
            const double half = W / 2.0;
            for (int i = 0; i < count; ++i) {
                const double u = (i - centre) / half;
                rise[i] = g * (1.0 - u * u);
            }
            break;
        }
        case kWindowBlackmanHarris:
            for (int i = 0; i < count; ++i) {
                const double x = i * kPi / N;
                rise[i] =
                    g * (0.35875 - 0.48829 * std::cos(x) + 0.14128 * std::cos(2.0 * x) - 0.01168 * std::cos(3.0 * x));
            }
            break;
        case kWindowKaiser140:
        case kWindowKaiser180:
        case kWindowKaiser: {
            const double A = shape == kWindowKaiser140   ? static_cast<double>(140)
                             : shape == kWindowKaiser180 ? static_cast<double>(180)
                                                         : attenuation;
            const double beta = KaiserBeta(A);
            const double norm = BesselI0Series(beta);
            for (int i = 0; i < count; ++i) {
                const double t = (N - i) / N;  // distance from the centre over the half length
                rise[i] = g * BesselI0Series(beta * std::sqrt(1.0 - t * t)) / norm;
            }
            break;
        }
        default:
            break;  // unknown shape: the (zeroed) window stays 0
    }
}

template <typename T>
void StoreOrMultiply(T* out, int total, unsigned int flags, int length, int start, int h, const double* rise,
                     int riseCount) {
    const bool swapHalves = (flags & (kWindowDoubleLength | kWindowDoubleLengthAlt)) != 0;
    const bool mirror = (flags & kWindowMirror) != 0;
    const bool multiply = (flags & kWindowMultiply) != 0;
    const long long W = 2LL * h;
    for (int p = 0; p < total; ++p) {
        const long long q = swapHalves ? (static_cast<long long>(p) + length) % total : p;
        const long long j = q - start;
        double w = 0.0;
        if (j >= 0 && j < W) {
            if (j < riseCount) {
                w = rise[j];
            } else if (mirror && j > h) {
                w = rise[W - j];
            }
        }
        if (multiply) {
            out[p] = static_cast<T>(static_cast<double>(out[p]) * w);
        } else {
            out[p] = static_cast<T>(w);
        }
    }
    if ((flags & kWindowReciprocal) != 0) {
        // After the store or the multiply; zero elements (a window edge of exactly 0, or a zero
        // input under 0x4000) stay 0, so analysis x synthesis is 1 wherever the analysis is not 0.
        for (int p = 0; p < total; ++p) {
            if (out[p] != T(0)) out[p] = T(1) / out[p];
        }
    }
}

}  // namespace

bool GetFFTWindow(void* out, int length, double fraction, unsigned int flags, double attenuation) {
    // The gain is rounded to float on purpose, then used in double arithmetic.
    const double g = static_cast<float>(1.0 / fraction);

    const bool doubled = (flags & (kWindowDoubleLength | kWindowDoubleLengthAlt)) != 0;
    const int L = doubled ? 2 * length : length;
    const int h = static_cast<int>(L * fraction * 0.5);
    const int W = 2 * h;
    const int start = (L - W) / 2;

    // The temporary holds the rising half (h + 1 values). It is length + 2 doubles, grown only when
    // an out-of-contract fraction above 1 makes the half longer than that.
    const long long tempCount =
        std::max<long long>({static_cast<long long>(length), static_cast<long long>(h), 0LL}) + 2;
    std::unique_ptr<double[]> rise(new (std::nothrow) double[static_cast<std::size_t>(tempCount)]());
    if (!rise) return false;

    int riseCount = 0;
    if (h > 0) {
        const bool anyLayout = (flags & (kWindowMirror | kWindowDoubleLength | kWindowDoubleLengthAlt)) != 0;
        riseCount = anyLayout ? h + 1 : 1;
    }
    ComputeRisingHalf(rise.get(), riseCount, flags & 0xFFu, h, g, attenuation);

    if (L <= 0) return true;
    if ((flags & kWindowFloatOutput) != 0) {
        StoreOrMultiply(static_cast<float*>(out), L, flags, length, start, h, rise.get(), riseCount);
    } else {
        StoreOrMultiply(static_cast<double*>(out), L, flags, length, start, h, rise.get(), riseCount);
    }
    return true;
}

void FrequencyAnalysisWorker::GetFlagsAndOffsetFromWindowType(int type, unsigned int& flags, double& offset) {
    // Level offsets of the shapes, kept by the frequency analysis worker with its window.
    static constexpr double kOffsets[8] = {
        2.8272381991077715,  // triangular
        2.830710787814143,   // Hann
        2.6211142407565706,  // Hamming
        3.3711967532375824,  // Blackman
        2.121611447316372,   // Welch
        3.9458130062104555,  // Blackman-Harris
        4.275628861515862,   // Kaiser 140 dB
        4.841723675840993,   // Kaiser 180 dB
    };
    constexpr unsigned int kAnalysisFlags = kWindowAnalysisMark | kWindowMirror;
    // Types 8 and above (and, read as unsigned, negative ones) fall back to the triangular entry
    // without a shape code, which is shape 0 again.
    const auto index = static_cast<unsigned int>(type);
    if (index < 8) {
        flags = kAnalysisFlags | index;
        offset = kOffsets[index];
    } else {
        flags = kAnalysisFlags;
        offset = kOffsets[0];
    }
}

}  // namespace dsp
