#include <algorithm>
#include <cassert>
#include <cstddef>
#include <memory>

#include "dsp/core/record_array_sizes.h"
#include "dsp/nohiss.h"
#include "dsp/restoration/nohiss/hiss_record.h"

namespace dsp::nohiss {

void SetDefaultParameter(NOHISS* record) {
    record->tuningA = 8.0f;
    record->fftSize = 4096;
    record->tuningB = 32;
    record->overlap = 5;
    record->sampleRate = 44100;
    record->channels = 2;
    record->frameCount = 0;
    record->kneeDb = 7.0f;
    record->outputMode = 1;
    record->reductionDb = 24.0f;
    record->smoothingPercent = 65.0f;
    record->tuningC = 14;
}

namespace record_checks {

bool ValidShape(const NOHISS* record) {
    return record->channels >= 1 && record->channels <= kMaxChannels && record->fftSize >= 1 &&
           record->fftSize <= kMaxFftSize;
}

bool ArraysHold(const NOHISS* record, int channels, int n) {
    using dsp::detail::ArrayHolds;
    const auto C = static_cast<std::size_t>(channels), cells = C * static_cast<std::size_t>(n);
    // Each kind is one block reached through row 0; a host's own rows are taken on trust.
    auto blockHolds = [&](auto* const* table) {
        return table == nullptr || (ArrayHolds(table, C) && ArrayHolds(table[0], cells));
    };
    return ArrayHolds(record->floorLevel, C) && blockHolds(record->floorRows) && blockHolds(record->thresholdRows);
}

}  // namespace record_checks

void AllocateArrays(NOHISS* record) {
    assert(record->floorLevel == nullptr && record->floorRows == nullptr && record->thresholdRows == nullptr &&
           "AllocateArrays on a record that holds arrays: FreeArrays first");
    const int C = record->channels;
    const int N = record->fftSize;
    if (!record_checks::ValidShape(record)) {
        record->floorLevel = nullptr;
        record->floorRows = nullptr;
        record->thresholdRows = nullptr;
        return;
    }
    const std::size_t rows = static_cast<std::size_t>(C);
    const std::size_t cells = rows * static_cast<std::size_t>(N);
    // Row tables point into one zeroed block per kind; the block is reached again through row 0.
    auto level = std::make_unique<float[]>(rows);
    auto floorBlock = std::make_unique<double[]>(cells);
    auto floorTable = std::make_unique<double*[]>(rows);
    auto thresholdBlock = std::make_unique<float[]>(cells);
    auto thresholdTable = std::make_unique<float*[]>(rows);
    for (std::size_t c = 0; c < rows; ++c) {
        floorTable[c] = floorBlock.get() + c * static_cast<std::size_t>(N);
        thresholdTable[c] = thresholdBlock.get() + c * static_cast<std::size_t>(N);
    }
    dsp::detail::NoteArrayLength(level.get(), rows);
    dsp::detail::NoteArrayLength(floorBlock.release(), cells);
    dsp::detail::NoteArrayLength(floorTable.get(), rows);
    dsp::detail::NoteArrayLength(thresholdBlock.release(), cells);
    dsp::detail::NoteArrayLength(thresholdTable.get(), rows);
    record->floorLevel = level.release();
    record->floorRows = floorTable.release();
    record->thresholdRows = thresholdTable.release();
}

namespace {

template <typename T>
void Release(T* array) {
    dsp::detail::ForgetArrayLength(array);
    delete[] array;
}

}  // namespace

void FreeArrays(NOHISS* record) {
    if (record->floorRows != nullptr) {
        Release(record->floorRows[0]);
        Release(record->floorRows);
    }
    if (record->thresholdRows != nullptr) {
        Release(record->thresholdRows[0]);
        Release(record->thresholdRows);
    }
    Release(record->floorLevel);
    record->floorLevel = nullptr;
    record->floorRows = nullptr;
    record->thresholdRows = nullptr;
}

void CopyParameter(const NOHISS* src, NOHISS* dst) {
    if (src == dst) return;
    const bool reshape = dst->fftSize != src->fftSize || dst->channels != src->channels || dst->floorLevel == nullptr ||
                         dst->floorRows == nullptr || dst->thresholdRows == nullptr;
    if (reshape) FreeArrays(dst);

    dst->tuningA = src->tuningA;
    dst->fftSize = src->fftSize;
    dst->tuningB = src->tuningB;
    dst->overlap = src->overlap;
    dst->sampleRate = src->sampleRate;
    dst->channels = src->channels;
    dst->frameCount = src->frameCount;
    dst->kneeDb = src->kneeDb;
    dst->outputMode = src->outputMode;
    dst->reductionDb = src->reductionDb;
    dst->smoothingPercent = src->smoothingPercent;
    dst->tuningC = src->tuningC;

    if (reshape) AllocateArrays(dst);
    if (dst->floorRows == nullptr) return;  // no channels or no bins, or beyond the limits
    assert(record_checks::ArraysHold(src, src->channels, src->fftSize) &&
           "CopyParameter: src declares more channels or bins than its arrays hold");

    const std::size_t rows = static_cast<std::size_t>(dst->channels);
    if (src->floorLevel != nullptr) {
        std::copy_n(src->floorLevel, rows, dst->floorLevel);
    } else {
        std::fill_n(dst->floorLevel, rows, 0.0f);
    }
    // Row by row: a record filled by a host may keep its rows anywhere.
    const int N = dst->fftSize;
    for (std::size_t c = 0; c < rows; ++c) {
        if (src->floorRows != nullptr)
            std::copy_n(src->floorRows[c], N, dst->floorRows[c]);
        else
            std::fill_n(dst->floorRows[c], N, 0.0);
        if (src->thresholdRows != nullptr)
            std::copy_n(src->thresholdRows[c], N, dst->thresholdRows[c]);
        else
            std::fill_n(dst->thresholdRows[c], N, 0.0f);
    }
}

}  // namespace dsp::nohiss
