#include "dsp/noclip.h"

namespace dsp::noclip {

void SetDefaultParameter(NOCLIPPING* record) {
    record->sampleRate = 44100.0f;
    record->channels = 2;
    record->fftSize = 32;
    record->minRunLength = 3;
    record->gainDb = -12.0f;
    record->useFFT = false;
    record->tolerancePercent = 10.0f;
    record->useLimiter = true;
    record->optionB = true;
    record->fillInMargin = 64;
}

void AllocateArrays(NOCLIPPING* record) {
    const std::size_t channels = record->channels > 0 ? static_cast<std::size_t>(record->channels) : 0;
    record->minLevel.assign(channels, 0.0f);
    record->maxLevel.assign(channels, 0.0f);
    record->runKind.assign(channels, 0);
    record->runCount.assign(channels, 0);
    record->runStart.assign(channels, 0);
    record->foundClips.assign(channels, {});
    record->repairClips.assign(channels, {});
}

void FreeArrays(NOCLIPPING* record) {
    // Swapped with empty lists so that the memory is released, not only cleared.
    std::vector<float>().swap(record->minLevel);
    std::vector<float>().swap(record->maxLevel);
    std::vector<int32_t>().swap(record->runKind);
    std::vector<int32_t>().swap(record->runCount);
    std::vector<int64_t>().swap(record->runStart);
    std::vector<std::vector<utils::Range>>().swap(record->foundClips);
    std::vector<std::vector<utils::Range>>().swap(record->repairClips);
}

void CopyParameter(const NOCLIPPING* src, NOCLIPPING* dst, bool emptyFound) {
    if (src == dst) {
        if (emptyFound)
            for (auto& list : dst->foundClips)
                list.clear();
        return;
    }
    dst->sampleRate = src->sampleRate;
    dst->channels = src->channels;
    dst->fftSize = src->fftSize;
    dst->minRunLength = src->minRunLength;
    dst->gainDb = src->gainDb;
    dst->useFFT = src->useFFT;
    dst->tolerancePercent = src->tolerancePercent;
    dst->useLimiter = src->useLimiter;
    dst->optionB = src->optionB;
    dst->fillInMargin = src->fillInMargin;
    dst->minLevel = src->minLevel;
    dst->maxLevel = src->maxLevel;
    dst->runKind = src->runKind;
    dst->runCount = src->runCount;
    dst->runStart = src->runStart;
    dst->repairClips = src->repairClips;
    if (emptyFound)
        dst->foundClips.assign(src->foundClips.size(), {});
    else
        dst->foundClips = src->foundClips;
    // A record filled by hand may carry fewer lists than channels: every list gets one per channel.
    const std::size_t channels = dst->channels > 0 ? static_cast<std::size_t>(dst->channels) : 0;
    dst->minLevel.resize(channels, 0.0f);
    dst->maxLevel.resize(channels, 0.0f);
    dst->runKind.resize(channels, 0);
    dst->runCount.resize(channels, 0);
    dst->runStart.resize(channels, 0);
    dst->foundClips.resize(channels);
    dst->repairClips.resize(channels);
}

}  // namespace dsp::noclip
