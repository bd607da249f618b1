#pragma once
// Amplitude statistics of a selection, per channel: FindLevels, a single-pass analyzer, fills a
// Stats record (one StatData per channel) that the host reads back with GetStats.
//
// Levels are relative to full scale (a sample of 1.0 is 0 dBFS). Per channel:
// - dcOffset: the mean sample value; minimum, maximum: the extreme samples.
// - peakDb: 20 log10 of the largest magnitude; rmsDb: of the root mean square; crestFactorDb:
//   peakDb - rmsDb (0 for silence). Silence reads -infinity.
// - loudestRmsDb, quietestRmsDb: the RMS of the loudest and of the quietest 50 ms window, windows
//   laid end to end from the selection start (round(rate / 20) frames; a selection shorter than
//   one window is one window of what there is).
// - fullScaleCount: samples at or beyond the largest positive 16-bit value, 32767/32768 in
//   magnitude, where integer audio of 16 bits or more has clipped.
// - longestRun: the most consecutive samples of one value (a flat top, a dropout, digital
//   silence).
// - bitDepth: the fewest bits of a signed integer format (full scale +-1) that hold every sample
//   exactly; 0 for digital silence; above 24 means values no integer format of 24 bits holds
//   (float audio, or processed audio), capped at 32.
// - zeroCrossings: changes of sign between consecutive samples (0 counts as positive).
//
// Driving: construct with the rate, SetSelection(start, length), Start (the host pointer is not
// used), Analyze blocks of GetDesiredBlockSize() frames (fewer at the end) until IsCompleted, then
// Done, which finishes the figures; GetStats answers after Done. Any partition into blocks gives
// the same figures; Analyze never allocates. Channels beyond Stats::kMaxChannels are ignored.

#include <cstdint>

#include "dsp/dsp_analyzer.h"
#include "dsp/kestadsp_export.h"

namespace dsp {

struct StatData {
    long long frames = 0;
    double dcOffset = 0.0;
    float minimum = 0.0f;
    float maximum = 0.0f;
    double peakDb = 0.0;
    double rmsDb = 0.0;
    double loudestRmsDb = 0.0;
    double quietestRmsDb = 0.0;
    double crestFactorDb = 0.0;
    long long fullScaleCount = 0;
    long long longestRun = 0;
    int32_t bitDepth = 0;
    long long zeroCrossings = 0;
};

struct Stats {
    static constexpr int kMaxChannels = 32;
    int32_t numChannels = 0;
    StatData channel[kMaxChannels];
};

class KESTADSP_API FindLevels : public DSPAnalyzer {
public:
    explicit FindLevels(int sampleRate);

    bool SetSelection(long long start, long long length) override;
    int32_t GetDesiredBlockSize() const override { return 4096; }
    bool IsCompleted() const override;
    float GetProgress() const override;
    void Start(float* hostPointer) override;
    long long Analyze(float** data, int numChannels, int numFrames) override;
    void Done() override;

    const Stats& GetStats() const { return mStats; }

private:
    // What a channel gathers while it is read; Done turns it into its StatData.
    struct Running {
        double sum = 0.0;
        double squares = 0.0;
        float minimum = 0.0f;
        float maximum = 0.0f;
        float previous = 0.0f;
        long long run = 0;
        long long longestRun = 0;
        long long fullScale = 0;
        long long crossings = 0;
        int lowestExponent = 0;  // of the least significant bit set in any sample
        bool any = false;        // a non-zero sample was seen
        double windowSquares = 0.0;
        double loudestWindow = -1.0;  // largest and smallest window sums of squares; -1: none
        double quietestWindow = -1.0;
    };

    void CloseWindow(int channels);

    int mSampleRate;
    int mWindowFrames;
    long long mSelectionLength = 0;
    long long mFramesRead = 0;
    int mWindowFill = 0;
    int mChannels = 0;
    Running mRunning[Stats::kMaxChannels];
    Stats mStats;
};

}  // namespace dsp
