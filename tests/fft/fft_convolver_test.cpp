// FFTConvolver against direct convolution in long double, over geometries that stress the block
// edges, odd and even channel counts and random block partitions; then in place, fewer host
// channels, a response change, and no allocation while streaming.

#include "dsp/fft_convolver.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "support/allocation_counter.h"
#include "support/signals.h"

namespace {

using dsp::FFTConvolver;
using kesta::test::Channels;

std::vector<double> RandomResponse(int taps, uint64_t seed) {
    kesta::test::Random random(seed);
    std::vector<double> h(static_cast<std::size_t>(taps));
    for (double& v : h)
        v = random.Uniform() * 2.0 - 1.0;
    return h;
}

// y[n] = sum_j gain h[j] x[n - delay - j], summed in long double.
std::vector<long double> Direct(const std::vector<float>& x, const std::vector<double>& h, double gain, int delay) {
    std::vector<long double> y(x.size(), 0.0L);
    for (std::size_t n = 0; n < x.size(); ++n)
        for (std::size_t j = 0; j < h.size(); ++j) {
            const auto at = static_cast<long long>(n) - delay - static_cast<long long>(j);
            if (at >= 0) y[n] += static_cast<long double>(h[j]) * gain * x[static_cast<std::size_t>(at)];
        }
    return y;
}

kesta::test::BlockFunction Streaming(FFTConvolver& conv) {
    return [&conv](float** in, float** out, int frames) { conv.Process(in, out, conv.GetChannels(), frames); };
}

// Largest error of every channel against the direct sum, relative to the response's L1 norm
// (the bound on |y| for input in [-1, 1]).
double WorstError(const Channels& input, const Channels& output, const std::vector<double>& h, double gain, int delay) {
    double norm = 0.0;
    for (double v : h)
        norm += std::fabs(v * gain);
    double worst = 0.0;
    for (std::size_t c = 0; c < input.size(); ++c) {
        const auto expected = Direct(input[c], h, gain, delay);
        for (std::size_t n = 0; n < expected.size(); ++n)
            worst = std::max(worst, static_cast<double>(std::fabs(output[c][n] - expected[n])) / norm);
    }
    return worst;
}

TEST(FFTConvolver, MatchesDirectConvolutionForAnyGeometryAndPartition) {
    struct Case {
        int channels, taps, fftSize;
    };
    // One-frame blocks (F = K), a single tap, the comfortable F = 4K, odd and even channel counts.
    for (const Case& k : {Case{1, 64, 64}, Case{2, 1, 8}, Case{3, 100, 512}, Case{4, 37, 64}, Case{5, 300, 1024}}) {
        SCOPED_TRACE(testing::Message() << k.channels << " ch, " << k.taps << " taps, F " << k.fftSize);
        const auto h = RandomResponse(k.taps, 17 + k.taps);
        FFTConvolver conv;
        conv.Init(k.channels, k.taps, k.fftSize);
        conv.SetResponse(h.data(), 0.5);
        ASSERT_EQ(conv.GetLatency(), k.fftSize - k.taps + 1);
        const Channels input = kesta::test::NoiseChannels(k.channels, 3000, 5);
        const Channels whole = kesta::test::RunInBlocks(input, Streaming(conv), 3000);
        EXPECT_LT(WorstError(input, whole, h, 0.5, conv.GetLatency()), 1e-7);

        conv.Reset();
        EXPECT_EQ(kesta::test::RunInRandomBlocks(input, Streaming(conv), 700, 3), whole);
    }
}

TEST(FFTConvolver, StreamOperations) {
    const int taps = 50, size = 128;
    const auto h = RandomResponse(taps, 9);
    FFTConvolver conv;
    conv.Init(2, taps, size);
    conv.SetResponse(h.data(), 1.0);
    const Channels input = kesta::test::NoiseChannels(2, 1000, 21);
    const Channels reference = kesta::test::RunInBlocks(input, Streaming(conv), 1000);

    // In place, with a host that passes one channel of two: the second is fed silence and left
    // untouched. (Copies and frame-by-frame calls go through the graphic equaliser's tests.)
    conv.Reset();
    Channels mono = {input[0]};
    float sentinel[1] = {7.0f};
    float* in[2] = {mono[0].data(), nullptr};
    float* out[2] = {mono[0].data(), sentinel};
    {
        const kesta::test::AllocationCounter counter;
        conv.Process(in, out, 1, 1000);
        conv.SetResponse(h.data(), -2.0);
        EXPECT_EQ(counter.Count(), 0u);
    }
    EXPECT_EQ(mono[0], reference[0]);
    EXPECT_EQ(sentinel[0], 7.0f);

    // A new response applies from the next block: after a Reset, the output is the new filter's.
    conv.Reset();
    const Channels scaled = kesta::test::RunInBlocks(input, Streaming(conv), 1000);
    EXPECT_LT(WorstError(input, scaled, h, -2.0, conv.GetLatency()), 1e-7);
}

}  // namespace
