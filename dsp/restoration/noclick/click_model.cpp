#include "dsp/restoration/noclick/click_model.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace dsp::noclick {

namespace {

constexpr int kMaxOnsetsPerSlice = 200;
constexpr int kMergeGap = 10;  // flagged stretches closer than this merge into one run
constexpr int kShortRun = 12;  // runs shorter than this are widened by 2 on each side
constexpr int kWindow = 1024;  // onset window of the periodic-train test
constexpr int kWindowStep = 256;
constexpr int kMinPeriod = kMergeGap + 1;  // onsets of distinct runs are at least this far apart

int AutocorrelationSize(int count) {
    int f = 256;
    while (f < 2 * count)
        f *= 2;
    return f;
}

}  // namespace

bool ClickModel::Init(int order, int blockLength, float sampleRate, const ClickModelConfig& config) {
    mEnabled = false;
    mConfig = config;
    mOrder = std::clamp(order, 1, kMaxOrder);
    mBlockLength = std::max(blockLength, 1);
    mSampleRate = static_cast<int>(sampleRate + 0.5f);
    if (config.enabled == 0) return false;
    const int p = mOrder, n = mBlockLength;
    const auto perSample = static_cast<std::size_t>(n + p + 2);
    mA.assign(p + 1, 0.0f);
    mA[0] = -1.0f;
    mR.assign(p + 1, 0.0);
    mC.assign(p + 1, 0.0);
    mLev.assign(2 * (p + 1), 0.0);
    mFlag.assign(perSample, 0);
    mError.assign(perSample, 0.0f);
    mEnergy.assign(n, 0.0);
    mBand.assign(static_cast<std::size_t>(n) * (p + 1), 0.0);
    mRhs.assign(n, 0.0);
    mUnknown.assign(n, 0);
    mScratch.assign(static_cast<std::size_t>(n) + 4096 + std::max<int>(512, config.wordA), 0);
    mHamming.resize(kWindow - 2);
    for (int i = 0; i < kWindow - 2; ++i)
        mHamming[i] = static_cast<float>(0.54 - 0.46 * std::cos(2.0 * std::numbers::pi * i / (kWindow - 2)));
    mLagWeight.assign(kWindow + 1, 0.0);
    mRelative.assign(2 * kMaxOnsetsPerSlice + 1, 0);
    const int slices = (n + kSlice - 1) / kSlice;
    mOnsets.assign(static_cast<std::size_t>(slices) * kMaxOnsetsPerSlice, ClickRun{});
    mRuns.assign(n / 2 + 1, ClickRun{});
    mCleared.assign(mOnsets.size(), ClickRun{});
    mNumOnsets = mNumRuns = mMasked = 0;
    // Arrays for the longest input (a block with its history); the plan for a block without one
    // (repair), which detection's block with history shares unless it crosses a power of two.
    mRe.assign(AutocorrelationSize(n + p) + 2, 0.0);
    mIm.assign(mRe.size(), 0.0);
    mFft.Init(AutocorrelationSize(n));
    mFftInputLength = n;
    mEnabled = mFft.IsInitialized();
    return mEnabled;
}

// r[k] = sum x[i] x[i + k] for k = 0 ... p, by two real transforms of size F >= 2 * count: the
// zero padding makes the circular correlation behind |X|^2 equal the linear one, and since |X|^2 is
// real and even its inverse transform is its forward transform over F, so the second transform is
// the same real forward one (each scales by 1/F: r = F^2 * result).
void ClickModel::Autocorrelation(const float* x, int count) {
    const int fftSize = AutocorrelationSize(count);
    if (count != mFftInputLength) {
        if (fftSize != mFft.GetSize()) {
            mFft.Init(fftSize);
            if (static_cast<int>(mRe.size()) < fftSize + 2) {
                mRe.resize(fftSize + 2);
                mIm.resize(fftSize + 2);
            }
        }
        mFftInputLength = count;
    }
    double* in = mRe.data();
    double* spectrum = mIm.data();
    std::copy(x, x + count, in);
    std::fill(in + count, in + fftSize, 0.0);
    mFft.FFT(in, spectrum);
    const int half = fftSize / 2;
    for (int k = 0; k <= half; ++k)
        in[k] = spectrum[2 * k] * spectrum[2 * k] + spectrum[2 * k + 1] * spectrum[2 * k + 1];
    for (int k = half + 1; k < fftSize; ++k)
        in[k] = in[fftSize - k];
    mFft.FFT(in, spectrum);
    const double scale = static_cast<double>(fftSize) * fftSize;
    for (int k = 0; k <= mOrder; ++k)
        mR[k] = spectrum[2 * k] * scale;
}

// Levinson-Durbin on r: a[1 ... p] minimise the mean square of x[n] - sum a[k] x[n - k]. The error
// power shrinks by (1 - k^2) per reflection coefficient; should rounding drive it to zero or below
// (a perfectly predictable block), the recursion stops and the higher coefficients stay 0.
void ClickModel::Levinson() {
    const int p = mOrder;
    double* a = mLev.data();
    double* prev = a + (p + 1);
    std::fill(a, a + p + 1, 0.0);
    double error = mR[0];
    for (int i = 1; i <= p; ++i) {
        double acc = mR[i];
        for (int j = 1; j < i; ++j)
            acc -= a[j] * mR[i - j];
        const double k = acc / error;
        if (!std::isfinite(k) || std::fabs(k) >= 1.0) break;
        std::copy(a, a + i, prev);
        a[i] = k;
        for (int j = 1; j < i; ++j)
            a[j] = prev[j] - k * prev[i - j];
        error *= 1.0 - k * k;
        if (!(error > 0.0)) break;
    }
    mA[0] = -1.0f;
    for (int i = 1; i <= p; ++i)
        mA[i] = static_cast<float>(a[i]);
    for (int j = 0; j <= p; ++j) {
        double c = 0.0;
        for (int i = 0; i + j <= p; ++i)
            c += static_cast<double>(mA[i]) * mA[i + j];
        mC[j] = c;
    }
}

bool ClickModel::FitModel(const float* x, int count) {
    Autocorrelation(x, count);
    if (!(mR[0] > 0.0)) return false;
    Levinson();
    return true;
}

// flag[n] for n in [from, to): 0 below T * rms + 1, 1 below 10 * rms + 1, 2 above.
void ClickModel::FlagSlice(int from, int to, float t) {
    const int halfWidth = (mSampleRate * 30) / 44100;
    const int last = mNumSamples - 1;
    for (int i = from; i < to; ++i) {
        const int lo = std::max(0, i - halfWidth), hi = std::min(last, i + halfWidth);
        const double rms = lo < hi ? std::sqrt((mEnergy[hi] - mEnergy[lo]) / (hi - lo)) : 0.0;
        const double e = mError[i];
        mFlag[i] = e < t * rms + 1.0 ? 0 : (e < 10.0 * rms + 1.0 ? 1 : 2);
    }
}

// Merges flagged stretches of [from, to) separated by fewer than kMergeGap samples (the gap takes
// level 1), raises a merged run holding any level-2 sample to level 2, and records each run.
void ClickModel::ShapeSlice(int from, int to) {
    uint8_t* flag = mFlag.data();
    int recorded = 0;
    int i = from;
    while (i < to) {
        if (flag[i] == 0) {
            ++i;
            continue;
        }
        const int start = i;
        bool strong = false;
        int end = i;
        for (;;) {
            for (; end < to && flag[end] != 0; ++end)
                strong = strong || flag[end] == 2;
            int next = end;
            while (next < to && next - end < kMergeGap && flag[next] == 0)
                ++next;
            if (next >= to || next - end >= kMergeGap) break;
            std::fill(flag + end, flag + next, uint8_t{1});
            end = next;
        }
        if (strong) std::fill(flag + start, flag + end, uint8_t{2});
        if (recorded < kMaxOnsetsPerSlice) {
            mOnsets[mNumOnsets++] = {start, end};
            ++recorded;
        }
        i = end;
    }
}

// Period and phase of the grid the onsets t[0 ... k) (relative to their window) lie on.
//
// Method: every pair of onsets votes for its distance with the product of their Hamming weights
// (onsets near the window's edges count less, so a train half inside the window does not outvote
// one that fills it), each vote spread half-strength onto the neighbouring lags so that a train
// whose spacing alternates between two integers (a period between samples) still forms one peak.
// The period is the shortest lag whose votes are a local peak of at least half the strongest: a
// train also votes for every multiple of its period, with fewer pairs, so this picks the
// fundamental rather than a multiple. The integer period and the phase are then refined by a
// least-squares line through the onsets against their grid indices (onsets within a tenth of a
// period of the provisional grid only), which recovers periods between samples.
bool ClickModel::EstimateGrid(const int* t, int k, double& period, double& phase) {
    double* votes = mLagWeight.data();
    std::fill(votes, votes + kWindow + 1, 0.0);
    auto weight = [this](int pos) { return static_cast<double>(mHamming[std::clamp(pos - 1, 0, kWindow - 3)]); };
    for (int i = 0; i < k; ++i)
        for (int j = i + 1; j < k; ++j) {
            const int lag = t[j] - t[i];
            if (lag <= 0 || lag >= kWindow) continue;
            const double v = weight(t[i]) * weight(t[j]);
            votes[lag] += v;
            votes[lag - 1] += 0.5 * v;
            votes[lag + 1] += 0.5 * v;
        }
    double strongest = 0.0;
    for (int lag = kMinPeriod; lag < kWindow; ++lag)
        strongest = std::max(strongest, votes[lag]);
    if (!(strongest > 0.0)) return false;
    int lag0 = kMinPeriod;
    for (int lag = kMinPeriod; lag < kWindow; ++lag)
        if (votes[lag] >= 0.5 * strongest && votes[lag] >= votes[lag - 1] && votes[lag] >= votes[lag + 1]) {
            lag0 = lag;
            break;
        }
    // Provisional grid through the onset with the largest weight (the one nearest the centre).
    int anchor = 0;
    for (int i = 1; i < k; ++i)
        if (weight(t[i]) > weight(t[anchor])) anchor = i;
    double sg = 0.0, st = 0.0, sgg = 0.0, sgt = 0.0;
    int used = 0, gmin = 0, gmax = 0;
    for (int i = 0; i < k; ++i) {
        const double offset = static_cast<double>(t[i] - t[anchor]);
        const double g = std::round(offset / lag0);
        if (std::fabs(offset - g * lag0) >= lag0 / 10.0) continue;
        sg += g;
        st += t[i];
        sgg += g * g;
        sgt += g * t[i];
        gmin = std::min(gmin, static_cast<int>(g));
        gmax = std::max(gmax, static_cast<int>(g));
        ++used;
    }
    period = lag0;
    phase = t[anchor];
    const double spread = sgg - sg * sg / used;
    if (gmax > gmin && spread > 0.0) {
        period = (sgt - sg * st / used) / spread;
        phase = (st - period * sg) / used;
        if (!(period >= kMinPeriod - 1)) {
            period = lag0;
            phase = t[anchor];
        }
    }
    return true;
}

// Windows of kWindow samples stepped by kWindowStep: where a window holds at least 4 onsets that
// (all but fewer than a third) sit on a common grid, those onsets are a rhythm or a buzz, and
// their runs are cleared at the end. Windows start below count - kWindow, so the last one ends
// kWindowStep samples before the block does: onsets in that tail are judged only by the next
// detection block, which analyses the stretch again (FindClicks holds those runs back for it).
void ClickModel::RejectPeriodicTrains(int count) {
    uint8_t* periodic = mScratch.data();
    std::fill(periodic, periodic + mNumOnsets, uint8_t{0});
    int* rel = mRelative.data();
    int first = 0;
    for (int ws = 0; ws < count - kWindow; ws += kWindowStep) {
        while (first < mNumOnsets && mOnsets[first].start < ws)
            ++first;
        int k = 0;
        while (first + k < mNumOnsets && mOnsets[first + k].start < ws + kWindow) {
            rel[k] = mOnsets[first + k].start - ws;
            ++k;
        }
        if (k < 4) continue;
        double period = 0.0, phase = 0.0;
        if (!EstimateGrid(rel, k, period, phase)) continue;
        const double tolerance = period / 20.0;
        int misfits = 0;
        long long previous = 0;
        bool havePrevious = false;
        uint8_t* fits = periodic + mNumOnsets;  // per onset of the window
        for (int i = 0; i < k; ++i) {
            const double offset = rel[i] - phase;
            const double g = std::round(offset / period);
            const bool near = std::fabs(offset - g * period) < tolerance;
            const bool repeat = havePrevious && static_cast<long long>(g) == previous;
            fits[i] = near && !repeat;
            if (fits[i]) {
                previous = static_cast<long long>(g);
                havePrevious = true;
            } else {
                ++misfits;
            }
        }
        if (3 * misfits < k)
            for (int i = 0; i < k; ++i)
                periodic[first + i] |= fits[i];
    }
    mNumCleared = 0;
    for (int i = 0; i < mNumOnsets; ++i)
        if (periodic[i]) {
            std::fill(mFlag.begin() + mOnsets[i].start, mFlag.begin() + mOnsets[i].end, uint8_t{0});
            mCleared[mNumCleared++] = mOnsets[i];
        }
}

void ClickModel::CollectRuns(int count) {
    mNumRuns = 0;
    int i = 0;
    while (i < count) {
        if (mFlag[i] == 0) {
            ++i;
            continue;
        }
        int start = i, end = i;
        while (end < count && mFlag[end] != 0)
            ++end;
        i = end;
        if (end - start < kShortRun) {
            if (start < 2) {
                start = 0;
                end += 2;  // may pass the block's end: the range keeps its full widening
            } else {
                start -= 2;
                end = end <= count - 2 ? end + 2 : count;
            }
        }
        mRuns[mNumRuns++] = {start, end};
    }
}

int ClickModel::Detect(const float* x, int count) {
    mNumRuns = mNumCleared = 0;
    if (!mEnabled) return 0;
    count = std::min(count, mBlockLength);
    mNumSamples = count;
    const int p = mOrder;
    if (!FitModel(x - p, count + p)) return 0;

    // Prediction error, one coefficient at a time over the whole block.
    float* e = mError.data();
    std::copy(x, x + count, e);
    for (int k = 1; k <= p; ++k) {
        const float ak = mA[k];
        const float* xk = x - k;
        for (int n = 0; n < count; ++n)
            e[n] -= ak * xk[n];
    }
    float emax = 0.0f;
    for (int n = 0; n < count; ++n) {
        e[n] = std::fabs(e[n]);
        emax = std::max(emax, e[n]);
    }
    if (emax == 0.0f) return 0;

    // High level H (top 1 %) and median level M from a 100-bin histogram of the error.
    int histogram[100] = {};
    for (int n = 0; n < count; ++n)
        ++histogram[static_cast<int>(e[n] * 99.0f / emax)];
    auto levelAt = [&](int target) {
        int bin = 99, sum = 0;
        for (; bin > 0; --bin) {
            sum += histogram[bin];
            if (sum >= target) break;
        }
        return std::max(bin, 1) * static_cast<double>(emax) / 99.0;
    };
    const double high = levelAt(count / 100);
    const double median = levelAt(count / 2);

    double s = 0.0;
    for (int n = 0; n < count; ++n) {
        const double v = e[n] > high ? median : e[n];
        s += v * v;
        mEnergy[n] = s;
    }

    const float t = static_cast<float>(mConfig.level) / 10.0f;
    mNumOnsets = 0;
    for (int from = 0; from < count; from += kSlice) {
        const int to = std::min(count, from + kSlice);
        FlagSlice(from, to, t);
        ShapeSlice(from, to);
    }
    RejectPeriodicTrains(count);
    CollectRuns(count);
    return mNumRuns;
}

void ClickModel::BeginRepair(int count) {
    mMaskLength = std::clamp(count, 0, mBlockLength);
    std::fill(mFlag.begin(), mFlag.begin() + mOrder + mMaskLength, uint8_t{0});
    mMasked = 0;
}

void ClickModel::MarkGap(int start, int end) {
    start = std::max(start, 0);
    end = std::min(end, mMaskLength);
    for (int i = start; i < end; ++i) {
        mMasked += mFlag[i] == 0;
        mFlag[i] = 1;
    }
}

// Least-squares autoregressive interpolation. With b = -a (b[0] = 1) the prediction error is
// e[n] = sum_k b[k] x[n - k], and sum_n e[n]^2 over every n whose error involves a missing sample is
// a quadratic form in the missing values whose matrix entries are c[|i - j|] (the coefficient
// autocorrelation). Setting its gradient to zero gives, for each missing i,
//     sum over missing j of c[|i - j|] x[j] = - sum over known j of c[|i - j|] x[j],
// a symmetric positive definite system with half-bandwidth p in the missing indices. Missing
// samples more than p apart do not interact, so each cluster is solved on its own by a banded
// Cholesky factorisation (O(U p^2) for U missing samples). Known samples are only read.
void ClickModel::SolveCluster(float* x, int count, int from, int to) {
    const int p = mOrder, bw = p + 1;
    int u = 0;
    for (int i = from; i < to; ++i)
        if (mFlag[i]) mUnknown[u++] = i;
    const int* idx = mUnknown.data();
    double* band = mBand.data();
    double* rhs = mRhs.data();
    const double ridge = mC[0] * 1e-12;
    for (int r = 0; r < u; ++r) {
        double* row = band + static_cast<std::size_t>(r) * bw;
        std::fill(row, row + bw, 0.0);
        for (int d = 0; d < bw && r + d < u; ++d) {
            const int lag = idx[r + d] - idx[r];
            if (lag > p) break;
            row[d] = mC[lag];
        }
        row[0] += ridge;
        double b = 0.0;
        const int i = idx[r];
        for (int j = std::max(0, i - p); j <= std::min(count - 1, i + p); ++j)
            if (!mFlag[j]) b -= mC[std::abs(i - j)] * x[j];
        rhs[r] = b;
    }
    // A = R^T R with R upper triangular, stored in place: band[r][d] = R[r][r + d].
    for (int r = 0; r < u; ++r) {
        double* row = band + static_cast<std::size_t>(r) * bw;
        for (int d = 0; d < bw && r + d < u; ++d) {
            double sum = row[d];
            for (int k = std::max(0, r + d - p); k < r; ++k) {
                const double* rk = band + static_cast<std::size_t>(k) * bw;
                if (r - k < bw && r + d - k < bw) sum -= rk[r - k] * rk[r + d - k];
            }
            if (d == 0) {
                if (!(sum > 0.0)) return;  // not positive definite: leave the gap as it is
                row[0] = std::sqrt(sum);
            } else {
                row[d] = sum / row[0];
            }
        }
    }
    for (int r = 0; r < u; ++r) {  // R^T y = rhs
        double sum = rhs[r];
        for (int k = std::max(0, r - p); k < r; ++k)
            sum -= band[static_cast<std::size_t>(k) * bw + (r - k)] * rhs[k];
        rhs[r] = sum / band[static_cast<std::size_t>(r) * bw];
    }
    for (int r = u - 1; r >= 0; --r) {  // R x = y
        const double* row = band + static_cast<std::size_t>(r) * bw;
        double sum = rhs[r];
        for (int d = 1; d < bw && r + d < u; ++d)
            sum -= row[d] * rhs[r + d];
        rhs[r] = sum / row[0];
    }
    for (int r = 0; r < u; ++r)
        x[idx[r]] = static_cast<float>(rhs[r]);
}

void ClickModel::Repair(float* x, int count) {
    if (!mEnabled || mMasked == 0) return;
    count = std::min(count, mMaskLength);
    if (!FitModel(x, count)) return;  // an all-zero block: the gaps hold zeros already
    const int p = mOrder;
    int i = 0;
    while (i < count) {
        if (!mFlag[i]) {
            ++i;
            continue;
        }
        // A cluster ends where more than p known samples follow its last missing one.
        int last = i, j = i + 1;
        while (j < count && j - last <= p) {
            if (mFlag[j]) last = j;
            ++j;
        }
        SolveCluster(x, count, i, last + 1);
        i = last + 1;
    }
}

}  // namespace dsp::noclick
