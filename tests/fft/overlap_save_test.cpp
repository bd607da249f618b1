// OverlapSave: a hook that leaves spectra alone must give the input back delayed by exactly one
// frame; block partition must not change a bit of the output; the base hook is a low-pass at one
// eighth of the band; Resume, copies, scalers and derived frame handlers; Process never allocates.

#include "dsp/overlap_save.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <new>
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
// with the first `delay` frames exactly zero.
void ExpectDelayed(const Channels& input, const Channels& out, int delay, double tolerance, double gain = 1.0) {
    ASSERT_EQ(out.size(), input.size());
    for (std::size_t ch = 0; ch < input.size(); ++ch) {
        SCOPED_TRACE("channel " + std::to_string(ch));
        const Signal expected = kesta::test::Delayed(input[ch], static_cast<std::size_t>(delay), gain);
        EXPECT_EQ(kesta::test::Peak(std::span(out[ch]).first(static_cast<std::size_t>(delay))), 0.0);
        EXPECT_LE(kesta::test::MaxAbsDiff(out[ch], expected), tolerance);
    }
}

TEST(OverlapSave, IdentityHookDelaysByExactlyOneFrame) {
    for (int channels : {1, 2, 3}) {
        SCOPED_TRACE(std::to_string(channels) + " channels");
        IdentityEngine engine(kN, channels, kP, kL, OverlapSave::BlackmanHarris);
        EXPECT_EQ(engine.GetLatency(), kN);
        const Channels input = kesta::test::NoiseChannels(channels, 40000, 11 * channels);
        ExpectDelayed(input, RunFromResume(engine, input, 1000), kN, 1e-5);
    }
}

TEST(OverlapSave, IdentityHoldsForEveryWindowShape) {
    const Channels input = kesta::test::NoiseChannels(2, 20000, 5);
    for (int type = 0; type <= 8; ++type) {
        SCOPED_TRACE("window type " + std::to_string(type));
        IdentityEngine engine(kN, 2, kP, kL, static_cast<OverlapSave::FFTWindowType>(type));
        ExpectDelayed(input, RunFromResume(engine, input, 777), kN, 1e-5);
    }
}

TEST(OverlapSave, TakenRegionMayTouchEitherEndOfTheFrame) {
    // P = L starts the cross-faded region at sample 0; P + 2L = N ends the tail at sample N - 1.
    struct Geometry {
        int N, P, L;
    };
    const Channels input = kesta::test::NoiseChannels(2, 3000, 21);
    for (Geometry g : {Geometry{64, 16, 16}, Geometry{64, 32, 16}, Geometry{16, 1, 1}, Geometry{1024, 384, 128}}) {
        SCOPED_TRACE("N " + std::to_string(g.N) + " P " + std::to_string(g.P) + " L " + std::to_string(g.L));
        IdentityEngine engine(g.N, 2, g.P, g.L, OverlapSave::Hann);
        ExpectDelayed(input, RunFromResume(engine, input, 37), g.N, 1e-5);
    }
}

TEST(OverlapSave, InitAgainRebuildsWindowsForTheNewGeometry) {
    IdentityEngine engine(kN, 2, kP, kL, OverlapSave::Kaiser140);
    const Channels stereo = kesta::test::NoiseChannels(2, 12000, 3);
    ExpectDelayed(stereo, RunFromResume(engine, stereo, 512), kN, 1e-5);

    engine.Init(1024, 1, 384, 128, OverlapSave::Hann);
    const Channels mono = kesta::test::NoiseChannels(1, 6000, 4);
    ExpectDelayed(mono, RunFromResume(engine, mono, 512), 1024, 1e-5);
    EXPECT_EQ(engine.GetLatency(), 1024);
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
        for (int n = 0; n < 2000; ++n) {
            double expected = 0.0;
            if (n >= N) {
                const int j = n - N;
                const int k = (j + L) / (2 * L) + 1;  // frame whose kept region holds sample j
                const int i = (j + L) % (2 * L);      // position within that region
                const double rising = i < L ? (1.0 - std::cos(i * std::numbers::pi / L)) / 2.0 : 1.0;
                expected = k == 1 ? 1.0 : (k - 1) + rising;
            }
            ASSERT_NEAR(out[ch][n], expected * static_cast<double>(ch + 1),
                        1e-6 * (1.0 + expected * static_cast<double>(ch + 1)))
                << "channel " << ch << " sample " << n;
        }
    }
}

TEST(OverlapSave, BlockPartitionDoesNotChangeOutput) {
    // Base low-pass hook, an odd channel count, and more frames than the largest block.
    OverlapSave engine(kN, 3, kP, kL, OverlapSave::BlackmanHarris);
    const Channels input = kesta::test::NoiseChannels(3, 120000, 99);
    const Channels reference = RunFromResume(engine, input, 4096);
    for (int block : {1, 7, 100000, 2 * kL - 1, 2 * kL, 2 * kL + 1}) {
        SCOPED_TRACE("blocks of " + std::to_string(block));
        EXPECT_TRUE(RunFromResume(engine, input, block) == reference);
    }
    engine.Resume();
    EXPECT_TRUE(kesta::test::RunInRandomBlocks(input, Streaming(engine), 5000, 1234) == reference) << "random blocks";
}

TEST(OverlapSave, BaseHookKeepsTonesBelowOneEighthOfTheBandAndRemovesTonesAbove) {
    // N = 4096 at 48 kHz: bins are 11.72 Hz wide and the hook keeps bins 0 ... 2049/8 = 256, up to
    // 3000 Hz, one eighth of the 24 kHz band.
    const double amplitude = 0.2;
    const std::vector<double> kept = {440.0, 1000.0, 2500.0};
    const std::vector<double> removed = {3600.0, 9000.0, 20000.0};
    Signal x(120000, 0.0f);
    for (double f : kept)
        x = kesta::test::Mix(x, kesta::test::Sine(x.size(), f, kRate, amplitude, 0.3));
    for (double f : removed)
        x = kesta::test::Mix(x, kesta::test::Sine(x.size(), f, kRate, amplitude, 1.1));

    for (int channels : {1, 2}) {
        SCOPED_TRACE(std::to_string(channels) + " channels");
        OverlapSave engine(kN, channels, kP, kL, OverlapSave::Kaiser140);
        const Channels out = RunFromResume(engine, Channels(static_cast<std::size_t>(channels), x), 4000);
        for (const Signal& y : out) {
            // Measure once the first frames (and the primed silence) have passed.
            const auto steady = std::span(y).subspan(2 * kN);
            for (double f : kept)
                EXPECT_NEAR(kesta::test::ToDb(kesta::test::LevelAt(steady, f, kRate) / amplitude), 0.0, 0.01)
                    << f << " Hz";
            for (double f : removed)
                EXPECT_LT(kesta::test::ToDb(kesta::test::LevelAt(steady, f, kRate) / amplitude), -100.0) << f << " Hz";
        }
    }
}

TEST(OverlapSave, SilenceInGivesSilenceOutFromTheFirstSample) {
    const Channels silence = kesta::test::ZeroChannels(3, 15000);
    for (int type = 0; type <= 8; ++type) {
        SCOPED_TRACE("window type " + std::to_string(type));
        OverlapSave engine(kN, 3, kP, kL, static_cast<OverlapSave::FFTWindowType>(type));
        for (const Signal& y : RunFromResume(engine, silence, 1500))
            EXPECT_TRUE(y == silence[0]);
    }
}

TEST(OverlapSave, ResumeRestartsTheStreamIdentically) {
    const Channels first = kesta::test::NoiseChannels(2, 9000, 1);
    const Channels second = kesta::test::NoiseChannels(2, 20000, 2);
    OverlapSave used(kN, 2, kP, kL, OverlapSave::Hann);
    RunFromResume(used, first, 300);  // leaves tails, queues and a part-filled frame behind
    OverlapSave fresh(kN, 2, kP, kL, OverlapSave::Hann);
    EXPECT_TRUE(RunFromResume(used, second, 640) == RunFromResume(fresh, second, 640));
}

TEST(OverlapSave, ScalersMultiplyTheSpectrumAndCancelWhenTheirProductIsOne) {
    const Channels input = kesta::test::NoiseChannels(3, 15000, 8);
    IdentityEngine engine(kN, 3, kP, kL, OverlapSave::BlackmanHarris);
    engine.SetScaler(4.0f, 0.25f);
    ExpectDelayed(input, RunFromResume(engine, input, 1024), kN, 1e-5);
    engine.SetScaler(2.0f, 1.5f);  // the hook is linear, so the output is the input times 3
    ExpectDelayed(input, RunFromResume(engine, input, 1024), kN, 3e-5, 3.0);
    engine.SetScaler(1.0f, 0.5f);
    ExpectDelayed(input, RunFromResume(engine, input, 1024), kN, 1e-5, 0.5);
}

TEST(OverlapSave, CopiesCarryTheWholeStreamStateAndAreIndependent) {
    const Channels input = kesta::test::NoiseChannels(3, 30000, 17);
    Channels head(3), tail(3);
    for (std::size_t ch = 0; ch < 3; ++ch) {
        head[ch].assign(input[ch].begin(), input[ch].begin() + 13000);
        tail[ch].assign(input[ch].begin() + 13000, input[ch].end());
    }
    OverlapSave original(kN, 3, kP, kL, OverlapSave::Kaiser140);
    RunFromResume(original, head, 999);  // mid-stream: queued input, a tail, a part-filled output queue

    OverlapSave copied(original);
    OverlapSave assigned(1024, 1, 384, 128, OverlapSave::Hann);
    assigned = original;
    const Channels expected = kesta::test::RunInBlocks(tail, Streaming(original), 999);
    EXPECT_TRUE(kesta::test::RunInBlocks(tail, Streaming(copied), 999) == expected);
    EXPECT_TRUE(kesta::test::RunInBlocks(tail, Streaming(assigned), 999) == expected);
    EXPECT_EQ(assigned.GetLatency(), kN);
}

// A derived frame handler that adds the resynthesis to the incoming frame (accumulate).
class AccumulatingIdentity : public IdentityEngine {
public:
    using IdentityEngine::IdentityEngine;

protected:
    void OnAudio(float** frame, int numChannels, int N, bool) override {
        OverlapSave::OnAudio(frame, numChannels, N, true);
    }
};

// A derived frame handler that keeps what the base low-pass removes.
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

TEST(OverlapSave, DerivedFrameHandlersCanAddOrSubtractTheResynthesis) {
    const Channels noise = kesta::test::NoiseChannels(3, 15000, 23);
    AccumulatingIdentity doubling(kN, 3, kP, kL, OverlapSave::Hann);
    ExpectDelayed(noise, RunFromResume(doubling, noise, 2000), kN, 2e-5, 2.0);

    const Signal low = kesta::test::Sine(60000, 1000.0, kRate, 0.4);
    const Signal high = kesta::test::Sine(60000, 9000.0, kRate, 0.4);
    RemovedPart highPass(kN, 1, kP, kL, OverlapSave::Kaiser140);
    const Signal y = RunFromResume(highPass, Channels{kesta::test::Mix(low, high)}, 2000)[0];
    const auto steady = std::span(y).subspan(2 * kN);
    EXPECT_NEAR(kesta::test::ToDb(kesta::test::LevelAt(steady, 9000.0, kRate) / 0.4), 0.0, 0.01);
    EXPECT_LT(kesta::test::ToDb(kesta::test::LevelAt(steady, 1000.0, kRate) / 0.4), -100.0);
}

TEST(OverlapSave, MonoOverloadAndInPlaceProcessingMatchTheBlockInterface) {
    const Signal x = kesta::test::WhiteNoise(20000, 31);
    OverlapSave engine(kN, 1, kP, kL, OverlapSave::Hann);
    const Signal reference = RunFromResume(engine, Channels{x}, 500)[0];

    engine.Resume();
    Signal viaOverload(x.size());
    Signal input = x;
    for (std::size_t pos = 0; pos < x.size(); pos += 500)
        engine.Process(input.data() + pos, viaOverload.data() + pos, 500);
    EXPECT_TRUE(viaOverload == reference);

    engine.Resume();
    Signal inPlace = x;
    for (std::size_t pos = 0; pos < x.size(); pos += 500) {
        float* io[1] = {inPlace.data() + pos};
        engine.Process(io, io, 1, 500);
    }
    EXPECT_TRUE(inPlace == reference);
}

TEST(OverlapSave, ProcessAllocatesNothing) {
    Channels input = kesta::test::NoiseChannels(3, 40000, 77);
    Channels output = kesta::test::ZeroChannels(3, 40000);
    const std::vector<int> blocks = {1, 7, 1170, 4096, 333, 10000, 2};
    OverlapSave engine(kN, 3, kP, kL, OverlapSave::BlackmanHarris);
    engine.Resume();
    float* in[3];
    float* out[3];

    kesta::test::AllocationCounter allocations;
    std::size_t pos = 0;
    for (std::size_t b = 0; pos < input[0].size(); ++b) {
        const int n = static_cast<int>(
            std::min<std::size_t>(static_cast<std::size_t>(blocks[b % blocks.size()]), input[0].size() - pos));
        for (int ch = 0; ch < 3; ++ch) {
            in[ch] = input[ch].data() + pos;
            out[ch] = output[ch].data() + pos;
        }
        engine.Process(in, out, 3, n);
        pos += static_cast<std::size_t>(n);
    }
    EXPECT_EQ(allocations.Count(), 0);
    EXPECT_GT(kesta::test::Rms(std::span(output[2]).subspan(kN)), 0.0) << "the engine did run";
}

}  // namespace
