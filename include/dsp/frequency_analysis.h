#pragma once
// Frequency analysis: the averaged spectrum of a selection (FrequencyAnalysisWorker) and a
// linear-phase filter drawn as a magnitude curve (FFTFilt).
//
// FrequencyAnalysisWorker cuts each channel into frames of the FFT size, `hop` frames apart,
// windows them with one of its window types and averages the power of every bin over the frames
// (a power mean, so a steady tone reads its level and noise its mean power per bin). Frames are
// whole: the last partial one is left out, except that a selection shorter than one frame is read
// as one frame padded with zeros. Any partition of the input into blocks gives the same figures;
// Add never allocates.
//
// Levels: each window type has a level offset (GetFlagsAndOffsetFromWindowType), the factor that
// turns a bin's magnitude over the frame length into the RMS of a sine centred on that bin (about
// sqrt(2) over the window's mean). A bin reads 20 log10(offset x sqrt(mean |X[k]|^2) / N) dB, the
// DC and Nyquist bins 3 dB less (they hold no mirror image), so a full-scale sine centred on a
// bin reads -3.01 dB and a DC level of 0.5 reads -6.02 dB. Off the bin centre a sine reads lower
// by the window's scalloping loss. For the first six types the offsets match the windows to about
// 0.01 dB; the two Kaiser offsets are those of the table as they stand and read a centred sine
// about 0.11 dB (140 dB) and 0.17 dB (180 dB) low. Silence reads -infinity.
//
// FFTFilt builds a linear-phase FIR filter whose magnitude follows a drawn curve: points in
// Hz and dB, joined by straight lines on a logarithmic frequency axis, flat beyond the first and
// the last point. The curve is sampled on a fine grid, turned into a zero-phase impulse, cut to an
// odd number of taps under a Blackman window (so the response is the curve smoothed over about
// 6 x rate / taps Hz) and streamed through an FFTConvolver. Output lags input by GetLatency()
// frames: half the taps plus the convolver's block. Any partition gives bit-identical output.

#include <cstddef>
#include <vector>

#include "dsp/fft.h"
#include "dsp/fft_convolver.h"
#include "dsp/kestadsp_export.h"

namespace dsp {

class KESTADSP_API FrequencyAnalysisWorker {
public:
    enum FFTWindowType {
        Triangular = 0,
        Hann = 1,
        Hamming = 2,
        Blackman = 3,
        Welch = 4,
        BlackmanHarris = 5,
        Kaiser140 = 6,
        Kaiser180 = 7,
    };
    // flags := 0x2100 | type and offset := the shape's level offset; types 8 and above give
    // 0x2100 and the triangular offset.
    static void GetFlagsAndOffsetFromWindowType(int type, unsigned int& flags, double& offset);

    static constexpr int kMinFFTSize = 16;
    static constexpr int kMaxFFTSize = 1 << 16;
    static constexpr int kMaxChannels = 32;

    // Sets the worker up (allocates) for `numChannels` channels (1 ... 32), frames of `fftSize`
    // (a power of two, 16 ... 65536; others are rounded up to one) and `hop` frames between frame
    // starts (1 ... fftSize; 0 or less means half a frame). Forgets anything added before.
    void Init(int fftSize, int windowType, int numChannels, int hop = 0);
    // Forgets what was added; the set-up stays.
    void Reset();
    // Adds `numFrames` frames of channels 0 ... numChannels - 1 (those beyond the set-up count are
    // ignored; missing ones are silence).
    void Add(const float* const* data, int numChannels, int numFrames);
    // Reads a selection shorter than one frame as one padded frame; call once after the last Add.
    void Finish();

    int GetFFTSize() const { return mFFTSize; }
    int GetHop() const { return mHop; }
    int GetBinCount() const { return mFFTSize / 2 + 1; }
    int GetChannels() const { return mChannels; }
    long long GetFrameCount() const { return mFrames; }
    double GetOffset() const { return mOffset; }
    // Bin k's level in dB (see above) into levels[0 ... GetBinCount() - 1]: of channel `channel`,
    // or with -1 the power mean over all channels.
    void GetSpectrumDb(int channel, double* levels) const;

private:
    void AnalyseFrame();

    int mFFTSize = 0;
    int mHop = 0;
    int mChannels = 0;
    double mOffset = 0.0;
    int mFill = 0;
    long long mFrames = 0;
    std::vector<double> mWindow;
    std::vector<float> mInput;   // channel c's frame at c * fftSize
    std::vector<double> mPower;  // channel c's bins at c * bins
    std::vector<double> mWork;   // fftSize + 2: the windowed frame, then its spectrum
    std::vector<double> mSpectrum;
    IppFFT64fReal mFFT;
};

struct FFTFiltPoint {
    double frequency;  // Hz, > 0
    double gainDb;
};

class KESTADSP_API FFTFilt {
public:
    // Designs the filter for `curve` at `sampleRate` and sets up `numChannels` channels. Points
    // at or below 0 Hz or not finite are ignored; gains are held to -150 ... +60 dB; no point at
    // all is a flat 0 dB. `taps` is made odd; 0 (or less) chooses 2^m - 1 >= rate / 4.
    void Init(int numChannels, double sampleRate, const std::vector<FFTFiltPoint>& curve, int taps = 0);
    // The drawn curve at `frequency`, interpolated as the filter was designed from it.
    double GetCurveDb(double frequency) const;
    const std::vector<double>& GetImpulse() const { return mImpulse; }
    int GetTaps() const { return static_cast<int>(mImpulse.size()); }
    // Half the taps (the filter's own delay) plus the convolver's block.
    int GetLatency() const { return (GetTaps() - 1) / 2 + mConvolver.GetLatency(); }
    void Reset() { mConvolver.Reset(); }
    void Process(float** in, float** out, int numChannels, int numFrames) {
        mConvolver.Process(in, out, numChannels, numFrames);
    }

private:
    std::vector<FFTFiltPoint> mCurve;  // sorted by frequency
    std::vector<double> mImpulse;
    FFTConvolver mConvolver;
};

}  // namespace dsp
