#pragma once
// TonalLineCanceller: finds stationary spectral lines (mains hum and its harmonics, a whine, any
// tone that holds its frequency, level and phase for seconds) and subtracts them, so a line falls
// by far more than a gain rule can take it down, while what shares its bins but moves (a voice, a
// note) keeps everything but a band about a hertz wide around the line.
//
// Finding lines. Every 8 hops a Hann-windowed spectrum of the last 16 hops (N = 16 H, 0.37 s at
// 44.1 kHz, 2.7 Hz bins) is searched for peaks 15 dB over their surroundings (the lower quartile
// of the bins 5 to 24 away). A peak continues the one in the same or a neighbouring bin of the
// last search when its level moved less than 1.5 dB and its phase advanced as a steady sinusoid's
// does (the advance differs from the last one by less than 0.35 rad); the phase advances over the
// run give its frequency to a few millihertz. A run of 3 s makes it a line. A note is not a line:
// it changes level or phase (vibrato, chorus, a new attack) well within that. Once a line lies
// within 1% of a harmonic of 50 or 60 Hz, the mains family is known, and every other harmonic of
// it (to the 40th) that held steady for 0.56 s in the last 8 s joins as well: the weak high
// harmonics of hum are heard alone only in pauses.
//
// Cancelling. For every line the input is heterodyned at the line's frequency and summed per hop
// (H, the power of two nearest 23 ms); a Hann-weighted mean of those sums over 64 hops (1.5 s)
// centred on each hop boundary is the line's complex amplitude there, and the amplitude is
// interpolated linearly across the hop, the line rebuilt and subtracted. Each hop's sum counts in
// inverse proportion to the power (less the lines') of the 9 hops around it: what else sounds near
// the line (a voice, a chord) is the error of the estimate, and it is loudest where the programme
// is, so the estimate rests on the quiet stretches and a voice keeps what it has at the line. The centred window needs
// look-ahead, and a line found after 3 s of evidence is cancelled from where that evidence began:
// the output lags the input by GetLatency() = (L + 1) H frames, L H about 4 s. Sums of hops before
// the start of the stream, or after MarkEnd, weigh nothing, so the first and last seconds of a
// stream are cancelled as deeply as the rest.
//
// Lines stay until Resume; their frequency is fixed once found (a frequency error d Hz leaves
// about (pi d 1.5 s)^2 / 9 of the line: 0.05 Hz leaves −44 dB). Each channel is searched and
// cancelled on its own. Up to kMaxLines lines per channel, any channel count up to 32.
//
// Protocol: construct, Process blocks of any size (the output does not depend on the partition,
// bit for bit, and is the same run after run); Resume clears the lines and starts a new stream;
// MarkEnd after the last input frame, before feeding the silence that flushes the latency out.
// All state is allocated by the constructor; Process allocates nothing.

#include <cstdint>
#include <vector>

#include "dsp/dsp_process.h"
#include "dsp/fft.h"
#include "dsp/kestadsp_export.h"

namespace dsp {

class KESTADSP_API TonalLineCanceller : public DSPProcess {
public:
    static constexpr int kMaxChannels = 32;
    static constexpr int kMaxLines = 48;

    // The hop for a sample rate: the power of two nearest 23 ms, from 256 to 8192.
    static int HopFor(int sampleRate);

    TonalLineCanceller(int numChannels, int sampleRate);

    void Process(float** in, float** out, int numChannels, int numFrames) override;
    int GetLatency() const override { return mLatency; }
    // Clears the lines and the history: a new stream starts.
    void Resume();
    // The input ends after the frames given so far; what follows is padding (silence).
    void MarkEnd();

    // The lines a channel cancels, in the order they were found.
    int GetLineCount(int channel) const;
    // Frequency in Hz of line `index` of `channel`.
    double GetLineFrequency(int channel, int index) const;

private:
    struct Line {
        double cyclesPerFrame = 0.0;  // frequency / sample rate
        int64_t firstHop = 0;         // hop sums exist from this hop on
        int64_t cachedBoundary = -1;  // the last amplitude worked out, and where
        double cachedRe = 0.0, cachedIm = 0.0;
        double laneRe[8] = {}, laneIm[8] = {};  // e^(2 pi i f j) for the phasor's lanes j
        float stepRe = 1.0f, stepIm = 0.0f;     // the turn of eight frames
    };
    // What the search remembers of one bin of one channel.
    struct BinState {
        int32_t search = -2;            // the search that last saw a peak here
        int32_t run = 0;                // searches in the current run
        int32_t steadySeen = -1000000;  // last search that ended a run of kFamilyRun or more here
        float level = 0.0f;             // dB
        float startLevel = 0.0f;        // dB, at the start of the run
        float phase = 0.0f;             // at the centre of the window, rad
        float slip = 0.0f;              // advance beyond the prediction in the last step, rad
        double advance = 0.0;           // unwrapped phase advance over the run, rad
        double steadyCycles = 0.0;      // frequency / rate measured by the last steady run
    };

    void ProcessHop();
    void Search(int channel);
    void Activate(int channel, double cyclesPerFrame);
    bool HasLineNear(int channel, double cyclesPerFrame) const;
    void FindFamily(int channel);
    void HopSum(int channel, int line, int64_t hop, float* dst, double ar, double ai, double dr, double di);
    void Amplitude(int channel, int line, int64_t boundary, double& re, double& im) const;
    void PrepareWindow(int channel, int64_t boundary);
    double ValidShare(int64_t hop) const;
    void SetTrust(int channel, int64_t hop);
    float* Ring(int channel) { return mRing.data() + std::size_t(channel) * mRingLength; }

    int mChannels = 0;
    int mRate = 0;
    int mHop = 0;         // H
    int mSearchSize = 0;  // N
    int mBins = 0;        // N/2 + 1
    int mLookAhead = 0;   // L hops
    int mLatency = 0;     // (L + 1) H
    std::size_t mRingLength = 0;
    int mSumRing = 0;  // hop sums kept per line (a power of two)

    int64_t mFramesIn = 0;        // frames given to Process since Resume
    int64_t mEnd = -1;            // MarkEnd's frame, or −1
    int32_t mSearches = 0;        // searches since Resume
    std::vector<double> mFamily;  // per channel: the mains fundamental / rate, 0 while unknown

    std::vector<float> mRing;         // channels × ring: the input
    std::vector<float> mOut;          // channels × 2 H: the last two output hops
    std::vector<Line> mLines;         // channels × kMaxLines
    std::vector<int> mLineCount;      // channels
    std::vector<float> mSums;         // channels × kMaxLines × sum ring × 2 (re, im)
    std::vector<float> mHopPower;     // channels × sum ring: Σ x² of each hop
    std::vector<float> mLinePower;    // channels × sum ring: what the lines hold of it
    std::vector<float> mTrust;        // channels × sum ring: the weight of each hop's sums
    std::vector<BinState> mBinState;  // channels × bins
    std::vector<float> mWeights;      // 64: the amplitude window over hop sums
    // The window of one boundary weighted by the trust of its hops, shared by the lines whose sums
    // cover it all: w, Σ w v and Σ window v (v the share of real input).
    std::vector<double> mHopWeights;  // 64
    int64_t mWindowBoundary = -1;
    int mWindowChannel = -1;
    double mWindowWeight = 0.0, mWindowPlain = 0.0;
    IppFFT32R mFFT;
    std::vector<float> mWindow;    // N
    std::vector<float> mSpectrum;  // N + 2
    std::vector<float> mPower;     // bins
    std::vector<uint8_t> mPeak;    // bins: 1 where a bin is a peak over its shoulders
};

}  // namespace dsp
