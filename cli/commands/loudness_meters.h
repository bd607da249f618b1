#pragma once
// The meters kesta analyze and kesta normalize read a stream with: loudness (integrated, range,
// largest momentary and short-term), true peak, and, for analyze, the amplitude statistics.

#include <cstdint>

#include "dsp/levels.h"
#include "dsp/loudness.h"
#include "io/audio_block.h"
#include "pipeline/json_writer.h"

namespace kesta {

struct LoudnessFigures {
    double integratedLufs = 0.0;
    double rangeLu = 0.0;
    double maxMomentaryLufs = 0.0;
    double maxShortTermLufs = 0.0;
    double truePeakDbtp = 0.0;
};

class LoudnessMeters {
public:
    // `levels`: also gather the amplitude statistics of `frames` frames (the stream's length).
    LoudnessMeters(int channels, int sampleRate, bool levels = false, int64_t frames = 0);

    void Add(const AudioBlock& block);
    // Finishes the statistics; call once after the last block.
    void Finish();

    LoudnessFigures Figures() const;
    const dsp::TruePeak& Peak() const { return mPeak; }
    const dsp::Stats& Levels() const { return mLevels.GetStats(); }

private:
    dsp::Itu1770 mLoudness;
    dsp::TruePeak mPeak;
    dsp::FindLevels mLevels;
    bool mWithLevels;
    int64_t mFrames = 0;
};

// "integrated_lufs", "loudness_range_lu", "max_momentary_lufs", "max_short_term_lufs",
// "true_peak_dbtp" as fields of the object being written (null for -inf).
void WriteLoudnessFields(JsonWriter& json, const LoudnessFigures& figures);

}  // namespace kesta
