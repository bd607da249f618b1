#pragma once
// Sample-rate conversion of one channel of float audio.
//
// Resample: a polyphase windowed-sinc filter. For source and destination rates rounded to whole
// hertz, g = gcd, the filter has L = dest / g phases and the input advances by step = source / g
// phase units (1/L of an input sample) per output sample; above 1000 phases L is held at 1000
// and step = source * 1000 / dest is no longer whole, and each output then blends the two
// neighbouring phases linearly. Every phase is a row of `order` taps (odd; 255 by default) of a
// sinc scaled to the lower of the two Nyquist frequencies, under a Kaiser window for a stop-band
// floor of 60 dB or more (beta = 0.1102 (floor - 8.7)) and a Blackman window below that. The
// cut-off sits at the lower Nyquist frequency itself (-6 dB there), moved down slightly by the
// Nyquist shift; the table is built once in Initialize.
//
// Latency: the filter's half-length (order - 1) / 2 input samples is x = ((order - 1) / 2) * dest
// / source output samples; the first output sample's phase is offset by x - floor(x), so the
// output is the input delayed by exactly GetLatency() = floor(x) output samples. Output k is the
// band-limited input at source time (k - GetLatency()) / dest. The input before the first sample
// is silence.
//
// Lifecycle: configure (SetSampleRates, SetFilterOrder, SetNoiseFloor, SetNyquistShift), then
// Initialize (allocates; keeps the table when nothing it depends on changed), then Process any
// number of times; Deinitialize before reconfiguring: while initialised the rate, order and shift
// setters are ignored. Equal rates give a pass-through (latency 0) that needs no Initialize.
//
// The table is built in double. For a stop-band floor of 140 dB or less and a whole step, the
// inner loop runs on a single-precision copy of it (products and partial sums in float, the
// partial sums added in double): its rounding stays under about -145 dB, below such a floor, and
// it runs about twice as fast. Deeper floors, and steps that are not whole, compute in double.
//
// Process over any partition of the input into blocks gives the same samples, bit for bit, and
// every instruction-set build gives the same bits. Process never allocates. One thread at a time;
// copies are deep and continue the stream where the original stands.
//
// LinearResample: straight-line interpolation between neighbouring input samples at integer rates,
// for uses where speed matters more than alias rejection (no filter: images and aliases are only
// as low as the interpolation makes them). Output k is the input at time k * in / out, carried
// across blocks with an exact integer phase. It needs the sample after each output's position,
// so by default the output is delayed by one input sample (GetLatency() output frames, rounded);
// SetEatLatency(true) starts the output at the input's first sample instead.

#include <cstdint>

#include "dsp/kestadsp_export.h"

namespace dsp {

class KESTADSP_API Resample {
public:
    // 255 taps, 48000 -> 44100 computed, then left as a pass-through (0 phases) until
    // SetSampleRates; the latency field keeps the computed 116.
    Resample();
    ~Resample();
    Resample(const Resample& other);
    Resample& operator=(const Resample& other);

    // Ignored while initialised; a rate that is not positive keeps the previous one. Equal rates
    // make a pass-through with latency 0.
    void SetSampleRates(int source, int dest);
    // The same, for rates given as float (rounded to whole hertz unless equal); the flag is
    // accepted for the host's interface and has no effect.
    void SetSampleRates(float source, float dest, bool exact);
    // Ignored while initialised or for n <= 0: order = (n - 1) with its lowest bit set, so an odd n
    // is kept and an even one becomes the odd number below it.
    void SetFilterOrder(int n);
    // Stop-band depth in dB; taken at the next Initialize (not blocked while initialised).
    void SetNoiseFloor(double dB);
    // Moves the cut-off down from the lower Nyquist frequency (0.3 by default); ignored while
    // initialised.
    void SetNyquistShift(double shift);

    // Builds (or keeps) the table, clears the history and marks the object initialised.
    void Initialize();
    // Clears the initialised mark; frees the table and history unless `keepTable` is true, in
    // which case the next Initialize may reuse them.
    void Deinitialize(bool keepTable = false);
    bool IsInitialized() const { return mInitialized != 0; }

    float GetSourceSampleRate() const { return mSourceRate; }
    float GetDestSampleRate() const { return mDestRate; }
    // Output samples of delay (0 for a pass-through set by equal rates).
    int GetLatency() const { return mLatency; }
    // (int)(n * dest / source + 2): room for the output of n input samples.
    int GetOutputBufferSize(int n) const;

    // Filters n input samples into `out` (room for GetOutputBufferSize(n)) and returns the number
    // of output samples written. A pass-through copies. Before Initialize (with a filter to run)
    // it writes nothing and returns 0.
    int Process(float* in, float* out, int n);

    int GetFilterOrder() const { return mOrder; }
    int GetStride() const { return mStride; }
    int GetPhases() const { return mPhases; }
    double GetStep() const { return mStep; }
    double GetNoiseFloor() const { return mNoiseFloor; }
    double GetNyquistShift() const { return mNyquistShift; }
    // Phase position of the first output, in input samples after the window's newest tap.
    double GetPhaseStart() const { return mPhaseStart; }
    // Row `phase` of the table (order taps, then zeros up to the stride); null before Initialize.
    const double* GetTableRow(int phase) const;

private:
    void PreComputeStuff();
    // One row of `taps` coefficients for a fractional offset of the centre, cut-off scale `scale`.
    void BuildTable(int taps, double offset, double scale, double* out) const;
    double CutoffScale() const;
    bool SnapshotMatches() const;
    // Row length of the single-precision table: the stride with zeros on both sides.
    std::size_t SingleStride() const;
    void ResetHistory();
    void Release();
    void CopyFrom(const Resample& other);
    // Process in chunks that fit the history buffer.
    int Process2(float* in, float* out, int n);
    // Appends n input samples (at most the free room) and writes every output they complete;
    // `blend` interpolates between neighbouring phases (a step that is not whole).
    int ProcessInternal(float* in, float* out, int n, bool blend);
    // Every output the held input completes, for a whole step (row by row) or a blended one.
    int ProduceByRows(float* out);
    int ProduceBlended(float* out);

    int32_t mInitialized = 0;
    int32_t mOrder = 255;
    float mSourceRate = 48000.0f;
    float mDestRate = 44100.0f;
    int32_t mPhases = 0;
    double mStep = 160.0;
    int32_t mLatency = 116;
    int32_t mStride = 256;
    struct Snapshot {
        float sourceRate = 0.0f, destRate = 0.0f;
        int32_t order = 0, stride = 0, phases = 0;
        double step = 0.0, noiseFloor = 0.0, nyquistShift = 0.0;
    } mSnapshot;
    double mPhaseStart = 0.0;
    double mPhaseFrac = 0.0;
    // mTableRows rows of mStride coefficients: one per phase, plus row L (the centre one whole
    // input sample on) when phases are blended. 64-byte aligned.
    double* mTable = nullptr;
    // The same rows rounded to float, for floors the single-precision loop serves, with zeros on
    // both sides (SingleStride); else null.
    float* mTableSingle = nullptr;
    int32_t mTableRows = 0;
    // Input carried between calls and the chunk being filtered: the newest order - 1 samples (less
    // than the stride) are kept from call to call, after them room for a chunk of input and eight
    // zeros the last window may read past its end.
    float* mHistory = nullptr;
    int32_t mHistoryCapacity = 0;
    int32_t mHistoryFill = 0;     // samples held
    int64_t mHistoryStart = 0;    // stream index of mHistory[0]
    int64_t mNextInput = 0;       // stream index of the next input sample
    int64_t mWindowEnd = 0;       // stream index of the next output's newest tap
    int32_t mPhase = 0;           // the next output's phase (row)
    double mPhaseFraction = 0.0;  // between mPhase and mPhase + 1, when blending
    double mNoiseFloor = 150.0;
    double mNyquistShift = 0.3;
    double mPi = 3.141592653589793;
    double mTwoPi = 6.283185307179586;
};

class KESTADSP_API LinearResample {
public:
    // Rates in hertz; one that is not positive is taken as 44100.
    LinearResample(int inputRate = 44100, int outputRate = 44100);

    // A rate that is not positive is ignored. The stream continues: the next output's position
    // is kept in time (rounded down to the new grid).
    void SetInputSampleRate(int rate);
    void SetOutputSampleRate(int rate);
    int GetInputSampleRate() const { return mInputRate; }
    int GetOutputSampleRate() const { return mOutputRate; }
    // output rate / input rate.
    double GetRatio() const;

    // Places the next output `fraction` (0 ... 1, clamped) of an input sample after the last
    // sample taken in, as far as the 1/output-rate grid allows.
    void SetState(double fraction);
    // Back to the start of a stream: silence before it, the first output at its start (eaten
    // latency) or one input sample before it.
    void Reset();
    // Chooses whether the one-sample delay is removed; resets the stream.
    void SetEatLatency(bool eat);
    bool GetEatLatency() const { return mEatLatency; }
    // The number of output frames the next Process of n input frames returns, exactly.
    int GetProducedFramesByConversion(int n) const;
    // Output frames of delay: one input sample, rounded to output frames; 0 when eaten.
    int GetLatency() const;

    // n input frames in; returns the output frames written (GetProducedFramesByConversion(n)).
    int Process(float* in, float* out, int n);

private:
    int32_t mInputRate;
    int32_t mOutputRate;
    bool mEatLatency = false;
    float mPrevious = 0.0f;
    // Position of the next output, in 1/mOutputRate of an input sample, counted from the next
    // input sample (-mOutputRate is the previous sample, held in mPrevious).
    int64_t mPosition = 0;
};

}  // namespace dsp
