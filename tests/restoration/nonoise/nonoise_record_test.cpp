// NONOISE record functions: defaults, deep copies that skip reservedBlock, the single-channel copy.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <tuple>
#include <utility>

#include "dsp/nonoise.h"
#include "support/allocation_counter.h"

namespace {

using dsp::nonoise::NONOISE;

// The scalars a copy carries, as references.
template <class Record>
auto Scalars(Record& p) {
    return std::tie(p.thresholdOffset, p.auxIndex, p.maxSnapshots, p.overlap, p.optionInt, p.frameCount, p.transitionDb,
                    p.precisionExponent, p.outputMode, p.optionFlagA, p.optionFlagB, p.optionFlagC, p.reductionDb,
                    p.smoothingPercent, p.printFlag);
}

// Every field and array entry holds a value no default or zero-fill produces.
NONOISE MakeDistinctRecord(int channels, int fftSize) {
    NONOISE p;
    std::memset(p.reservedBlock, 0xA5, sizeof p.reservedBlock);
    p.channels = static_cast<int16_t>(channels);
    p.fftSize = static_cast<int16_t>(fftSize);
    dsp::nonoise::AllocateArrays(&p);
    Scalars(p) = std::tuple(0.25, 17, 123, 5, -99, 41, 6.5, 0.75, 2, true, false, false, 12.0, 33.0, true);
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

bool ReservedBlockIsZero(const NONOISE& p) {
    return std::all_of(std::begin(p.reservedBlock), std::end(p.reservedBlock), [](unsigned char b) { return b == 0; });
}

// Row c of a's bin arrays equals row d of b's, and the curves agree (b's fftSize entries).
bool SameRows(const NONOISE& a, int c, const NONOISE& b, int d) {
    auto same = [n = b.fftSize](const auto* x, const auto* y) { return std::equal(x, x + n, y); };
    return same(a.binRms[c], b.binRms[d]) && same(a.binMin[c], b.binMin[d]) && same(a.binMax[c], b.binMax[d]) &&
           same(a.thresholdCurve, b.thresholdCurve);
}

TEST(NoNoiseRecord, SetDefaultParameterWritesItsTwelveFieldsAndNothingElse) {
    NONOISE p = MakeDistinctRecord(3, 64);
    const NONOISE before = p;
    dsp::nonoise::SetDefaultParameter(&p);
    EXPECT_EQ(
        std::tuple(p.thresholdOffset, p.auxIndex, p.fftSize, p.maxSnapshots, p.overlap, p.channels, p.precisionExponent,
                   p.outputMode, p.optionFlagB, p.optionFlagC, p.reductionDb, p.smoothingPercent),
        std::tuple(1.0, -1, 4096, 4000, 7, 2, 1.0, 1, true, true, 40.0, 65.0));
    // Untouched: arrays, the fields the defaults leave out, the counter, reservedBlock.
    EXPECT_EQ(p.binRms, before.binRms);
    EXPECT_EQ(p.thresholdCurve, before.thresholdCurve);
    EXPECT_EQ(std::tuple(p.transitionDb, p.optionInt, p.optionFlagA, p.frameCount, p.printFlag),
              std::tuple(6.5, -99, true, 41, true));
    EXPECT_EQ(std::memcmp(p.reservedBlock, before.reservedBlock, sizeof p.reservedBlock), 0);
    p.channels = 3;  // the shape the arrays were made for
    p.fftSize = 64;
    dsp::nonoise::FreeArrays(&p);
}

TEST(NoNoiseRecord, CopyIsDeepAndCarriesEverythingButReservedBlock) {
    NONOISE src = MakeDistinctRecord(3, 64);
    NONOISE dst;
    dsp::nonoise::CopyNoNoise(&src, &dst, true);
    EXPECT_EQ(Scalars(dst), Scalars(src));
    EXPECT_EQ(std::tuple(dst.channels, dst.fftSize), std::tuple(3, 64));
    EXPECT_TRUE(ReservedBlockIsZero(dst));
    for (int c = 0; c < 3; ++c) {
        EXPECT_NE(dst.binMin[c], src.binMin[c]);
        EXPECT_TRUE(SameRows(dst, c, src, c)) << c;
        EXPECT_EQ(std::tuple(dst.dcMin[c], dst.dcMax[c]), std::tuple(src.dcMin[c], src.dcMax[c]));
    }

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
    EXPECT_EQ(Scalars(*clone), Scalars(dst));
    EXPECT_TRUE(ReservedBlockIsZero(*clone));
    for (int c = 0; c < 3; ++c)
        EXPECT_TRUE(SameRows(*clone, c, dst, c) && clone->dcMax[c] == dst.dcMax[c]) << c;
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
    EXPECT_EQ(Scalars(dst), Scalars(src));
    EXPECT_TRUE(ReservedBlockIsZero(dst));
    EXPECT_TRUE(SameRows(dst, 0, src, 2));
    EXPECT_EQ(std::tuple(dst.dcMin[0], dst.dcMax[0]), std::tuple(1000.0, 2000.0));  // channel 0's, not 2's

    // No `allocate`, same size: dst's arrays are reused; a channel the source lacks leaves the rows.
    double* const row = dst.binRms[0];
    src.reductionDb = 7.0;
    dsp::nonoise::CopyMultiChannelNoNoiseToSingleChannelNoNoise(&src, &dst, 3, false);
    EXPECT_EQ(dst.binRms[0], row);
    EXPECT_TRUE(SameRows(dst, 0, src, 2));
    EXPECT_EQ(dst.reductionDb, 7.0);
    dsp::nonoise::FreeArrays(&dst);

    // Another size: dst's arrays are replaced by ones of the new size, filled to the end.
    NONOISE smaller;
    smaller.channels = 2;
    smaller.fftSize = 16;
    dsp::nonoise::AllocateArrays(&smaller);
    dsp::nonoise::CopyMultiChannelNoNoiseToSingleChannelNoNoise(&src, &smaller, 0, false);
    EXPECT_EQ(std::tuple(smaller.channels, smaller.fftSize), std::tuple(1, 64));
    EXPECT_TRUE(SameRows(smaller, 0, src, 0));
    dsp::nonoise::FreeArrays(&smaller);
    dsp::nonoise::FreeArrays(&src);
}

// A shape outside 1 ... 32 channels and 1 ... 16384 bins (negative, zero, too large) gets no
// arrays: nothing is allocated (not SIZE_MAX bytes, not 25 GB for 32767 channels), copies and
// clones take the scalars only, and freeing and deleting a clone leaves nothing behind.
TEST(NoNoiseRecord, InvalidShapesGetNoArraysAndLeaveNothingBehind) {
    [[maybe_unused]] long long perAllocation = 0;  // what one `new` counts as (the counter may see new and malloc)
    {
        kesta::test::AllocationCounter counter;
        NONOISE* volatile one = new NONOISE;
        perAllocation = counter.Count();
        delete one;
    }
    const std::pair<int, int> shapes[] = {{-1, 4096}, {2, -16},       {0, 4096}, {2, 0},
                                          {33, 64},   {32767, 16384}, {2, 32767}};
    for (const auto& [channels, fftSize] : shapes) {
        SCOPED_TRACE(testing::Message() << channels << " x " << fftSize);
        NONOISE p;
        p.channels = static_cast<int16_t>(channels);
        p.fftSize = static_cast<int16_t>(fftSize);
        p.thresholdOffset = 0.5;
        kesta::test::AllocationCounter counter;
        dsp::nonoise::AllocateArrays(&p);
        NONOISE* clone = dsp::nonoise::CloneNoNoise(&p);
        NONOISE single;
        dsp::nonoise::CopyMultiChannelNoNoiseToSingleChannelNoNoise(&p, &single, 0, true);
#ifdef NDEBUG  // debug builds also allocate to note each array's length
        // The clone itself, and the one-channel copy's nine arrays where the FFT size allows them.
        EXPECT_EQ(counter.Count(), perAllocation * (1 + (fftSize >= 1 && fftSize <= 16384 ? 9 : 0)));
#endif
        for (const NONOISE* r : {static_cast<const NONOISE*>(&p), static_cast<const NONOISE*>(clone)}) {
            EXPECT_TRUE(r->binMin == nullptr && r->binMax == nullptr && r->binRms == nullptr && r->dcMin == nullptr &&
                        r->dcMax == nullptr && r->thresholdCurve == nullptr);
        }
        EXPECT_EQ(clone->thresholdOffset, 0.5);
        EXPECT_EQ(single.thresholdOffset, 0.5);
        dsp::nonoise::FreeArrays(&single);
        dsp::nonoise::FreeArrays(clone);
        delete clone;
        dsp::nonoise::FreeArrays(&p);
    }
    // The largest shape still gets its arrays.
    NONOISE largest;
    largest.channels = 32;
    largest.fftSize = 16384;
    dsp::nonoise::AllocateArrays(&largest);
    ASSERT_NE(largest.binMax, nullptr);
    EXPECT_EQ(largest.binMax[31][16383], 0.0);
    dsp::nonoise::FreeArrays(&largest);
}

#ifndef NDEBUG
// The host's contract, asserted in debug builds: a record never declares more than its arrays hold.
TEST(NoNoiseRecordDeathTest, ARecordDeclaringMoreThanItHoldsIsCaught) {
    NONOISE grown = MakeDistinctRecord(2, 64);
    grown.channels = 3;
    NONOISE copy;
    EXPECT_DEATH(dsp::nonoise::CopyNoNoise(&grown, &copy, true), "more channels or bins");
    grown.channels = 2;
    grown.fftSize = 128;
    EXPECT_DEATH(dsp::nonoise::CopyMultiChannelNoNoiseToSingleChannelNoNoise(&grown, &copy, 1, true), "more channels");
    grown.fftSize = 64;
    dsp::nonoise::FreeArrays(&grown);
}
#endif

}  // namespace
