// The factorisation's matrix products, built once per instruction set (kesta_add_kernels): eight
// floats at a time where the build has AVX, the same lanes in plain arithmetic elsewhere, always in
// the order nmf_kernels.h gives.

#include "dsp/restoration/dnz/nmf_kernels.h"

#if defined(__AVX__)
#include <immintrin.h>
#endif

namespace dsp::dnz::KESTADSP_ISA {

namespace {

float AddLanes(const float* s) {
    return ((s[0] + s[4]) + (s[2] + s[6])) + ((s[1] + s[5]) + (s[3] + s[7]));
}

void Combine(const float* atoms, int stride, int count, const float* h, float* out, int n) {
    for (int i = 0; i < n; i += 8) {
#if defined(__AVX__)
        __m256 sum = _mm256_setzero_ps();
        for (int k = 0; k < count; ++k)
            sum = _mm256_add_ps(sum, _mm256_mul_ps(_mm256_set1_ps(h[k]), _mm256_loadu_ps(atoms + k * stride + i)));
        _mm256_storeu_ps(out + i, sum);
#else
        float sum[8] = {};
        for (int k = 0; k < count; ++k) {
            const float* a = atoms + k * stride + i;
            for (int j = 0; j < 8; ++j)
                sum[j] += h[k] * a[j];
        }
        for (int j = 0; j < 8; ++j)
            out[i + j] = sum[j];
#endif
    }
}

void Ratio(const float* v, const float* model, float floor, float* r, int n) {
    int i = 0;
#if defined(__AVX__)
    const __m256 f = _mm256_set1_ps(floor);
    for (; i + 8 <= n; i += 8)
        _mm256_storeu_ps(r + i, _mm256_div_ps(_mm256_loadu_ps(v + i), _mm256_max_ps(_mm256_loadu_ps(model + i), f)));
#endif
    for (; i < n; ++i)
        r[i] = v[i] / (model[i] > floor ? model[i] : floor);
}

// Four atoms at a time share each load of r and keep four chains of additions apart.
void Project(const float* atoms, int stride, int count, const float* r, float* g, int n) {
    int k = 0;
    for (; k + 4 <= count; k += 4) {
        const float* a = atoms + k * stride;
        alignas(32) float lanes[4][8];
#if defined(__AVX__)
        __m256 s0 = _mm256_setzero_ps(), s1 = s0, s2 = s0, s3 = s0;
        for (int i = 0; i < n; i += 8) {
            const __m256 x = _mm256_loadu_ps(r + i);
            s0 = _mm256_add_ps(s0, _mm256_mul_ps(_mm256_loadu_ps(a + i), x));
            s1 = _mm256_add_ps(s1, _mm256_mul_ps(_mm256_loadu_ps(a + stride + i), x));
            s2 = _mm256_add_ps(s2, _mm256_mul_ps(_mm256_loadu_ps(a + 2 * stride + i), x));
            s3 = _mm256_add_ps(s3, _mm256_mul_ps(_mm256_loadu_ps(a + 3 * stride + i), x));
        }
        _mm256_store_ps(lanes[0], s0);
        _mm256_store_ps(lanes[1], s1);
        _mm256_store_ps(lanes[2], s2);
        _mm256_store_ps(lanes[3], s3);
#else
        for (auto& lane : lanes)
            for (float& s : lane)
                s = 0.0f;
        for (int i = 0; i < n; i += 8)
            for (int m = 0; m < 4; ++m)
                for (int j = 0; j < 8; ++j)
                    lanes[m][j] += a[m * stride + i + j] * r[i + j];
#endif
        for (int m = 0; m < 4; ++m)
            g[k + m] = AddLanes(lanes[m]);
    }
    for (; k < count; ++k) {
        const float* a = atoms + k * stride;
        float lanes[8] = {};
        for (int i = 0; i < n; i += 8)
            for (int j = 0; j < 8; ++j)
                lanes[j] += a[i + j] * r[i + j];
        g[k] = AddLanes(lanes);
    }
}

void Accumulate(float* acc, int stride, int count, const float* h, const float* r, int n) {
    for (int k = 0; k < count; ++k) {
        float* a = acc + k * stride;
        const float w = h[k];
        int i = 0;
#if defined(__AVX__)
        const __m256 w8 = _mm256_set1_ps(w);
        for (; i + 8 <= n; i += 8)
            _mm256_storeu_ps(a + i, _mm256_add_ps(_mm256_loadu_ps(a + i), _mm256_mul_ps(w8, _mm256_loadu_ps(r + i))));
#endif
        for (; i < n; ++i)
            a[i] += w * r[i];
    }
}

void Learn(float* w, float* num, const float* r, float rho, float h, float inverse, float floor, int n) {
    int i = 0;
#if defined(__AVX__)
    const __m256 rho8 = _mm256_set1_ps(rho), h8 = _mm256_set1_ps(h), inverse8 = _mm256_set1_ps(inverse),
                 floor8 = _mm256_set1_ps(floor);
    for (; i + 8 <= n; i += 8) {
        const __m256 x =
            _mm256_add_ps(_mm256_mul_ps(rho8, _mm256_loadu_ps(num + i)),
                          _mm256_mul_ps(_mm256_mul_ps(_mm256_loadu_ps(w + i), _mm256_loadu_ps(r + i)), h8));
        _mm256_storeu_ps(num + i, x);
        // max(floor, y) gives y when y is NaN, as y < floor ? floor : y does.
        _mm256_storeu_ps(w + i, _mm256_max_ps(floor8, _mm256_mul_ps(x, inverse8)));
    }
#endif
    for (; i < n; ++i) {
        num[i] = rho * num[i] + w[i] * r[i] * h;
        const float y = num[i] * inverse;
        w[i] = y < floor ? floor : y;
    }
}

}  // namespace

const NmfKernels& NmfKernelTable() {
    static const NmfKernels table{Combine, Ratio, Project, Accumulate, Learn};
    return table;
}

}  // namespace dsp::dnz::KESTADSP_ISA
