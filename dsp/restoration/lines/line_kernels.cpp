// The line canceller's loops, built once per instruction set (kesta_add_kernels): the eight lanes
// in one AVX register where the build has AVX, the same lanes in plain arithmetic elsewhere.

#include "dsp/restoration/lines/line_kernels.h"

#if defined(__AVX__)
#include <immintrin.h>
#endif

namespace dsp::lines::KESTADSP_ISA {

namespace {

void Heterodyne(const float* x, float* dst, int count, const LinePhasor& phasor, const LineRamp& ramp, float* sumRe,
                float* sumIm) {
#if defined(__AVX__)
    __m256 pr = _mm256_loadu_ps(phasor.re), pi = _mm256_loadu_ps(phasor.im);
    const __m256 sr = _mm256_set1_ps(phasor.stepRe), si = _mm256_set1_ps(phasor.stepIm);
    __m256 accRe = _mm256_setzero_ps(), accIm = accRe;
    if (dst) {
        const __m256 ar = _mm256_set1_ps(ramp.ar), ai = _mm256_set1_ps(ramp.ai);
        const __m256 gr = _mm256_set1_ps(ramp.gr), gi = _mm256_set1_ps(ramp.gi);
        const __m256 eight = _mm256_set1_ps(8.0f);
        __m256 t = _mm256_setr_ps(0.5f, 1.5f, 2.5f, 3.5f, 4.5f, 5.5f, 6.5f, 7.5f);
        for (int n = 0; n < count; n += 8) {
            const __m256 v = _mm256_loadu_ps(x + n);
            accRe = _mm256_add_ps(accRe, _mm256_mul_ps(v, pr));
            accIm = _mm256_sub_ps(accIm, _mm256_mul_ps(v, pi));
            const __m256 lr = _mm256_add_ps(ar, _mm256_mul_ps(gr, t));
            const __m256 li = _mm256_add_ps(ai, _mm256_mul_ps(gi, t));
            const __m256 line = _mm256_sub_ps(_mm256_mul_ps(lr, pr), _mm256_mul_ps(li, pi));
            _mm256_storeu_ps(dst + n, _mm256_sub_ps(_mm256_loadu_ps(dst + n), line));
            const __m256 r = _mm256_sub_ps(_mm256_mul_ps(pr, sr), _mm256_mul_ps(pi, si));
            pi = _mm256_add_ps(_mm256_mul_ps(pr, si), _mm256_mul_ps(pi, sr));
            pr = r;
            t = _mm256_add_ps(t, eight);
        }
    } else {
        for (int n = 0; n < count; n += 8) {
            const __m256 v = _mm256_loadu_ps(x + n);
            accRe = _mm256_add_ps(accRe, _mm256_mul_ps(v, pr));
            accIm = _mm256_sub_ps(accIm, _mm256_mul_ps(v, pi));
            const __m256 r = _mm256_sub_ps(_mm256_mul_ps(pr, sr), _mm256_mul_ps(pi, si));
            pi = _mm256_add_ps(_mm256_mul_ps(pr, si), _mm256_mul_ps(pi, sr));
            pr = r;
        }
    }
    _mm256_storeu_ps(sumRe, accRe);
    _mm256_storeu_ps(sumIm, accIm);
#else
    float pr[8], pi[8], accRe[8] = {}, accIm[8] = {};
    for (int j = 0; j < 8; ++j)
        pr[j] = phasor.re[j], pi[j] = phasor.im[j];
    for (int n = 0; n < count; n += 8)
        for (int j = 0; j < 8; ++j) {
            const float v = x[n + j];
            accRe[j] += v * pr[j];
            accIm[j] -= v * pi[j];
            if (dst) {
                // n + j + 1/2 is exact in float for any hop this is run on.
                const float t = float(n + j) + 0.5f;
                const float lr = ramp.ar + ramp.gr * t, li = ramp.ai + ramp.gi * t;
                dst[n + j] -= lr * pr[j] - li * pi[j];
            }
            const float r = pr[j] * phasor.stepRe - pi[j] * phasor.stepIm;
            pi[j] = pr[j] * phasor.stepIm + pi[j] * phasor.stepRe;
            pr[j] = r;
        }
    for (int j = 0; j < 8; ++j)
        sumRe[j] = accRe[j], sumIm[j] = accIm[j];
#endif
}

}  // namespace

const LineKernels& LineKernelTable() {
    static const LineKernels table{Heterodyne};
    return table;
}

}  // namespace dsp::lines::KESTADSP_ISA
