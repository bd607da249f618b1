#pragma once
// The recording `kesta demo` restores: a clean programme (a musical passage of harmonic notes with
// vibrato and attack/decay envelopes, then speech-like syllables in words with pauses, between
// stretches with nothing in them), and the same programme damaged as an old transfer is: steady
// broadband noise, hiss, clicks, crackle, and clipping. The same seed gives the same samples.

#include <cstdint>
#include <vector>

namespace kesta {

struct Stretch {
    int64_t start = 0, end = 0;  // frames [start, end)
};

struct InsertedClick {
    int channel = 0;  // 0 = first
    int64_t start = 0;
    int length = 1;
};

struct DemoRecording {
    int rate = 44100;
    std::vector<std::vector<float>> clean, damaged;  // per channel
    std::vector<InsertedClick> clicks;               // the loud ones
    std::vector<InsertedClick> crackle;              // the many faint ones
    std::vector<InsertedClick> clippedRuns;          // every run of samples the clipping flattened
    std::vector<Stretch> noiseOnly;                  // nothing but the damage
    std::vector<Stretch> pauses;                     // between the spoken words
    double noiseDbfs = 0.0, hissDbfs = 0.0, clipLevel = 0.0;

    int64_t Frames() const { return clean.empty() ? 0 : int64_t(clean[0].size()); }
};

DemoRecording MakeDemoRecording(uint64_t seed);

}  // namespace kesta
