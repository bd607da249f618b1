// The NONOISE record's free functions and the family's record helpers.

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstring>
#include <numbers>
#include <type_traits>

#include "dsp/core/record_array_sizes.h"
#include "dsp/nonoise.h"
#include "dsp/restoration/nonoise/record_storage.h"

namespace dsp::nonoise {

static_assert(std::is_trivially_copyable_v<NONOISE>, "NONOISE is a plain record");

namespace {

using dsp::detail::ArrayHolds;
using dsp::detail::RowsHold;

bool ValidChannels(int channels) {
    return channels >= 1 && channels <= kMaxChannels;
}

// The shape AllocateArrays gives arrays for; any other record holds none the library made.
bool ValidShape(const NONOISE* p) {
    return ValidChannels(p->channels) && p->fftSize >= 1 && p->fftSize <= kMaxFftSize;
}

template <typename T>
T* NewArray(int n) {
    T* array = new T[static_cast<std::size_t>(n)]();
    dsp::detail::NoteArrayLength(array, static_cast<std::size_t>(n));
    return array;
}

template <typename T>
void DeleteArray(T*& array) {
    dsp::detail::ForgetArrayLength(array);
    delete[] array;
    array = nullptr;
}

double** NewRows(int channels, int n) {
    double** rows = NewArray<double*>(channels);
    for (int c = 0; c < channels; ++c)
        rows[c] = NewArray<double>(n);
    return rows;
}

void DeleteRows(double**& rows, int channels) {
    if (rows == nullptr) return;
    for (int c = 0; c < channels; ++c)
        DeleteArray(rows[c]);
    DeleteArray(rows);
}

// The host's side of the copy functions: arrays at least as large as the record declares.
[[maybe_unused]] bool ArraysHold(const NONOISE* p, int channels, int n) {
    const auto C = static_cast<std::size_t>(channels), N = static_cast<std::size_t>(n);
    return RowsHold(p->binRms, C, N) && RowsHold(p->binMin, C, N) && RowsHold(p->binMax, C, N) &&
           ArrayHolds(p->dcMin, C) && ArrayHolds(p->dcMax, C) && ArrayHolds(p->thresholdCurve, N);
}

template <typename T>
void CopyValues(const T* src, T* dst, int n) {
    if (src != nullptr && dst != nullptr && n > 0) std::copy_n(src, n, dst);
}

void CopyRow(double* const* src, int srcRow, double* const* dst, int dstRow, int n) {
    if (src != nullptr && dst != nullptr) CopyValues(src[srcRow], dst[dstRow], n);
}

// Every field CopyNoNoise carries besides the shape and the arrays.
void CopyScalars(const NONOISE* src, NONOISE* dst) {
    dst->thresholdOffset = src->thresholdOffset;
    dst->auxIndex = src->auxIndex;
    dst->maxSnapshots = src->maxSnapshots;
    dst->overlap = src->overlap;
    dst->optionInt = src->optionInt;
    dst->frameCount = src->frameCount;
    dst->transitionDb = src->transitionDb;
    dst->precisionExponent = src->precisionExponent;
    dst->outputMode = src->outputMode;
    dst->optionFlagA = src->optionFlagA;
    dst->optionFlagB = src->optionFlagB;
    dst->optionFlagC = src->optionFlagC;
    dst->reductionDb = src->reductionDb;
    dst->smoothingPercent = src->smoothingPercent;
    dst->printFlag = src->printFlag;
}

}  // namespace

void SetDefaultParameter(NONOISE* p) {
    p->thresholdOffset = 1.0;
    p->auxIndex = -1;
    p->fftSize = 4096;
    p->maxSnapshots = 4000;
    p->overlap = 7;
    p->channels = 2;
    p->precisionExponent = 1.0;
    p->outputMode = 1;
    p->optionFlagB = true;
    p->optionFlagC = true;
    p->reductionDb = 40.0;
    p->smoothingPercent = 65.0;
}

void AllocateArrays(NONOISE* p) {
    p->binRms = p->binMin = p->binMax = nullptr;
    p->dcMin = p->dcMax = nullptr;
    p->thresholdCurve = nullptr;
    if (!ValidShape(p)) return;
    const int C = p->channels;
    const int N = p->fftSize;
    p->binRms = NewRows(C, N);
    p->binMin = NewRows(C, N);
    p->binMax = NewRows(C, N);
    p->dcMin = NewArray<double>(C);
    p->dcMax = NewArray<double>(C);
    p->thresholdCurve = NewArray<float>(N);
}

void FreeArrays(NONOISE* p) {
    // A record that claims no channels is left entirely alone, printFlag and arrays included: a
    // zeroed record frees harmlessly, and a record whose channel count was cleared keeps its
    // arrays (the owner must release them another way). A count outside 1 ... kMaxChannels says
    // nothing about the rows, so nothing is released either (AllocateArrays made none for it).
    if (p->channels == 0) return;
    if (!ValidChannels(p->channels)) {
        assert(p->binRms == nullptr && p->binMin == nullptr && p->binMax == nullptr &&
               "FreeArrays: the channel count changed after AllocateArrays");
        return;
    }
    assert(ArrayHolds(p->binRms, p->channels) && ArrayHolds(p->binMin, p->channels) &&
           ArrayHolds(p->binMax, p->channels) && "FreeArrays: more channels than the record's arrays hold");
    detail::ReleaseRecordArrays(p);
}

void CopyNoNoise(const NONOISE* src, NONOISE* dst, bool allocate) {
    dst->fftSize = src->fftSize;
    dst->channels = src->channels;
    if (allocate) AllocateArrays(dst);
    CopyScalars(src, dst);
    if (!ValidShape(src)) return;  // a record of that shape holds no arrays to copy
    const int C = src->channels;
    const int N = src->fftSize;
    assert(ArraysHold(src, C, N) && "CopyNoNoise: src declares more channels or bins than its arrays hold");
    assert(ArraysHold(dst, C, N) && "CopyNoNoise: dst's arrays are smaller than src's shape");
    for (int c = 0; c < C; ++c) {
        CopyRow(src->binRms, c, dst->binRms, c, N);
        CopyRow(src->binMin, c, dst->binMin, c, N);
        CopyRow(src->binMax, c, dst->binMax, c, N);
    }
    CopyValues(src->dcMin, dst->dcMin, C);
    CopyValues(src->dcMax, dst->dcMax, C);
    CopyValues(src->thresholdCurve, dst->thresholdCurve, N);
}

NONOISE* CloneNoNoise(const NONOISE* src) {
    auto* dst = new NONOISE;
    detail::ZeroRecord(dst);
    CopyNoNoise(src, dst, true);
    return dst;
}

void CopyMultiChannelNoNoiseToSingleChannelNoNoise(const NONOISE* src, NONOISE* dst, int channel, bool allocate) {
    const bool resized = dst->fftSize != src->fftSize;
    if (resized) FreeArrays(dst);  // with dst's own channel count, before it becomes 1
    dst->fftSize = src->fftSize;
    dst->channels = 1;
    if (allocate || resized) AllocateArrays(dst);
    CopyScalars(src, dst);
    if (!ValidShape(src)) return;  // a record of that shape holds no arrays to copy
    const int N = src->fftSize;
    assert(ArraysHold(src, src->channels, N) && "src declares more channels or bins than its arrays hold");
    assert(ArraysHold(dst, 1, N) && "dst's arrays are smaller than one channel of src's shape");
    if (channel >= 0 && channel < src->channels) {
        CopyRow(src->binRms, channel, dst->binRms, 0, N);
        CopyRow(src->binMin, channel, dst->binMin, 0, N);
        CopyRow(src->binMax, channel, dst->binMax, 0, N);
    }
    // The DC extremes come from channel 0 whichever channel is taken. Nothing downstream reads
    // them, and single-channel prints already stored carry them this way, so it stays.
    CopyValues(src->dcMin, dst->dcMin, 1);
    CopyValues(src->dcMax, dst->dcMax, 1);
    CopyValues(src->thresholdCurve, dst->thresholdCurve, N);
}

namespace detail {

void ReleaseRecordArrays(NONOISE* p) {
    // Rows exist only for a channel count AllocateArrays accepts; the tables are released anyway.
    const int C = ValidChannels(p->channels) ? p->channels : 0;
    DeleteRows(p->binRms, C);
    DeleteRows(p->binMin, C);
    DeleteRows(p->binMax, C);
    DeleteArray(p->dcMin);
    DeleteArray(p->dcMax);
    DeleteArray(p->thresholdCurve);
    p->printFlag = false;
}

void ZeroRecord(NONOISE* p) {
    std::memset(static_cast<void*>(p), 0, sizeof(NONOISE));
}

double PrintWindowValue(int k, int N) {
    constexpr double pi = std::numbers::pi;
    const double x = static_cast<double>(k);
    return 0.35875 - 0.48829 * std::cos(2.0 * pi * x / N) + 0.14128 * std::cos(4.0 * pi * x / (N - 1)) -
           0.01168 * std::cos(6.0 * pi * x / N);
}

}  // namespace detail

}  // namespace dsp::nonoise
