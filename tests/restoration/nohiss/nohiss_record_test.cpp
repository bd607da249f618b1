// NOHISS record functions and the threshold rule of the dehiss tool: defaults touch only the
// scalars, arrays come zeroed and shaped by the record, copies are deep and reuse storage of the
// same shape, and thresholds spread the floor's peaks as documented without reaching bins 0..2 or N/2+1.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "dsp/nohiss.h"

namespace {

using dsp::nohiss::NOHISS;

// A record with arrays that the test owns through FreeArrays.
struct OwnedRecord {
    NOHISS r{};
    OwnedRecord(int channels, int fftSize) {
        dsp::nohiss::SetDefaultParameter(&r);
        r.channels = channels;
        r.fftSize = fftSize;
        dsp::nohiss::AllocateArrays(&r);
    }
    OwnedRecord(const OwnedRecord&) = delete;
    OwnedRecord& operator=(const OwnedRecord&) = delete;
    ~OwnedRecord() { dsp::nohiss::FreeArrays(&r); }
};

void FillDistinct(NOHISS& r, double seed) {
    for (int c = 0; c < r.channels; ++c) {
        r.floorLevel[c] = static_cast<float>(-30.0 - c - seed);
        for (int k = 0; k < r.fftSize; ++k) {
            r.floorRows[c][k] = seed + c * 1000.0 + k * 0.25;
            r.thresholdRows[c][k] = static_cast<float>(seed * 2.0 + c * 100.0 + k);
        }
    }
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

    EXPECT_EQ(r.tuningA, 8.0f);
    EXPECT_EQ(r.fftSize, 4096);
    EXPECT_EQ(r.tuningB, 32);
    EXPECT_EQ(r.overlap, 5);
    EXPECT_EQ(r.sampleRate, 44100);
    EXPECT_EQ(r.channels, 2);
    EXPECT_EQ(r.frameCount, 0);
    EXPECT_EQ(r.kneeDb, 7.0f);
    EXPECT_EQ(r.outputMode, 1);
    EXPECT_EQ(r.reductionDb, 24.0f);
    EXPECT_EQ(r.smoothingPercent, 65.0f);
    EXPECT_EQ(r.tuningC, 14);
    EXPECT_EQ(r.floorLevel, level);
    EXPECT_EQ(r.floorRows, floorTable);
    EXPECT_EQ(r.thresholdRows, thresholdTable);
}

TEST(NoHissRecord, AllocateArraysGivesZeroedDistinctRowsAndFreeArraysNullsThem) {
    OwnedRecord rec(3, 64);
    NOHISS& r = rec.r;
    ASSERT_NE(r.floorLevel, nullptr);
    ASSERT_NE(r.floorRows, nullptr);
    ASSERT_NE(r.thresholdRows, nullptr);
    for (int c = 0; c < 3; ++c) {
        EXPECT_EQ(r.floorLevel[c], 0.0f);
        for (int k = 0; k < 64; ++k) {
            ASSERT_EQ(r.floorRows[c][k], 0.0);
            ASSERT_EQ(r.thresholdRows[c][k], 0.0f);
        }
    }
    // Writing every cell of one row must not show up in another.
    FillDistinct(r, 1.0);
    for (int c = 0; c < 3; ++c)
        for (int k = 0; k < 64; ++k) {
            ASSERT_EQ(r.floorRows[c][k], 1.0 + c * 1000.0 + k * 0.25);
            ASSERT_EQ(r.thresholdRows[c][k], static_cast<float>(2.0 + c * 100.0 + k));
        }

    dsp::nohiss::FreeArrays(&r);
    EXPECT_EQ(r.floorLevel, nullptr);
    EXPECT_EQ(r.floorRows, nullptr);
    EXPECT_EQ(r.thresholdRows, nullptr);
    dsp::nohiss::FreeArrays(&r);  // a record without arrays is left alone

    // Releasing must not depend on `channels` still describing the allocation.
    dsp::nohiss::AllocateArrays(&r);
    r.channels = 1;
    dsp::nohiss::FreeArrays(&r);
    EXPECT_EQ(r.floorRows, nullptr);

    NOHISS empty{};
    dsp::nohiss::AllocateArrays(&empty);  // no channels: nothing to allocate
    EXPECT_EQ(empty.floorRows, nullptr);
}

TEST(NoHissRecord, CopyParameterCopiesScalarsAndArrayContentsDeeply) {
    OwnedRecord src(3, 32);
    NOHISS& s = src.r;
    s.tuningA = 1.5f;
    s.tuningB = 3;
    s.overlap = 4;
    s.sampleRate = 48000;
    s.frameCount = 17;
    s.kneeDb = 3.0f;
    s.outputMode = 2;
    s.reductionDb = 30.0f;
    s.smoothingPercent = 40.0f;
    s.tuningC = 9;
    FillDistinct(s, 5.0);

    NOHISS d{};
    dsp::nohiss::CopyParameter(&s, &d);
    EXPECT_EQ(d.tuningA, 1.5f);
    EXPECT_EQ(d.fftSize, 32);
    EXPECT_EQ(d.tuningB, 3);
    EXPECT_EQ(d.overlap, 4);
    EXPECT_EQ(d.sampleRate, 48000);
    EXPECT_EQ(d.channels, 3);
    EXPECT_EQ(d.frameCount, 17);
    EXPECT_EQ(d.kneeDb, 3.0f);
    EXPECT_EQ(d.outputMode, 2);
    EXPECT_EQ(d.reductionDb, 30.0f);
    EXPECT_EQ(d.smoothingPercent, 40.0f);
    EXPECT_EQ(d.tuningC, 9);
    ASSERT_NE(d.floorRows, s.floorRows);
    for (int c = 0; c < 3; ++c) {
        EXPECT_EQ(d.floorLevel[c], s.floorLevel[c]);
        EXPECT_NE(d.floorRows[c], s.floorRows[c]);
        for (int k = 0; k < 32; ++k) {
            ASSERT_EQ(d.floorRows[c][k], s.floorRows[c][k]);
            ASSERT_EQ(d.thresholdRows[c][k], s.thresholdRows[c][k]);
        }
    }

    // Same shape: dst keeps its storage and takes the new contents.
    double** keptRows = d.floorRows;
    FillDistinct(s, 9.0);
    dsp::nohiss::CopyParameter(&s, &d);
    EXPECT_EQ(d.floorRows, keptRows);
    EXPECT_EQ(d.floorRows[2][31], s.floorRows[2][31]);
    EXPECT_EQ(d.thresholdRows[1][7], s.thresholdRows[1][7]);

    // Another shape: dst is reshaped to the source's.
    OwnedRecord small(1, 8);
    FillDistinct(small.r, 2.0);
    dsp::nohiss::CopyParameter(&small.r, &d);
    EXPECT_EQ(d.channels, 1);
    EXPECT_EQ(d.fftSize, 8);
    for (int k = 0; k < 8; ++k)
        ASSERT_EQ(d.floorRows[0][k], small.r.floorRows[0][k]);

    // A source without arrays leaves dst with zeroed ones.
    NOHISS bare{};
    dsp::nohiss::SetDefaultParameter(&bare);
    bare.fftSize = 16;
    bare.channels = 2;
    dsp::nohiss::CopyParameter(&bare, &d);
    ASSERT_NE(d.thresholdRows, nullptr);
    for (int c = 0; c < 2; ++c)
        for (int k = 0; k < 16; ++k)
            ASSERT_EQ(d.thresholdRows[c][k], 0.0f);
    dsp::nohiss::FreeArrays(&d);
}

TEST(NoHissThresholds, FloorPeaksSpreadOverNeighboursAndNeverReachBins0To2OrAboveHalf) {
    // A floor of zeros with two peaks: one mid-band, one on bin N/2; loud values on bin 2 and
    // N/2 + 1 (which the capture never writes) must not leak into any threshold.
    constexpr int N = 64, half = N / 2;
    OwnedRecord rec(2, N);
    NOHISS& r = rec.r;
    for (int c = 0; c < 2; ++c) {
        std::fill_n(r.thresholdRows[c], N, -1.0f);  // every entry must be rewritten
        r.floorRows[c][10 + c] = 1e-3;
        r.floorRows[c][half] = 2e-3;
        r.floorRows[c][2] = 1.0;
        r.floorRows[c][half + 1] = 1.0;
    }
    for (int spread : {0, 2}) {
        SCOPED_TRACE("spread " + std::to_string(spread));
        dsp::nohiss::ComputeThresholdsFromFloor(&r, 6.0f, spread);
        const double factor = std::pow(10.0, 6.0 / 20.0);
        for (int c = 0; c < 2; ++c) {
            for (int k = 0; k < N; ++k) {
                double expected = 0.0;
                if (k >= half - spread && k <= half) expected = 2e-3 * factor;
                if (std::abs(k - (10 + c)) <= spread) expected = 1e-3 * factor;
                ASSERT_NEAR(r.thresholdRows[c][k], expected, 1e-6 * expected) << "channel " << c << " bin " << k;
            }
        }
    }
    // Without arguments the documented defaults apply.
    dsp::nohiss::ComputeThresholdsFromFloor(&r);
    EXPECT_NEAR(r.thresholdRows[0][10 + dsp::nohiss::kDefaultThresholdSpreadBins],
                1e-3 * std::pow(10.0, dsp::nohiss::kDefaultSensitivityDb / 20.0), 1e-9);
}

}  // namespace
