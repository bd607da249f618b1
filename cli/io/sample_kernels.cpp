// Sample-format conversions, built once per instruction set. The plain loops serve every channel
// count; the AVX2 build adds vector loops for mono and stereo files, eight frames at a time. Both
// give the same bits: integer scaling by powers of two is exact, conversion rounds to nearest (ties
// to even) in both, and limits are plain compares.

#include "io/sample_kernels.h"

#include <cmath>
#include <cstring>
#include <type_traits>

#if defined(__AVX2__)
#include <immintrin.h>
#endif

namespace kesta::KESTADSP_ISA {

namespace {

constexpr float kInt16Scale = 1.0f / 32768.0f;  // all exact: powers of two
constexpr float kInt24Scale = 1.0f / 8388608.0f;
constexpr float kInt32Scale = 1.0f / 2147483648.0f;
constexpr double kRoundShift = 6755399441055744.0;  // 1.5 * 2^52: a sum with it keeps no fraction bits

// Within ±1, a -0 staying -0 (a NaN becomes -1).
float Limit(float x) {
    return x > 1.0f ? 1.0f : (x >= -1.0f ? x : -1.0f);
}

int32_t ReadInt24(const uint8_t* p) {
    return int32_t(uint32_t(p[0]) << 8 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 24) >> 8;
}

template <SampleLayout L>
float DecodeOne(const void* in, std::size_t index) {
    if constexpr (L == SampleLayout::Int16) {
        return float(static_cast<const int16_t*>(in)[index]) * kInt16Scale;
    } else if constexpr (L == SampleLayout::Int24) {
        return float(ReadInt24(static_cast<const uint8_t*>(in) + 3 * index)) * kInt24Scale;
    } else if constexpr (L == SampleLayout::Int32) {
        return float(static_cast<const int32_t*>(in)[index]) * kInt32Scale;
    } else {
        return static_cast<const float*>(in)[index];
    }
}

template <SampleLayout L>
void DecodeFrames(const void* in, float* const* out, int channels, std::size_t begin, std::size_t end) {
    for (int c = 0; c < channels; ++c) {
        float* o = out[c];
        for (std::size_t i = begin; i < end; ++i)
            o[i] = DecodeOne<L>(in, i * std::size_t(channels) + std::size_t(c));
    }
}

// The depth's settings for one encoding call.
struct Depth {
    float scale;  // 2^(bits - 1)
    int32_t top;  // 2^(bits - 1) - 1
    int shift;    // left-justification into 32 bits (Int32 layout only)
};

Depth DepthOf(SampleLayout layout, int bits) {
    const int64_t half = int64_t(1) << (bits - 1);
    return {float(half), int32_t(half - 1), layout == SampleLayout::Int32 ? 32 - bits : 0};
}

template <SampleLayout L>
void StoreOne(void* out, std::size_t index, float x, float limited, const Depth& depth) {
    if constexpr (L == SampleLayout::Float) {
        static_cast<float*>(out)[index] = x;
    } else {
        // `limited` is within ±1, so v is within ±2^(bits - 1) and exact; rounding may reach the top of
        // the depth plus one (from +1 or from just below it), which saturates.
        const float v = limited * depth.scale;
        const int64_t rounded = int64_t((double(v) + kRoundShift) - kRoundShift);
        const int32_t q = int32_t(rounded > depth.top ? depth.top : rounded);
        if constexpr (L == SampleLayout::Int16) {
            static_cast<int16_t*>(out)[index] = int16_t(q);
        } else if constexpr (L == SampleLayout::Int24) {
            uint8_t* p = static_cast<uint8_t*>(out) + 3 * index;
            p[0] = uint8_t(q);
            p[1] = uint8_t(q >> 8);
            p[2] = uint8_t(q >> 16);
        } else {
            static_cast<int32_t*>(out)[index] = int32_t(uint32_t(q) << depth.shift);
        }
    }
}

struct Counts {
    float peak;
    uint64_t beyond = 0;
    bool nonFinite = false;
};

template <SampleLayout L>
void EncodeFrames(const float* const* in, void* out, int channels, std::size_t begin, std::size_t end,
                  const Depth& depth, Counts& counts) {
    for (int c = 0; c < channels; ++c) {
        const float* x = in[c];
        for (std::size_t i = begin; i < end; ++i) {
            const float v = x[i];
            const float magnitude = std::fabs(v);
            counts.nonFinite |= !(magnitude <= 3.4028234663852886e38f);
            counts.beyond += magnitude > 1.0f;
            counts.peak = magnitude > counts.peak ? magnitude : counts.peak;
            const float limited = Limit(v);
            StoreOne<L>(out, i * std::size_t(channels) + std::size_t(c), v, limited, depth);
        }
    }
}

#if defined(__AVX2__)

// Eight consecutive samples of an interleaved run as floats (integers scaled to ±1).
template <SampleLayout L>
__m256 LoadEight(const void* in, std::size_t index) {
    if constexpr (L == SampleLayout::Int16) {
        const __m128i raw = _mm_loadu_si128(reinterpret_cast<const __m128i*>(static_cast<const int16_t*>(in) + index));
        return _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_cvtepi16_epi32(raw)), _mm256_set1_ps(kInt16Scale));
    } else if constexpr (L == SampleLayout::Int24) {
        // Reads 4 bytes beyond the eighth sample.
        const uint8_t* p = static_cast<const uint8_t*>(in) + 3 * index;
        const __m256i raw =
            _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(p + 12), reinterpret_cast<const __m128i*>(p));
        const __m256i spread =
            _mm256_shuffle_epi8(raw, _mm256_setr_epi8(-1, 0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1, 0, 1, 2,
                                                      -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11));
        return _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_srai_epi32(spread, 8)), _mm256_set1_ps(kInt24Scale));
    } else if constexpr (L == SampleLayout::Int32) {
        const __m256i raw =
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(static_cast<const int32_t*>(in) + index));
        return _mm256_mul_ps(_mm256_cvtepi32_ps(raw), _mm256_set1_ps(kInt32Scale));
    } else {
        return _mm256_loadu_ps(static_cast<const float*>(in) + index);
    }
}

template <SampleLayout L>
void Decode(const void* in, float* const* out, int channels, std::size_t frames) {
    std::size_t i = 0;
    // Int24 loads read 4 bytes past their eighth sample: leave the final frames to the plain loop.
    const std::size_t vectorFrames = L == SampleLayout::Int24 ? (frames > 2 ? frames - 2 : 0) : frames;
    if (channels == 1) {
        for (; i + 8 <= vectorFrames; i += 8)
            _mm256_storeu_ps(out[0] + i, LoadEight<L>(in, i));
    } else if (channels == 2) {
        for (; i + 8 <= vectorFrames; i += 8) {
            const __m256 a = LoadEight<L>(in, 2 * i);      // L0 R0 L1 R1 | L2 R2 L3 R3
            const __m256 b = LoadEight<L>(in, 2 * i + 8);  // L4 R4 L5 R5 | L6 R6 L7 R7
            // Per lane: L0 L1 L4 L5 | L2 L3 L6 L7, then the middle 64-bit pairs swapped.
            const __m256 left = _mm256_shuffle_ps(a, b, 0x88), right = _mm256_shuffle_ps(a, b, 0xDD);
            _mm256_storeu_ps(out[0] + i, _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(left), 0xD8)));
            _mm256_storeu_ps(out[1] + i, _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(right), 0xD8)));
        }
    }
    DecodeFrames<L>(in, out, channels, i, frames);
}

// Eight samples limited to ±1 and quantised to the depth, as integers.
__m256i Quantise(__m256 limited, const Depth& depth) {
    const __m256 scale = _mm256_set1_ps(depth.scale);
    const __m256 v = _mm256_mul_ps(limited, scale);
    // The default rounding: to nearest, ties to even. Just below +1 it may reach the top plus one; +1
    // itself overflows the conversion at 32 bits (2^31 is no int32).
    const __m256i q = _mm256_min_epi32(_mm256_cvtps_epi32(v), _mm256_set1_epi32(depth.top));
    return _mm256_blendv_epi8(q, _mm256_set1_epi32(depth.top),
                              _mm256_castps_si256(_mm256_cmp_ps(v, scale, _CMP_GE_OQ)));
}

// Tallies eight samples and returns them limited to ±1 (a -0 stays -0; min and max keep their first
// operand unless the second is smaller or larger).
__m256 TallyEight(__m256 x, __m256& peak, __m256& nonFinite, uint64_t& beyond) {
    const __m256 magnitude = _mm256_andnot_ps(_mm256_set1_ps(-0.0f), x);
    nonFinite = _mm256_or_ps(nonFinite, _mm256_cmp_ps(magnitude, _mm256_set1_ps(3.4028234663852886e38f), _CMP_NLE_UQ));
    beyond += uint64_t(
        __builtin_popcount(unsigned(_mm256_movemask_ps(_mm256_cmp_ps(magnitude, _mm256_set1_ps(1.0f), _CMP_GT_OQ)))));
    peak = _mm256_max_ps(magnitude, peak);
    return _mm256_max_ps(_mm256_min_ps(x, _mm256_set1_ps(1.0f)), _mm256_set1_ps(-1.0f));
}

// Stores 8 interleaved integer samples (`a`) or 16 (`a` then `b`) in the layout.
template <SampleLayout L>
void StoreInts(void* out, std::size_t index, __m256i a, __m256i b, bool two, const Depth& depth) {
    if constexpr (L == SampleLayout::Int16) {
        int16_t* o = static_cast<int16_t*>(out) + index;
        if (two) {
            // a, b as unpacked (L0 R0 L1 R1 | L4 R4 L5 R5 and L2 R2 L3 R3 | L6 R6 L7 R7): packing per lane
            // puts them in order.
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(o), _mm256_packs_epi32(a, b));
        } else {
            const __m256i packed = _mm256_permute4x64_epi64(_mm256_packs_epi32(a, a), 0x08);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(o), _mm256_castsi256_si128(packed));
        }
    } else {
        if (two) {
            const __m256i first = _mm256_permute2x128_si256(a, b, 0x20), second = _mm256_permute2x128_si256(a, b, 0x31);
            a = first;
            b = second;
        }
        if constexpr (L == SampleLayout::Int24) {
            // 12 bytes of every lane, each store 4 bytes long: the next store or the scalar tail
            // writes over them, and the caller leaves room after the last.
            const __m256i pick = _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1, 0, 1, 2, 4, 5,
                                                  6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
            uint8_t* o = static_cast<uint8_t*>(out) + 3 * index;
            const __m256i pa = _mm256_shuffle_epi8(a, pick);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(o), _mm256_castsi256_si128(pa));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(o + 12), _mm256_extracti128_si256(pa, 1));
            if (two) {
                const __m256i pb = _mm256_shuffle_epi8(b, pick);
                _mm_storeu_si128(reinterpret_cast<__m128i*>(o + 24), _mm256_castsi256_si128(pb));
                _mm_storeu_si128(reinterpret_cast<__m128i*>(o + 36), _mm256_extracti128_si256(pb, 1));
            }
        } else {
            const __m128i count = _mm_cvtsi32_si128(depth.shift);
            int32_t* o = static_cast<int32_t*>(out) + index;
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(o), _mm256_sll_epi32(a, count));
            if (two) _mm256_storeu_si256(reinterpret_cast<__m256i*>(o + 8), _mm256_sll_epi32(b, count));
        }
    }
}

template <SampleLayout L>
void Encode(const float* const* in, void* out, int channels, std::size_t frames, int bits, EncodeTally& tally) {
    const Depth depth = DepthOf(L, L == SampleLayout::Float ? 1 : bits);
    __m256 peak = _mm256_set1_ps(float(tally.peak)), nonFinite = _mm256_setzero_ps();
    uint64_t beyond = 0;
    std::size_t i = 0;
    // Int24 stores reach 4 bytes past their last sample: leave the final frames to the plain loop.
    const std::size_t vectorFrames = L == SampleLayout::Int24 ? (frames > 2 ? frames - 2 : 0) : frames;
    if (channels == 1) {
        for (; i + 8 <= vectorFrames; i += 8) {
            const __m256 x = _mm256_loadu_ps(in[0] + i);
            const __m256 limited = TallyEight(x, peak, nonFinite, beyond);
            if constexpr (L == SampleLayout::Float)
                _mm256_storeu_ps(static_cast<float*>(out) + i, x);
            else
                StoreInts<L>(out, i, Quantise(limited, depth), __m256i{}, false, depth);
        }
    } else if (channels == 2) {
        for (; i + 8 <= vectorFrames; i += 8) {
            const __m256 l = _mm256_loadu_ps(in[0] + i), r = _mm256_loadu_ps(in[1] + i);
            const __m256 ll = TallyEight(l, peak, nonFinite, beyond), lr = TallyEight(r, peak, nonFinite, beyond);
            if constexpr (L == SampleLayout::Float) {
                const __m256 lo = _mm256_unpacklo_ps(l, r), hi = _mm256_unpackhi_ps(l, r);
                float* o = static_cast<float*>(out) + 2 * i;
                _mm256_storeu_ps(o, _mm256_permute2f128_ps(lo, hi, 0x20));
                _mm256_storeu_ps(o + 8, _mm256_permute2f128_ps(lo, hi, 0x31));
            } else {
                const __m256i ql = Quantise(ll, depth), qr = Quantise(lr, depth);
                StoreInts<L>(out, 2 * i, _mm256_unpacklo_epi32(ql, qr), _mm256_unpackhi_epi32(ql, qr), true, depth);
            }
        }
    }
    alignas(32) float peaks[8];
    _mm256_store_ps(peaks, peak);
    Counts counts{peaks[0]};
    for (float p : peaks)
        counts.peak = p > counts.peak ? p : counts.peak;
    counts.beyond = beyond;
    counts.nonFinite = _mm256_movemask_ps(nonFinite) != 0;
    EncodeFrames<L>(in, out, channels, i, frames, depth, counts);
    tally.peak = counts.peak;
    tally.beyond += counts.beyond;
    tally.nonFinite |= counts.nonFinite;
}

void Saturate(float* x, std::size_t n) {
    std::size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m256 v = _mm256_loadu_ps(x + i);
        _mm256_storeu_ps(x + i, _mm256_max_ps(_mm256_min_ps(v, _mm256_set1_ps(1.0f)), _mm256_set1_ps(-1.0f)));
    }
    for (; i < n; ++i)
        x[i] = Limit(x[i]);
}

#else

void Saturate(float* x, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i)
        x[i] = Limit(x[i]);
}

template <SampleLayout L>
void Decode(const void* in, float* const* out, int channels, std::size_t frames) {
    DecodeFrames<L>(in, out, channels, 0, frames);
}

template <SampleLayout L>
void Encode(const float* const* in, void* out, int channels, std::size_t frames, int bits, EncodeTally& tally) {
    Counts counts{float(tally.peak)};
    EncodeFrames<L>(in, out, channels, 0, frames, DepthOf(L, L == SampleLayout::Float ? 1 : bits), counts);
    tally.peak = counts.peak;
    tally.beyond += counts.beyond;
    tally.nonFinite |= counts.nonFinite;
}

#endif

}  // namespace

const SampleKernels& SampleKernelTable() {
    using enum SampleLayout;
    static constexpr SampleKernels table{
        {&Decode<Int16>, &Decode<Int24>, &Decode<Int32>, &Decode<Float>},
        {&Encode<Int16>, &Encode<Int24>, &Encode<Int32>, &Encode<Float>},
        &Saturate,
    };
    return table;
}

}  // namespace kesta::KESTADSP_ISA
