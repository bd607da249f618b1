#pragma once
// The record of a noise print (kind 1, for denoise): a dsp::nonoise::NONOISE of C channels and FFT
// size N. Its scalar fields in the record's own order, 64 bytes:
//   f64 thresholdOffset, i16 auxIndex, i16 fftSize, i32 maxSnapshots, i16 overlap, i32 optionInt,
//   i16 channels, i16 frameCount, f64 transitionDb, f64 precisionExponent, i16 outputMode,
//   u8 optionFlagA, u8 optionFlagB, u8 optionFlagC, f64 reductionDb, f64 smoothingPercent,
//   u8 printFlag;
// then f64 dcMin[C], f64 dcMax[C], f64 binMin[C][N], f64 binMax[C][N], f64 binRms[C][N],
// f32 thresholdCurve[N]. (reservedBlock is never interpreted and is not stored.)

#include <cstdint>
#include <string>

#include "byte_codec.h"
#include "noise_print_file.h"

namespace kesta {

// The bytes of the record of C channels and FFT size N.
uint64_t NoNoiseRecordBytes(uint64_t channels, uint64_t fftSize);

void EncodeNoNoise(ByteWriter& out, const dsp::nonoise::NONOISE& record);
// Reads a record of `channels` channels and FFT size `fftSize`; refuses one that disagrees with
// them, has no valid frame geometry, or holds a value a reading run cannot use.
NoNoisePtr DecodeNoNoise(ByteReader& in, int channels, int fftSize, const std::string& path);

}  // namespace kesta
