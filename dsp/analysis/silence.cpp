#include "dsp/silence.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <numbers>

namespace dsp::nosilence {

namespace {

constexpr long long kLongestRange = std::numeric_limits<int32_t>::max();
// Ranges reserved per list at Start; a list grows past it only for very long selections.
constexpr long long kReservedRanges = 1 << 16;

float Linear(double db) {
    if (!std::isfinite(db)) return db > 0.0 ? std::numeric_limits<float>::max() : 0.0f;
    return static_cast<float>(std::pow(10.0, db / 20.0));
}

long long Frames(double seconds, int rate) {
    if (!(seconds > 0.0)) return 1;
    const double frames = std::round(seconds * rate);
    return frames >= 1e15 ? static_cast<long long>(1e15) : std::max(1LL, static_cast<long long>(frames));
}

}  // namespace

// ---- FindSilence --------------------------------------------------------------------------------

FindSilence::FindSilence(const NOSILENCE& settings, int sampleRate, int numChannels) : mSettings(settings) {
    const int rate = std::max(1, sampleRate);
    mEnter = Linear(settings.thresholdDb);
    mLeave = std::max(mEnter, Linear(settings.thresholdDb + std::max(0.0, settings.hysteresisDb)));
    mMinimum = Frames(settings.minimumSeconds, rate);
    mHold = static_cast<int>(std::min({Frames(settings.holdSeconds, rate), mMinimum, 1LL << 30}));
    const std::size_t lists = settings.linked ? 1 : static_cast<std::size_t>(std::max(1, numChannels));
    mDetectors.resize(lists);
    mLists.resize(lists);
}

FindSilence::FindSilence(const FindSilence& other) : DSPAnalyzer(other) {
    *this = other;
}

FindSilence& FindSilence::operator=(const FindSilence& other) {
    if (this == &other) return *this;
    DSPAnalyzer::operator=(other);
    mSettings = other.mSettings;
    mEnter = other.mEnter;
    mLeave = other.mLeave;
    mHold = other.mHold;
    mMinimum = other.mMinimum;
    mSelectionStart = other.mSelectionStart;
    mSelectionLength = other.mSelectionLength;
    mFramesRead = other.mFramesRead;
    mDetectors = other.mDetectors;
    mLists.resize(other.mLists.size());
    for (std::size_t l = 0; l < mLists.size(); ++l) {
        mLists[l].reserve(other.mLists[l].capacity());
        mLists[l].assign(other.mLists[l].begin(), other.mLists[l].end());
    }
    return *this;
}

bool FindSilence::SetSelection(long long start, long long length) {
    mSelectionStart = start;
    mSelectionLength = std::max(0LL, length);
    return true;
}

bool FindSilence::IsCompleted() const {
    return mFramesRead >= mSelectionLength;
}

float FindSilence::GetProgress() const {
    if (mSelectionLength <= 0) return 100.0f;
    return 100.0f * static_cast<float>(mFramesRead) / static_cast<float>(mSelectionLength);
}

void FindSilence::Start(float* hostPointer) {
    DSPAnalyzer::Start(hostPointer);
    mFramesRead = 0;
    // Every range but a split one is at least the minimum long and they do not overlap.
    const long long most = mSelectionLength / mMinimum + mSelectionLength / kLongestRange + 2;
    for (std::size_t l = 0; l < mLists.size(); ++l) {
        mDetectors[l] = Detector{};
        mLists[l].clear();
        mLists[l].reserve(static_cast<std::size_t>(std::min(most, kReservedRanges)));
    }
}

void FindSilence::Close(std::size_t list, long long end) {
    Detector& d = mDetectors[list];
    long long start = d.openStart;
    d.openStart = -1;
    d.quietRun = 0;
    if (end - start < mMinimum) return;
    while (start < end) {
        const long long length = std::min(end - start, kLongestRange);
        mLists[list].push_back({start, static_cast<int32_t>(length), 0});
        start += length;
    }
}

long long FindSilence::Analyze(float** data, int numChannels, int numFrames) {
    const long long n = std::min<long long>(std::max(numFrames, 0), mSelectionLength - mFramesRead);
    if (n <= 0 || numChannels < 1) return 0;
    const int channels = std::min<int>(numChannels, mSettings.linked ? numChannels : static_cast<int>(mLists.size()));
    const long long base = mSelectionStart + mFramesRead;
    const float enter = mEnter;
    const float leave = mLeave;
    const long long hold = mHold;
    // One detector at a time over the block: channel c alone, or the loudest of all (linked).
    const std::size_t lists = mSettings.linked ? 1 : static_cast<std::size_t>(channels);
    for (std::size_t l = 0; l < lists; ++l) {
        Detector& d = mDetectors[l];
        for (long long i = 0; i < n; ++i) {
            float level;
            if (mSettings.linked) {
                level = 0.0f;
                for (int c = 0; c < channels; ++c) {
                    const float v = std::fabs(data[c][i]);
                    level = v > level || std::isnan(v) ? v : level;
                }
            } else {
                level = std::fabs(data[l][i]);
            }
            if (d.openStart < 0) {
                if (level <= enter) {
                    if (++d.quietRun >= hold) d.openStart = base + i - hold + 1;
                } else {
                    d.quietRun = 0;
                }
            } else if (!(level <= leave)) {
                Close(l, base + i);
            }
        }
    }
    mFramesRead += n;
    return n;
}

void FindSilence::Done() {
    const long long end = mSelectionStart + mFramesRead;
    for (std::size_t l = 0; l < mLists.size(); ++l)
        if (mDetectors[l].openStart >= 0) Close(l, end);
}

const std::vector<utils::Range>& FindSilence::GetRanges(int channel) const {
    const std::size_t l = mSettings.linked ? 0 : static_cast<std::size_t>(std::clamp(channel, 0, GetListCount() - 1));
    return mLists[l];
}

long long FindSilence::GetQuietFrames(int channel) const {
    long long frames = 0;
    for (const utils::Range& r : GetRanges(channel))
        frames += r.length;
    return frames;
}

// ---- DeleteSilence ------------------------------------------------------------------------------

DeleteSilence::DeleteSilence(const std::vector<utils::Range>& ranges, long long streamStart, long long totalFrames,
                             int fadeFrames, int maxChannels)
    : mTotal(std::max(0LL, totalFrames)),
      mMaxChannels(std::clamp(maxChannels, 1, 32)),
      mFadeCapacity(std::max(0, fadeFrames)) {
    std::vector<Cut> cuts;
    cuts.reserve(ranges.size());
    for (const utils::Range& r : ranges) {
        const long long start = std::clamp(r.start - streamStart, 0LL, mTotal);
        const long long end = std::clamp(r.start - streamStart + std::max(0, r.length), 0LL, mTotal);
        if (end > start) cuts.push_back({start, end, 0});
    }
    std::sort(cuts.begin(), cuts.end(), [](const Cut& a, const Cut& b) { return a.start < b.start; });
    for (const Cut& c : cuts) {
        if (!mCuts.empty() && c.start <= mCuts.back().end)
            mCuts.back().end = std::max(mCuts.back().end, c.end);
        else
            mCuts.push_back(c);
    }
    long long keptFrom = 0;  // where the audio kept before the cut begins
    for (Cut& c : mCuts) {
        const long long room = std::min(c.end - c.start, c.start - keptFrom);
        c.fade = c.end >= mTotal ? 0 : static_cast<int>(std::min<long long>(mFadeCapacity, room));
        mRemoved += c.end - c.start;
        keptFrom = c.end;
    }
    mHeld.assign(static_cast<std::size_t>(mMaxChannels) * static_cast<std::size_t>(mFadeCapacity), 0.0f);
}

void DeleteSilence::Start() {
    mPosition = 0;
    mNext = 0;
    mLastOutput = 0;
}

long long DeleteSilence::OutputFramesFor(long long inputFrames) const {
    const long long m = std::clamp(inputFrames, 0LL, mTotal);
    long long removed = 0;
    for (const Cut& c : mCuts) {
        if (c.start >= m) break;
        removed += std::min(c.end, m) - c.start;
    }
    return m - removed;
}

void DeleteSilence::Process(float** in, float** out, int numChannels, int numFrames) {
    const int channels = std::clamp(numChannels, 0, mMaxChannels);
    const std::size_t capacity = static_cast<std::size_t>(mFadeCapacity);
    int written = 0;
    int i = 0;
    while (i < numFrames) {
        while (mNext < mCuts.size() && mPosition >= mCuts[mNext].end)
            ++mNext;
        const long long left = numFrames - i;
        if (mNext == mCuts.size()) {
            // Past the last cut: everything is kept.
            for (int c = 0; c < channels; ++c)
                std::memmove(out[c] + written, in[c] + i, static_cast<std::size_t>(left) * sizeof(float));
            written += static_cast<int>(left);
            mPosition += left;
            break;
        }
        const Cut& cut = mCuts[mNext];
        const long long holdStart = cut.start - cut.fade;
        const long long fadeStart = cut.end - cut.fade;
        int m;
        if (mPosition < holdStart) {
            m = static_cast<int>(std::min(left, holdStart - mPosition));
            for (int c = 0; c < channels; ++c)
                std::memmove(out[c] + written, in[c] + i, static_cast<std::size_t>(m) * sizeof(float));
            written += m;
        } else if (mPosition < cut.start) {
            // The audio before the cut waits for the end of the range to fade against.
            m = static_cast<int>(std::min(left, cut.start - mPosition));
            const auto at = static_cast<std::size_t>(mPosition - holdStart);
            for (int c = 0; c < channels; ++c)
                std::memcpy(mHeld.data() + static_cast<std::size_t>(c) * capacity + at, in[c] + i,
                            static_cast<std::size_t>(m) * sizeof(float));
        } else if (mPosition < fadeStart) {
            m = static_cast<int>(std::min(left, fadeStart - mPosition));
        } else {
            m = static_cast<int>(std::min(left, cut.end - mPosition));
            // The last frame of the fade is the range's own last frame, untouched, so the join ends
            // on two samples that were neighbours in the input.
            const auto first = static_cast<int>(mPosition - fadeStart);
            const double quarter = 0.5 * std::numbers::pi / cut.fade;
            for (int k = 0; k < m; ++k) {
                const double angle = (first + k + 1) * quarter;
                const double out0 = std::cos(angle);
                const double in0 = std::sin(angle);
                for (int c = 0; c < channels; ++c) {
                    const float held =
                        mHeld[static_cast<std::size_t>(c) * capacity + static_cast<std::size_t>(first + k)];
                    out[c][written + k] = static_cast<float>(held * out0 + in[c][i + k] * in0);
                }
            }
            written += m;
        }
        i += m;
        mPosition += m;
    }
    mLastOutput = written;
}

}  // namespace dsp::nosilence
