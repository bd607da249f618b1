#pragma once
// Conversions between a file's interleaved samples and the planar float blocks the stream works
// on. Every sample a command reads or writes passes through one of them, so they are built once per
// instruction set (sample_kernels.cpp) and picked for the CPU by the library's dispatch; every build
// gives the same bits.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kesta {

// How interleaved samples lie in memory, in the machine's byte order.
enum class SampleLayout {
    Int16,  // 16-bit integers
    Int24,  // 24-bit integers packed in 3 bytes, least significant first
    Int32,  // 32-bit integers, a narrower depth in the high bits (as libsndfile's int calls use)
    Float,  // 32-bit floats
};
constexpr int kSampleLayouts = 4;

// What an encoding pass saw of the samples it wrote.
struct EncodeTally {
    double peak = 0.0;       // the largest magnitude, before saturation (meaningless with a non-finite sample)
    uint64_t beyond = 0;     // samples beyond full scale (|x| > 1)
    bool nonFinite = false;  // a NaN or infinite sample was among them: the encoded samples are not usable
};

// Interleaved `frames` frames of `channels` channels into one float run per channel; integers are
// scaled exactly (a 16-bit s becomes s / 32768).
using DecodeSamples = void (*)(const void* in, float* const* out, int channels, std::size_t frames);
// One float run per channel into interleaved samples. Integers of `bits` bits (at most the layout's,
// left-justified in Int32) are the nearest integer to x * 2^(bits - 1), ties to even, limited to the
// depth's range; floats are copied.
using EncodeSamples = void (*)(const float* const* in, void* out, int channels, std::size_t frames, int bits,
                               EncodeTally& tally);
// Limits samples to ±1 in place (what an integer or lossy encoding keeps); a -0 stays -0. The samples
// must be finite.
using SaturateSamples = void (*)(float* x, std::size_t n);

struct SampleKernels {
    DecodeSamples decode[kSampleLayouts];
    EncodeSamples encode[kSampleLayouts];
    SaturateSamples saturate;
};

namespace portable {
const SampleKernels& SampleKernelTable();
}
namespace avx2 {
const SampleKernels& SampleKernelTable();
}

// The fastest build this CPU runs.
const SampleKernels& PickSampleKernels();
// Every build this CPU runs, the portable one first.
std::vector<const SampleKernels*> SampleKernelBuilds();

constexpr int LayoutBytes(SampleLayout layout) {
    return layout == SampleLayout::Int16 ? 2 : layout == SampleLayout::Int24 ? 3 : 4;
}

}  // namespace kesta
