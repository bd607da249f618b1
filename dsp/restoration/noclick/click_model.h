#pragma once
// ClickModel: the per-channel engine behind FindClicks and ReplaceClicks (not exported).
//
// Detection fits an all-pole model of order p to a block (autocorrelation by FFT, Levinson-Durbin),
// takes the magnitude of the prediction error e[n], and flags samples where e[n] stands out from a
// local RMS of the error that large values do not inflate. Flagged samples are shaped into runs;
// runs whose onsets form a regular grid (a rhythm, a buzz) are dropped; short runs are widened by
// two samples on each side. Repair fits the same model to a block and replaces the samples of the
// marked gaps by the least-squares autoregressive interpolation (see Repair).
//
// All sample values are on the 16-bit scale (full scale = 32768). Arrays are sized by Init for the
// largest block; Detect and Repair never allocate.

#include <cstdint>
#include <vector>

#include "dsp/fft.h"

namespace dsp::noclick {

struct ClickModelConfig {
    int32_t complexity = 16;
    double level = 80.0;  // threshold + 25; the flag factor T is level / 10
    int16_t wordA = 32;   // sizes the scratch area (at least 512 bytes per unit)
    int16_t wordB = 12;   // not interpreted
    uint8_t enabled = 1;
};

// A flagged run [start, end) relative to the first analysed sample.
struct ClickRun {
    int32_t start = 0;
    int32_t end = 0;
};

class ClickModel {
public:
    // Prediction order p = order clamped to 1 ... kMaxOrder; blocks of at most blockLength samples.
    // Returns false (and stays disabled) when the configuration disables the engine or an
    // allocation fails.
    bool Init(int order, int blockLength, float sampleRate, const ClickModelConfig& config);
    bool IsEnabled() const { return mEnabled; }
    int GetOrder() const { return mOrder; }

    // Analyses x[0 ... count) with x[-p ... -1] as history (count <= block length). Returns the
    // number of click runs, readable through Runs().
    int Detect(const float* x, int count);
    const ClickRun* Runs() const { return mRuns.data(); }
    // Runs of the last Detect cleared as part of a regular train (before widening).
    int NumCleared() const { return mNumCleared; }
    const ClickRun* Cleared() const { return mCleared.data(); }

    // Repair of x[0 ... count): BeginRepair clears the mask, MarkGap masks [start, end) (clamped
    // to the block), Repair refits the model to the whole block and rewrites the masked samples.
    void BeginRepair(int count);
    void MarkGap(int start, int end);
    bool HasGaps() const { return mMasked > 0; }
    void Repair(float* x, int count);

    static constexpr int kMaxOrder = 130;
    static constexpr int kSlice = 1024;

private:
    // Steps shared by detection and repair: autocorrelation of `count` samples from x (history
    // included by the caller), Levinson-Durbin into mA, coefficient autocorrelation into mC.
    // False for a silent block.
    bool FitModel(const float* x, int count);
    void Autocorrelation(const float* x, int count);
    void Levinson();
    void FlagSlice(int from, int to, float t);
    void ShapeSlice(int from, int to);
    void RejectPeriodicTrains(int count);
    bool EstimateGrid(const int* onsets, int numOnsets, double& period, double& phase);
    void CollectRuns(int count);
    void SolveCluster(float* x, int count, int from, int to);

    bool mEnabled = false;
    int mOrder = 0;
    int mBlockLength = 0;
    int mSampleRate = 44100;
    ClickModelConfig mConfig;

    std::vector<float> mA;     // a[0 ... p], a[0] = -1
    std::vector<double> mR;    // autocorrelation r[0 ... p]
    std::vector<double> mC;    // coefficient autocorrelation c[0 ... p]
    std::vector<double> mLev;  // Levinson scratch
    std::vector<uint8_t> mFlag;
    std::vector<float> mError;      // |prediction error| per sample
    std::vector<double> mEnergy;    // running energy s[n]
    std::vector<double> mBand;      // banded system of the interpolation, row-major (p + 1) per row
    std::vector<double> mRhs;       // its right-hand side, then its solution
    std::vector<int32_t> mUnknown;  // sample index of each unknown
    std::vector<uint8_t> mScratch;  // periodic marks per onset, fit marks per window onset
    std::vector<float> mHamming;    // 1022-point Hamming table
    std::vector<double> mLagWeight;
    std::vector<ClickRun> mOnsets;  // shaped runs, at most 200 per slice
    std::vector<int> mRelative;     // onsets of one window, relative to its start
    std::vector<ClickRun> mRuns;
    std::vector<ClickRun> mCleared;
    int mNumCleared = 0;
    int mNumSamples = 0;
    int mNumOnsets = 0;
    int mNumRuns = 0;
    int mMasked = 0;
    int mMaskLength = 0;

    // Autocorrelation by FFT: engine and arrays sized for the largest transform, the engine
    // re-planned only when the input length changes.
    // A copy of the model plans nothing new but takes transform scratch of its own, so copies can
    // run on different threads.
    detail::OwnScratch<IppFFT64fReal> mFft;
    int mFftInputLength = -1;
    std::vector<double> mRe, mIm;  // transform input and CCS output
};

}  // namespace dsp::noclick
