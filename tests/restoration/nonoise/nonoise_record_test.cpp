// NONOISE record functions: defaults touch only their own fields, copies are deep and skip
// reservedBlock, the single-channel copy takes one channel's rows but channel 0's DC extremes,
// FreeArrays leaves a record without channels alone.

#include <gtest/gtest.h>

#include <cstring>

#include "dsp/nonoise.h"

namespace {

using dsp::nonoise::NONOISE;

// A record of the given shape whose every field and array entry holds a value no default and no
// zero-fill produces, so a field that is not copied (or copied from the wrong place) shows.
NONOISE MakeDistinctRecord(int channels, int fftSize) {
    NONOISE p;
    std::memset(p.reservedBlock, 0xA5, sizeof p.reservedBlock);
    p.channels = static_cast<int16_t>(channels);
    p.fftSize = static_cast<int16_t>(fftSize);
    dsp::nonoise::AllocateArrays(&p);
    p.thresholdOffset = 0.25;
    p.auxIndex = 17;
    p.maxSnapshots = 123;
    p.overlap = 5;
    p.optionInt = -99;
    p.frameCount = 41;
    p.transitionDb = 6.5;
    p.precisionExponent = 0.75;
    p.outputMode = 2;
    p.optionFlagA = true;
    p.optionFlagB = false;
    p.optionFlagC = false;
    p.reductionDb = 12.0;
    p.smoothingPercent = 33.0;
    p.printFlag = true;
    for (int c = 0; c < channels; ++c) {
        p.dcMin[c] = 1000.0 + c;
        p.dcMax[c] = 2000.0 + c;
        for (int k = 0; k < fftSize; ++k) {
            p.binRms[c][k] = 1.0 + c + k * 1e-3;
            p.binMin[c][k] = 2.0 + c + k * 1e-3;
            p.binMax[c][k] = 3.0 + c + k * 1e-3;
        }
    }
    for (int k = 0; k < fftSize; ++k)
        p.thresholdCurve[k] = static_cast<float>(0.5 - k * 1e-3);
    return p;
}

void ExpectScalarsEqual(const NONOISE& a, const NONOISE& b) {
    EXPECT_EQ(a.thresholdOffset, b.thresholdOffset);
    EXPECT_EQ(a.auxIndex, b.auxIndex);
    EXPECT_EQ(a.maxSnapshots, b.maxSnapshots);
    EXPECT_EQ(a.overlap, b.overlap);
    EXPECT_EQ(a.optionInt, b.optionInt);
    EXPECT_EQ(a.frameCount, b.frameCount);
    EXPECT_EQ(a.transitionDb, b.transitionDb);
    EXPECT_EQ(a.precisionExponent, b.precisionExponent);
    EXPECT_EQ(a.outputMode, b.outputMode);
    EXPECT_EQ(a.optionFlagA, b.optionFlagA);
    EXPECT_EQ(a.optionFlagB, b.optionFlagB);
    EXPECT_EQ(a.optionFlagC, b.optionFlagC);
    EXPECT_EQ(a.reductionDb, b.reductionDb);
    EXPECT_EQ(a.smoothingPercent, b.smoothingPercent);
    EXPECT_EQ(a.printFlag, b.printFlag);
}

bool ReservedBlockIsZero(const NONOISE& p) {
    for (unsigned char byte : p.reservedBlock)
        if (byte != 0) return false;
    return true;
}

TEST(NoNoiseRecord, SetDefaultParameterWritesItsTwelveFieldsAndNothingElse) {
    NONOISE p = MakeDistinctRecord(3, 64);
    const NONOISE before = p;
    dsp::nonoise::SetDefaultParameter(&p);

    EXPECT_EQ(p.thresholdOffset, 1.0);
    EXPECT_EQ(p.auxIndex, -1);
    EXPECT_EQ(p.fftSize, 4096);
    EXPECT_EQ(p.maxSnapshots, 4000);
    EXPECT_EQ(p.overlap, 7);
    EXPECT_EQ(p.channels, 2);
    EXPECT_EQ(p.precisionExponent, 1.0);
    EXPECT_EQ(p.outputMode, 1);
    EXPECT_TRUE(p.optionFlagB);
    EXPECT_TRUE(p.optionFlagC);
    EXPECT_EQ(p.reductionDb, 40.0);
    EXPECT_EQ(p.smoothingPercent, 65.0);

    // Untouched: arrays, the fields the defaults leave out, the counter, reservedBlock.
    EXPECT_EQ(p.binRms, before.binRms);
    EXPECT_EQ(p.dcMin, before.dcMin);
    EXPECT_EQ(p.thresholdCurve, before.thresholdCurve);
    EXPECT_EQ(p.binMax[2][63], before.binMax[2][63]);
    EXPECT_EQ(p.transitionDb, 6.5);
    EXPECT_EQ(p.optionInt, -99);
    EXPECT_TRUE(p.optionFlagA);
    EXPECT_EQ(p.frameCount, 41);
    EXPECT_TRUE(p.printFlag);
    EXPECT_EQ(std::memcmp(p.reservedBlock, before.reservedBlock, sizeof p.reservedBlock), 0);

    p.channels = 3;  // the shape the arrays were made for
    p.fftSize = 64;
    dsp::nonoise::FreeArrays(&p);
}

TEST(NoNoiseRecord, ArraysStartZeroAndFreeArraysSkipsARecordWithoutChannels) {
    NONOISE p;
    p.channels = 3;
    p.fftSize = 128;
    dsp::nonoise::AllocateArrays(&p);
    for (int c = 0; c < 3; ++c) {
        EXPECT_EQ(p.dcMin[c] + p.dcMax[c], 0.0);
        for (int k = 0; k < 128; ++k)
            ASSERT_EQ(p.binRms[c][k] + p.binMin[c][k] + p.binMax[c][k], 0.0);
    }
    for (int k = 0; k < 128; ++k)
        ASSERT_EQ(p.thresholdCurve[k], 0.0f);

    // channels 0: nothing at all happens, not even to printFlag.
    p.printFlag = true;
    p.channels = 0;
    double* const row = p.binMax[2];
    dsp::nonoise::FreeArrays(&p);
    EXPECT_TRUE(p.printFlag);
    EXPECT_EQ(p.binMax[2], row);
    EXPECT_NE(p.thresholdCurve, nullptr);

    p.channels = 3;
    dsp::nonoise::FreeArrays(&p);
    EXPECT_FALSE(p.printFlag);
    EXPECT_EQ(p.binRms, nullptr);
    EXPECT_EQ(p.binMin, nullptr);
    EXPECT_EQ(p.binMax, nullptr);
    EXPECT_EQ(p.dcMin, nullptr);
    EXPECT_EQ(p.dcMax, nullptr);
    EXPECT_EQ(p.thresholdCurve, nullptr);
    dsp::nonoise::FreeArrays(&p);  // a second free finds only null pointers
}

TEST(NoNoiseRecord, CopyIsDeepAndCarriesEverythingButReservedBlock) {
    NONOISE src = MakeDistinctRecord(3, 64);
    NONOISE dst;  // zero reservedBlock
    dsp::nonoise::CopyNoNoise(&src, &dst, true);
    ExpectScalarsEqual(src, dst);
    EXPECT_EQ(dst.channels, 3);
    EXPECT_EQ(dst.fftSize, 64);
    EXPECT_TRUE(ReservedBlockIsZero(dst));
    EXPECT_NE(dst.binRms, src.binRms);
    for (int c = 0; c < 3; ++c) {
        EXPECT_NE(dst.binMin[c], src.binMin[c]);
        EXPECT_EQ(dst.dcMin[c], src.dcMin[c]);
        EXPECT_EQ(dst.dcMax[c], src.dcMax[c]);
        for (int k = 0; k < 64; ++k) {
            ASSERT_EQ(dst.binRms[c][k], src.binRms[c][k]);
            ASSERT_EQ(dst.binMin[c][k], src.binMin[c][k]);
            ASSERT_EQ(dst.binMax[c][k], src.binMax[c][k]);
        }
    }
    for (int k = 0; k < 64; ++k)
        ASSERT_EQ(dst.thresholdCurve[k], src.thresholdCurve[k]);

    // Without `allocate` the copy lands in the arrays dst already has.
    double* const row = dst.binMax[2];
    src.binMax[2][10] = -5.0;
    src.reductionDb = 3.0;
    dsp::nonoise::CopyNoNoise(&src, &dst, false);
    EXPECT_EQ(dst.binMax[2], row);
    EXPECT_EQ(row[10], -5.0);
    EXPECT_EQ(dst.reductionDb, 3.0);

    // A clone owns its arrays: freeing the source leaves it intact.
    NONOISE* clone = dsp::nonoise::CloneNoNoise(&src);
    dsp::nonoise::FreeArrays(&src);
    ExpectScalarsEqual(dst, *clone);
    EXPECT_TRUE(ReservedBlockIsZero(*clone));
    EXPECT_EQ(clone->binMax[2][10], -5.0);
    EXPECT_EQ(clone->dcMax[2], 2002.0);
    dsp::nonoise::FreeArrays(clone);
    delete clone;
    dsp::nonoise::FreeArrays(&dst);
}

TEST(NoNoiseRecord, SingleChannelCopyTakesTheChannelsRowsButChannelZerosDcExtremes) {
    NONOISE src = MakeDistinctRecord(3, 64);
    NONOISE dst;
    dst.fftSize = 64;
    dsp::nonoise::CopyMultiChannelNoNoiseToSingleChannelNoNoise(&src, &dst, 2, true);
    EXPECT_EQ(dst.channels, 1);
    ExpectScalarsEqual(src, dst);
    EXPECT_TRUE(ReservedBlockIsZero(dst));
    for (int k = 0; k < 64; ++k) {
        ASSERT_EQ(dst.binRms[0][k], src.binRms[2][k]);
        ASSERT_EQ(dst.binMin[0][k], src.binMin[2][k]);
        ASSERT_EQ(dst.binMax[0][k], src.binMax[2][k]);
        ASSERT_EQ(dst.thresholdCurve[k], src.thresholdCurve[k]);
    }
    EXPECT_EQ(dst.dcMin[0], 1000.0);  // channel 0's, not channel 2's
    EXPECT_EQ(dst.dcMax[0], 2000.0);

    // Same size, no `allocate`: dst's arrays are reused. A channel the source lacks leaves the
    // rows as they were (here: channel 2's from above); the rest still copies.
    double* const row = dst.binRms[0];
    src.reductionDb = 7.0;
    dsp::nonoise::CopyMultiChannelNoNoiseToSingleChannelNoNoise(&src, &dst, 3, false);
    EXPECT_EQ(dst.binRms[0], row);
    EXPECT_EQ(row[63], src.binRms[2][63]);
    EXPECT_EQ(dst.reductionDb, 7.0);
    dsp::nonoise::FreeArrays(&dst);

    // Another size: dst's arrays are released and replaced by zeroed arrays of the new size, which
    // the copy fills to the end (a sanitizer build would catch a copy into the old, shorter rows).
    NONOISE smaller;
    smaller.channels = 2;
    smaller.fftSize = 16;
    dsp::nonoise::AllocateArrays(&smaller);
    dsp::nonoise::CopyMultiChannelNoNoiseToSingleChannelNoNoise(&src, &smaller, 0, false);
    EXPECT_EQ(smaller.fftSize, 64);
    EXPECT_EQ(smaller.channels, 1);
    for (int k = 0; k < 64; ++k)
        ASSERT_EQ(smaller.binMin[0][k], src.binMin[0][k]);
    dsp::nonoise::FreeArrays(&smaller);

    NONOISE missing;
    missing.fftSize = 64;
    dsp::nonoise::CopyMultiChannelNoNoiseToSingleChannelNoNoise(&src, &missing, 5, true);
    for (int k = 0; k < 64; ++k)
        ASSERT_EQ(missing.binMax[0][k], 0.0);
    EXPECT_EQ(missing.dcMax[0], 2000.0);
    dsp::nonoise::FreeArrays(&missing);
    dsp::nonoise::FreeArrays(&src);
}

}  // namespace
