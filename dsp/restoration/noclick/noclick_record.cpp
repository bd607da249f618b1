#include "dsp/noclick.h"
#include "dsp/restoration/noclick/click_model.h"

namespace dsp::noclick {

void SetDefaultParameter(NOCLICK* p) {
    p->sampleRate = 44100.0f;
    p->channels = 2;
    p->threshold = 55.0;
    p->complexity = 16;
}

void AllocateArrays(NOCLICK* p) {
    const auto channels = static_cast<std::size_t>(std::max(p->channels, 0));
    p->foundClicks.assign(channels, {});
    p->repairClicks.assign(channels, {});
}

void FreeArrays(NOCLICK* p) {
    std::vector<std::vector<utils::Range>>().swap(p->foundClicks);
    std::vector<std::vector<utils::Range>>().swap(p->repairClicks);
}

void CopyParameter(const NOCLICK* src, NOCLICK* dst, bool clearFound) {
    const bool resized = src->channels != dst->channels;
    if (resized) FreeArrays(dst);
    dst->sampleRate = src->sampleRate;
    dst->channels = src->channels;
    dst->threshold = src->threshold;
    dst->complexity = src->complexity;
    const auto channels = static_cast<std::size_t>(std::max(dst->channels, 0));
    if (resized || dst->foundClicks.size() != channels || dst->repairClicks.size() != channels) {
        dst->foundClicks.resize(channels);
        dst->repairClicks.resize(channels);
    }
    for (std::size_t c = 0; c < channels; ++c) {
        dst->repairClicks[c] = c < src->repairClicks.size() ? src->repairClicks[c] : std::vector<utils::Range>{};
        if (clearFound || c >= src->foundClicks.size())
            dst->foundClicks[c].clear();
        else
            dst->foundClicks[c] = src->foundClicks[c];
    }
}

ClickModels::ClickModels(const ClickModels& other) {
    *this = other;
}

ClickModels& ClickModels::operator=(const ClickModels& other) {
    if (this == &other) return *this;
    for (ClickModel* m : mModels)
        delete m;
    mModels.clear();
    for (const ClickModel* m : other.mModels)
        mModels.push_back(new ClickModel(*m));
    return *this;
}

ClickModels::~ClickModels() {
    for (ClickModel* m : mModels)
        delete m;
}

void ClickModels::Create(const NOCLICK& record, int blockLength) {
    *this = ClickModels();
    ClickModelConfig config;
    config.complexity = record.complexity;
    config.level = record.threshold + 25.0;
    for (int c = 0; c < record.channels; ++c) {
        mModels.push_back(new ClickModel());
        mModels.back()->Init(20 + record.complexity / 2, blockLength, record.sampleRate, config);
    }
}

}  // namespace dsp::noclick
