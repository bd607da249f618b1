#pragma once
// Filter sections: one first- or second-order recursive filter (a biquad when second order) for
// one channel, with a fixed shape chosen by its class.
//
//   shape                        single precision   double precision
//   first-order high shelf       fHISHELVE          dHISHELVE
//   first-order low shelf        fLOSHELVE          dLOSHELVE
//   second-order high shelf      fHISHELVE2         dHISHELVE2
//   second-order low shelf       fLOSHELVE2         dLOSHELVE2
//   peak / cut                   fPARA              dPARA
//   notch                        fNotch             dNotch
//
// The f classes hold coefficients and memory in float, the d classes in double; both design in
// double. A section keeps three coefficient sets: the running set (used by the recursion), the
// increment set (per-sample step of a glide) and the target set (written by SetupCoefficients).
// A change of settings glides linearly from the running set to the new target over rampLength
// samples (smoothing time x sample rate, truncated) and lands on the exact target on the last
// sample of the glide, so a change never clicks. The recursion runs in direct form I, or, after
// setStateVariable(true), as an equivalent two-state state-variable realisation computed from the
// same coefficients; first-order shapes always run their first-order recursion.
//
// Units: sample rate and frequencies in Hz, gains in dB (linear = 10^(dB/20)), smoothing time in
// seconds, ramp lengths in samples. Latency: none (a recursive filter; the phase is the design's).
// computeResponse returns a linear magnitude of the target set.
//
// Usage: Setup (which enables the section only for a non-zero gain), or SetupCoefficients then
// enable; then processOneSample / processInplace. Each later SetupCoefficients glides from the
// current running set, mid-glide or not. setSmoothingTime reads the sample rate stored at that
// moment: call it again after SetupCoefficients changed the rate. With a smoothing time of 0 the
// running set never moves by itself; call TerminateRamp to take the new target.
//
// Copies: copy construction copies the flags and settings (rates, frequency, gain, bandwidth,
// smoothing time, ramp counters) but starts from identity coefficient sets and cleared memory;
// assignment copies everything, coefficients and memory included. Copy a section that is not
// gliding, or set it up again, before running the copy.
//
// Processing entry points run with flush-to-zero / denormals-are-zero set and restore the
// caller's floating-point mode on return, so decaying tails never go subnormal. No allocation
// anywhere. One thread at a time per section.

#include <array>
#include <cstdint>

#include "dsp/kestadsp_export.h"

namespace dsp {

class fDeskFilter;
namespace detail {
struct SectionLanes;  // runs two channels' sections side by side (library-internal)
}

// Indices into a coefficient set: direct form (b0 ... a2), then state-variable form (A11 ... D).
struct FilterCoefficient {
    enum Index : int {
        b0 = 0,  // feed-forward, current input
        b1,      // feed-forward, x1
        b2,      // feed-forward, x2 (unused by first-order shapes)
        a1,      // feedback on y1
        a2,      // feedback on y2 (unused by first-order shapes)
        A11,     // s1 from s1
        A12,     // s1 from s2
        A21,     // s2 from s1
        A22,     // s2 from s2
        B1,      // s1 from input
        B2,      // s2 from input
        C1,      // output from s1
        C2,      // output from s2
        D,       // output from input
        Count
    };
};

// The recursion memory of one section: x1 (previous input), x2 (input before that), y1 (previous
// output), y2 (output before that). In state-variable mode mX1 and mX2 hold the state variables
// s1 and s2 and the other two are unused.
template <typename T>
class FilterState {
public:
    FilterState() = default;
    FilterState(const FilterState&) = default;
    FilterState& operator=(const FilterState&) = default;
    virtual ~FilterState() = default;
    virtual void clear() { mX1 = mX2 = mY1 = mY2 = T(0); }

    T mX1 = T(0);
    T mX2 = T(0);
    T mY1 = T(0);
    T mY2 = T(0);
};

// Settings and flags common to both precisions. The six float arguments of Setup and
// SetupCoefficients are: sample rate (Hz), frequency (Hz), gain (dB), q (bandwidth in Hz =
// frequency / q), and two further values that no shape reads.
class KESTADSP_API FilterSection {
public:
    FilterSection();
    FilterSection(const FilterSection&) = default;
    FilterSection& operator=(const FilterSection&) = default;
    virtual ~FilterSection();

    // Zeroes the recursion memory.
    virtual void ClearState() = 0;
    // Disabled -> enabled: the running set restarts from the identity and glides to the target
    // (a fade-in). Already enabled: nothing.
    virtual void enable();
    // Off at once, no glide; a disabled section passes samples unchanged and holds its glide.
    virtual void disable();
    // Sets the flag only (no fade-in).
    virtual void setEnable(bool on);
    virtual bool isEnabled() const;

    virtual float processOneSample(float x) = 0;
    virtual double dprocessOneSample(double x) = 0;
    // Sample for sample the same as `count` calls of processOneSample (dprocessOneSample).
    virtual void processInplace(float* data, int count) = 0;
    virtual void dprocessInplace(double* data, int count) = 0;

    // |H| of the target set at `frequency` Hz times `scale`; `scale` itself when disabled. Uses the
    // second-order formula for every shape (first-order shapes have b2 = a2 = 0).
    virtual float computeResponse(float frequency, float scale) = 0;

    // SetupCoefficients, then ClearState, then enabled = (gainDb != 0).
    virtual void Setup(float sampleRate, float frequency, float gainDb, float q, float p5, float p6);
    // Designs the target set for the shape, stores the settings and starts a glide (SetupRamp).
    virtual void SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) = 0;
    // Fills target A11 ... D from target b0 ... a2.
    virtual void ConvertCoefficientsToStateVariableForm() = 0;
    // Copies the three sets, the ramp counters and the enabled flag from a section of the same
    // precision (does nothing for a section of the other precision), then clears the memory.
    virtual void CopyCoefficients(FilterSection& other) = 0;
    // smoothingTime = seconds; rampLength = trunc(sampleRate x seconds) with the stored rate.
    virtual void setSmoothingTime(float seconds);
    virtual float getSmoothingTime() const;
    // A change of mode clears the memory first. Off -> on converts the target to state-variable
    // form and glides to it; on -> off only sets the flag.
    virtual void setStateVariable(bool on);
    virtual bool isStateVariable() const;
    // Computes the increment set for a glide of rampLength samples; returns true (and starts no
    // glide) when nothing in the active form changes.
    virtual bool SetupRamp() = 0;
    // Jumps to the target set at once.
    virtual void TerminateRamp() = 0;
    // Running and target sets := identity, no glide.
    virtual void ClearCoefficients() = 0;

    bool IsRamping() const { return mRampRemaining != 0; }
    int32_t getRampRemaining() const { return mRampRemaining; }
    int32_t getRampLength() const { return mRampLength; }
    float getSampleRate() const { return mSampleRate; }
    float getFrequency() const { return mFrequency; }
    float getGainDb() const { return mGainDb; }
    // Recorded by the second-order shelves and the notch only; 0 until then.
    float getBandwidth() const { return mBandwidth; }
    // The two further values: zero from construction and carried with the object.
    float getParam5() const { return mParam5; }
    float getParam6() const { return mParam6; }

protected:
    void setFirstOrder(bool on) { mFirstOrder = on; }
    bool isFirstOrder() const { return mFirstOrder; }
    void setDoublePrecision(bool on) { mDoublePrecision = on; }
    bool isDoublePrecision() const { return mDoublePrecision; }
    // Running set := identity (the start of a fade-in).
    virtual void resetRunningToIdentity() = 0;
    // Stores what every shape records; the bandwidth is stored by the shapes that record it.
    void storeSettings(float sampleRate, float frequency, float gainDb) {
        mSampleRate = sampleRate;
        mFrequency = frequency;
        mGainDb = gainDb;
    }

    bool mFirstOrder = false;
    bool mStateVariable = false;
    bool mDoublePrecision = false;
    bool mEnabled = false;
    float mSampleRate = 44100.0f;
    float mFrequency = 0.0f;
    float mGainDb = 0.0f;
    float mBandwidth = 0.0f;
    float mParam5 = 0.0f;
    float mParam6 = 0.0f;
    float mSmoothingTime = 0.03f;
    int32_t mRampRemaining = 0;
    int32_t mRampLength = 1323;

private:
    friend class fDeskFilter;  // reads the precision and order of the section it holds
};

// Single-precision coefficient sets and memory; all arithmetic of processOneSample in float.
class KESTADSP_API fFilterSection : public FilterSection {
public:
    using Coefficients = std::array<float, FilterCoefficient::Count>;

    fFilterSection();
    // Settings only: identity coefficient sets, cleared memory.
    fFilterSection(const fFilterSection& other);
    // Everything.
    fFilterSection& operator=(const fFilterSection& other);
    ~fFilterSection() override;

    void ClearState() override;
    float processOneSample(float x) override;
    double dprocessOneSample(double x) override;
    void processInplace(float* data, int count) override;
    void dprocessInplace(double* data, int count) override;
    float computeResponse(float frequency, float scale) override;
    void ConvertCoefficientsToStateVariableForm() override;
    void CopyCoefficients(FilterSection& other) override;
    bool SetupRamp() override;
    void TerminateRamp() override;
    void ClearCoefficients() override;

    const Coefficients& runningCoefficients() const { return mRunning; }
    const Coefficients& incrementCoefficients() const { return mIncrement; }
    const Coefficients& targetCoefficients() const { return mTarget; }
    const FilterState<float>& state() const { return mState; }

protected:
    void resetRunningToIdentity() override;
    // Target b0 ... a2 := the given values (rounded to float); A11 ... D untouched.
    void setTargetDirectForm(double b0, double b1, double b2, double a1, double a2);
    void setTargetFirstOrder(double b0, double b1, double a1);

    Coefficients mRunning;
    Coefficients mIncrement;
    Coefficients mTarget;
    FilterState<float> mState;
};

// Double-precision coefficient sets and memory; all arithmetic in double.
class KESTADSP_API dFilterSection : public FilterSection {
public:
    using Coefficients = std::array<double, FilterCoefficient::Count>;

    dFilterSection();
    // Settings only: identity coefficient sets, cleared memory.
    dFilterSection(const dFilterSection& other);
    // Everything.
    dFilterSection& operator=(const dFilterSection& other);
    ~dFilterSection() override;

    void ClearState() override;
    float processOneSample(float x) override;
    double dprocessOneSample(double x) override;
    void processInplace(float* data, int count) override;
    void dprocessInplace(double* data, int count) override;
    float computeResponse(float frequency, float scale) override;
    void ConvertCoefficientsToStateVariableForm() override;
    void CopyCoefficients(FilterSection& other) override;
    bool SetupRamp() override;
    void TerminateRamp() override;
    void ClearCoefficients() override;

    const Coefficients& runningCoefficients() const { return mRunning; }
    const Coefficients& incrementCoefficients() const { return mIncrement; }
    const Coefficients& targetCoefficients() const { return mTarget; }
    const FilterState<double>& state() const { return mState; }

protected:
    void resetRunningToIdentity() override;
    void setTargetDirectForm(double b0, double b1, double b2, double a1, double a2);
    void setTargetFirstOrder(double b0, double b1, double a1);

    Coefficients mRunning;
    Coefficients mIncrement;
    Coefficients mTarget;
    FilterState<double> mState;

private:
    friend struct detail::SectionLanes;
};

// ---- Shapes --------------------------------------------------------------------------------
//
// Band-edge gain gB (first-order shelves, peak, notch): gain - 3 dB above 6 dB, gain / 2 from
// -6 dB (exclusive) to 6 dB, gain + 3 dB at -6 dB and below. The second-order shelves use
// gain -+ 3.0103 dB (a factor of 1.41421356237) for |gain| >= 6 dB and gain / 2 otherwise. A
// shelf has magnitude gB at its corner frequency; a peak or notch has gB at its band edges.
// A gain of exactly 0 dB designs the identity. Degenerate gains where the band-edge gain equals
// the gain are not guarded (they divide by zero), except in the second-order shelves.

// First-order high shelf: unity at DC, the gain at the Nyquist frequency, gB at `frequency`.
class KESTADSP_API fHISHELVE : public fFilterSection {
public:
    fHISHELVE();
    void SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) override;
};
class KESTADSP_API dHISHELVE : public dFilterSection {
public:
    dHISHELVE();
    void SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) override;
};

// First-order low shelf: the gain at DC, unity at the Nyquist frequency, gB at `frequency`.
class KESTADSP_API fLOSHELVE : public fFilterSection {
public:
    fLOSHELVE();
    void SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) override;
};
class KESTADSP_API dLOSHELVE : public dFilterSection {
public:
    dLOSHELVE();
    void SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) override;
};

// Second-order high shelf (unity at DC, the gain at the Nyquist frequency). Records bandwidth =
// frequency / q, which the design does not use. The single-precision class rounds each sum to
// float before normalising it, as the design has always done.
class KESTADSP_API fHISHELVE2 : public fFilterSection {
public:
    fHISHELVE2();
    void SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) override;
};
class KESTADSP_API dHISHELVE2 : public dFilterSection {
public:
    dHISHELVE2();
    void SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) override;
};

// Second-order low shelf (the gain at DC, unity at the Nyquist frequency); as the high shelf.
class KESTADSP_API fLOSHELVE2 : public fFilterSection {
public:
    fLOSHELVE2();
    void SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) override;
};
class KESTADSP_API dLOSHELVE2 : public dFilterSection {
public:
    dLOSHELVE2();
    void SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) override;
};

// Peak / cut around `frequency` with bandwidth frequency / q in Hz (the gB points). The normalised
// frequency is held in [1e-5, 0.99999] and the normalised bandwidth in [1e-5, 0.49999]. Does not
// record the bandwidth.
class KESTADSP_API fPARA : public fFilterSection {
public:
    fPARA();
    void SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) override;
};
class KESTADSP_API dPARA : public dFilterSection {
public:
    dPARA();
    void SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) override;
};

// Notch: the peak's design without any clamping, recording bandwidth = frequency / q. A deep
// notch is a large negative gain.
class KESTADSP_API fNotch : public fFilterSection {
public:
    fNotch();
    void SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) override;
};
class KESTADSP_API dNotch : public dFilterSection {
public:
    dNotch();
    void SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) override;
};

}  // namespace dsp
