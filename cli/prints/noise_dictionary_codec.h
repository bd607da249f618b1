#pragma once
// The record of a noise dictionary (kind 3, for denoise --method nmf): a dsp::dnz::DNZ of C
// channels, FFT size N and Kn noise atoms. Its scalar fields in the record's own order, 52 bytes:
//   i16 fftSize, i16 channels, i16 noiseAtoms, i16 signalAtoms, i32 maxFrames, i16 learnIterations,
//   i16 iterations, i16 frameCount, i16 outputMode, f64 reductionDb, f64 smoothingPercent,
//   f64 signalMemory, f64 noiseHeadroom;
// then f32 noiseCeiling[C], f32 noiseDictionary[C][Kn × (N/2 + 1)].
//
// The header gives C and N but not Kn: the payload's length does (AtomsForPayload), and the
// record's noiseAtoms must agree with it. A reading run uses the dictionary and the ceilings; its
// settings come from its own command line and the reducer's other fields from this kesta's
// defaults, so a dictionary saved by an older kesta runs with today's reducer.

#include <cstdint>
#include <string>

#include "byte_codec.h"
#include "noise_print_file.h"

namespace kesta {

// The bytes of the record of C channels, FFT size N and `atoms` noise atoms.
uint64_t NoiseDictionaryRecordBytes(uint64_t channels, uint64_t fftSize, uint64_t atoms);
// The atom count a record of C channels and FFT size N with `recordBytes` bytes holds, or 0 when
// no count from 1 to dsp::dnz::kMaxAtoms gives that length.
int AtomsForRecordBytes(uint64_t channels, uint64_t fftSize, uint64_t recordBytes);

void EncodeNoiseDictionary(ByteWriter& out, const dsp::dnz::DNZ& record);
// Reads a record of `channels` channels, FFT size `fftSize` and `atoms` noise atoms; refuses one
// that disagrees with them, has a shape the reducer cannot take, or holds a value a reading run
// cannot use.
DnzPtr DecodeNoiseDictionary(ByteReader& in, int channels, int fftSize, int atoms, const std::string& path);

}  // namespace kesta
