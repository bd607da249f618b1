// The NONOISE record's free functions and the family's record helpers.

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <type_traits>

#include "dsp/nonoise.h"
#include "dsp/restoration/nonoise/record_storage.h"

namespace dsp::nonoise {

static_assert(std::is_trivially_copyable_v<NONOISE>, "NONOISE is a plain record");

namespace {

double** NewRows(int channels, int n) {
    double** rows = new double*[static_cast<std::size_t>(channels)];
    for (int c = 0; c < channels; ++c)
        rows[c] = nullptr;
    for (int c = 0; c < channels; ++c)
        rows[c] = new double[static_cast<std::size_t>(n)]();
    return rows;
}

void DeleteRows(double**& rows, int channels) {
    if (rows == nullptr) return;
    for (int c = 0; c < channels; ++c)
        delete[] rows[c];
    delete[] rows;
    rows = nullptr;
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
    const int C = p->channels;
    const int N = p->fftSize;
    p->binRms = NewRows(C, N);
    p->binMin = NewRows(C, N);
    p->binMax = NewRows(C, N);
    p->dcMin = new double[static_cast<std::size_t>(C)]();
    p->dcMax = new double[static_cast<std::size_t>(C)]();
    p->thresholdCurve = new float[static_cast<std::size_t>(N)]();
}

void FreeArrays(NONOISE* p) {
    // A record that claims no channels is left entirely alone, printFlag and arrays included: a
    // zeroed record frees harmlessly, and a record whose channel count was cleared keeps its
    // arrays (the owner must release them another way).
    if (p->channels == 0) return;
    detail::ReleaseRecordArrays(p);
}

void CopyNoNoise(const NONOISE* src, NONOISE* dst, bool allocate) {
    dst->fftSize = src->fftSize;
    dst->channels = src->channels;
    if (allocate) AllocateArrays(dst);
    CopyScalars(src, dst);
    const int C = src->channels;
    const int N = src->fftSize;
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
    const int N = src->fftSize;
    if (channel >= 0 && channel < src->channels) {
        CopyRow(src->binRms, channel, dst->binRms, 0, N);
        CopyRow(src->binMin, channel, dst->binMin, 0, N);
        CopyRow(src->binMax, channel, dst->binMax, 0, N);
    }
    // The DC extremes come from channel 0 whichever channel is taken. Nothing downstream reads
    // them, and single-channel prints already stored carry them this way, so it stays.
    if (src->channels > 0) {
        CopyValues(src->dcMin, dst->dcMin, 1);
        CopyValues(src->dcMax, dst->dcMax, 1);
    }
    CopyValues(src->thresholdCurve, dst->thresholdCurve, N);
}

namespace detail {

void ReleaseRecordArrays(NONOISE* p) {
    const int C = std::max<int>(p->channels, 0);
    DeleteRows(p->binRms, C);
    DeleteRows(p->binMin, C);
    DeleteRows(p->binMax, C);
    delete[] p->dcMin;
    delete[] p->dcMax;
    delete[] p->thresholdCurve;
    p->dcMin = nullptr;
    p->dcMax = nullptr;
    p->thresholdCurve = nullptr;
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
