// Resampler dot products, built once per instruction set (kesta_add_kernels). Lane l of the 16
// accumulates taps l, l + 16, l + 32, ...; the lanes are then added in double as
// s[l] = (a[l] + a[l + 4]) + (a[l + 8] + a[l + 12]) and (s[0] + s[2]) + (s[1] + s[3]), which is
// the order the AVX2 build's 4-wide accumulators give naturally. Windows that share a row are
// taken a few at a time, each with its own lanes, so the row is loaded once for all of them.

#include "dsp/time/resample_kernels.h"

#if defined(__AVX2__)
#include <immintrin.h>
#endif

namespace dsp::detail::KESTADSP_ISA {

namespace {

#if defined(__AVX2__)
// Windows per pass: as many as the 16 vector registers hold accumulators for.
constexpr int kDoubleGroup = 3;
constexpr int kSingleGroup = 4;

double Reduce(__m256d a0, __m256d a1, __m256d a2, __m256d a3) {
    const __m256d s = _mm256_add_pd(_mm256_add_pd(a0, a1), _mm256_add_pd(a2, a3));
    const __m128d t = _mm_add_pd(_mm256_castpd256_pd128(s), _mm256_extractf128_pd(s, 1));
    return _mm_cvtsd_f64(_mm_add_sd(t, _mm_unpackhi_pd(t, t)));
}

__m256d Widen(const float* x) {
    return _mm256_cvtps_pd(_mm_loadu_ps(x));
}

// y[g] = dot(taps, x + g * xStep) for g < G.
template <int G>
void DotGroup(const double* taps, const float* x, std::ptrdiff_t xStep, int count, double* y) {
    __m256d acc[G][4];
    for (int g = 0; g < G; ++g)
        for (int q = 0; q < 4; ++q)
            acc[g][q] = _mm256_setzero_pd();
    int j = 0;
    for (; j + 16 <= count; j += 16)
        for (int q = 0; q < 4; ++q) {
            const __m256d t = _mm256_load_pd(taps + j + 4 * q);
            for (int g = 0; g < G; ++g)
                acc[g][q] = _mm256_add_pd(acc[g][q], _mm256_mul_pd(t, Widen(x + g * xStep + j + 4 * q)));
        }
    if (j < count)
        for (int q = 0; q < 2; ++q) {
            const __m256d t = _mm256_load_pd(taps + j + 4 * q);
            for (int g = 0; g < G; ++g)
                acc[g][q] = _mm256_add_pd(acc[g][q], _mm256_mul_pd(t, Widen(x + g * xStep + j + 4 * q)));
        }
    for (int g = 0; g < G; ++g)
        y[g] = Reduce(acc[g][0], acc[g][1], acc[g][2], acc[g][3]);
}

double ReduceSingle(__m256 a, __m256 b) {
    return Reduce(_mm256_cvtps_pd(_mm256_castps256_ps128(a)), _mm256_cvtps_pd(_mm256_extractf128_ps(a, 1)),
                  _mm256_cvtps_pd(_mm256_castps256_ps128(b)), _mm256_cvtps_pd(_mm256_extractf128_ps(b, 1)));
}

template <int G>
void DotGroup(const float* taps, const float* x, std::ptrdiff_t xStep, int count, double* y) {
    __m256 acc[G][2];
    for (int g = 0; g < G; ++g)
        acc[g][0] = acc[g][1] = _mm256_setzero_ps();
    int j = 0;
    for (; j + 16 <= count; j += 16) {
        const __m256 t0 = _mm256_loadu_ps(taps + j), t1 = _mm256_loadu_ps(taps + j + 8);
        for (int g = 0; g < G; ++g) {
            acc[g][0] = _mm256_add_ps(acc[g][0], _mm256_mul_ps(t0, _mm256_loadu_ps(x + g * xStep + j)));
            acc[g][1] = _mm256_add_ps(acc[g][1], _mm256_mul_ps(t1, _mm256_loadu_ps(x + g * xStep + j + 8)));
        }
    }
    if (j < count) {
        const __m256 t0 = _mm256_loadu_ps(taps + j);
        for (int g = 0; g < G; ++g)
            acc[g][0] = _mm256_add_ps(acc[g][0], _mm256_mul_ps(t0, _mm256_loadu_ps(x + g * xStep + j)));
    }
    for (int g = 0; g < G; ++g)
        y[g] = ReduceSingle(acc[g][0], acc[g][1]);
}
#else
constexpr int kDoubleGroup = 1;
constexpr int kSingleGroup = 1;

double Reduce(const double* a) {
    double s[4];
    for (int l = 0; l < 4; ++l)
        s[l] = (a[l] + a[l + 4]) + (a[l + 8] + a[l + 12]);
    return (s[0] + s[2]) + (s[1] + s[3]);
}

template <int G>
void DotGroup(const double* taps, const float* x, std::ptrdiff_t, int count, double* y) {
    static_assert(G == 1);
    double a[16] = {};
    int j = 0;
    for (; j + 16 <= count; j += 16)
        for (int l = 0; l < 16; ++l)
            a[l] += taps[j + l] * static_cast<double>(x[j + l]);
    if (j < count)
        for (int l = 0; l < 8; ++l)
            a[l] += taps[j + l] * static_cast<double>(x[j + l]);
    *y = Reduce(a);
}

template <int G>
void DotGroup(const float* taps, const float* x, std::ptrdiff_t, int count, double* y) {
    static_assert(G == 1);
    float a[16] = {};
    int j = 0;
    for (; j + 16 <= count; j += 16)
        for (int l = 0; l < 16; ++l)
            a[l] += taps[j + l] * x[j + l];
    if (j < count)
        for (int l = 0; l < 8; ++l)
            a[l] += taps[j + l] * x[j + l];
    double wide[16];
    for (int l = 0; l < 16; ++l)
        wide[l] = a[l];
    *y = Reduce(wide);
}
#endif

double Dot(const double* taps, const float* x, int count) {
    double y;
    DotGroup<1>(taps, x, 0, count, &y);
    return y;
}

// out[g * outStep] = (float)dot(taps, x + g * xStep) for g < G.
template <int G, typename Tap>
void EmitGroup(const Tap* taps, const float* x, std::ptrdiff_t xStep, int count, float* out, std::ptrdiff_t outStep) {
    double y[G];
    DotGroup<G>(taps, x, xStep, count, y);
    for (int g = 0; g < G; ++g)
        out[g * outStep] = static_cast<float>(y[g]);
}

template <int Group, typename Tap>
void DotWindows(const Tap* taps, const float* x, std::ptrdiff_t xStep, int windows, int count, float* out,
                std::ptrdiff_t outStep) {
    int i = 0;
    for (; i + Group <= windows; i += Group)
        EmitGroup<Group>(taps, x + i * xStep, xStep, count, out + i * outStep, outStep);
    // The few left over still share the row's loads.
    if constexpr (Group > 3)
        if (windows - i == 3) {
            EmitGroup<3>(taps, x + i * xStep, xStep, count, out + i * outStep, outStep);
            return;
        }
    if constexpr (Group > 2)
        if (windows - i >= 2) {
            EmitGroup<2>(taps, x + i * xStep, xStep, count, out + i * outStep, outStep);
            i += 2;
        }
    for (; i < windows; ++i)
        EmitGroup<1>(taps, x + i * xStep, xStep, count, out + i * outStep, outStep);
}

}  // namespace

const ResampleKernels& ResampleKernelTable() {
    static constexpr ResampleKernels table{&Dot, &DotWindows<kDoubleGroup, double>, &DotWindows<kSingleGroup, float>};
    return table;
}

}  // namespace dsp::detail::KESTADSP_ISA
