// The sections' lanes in AVX2 registers: four doubles hold two sections of both channels, so a
// chain of seven sections runs in four registers' worth of arithmetic instead of seven.
//
// Two sections in one register must work at the same time, so the chain is skewed: at step i
// section s takes sample i - s, the value section s - 1 finished at step i - 1. A step's groups
// then depend only on the step before and run side by side, each waiting on nothing but its own
// feedback. Every section still sees the same inputs in the same order and evaluates the same
// expressions as filter_section.cpp (each IEEE operation on its own, no fused multiply-add, the
// hand-over rounded to float), so the bits are those of each section over each channel in turn.

#include <immintrin.h>

#include <algorithm>

#include "dsp/filters/section_lanes.h"

namespace dsp::detail::KESTADSP_ISA {

namespace {

using FC = FilterCoefficient;
using Form = LaneSectionData::Form;

// One or two consecutive sections of the same form: the first in lanes 0-1 (left, right), the
// second, when there is one, in lanes 2-3.
struct Group {
    __m256d k[FC::Count];
    __m256d x1, x2, y1, y2;
    __m256d handed;  // the last step's outputs, rounded to float
    Form form;
    bool pair;
    int first;  // the section in lanes 0-1
};

__m256d Join(__m128d low, __m128d high) {
    return _mm256_insertf128_pd(_mm256_castpd128_pd256(low), high, 1);
}

__m256d Mul(__m256d a, __m256d b) {
    return _mm256_mul_pd(a, b);
}
__m256d Add(__m256d a, __m256d b) {
    return _mm256_add_pd(a, b);
}

// One step of the group's recursion on `in`; the state moves only in the lanes of `keep`'s zeros
// (all lanes when `Masked` is false).
template <bool Masked>
__m256d Step(Group& g, __m256d in, __m256d keep) {
    const __m256d* k = g.k;
    auto settle = [&](__m256d& cell, __m256d value) { cell = Masked ? _mm256_blendv_pd(value, cell, keep) : value; };
    switch (g.form) {
        case Form::FirstOrder: {
            const __m256d y = _mm256_sub_pd(Add(Mul(k[FC::b0], in), Mul(k[FC::b1], g.x1)), Mul(k[FC::a1], g.y1));
            settle(g.x1, in);
            settle(g.y1, y);
            return y;
        }
        case Form::StateVariable: {
            const __m256d o1 = g.x1, o2 = g.x2;
            const __m256d y = Add(Add(Mul(k[FC::C1], o1), Mul(k[FC::C2], o2)), Mul(k[FC::D], in));
            settle(g.x1, Add(Add(Mul(k[FC::A11], o1), Mul(k[FC::A12], o2)), Mul(k[FC::B1], in)));
            settle(g.x2, Add(Add(Mul(k[FC::A21], o1), Mul(k[FC::A22], o2)), Mul(k[FC::B2], in)));
            return y;
        }
        case Form::DirectForm:
            break;
    }
    const __m256d y = _mm256_sub_pd(Add(Add(Mul(k[FC::b0], in), Mul(k[FC::b1], g.x1)), Mul(k[FC::b2], g.x2)),
                                    Add(Mul(k[FC::a1], g.y1), Mul(k[FC::a2], g.y2)));
    settle(g.x2, g.x1);
    settle(g.x1, in);
    settle(g.y2, g.y1);
    settle(g.y1, y);
    return y;
}

__m128d LoadLanes(const double (&v)[2]) {
    return _mm_load_pd(v);
}

// Lanes 0-1 from section a, lanes 2-3 from section b (or a again where there is no b).
__m256d Gather(const double (&a)[2], const double (&b)[2]) {
    return Join(LoadLanes(a), LoadLanes(b));
}

// Step i of every group, later groups first so that each takes what the group before it handed
// on at step i - 1. `last` is the chain's last section.
template <bool Masked>
void RunStep(Group* groups, int count, int last, float* x0, float* x1, int n, int i) {
    for (int gi = count - 1; gi >= 0; --gi) {
        Group& g = groups[gi];
        __m128d low;
        if (gi == 0) {
            const bool reads = !Masked || i < n;
            low = reads ? _mm_cvtps_pd(_mm_unpacklo_ps(_mm_load_ss(x0 + i), _mm_load_ss(x1 + i))) : _mm_setzero_pd();
        } else {
            const Group& before = groups[gi - 1];
            low = before.pair ? _mm256_extractf128_pd(before.handed, 1) : _mm256_castpd256_pd128(before.handed);
        }
        const __m256d in = Join(low, _mm256_castpd256_pd128(g.handed));
        __m256d keep = _mm256_setzero_pd();
        if constexpr (Masked) {
            const int j = i - g.first;
            const bool lowActive = j >= 0 && j < n;
            const bool highActive = g.pair && j - 1 >= 0 && j - 1 < n;
            keep = _mm256_castsi256_pd(
                _mm256_set_epi64x(highActive ? 0 : -1, highActive ? 0 : -1, lowActive ? 0 : -1, lowActive ? 0 : -1));
        }
        const __m256d y = Step<Masked>(g, in, keep);
        const __m128 rounded = _mm256_cvtpd_ps(y);
        g.handed = _mm256_cvtps_pd(rounded);
        if (gi == count - 1) {
            const int j = i - last;
            if (!Masked || (j >= 0 && j < n)) {
                const __m128 out = g.pair ? _mm_movehl_ps(rounded, rounded) : rounded;
                _mm_store_ss(x0 + j, out);
                _mm_store_ss(x1 + j, _mm_shuffle_ps(out, out, 1));
            }
        }
    }
}

}  // namespace

void RunSectionLanes(LaneSectionData* sections, int count, float* x0, float* x1, int n) {
    if (count <= 0 || n <= 0) return;
    // Consecutive sections of one form share a register.
    Group groups[kMaxLaneSections];
    int used = 0;
    for (int s = 0; s < count;) {
        const bool pair = s + 1 < count && sections[s + 1].form == sections[s].form;
        const LaneSectionData& a = sections[s];
        const LaneSectionData& b = sections[pair ? s + 1 : s];
        Group& g = groups[used++];
        for (int j = 0; j < FC::Count; ++j)
            g.k[j] = Gather(a.k[j], b.k[j]);
        g.x1 = Gather(a.x1, b.x1);
        g.x2 = Gather(a.x2, b.x2);
        g.y1 = Gather(a.y1, b.y1);
        g.y2 = Gather(a.y2, b.y2);
        g.handed = _mm256_setzero_pd();
        g.form = a.form;
        g.pair = pair;
        g.first = s;
        s += pair ? 2 : 1;
    }
    const int last = count - 1;
    int i = 0;
    for (; i < std::min(last, n + last); ++i)
        RunStep<true>(groups, used, last, x0, x1, n, i);
    for (; i < n; ++i)
        RunStep<false>(groups, used, last, x0, x1, n, i);
    for (; i < n + last; ++i)
        RunStep<true>(groups, used, last, x0, x1, n, i);
    for (int gi = 0; gi < used; ++gi) {
        const Group& g = groups[gi];
        auto put = [&](LaneSectionData& s, int half) {
            auto store = [half](double(&to)[2], __m256d from) {
                _mm_store_pd(to, half == 0 ? _mm256_castpd256_pd128(from) : _mm256_extractf128_pd(from, 1));
            };
            store(s.x1, g.x1);
            store(s.x2, g.x2);
            store(s.y1, g.y1);
            store(s.y2, g.y2);
        };
        put(sections[g.first], 0);
        if (g.pair) put(sections[g.first + 1], 1);
    }
}

}  // namespace dsp::detail::KESTADSP_ISA
