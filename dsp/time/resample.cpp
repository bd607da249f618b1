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

// Rows of input a chunk holds beside the carried history, in strides (at least 4096 samples): the
// longer the chunk, the more outputs share each row while it is in the first-level cache.
constexpr int kChunkStrides = 4;
constexpr int kMinChunk = 4096;
// Stop-band floors up to this many dB run the single-precision copy of the table: its rounding
// and the float sums lie below about -145 dB, under such a floor and under the float output's
// own rounding. Deeper floors keep every product and sum in double.
constexpr double kSingleFloorLimit = 140.0;
// Zeros kept after the held input: the last window reads up to stride - order (< 8) samples past
// its newest tap, against zero coefficients.
constexpr int kTailZeros = 8;
// The held input starts at a stream index that is a multiple of this, so a window's place in
// memory has the alignment its place in the stream has.
constexpr int64_t kAlign = 8;
// Zeros before and after each single-precision row: a window starting r samples past an aligned
// index is read from that index with the row moved r taps on, so the input loads are aligned.
constexpr int kRowLead = 8;

int64_t AlignDown(int64_t index) {
    return index & ~(kAlign - 1);
}

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

// A 64-byte aligned copy of `count` values at `from` (null stays null).
template <typename T>
T* CopyAligned(const T* from, std::size_t count) {
    if (from == nullptr) return nullptr;
    T* to = detail::AllocateAlignedArrayUninitialised<T>(count);
    std::memcpy(to, from, count * sizeof(T));
    return to;
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
    const std::size_t count = static_cast<std::size_t>(other.mTableRows) * static_cast<std::size_t>(other.mStride);
    double* table = nullptr;
    float* tableSingle = nullptr;
    float* history = nullptr;
    try {
        table = CopyAligned(other.mTable, count);
        tableSingle =
            CopyAligned(other.mTableSingle, static_cast<std::size_t>(other.mTableRows) * other.SingleStride());
        history = CopyAligned(other.mHistory, static_cast<std::size_t>(other.mHistoryCapacity));
    } catch (...) {
        detail::FreeAlignedArray(table);
        detail::FreeAlignedArray(tableSingle);
        throw;
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
    mTableSingle = tableSingle;
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
    detail::FreeAlignedArray(mTableSingle);
    detail::FreeAlignedArray(mHistory);
    mTable = nullptr;
    mTableSingle = nullptr;
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

std::size_t Resample::SingleStride() const {
    return static_cast<std::size_t>(mStride) + 2 * kRowLead;
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
        detail::FreeAlignedArray(mTableSingle);
        mTable = nullptr;
        mTableSingle = nullptr;
        const std::size_t count = static_cast<std::size_t>(rows) * static_cast<std::size_t>(mStride);
        mTable = detail::AllocateAlignedArray<double>(count);
        mTableRows = rows;
        const double scale = CutoffScale();
        for (int i = 0; i < rows; ++i)
            BuildTable(mOrder, static_cast<double>(i) / mPhases, scale, mTable + static_cast<std::size_t>(i) * mStride);
        if (mNoiseFloor <= kSingleFloorLimit && !blend) {
            mTableSingle = detail::AllocateAlignedArray<float>(static_cast<std::size_t>(rows) * SingleStride());
            for (int i = 0; i < rows; ++i)
                for (int j = 0; j < mOrder; ++j)
                    mTableSingle[static_cast<std::size_t>(i) * SingleStride() + kRowLead +
                                 static_cast<std::size_t>(j)] =
                        static_cast<float>(mTable[static_cast<std::size_t>(i) * mStride + static_cast<std::size_t>(j)]);
        }
        mSnapshot = {mSourceRate, mDestRate, mOrder, mStride, mPhases, mStep, mNoiseFloor, mNyquistShift};
    }
    const int capacity = mStride + std::max(kChunkStrides * mStride, kMinChunk) + kTailZeros;
    if (mHistory == nullptr || mHistoryCapacity != capacity) {
        detail::FreeAlignedArray(mHistory);
        mHistory = nullptr;
        mHistory = detail::AllocateAlignedArray<float>(static_cast<std::size_t>(capacity));
        mHistoryCapacity = capacity;
    }
    ResetHistory();
    mInitialized = 1;
}

void Resample::ResetHistory() {
    std::fill(mHistory, mHistory + mHistoryCapacity, 0.0f);
    // The order - 1 samples before the stream are silence (and up to 7 more, for alignment).
    mHistoryStart = AlignDown(-(mOrder - 1));
    mHistoryFill = static_cast<int32_t>(-mHistoryStart);
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
    float* held = mHistory + mHistoryFill;
    std::memcpy(held, in, static_cast<std::size_t>(n) * sizeof(float));
    std::fill(held + n, held + n + kTailZeros, 0.0f);
    mHistoryFill += n;
    mNextInput += n;

    const int produced = blend ? ProduceBlended(out) : ProduceByRows(out);

    // Keep what the next window needs, from the aligned index at or before its oldest tap.
    const int64_t available = mHistoryStart + mHistoryFill;
    const int64_t keepFrom = AlignDown(mWindowEnd - (mOrder - 1));
    if (keepFrom >= available) {
        mHistoryFill = 0;
        mHistoryStart = keepFrom;
    } else if (keepFrom > mHistoryStart) {
        const auto drop = static_cast<int32_t>(keepFrom - mHistoryStart);
        mHistoryFill -= drop;
        std::memmove(mHistory, mHistory + drop, static_cast<std::size_t>(mHistoryFill) * sizeof(float));
        mHistoryStart = keepFrom;
    }
    return produced;
}

int Resample::ProduceByRows(float* out) {
    // With a whole step, outputs k and k + L use the same row and windows `step` input samples
    // apart. So the outputs the held input completes are made row by row: each row meets all its
    // windows while it is in the first-level cache, instead of the whole table streaming through
    // for every L outputs. Output k = v + i L is made at visit v (the phases in output order).
    const int64_t available = mHistoryStart + mHistoryFill;
    if (mWindowEnd >= available) return 0;
    const detail::ResampleKernels& kernels = detail::ResampleKernelsFor();
    const int32_t L = mPhases;
    const auto step = static_cast<int64_t>(mStep);
    const int64_t stepSamples = step / L;
    const auto stepPhases = static_cast<int32_t>(step % L);
    const int span = mOrder - 1;
    // With an even step, windows `classStride` apart start at the same offset from an aligned
    // index, so they are taken class by class: each class reads its windows aligned and shares one
    // moved row. An odd step would leave eight classes of too few windows each to share the row's
    // loads well; its windows are read where they start.
    const bool moveRow = step % 2 == 0;
    const int64_t classStride = moveRow ? kAlign / std::gcd(step, kAlign) : 1;
    // Visits take windows ending in [end, end + step), so each makes `first` outputs or one fewer:
    // `first` up to some visit v*, one fewer from there on, and output v* + (first - 1) L is the
    // first one this input does not complete.
    auto windows = [&](int64_t end) { return end < available ? (available - end + step - 1) / step : int64_t{0}; };
    const int64_t first = windows(mWindowEnd);
    int64_t end = mWindowEnd;
    int32_t phase = mPhase;
    int produced = 0;
    bool settled = false;
    for (int32_t v = 0;; ++v) {
        const int64_t count = windows(end);
        if (!settled && (v == L || count < first)) {
            mWindowEnd = end + count * step;
            mPhase = phase;
            settled = true;
        }
        if (v == L || count == 0) break;
        const int64_t start = end - span;  // the window's oldest tap
        if (mTableSingle != nullptr) {
            const float* row = mTableSingle + static_cast<std::size_t>(phase) * SingleStride() + kRowLead;
            for (int64_t c = 0; c < std::min(classStride, count); ++c) {
                const int64_t from = start + c * step;
                const auto r = static_cast<int>(moveRow ? from - AlignDown(from) : 0);
                const auto members = static_cast<int>((count - c + classStride - 1) / classStride);
                kernels.dotWindowsSingle(row - r, mHistory + (from - r - mHistoryStart), step * classStride, members,
                                         (r + mOrder + 7) / 8 * 8, out + v + c * L, L * classStride);
            }
        } else {
            kernels.dotWindows(mTable + static_cast<std::size_t>(phase) * static_cast<std::size_t>(mStride),
                               mHistory + (start - mHistoryStart), step, static_cast<int>(count), mStride, out + v, L);
        }
        produced += static_cast<int>(count);
        phase += stepPhases;
        end += stepSamples;
        if (phase >= L) {
            phase -= L;
            ++end;
        }
    }
    return produced;
}

int Resample::ProduceBlended(float* out) {
    // A step that is not whole: each output blends the rows of its phase and the next one.
    const detail::ResampleKernels& kernels = detail::ResampleKernelsFor();
    const int span = mOrder - 1;
    const int64_t available = mHistoryStart + mHistoryFill;
    // The step in whole input samples and phases left over, so the loop needs no division.
    const auto stepWhole = static_cast<int64_t>(std::floor(mStep));
    const double stepFraction = mStep - static_cast<double>(stepWhole);
    const int64_t stepSamples = stepWhole / mPhases;
    const auto stepPhases = static_cast<int32_t>(stepWhole % mPhases);
    int produced = 0;
    while (mWindowEnd < available) {
        const float* x = mHistory + (mWindowEnd - span - mHistoryStart);
        const double* row = mTable + static_cast<std::size_t>(mPhase) * mStride;
        const double y = kernels.dot(row, x, mStride);
        const double next = kernels.dot(row + mStride, x, mStride);
        out[produced++] = static_cast<float>(y + mPhaseFraction * (next - y));
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
    return produced;
}

}  // namespace dsp
