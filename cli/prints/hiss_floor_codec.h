#pragma once
// The record of a hiss floor (kind 2, for dehiss): a dsp::nohiss::NOHISS of C channels and FFT
// size N. Its scalar fields in the record's own order, 44 bytes:
//   f32 tuningA, i32 fftSize, i32 tuningB, i16 overlap, i32 sampleRate, i32 channels,
//   i16 frameCount, f32 kneeDb, i32 outputMode, f32 reductionDb, f32 smoothingPercent, i32 tuningC;
// then f32 floorLevel[C], f64 floorRows[C][N], f32 thresholdRows[C][N].

#include <cstdint>
#include <string>

#include "byte_codec.h"
#include "noise_print_file.h"

namespace kesta {

// The bytes of the record of C channels and FFT size N.
uint64_t NoHissRecordBytes(uint64_t channels, uint64_t fftSize);

void EncodeNoHiss(ByteWriter& out, const dsp::nohiss::NOHISS& record);
// Reads a record of `channels` channels, FFT size `fftSize` and rate `sampleRate`; refuses one
// that disagrees with them, has no valid frame geometry, or holds a value a reading run cannot use.
NoHissPtr DecodeNoHiss(ByteReader& in, int channels, int fftSize, int sampleRate, const std::string& path);

}  // namespace kesta
