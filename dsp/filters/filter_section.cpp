// Filter sections: the recursions, the coefficient glide, the state-variable conversion and the
// response of the target set. The shapes' designs are in filter_shapes.cpp.
//
// The single- and double-precision sections share every algorithm through the templates below,
// instantiated for float and double coefficient sets. Arithmetic runs in the wider of the
// coefficient type and the sample type (float for processOneSample on an f section, double
// otherwise); the memory cells always hold the section's own precision.

#include "dsp/filter_section.h"

#include <cassert>
#include <cmath>
#include <numbers>
#include <type_traits>

#include "dsp/core/denormal_guard.h"
#include "dsp/filters/filter_design.h"

namespace dsp {

namespace {

using FC = FilterCoefficient;

template <typename T>
using Set = std::array<T, FC::Count>;

template <typename T>
constexpr Set<T> IdentitySet() {
    Set<T> s{};
    s[FC::b0] = T(1);
    s[FC::D] = T(1);
    return s;
}

// ---- One sample of each recursion. The block loops call the same functions on local copies, so
// processInplace is bit-identical to repeated processOneSample.

template <typename T, typename S>
inline S StepDirectForm(const Set<T>& c, T& x1, T& x2, T& y1, T& y2, S x) {
    using C = std::common_type_t<T, S>;
    const C in = static_cast<C>(x);
    const C y = (C(c[FC::b0]) * in + C(c[FC::b1]) * C(x1) + C(c[FC::b2]) * C(x2)) -
                (C(c[FC::a1]) * C(y1) + C(c[FC::a2]) * C(y2));
    x2 = x1;
    x1 = static_cast<T>(in);
    y2 = y1;
    y1 = static_cast<T>(y);
    return static_cast<S>(y);
}

template <typename T, typename S>
inline S StepFirstOrder(const Set<T>& c, T& x1, T& y1, S x) {
    using C = std::common_type_t<T, S>;
    const C in = static_cast<C>(x);
    const C y = (C(c[FC::b0]) * in + C(c[FC::b1]) * C(x1)) - C(c[FC::a1]) * C(y1);
    x1 = static_cast<T>(in);
    y1 = static_cast<T>(y);
    return static_cast<S>(y);
}

template <typename T, typename S>
inline S StepStateVariable(const Set<T>& c, T& s1, T& s2, S x) {
    using C = std::common_type_t<T, S>;
    const C in = static_cast<C>(x);
    const C o1 = C(s1), o2 = C(s2);
    const C y = C(c[FC::C1]) * o1 + C(c[FC::C2]) * o2 + C(c[FC::D]) * in;
    s1 = static_cast<T>(C(c[FC::A11]) * o1 + C(c[FC::A12]) * o2 + C(c[FC::B1]) * in);
    s2 = static_cast<T>(C(c[FC::A21]) * o1 + C(c[FC::A22]) * o2 + C(c[FC::B2]) * in);
    return static_cast<S>(y);
}

enum class Mode { FirstOrder, StateVariable, DirectForm };

inline Mode ModeOf(bool firstOrder, bool stateVariable) {
    if (firstOrder) return Mode::FirstOrder;  // takes precedence over the state-variable flag
    return stateVariable ? Mode::StateVariable : Mode::DirectForm;
}

template <typename T, typename S>
inline S Step(Mode mode, const Set<T>& c, FilterState<T>& st, S x) {
    switch (mode) {
        case Mode::FirstOrder:
            return StepFirstOrder(c, st.mX1, st.mY1, x);
        case Mode::StateVariable:
            return StepStateVariable(c, st.mX1, st.mX2, x);
        case Mode::DirectForm:
            break;
    }
    return StepDirectForm(c, st.mX1, st.mX2, st.mY1, st.mY2, x);
}

// One step of the glide, after an output sample. The last step copies the target, so the glide
// ends on the exact target whatever the increments accumulated.
template <typename T>
inline void GlideStep(int32_t& remaining, Set<T>& running, const Set<T>& increment, const Set<T>& target) {
    if (remaining == 0) return;
    if (remaining == 1) {
        running = target;
        remaining = 0;
        return;
    }
    --remaining;
    for (int i = 0; i < FC::Count; ++i)
        running[i] += increment[i];
}

// The tight loop without a glide: coefficients and memory in locals.
template <typename T, typename S>
void RunSteady(Mode mode, const Set<T>& running, FilterState<T>& st, S* data, int count) {
    const Set<T> c = running;
    T x1 = st.mX1, x2 = st.mX2, y1 = st.mY1, y2 = st.mY2;
    switch (mode) {
        case Mode::FirstOrder:
            for (int i = 0; i < count; ++i)
                data[i] = StepFirstOrder(c, x1, y1, data[i]);
            break;
        case Mode::StateVariable:
            for (int i = 0; i < count; ++i)
                data[i] = StepStateVariable(c, x1, x2, data[i]);
            break;
        case Mode::DirectForm:
            for (int i = 0; i < count; ++i)
                data[i] = StepDirectForm(c, x1, x2, y1, y2, data[i]);
            break;
    }
    st.mX1 = x1;
    st.mX2 = x2;
    st.mY1 = y1;
    st.mY2 = y2;
}

// Everything a section's processing touches, gathered so that both precisions share the code.
template <typename T>
struct Engine {
    bool enabled;
    Mode mode;
    int32_t& rampRemaining;
    Set<T>& running;
    const Set<T>& increment;
    const Set<T>& target;
    FilterState<T>& state;

    template <typename S>
    S One(S x) {
        if (!enabled) return x;
        DenormalGuard guard;
        const S y = Step(mode, running, state, x);
        GlideStep(rampRemaining, running, increment, target);
        return y;
    }

    template <typename S>
    void Block(S* data, int count) {
        if (!enabled || count <= 0) return;
        DenormalGuard guard;
        int i = 0;
        for (; i < count && rampRemaining != 0; ++i) {
            data[i] = Step(mode, running, state, data[i]);
            GlideStep(rampRemaining, running, increment, target);
        }
        if (i < count) RunSteady(mode, running, state, data + i, count - i);
    }
};

// |H(e^jw)| of the target b0 ... a2 times scale, in double. Where the squared denominator
// vanishes (a pole on the unit circle at this frequency) both squares are replaced by their
// derivatives in w, the limit of the ratio.
template <typename T>
float Response(const Set<T>& t, float sampleRate, float frequency, float scale) {
    const double b0 = t[FC::b0], b1 = t[FC::b1], b2 = t[FC::b2], a1 = t[FC::a1], a2 = t[FC::a2];
    const double w = 2.0 * std::numbers::pi * static_cast<double>(frequency) / static_cast<double>(sampleRate);
    const double cw = std::cos(w), c2w = std::cos(2.0 * w);
    double den = a1 * a1 + 1.0 + a2 * a2 + 2.0 * a1 * (a2 + 1.0) * cw + 2.0 * a2 * c2w;
    double num;
    if (std::fabs(den) >= static_cast<double>(1e-20f)) {
        num = b0 * b0 + b1 * b1 + b2 * b2 + 2.0 * b1 * (b0 + b2) * cw + 2.0 * b0 * b2 * c2w;
    } else {
        const double sw = std::sin(w), s2w = std::sin(2.0 * w);
        num = -2.0 * b1 * (b0 + b2) * sw - 4.0 * b0 * b2 * s2w;
        den = -2.0 * a1 * (a2 + 1.0) * sw - 4.0 * a2 * s2w;
    }
    return static_cast<float>(std::sqrt(std::fabs(num / den)) * static_cast<double>(scale));
}

template <typename T>
void ConvertTarget(Set<T>& t) {
    filter_design::DirectForm c;
    c.b0 = t[FC::b0];
    c.b1 = t[FC::b1];
    c.b2 = t[FC::b2];
    c.a1 = t[FC::a1];
    c.a2 = t[FC::a2];
    const filter_design::StateVariableForm s = filter_design::ToStateVariableForm(c);
    t[FC::A11] = static_cast<T>(s.A11);
    t[FC::A12] = static_cast<T>(s.A12);
    t[FC::A21] = static_cast<T>(s.A21);
    t[FC::A22] = static_cast<T>(s.A22);
    t[FC::B1] = static_cast<T>(s.B1);
    t[FC::B2] = static_cast<T>(s.B2);
    t[FC::C1] = static_cast<T>(s.C1);
    t[FC::C2] = static_cast<T>(s.C2);
    t[FC::D] = static_cast<T>(s.D);
}

// Increments for a glide over rampLength samples. Returns true (no glide) when every increment of
// the active form is exactly zero; with rampLength 0 the increments are infinite or NaN and
// rampRemaining stays 0, so the running set does not move.
template <typename T>
bool MakeRamp(bool stateVariable, int32_t rampLength, int32_t& rampRemaining, const Set<T>& running, Set<T>& increment,
              const Set<T>& target) {
    for (int i = 0; i < FC::Count; ++i)
        increment[i] = (target[i] - running[i]) / static_cast<T>(rampLength);
    const int first = stateVariable ? FC::A11 : FC::b0;
    const int end = stateVariable ? FC::Count : FC::A11;
    bool allZero = true;
    for (int i = first; i < end; ++i)
        allZero = allZero && increment[i] == T(0);
    if (allZero && !std::isnan(increment[end - 1])) {
        rampRemaining = 0;
        return true;
    }
    rampRemaining = rampLength;
    return false;
}

}  // namespace

// ---- FilterSection --------------------------------------------------------------------------

FilterSection::FilterSection() = default;
FilterSection::~FilterSection() = default;

void FilterSection::enable() {
    if (!mEnabled) {
        resetRunningToIdentity();
        SetupRamp();
    }
    mEnabled = true;
}

void FilterSection::disable() {
    mEnabled = false;
}
void FilterSection::setEnable(bool on) {
    mEnabled = on;
}
bool FilterSection::isEnabled() const {
    return mEnabled;
}

void FilterSection::Setup(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) {
    SetupCoefficients(sampleRate, frequency, gainDb, q, p5, p6);
    ClearState();
    mEnabled = gainDb != 0.0f;
}

void FilterSection::setSmoothingTime(float seconds) {
    mSmoothingTime = seconds;
    // In float: 44100 x 0.03f rounds to exactly 1323 (in double it would truncate to 1322).
    mRampLength = static_cast<int32_t>(mSampleRate * seconds);
    assert(mRampLength >= 0 && "a glide cannot last a negative number of samples");
}

float FilterSection::getSmoothingTime() const {
    return mSmoothingTime;
}

void FilterSection::setStateVariable(bool on) {
    if (on == mStateVariable) return;
    ClearState();  // the memory cells mean different things in the two forms
    mStateVariable = on;
    if (on) SetupRamp();
}

bool FilterSection::isStateVariable() const {
    return mStateVariable;
}

// ---- fFilterSection / dFilterSection ----------------------------------------------------------

// The two precisions differ only in T; one definition serves both.
#define KESTA_DEFINE_SECTION(Class, T)                                                                                 \
    Class::Class() : mRunning(IdentitySet<T>()), mIncrement(IdentitySet<T>()), mTarget(IdentitySet<T>()) {             \
        mDoublePrecision = std::is_same_v<T, double>;                                                                  \
    }                                                                                                                  \
                                                                                                                       \
    Class::Class(const Class& other)                                                                                   \
        : FilterSection(other), mRunning(IdentitySet<T>()), mIncrement(IdentitySet<T>()), mTarget(IdentitySet<T>()) {} \
                                                                                                                       \
    Class& Class::operator=(const Class& other) = default;                                                             \
    Class::~Class() = default;                                                                                         \
                                                                                                                       \
    void Class::ClearState() {                                                                                         \
        mState.clear();                                                                                                \
    }                                                                                                                  \
                                                                                                                       \
    float Class::processOneSample(float x) {                                                                           \
        return Engine<T>{mEnabled, ModeOf(mFirstOrder, mStateVariable), mRampRemaining, mRunning, mIncrement, mTarget, \
                         mState}                                                                                       \
            .One(x);                                                                                                   \
    }                                                                                                                  \
    double Class::dprocessOneSample(double x) {                                                                        \
        return Engine<T>{mEnabled, ModeOf(mFirstOrder, mStateVariable), mRampRemaining, mRunning, mIncrement, mTarget, \
                         mState}                                                                                       \
            .One(x);                                                                                                   \
    }                                                                                                                  \
    void Class::processInplace(float* data, int count) {                                                               \
        Engine<T>{                                                                                                     \
            mEnabled, ModeOf(mFirstOrder, mStateVariable), mRampRemaining, mRunning, mIncrement, mTarget, mState}      \
            .Block(data, count);                                                                                       \
    }                                                                                                                  \
    void Class::dprocessInplace(double* data, int count) {                                                             \
        Engine<T>{                                                                                                     \
            mEnabled, ModeOf(mFirstOrder, mStateVariable), mRampRemaining, mRunning, mIncrement, mTarget, mState}      \
            .Block(data, count);                                                                                       \
    }                                                                                                                  \
                                                                                                                       \
    float Class::computeResponse(float frequency, float scale) {                                                       \
        if (!mEnabled) return scale;                                                                                   \
        return Response(mTarget, mSampleRate, frequency, scale);                                                       \
    }                                                                                                                  \
                                                                                                                       \
    void Class::ConvertCoefficientsToStateVariableForm() {                                                             \
        ConvertTarget(mTarget);                                                                                        \
    }                                                                                                                  \
                                                                                                                       \
    void Class::CopyCoefficients(FilterSection& other) {                                                               \
        auto* source = dynamic_cast<Class*>(&other);                                                                   \
        if (source == nullptr) return;                                                                                 \
        mRunning = source->mRunning;                                                                                   \
        mIncrement = source->mIncrement;                                                                               \
        mTarget = source->mTarget;                                                                                     \
        mRampRemaining = source->mRampRemaining;                                                                       \
        mRampLength = source->mRampLength;                                                                             \
        mEnabled = source->mEnabled;                                                                                   \
        ClearState();                                                                                                  \
    }                                                                                                                  \
                                                                                                                       \
    bool Class::SetupRamp() {                                                                                          \
        if (mStateVariable) ConvertCoefficientsToStateVariableForm();                                                  \
        return MakeRamp(mStateVariable, mRampLength, mRampRemaining, mRunning, mIncrement, mTarget);                   \
    }                                                                                                                  \
                                                                                                                       \
    void Class::TerminateRamp() {                                                                                      \
        mRunning = mTarget;                                                                                            \
        mRampRemaining = 0;                                                                                            \
    }                                                                                                                  \
                                                                                                                       \
    void Class::ClearCoefficients() {                                                                                  \
        mRampRemaining = 0;                                                                                            \
        mRunning = IdentitySet<T>();                                                                                   \
        mTarget = IdentitySet<T>();                                                                                    \
    }                                                                                                                  \
                                                                                                                       \
    void Class::resetRunningToIdentity() {                                                                             \
        mRunning = IdentitySet<T>();                                                                                   \
    }                                                                                                                  \
                                                                                                                       \
    void Class::setTargetDirectForm(double b0, double b1, double b2, double a1, double a2) {                           \
        mTarget[FC::b0] = static_cast<T>(b0);                                                                          \
        mTarget[FC::b1] = static_cast<T>(b1);                                                                          \
        mTarget[FC::b2] = static_cast<T>(b2);                                                                          \
        mTarget[FC::a1] = static_cast<T>(a1);                                                                          \
        mTarget[FC::a2] = static_cast<T>(a2);                                                                          \
    }                                                                                                                  \
                                                                                                                       \
    void Class::setTargetFirstOrder(double b0, double b1, double a1) {                                                 \
        mTarget[FC::b0] = static_cast<T>(b0);                                                                          \
        mTarget[FC::b1] = static_cast<T>(b1);                                                                          \
        mTarget[FC::a1] = static_cast<T>(a1);                                                                          \
    }

KESTA_DEFINE_SECTION(fFilterSection, float)
KESTA_DEFINE_SECTION(dFilterSection, double)

#undef KESTA_DEFINE_SECTION

}  // namespace dsp
