#include "dsp/tonal_line_canceller.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstring>
#include <numbers>

#include "dsp/core/kernel_dispatch.h"
#include "dsp/restoration/lines/line_kernels.h"

namespace dsp {

namespace lines {

const LineKernels& LineKernelsFor(detail::Isa isa) {
    static const LineKernels& best =
        detail::PickKernels(portable::LineKernelTable(), KESTADSP_AVX2_TABLE(avx2::LineKernelTable()));
    if (isa == detail::Isa::Best) return best;
    return detail::PickKernels(portable::LineKernelTable(), KESTADSP_AVX2_TABLE(avx2::LineKernelTable()), isa);
}

}  // namespace lines

namespace {

constexpr double kPi = std::numbers::pi;
constexpr int kSearchHops = 16;  // N = 16 H
constexpr int kSearchEvery = 8;  // a search every 8 hops (N/2)
constexpr int kSumWindow = 64;   // hop sums in an amplitude estimate (1.5 s)
constexpr int kTrustSpan = 4;    // hops on either side that weigh a hop's sums
constexpr double kLookAheadSeconds = 4.0;
constexpr int kLineRun = 17;       // searches in a run that makes a line: 16 steps, 3 s
constexpr int kFamilyRun = 4;      // for a harmonic of a known mains family: 3 steps, 0.56 s
constexpr int kFamilyMemory = 43;  // searches (8 s) a steady harmonic is remembered
constexpr int kMaxHarmonic = 40;
constexpr float kPeakOverSurroundings = 31.6f;  // 15 dB
constexpr float kPeakOverShoulders = 10.0f;     // over the bins 3 away
constexpr float kLevelStepDb = 1.5f;            // largest level change from one search to the next
constexpr float kLevelRunDb = 3.0f;             // and over the run
constexpr float kSlipStep = 0.35f;              // largest change of the phase slip, rad
constexpr double kLowestHz = 20.0;

double Wrap(double a) {
    a = std::fmod(a + kPi, 2.0 * kPi);
    return a < 0.0 ? a + kPi : a - kPi;
}

int NextPowerOfTwo(std::size_t n) {
    int p = 1;
    while (std::size_t(p) < n)
        p *= 2;
    return p;
}

}  // namespace

int TonalLineCanceller::HopFor(int sampleRate) {
    const double target = std::max(sampleRate, 1) * 0.023;
    int hop = 256;
    while (hop < 8192 && std::abs(hop * 2 - target) < std::abs(hop - target))
        hop *= 2;
    return hop;
}

TonalLineCanceller::TonalLineCanceller(int numChannels, int sampleRate)
    : mChannels(std::clamp(numChannels, 1, kMaxChannels)), mRate(std::max(sampleRate, 1)) {
    mHop = HopFor(mRate);
    mSearchSize = kSearchHops * mHop;
    mBins = mSearchSize / 2 + 1;
    mLookAhead = std::max(kSumWindow / 2 + 1, int(std::lround(kLookAheadSeconds * mRate / mHop)));
    mLatency = (mLookAhead + 1) * mHop;
    // The oldest hop ever read: a line found now gets sums back to kSumWindow/2 + 1 hops before
    // the next hop to be output.
    const int historyHops = mLookAhead + kSumWindow / 2 + 2;
    mRingLength = std::size_t(NextPowerOfTwo(std::size_t(std::max(historyHops, kSearchHops) + 1) * mHop));
    mSumRing = NextPowerOfTwo(std::size_t(historyHops + 1));

    const std::size_t C = std::size_t(mChannels);
    mRing.assign(C * mRingLength, 0.0f);
    mOut.assign(C * 2 * std::size_t(mHop), 0.0f);
    mLines.assign(C * kMaxLines, Line{});
    mLineCount.assign(C, 0);
    mSums.assign(C * kMaxLines * std::size_t(mSumRing) * 2, 0.0f);
    mHopPower.assign(C * std::size_t(mSumRing), 0.0f);
    mLinePower.assign(C * std::size_t(mSumRing), 0.0f);
    mTrust.assign(C * std::size_t(mSumRing), 0.0f);
    mBinState.assign(C * std::size_t(mBins), BinState{});
    mFamily.assign(C, 0.0);
    mHopWeights.assign(kSumWindow, 0.0);
    mWeights.resize(kSumWindow);
    for (int i = 0; i < kSumWindow; ++i)
        mWeights[std::size_t(i)] = float(0.5 - 0.5 * std::cos(2.0 * kPi * (i + 0.5) / kSumWindow));
    mFFT.Init(mSearchSize);
    mWindow.resize(std::size_t(mSearchSize));
    for (int i = 0; i < mSearchSize; ++i)
        mWindow[std::size_t(i)] = float(0.5 - 0.5 * std::cos(2.0 * kPi * (i + 0.5) / mSearchSize));
    mSpectrum.assign(std::size_t(mSearchSize) + 2, 0.0f);
    mPower.assign(std::size_t(mBins), 0.0f);
    mPeak.assign(std::size_t(mBins), 0);
}

void TonalLineCanceller::Resume() {
    std::fill(mRing.begin(), mRing.end(), 0.0f);
    std::fill(mOut.begin(), mOut.end(), 0.0f);
    std::fill(mLineCount.begin(), mLineCount.end(), 0);
    std::fill(mBinState.begin(), mBinState.end(), BinState{});
    std::fill(mFamily.begin(), mFamily.end(), 0.0);
    mFramesIn = 0;
    mEnd = -1;
    mSearches = 0;
    mWindowBoundary = -1;
}

void TonalLineCanceller::MarkEnd() {
    if (mEnd < 0) mEnd = mFramesIn;
}

int TonalLineCanceller::GetLineCount(int channel) const {
    return channel >= 0 && channel < mChannels ? mLineCount[std::size_t(channel)] : 0;
}

double TonalLineCanceller::GetLineFrequency(int channel, int index) const {
    if (index < 0 || index >= GetLineCount(channel)) return 0.0;
    return mLines[std::size_t(channel) * kMaxLines + std::size_t(index)].cyclesPerFrame * mRate;
}

void TonalLineCanceller::Process(float** in, float** out, int numChannels, int numFrames) {
    assert(numChannels <= mChannels);
    const int C = std::min(numChannels, mChannels);
    const std::size_t H = std::size_t(mHop);
    for (int pos = 0; pos < numFrames;) {
        const std::size_t inHop = std::size_t(mFramesIn % mHop);
        const int chunk = int(std::min<std::size_t>(std::size_t(numFrames - pos), H - inHop));
        // The whole chunk lies in one hop of the input, and so in one hop of the output.
        const std::size_t at = std::size_t(mFramesIn) & (mRingLength - 1);
        for (int c = 0; c < C; ++c)
            std::memcpy(Ring(c) + at, in[c] + pos, sizeof(float) * std::size_t(chunk));
        const int64_t t = mFramesIn - mLatency;
        for (int c = 0; c < C; ++c) {
            if (t < 0) {
                std::fill(out[c] + pos, out[c] + pos + chunk, 0.0f);
            } else {
                const float* src = mOut.data() + std::size_t(c) * 2 * H + std::size_t((t / mHop) & 1) * H;
                std::memcpy(out[c] + pos, src + std::size_t(t % mHop), sizeof(float) * std::size_t(chunk));
            }
        }
        mFramesIn += chunk;
        pos += chunk;
        if (mFramesIn % mHop == 0) ProcessHop();
    }
}

void TonalLineCanceller::ProcessHop() {
    const int64_t m = mFramesIn / mHop - 1;  // the hop just completed
    const int64_t q = m - mLookAhead;        // the hop to output
    const bool search = (m + 1) % kSearchEvery == 0 && m + 1 >= kSearchHops;
    const std::size_t H = std::size_t(mHop);
    const float scale = 2.0f / float(mHop);
    for (int c = 0; c < mChannels; ++c) {
        const float* x = Ring(c) + ((std::size_t(m) * H) & (mRingLength - 1));
        float squares[8] = {};
        for (std::size_t i = 0; i < H; i += 8)
            for (int l = 0; l < 8; ++l)
                squares[l] += x[i + std::size_t(l)] * x[i + std::size_t(l)];
        double power = 0.0;
        for (float v : squares)
            power += v;
        const std::size_t slot = std::size_t(c) * std::size_t(mSumRing) + std::size_t(m & (mSumRing - 1));
        mHopPower[slot] = float(power);
        mLinePower[slot] = 0.0f;
        if (q < 0) {
            for (int l = 0; l < mLineCount[std::size_t(c)]; ++l)
                HopSum(c, l, m, nullptr, 0.0, 0.0, 0.0, 0.0);
        } else {
            float* dst = mOut.data() + std::size_t(c) * 2 * H + std::size_t(q & 1) * H;
            std::memcpy(dst, Ring(c) + ((std::size_t(q) * H) & (mRingLength - 1)), sizeof(float) * H);
            if (mLineCount[std::size_t(c)] > 0) PrepareWindow(c, q + 1);
            for (int l = 0; l < mLineCount[std::size_t(c)]; ++l) {
                Line& line = mLines[std::size_t(c) * kMaxLines + std::size_t(l)];
                double re0, im0, re1, im1;
                if (line.cachedBoundary == q) {
                    re0 = line.cachedRe, im0 = line.cachedIm;
                } else {
                    Amplitude(c, l, q, re0, im0);
                }
                Amplitude(c, l, q + 1, re1, im1);
                line.cachedBoundary = q + 1, line.cachedRe = re1, line.cachedIm = im1;
                // The line is rebuilt with hop m's phasor turned back by the L hops between them.
                const double back = line.cyclesPerFrame * double(mLookAhead) * mHop;
                const double turn = -2.0 * kPi * (back - std::floor(back));
                const double cr = std::cos(turn), ci = std::sin(turn);
                const double r0 = re0 * cr - im0 * ci, i0 = re0 * ci + im0 * cr;
                const double r1 = re1 * cr - im1 * ci, i1 = re1 * ci + im1 * cr;
                HopSum(c, l, m, dst, r0 * scale, i0 * scale, (r1 - r0) * scale / mHop, (i1 - i0) * scale / mHop);
            }
        }
        if (search) Search(c);
        SetTrust(c, m - kTrustSpan);
    }
    if (search) ++mSearches;
}

// How far the sums of hop j are trusted: the inverse of the power per frame of the hops around it
// (kTrustSpan on either side) less what the lines found hold of it (but at least a tenth of it);
// under 1e-10 (−100 dBFS) every hop counts alike. Smoothed over hops, the weights change slowly,
// and so do not spoil the amplitude window's rejection of what lies beside the line.
void TonalLineCanceller::SetTrust(int channel, int64_t hop) {
    if (hop < 0) return;
    const std::size_t base = std::size_t(channel) * std::size_t(mSumRing);
    double rest = 0.0;
    int count = 0;
    for (int64_t j = std::max<int64_t>(0, hop - kTrustSpan); j <= hop + kTrustSpan; ++j) {
        const std::size_t slot = base + std::size_t(j & (mSumRing - 1));
        rest += std::max(double(mHopPower[slot]) - mLinePower[slot], 0.1 * mHopPower[slot]);
        ++count;
    }
    mTrust[base + std::size_t(hop & (mSumRing - 1))] = float(1.0 / (rest / (double(count) * mHop) + 1e-10));
}

// The input of hop `hop` heterodyned down by the line's frequency and summed; with `dst`, the
// line (amplitude ar + i ai at the hop's start, changing by dr + i di per frame, on the same
// phasor) subtracted from dst in the same pass. The phasor starts each hop from its exact phase
// (in double), so the float recursion over the hop drifts by no more than about 1e-5.
void TonalLineCanceller::HopSum(int channel, int line, int64_t hop, float* dst, double ar, double ai, double dr,
                                double di) {
    const Line& L = mLines[std::size_t(channel) * kMaxLines + std::size_t(line)];
    const double start = L.cyclesPerFrame * double(hop * mHop);
    const double turn = 2.0 * kPi * (start - std::floor(start));
    const double cr = std::cos(turn), ci = std::sin(turn);
    lines::LinePhasor p;
    for (int j = 0; j < 8; ++j) {
        p.re[j] = float(cr * L.laneRe[j] - ci * L.laneIm[j]);
        p.im[j] = float(cr * L.laneIm[j] + ci * L.laneRe[j]);
    }
    p.stepRe = L.stepRe, p.stepIm = L.stepIm;
    const lines::LineRamp ramp{float(ar), float(ai), float(dr), float(di)};
    const float* x = Ring(channel) + ((std::size_t(hop) * std::size_t(mHop)) & (mRingLength - 1));
    float re[8], im[8];
    lines::LineKernelsFor().heterodyne(x, dst, mHop, p, ramp, re, im);
    double sr = 0.0, si = 0.0;
    for (int j = 0; j < 8; ++j)
        sr += re[j], si += im[j];
    float* sum = mSums.data() + ((std::size_t(channel) * kMaxLines + std::size_t(line)) * std::size_t(mSumRing) +
                                 std::size_t(hop & (mSumRing - 1))) *
                                    2;
    sum[0] = float(sr);
    sum[1] = float(si);
    // What the line holds of the hop's power, left out of the power that weighs the hop.
    mLinePower[std::size_t(channel) * std::size_t(mSumRing) + std::size_t(hop & (mSumRing - 1))] +=
        float(2.0 * (sr * sr + si * si) / mHop);
}

// The share of a hop that is real input: none before the stream or after MarkEnd.
double TonalLineCanceller::ValidShare(int64_t hop) const {
    if (hop < 0) return 0.0;
    if (mEnd < 0) return 1.0;
    return double(std::clamp<int64_t>(mEnd - hop * mHop, 0, mHop)) / mHop;
}

// The amplitude window at `boundary` weighted by the trust of the channel's hops, for every line
// whose sums reach back over the whole window.
void TonalLineCanceller::PrepareWindow(int channel, int64_t boundary) {
    const float* trust = mTrust.data() + std::size_t(channel) * std::size_t(mSumRing);
    double weight = 0.0, plain = 0.0;
    for (int i = 0; i < kSumWindow; ++i) {
        const int64_t hop = boundary - kSumWindow / 2 + i;
        const double v = ValidShare(hop);
        if (v == 0.0) {
            mHopWeights[std::size_t(i)] = 0.0;
            continue;
        }
        plain += mWeights[std::size_t(i)] * v;
        const double w = double(mWeights[std::size_t(i)]) * trust[hop & (mSumRing - 1)];
        mHopWeights[std::size_t(i)] = w;
        weight += w * v;
    }
    mWindowChannel = channel, mWindowBoundary = boundary;
    mWindowWeight = weight, mWindowPlain = plain;
}

// The line's complex amplitude (in hop-sum units) at the start of hop `boundary`: the weighted
// mean of the sums of the kSumWindow hops around it.
void TonalLineCanceller::Amplitude(int channel, int line, int64_t boundary, double& re, double& im) const {
    const Line& L = mLines[std::size_t(channel) * kMaxLines + std::size_t(line)];
    const float* sums =
        mSums.data() + (std::size_t(channel) * kMaxLines + std::size_t(line)) * std::size_t(mSumRing) * 2;
    const int64_t first = boundary - kSumWindow / 2;
    double sr = 0.0, si = 0.0, weight = 0.0, plain = 0.0;
    if (channel == mWindowChannel && boundary == mWindowBoundary && first >= L.firstHop) {
        for (int i = 0; i < kSumWindow; ++i) {
            const double w = mHopWeights[std::size_t(i)];
            const float* s = sums + std::size_t((first + i) & (mSumRing - 1)) * 2;
            sr += w * s[0];
            si += w * s[1];
        }
        weight = mWindowWeight, plain = mWindowPlain;
    } else {
        const float* trust = mTrust.data() + std::size_t(channel) * std::size_t(mSumRing);
        for (int i = 0; i < kSumWindow; ++i) {
            const int64_t hop = first + i;
            if (hop < L.firstHop) continue;
            const double v = ValidShare(hop);
            if (v == 0.0) continue;
            plain += mWeights[std::size_t(i)] * v;
            const double w = double(mWeights[std::size_t(i)]) * trust[hop & (mSumRing - 1)];
            const float* s = sums + std::size_t(hop & (mSumRing - 1)) * 2;
            sr += w * s[0];
            si += w * s[1];
            weight += w * v;
        }
    }
    // Next to nothing heard: no estimate.
    if (plain < 1.0) {
        re = im = 0.0;
        return;
    }
    re = sr / weight;
    im = si / weight;
}

bool TonalLineCanceller::HasLineNear(int channel, double cyclesPerFrame) const {
    const double near = 3.0 / mSearchSize;
    for (int l = 0; l < mLineCount[std::size_t(channel)]; ++l)
        if (std::abs(mLines[std::size_t(channel) * kMaxLines + std::size_t(l)].cyclesPerFrame - cyclesPerFrame) < near)
            return true;
    return false;
}

void TonalLineCanceller::Activate(int channel, double cyclesPerFrame) {
    int& count = mLineCount[std::size_t(channel)];
    if (count == kMaxLines || HasLineNear(channel, cyclesPerFrame)) return;
    const int64_t m = mFramesIn / mHop - 1;
    Line& line = mLines[std::size_t(channel) * kMaxLines + std::size_t(count)];
    line.cyclesPerFrame = cyclesPerFrame;
    for (int j = 0; j < 8; ++j) {
        line.laneRe[j] = std::cos(2.0 * kPi * cyclesPerFrame * j);
        line.laneIm[j] = std::sin(2.0 * kPi * cyclesPerFrame * j);
    }
    line.stepRe = float(std::cos(2.0 * kPi * cyclesPerFrame * 8));
    line.stepIm = float(std::sin(2.0 * kPi * cyclesPerFrame * 8));
    // Back to the oldest hop the next output hop's estimate reads.
    line.firstHop = std::max<int64_t>(0, m - mLookAhead - kSumWindow / 2 - 1);
    ++count;
    line.cachedBoundary = -1;
    for (int64_t hop = line.firstHop; hop <= m; ++hop)
        HopSum(channel, count - 1, hop, nullptr, 0.0, 0.0, 0.0, 0.0);
}

// Spectral peaks of the last N frames, continued from the last search's, and lines made of the
// runs that held steady long enough.
void TonalLineCanceller::Search(int channel) {
    const std::size_t N = std::size_t(mSearchSize);
    const float* ring = Ring(channel);
    const std::size_t end = std::size_t(mFramesIn) & (mRingLength - 1);
    const std::size_t start = (end + mRingLength - N) & (mRingLength - 1);
    // The last N frames lie in at most two runs of the ring.
    const std::size_t first = std::min(N, mRingLength - start);
    for (std::size_t i = 0; i < first; ++i)
        mSpectrum[i] = ring[start + i] * mWindow[i];
    for (std::size_t i = first; i < N; ++i)
        mSpectrum[i] = ring[i - first] * mWindow[i];
    mFFT.FFT(mSpectrum.data(), 1);
    for (int k = 0; k < mBins; ++k) {
        const float re = mSpectrum[2 * std::size_t(k)], im = mSpectrum[2 * std::size_t(k) + 1];
        mPower[std::size_t(k)] = re * re + im * im;
    }

    BinState* states = mBinState.data() + std::size_t(channel) * std::size_t(mBins);
    const double step = 2.0 * kPi * double(kSearchEvery * mHop);  // phase advance per cycle/frame
    const int low = std::max(4, int(std::ceil(kLowestHz * double(N) / mRate)));
    const int high = mBins - 5;
    // Local maxima over their shoulders, marked without branches: few bins pass.
    const float* __restrict P = mPower.data();
    uint8_t* __restrict peak = mPeak.data();
    for (int k = low; k <= high; ++k) {
        const float p = P[k];
        peak[k] = uint8_t((p > P[k - 1]) & (p >= P[k + 1]) & (p > kPeakOverShoulders * P[k - 3]) &
                          (p > kPeakOverShoulders * P[k + 3]));
    }
    for (int k = low; k <= high; ++k) {
        if (!peak[k]) continue;
        const float p = P[k];
        // Over the lower quartile of the surroundings, so a neighbouring line does not hide this one:
        // p > t v holds for the smallest values first, so it holds for the quartile exactly when it
        // holds for more than a quarter of them.
        int n = 0, under = 0;
        for (int j = 5; j <= 24; ++j) {
            if (k - j >= 1) ++n, under += p > kPeakOverSurroundings * P[k - j];
            if (k + j < mBins) ++n, under += p > kPeakOverSurroundings * P[k + j];
        }
        if (!(under > n / 4)) continue;

        const double a = std::log(std::max(mPower[std::size_t(k) - 1], 1e-30f)), b = std::log(double(p)),
                     c = std::log(std::max(mPower[std::size_t(k) + 1], 1e-30f));
        const double curvature = a - 2.0 * b + c;
        const double offset = curvature < 0.0 ? std::clamp(0.5 * (a - c) / curvature, -0.5, 0.5) : 0.0;
        const double estimate = (k + offset) / double(N);  // cycles per frame
        const float level = float(10.0 * std::log10(double(p)));
        // The phase at the window's centre, the same whichever bin of the main lobe it is read in.
        const double phase =
            Wrap(std::atan2(double(mSpectrum[2 * std::size_t(k) + 1]), double(mSpectrum[2 * std::size_t(k)])) +
                 kPi * k * double(N - 1) / double(N));

        const BinState* previous = nullptr;
        for (int j = k - 1; j <= k + 1; ++j)
            if (states[j].search == mSearches - 1 && (!previous || states[j].run > previous->run))
                previous = &states[j];
        BinState next = states[k];
        next.search = mSearches;
        next.level = level;
        next.phase = float(phase);
        next.run = 1;
        next.slip = 0.0f;
        next.advance = 0.0;
        next.startLevel = level;
        if (previous) {
            const double predicted = step * estimate;
            const double slip = Wrap(phase - previous->phase - predicted);
            const bool steady = std::abs(level - previous->level) < kLevelStepDb &&
                                std::abs(level - previous->startLevel) < kLevelRunDb &&
                                (previous->run < 2 || std::abs(Wrap(slip - previous->slip)) < kSlipStep);
            if (steady) {
                next.run = previous->run + 1;
                next.slip = float(slip);
                next.advance = previous->advance + predicted + slip;
                next.startLevel = previous->startLevel;
            }
        }
        states[k] = next;
        if (next.run < kFamilyRun) continue;
        const double cycles = next.advance / (step * (next.run - 1));
        states[k].steadySeen = mSearches;
        states[k].steadyCycles = cycles;
        if (next.run >= kLineRun) Activate(channel, cycles);
    }
    FindFamily(channel);
}

// Once a line sits on a harmonic of 50 or 60 Hz (the first three, where the two families cannot
// be mistaken), every harmonic of that family that held steady for a moment lately joins.
void TonalLineCanceller::FindFamily(int channel) {
    double& family = mFamily[std::size_t(channel)];
    if (family == 0.0) {
        for (int l = 0; l < mLineCount[std::size_t(channel)] && family == 0.0; ++l) {
            const double hz = mLines[std::size_t(channel) * kMaxLines + std::size_t(l)].cyclesPerFrame * mRate;
            for (double base : {50.0, 60.0}) {
                const double h = std::round(hz / base);
                if (h >= 1.0 && h <= 3.0 && std::abs(hz / h - base) <= 0.01 * base) {
                    family = hz / h / mRate;
                    break;
                }
            }
        }
        if (family == 0.0) return;
    }
    const BinState* states = mBinState.data() + std::size_t(channel) * std::size_t(mBins);
    for (int h = 1; h <= kMaxHarmonic; ++h) {
        const double target = family * h;
        const int centre = int(std::lround(target * mSearchSize));
        if (centre + 2 >= mBins) break;
        for (int k = std::max(0, centre - 2); k <= centre + 2; ++k) {
            const BinState& s = states[k];
            if (mSearches - s.steadySeen <= kFamilyMemory && std::abs(s.steadyCycles - target) * mSearchSize < 1.5)
                Activate(channel, s.steadyCycles);
        }
    }
}

}  // namespace dsp
