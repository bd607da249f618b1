// Filter sections: the recursions, the coefficient glide, the state-variable conversion and the
// response of the target set. The shapes' designs are in filter_shapes.cpp.
//
// The single- and double-precision sections share every algorithm through the templates below,
// instantiated for float and double coefficient sets. Arithmetic runs in the wider of the
// coefficient type and the sample type (float for processOneSample on an f section, double
// otherwise); the memory cells always hold the section's own precision.

#include "dsp/filter_section.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <numbers>
#include <type_traits>

#include "dsp/core/denormal_guard.h"
#include "dsp/core/double_pair.h"
#include "dsp/filters/filter_design.h"
#include "dsp/filters/section_lanes.h"

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

// ---- The arithmetic of one sample of each recursion, on any numeric type V (double, float, or a
// pair of channels in one register), with the coefficient of index i given by k(i). Every path
// evaluates these same expressions, so the block loops, the per-sample calls and the paired
// channels give the same bits.

template <typename V, typename K>
inline V DirectFormOutput(const K& k, V in, V x1, V x2, V y1, V y2) {
    return (k(FC::b0) * in + k(FC::b1) * x1 + k(FC::b2) * x2) - (k(FC::a1) * y1 + k(FC::a2) * y2);
}

template <typename V, typename K>
inline V FirstOrderOutput(const K& k, V in, V x1, V y1) {
    return (k(FC::b0) * in + k(FC::b1) * x1) - k(FC::a1) * y1;
}

// Output from the old s1, s2; both states then move on from the old values.
template <typename V, typename K>
inline V StateVariableOutput(const K& k, V in, V& s1, V& s2) {
    const V o1 = s1, o2 = s2;
    const V y = k(FC::C1) * o1 + k(FC::C2) * o2 + k(FC::D) * in;
    s1 = k(FC::A11) * o1 + k(FC::A12) * o2 + k(FC::B1) * in;
    s2 = k(FC::A21) * o1 + k(FC::A22) * o2 + k(FC::B2) * in;
    return y;
}

// One sample in the wider of the coefficient type T and the sample type S; the memory keeps T.
template <typename T, typename S>
inline S StepDirectForm(const Set<T>& c, T& x1, T& x2, T& y1, T& y2, S x) {
    using C = std::common_type_t<T, S>;
    const auto k = [&c](int i) { return C(c[i]); };
    const C in = static_cast<C>(x);
    const C y = DirectFormOutput(k, in, C(x1), C(x2), C(y1), C(y2));
    x2 = x1;
    x1 = static_cast<T>(in);
    y2 = y1;
    y1 = static_cast<T>(y);
    return static_cast<S>(y);
}

template <typename T, typename S>
inline S StepFirstOrder(const Set<T>& c, T& x1, T& y1, S x) {
    using C = std::common_type_t<T, S>;
    const auto k = [&c](int i) { return C(c[i]); };
    const C in = static_cast<C>(x);
    const C y = FirstOrderOutput(k, in, C(x1), C(y1));
    x1 = static_cast<T>(in);
    y1 = static_cast<T>(y);
    return static_cast<S>(y);
}

template <typename T, typename S>
inline S StepStateVariable(const Set<T>& c, T& s1, T& s2, S x) {
    using C = std::common_type_t<T, S>;
    const auto k = [&c](int i) { return C(c[i]); };
    C w1 = C(s1), w2 = C(s2);
    const C y = StateVariableOutput(k, static_cast<C>(x), w1, w2);
    s1 = static_cast<T>(w1);
    s2 = static_cast<T>(w2);
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

// ---- Two channels in the lanes of one register ------------------------------------------------

using detail::DoublePair;

// One enabled section of both chains: running coefficients and memory, left channel in lane 0.
struct LaneSection {
    Mode mode;
    DoublePair k[FC::Count];
    DoublePair x1, x2, y1, y2;  // s1, s2 in x1, x2 for the state-variable form
};

using detail::kMaxLaneSections;

// Every sample through every section before the next sample: the sections' recursions then run
// side by side instead of one block loop after another, each waiting on its own feedback.
void RunLanes(LaneSection* sections, int count, float* x0, float* x1, int n) {
    for (int i = 0; i < n; ++i) {
        DoublePair v = detail::LoadFloats(x0 + i, x1 + i);
        for (int s = 0; s < count; ++s) {
            LaneSection& l = sections[s];
            const auto k = [&l](int j) { return l.k[j]; };
            if (s > 0) v = detail::RoundToFloat(v);  // each section hands on a float
            switch (l.mode) {
                case Mode::FirstOrder: {
                    const DoublePair y = FirstOrderOutput(k, v, l.x1, l.y1);
                    l.x1 = v;
                    l.y1 = y;
                    v = y;
                    break;
                }
                case Mode::StateVariable:
                    v = StateVariableOutput(k, v, l.x1, l.x2);
                    break;
                case Mode::DirectForm: {
                    const DoublePair y = DirectFormOutput(k, v, l.x1, l.x2, l.y1, l.y2);
                    l.x2 = l.x1;
                    l.x1 = v;
                    l.y2 = l.y1;
                    l.y1 = y;
                    v = y;
                    break;
                }
            }
        }
        detail::StoreFloats(v, x0 + i, x1 + i);
    }
}

// The portable lanes over the plain records: pairs in, the loop, memory back out.
void RunLanes(detail::LaneSectionData* data, int count, float* x0, float* x1, int n) {
    using detail::MakePair;
    LaneSection lanes[kMaxLaneSections];
    auto pair = [](const double(&v)[2]) { return MakePair(v[0], v[1]); };
    for (int k = 0; k < count; ++k) {
        const detail::LaneSectionData& d = data[k];
        LaneSection& s = lanes[k];
        s.mode = static_cast<Mode>(d.form);
        for (int j = 0; j < FC::Count; ++j)
            s.k[j] = pair(d.k[j]);
        s.x1 = pair(d.x1), s.x2 = pair(d.x2), s.y1 = pair(d.y1), s.y2 = pair(d.y2);
    }
    RunLanes(lanes, count, x0, x1, n);
    auto put = [](double(&to)[2], DoublePair from) { to[0] = detail::Left(from), to[1] = detail::Right(from); };
    for (int k = 0; k < count; ++k) {
        detail::LaneSectionData& d = data[k];
        const LaneSection& s = lanes[k];
        put(d.x1, s.x1), put(d.x2, s.x2), put(d.y1, s.y1), put(d.y2, s.y2);
    }
}

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

// ---- SectionLanes ---------------------------------------------------------------------------

namespace detail {

void SectionLanes::ProcessPair(FilterSection* const* left, FilterSection* const* right, int count, float* x0, float* x1,
                               int n, Isa isa) {
    if (n <= 0) return;
    auto oneByOne = [&](int from) {
        for (int k = 0; k < count; ++k) {
            left[k]->processInplace(x0 + from, n - from);
            right[k]->processInplace(x1 + from, n - from);
        }
    };
    dFilterSection* l[kMaxLaneSections];
    dFilterSection* r[kMaxLaneSections];
    int used = 0;
    int32_t glide = 0;
    for (int k = 0; k < count; ++k) {
        auto* a = dynamic_cast<dFilterSection*>(left[k]);
        auto* b = dynamic_cast<dFilterSection*>(right[k]);
        if (a == nullptr || b == nullptr || a->mEnabled != b->mEnabled || used == kMaxLaneSections ||
            ModeOf(a->mFirstOrder, a->mStateVariable) != ModeOf(b->mFirstOrder, b->mStateVariable))
            return oneByOne(0);
        if (!a->mEnabled) continue;  // passes its input on untouched
        glide = std::max({glide, a->mRampRemaining, b->mRampRemaining});
        l[used] = a;
        r[used] = b;
        ++used;
    }
    if (used == 0) return;
    // A glide's coefficients move every sample: those samples go through the sections' own loops.
    // A section that stops gliding earlier runs its steady loop there, with the same arithmetic.
    const int start = static_cast<int>(std::min<int32_t>(glide, n));
    if (start > 0) {
        for (int k = 0; k < used; ++k) {
            l[k]->processInplace(x0, start);
            r[k]->processInplace(x1, start);
        }
        if (start == n) return;
    }

    DenormalGuard guard;
    LaneSectionData data[kMaxLaneSections];
    for (int k = 0; k < used; ++k) {
        const dFilterSection& a = *l[k];
        const dFilterSection& b = *r[k];
        LaneSectionData& d = data[k];
        d.form = static_cast<LaneSectionData::Form>(ModeOf(a.mFirstOrder, a.mStateVariable));
        for (int j = 0; j < FC::Count; ++j) {
            d.k[j][0] = a.mRunning[j];
            d.k[j][1] = b.mRunning[j];
        }
        d.x1[0] = a.mState.mX1, d.x1[1] = b.mState.mX1;
        d.x2[0] = a.mState.mX2, d.x2[1] = b.mState.mX2;
        d.y1[0] = a.mState.mY1, d.y1[1] = b.mState.mY1;
        d.y2[0] = a.mState.mY2, d.y2[1] = b.mState.mY2;
    }
#if defined(KESTADSP_HAVE_AVX2)
    if (ResolveIsa(isa) == Isa::Avx2Fma)
        avx2::RunSectionLanes(data, used, x0 + start, x1 + start, n - start);
    else
#endif
        RunLanes(data, used, x0 + start, x1 + start, n - start);
    for (int k = 0; k < used; ++k) {
        const LaneSectionData& d = data[k];
        FilterState<double>& a = l[k]->mState;
        FilterState<double>& b = r[k]->mState;
        a.mX1 = d.x1[0], b.mX1 = d.x1[1];
        a.mX2 = d.x2[0], b.mX2 = d.x2[1];
        a.mY1 = d.y1[0], b.mY1 = d.y1[1];
        a.mY2 = d.y2[0], b.mY2 = d.y2[1];
    }
}

}  // namespace detail

}  // namespace dsp
