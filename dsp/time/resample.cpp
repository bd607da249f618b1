#include "dsp/resample.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>

#include "dsp/core/aligned_memory.h"
#include "dsp/time/resample_kernels.h"

namespace dsp {

namespace detail {

const ResampleKernels& ResampleKernelsFor(Isa isa) {
    static const ResampleKernels& best =
        PickKernels(portable::ResampleKernelTable(), KESTADSP_AVX2_TABLE(avx2::ResampleKernelTable()));
    if (isa == Isa::Best) return best;
    return PickKernels(portable::ResampleKernelTable(), KESTADSP_AVX2_TABLE(avx2::ResampleKernelTable()), isa);
}

}  // namespace detail

namespace {

// Rows of input a chunk holds beside the carried history, in strides (at least 1024 samples).
constexpr int kChunkStrides = 4;
constexpr int kMinChunk = 1024;
// Zeros kept after the held input: the last window reads up to stride - order (< 8) samples past
// its newest tap, against zero coefficients.
constexpr int kTailZeros = 8;

// I0 by its power series cut after exactly 19 terms; at large beta the cut shows in the window's
// far sidelobes, and the table depends on it.
double BesselI0(double z) {
    double term = 1.0, sum = 1.0;
    for (int k = 1; k <= 19; ++k) {
        term *= (z / 2.0) / k;
        sum += term * term;
    }
    return sum;
}

}  // namespace

Resample::Resample() {
    SetSampleRates(48000, 44100);
    mPhases = 0;
}

Resample::~Resample() {
    Release();
}

Resample::Resample(const Resample& other) {
    CopyFrom(other);
}

Resample& Resample::operator=(const Resample& other) {
    if (this != &other) {
        Release();
        CopyFrom(other);
    }
    return *this;
}

void Resample::CopyFrom(const Resample& other) {
    double* table = nullptr;
    double* history = nullptr;
    if (other.mTable != nullptr) {
        const std::size_t count = static_cast<std::size_t>(other.mTableRows) * static_cast<std::size_t>(other.mStride);
        table = detail::AllocateAlignedArrayUninitialised<double>(count);
        std::memcpy(table, other.mTable, count * sizeof(double));
    }
    if (other.mHistory != nullptr) {
        try {
            history =
                detail::AllocateAlignedArrayUninitialised<double>(static_cast<std::size_t>(other.mHistoryCapacity));
        } catch (...) {
            detail::FreeAlignedArray(table);
            throw;
        }
        std::memcpy(history, other.mHistory, static_cast<std::size_t>(other.mHistoryCapacity) * sizeof(double));
    }
    // Every plain field, with the copied arrays in place of the other's.
    mInitialized = other.mInitialized;
    mOrder = other.mOrder;
    mSourceRate = other.mSourceRate;
    mDestRate = other.mDestRate;
    mPhases = other.mPhases;
    mStep = other.mStep;
    mLatency = other.mLatency;
    mStride = other.mStride;
    mSnapshot = other.mSnapshot;
    mPhaseStart = other.mPhaseStart;
    mPhaseFrac = other.mPhaseFrac;
    mTable = table;
    mTableRows = other.mTableRows;
    mHistory = history;
    mHistoryCapacity = other.mHistoryCapacity;
    mHistoryFill = other.mHistoryFill;
    mHistoryStart = other.mHistoryStart;
    mNextInput = other.mNextInput;
    mWindowEnd = other.mWindowEnd;
    mPhase = other.mPhase;
    mPhaseFraction = other.mPhaseFraction;
    mNoiseFloor = other.mNoiseFloor;
    mNyquistShift = other.mNyquistShift;
}

void Resample::Release() {
    detail::FreeAlignedArray(mTable);
    detail::FreeAlignedArray(mHistory);
    mTable = nullptr;
    mHistory = nullptr;
    mTableRows = 0;
    mHistoryCapacity = 0;
    mSnapshot = Snapshot{};
}

void Resample::SetSampleRates(int source, int dest) {
    SetSampleRates(static_cast<float>(source), static_cast<float>(dest), false);
}

void Resample::SetSampleRates(float source, float dest, bool /*exact*/) {
    if (mInitialized != 0) return;
    if (source > 0.0f) mSourceRate = source;
    if (dest > 0.0f) mDestRate = dest;
    if (mSourceRate == mDestRate) {
        mPhases = 0;
        mLatency = 0;
        return;
    }
    const auto wholeSource = static_cast<int64_t>(mSourceRate + 0.5);
    const auto wholeDest = static_cast<int64_t>(mDestRate + 0.5);
    mSourceRate = static_cast<float>(wholeSource);
    mDestRate = static_cast<float>(wholeDest);
    const int64_t g = std::gcd(wholeSource, wholeDest);
    if (wholeDest / g > 1000) {
        mPhases = 1000;
        mStep = static_cast<double>(wholeSource) * 1000.0 / static_cast<double>(wholeDest);
    } else {
        mPhases = static_cast<int32_t>(wholeDest / g);
        mStep = static_cast<double>(wholeSource / g);
    }
    PreComputeStuff();
}

void Resample::SetFilterOrder(int n) {
    if (mInitialized != 0 || n <= 0) return;
    mOrder = (n - 1) | 1;
    mStride = (mOrder + 7) / 8 * 8;
    PreComputeStuff();
}

void Resample::SetNoiseFloor(double dB) {
    mNoiseFloor = dB;
}

void Resample::SetNyquistShift(double shift) {
    if (mInitialized == 0) mNyquistShift = shift;
}

void Resample::PreComputeStuff() {
    if (mSourceRate == mDestRate) return;
    const double x = ((mOrder - 1) / 2) * static_cast<double>(mDestRate) / static_cast<double>(mSourceRate);
    mLatency = static_cast<int32_t>(std::floor(x));
    if (mPhases == 0) return;
    // The 1e-12 keeps a whole-number phase from landing just below its row.
    const double L = mPhases;
    const double position = (x - std::floor(x) + 1e-12) * mStep + L;
    mPhaseStart = position / L - 1.0;
    mPhaseFrac = std::fmod(position, L);
}

double Resample::CutoffScale() const {
    const double K = 12.5 / mOrder;
    const double L = mPhases;
    if (mSourceRate <= mDestRate) return L / (L - mNyquistShift * 0.6 * K * L);
    return mStep / (L - (mNyquistShift - 0.31) * K * mStep);
}

void Resample::BuildTable(int taps, double offset, double scale, double* out) const {
    const int h = (taps - 1) / 2;
    const int kaiserHalf = (taps + 1) / 2;  // the Kaiser window's half-width is one tap wider
    const bool kaiser = mNoiseFloor >= 60.0;
    const double beta = 0.1102 * (mNoiseFloor - 8.7);
    const double i0Beta = kaiser ? BesselI0(beta) : 1.0;
    for (int j = 0; j < taps; ++j) {
        const double t = (j - h) - offset;
        const double a = mPi * (t / h) * (taps - 1) / (2.0 * scale);
        const double sinc = a == 0.0 ? 1.0 : std::sin(a) / a;
        double w;
        if (kaiser) {
            const double u = t / kaiserHalf;
            w = BesselI0(beta * std::sqrt(1.0 - u * u)) / i0Beta;
        } else {
            const double v = t / h;
            w = 0.42 + 0.5 * std::cos(mPi * v) + 0.08 * std::cos(mTwoPi * v);
        }
        out[j] = w * sinc / scale;
    }
}

bool Resample::SnapshotMatches() const {
    const Snapshot& s = mSnapshot;
    return s.order == mOrder && s.stride == mStride && s.sourceRate == mSourceRate && s.destRate == mDestRate &&
           s.noiseFloor == mNoiseFloor && s.nyquistShift == mNyquistShift && s.step == mStep && s.phases == mPhases;
}

void Resample::Initialize() {
    if (mPhases == 0) {  // a pass-through has nothing to build
        mInitialized = 1;
        return;
    }
    const bool blend = mStep != std::floor(mStep);
    const int rows = mPhases + (blend ? 1 : 0);
    if (mTable == nullptr || !SnapshotMatches() || mTableRows != rows) {
        detail::FreeAlignedArray(mTable);
        mTable = nullptr;
        mTable =
            detail::AllocateAlignedArray<double>(static_cast<std::size_t>(rows) * static_cast<std::size_t>(mStride));
        mTableRows = rows;
        const double scale = CutoffScale();
        for (int i = 0; i < rows; ++i)
            BuildTable(mOrder, static_cast<double>(i) / mPhases, scale, mTable + static_cast<std::size_t>(i) * mStride);
        mSnapshot = {mSourceRate, mDestRate, mOrder, mStride, mPhases, mStep, mNoiseFloor, mNyquistShift};
    }
    const int capacity = mStride + std::max(kChunkStrides * mStride, kMinChunk) + kTailZeros;
    if (mHistory == nullptr || mHistoryCapacity != capacity) {
        detail::FreeAlignedArray(mHistory);
        mHistory = nullptr;
        mHistory = detail::AllocateAlignedArray<double>(static_cast<std::size_t>(capacity));
        mHistoryCapacity = capacity;
    }
    ResetHistory();
    mInitialized = 1;
}

void Resample::ResetHistory() {
    std::fill(mHistory, mHistory + mHistoryCapacity, 0.0);
    // The order - 1 samples before the stream are silence.
    mHistoryFill = mOrder - 1;
    mHistoryStart = -(mOrder - 1);
    mNextInput = 0;
    const double L = mPhases;
    const double position = (mPhaseStart + 1.0) * L;  // (x - floor(x) + 1e-12) * step + L
    mWindowEnd = static_cast<int64_t>(std::llround((position - mPhaseFrac) / L)) - 1;
    mPhase = static_cast<int32_t>(std::floor(mPhaseFrac));
    mPhaseFraction = mPhaseFrac - mPhase;
}

void Resample::Deinitialize(bool keepTable) {
    mInitialized = 0;
    if (!keepTable) Release();
}

int Resample::GetOutputBufferSize(int n) const {
    return static_cast<int>(n * static_cast<double>(mDestRate) / static_cast<double>(mSourceRate) + 2.0);
}

const double* Resample::GetTableRow(int phase) const {
    if (mTable == nullptr || phase < 0 || phase >= mTableRows) return nullptr;
    return mTable + static_cast<std::size_t>(phase) * mStride;
}

int Resample::Process(float* in, float* out, int n) {
    if (n <= 0) return 0;
    if (mPhases == 0) {
        if (in != out) std::memmove(out, in, static_cast<std::size_t>(n) * sizeof(float));
        return n;
    }
    if (mInitialized == 0 || mTable == nullptr) return 0;
    return Process2(in, out, n);
}

int Resample::Process2(float* in, float* out, int n) {
    const bool blend = mTableRows > mPhases;
    int produced = 0;
    while (n > 0) {
        // A step longer than the window leaves input to pass over before the next window starts.
        if (mHistoryFill == 0 && mNextInput < mHistoryStart) {
            const int skip = static_cast<int>(std::min<int64_t>(n, mHistoryStart - mNextInput));
            in += skip;
            n -= skip;
            mNextInput += skip;
            continue;
        }
        const int take = std::min(n, mHistoryCapacity - kTailZeros - mHistoryFill);
        produced += ProcessInternal(in, out + produced, take, blend);
        in += take;
        n -= take;
    }
    return produced;
}

int Resample::ProcessInternal(float* in, float* out, int n, bool blend) {
    double* held = mHistory + mHistoryFill;
    for (int i = 0; i < n; ++i)
        held[i] = in[i];
    std::fill(held + n, held + n + kTailZeros, 0.0);
    mHistoryFill += n;
    mNextInput += n;

    const detail::ResampleKernels& kernels = detail::ResampleKernelsFor();
    const int span = mOrder - 1;
    const int64_t available = mHistoryStart + mHistoryFill;
    // The step in whole input samples and phases left over, so the loop needs no division.
    const auto stepWhole = static_cast<int64_t>(std::floor(mStep));
    const double stepFraction = mStep - static_cast<double>(stepWhole);
    const int64_t stepSamples = stepWhole / mPhases;
    const auto stepPhases = static_cast<int32_t>(stepWhole % mPhases);
    int produced = 0;
    double pair[2];
    while (mWindowEnd < available) {
        const double* x = mHistory + (mWindowEnd - span - mHistoryStart);
        const double* row = mTable + static_cast<std::size_t>(mPhase) * mStride;
        // Upsampling: the next output often reads the same window at a later phase; one pass over
        // the window makes both (each with the bits it would have alone).
        if (stepSamples == 0 && !blend && mPhase + stepPhases < mPhases) {
            const int32_t next = mPhase + stepPhases;
            kernels.dot2(row, mTable + static_cast<std::size_t>(next) * mStride, x, mStride, &pair[0], &pair[1]);
            out[produced++] = static_cast<float>(pair[0]);
            out[produced++] = static_cast<float>(pair[1]);
            mPhase = next + stepPhases;
            if (mPhase >= mPhases) {
                mPhase -= mPhases;
                ++mWindowEnd;
            }
            continue;
        }
        double y = kernels.dot(row, x, mStride);
        if (blend) {
            const double next = kernels.dot(row + mStride, x, mStride);
            y += mPhaseFraction * (next - y);
        }
        out[produced++] = static_cast<float>(y);
        mPhaseFraction += stepFraction;
        mPhase += stepPhases;
        if (mPhaseFraction >= 1.0) {
            mPhaseFraction -= 1.0;
            ++mPhase;
        }
        mWindowEnd += stepSamples;
        if (mPhase >= mPhases) {
            mPhase -= mPhases;
            ++mWindowEnd;
        }
    }
    // Keep what the next window needs, from its oldest tap on.
    const int64_t keepFrom = mWindowEnd - span;
    if (keepFrom >= available) {
        mHistoryFill = 0;
        mHistoryStart = keepFrom;
    } else if (keepFrom > mHistoryStart) {
        const auto drop = static_cast<int32_t>(keepFrom - mHistoryStart);
        mHistoryFill -= drop;
        std::memmove(mHistory, mHistory + drop, static_cast<std::size_t>(mHistoryFill) * sizeof(double));
        mHistoryStart = keepFrom;
    }
    return produced;
}

}  // namespace dsp
