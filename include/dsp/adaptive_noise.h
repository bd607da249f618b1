#pragma once
// AdaptiveNoise: streaming noise reduction that needs no noise print.
//
// The noise spectrum is tracked continuously, per channel and bin, while the audio plays:
//   - a speech-presence probability for each bin, from its power against the current noise
//     estimate (a fixed a-priori SNR of 15 dB under presence), weights the frame's power into a
//     running estimate of the noise (the minimum-mean-square-error update: a bin that is surely
//     noise replaces the estimate, a bin that surely holds signal leaves it alone);
//   - the estimate may rise only towards a bound from the minimum of the smoothed power over the
//     last two seconds or so, and only as far as the bin fluctuates like noise: a steady tone or a
//     held vowel is neither below its own minimum nor noise-like, so it is not learned as noise,
//     while a noise floor that rises is followed within about two seconds;
//   - the estimate the gains use follows the tracker down at once but rises no faster than
//     0.05 dB/s unless most of the band rises together in a frame that may hold noise alone (a
//     change of the noise, followed within a few seconds): music holds some bins well over the
//     noise for long stretches, and without this limit the tracker would take a sustained chord
//     for noise. Bins whose tracker reads far over the limit hold signal: they do not creep up,
//     and follow the rest of the band only when it rises or falls together;
//   - the first quarter second seeds the estimate with its mean power, the frame in hand included
//     (the engine's first frame scaled for the zeros before the audio), so the noise falls as far
//     from the first frame as later; a bin whose estimate stays too high falls back within a few
//     frames, so the audio may start with signal.
// The gain of every bin is the log-spectral-amplitude estimator with a decision-directed
// a-priori SNR, raised to the bin's conditional presence probability and multiplied by the floor
// gain to the rest, G = G_lsa^p · Gmin^(1−p). The a-priori absence probability behind p comes
// from the a-priori SNR smoothed over frames and over three and over thirty-one neighbouring
// bins, so an isolated noise peak (the source of "musical noise") is held at the floor while
// broad, sustained signal opens the gain. A frame whose mean a-priori SNR over 120 Hz ... 8.6 kHz
// is low holds no signal at all (a pause between words or notes): there the presence is scaled
// down, to nothing in a frame well under −7 dB, so every bin falls to the floor, a burst of the
// noise far over its estimate included. So does a frame whose power follows the estimate's shape
// bin for bin (noise alone, though its level has moved off the estimate). Each bin then takes the
// largest gain of itself and its two neighbours, so a component keeps its whole main lobe.
// Gmin = 10^(−reductionDb/20): noise-only bins, hum lines included, fall by close to reductionDb.
// Pauses go further: the floor of a frame that holds no programme is up to 40 dB lower, reached
// over 0.15 s after the programme stops and left at once when it returns, the same for every bin
// (what is heard between words is the same noise, much quieter, not a gated remnant).
//
// Geometry: OverlapSave with a Hann window, N = FrameLengthFor(sampleRate) (1024 at 44.1 and 48
// kHz, about 23 ms), a hop of N/2 (crossfade L = N/4 at offset P = N/2). Latency: N frames.
// Any channel count up to 32; each channel is tracked on its own. The time constants are given
// in seconds and converted with the hop, so they mean the same at every sample rate.
//
// Protocol: construct, Resume before every stream, Process blocks of any size (the output does
// not depend on the partition, bit for bit, and is the same run after run); ParameterChanged
// after SetReductionDb. All state is allocated by the constructor; Process allocates nothing.
// reductionDb 0 passes the audio through the transform pair unchanged (up to float rounding).

#include <vector>

#include "dsp/kestadsp_export.h"
#include "dsp/overlap_save.h"

namespace dsp {

namespace adaptive {
struct AdaptiveKernels;
struct FrameConstants;
struct FrameRows;
}  // namespace adaptive

class KESTADSP_API AdaptiveNoise : public OverlapSave {
public:
    static constexpr double kDefaultReductionDb = 40.0;

    // The FFT length for a sample rate: the power of two nearest 23 ms, from 256 to 8192.
    static int FrameLengthFor(int sampleRate);

    // Two channels at 44.1 kHz.
    AdaptiveNoise() : AdaptiveNoise(2, 44100) {}
    AdaptiveNoise(int numChannels, int sampleRate, double reductionDb = kDefaultReductionDb);

    // The largest reduction in dB (0 ... 120; 0 switches the processing off). Takes effect at
    // ParameterChanged.
    void SetReductionDb(double reductionDb) { mReductionDb = reductionDb; }
    double GetReductionDb() const { return mReductionDb; }
    void ParameterChanged() override;
    // With `residual`, the output is what the reduction removes (input minus cleaned).
    void SetResidualOutput(bool residual) { mResidual = residual; }

    // Clears the tracked noise and starts a new stream.
    void Resume() override;

    // The tracked noise of a channel's bin as a per-sample power: white noise of variance σ²
    // reads σ² in every bin once tracked. 0 before the first frame.
    double GetNoisePower(int channel, int bin) const;

private:
    void OnSpectrum(float** re, float** im, int numChannels, int numBins) override;
    bool ResidualOutput() const override { return mResidual && mReductionDb != 0.0; }
    void ReduceChannel(int channel, float* re, float* im);
    void FramePresence(const float* xi, adaptive::FrameConstants& constants) const;
    double FrameSpread(const adaptive::FrameRows& frame, const float* noise) const;

    // Per bin of every channel, one row each (mBins floats).
    enum Row {
        kNoise,         // λ: the noise power the gains use (|X|² units)
        kTracked,       // the tracker's estimate, before the rise limit
        kCeiling,       // the rise limit
        kPresence,      // smoothed speech-presence probability of the tracker
        kPrevClean,     // G_lsa² · |X|² of the last frame, for the decision-directed SNR
        kPrioriSmooth,  // a-priori SNR smoothed over frames
        kSmoothPower,   // power smoothed over frames, for the minimum search
        kSubMin,        // minimum of kSmoothPower in the current sub-window
        kWindowMin,     // minimum over the completed sub-windows
        kLogMean,       // running mean of ln|X|²
        kLogSquare,     // running mean of (ln|X|²)²
        kRows
    };
    static constexpr int kSubWindows = 8;

    float* RowOf(int channel, Row row) { return mState.data() + (std::size_t(channel) * kRows + row) * mBins; }
    const float* RowOf(int channel, Row row) const {
        return mState.data() + (std::size_t(channel) * kRows + row) * mBins;
    }

    int mBins = 0;
    double mReductionDb = kDefaultReductionDb;
    bool mResidual = false;

    // Per-frame constants from the hop and the reduction.
    float mFloorLog = 0.0f;       // ln Gmin
    float mNoiseAlpha = 0.0f;     // smoothing of the noise update
    float mPresenceAlpha = 0.0f;  // smoothing of the tracker's presence probability
    float mDdAlpha = 0.0f;        // decision-directed weight of the last frame
    float mPrioriAlpha = 0.0f;    // smoothing of the a-priori SNR behind the absence probability
    float mPowerAlpha = 0.0f;     // smoothing of the power for the minimum search
    float mLogAlpha = 0.0f;       // smoothing of the log-power moments
    float mCreep = 1.0f;          // largest rise per frame of a stuck estimate (power ratio)
    float mSlowDb = 0.0f;         // move per frame of a ceiling on its own (dB)
    float mFastDb = 0.0f;         // and when the whole band moves
    float mPauseRiseDb = 0.0f;    // largest rise per frame of the pause depth (dB)
    int mFrameBinLow = 1;         // the band whose mean a-priori SNR says whether a frame holds signal
    int mFrameBinHigh = 2;
    int mSeedFrames = 0;            // frames averaged into the first estimate
    int mSubWindowFrames = 0;       // frames per sub-window of the minimum search
    double mWindowEnergy = 0.0;     // Σ w² of the analysis window
    float mFirstFrameScale = 1.0f;  // Σ w² over Σ w² of the part of the window over the first frame's samples

    long long mFrame = 0;                                 // frames since Resume
    std::vector<float> mState;                            // channels × kRows × bins
    std::vector<float> mMinHistory;                       // channels × kSubWindows × bins
    std::vector<float> mPauseDb;                          // per channel: how far under the floor (dB)
    std::vector<float> mScratch;                          // 8 × bins
    const adaptive::AdaptiveKernels* mKernels = nullptr;  // the per-bin loops built for this CPU
};

}  // namespace dsp
