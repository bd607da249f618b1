// fDeskFilter: one owned filter section whose class follows kind, precision and order.

#include "dsp/desk_filter.h"

#include <cassert>
#include <typeinfo>

namespace dsp {

namespace {

// The section class for a kind, or null for a kind outside 0 ... 3.
std::unique_ptr<FilterSection> MakeSection(eFilterKindType kind, bool doublePrecision, bool firstOrder) {
    switch (kind) {
        case kFilterNotch:
            if (doublePrecision) return std::make_unique<dNotch>();
            return std::make_unique<fNotch>();
        case kFilterHighShelf:
            if (doublePrecision) {
                if (firstOrder) return std::make_unique<dHISHELVE>();
                return std::make_unique<dHISHELVE2>();
            }
            if (firstOrder) return std::make_unique<fHISHELVE>();
            return std::make_unique<fHISHELVE2>();
        case kFilterLowShelf:
            if (doublePrecision) {
                if (firstOrder) return std::make_unique<dLOSHELVE>();
                return std::make_unique<dLOSHELVE2>();
            }
            if (firstOrder) return std::make_unique<fLOSHELVE>();
            return std::make_unique<fLOSHELVE2>();
        case kFilterPeak:
            if (doublePrecision) return std::make_unique<dPARA>();
            return std::make_unique<fPARA>();
    }
    return nullptr;
}

// A complete copy (the class's assignment copies coefficients and memory as well as settings).
template <typename S>
std::unique_ptr<FilterSection> CopyAs(const FilterSection& section) {
    const S& source = static_cast<const S&>(section);
    auto copy = std::make_unique<S>(source);
    *copy = source;
    return copy;
}

template <typename... S>
std::unique_ptr<FilterSection> CopyAny(const FilterSection& section) {
    std::unique_ptr<FilterSection> copy;
    ((copy == nullptr && typeid(section) == typeid(S) ? void(copy = CopyAs<S>(section)) : void()), ...);
    assert(copy != nullptr && "a desk filter holds only the twelve section classes");
    return copy;
}

std::unique_ptr<FilterSection> CopySection(const FilterSection& section) {
    return CopyAny<fNotch, dNotch, fHISHELVE, dHISHELVE, fHISHELVE2, dHISHELVE2, fLOSHELVE, dLOSHELVE, fLOSHELVE2,
                   dLOSHELVE2, fPARA, dPARA>(section);
}

}  // namespace

fDeskFilter::fDeskFilter(eFilterKindType kind, bool doublePrecision, bool firstOrder)
    : mKind(kind), mSection(MakeSection(kind, doublePrecision, firstOrder)) {
    assert(mSection != nullptr && "the kind must be one of 0 ... 3");
    if (mSection == nullptr) {
        mKind = kFilterNotch;
        mSection = MakeSection(kFilterNotch, doublePrecision, firstOrder);
    }
}

fDeskFilter::fDeskFilter(const fDeskFilter& other) : mKind(other.mKind), mSection(CopySection(*other.mSection)) {}

fDeskFilter& fDeskFilter::operator=(const fDeskFilter& other) {
    if (this != &other) {
        mSection = CopySection(*other.mSection);
        mKind = other.mKind;
    }
    return *this;
}

fDeskFilter::~fDeskFilter() = default;

void fDeskFilter::setType(eFilterKindType kind) {
    ShiftGears(kind, isDoublePrecision(), true);
}

eFilterKindType fDeskFilter::getType() const {
    return mKind;
}

void fDeskFilter::ShiftGears(eFilterKindType kind, bool doublePrecision, bool firstOrder) {
    FilterSection& old = *mSection;
    // The comparison is with the held section's own order flag, which is false for a notch or a
    // peak: asking for those with firstOrder = true builds them anew.
    if (kind == mKind && doublePrecision == old.isDoublePrecision() && firstOrder == old.isFirstOrder()) return;

    std::unique_ptr<FilterSection> fresh = MakeSection(kind, doublePrecision, firstOrder);
    FilterSection& next = fresh != nullptr ? *fresh : old;
    next.setEnable(old.isEnabled());
    next.setSmoothingTime(old.getSmoothingTime());
    next.setStateVariable(old.isStateVariable());
    // Q = frequency / recorded bandwidth: infinite when the old shape recorded none.
    const float frequency = old.getFrequency();
    next.Setup(old.getSampleRate(), frequency, old.getGainDb(), frequency / old.getBandwidth(), old.getParam5(),
               old.getParam6());
    if (fresh != nullptr) mSection = std::move(fresh);
    mKind = kind;
}

void fDeskFilter::ClearState() {
    mSection->ClearState();
}
void fDeskFilter::enable() {
    mSection->enable();
}
void fDeskFilter::disable() {
    mSection->disable();
}
void fDeskFilter::setEnable(bool on) {
    mSection->setEnable(on);
}
bool fDeskFilter::isEnabled() const {
    return mSection->isEnabled();
}
float fDeskFilter::processOneSample(float x) {
    return mSection->processOneSample(x);
}
double fDeskFilter::dprocessOneSample(double x) {
    return mSection->dprocessOneSample(x);
}
void fDeskFilter::processInplace(float* data, int count) {
    mSection->processInplace(data, count);
}
void fDeskFilter::dprocessInplace(double* data, int count) {
    mSection->dprocessInplace(data, count);
}
float fDeskFilter::computeResponse(float frequency, float scale) {
    return mSection->computeResponse(frequency, scale);
}

void fDeskFilter::Setup(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) {
    mSection->Setup(sampleRate, frequency, gainDb, q, p5, p6);
}

void fDeskFilter::SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) {
    mSection->SetupCoefficients(sampleRate, frequency, gainDb, q, p5, p6);
}

void fDeskFilter::ConvertCoefficientsToStateVariableForm() {
    mSection->ConvertCoefficientsToStateVariableForm();
}
void fDeskFilter::setSmoothingTime(float seconds) {
    mSection->setSmoothingTime(seconds);
}
float fDeskFilter::getSmoothingTime() const {
    return mSection->getSmoothingTime();
}
void fDeskFilter::setStateVariable(bool on) {
    mSection->setStateVariable(on);
}
bool fDeskFilter::isStateVariable() const {
    return mSection->isStateVariable();
}
void fDeskFilter::TerminateRamp() {
    mSection->TerminateRamp();
}
void fDeskFilter::ClearCoefficients() {
    mSection->ClearCoefficients();
}
void fDeskFilter::setDoublePrecision(bool doublePrecision) {
    ShiftGears(mKind, doublePrecision, true);
}
bool fDeskFilter::isDoublePrecision() const {
    return mSection->isDoublePrecision();
}
bool fDeskFilter::isFirstOrder() const {
    return mSection->isFirstOrder();
}

}  // namespace dsp
