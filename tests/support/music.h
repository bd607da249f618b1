#pragma once
// Real instrument audio for comparisons with other meters: a short seeded piece (piano chords, a
// bass line and drums, with a crescendo and a quiet passage) written as a MIDI file and rendered
// by the fluidsynth program with the FluidR3 General MIDI soundfont. Tests and benchmarks that use
// it skip when either is missing.

#include <cstdint>
#include <string>

#include "support/signals.h"

namespace kesta::test {

// The soundfont's path, or empty when it or fluidsynth is not installed.
std::string MusicSoundfont();

// `seconds` of stereo music at `rate` Hz (seeded: the same piece every time); empty when it
// cannot be rendered.
Channels RenderMusic(int rate, double seconds, uint64_t seed);

}  // namespace kesta::test
