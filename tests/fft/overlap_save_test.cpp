// OverlapSave: identity hook = pure delay of N, block partition changes no bit, the base hook is a
// low-pass at 1/8 of the band; Resume, copies, scalers, derived frame handlers; no allocation.

#include "dsp/overlap_save.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

#include "support/allocation_counter.h"
#include "support/metrics.h"
#include "support/signals.h"

namespace {

using dsp::OverlapSave;
using kesta::test::Channels;
using kesta::test::Signal;

// The noise reducer's default geometry.
constexpr int kN = 4096;
constexpr int kL = 585;
constexpr int kP = 1755;
constexpr double kRate = 48000.0;

// Leaves every spectrum as it is: the engine must then be a pure delay of N frames.
class IdentityEngine : public OverlapSave {
public:
    using OverlapSave::OverlapSave;

protected:
    void OnSpectrum(float**, float**, int, int) override {}
};

kesta::test::BlockFunction Streaming(OverlapSave& engine) {
    return [&engine](float** in, float** out, int frames) { engine.Process(in, out, engine.GetNumChannels(), frames); };
}

Channels RunFromResume(OverlapSave& engine, const Channels& input, int blockSize) {
    engine.Resume();
    return kesta::test::RunInBlocks(input, Streaming(engine), blockSize);
}

// Every channel of `out` is the matching input delayed by `delay` frames (and scaled by `gain`),
// with the first `delay` frames exactly zero and no NaN anywhere (the metrics would skip it).
void ExpectDelayed(const Channels& input, const Channels& out, int delay, double tolerance, double gain = 1.0) {
    ASSERT_EQ(out.size(), input.size());
    for (std::size_t ch = 0; ch < input.size(); ++ch) {
        SCOPED_TRACE("channel " + std::to_string(ch));
        const Signal expected = kesta::test::Delayed(input[ch], static_cast<std::size_t>(delay), gain);
        EXPECT_TRUE(std::all_of(out[ch].begin(), out[ch].end(), [](float v) { return std::isfinite(v); }));
        EXPECT_EQ(kesta::test::Peak(std::span(out[ch]).first(static_cast<std::size_t>(delay))), 0.0);
        EXPECT_LE(kesta::test::MaxAbsDiff(out[ch], expected), tolerance);
    }
}

// One engine re-initialised for each row: the default geometry with every window shape over 1, 2
// and 3 channels, then frames whose kept region touches either end (P = L starts the cross-faded
// region at sample 0; P + 2L = N ends the tail at sample N - 1).
TEST(OverlapSave, IdentityHookDelaysByExactlyOneFrame) {
    struct Row {
        int N, channels, P, L, type;
    };
    std::vector<Row> rows;
    for (int type = 0; type <= 8; ++type)
        rows.push_back({kN, 1 + type % 3, kP, kL, type});
    for (Row g : {Row{64, 2, 16, 16, 1}, Row{64, 2, 32, 16, 1}, Row{16, 2, 1, 1, 1}, Row{1024, 1, 384, 128, 1}})
        rows.push_back(g);
    IdentityEngine engine(kN, 2, kP, kL, OverlapSave::Kaiser140);
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << "N " << r.N << " channels " << r.channels << " P " << r.P << " L " << r.L
                                        << " window " << r.type);
        engine.Init(r.N, r.channels, r.P, r.L, static_cast<OverlapSave::FFTWindowType>(r.type));
        EXPECT_EQ(engine.GetLatency(), r.N);
        const Channels input = kesta::test::NoiseChannels(r.channels, r.N == kN ? 30000 : 3000, 11 + r.type);
        ExpectDelayed(input, RunFromResume(engine, input, r.N == kN ? 777 : 37), r.N, 1e-5);
    }
}

// Replaces every frame by the constant k for the k-th frame (1, 2, ...), so the output shows which
// frame each sample came from and how neighbours are blended.
class FrameNumbering : public OverlapSave {
public:
    using OverlapSave::OverlapSave;

protected:
    void OnAudio(float** frame, int numChannels, int N, bool) override {
        ++mFrames;
        for (int ch = 0; ch < numChannels; ++ch)
            for (int i = 0; i < N; ++i)
                frame[ch][i] = static_cast<float>(mFrames * (ch + 1));
    }

private:
    int mFrames = 0;
};

TEST(OverlapSave, FramesMeetThroughARaisedSineCrossfade) {
    // After the N primed zeros: L samples of frame 1, then for every further frame k an L-sample
    // fade from k - 1 to k with weights (1 -+ cos(i pi / L)) / 2, then L samples of frame k.
    constexpr int N = 256, L = 40, P = 64;
    FrameNumbering engine(N, 2, P, L, OverlapSave::Hann);
    const Channels out = RunFromResume(engine, kesta::test::ZeroChannels(2, 2000), 33);
    for (std::size_t ch = 0; ch < 2; ++ch) {
        for (int n = N; n < 2000; ++n) {
            const int k = (n - N + L) / (2 * L) + 1, i = (n - N + L) % (2 * L);  // frame k, sample i of its region
            const double rising = i < L ? (1.0 - std::cos(i * std::numbers::pi / L)) / 2.0 : 1.0;
            const double expected = (k - 1 + rising) * static_cast<double>(ch + 1);
            ASSERT_NEAR(out[ch][n], expected, 1e-6 * expected) << "channel " << ch << " sample " << n;
        }
    }
}

TEST(OverlapSave, BlockPartitionChangesNoBitAndProcessAllocatesNothing) {
    // Base low-pass hook, an odd channel count, and more frames than the largest block.
    OverlapSave engine(kN, 3, kP, kL, OverlapSave::BlackmanHarris);
    Channels input = kesta::test::NoiseChannels(3, 120000, 99);
    const Channels reference = RunFromResume(engine, input, 4096);
    for (int block : {1, 7, 100000, 2 * kL - 1, 2 * kL, 2 * kL + 1}) {
        SCOPED_TRACE("blocks of " + std::to_string(block));
        EXPECT_TRUE(RunFromResume(engine, input, block) == reference);
    }
    engine.Resume();
    EXPECT_TRUE(kesta::test::RunInRandomBlocks(input, Streaming(engine), 5000, 1234) == reference) << "random blocks";

    // In place (output arrays = input arrays), in blocks of mixed lengths.
    engine.Resume();
    kesta::test::AllocationCounter allocations;
    const int pattern[] = {1, 7, 1170, 4096, 333, 10000, 2};
    for (std::size_t pos = 0, i = 0; pos < input[0].size(); ++i) {
        const int block = std::min(pattern[i % 7], static_cast<int>(input[0].size() - pos));
        float* io[3] = {input[0].data() + pos, input[1].data() + pos, input[2].data() + pos};
        engine.Process(io, io, 3, block);
        pos += static_cast<std::size_t>(block);
    }
    EXPECT_EQ(allocations.Count(), 0);
    EXPECT_TRUE(input == reference) << "in place";
}

TEST(OverlapSave, CopiesCarryTheWholeStreamStateAndResumeClearsIt) {
    const Channels head = kesta::test::NoiseChannels(3, 13000, 17), tail = kesta::test::NoiseChannels(3, 17000, 18);
    OverlapSave original(kN, 3, kP, kL, OverlapSave::Kaiser140);
    RunFromResume(original, head, 999);  // mid-stream: queued input, a tail, a part-filled output queue

    OverlapSave copied(original);
    OverlapSave assigned(1024, 1, 384, 128, OverlapSave::Hann);
    assigned = original;
    const Channels expected = kesta::test::RunInBlocks(tail, Streaming(original), 999);
    EXPECT_TRUE(kesta::test::RunInBlocks(tail, Streaming(copied), 999) == expected);
    EXPECT_TRUE(kesta::test::RunInBlocks(tail, Streaming(assigned), 999) == expected);
    EXPECT_EQ(assigned.GetLatency(), kN);

    OverlapSave fresh(kN, 3, kP, kL, OverlapSave::Kaiser140);
    EXPECT_TRUE(RunFromResume(copied, tail, 640) == RunFromResume(fresh, tail, 640)) << "after Resume";
}

// Derived frame handlers: one adds the resynthesis to the incoming frame, one subtracts it.
class AccumulatingIdentity : public IdentityEngine {
public:
    using IdentityEngine::IdentityEngine;

protected:
    void OnAudio(float** frame, int numChannels, int N, bool) override {
        OverlapSave::OnAudio(frame, numChannels, N, true);
    }
};

class RemovedPart : public OverlapSave {
public:
    using OverlapSave::OverlapSave;

protected:
    void OnAudio(float** frame, int numChannels, int N, bool) override {
        TransformFrameToSpectra(frame, numChannels);
        OnSpectrum(mSpectrumRe.data(), mSpectrumIm.data(), numChannels, N / 2 + 1);
        TransformSpectraToFrame(frame, numChannels, Synthesis::Subtract);
    }
};

TEST(OverlapSave, ScalersAndAccumulatingHandlersScaleTheIdentity) {
    const Channels input = kesta::test::NoiseChannels(3, 15000, 8);
    IdentityEngine engine(kN, 3, kP, kL, OverlapSave::BlackmanHarris);
    engine.SetScaler(2.0f, 1.5f);  // the hook is linear, so the output is the input times 3
    ExpectDelayed(input, RunFromResume(engine, input, 1024), kN, 3e-5, 3.0);
    AccumulatingIdentity doubling(kN, 3, kP, kL, OverlapSave::Hann);
    ExpectDelayed(input, RunFromResume(doubling, input, 2000), kN, 2e-5, 2.0);
}

TEST(OverlapSave, BaseHookIsALowPassAtOneEighthOfTheBandAndSubtractingItAHighPass) {
    // N = 4096 at 48 kHz keeps bins 0 ... 256, up to 3000 Hz.
    const double amplitude = 0.2;
    const std::vector<double> low = {440.0, 1000.0, 2500.0}, high = {3600.0, 9000.0, 20000.0};
    Signal x(120000, 0.0f);
    for (const std::vector<double>* tones : {&low, &high})
        for (double f : *tones)
            x = kesta::test::Mix(x, kesta::test::Sine(x.size(), f, kRate, amplitude, f / 5000.0));
    auto expectTones = [&](const Signal& y, const std::vector<double>& kept, const std::vector<double>& removed) {
        const auto steady = std::span(y).subspan(2 * kN);  // past the primed silence and first frames
        for (double f : kept)
            EXPECT_NEAR(kesta::test::ToDb(kesta::test::LevelAt(steady, f, kRate) / amplitude), 0.0, 0.01) << f << " Hz";
        for (double f : removed)
            EXPECT_LT(kesta::test::ToDb(kesta::test::LevelAt(steady, f, kRate) / amplitude), -100.0) << f << " Hz";
    };
    for (int channels : {1, 2}) {
        SCOPED_TRACE(std::to_string(channels) + " channels");
        OverlapSave engine(kN, channels, kP, kL, OverlapSave::Kaiser140);
        for (const Signal& y : RunFromResume(engine, Channels(static_cast<std::size_t>(channels), x), 4000))
            expectTones(y, low, high);
    }
    SCOPED_TRACE("subtracting handler");
    RemovedPart highPass(kN, 1, kP, kL, OverlapSave::Kaiser140);
    expectTones(RunFromResume(highPass, Channels{x}, 2000)[0], high, low);
}

TEST(OverlapSave, BaseHookKeepsExactlyBinsZeroToOneEighth) {
    struct Hook : OverlapSave {
        using OverlapSave::OnSpectrum;
    };
    for (int bins : {9, 2049}) {
        std::vector<float> re(static_cast<std::size_t>(bins), 1.0f), im = re;
        float* r = re.data();
        float* i = im.data();
        Hook().OnSpectrum(&r, &i, 1, bins);
        for (int k = 0; k < bins; ++k)
            EXPECT_EQ(re[k] + im[k], k <= bins / 8 ? 2.0f : 0.0f) << k << " of " << bins;
    }
}

TEST(OverlapSave, MonoOverloadMatchesTheBlockInterface) {
    Signal x = kesta::test::WhiteNoise(20000, 31), out(x.size());
    OverlapSave engine(kN, 1, kP, kL, OverlapSave::Hann);
    const Signal reference = RunFromResume(engine, Channels{x}, 500)[0];
    engine.Resume();
    for (std::size_t pos = 0; pos < x.size(); pos += 500)
        engine.Process(x.data() + pos, out.data() + pos, 500);
    EXPECT_TRUE(out == reference);
}

TEST(OverlapSave, HostMistakesStayInsideTheBuffersGiven) {
    // A two-channel engine given one channel reads the other as silence and writes nothing for
    // it: channel 0 is still the delayed input (the sanitizers watch for reads past the single
    // pointer). A Process without Resume after Init starts the stream instead of giving silence.
    // Debug builds stop at either mistake.
    Signal x = kesta::test::WhiteNoise(12000, 5), out(x.size());
    float* in[1] = {x.data()};
    float* outs[1] = {out.data()};
    IdentityEngine wide(kN, 2, kP, kL, OverlapSave::Hann);
    wide.Resume();
    EXPECT_DEBUG_DEATH(wide.Process(in, outs, 1, static_cast<int>(x.size())), "every channel");
    IdentityEngine unresumed(kN, 1, kP, kL, OverlapSave::Hann);
    Signal late(x.size());
    EXPECT_DEBUG_DEATH(unresumed.Process(x.data(), late.data(), static_cast<int>(x.size())), "Resume");
#ifdef NDEBUG
    ExpectDelayed(Channels{x}, Channels{out}, kN, 1e-6);
    ExpectDelayed(Channels{x}, Channels{late}, kN, 1e-6);
#endif
}

TEST(OverlapSave, EveryGeometryTheLimitsAcceptStreamsAsADelay) {
    // What a host may check before Init: each overlap factor the spectral tools' check accepts
    // gives an engine that is an exact-length delay; the halves and wholes it refuses leave no
    // room for a crossfade (L = N or P < L).
    for (int N : {16, 64}) {
        const Signal x = kesta::test::WhiteNoise(6 * N, 8);
        int accepted = 0;
        for (int overlap = 0; overlap <= N + 1; ++overlap) {
            if (!OverlapSave::IsValidOverlap(N, overlap)) continue;
            SCOPED_TRACE(testing::Message() << "N " << N << " overlap " << overlap);
            const int L = N / overlap, P = ((overlap - 1) * N / overlap) / 2;
            ASSERT_TRUE(OverlapSave::IsValidGeometry(N, OverlapSave::kMaxChannels, P, L));
            IdentityEngine engine(N, 1, P, L, OverlapSave::Hann);
            ExpectDelayed(Channels{x}, RunFromResume(engine, Channels{x}, 7), N, 1e-6);
            ++accepted;
        }
        EXPECT_EQ(accepted, N - 2);  // overlap 3 ... N; above N the crossfade L = N / overlap is 0
    }
    EXPECT_FALSE(OverlapSave::IsValidOverlap(4096, 2));
    EXPECT_FALSE(OverlapSave::IsValidOverlap(4096, 1));
    EXPECT_FALSE(OverlapSave::IsValidGeometry(4096, OverlapSave::kMaxChannels + 1, 1755, 585));
    EXPECT_FALSE(OverlapSave::IsValidGeometry(4096, 0, 1755, 585));
}

}  // namespace
