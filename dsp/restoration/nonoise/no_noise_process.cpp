// NoNoiseProcess: spectral noise reduction from a noise print, on the overlap-save engine.
//
// Per frame and bin: magnitude m = |X[k]| · 4/N in double; smoothing over time and neighbouring
// bins (a recursion along k: bin k reads the values this frame already gave bins k − 1 and k − 2);
// target t from the knee; X[k] *= 1 − min(r, t/m). Everything that depends only on the record
// (threshold, knee, ceiling) is tabulated by UpdateParameter with the same expressions in the same
// order, so results are those of the per-frame formulas to the bit.
//
// Speed: the recursion makes each bin wait for the last (a chain of about 20 cycles of dependent
// multiplies and adds), so two channels share one chain in the two lanes of an SSE2 register and
// the square roots ride along in the time the chain leaves idle. The gains have no order; their
// two divisions per bin run four at a time with AVX where the CPU has it.

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstring>

#include "dsp/core/aligned_memory.h"
#include "dsp/core/kernel_dispatch.h"
#include "dsp/nonoise.h"
#include "dsp/restoration/nonoise/noise_reducer.h"
#include "dsp/restoration/nonoise/record_storage.h"

#if defined(__SSE2__) || defined(_M_X64)
#include <immintrin.h>
#define KESTADSP_NONOISE_SSE2 1
#endif

namespace dsp::nonoise {

namespace {

constexpr int kRowGuard = 4;  // smoothing rows reach 4 bins past either edge

// Doubles one array takes in the storage block, so that the next one stays 64-byte aligned.
std::size_t AlignedStride(int count) {
    return dsp::detail::AlignedStride<double>(static_cast<std::size_t>(count));
}

int CrossfadeLength(const NONOISE* p) {
    assert(p->overlap > 0);
    return p->fftSize / p->overlap;
}

int OutputOffset(const NONOISE* p) {
    assert(p->overlap > 0);
    return ((p->overlap - 1) * p->fftSize / p->overlap) / 2;
}

// ---- reducer storage -------------------------------------------------------------------------

int GroupLanes(int first, int channels) {
    return first + 1 < channels ? 2 : 1;
}

std::size_t StorageDoubles(int N, int C, int bins) {
    std::size_t total = AlignedStride(N);
    for (int first = 0; first < C; first += 2) {
        const int lanes = GroupLanes(first, C);
        total += AlignedStride((N + 2 * kRowGuard) * lanes);
        total += 5 * static_cast<std::size_t>(lanes) * AlignedStride(bins);
    }
    return total;
}

// Points the reducer's arrays into `storage` (size from StorageDoubles).
void Carve(NOISEREDUCER& r, double* storage) {
    const int N = r.size;
    double* next = storage;
    auto take = [&next](int count) {
        double* p = next;
        next += AlignedStride(count);
        return p;
    };
    r.curve = take(N);
    r.groups.clear();
    for (int first = 0; first < r.channels; first += 2) {
        NOISEREDUCER::Group g;
        g.first = first;
        g.lanes = GroupLanes(first, r.channels);
        g.smoothed = take((N + 2 * kRowGuard) * g.lanes) + kRowGuard * g.lanes;
        for (int lane = 0; lane < g.lanes; ++lane) {
            NOISEREDUCER::Tables& t = g.lane[lane];
            t.lo = take(r.bins);
            t.hi = take(r.bins);
            t.kneeWidth = take(r.bins);
            t.ceiling = take(r.bins);
            t.magnitude = take(r.bins);
        }
        r.groups.push_back(g);
    }
}

NOISEREDUCER* NewReducer(int N, int C) {
    auto* r = new NOISEREDUCER;
    r->size = N;
    r->channels = C;
    r->bins = N / 2 + 1;
    try {
        r->active.assign(static_cast<std::size_t>(C), 0);
        r->groups.reserve(static_cast<std::size_t>((C + 1) / 2));
        r->storage = dsp::detail::AllocateAlignedArray<double>(StorageDoubles(N, C, r->bins));  // zeroed
        Carve(*r, r->storage);
    } catch (...) {
        dsp::detail::FreeAlignedArray(r->storage);
        delete r;
        throw;
    }
    return r;
}

NOISEREDUCER* CloneReducer(const NOISEREDUCER& other) {
    NOISEREDUCER* r = NewReducer(other.size, other.channels);
    std::memcpy(r->storage, other.storage, StorageDoubles(other.size, other.channels, other.bins) * sizeof(double));
    r->magScale = other.magScale;
    r->spread = other.spread;
    r->decay = other.decay;
    r->oneMinusDecay = other.oneMinusDecay;
    r->firstFrame = other.firstFrame;
    r->active = other.active;
    return r;
}

}  // namespace

namespace detail {

// ---- per-frame kernels -----------------------------------------------------------------------

namespace {

// One bin of one channel, written out as the rule reads. `prev2`/`prev1` are this frame's
// smoothed values of bins k − 2 and k − 1; row[i + lanes], row[i + 2·lanes] still hold the last
// frame's values of bins k + 1 and k + 2. The weighted sum is evaluated left to right. A rising
// value is followed at once (0.93 of the new one), a falling one decays at the set rate.
inline double SmoothBin(double prev2, double prev1, double m, double next1, double next2, double old, double decay,
                        double oneMinusDecay) {
    const double q = 0.1 * prev2 + 0.2 * prev1 + 0.4 * m + 0.2 * next1 + 0.1 * next2;
    return q <= old ? old * decay + oneMinusDecay * q : old * 0.07 + q * 0.93;
}

template <int Lanes>
void ReduceScalar(float* const* re, float* const* im, const NOISEREDUCER::Group& g, int n, double scale, Smoothing mode,
                  double decay, double oneMinusDecay) {
    double* row = g.smoothed;
    double prev2[Lanes] = {};
    double prev1[Lanes] = {};
    if (mode == Smoothing::Run)
        for (int lane = 0; lane < Lanes; ++lane) {
            prev2[lane] = row[-2 * Lanes + lane];
            prev1[lane] = row[-Lanes + lane];
        }
    for (int k = 0; k < n; ++k) {
        for (int lane = 0; lane < Lanes; ++lane) {
            const int i = k * Lanes + lane;
            const double a = re[lane][k];
            const double b = im[lane][k];
            double m = std::sqrt(a * a + b * b) * scale;
            if (mode == Smoothing::Seed) {
                row[i] = m;
            } else if (mode == Smoothing::Run) {
                m = SmoothBin(prev2[lane], prev1[lane], m, row[i + Lanes], row[i + 2 * Lanes], row[i], decay,
                              oneMinusDecay);
                row[i] = m;
                prev2[lane] = prev1[lane];
                prev1[lane] = m;
            }
            const NOISEREDUCER::Tables& t = g.lane[lane];
            const double gain = BinGain(m, t.lo[k], t.hi[k], t.kneeWidth[k], t.ceiling[k]);
            re[lane][k] = static_cast<float>(a * gain);
            im[lane][k] = static_cast<float>(b * gain);
        }
    }
}

#ifdef KESTADSP_NONOISE_SSE2
// Vector paths. SSE2 and AVX double square root, divide and conversions are correctly rounded like
// the scalar forms, and every candidate of a choice is computed and the applicable one selected
// (discarded quotients may be inf or NaN; nothing traps), so they give the scalar results bit for
// bit. The work is split in two passes: the magnitudes and the smoothing recursion, serial along
// the bins, with two channels in the two lanes of an SSE2 register; then the gains, which have no
// order and run in the gain kernels (noise_gain_kernels.cpp), four bins at a time where the CPU
// has AVX2 (their two divisions dominate).

template <int Lanes>
inline __m128d Load(const double* p) {
    if constexpr (Lanes == 2)
        return _mm_loadu_pd(p);
    else
        return _mm_load1_pd(p);
}

template <int Lanes>
inline void Store(double* p, __m128d v) {
    if constexpr (Lanes == 2)
        _mm_storeu_pd(p, v);
    else
        _mm_store_sd(p, v);
}

// Bin k of each lane's channel, widened to double (exactly). A one-channel group computes the same
// value in both lanes and stores lane 0.
template <int Lanes>
inline __m128d LoadBin(float* const* x, int k) {
    if constexpr (Lanes == 2)
        return _mm_cvtps_pd(_mm_unpacklo_ps(_mm_load_ss(x[0] + k), _mm_load_ss(x[1] + k)));
    else
        return _mm_cvtps_pd(_mm_load1_ps(x[0] + k));
}

inline __m128d Select(__m128d mask, __m128d a, __m128d b) {  // mask ? a : b
    return _mm_or_pd(_mm_and_pd(mask, a), _mm_andnot_pd(mask, b));
}

// Pass 1: magnitudes, smoothed per `Mode`, into each lane's magnitude table.
template <int Lanes, Smoothing Mode>
void MagnitudesSse2(float* const* re, float* const* im, const NOISEREDUCER::Group& g, int n, double scale, double decay,
                    double oneMinusDecay) {
    const __m128d vScale = _mm_set1_pd(scale);
    const __m128d c01 = _mm_set1_pd(0.1);
    const __m128d c02 = _mm_set1_pd(0.2);
    const __m128d c04 = _mm_set1_pd(0.4);
    const __m128d c007 = _mm_set1_pd(0.07);
    const __m128d c093 = _mm_set1_pd(0.93);
    const __m128d vDecay = _mm_set1_pd(decay);
    const __m128d vOneMinusDecay = _mm_set1_pd(oneMinusDecay);
    double* row = g.smoothed;
    double* magA = g.lane[0].magnitude;
    double* magB = g.lane[Lanes - 1].magnitude;
    // This frame's smoothed values of bins k − 2, k − 1; the last frame's of bins k, k + 1.
    __m128d prev2 = _mm_setzero_pd(), prev1 = prev2, old0 = prev2, old1 = prev2;
    if constexpr (Mode == Smoothing::Run) {
        prev2 = Load<Lanes>(row - 2 * Lanes);
        prev1 = Load<Lanes>(row - Lanes);
        old0 = Load<Lanes>(row);
        old1 = Load<Lanes>(row + Lanes);
    }
    for (int k = 0; k < n; ++k) {
        const int i = k * Lanes;
        const __m128d a = LoadBin<Lanes>(re, k);
        const __m128d b = LoadBin<Lanes>(im, k);
        __m128d m = _mm_mul_pd(_mm_sqrt_pd(_mm_add_pd(_mm_mul_pd(a, a), _mm_mul_pd(b, b))), vScale);
        if constexpr (Mode == Smoothing::Seed) {
            Store<Lanes>(row + i, m);
        } else if constexpr (Mode == Smoothing::Run) {
            const __m128d old2 = Load<Lanes>(row + i + 2 * Lanes);
            const __m128d q = _mm_add_pd(
                _mm_add_pd(_mm_add_pd(_mm_add_pd(_mm_mul_pd(c01, prev2), _mm_mul_pd(c02, prev1)), _mm_mul_pd(c04, m)),
                           _mm_mul_pd(c02, old1)),
                _mm_mul_pd(c01, old2));
            const __m128d falling = _mm_add_pd(_mm_mul_pd(old0, vDecay), _mm_mul_pd(vOneMinusDecay, q));
            const __m128d rising = _mm_add_pd(_mm_mul_pd(old0, c007), _mm_mul_pd(q, c093));
            m = Select(_mm_cmple_pd(q, old0), falling, rising);
            Store<Lanes>(row + i, m);
            prev2 = prev1;
            prev1 = m;
            old0 = old1;
            old1 = old2;
        }
        _mm_store_sd(magA + k, m);
        if constexpr (Lanes == 2) _mm_storeh_pd(magB + k, m);
    }
}

template <int Lanes>
void MagnitudesSse2(float* const* re, float* const* im, const NOISEREDUCER::Group& g, int n, double scale,
                    Smoothing mode, double decay, double oneMinusDecay) {
    switch (mode) {
        case Smoothing::Off:
            return MagnitudesSse2<Lanes, Smoothing::Off>(re, im, g, n, scale, decay, oneMinusDecay);
        case Smoothing::Seed:
            return MagnitudesSse2<Lanes, Smoothing::Seed>(re, im, g, n, scale, decay, oneMinusDecay);
        case Smoothing::Run:
            return MagnitudesSse2<Lanes, Smoothing::Run>(re, im, g, n, scale, decay, oneMinusDecay);
    }
}

template <int Lanes>
void ReduceVector(float* const* re, float* const* im, const NOISEREDUCER::Group& g, int n, double scale, Smoothing mode,
                  double decay, double oneMinusDecay, const GainKernels& gains) {
    MagnitudesSse2<Lanes>(re, im, g, n, scale, mode, decay, oneMinusDecay);
    for (int lane = 0; lane < Lanes; ++lane)
        gains.apply(re[lane], im[lane], g.lane[lane], n);
}
#endif

}  // namespace

void ReduceGroup(float* const* re, float* const* im, const NOISEREDUCER::Group& group, int n, double magScale,
                 Smoothing mode, double decay, double oneMinusDecay, KernelPath path) {
#ifdef KESTADSP_NONOISE_SSE2
    if (path != KernelPath::Portable) {
        static const GainKernels& best =
            dsp::detail::PickKernels(portable::GainKernelTable(), KESTADSP_AVX2_TABLE(avx2::GainKernelTable()));
        const GainKernels& gains = path == KernelPath::Best ? best : portable::GainKernelTable();
        if (group.lanes == 2)
            ReduceVector<2>(re, im, group, n, magScale, mode, decay, oneMinusDecay, gains);
        else
            ReduceVector<1>(re, im, group, n, magScale, mode, decay, oneMinusDecay, gains);
        return;
    }
#else
    (void)path;
#endif
    if (group.lanes == 2)
        ReduceScalar<2>(re, im, group, n, magScale, mode, decay, oneMinusDecay);
    else
        ReduceScalar<1>(re, im, group, n, magScale, mode, decay, oneMinusDecay);
}

// ---- the rule's design half ------------------------------------------------------------------

double ReductionCeiling(double reductionDb) {
    double D = reductionDb == 0.0 ? 100.0 : reductionDb;
    D = std::max(D, 1.0);
    return 1.0 - std::pow(10.0, -D / 20.0);
}

BinRule MakeBinRule(double avg, double mx, double mn, double s, double spread, double precisionExponent, double R) {
    // Threshold: a curve in s through mn at s = 0 and mx at s = 1; the square term takes the sign
    // of s, so negative positions fall below mn (and are clipped at 0).
    const double sgn = s > 0.0 ? 1.0 : (s < 0.0 ? -1.0 : 0.0);
    double T = sgn * s * s * (4.0 * avg - mx - 3.0 * mn) + s * (2.0 * mx + 2.0 * mn - 4.0 * avg) + mn;
    T = std::max(T, 0.0);
    // Knee width: the spread, narrowed by how far the bin's RMS sits below its maximum.
    double f = spread;
    if (precisionExponent != 0.0 && mx != 0.0) f = std::pow(10.0, precisionExponent * std::log10(avg / mx)) * spread;
    BinRule rule;
    rule.lo = std::min(T, T * f);
    rule.hi = std::max(T, T * f);
    // Not clamped to 1, on purpose: where binMax/binMin < 5 the ceiling passes 1, so such a bin is
    // muted below the knee and can turn negative inside it. Clamping would change the output of
    // every print with bins that vary less than 5:1.
    rule.ceiling = R;
    if (mn != 0.0) rule.ceiling = R + (1.0 - R) * (5.0 / (mx / mn));
    return rule;
}

}  // namespace detail

// ---- construction ------------------------------------------------------------------------------

NoNoiseProcess::NoNoiseProcess() {
    detail::ZeroRecord(&mParam);
}

NoNoiseProcess::NoNoiseProcess(const NONOISE* param)
    : OverlapSave(param->fftSize, param->channels, OutputOffset(param), CrossfadeLength(param), BlackmanHarris) {
    CopyNoNoise(param, &mParam, true);
    mReducer = nullptr;
    mCeiling = 0.0;
    SetScaler(1.0f, 1.0f);
}

NoNoiseProcess::NoNoiseProcess(const NoNoiseProcess& other) : OverlapSave(other) {
    detail::ZeroRecord(&mParam);
    CopyNoNoise(&other.mParam, &mParam, true);
    mReducer = other.mReducer != nullptr ? CloneReducer(*other.mReducer) : nullptr;
    mCeiling = other.mCeiling;
}

NoNoiseProcess& NoNoiseProcess::operator=(const NoNoiseProcess& other) {
    if (this != &other) {
        NONOISE param;
        detail::ZeroRecord(&param);
        CopyNoNoise(&other.mParam, &param, true);
        NOISEREDUCER* reducer = nullptr;
        try {
            reducer = other.mReducer != nullptr ? CloneReducer(*other.mReducer) : nullptr;
            OverlapSave::operator=(other);
        } catch (...) {
            if (reducer != nullptr) DestroyNoiseReducer(reducer);
            detail::ReleaseRecordArrays(&param);
            throw;
        }
        detail::ReleaseRecordArrays(&mParam);
        mParam = param;
        if (mReducer != nullptr) DestroyNoiseReducer(mReducer);
        mReducer = reducer;
        mCeiling = other.mCeiling;
    }
    return *this;
}

NoNoiseProcess::~NoNoiseProcess() {
    if (mReducer != nullptr) DestroyNoiseReducer(mReducer);
    detail::ReleaseRecordArrays(&mParam);
}

void NoNoiseProcess::InitAsSingleChannel(const NONOISE* param, int channel) {
    Init(param->fftSize, 1, OutputOffset(param), CrossfadeLength(param), BlackmanHarris);
    // A reducer sized for the previous engine must not meet the new one; Resume builds another.
    if (mReducer != nullptr) {
        DestroyNoiseReducer(mReducer);
        mReducer = nullptr;
    }
    // The held record is emptied (its arrays released) and takes the channel into fresh arrays.
    detail::ReleaseRecordArrays(&mParam);
    detail::ZeroRecord(&mParam);
    CopyMultiChannelNoNoiseToSingleChannelNoNoise(param, &mParam, channel, false);
    SetScaler(1.0f, 1.0f);
}

void NoNoiseProcess::SetParamFromMultiChannelParam(NONOISE* param, int channel) {
    detail::ReleaseRecordArrays(&mParam);
    detail::ZeroRecord(&mParam);
    CopyMultiChannelNoNoiseToSingleChannelNoNoise(param, &mParam, channel, false);
    ParameterChanged();
}

// ---- stream control ----------------------------------------------------------------------------

void NoNoiseProcess::Suspend() {
    if (mReducer != nullptr) {
        DestroyNoiseReducer(mReducer);
        mReducer = nullptr;
    }
    OverlapSave::Suspend();
}

void NoNoiseProcess::Resume() {
    NOISEREDUCER* reducer = CreateNoiseReducer();
    if (mReducer != nullptr) DestroyNoiseReducer(mReducer);
    mReducer = reducer;
    UpdateParameter();
    OverlapSave::Resume();
}

void NoNoiseProcess::ParameterChanged() {
    UpdateParameter();
}

NOISEREDUCER* NoNoiseProcess::CreateNoiseReducer() {
    return NewReducer(mFrameLength, mNumChannels);
}

void NoNoiseProcess::DestroyNoiseReducer(NOISEREDUCER* reducer) {
    dsp::detail::FreeAlignedArray(reducer->storage);
    delete reducer;
}

void NoNoiseProcess::UpdateParameter() {
    const double R = detail::ReductionCeiling(mParam.reductionDb);
    mCeiling = R;

    NOISEREDUCER* r = mReducer;
    if (r == nullptr) return;
    const int N = r->size;
    const bool fits = N >= 2 && mParam.fftSize == N && mParam.thresholdCurve != nullptr && mParam.binRms != nullptr &&
                      mParam.binMin != nullptr && mParam.binMax != nullptr;

    const double offset = mParam.thresholdOffset;
    if (N >= 2) {
        r->curve[0] = offset;
        r->curve[N / 2] = offset;
        for (int k = 1; k < N / 2; ++k) {
            const double s = (fits ? static_cast<double>(mParam.thresholdCurve[k]) : 0.0) + offset;
            r->curve[k] = s;
            r->curve[N - k] = s;
        }
    }
    r->spread = std::pow(10.0, mParam.transitionDb / 20.0);
    r->decay = mParam.smoothingPercent / 100.0;
    r->oneMinusDecay = 1.0 - r->decay;
    r->magScale = 1.0 / (mParam.fftSize * 0.25);

    for (int c = 0; c < r->channels; ++c) {
        const bool active = fits && c < mParam.channels && mParam.binRms[c] != nullptr && mParam.binMin[c] != nullptr &&
                            mParam.binMax[c] != nullptr;
        r->active[static_cast<std::size_t>(c)] = active ? 1 : 0;
    }
    for (const NOISEREDUCER::Group& g : r->groups) {
        for (int lane = 0; lane < g.lanes; ++lane) {
            const int c = g.first + lane;
            const NOISEREDUCER::Tables& t = g.lane[lane];
            if (r->active[static_cast<std::size_t>(c)] == 0) {
                // lo = hi = 0 puts every bin above the knee with t = 0: gain exactly 1.
                std::fill_n(t.lo, r->bins, 0.0);
                std::fill_n(t.hi, r->bins, 0.0);
                std::fill_n(t.kneeWidth, r->bins, 0.0);
                std::fill_n(t.ceiling, r->bins, 1.0);
                continue;
            }
            for (int k = 0; k < r->bins; ++k) {
                const detail::BinRule rule =
                    detail::MakeBinRule(mParam.binRms[c][k], mParam.binMax[c][k], mParam.binMin[c][k], r->curve[k],
                                        r->spread, mParam.precisionExponent, R);
                t.lo[k] = rule.lo;
                t.hi[k] = rule.hi;
                t.kneeWidth[k] = rule.hi - rule.lo;
                t.ceiling[k] = rule.ceiling;
            }
        }
    }
}

// ---- frames ------------------------------------------------------------------------------------

void NoNoiseProcess::ComputeWindow() {
    const int N = mFrameLength;
    // The capture's window, shifted by one index as there; the synthesis window is its reciprocal
    // times 1/N (the unscaled transform pair's gain), 0 where the analysis window vanishes.
    mAnalysisWindow[0] = 0.0f;
    mSynthesisWindow[0] = 0.0f;
    mAnalysisWindow[N / 2] = 1.0f;
    mSynthesisWindow[N / 2] = static_cast<float>(1.0 / N);
    for (int k = 0; k <= N / 2 - 2; ++k) {
        const double v = detail::PrintWindowValue(k, N);
        const float analysis = static_cast<float>(v);
        const float synthesis = v > 1e-7 ? static_cast<float>((1.0 / N) / v) : 0.0f;
        mAnalysisWindow[k + 1] = analysis;
        mAnalysisWindow[N - 1 - k] = analysis;
        mSynthesisWindow[k + 1] = synthesis;
        mSynthesisWindow[N - 1 - k] = synthesis;
    }
}

// Through digital silence the smoothed magnitudes decay by `decay` every frame and would reach the
// subnormal range after some forty seconds; the engine runs this hook under its flush-to-zero
// guard, so they end in zeros at full speed.

void NoNoiseProcess::OnSpectrum(float** re, float** im, int channels, int bins) {
    NOISEREDUCER* r = mReducer;
    if (mParam.reductionDb == 0.0 || r == nullptr) return;
    const int n = std::min(bins, r->bins);
    // Smoothing only with a positive decay; the reducer's first frame seeds it.
    const detail::Smoothing mode = !(r->decay > 0.0) ? detail::Smoothing::Off
                                   : r->firstFrame   ? detail::Smoothing::Seed
                                                     : detail::Smoothing::Run;
    for (const NOISEREDUCER::Group& g : r->groups) {
        if (g.first + g.lanes > channels) break;
        const bool any = r->active[static_cast<std::size_t>(g.first)] != 0 ||
                         (g.lanes == 2 && r->active[static_cast<std::size_t>(g.first + 1)] != 0);
        if (!any) continue;
        float* groupRe[2] = {re[g.first], re[g.first + g.lanes - 1]};
        float* groupIm[2] = {im[g.first], im[g.first + g.lanes - 1]};
        detail::ReduceGroup(groupRe, groupIm, g, n, r->magScale, mode, r->decay, r->oneMinusDecay);
    }
    r->firstFrame = false;
}

}  // namespace dsp::nonoise
