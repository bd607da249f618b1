#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <numbers>

#include "dsp/noclip.h"
#include "dsp/restoration/noclip/fill_in_kernels.h"

namespace dsp::noclip {

namespace {

constexpr int kMaxChannels = 32;
constexpr int kLowPassHalf = 320;  // the low-pass has 2 x 320 + 1 taps
// Cut-off of that low-pass in cycles per sample (2756 Hz at 44.1 kHz): it keeps the trend a run
// interrupts and drops the detail that makes a slope taken from three samples jump about.
constexpr double kLowPassCutoff = 1.0 / 16.0;

bool IsSpectralSize(int n) {
    return n >= 8 && n <= 256 && (n & (n - 1)) == 0;
}

}  // namespace

RepairClipping::RepairClipping(const NOCLIPPING* record, long pre, long post)
    : mPre(static_cast<int32_t>(pre)), mPost(static_cast<int32_t>(post)) {
    CopyParameter(record, &mParam, false);
    mBufferLength = 2 * (mPre + mPost);
    mChannels = std::clamp(mParam.channels, 0, kMaxChannels);
    mInput.Allocate(mChannels, mBufferLength);
    mOutput.Allocate(mChannels, mBufferLength);
    mWork.Resize(mChannels, mBufferLength);
    mContext.Resize(mChannels, mBufferLength);
    mWork.ZeroBuffers();
    mContext.ZeroBuffers();
    if (IsSpectralSize(mParam.fftSize)) {
        mFFT.Init(mParam.fftSize);
        mSpectral.assign(6 * static_cast<std::size_t>(mParam.fftSize), 0.0);
    }

    // Windowed-sinc low-pass, Blackman window, unity gain at DC.
    mLowPass.assign(2 * kLowPassHalf + 1, 0.0);
    double sum = 0.0;
    for (int k = -kLowPassHalf; k <= kLowPassHalf; ++k) {
        const double phase = std::numbers::pi * k / kLowPassHalf;
        const double window = 0.42 + 0.5 * std::cos(phase) + 0.08 * std::cos(2.0 * phase);
        const double sinc = k == 0 ? 2.0 * kLowPassCutoff
                                   : std::sin(2.0 * std::numbers::pi * kLowPassCutoff * k) / (std::numbers::pi * k);
        mLowPass[k + kLowPassHalf] = sinc * window;
        sum += sinc * window;
    }
    for (double& tap : mLowPass)
        tap /= sum;
    // The difference of the low-passed signal as a single kernel: slope[m] = h[m] - h[m - 1], m
    // counted from -320 (h is 0 outside its taps), stored reversed for LowPassedAt.
    auto tap = [this](int m) { return m < -kLowPassHalf || m > kLowPassHalf ? 0.0 : mLowPass[m + kLowPassHalf]; };
    mSlopeKernel.resize(2 * kLowPassHalf + 2);
    for (int m = -kLowPassHalf; m <= kLowPassHalf + 1; ++m)
        mSlopeKernel[m + kLowPassHalf] = tap(m) - tap(m - 1);
    std::reverse(mSlopeKernel.begin(), mSlopeKernel.end());

    mMargin = std::min(mParam.fillInMargin, 64);
    if (mMargin <= 16) mMargin = 0;
    if (mMargin > 0) mFillIn.Init(std::min(2 * mMargin, mPre), 0);
    mMask.resize(static_cast<std::size_t>(2 * mPost + 1), false);
    mBasis.assign(4 * static_cast<std::size_t>(mBufferLength), 0.0);
    mDrawnRun.assign(static_cast<std::size_t>(mBufferLength), 0.0f);

    mLimiter.SetChannels(std::max(mChannels, 1));
    mLimiter.SetSampleRate(static_cast<int>(mParam.sampleRate + 0.5f));
    mLimiter.Resume();
    mCursor.assign(static_cast<std::size_t>(mChannels), 0);
    mDrawn.assign(static_cast<std::size_t>(mChannels), 0);
    UpdateParameter();
}

RepairClipping::~RepairClipping() = default;

void RepairClipping::GetPrePostRoll(long long& pre, long long& post) {
    pre = 320;
    post = 320;
}

void RepairClipping::UpdateParameter() {
    mGain = static_cast<float>(std::pow(10.0, static_cast<double>(mParam.gainDb) / 20.0));
}

bool RepairClipping::SetSelection(long long start, long long /*length*/) {
    mSelectionStart = start;
    return true;
}

int RepairClipping::GetLatency() const {
    return mBufferLength + (mParam.useLimiter ? mLimiter.GetLatency() : 0) + mFillIn.GetLatency();
}

void RepairClipping::Start() {
    mInput.Reset();
    mOutput.Reset();
    // The work buffer delays by mBufferLength - mPost; these zeros make up the rest of the latency.
    mOutput.FillZeroes(mPost);
    mWork.ZeroBuffers();
    mContext.ZeroBuffers();
    mBlockStart = mSelectionStart - (mPre + mPost);
    std::fill(mCursor.begin(), mCursor.end(), 0);
    std::fill(mDrawn.begin(), mDrawn.end(), 0);
    mLimiter.Resume();
    UpdateParameter();
}

void RepairClipping::Done() {}

void RepairClipping::Process(float** in, float** out, int numChannels, int numFrames) {
    if (numFrames < 1 || mChannels == 0) return;
    (void)numChannels;
    float* inAt[kMaxChannels];
    float* outAt[kMaxChannels];
    for (int done = 0; done < numFrames;) {
        const int chunk = std::min(numFrames - done, mPost - mInput.CanBeRead());
        mInput.Write(in, done, mChannels, chunk);
        if (mInput.CanBeRead() == mPost) Hop();
        for (int c = 0; c < mChannels; ++c)
            outAt[c] = out[c] + done;
        mOutput.Read(outAt, mChannels, chunk, chunk);
        done += chunk;
    }
    if (mGain != 1.0f)
        for (int c = 0; c < mChannels; ++c)
            for (int i = 0; i < numFrames; ++i)
                out[c][i] *= mGain;
    if (mParam.useLimiter) {
        for (int c = 0; c < mChannels; ++c)
            inAt[c] = out[c];
        mLimiter.Process(inAt, inAt, numFrames);
    }
}

void RepairClipping::Hop() {
    float** work = mWork.GetBuffersAsRaw();
    float** context = mContext.GetBuffersAsRaw();
    float* newest[kMaxChannels];
    const std::size_t kept = static_cast<std::size_t>(mBufferLength - mPost);
    for (int c = 0; c < mChannels; ++c) {
        std::memmove(work[c], work[c] + mPost, sizeof(float) * kept);
        std::memmove(context[c], context[c] + mPost, sizeof(float) * kept);
        newest[c] = work[c] + kept;
    }
    mInput.Read(newest, mChannels, mPost, mPost);
    for (int c = 0; c < mChannels; ++c)
        std::copy_n(newest[c], mPost, context[c] + kept);
    Repair(mPost);
    mOutput.Write(work, 0, mChannels, mPost);
    mBlockStart += mPost;
}

long RepairClipping::Repair(long length) {
    long furthest = length;
    const long long T = mBlockStart;
    float** work = mWork.GetBuffersAsRaw();
    float** context = mContext.GetBuffersAsRaw();
    for (int c = 0; c < mChannels && c < static_cast<int>(mParam.repairClips.size()); ++c) {
        std::vector<utils::Range>& list = mParam.repairClips[c];
        // Every run is drawn once into the context as soon as the buffer holds it and the low-pass's
        // reach after it, so that no redraw or fill-in takes a flattened neighbour for good context.
        // Runs too long for a block are left as they are (they stay so in the output).
        std::size_t& drawn = mDrawn[c];
        for (; drawn < list.size(); ++drawn) {
            const utils::Range& r = list[drawn];
            const long long first = r.start - T + mPre, last = first + r.length - 1;
            if (last + 3 + kLowPassHalf >= mBufferLength) break;  // its low-passed edges would be cut short
            if (r.length < 1 || r.done != 0 || first < 3 || r.length - 1 + 2 * mMargin >= 2 * mPost) continue;
            DoInterpolation(context, c, static_cast<long>(first), static_cast<long>(last), r.length - 1);
        }
        // The block's own ranges: redrawn again now that the runs around them are drawn, filled in,
        // held on the clipped side, and copied into the work buffer.
        std::size_t& cursor = mCursor[c];
        for (; cursor < list.size(); ++cursor) {
            utils::Range& r = list[cursor];
            const long long lo = r.start - mMargin, hi = r.start + r.length - 1 + mMargin;
            if (r.length < 1 || lo < T) continue;  // empty, or passed over: its span never fitted a block
            if (lo >= T + mPost || hi >= T + 2 * mPost) break;
            if (r.done != 0) continue;
            const long first = static_cast<long>(r.start - T) + mPre;
            const long last = first + r.length - 1;
            // The fill-in replaces the whole run from its surroundings alone, so the redraw is needed
            // only where the fill-in cannot run.
            if (!FillInFits(first, last) || !mFillIn.FillInNow(first, last, context[c], nullptr, 100.0f, 0.0f, nullptr))
                DoInterpolation(context, c, first, last, r.length - 1);
            HoldClippedSide(c, first, last);
            std::copy(context[c] + first, context[c] + last + 1, work[c] + first);
            r.done = 1;
            furthest = std::max(furthest, last);
        }
    }
    return furthest;
}

// The fill-in reads four times its longest span (twice its Init length) on each side; with the
// default rolls every span of a block has that much context in the buffer, with shorter ones a
// span near either end of the buffer may not.
bool RepairClipping::FillInFits(long first, long last) const {
    const long context = 4L * mFillIn.GetMaxSpan();
    return mMargin > 0 && first - context >= 0 && last + context < mBufferLength;
}

// The samples of a run were flattened towards the channel's extreme: the true values lie at or
// beyond the observed ones. Redrawn samples that came out on the wrong side are held at the
// observed value, and with the fill-in active the others are solved again with those fixed.
void RepairClipping::HoldClippedSide(int channel, long first, long last) {
    float* x = mContext.GetBuffersAsRaw()[channel];
    const float* seen = mWork.GetBuffersAsRaw()[channel];  // the run as it came in
    double runMean = 0.0;
    for (long i = first; i <= last; ++i)
        runMean += seen[i];
    runMean /= static_cast<double>(last - first + 1);
    const bool top = runMean >= 0.5 * (static_cast<double>(seen[first - 1]) + seen[last + 1]);
    auto hold = [&] {
        bool any = false;
        for (long i = first; i <= last; ++i) {
            const bool wrong = top ? x[i] < seen[i] : x[i] > seen[i];
            mMask[static_cast<std::size_t>(i - first)] = !wrong;
            if (wrong) {
                x[i] = seen[i];
                any = true;
            }
        }
        return any;
    };
    if (hold() && FillInFits(first, last)) {
        if (mFillIn.FillInNow(static_cast<int>(first), static_cast<int>(last), x, nullptr, 100.0f, 0.0f, &mMask[0]))
            hold();
    }
}

void RepairClipping::DoInterpolation(float** buffers, long channel, long first, long last, long length) {
    const int N = mParam.fftSize;
    const bool spectral = mParam.useFFT && IsSpectralSize(N) && length >= 3 * N / 4 && first - N - N / 4 >= 0 &&
                          last + N + N / 4 < mBufferLength;
    if (spectral)
        DoFFTInterpolation(buffers, channel, first, last, length);
    else
        DoPolyNomialInterpolation(buffers, channel, first, last, length);
}

double RepairClipping::LowPassedAt(int channel, long index, const std::vector<double>& kernel) {
    // The kernels are stored reversed: entry q weighs x[index + 320 - (size - 1) + q].
    const float* x = mContext.GetBuffersAsRaw()[channel];
    const long size = static_cast<long>(kernel.size()), origin = index + kLowPassHalf - (size - 1);
    const long from = std::max(0L, -origin), to = std::min(size, static_cast<long>(mBufferLength) - origin);
    // Four running sums, each of every fourth product, added in a fixed order, in every build.
    return fillin::FillInKernelsFor().dotFloat(kernel.data() + from, x + origin + from, static_cast<int>(to - from));
}

void RepairClipping::FindFIRLowPassedSlopes(int channel, long first, long last, double* left, double* right) {
    *left = LowPassedAt(channel, first - 1, mSlopeKernel);
    *right = LowPassedAt(channel, last + 2, mSlopeKernel);
}

// The polynomial redraw.
//
// At each edge the parabola through the last three samples outside the run gives the value and
// slope with which the signal enters (or leaves) the run. The redraw is the cubic over the run and
// its two edge samples that matches value and slope at both ends (cubic Hermite), so it joins the
// signal on either side without a step or a kink and rises past the old clip level as far as the
// edges carry it: for a peak entered at slope s and left at slope -s over D samples, s D / 4
// above the edges, which is within a few percent of the lost arc of a sine clipped at half its
// peak. Edge curvature is left out on purpose: taken from three samples it follows whatever
// detail rides on the signal, and a quintic that honours it bulges far beyond the true peak over
// long runs (music was measured worse than left clipped that way).
//
// Slopes from three samples have the same weakness over long runs, so the slopes the cubic uses
// lean, with the run's length, towards those of the low-passed signal (FindFIRLowPassedSlopes):
// wholly local up to a run of kTrustLocal samples, wholly low-passed from kTrustLocal + kBlendSpan
// on. The low-pass would see the run's flat top and read the edge as flatter than it is, so the
// redraw is made three times, the low-pass reading each time the redraw before (the first reads
// the run flat): each pass removes most of the bias the flat top left in the last (on a clipped
// tone that takes the error reduction from 8 to 14 dB; the cubic's modest reach keeps this from
// running away as a quintic's did). The local slope is then put back at the edges:
// the difference between the edge parabola's line and the low-passed one is added and faded out
// over three samples (a cubic fade, 1 with zero slope at the edge), so value and slope at both
// edges are those of the signal itself. Finally the curve is held within three times the run's level.
namespace {

constexpr double kTrustLocal = 4.0;
constexpr double kBlendSpan = 16.0;
constexpr int kTrendPasses = 3;

// 1 with zero slope at d = 0, falling to 0 with zero slope at d = 3.
double EdgeFade(double d) {
    if (d >= 3.0) return 0.0;
    const double q = d / 3.0;
    return 1.0 - 3.0 * q * q + 2.0 * q * q * q;
}

}  // namespace

void RepairClipping::DoPolyNomialInterpolation(float** buffers, long channel, long first, long last, long length) {
    float* x = buffers[channel];
    const int c = static_cast<int>(channel);
    const long n = last - first + 1;
    const double D = static_cast<double>(length + 2);  // from the sample before the run to the one after
    const double v0 = x[first - 1], v1 = x[last + 1];
    const double s0 = (3.0 * x[first - 1] - 4.0 * x[first - 2] + x[first - 3]) / 2.0;
    const double s1 = -(3.0 * x[last + 1] - 4.0 * x[last + 2] + x[last + 3]) / 2.0;
    const double trend = std::clamp((D - kTrustLocal) / kBlendSpan, 0.0, 1.0);
    double level = 0.0;
    for (long i = first; i <= last; ++i)
        level = std::max(level, std::fabs(static_cast<double>(x[i])));
    const double bound = 3.0 * level;
    const int passes = trend > 0.0 ? kTrendPasses : 1;
    // The cubic's four basis functions at each sample of the run, shared by the passes.
    double* h00 = mBasis.data();
    double* h10 = h00 + n;
    double* h01 = h10 + n;
    double* h11 = h01 + n;
    const double perSample = 1.0 / D;  // a multiplication per sample rather than a division
    for (long j = 0; j < n; ++j) {
        const double u = static_cast<double>(j + 1) * perSample, u2 = u * u, u3 = u2 * u;
        h00[j] = 2.0 * u3 - 3.0 * u2 + 1.0;
        h10[j] = u3 - 2.0 * u2 + u;
        h01[j] = 3.0 * u2 - 2.0 * u3;
        h11[j] = u3 - u2;
    }
    // A pass changes only the run's samples, so the low-passed slopes of the next pass are those of
    // this one plus what the change adds through the slope kernel's taps over the run (the kernel
    // is stored reversed: sample j weighs entry j - index + 321 at the slope taken at index).
    const long taps = static_cast<long>(mSlopeKernel.size());
    const auto tap = [&](long q) { return q >= 0 && q < taps ? mSlopeKernel[static_cast<std::size_t>(q)] : 0.0; };
    double lowS0 = 0.0, lowS1 = 0.0;
    if (trend > 0.0) FindFIRLowPassedSlopes(c, first, last, &lowS0, &lowS1);
    float* drawn = mDrawnRun.data();
    // The edge fades are 0 from 3 samples on: samples 3 or more from both edges take the cubic alone.
    const long inner0 = std::min(n, 2L);
    long inner1 = n;
    while (inner1 > inner0 && D - static_cast<double>(inner1) < 3.0)
        --inner1;
    for (int pass = 0; pass < passes; ++pass) {
        const double ts0 = s0 + trend * (lowS0 - s0), ts1 = s1 + trend * (lowS1 - s1);
        const double ds0 = D * ts0, ds1 = D * ts1;
        const auto cubic = [&](long j) { return v0 * h00[j] + ds0 * h10[j] + v1 * h01[j] + ds1 * h11[j]; };
        for (long j = inner0; j < inner1; ++j)
            drawn[j] = static_cast<float>(std::clamp(cubic(j), -bound, bound));
        for (long j = 0; j < n; j = j + 1 == inner0 ? std::max(inner1, j + 1) : j + 1) {
            const double t = static_cast<double>(j + 1), tr = D - t;
            double y = cubic(j);
            if (t < 3.0) y += (s0 - ts0) * t * EdgeFade(t);
            if (tr < 3.0) y -= (s1 - ts1) * tr * EdgeFade(tr);
            drawn[j] = static_cast<float>(std::clamp(y, -bound, bound));
        }
        if (pass + 1 < passes) {
            for (long j = 0; j < n; ++j) {
                const double change = static_cast<double>(drawn[j]) - static_cast<double>(x[first + j]);
                lowS0 += tap(j + kLowPassHalf + 2) * change;
                lowS1 += tap(j - n + kLowPassHalf) * change;
            }
        }
        std::copy(drawn, drawn + n, x + first);
    }
}

// The spectral redraw carries the sinusoids of the signal across the run from both sides. On each
// side two frames of fftSize samples, hop fftSize/4 apart, are weighted by the raised cosine
// w[i] = (1 + cos(2 pi (i + 1) / (fftSize + 1) + pi)) / 2 and transformed; the phase advance of
// every bin between the two frames gives its true frequency (a phase vocoder's estimate), and the
// frame nearest the run, resynthesised at its centre with each bin turning at that frequency, is
// continued across the run (forwards from the left, backwards from the right). The two
// continuations are cross-faded with a raised cosine over the run, and what each misses at its own
// edge sample is spread linearly across the run, so the redraw meets both edges exactly.
void RepairClipping::DoFFTInterpolation(float** buffers, long channel, long first, long last, long length) {
    const float* x = buffers[channel];
    (void)length;
    const int N = mParam.fftSize, hop = std::max(1, N / 4), half = N / 2;
    const double centre = (N - 1) / 2.0;
    double* re = mSpectral.data();
    double* im = re + N;
    double* near = im + N;         // N/2 complex values at the frame centre, interleaved re, im
    double* frequency = near + N;  // N/2 bin frequencies
    auto analyse = [&](long frameStart, long otherStart) {
        // otherStart: the frame hop samples further from the run.
        for (int pass = 0; pass < 2; ++pass) {
            const long start = pass == 0 ? frameStart : otherStart;
            for (int i = 0; i < N; ++i) {
                const double w = (1.0 + std::cos(2.0 * std::numbers::pi * (i + 1) / (N + 1) + std::numbers::pi)) / 2.0;
                re[i] = w * x[start + i];
                im[i] = 0.0;
            }
            mFFT.FFT(re, im, 1);
            for (int k = 0; k < half; ++k) {
                const std::complex<double> X(re[k], im[k]);
                if (pass == 0) {
                    const std::complex<double> atCentre = X * std::polar(1.0, 2.0 * std::numbers::pi * k * centre / N);
                    near[2 * k] = atCentre.real();
                    near[2 * k + 1] = atCentre.imag();
                    frequency[k] = std::arg(X);
                } else {
                    // Phase advance from the far frame to the near one, less the bin's own advance.
                    const double binFrequency = 2.0 * std::numbers::pi * k / N;
                    const long shift = frameStart - otherStart;  // +hop on the left, -hop on the right
                    double d = frequency[k] - std::arg(X) - binFrequency * static_cast<double>(shift);
                    d -= 2.0 * std::numbers::pi * std::round(d / (2.0 * std::numbers::pi));
                    frequency[k] = k == 0 ? 0.0 : binFrequency + d / static_cast<double>(shift);
                }
            }
        }
    };
    auto continuation = [&](double t) {  // t samples from the near frame's centre
        double sum = near[0];
        for (int k = 1; k < half; ++k) {
            const std::complex<double> turn = std::polar(1.0, frequency[k] * t);
            sum += 2.0 * (near[2 * k] * turn.real() - near[2 * k + 1] * turn.imag());
        }
        return sum / N;
    };
    const long n = last - first + 1;
    // The forward continuation is kept in the run's own samples until the backward one joins it
    // (the right-hand frames lie after the run).
    float* y = buffers[channel];
    analyse(first - N, first - N - hop);
    const double leftCentre = static_cast<double>(first - N) + centre;
    const double leftMiss = x[first - 1] - continuation(static_cast<double>(first - 1) - leftCentre);
    for (long i = 0; i < n; ++i)
        y[first + i] = static_cast<float>(continuation(static_cast<double>(first + i) - leftCentre));
    analyse(last + 1, last + 1 + hop);
    const double rightCentre = static_cast<double>(last + 1) + centre;
    const double rightMiss = x[last + 1] - continuation(static_cast<double>(last + 1) - rightCentre);
    for (long i = 0; i < n; ++i) {
        const double a = (1.0 - std::cos(std::numbers::pi * (i + 1) / (n + 1))) / 2.0;  // share of the right
        const double backward = continuation(static_cast<double>(first + i) - rightCentre);
        const double along = static_cast<double>(i + 1) / (n + 1);
        y[first + i] =
            static_cast<float>((1.0 - a) * y[first + i] + a * backward + (1.0 - along) * leftMiss + along * rightMiss);
    }
}

}  // namespace dsp::noclip
