#include "commands/loudness_meters.h"

#include <vector>

#include "pipeline/units.h"

namespace kesta {

LoudnessMeters::LoudnessMeters(int channels, int sampleRate, bool levels, int64_t frames)
    : mLoudness(sampleRate, channels), mPeak(sampleRate, channels), mLevels(sampleRate), mWithLevels(levels) {
    if (mWithLevels) {
        mLevels.SetSelection(0, frames);
        mLevels.Start(nullptr);
    }
}

void LoudnessMeters::Add(const AudioBlock& block) {
    const int frames = static_cast<int>(block.Frames());
    if (frames == 0) return;
    float* channels[dsp::Stats::kMaxChannels];
    const int count = std::min(block.Channels(), dsp::Stats::kMaxChannels);
    for (int c = 0; c < count; ++c)
        channels[c] = const_cast<float*>(block.Channel(c));
    mLoudness.Process(channels, count, frames);
    mPeak.Process(channels, count, frames);
    if (mWithLevels) mLevels.Analyze(channels, count, frames);
    mFrames += frames;
}

void LoudnessMeters::Finish() {
    if (mWithLevels) {
        mLevels.SetSelection(0, mFrames);  // the frames read, whatever the header announced
        mLevels.Done();
    }
}

LoudnessFigures LoudnessMeters::Figures() const {
    return {mLoudness.GetIntegrated(), mLoudness.GetLoudnessRange(), mLoudness.GetMaxMomentary(),
            mLoudness.GetMaxShortTerm(), LinearToDb(mPeak.GetTruePeak())};
}

void WriteLoudnessFields(JsonWriter& json, const LoudnessFigures& figures) {
    json.Key("integrated_lufs").Number(figures.integratedLufs);
    json.Key("loudness_range_lu").Number(figures.rangeLu);
    json.Key("max_momentary_lufs").Number(figures.maxMomentaryLufs);
    json.Key("max_short_term_lufs").Number(figures.maxShortTermLufs);
    json.Key("true_peak_dbtp").Number(figures.truePeakDbtp);
}

}  // namespace kesta
