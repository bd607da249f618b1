#pragma once
// Loudness and true peak of multichannel audio, as broadcast loudness meters measure them.
//
// Itu1770: K-weighted loudness in LUFS. Each channel passes through the K-weighting (a high shelf
// of about +4 dB above 2 kHz, then a high-pass near 38 Hz), designed for the actual sample rate
// from the analogue prototype of the two published 48 kHz stages (bilinear transform, each stage
// pre-warped at its own characteristic frequency, so 48 kHz gives the published coefficients).
// The mean square of each channel over a window, weighted per channel and summed, gives
// L = -0.691 + 10 log10(sum of G_i z_i).
//
// - Momentary: the last 400 ms, refreshed every 10 ms (100 Hz); short-term: the last 3 s, also at
//   100 Hz. Both treat the time before the first frame as silence, and their largest values so far
//   are kept.
// - Integrated: 400 ms gating blocks every 100 ms (75 % overlap), from the first complete block
//   on. Blocks at or under -70 LUFS are dropped (absolute gate); of the rest, those at or under
//   their own power mean minus 10 LU (relative gate); the power mean of what remains is the
//   programme loudness.
// - Loudness range: short-term values every 100 ms from the first complete 3 s window, gated at
//   -70 LUFS and at their power mean minus 20 LU; the range is the 95th minus the 10th percentile
//   of what remains (the values at ranks round((n - 1) * 0.10) and round((n - 1) * 0.95)).
//   Meters made to the first edition of the range measure take a short-term value every second
//   instead; SetLoudnessRangeHop(1000) gives their reading (ranges differ by up to about 1 LU on
//   programmes with quick changes).
//
// Gating keeps a fine histogram of block loudness (0.01 LU bins from -70 to +30 LUFS holding the
// count and the summed energy of their blocks), so memory does not grow with the programme: the
// energy sums are exact, and only the blocks within 0.01 LU of a relative gate are gated as a bin.
//
// Default channel weights follow the channel count: 5 channels are L, R, C, Ls, Rs and 6 are L, R,
// C, LFE, Ls, Rs (weights 1, 1, 1, 0, 1.41, 1.41; the LFE is not measured); any other count
// weighs every channel 1. SetChannelWeight overrides them.
//
// TruePeak: the largest magnitude of the signal between its samples, estimated by 4x oversampling
// (below 96 kHz) or 2x (below 192 kHz) through the 48-tap interpolating filter of the
// true-peak recommendation (12 taps per phase); from 192 kHz the samples themselves. The result is
// never below the sample peak. Linear; 20 log10 of it is in dBTP.
//
// Both classes: sample rates are clamped to [8000, 768000] Hz and channel counts to [1, 32];
// SetFormat allocates and resets, Process never allocates; any partition of the input into blocks
// gives the same results, bit for bit. One thread at a time; copies are deep and continue the
// measurement where the original stands. Loudness of silence is -infinity.

#include <cstdint>
#include <vector>

#include "dsp/kestadsp_export.h"

namespace dsp {

class KESTADSP_API Itu1770 {
public:
    static constexpr int kMinSampleRate = 8000;
    static constexpr int kMaxSampleRate = 768000;
    static constexpr int kMaxChannels = 32;

    // 48000 Hz, 2 channels.
    Itu1770();
    Itu1770(int sampleRate, int numChannels);

    // Redesigns the weighting, restores the default channel weights and resets the measurement.
    void SetFormat(int sampleRate, int numChannels);
    int GetSampleRate() const { return mSampleRate; }
    int GetChannels() const { return mChannels; }

    // Weight G of one channel (0 leaves it out); takes effect from the next 10 ms step. Ignored
    // for a channel outside the format or a negative or non-finite weight.
    void SetChannelWeight(int channel, double weight);
    double GetChannelWeight(int channel) const;

    // Time between the short-term values the loudness range is taken from: 100 ms by default,
    // rounded to a multiple of 10 ms within [10, 1000]. Set it before processing.
    void SetLoudnessRangeHop(int milliseconds);

    // Forgets everything measured; the format, weights and range hop stay.
    void Reset();

    // numFrames frames of numChannels channels (at most the format's; missing ones read as
    // silence). Nothing happens for numFrames < 1.
    void Process(const float* const* data, int numChannels, int numFrames);

    // LUFS; -infinity before the first 10 ms step or for silence.
    double GetMomentary() const;
    double GetShortTerm() const;
    double GetMaxMomentary() const;
    double GetMaxShortTerm() const;
    // LUFS; -infinity when no gating block passes the absolute gate.
    double GetIntegrated() const;
    // LU; 0 when no short-term value passes the gates.
    double GetLoudnessRange() const;

    // Frames processed since the last reset.
    long long GetFrameCount() const { return mFrames; }

    // One stage of the weighting: y = (b0 + b1 z^-1 + b2 z^-2) / (1 + a1 z^-1 + a2 z^-2) x.
    struct Stage {
        double b0, b1, b2, a1, a2;
    };
    // The shelf and the high-pass as designed for this rate.
    const Stage& GetShelf() const { return mShelf; }
    const Stage& GetHighPass() const { return mHighPass; }

private:
    // Energy gathered per 0.01 LU of block loudness, for the gates.
    struct Histogram {
        std::vector<long long> count;
        std::vector<double> energy;
        void Clear();
        void Add(double meanSquare);
        // Power mean (mean square) of the blocks above `gate` LUFS; the count through `blocks`.
        double MeanAbove(double gate, long long* blocks) const;
    };

    void CloseStep();
    double WindowMeanSquare(int steps) const;
    long long StepBoundary(long long step) const;

    int mSampleRate = 48000;
    int mChannels = 2;
    Stage mShelf{};
    Stage mHighPass{};
    std::vector<double> mWeights;
    std::vector<double> mState;        // per channel: the weighting's memory
    std::vector<double> mStepSquares;  // per channel: sum of squares in the open 10 ms step
    std::vector<double> mRing;         // weighted sums of squares of the last kRingSteps steps
    long long mFrames = 0;
    long long mSteps = 0;     // closed 10 ms steps
    long long mStepEnd = 0;   // frame at which the open step closes
    int mRangeHop = 10;       // steps between the short-term values of the range
    double mMomentary = 0.0;  // mean squares of the latest windows
    double mShortTerm = 0.0;
    double mMaxMomentary = 0.0;
    double mMaxShortTerm = 0.0;
    Histogram mBlocks;           // 400 ms gating blocks
    Histogram mShortTermBlocks;  // 3 s blocks for the loudness range
};

class KESTADSP_API TruePeak {
public:
    // 48000 Hz, 2 channels.
    TruePeak();
    TruePeak(int sampleRate, int numChannels);

    void SetFormat(int sampleRate, int numChannels);
    int GetSampleRate() const { return mSampleRate; }
    int GetChannels() const { return mChannels; }
    // 4, 2 or 1.
    int GetOversampling() const { return mOversampling; }

    void Reset();
    // As Itu1770::Process.
    void Process(const float* const* data, int numChannels, int numFrames);

    // Linear; 0 before any audio.
    double GetTruePeak(int channel) const;
    double GetTruePeak() const;
    double GetSamplePeak(int channel) const;

private:
    static constexpr int kTaps = 12;
    static constexpr int kChunk = 1024;

    int mSampleRate = 48000;
    int mChannels = 2;
    int mOversampling = 4;
    std::vector<float> mHistory;  // per channel: the last kTaps - 1 samples
    std::vector<float> mWork;     // kTaps - 1 samples of history, then a chunk
    std::vector<float> mPeaks;    // per channel: largest interpolated magnitude
    std::vector<float> mSamplePeaks;
};

}  // namespace dsp
