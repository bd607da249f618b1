// NOHISS record functions and the threshold rule: defaults touch only the scalars, arrays come
// zeroed, copies are deep and reuse storage of the same shape, thresholds spread the floor's peaks
// without reaching bins 0..2 or N/2+1.

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <tuple>
#include <utility>

#include "dsp/nohiss.h"
#include "restoration/restoration_setup.h"
#include "support/allocation_counter.h"

namespace {

using dsp::nohiss::NOHISS;
using Record = kesta::test::Owned<NOHISS>;

template <class R>
auto Scalars(R& r) {
    return std::tie(r.tuningA, r.fftSize, r.tuningB, r.overlap, r.sampleRate, r.channels, r.frameCount, r.kneeDb,
                    r.outputMode, r.reductionDb, r.smoothingPercent, r.tuningC);
}

// Every cell of every array gets a value of its own, so overlapping rows or a shallow copy show.
void FillDistinct(NOHISS& r, double seed) {
    for (int c = 0; c < r.channels; ++c) {
        r.floorLevel[c] = static_cast<float>(-30.0 - c - seed);
        for (int k = 0; k < r.fftSize; ++k) {
            r.floorRows[c][k] = seed + c * 1000.0 + k * 0.25;
            r.thresholdRows[c][k] = static_cast<float>(seed * 2.0 + c * 100.0 + k);
        }
    }
}

bool HoldsDistinct(const NOHISS& r, double seed) {
    for (int c = 0; c < r.channels; ++c) {
        if (r.floorLevel[c] != static_cast<float>(-30.0 - c - seed)) return false;
        for (int k = 0; k < r.fftSize; ++k)
            if (r.floorRows[c][k] != seed + c * 1000.0 + k * 0.25 ||
                r.thresholdRows[c][k] != static_cast<float>(seed * 2.0 + c * 100.0 + k))
                return false;
    }
    return true;
}

TEST(NoHissRecord, SetDefaultParameterWritesEveryScalarAndNoArray) {
    float level[1];
    double* floorTable[1];
    float* thresholdTable[1];
    NOHISS r;
    std::memset(static_cast<void*>(&r), 0x5A, sizeof r);  // every scalar starts as garbage
    r.floorLevel = level;
    r.floorRows = floorTable;
    r.thresholdRows = thresholdTable;
    dsp::nohiss::SetDefaultParameter(&r);
    EXPECT_EQ(Scalars(r), std::tuple(8.0f, 4096, 32, 5, 44100, 2, 0, 7.0f, 1, 24.0f, 65.0f, 14));
    EXPECT_EQ(std::tuple(r.floorLevel, r.floorRows, r.thresholdRows), std::tuple(level, floorTable, thresholdTable));
}

TEST(NoHissRecord, FreeArraysNullsThePointersWhateverTheChannelCountSays) {
    // Zeroed, distinct rows from AllocateArrays are relied on by the copy and threshold tests.
    Record rec(3, 64);
    NOHISS& r = rec.r;
    dsp::nohiss::FreeArrays(&r);
    EXPECT_TRUE(!r.floorLevel && !r.floorRows && !r.thresholdRows);
    dsp::nohiss::FreeArrays(&r);  // a record without arrays is left alone

    // Releasing must not depend on `channels` still describing the allocation.
    dsp::nohiss::AllocateArrays(&r);
    r.channels = 1;
    dsp::nohiss::FreeArrays(&r);
    EXPECT_EQ(r.floorRows, nullptr);
}

// A shape outside 1 ... 32 channels and 1 ... 65536 bins (none, negative, too large) gets no arrays
// and allocates nothing; copying such a record takes its scalars and leaves the copy without
// arrays; thresholds are not computed for it.
TEST(NoHissRecord, InvalidShapesGetNoArraysAndAllocateNothing) {
    const std::pair<int, int> shapes[] = {{0, 64}, {-1, 4096}, {2, -1}, {33, 64}, {2, 1 << 17}, {INT32_MAX, INT32_MAX}};
    for (const auto& [channels, fftSize] : shapes) {
        SCOPED_TRACE(testing::Message() << channels << " x " << fftSize);
        NOHISS bad{};
        bad.channels = channels;
        bad.fftSize = fftSize;
        bad.kneeDb = 3.5f;
        {
            kesta::test::AllocationCounter counter;
            dsp::nohiss::AllocateArrays(&bad);
            dsp::nohiss::ComputeThresholdsFromFloor(&bad);
            EXPECT_EQ(counter.Count(), 0);
        }
        EXPECT_TRUE(!bad.floorLevel && !bad.floorRows && !bad.thresholdRows);
        Record copy(2, 64);
        dsp::nohiss::CopyParameter(&bad, &copy.r);
        EXPECT_TRUE(!copy.r.floorLevel && !copy.r.floorRows && !copy.r.thresholdRows);
        EXPECT_EQ(std::tuple(copy.r.channels, copy.r.fftSize, copy.r.kneeDb), std::tuple(channels, fftSize, 3.5f));
        dsp::nohiss::FreeArrays(&bad);
    }
}

#ifndef NDEBUG
// The host's contract, asserted in debug builds: a record never declares more than its arrays hold.
TEST(NoHissRecordDeathTest, ARecordDeclaringMoreThanItHoldsIsCaught) {
    Record grown(2, 64);
    grown.r.channels = 3;
    EXPECT_DEATH(dsp::nohiss::ComputeThresholdsFromFloor(&grown.r), "more channels or bins");
    Record copy(3, 64);
    EXPECT_DEATH(dsp::nohiss::CopyParameter(&grown.r, &copy.r), "more channels or bins");
    grown.r.channels = 2;
}
#endif

TEST(NoHissRecord, CopyParameterCopiesScalarsAndArrayContentsDeeply) {
    Record src(3, 32);
    NOHISS& s = src.r;
    Scalars(s) = std::tuple(1.5f, 32, 3, 4, 48000, 3, 17, 3.0f, 2, 30.0f, 40.0f, 9);
    FillDistinct(s, 5.0);
    NOHISS d{};
    dsp::nohiss::CopyParameter(&s, &d);
    EXPECT_EQ(Scalars(d), Scalars(s));
    EXPECT_TRUE(HoldsDistinct(d, 5.0));

    // Same shape: dst keeps its own storage, untouched by the source, and takes the new contents.
    double** keptRows = d.floorRows;
    FillDistinct(s, 9.0);
    EXPECT_TRUE(HoldsDistinct(d, 5.0));
    dsp::nohiss::CopyParameter(&s, &d);
    EXPECT_EQ(d.floorRows, keptRows);
    EXPECT_TRUE(HoldsDistinct(d, 9.0));

    // Another shape: dst is reshaped to the source's.
    Record small(1, 8);
    FillDistinct(small.r, 2.0);
    dsp::nohiss::CopyParameter(&small.r, &d);
    EXPECT_EQ(std::tuple(d.channels, d.fftSize), std::tuple(1, 8));
    EXPECT_TRUE(HoldsDistinct(d, 2.0));

    // A source without arrays leaves dst with zeroed ones.
    NOHISS bare{};
    dsp::nohiss::SetDefaultParameter(&bare);
    bare.fftSize = 16;
    bare.channels = 2;
    dsp::nohiss::CopyParameter(&bare, &d);
    ASSERT_NE(d.thresholdRows, nullptr);
    for (int c = 0; c < 2; ++c)
        EXPECT_TRUE(std::all_of(d.thresholdRows[c], d.thresholdRows[c] + 16, [](float t) { return t == 0.0f; }));
    dsp::nohiss::FreeArrays(&d);
}

TEST(NoHissThresholds, FloorPeaksSpreadOverNeighboursAndNeverReachBins0To2OrAboveHalf) {
    // A floor of zeros with peaks mid-band and on bin N/2; loud values on bin 2 and N/2 + 1 (which
    // the capture never writes) must not leak into any threshold.
    constexpr int N = 64, half = N / 2;
    Record rec(2, N);
    NOHISS& r = rec.r;
    for (int c = 0; c < 2; ++c) {
        std::fill_n(r.thresholdRows[c], N, -1.0f);  // every entry must be rewritten
        r.floorRows[c][10 + c] = 1e-3;
        r.floorRows[c][half] = 2e-3;
        r.floorRows[c][2] = r.floorRows[c][half + 1] = 1.0;
    }
    const double factor = std::pow(10.0, 6.0 / 20.0);
    for (int spread : {0, 2}) {
        SCOPED_TRACE(spread);
        dsp::nohiss::ComputeThresholdsFromFloor(&r, 6.0f, spread);
        for (int c = 0; c < 2; ++c)
            for (int k = 0; k < N; ++k) {
                double expected = 0.0;
                if (k >= half - spread && k <= half) expected = 2e-3 * factor;
                if (std::abs(k - (10 + c)) <= spread) expected = 1e-3 * factor;
                ASSERT_NEAR(r.thresholdRows[c][k], expected, 1e-6 * expected) << "channel " << c << " bin " << k;
            }
    }
    // Without arguments the documented defaults apply.
    dsp::nohiss::ComputeThresholdsFromFloor(&r);
    EXPECT_NEAR(r.thresholdRows[0][10 + dsp::nohiss::kDefaultThresholdSpreadBins],
                1e-3 * std::pow(10.0, dsp::nohiss::kDefaultSensitivityDb / 20.0), 1e-9);
}

}  // namespace
