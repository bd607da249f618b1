#pragma once
// fDeskFilter: a filter slot whose shape, precision and order can change at run time without the
// owner replacing the object. It owns exactly one filter section (dsp/filter_section.h) and
// forwards every section operation to it; it is never without a section.
//
//   kind                    second order (firstOrder false)   first order (firstOrder true)
//   kFilterNotch      (0)   fNotch / dNotch                   same (order ignored)
//   kFilterHighShelf  (1)   fHISHELVE2 / dHISHELVE2           fHISHELVE / dHISHELVE
//   kFilterLowShelf   (2)   fLOSHELVE2 / dLOSHELVE2           fLOSHELVE / dLOSHELVE
//   kFilterPeak       (3)   fPARA / dPARA                     same (order ignored)
// (the f class in single precision, the d class in double).
//
// Shifting gears builds the new section, hands over the enabled flag, the smoothing time, the
// state-variable flag and then Setup(sampleRate, frequency, gainDb, frequency / bandwidth, p5, p6)
// with the old section's stored values, and installs it. The new section starts with cleared
// memory and glides from the identity to its target; Setup leaves it enabled only for a non-zero
// gain. Points for the owner:
//   - the glide length is recomputed from the new section's construction rate (44100 Hz): call
//     setSmoothingTime again after a shift at another rate if the glide length matters;
//   - the shelves and the peak record no bandwidth, so the Q handed over from them is infinite:
//     set up a peak or notch again after shifting to it.
// setType and setDoublePrecision shift gears to the first-order variant of a shelf.
//
// Units, latency, thread rules: those of the sections (Hz, dB, seconds; no latency; one thread at a
// time). Copies are deep and complete (the held section's class, settings, coefficients, memory).

#include <cstdint>
#include <memory>

#include "dsp/filter_section.h"
#include "dsp/kestadsp_export.h"

namespace dsp {

enum eFilterKindType : int32_t {
    kFilterNotch = 0,
    kFilterHighShelf = 1,
    kFilterLowShelf = 2,
    kFilterPeak = 3,
};

class KESTADSP_API fDeskFilter {
public:
    // Installs the section for the given kind, precision and order with its construction
    // defaults (disabled, identity).
    explicit fDeskFilter(eFilterKindType kind = kFilterNotch, bool doublePrecision = false, bool firstOrder = true);
    fDeskFilter(const fDeskFilter& other);
    fDeskFilter& operator=(const fDeskFilter& other);
    virtual ~fDeskFilter();

    // ShiftGears(kind, isDoublePrecision(), true).
    virtual void setType(eFilterKindType kind);
    virtual eFilterKindType getType() const;
    // Nothing when kind, precision and order are those of the held section (a notch or a peak has
    // the order flag false, so asking for one with firstOrder true builds it anew). A kind outside 0 ... 3
    // builds no new section: the held one takes the hand-over from itself (which re-runs its Setup
    // and clears its memory) and the kind is recorded as given.
    virtual void ShiftGears(eFilterKindType kind, bool doublePrecision, bool firstOrder);

    // Forwarded one to one to the held section.
    virtual void ClearState();
    virtual void enable();
    virtual void disable();
    virtual void setEnable(bool on);
    virtual bool isEnabled() const;
    virtual float processOneSample(float x);
    virtual double dprocessOneSample(double x);
    virtual void processInplace(float* data, int count);
    virtual void dprocessInplace(double* data, int count);
    virtual float computeResponse(float frequency, float scale);
    virtual void Setup(float sampleRate, float frequency, float gainDb, float q, float p5, float p6);
    virtual void SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float p5, float p6);
    virtual void ConvertCoefficientsToStateVariableForm();
    virtual void setSmoothingTime(float seconds);
    virtual float getSmoothingTime() const;
    virtual void setStateVariable(bool on);
    virtual bool isStateVariable() const;
    virtual void TerminateRamp();
    virtual void ClearCoefficients();
    // ShiftGears(getType(), doublePrecision, true).
    virtual void setDoublePrecision(bool doublePrecision);
    // The held section's precision flag (true for the d classes).
    virtual bool isDoublePrecision() const;

    // The held section's first-order flag.
    bool isFirstOrder() const;
    // The held section, for inspection (its class, settings, coefficients).
    const FilterSection& section() const { return *mSection; }

private:
    friend struct detail::SectionLanes;
    eFilterKindType mKind;
    std::unique_ptr<FilterSection> mSection;
};

}  // namespace dsp
