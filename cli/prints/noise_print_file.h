#pragma once
// Noise print files: what `kesta denoise --save-print` (with the print or the nmf method) and
// `kesta dehiss --save-print` keep, and `--print` reads back, so a print taken once serves many files.
//
// Format, version 1. Every number is little-endian with a fixed width (i16/i32/i64 two's
// complement, u16/u32/u64 unsigned, f32/f64 IEEE 754, u8 for a bool: 0 or 1).
//
//   offset  size  field
//        0     8  magic: the bytes "KESTA-NP"
//        8     2  u16 format version: 1
//       10     2  u16 kind: 1 noise print (for denoise), 2 hiss floor (for dehiss), 3 noise
//                 dictionary (for denoise --method nmf)
//       12     4  u32 sample rate of the audio the print was taken from, Hz
//       16     4  u32 channels C (1 ... 32)
//       20     4  u32 FFT size N (a power of two, 16 ... 65536; at most 16384 for a noise print
//                 or a noise dictionary)
//       24     8  u64 payload length B, bytes
//       32     B  payload (below)
//   32 + B     4  u32 CRC-32 (IEEE 802.3: reflected polynomial 0xEDB88320, initial value and
//                 final xor 0xFFFFFFFF, as zlib's crc32) of bytes 8 ... 32 + B - 1: every byte
//                 after the magic up to the checksum itself
//
// The payload starts with where the print was taken: i64 first frame, i64 length in frames (at
// the sample rate above; 0 and 0 when not known). Then the record of the kind, each row of N values
// holding every bin 0 ... N-1: prints/noise_print_codec.h (kind 1, dsp::nonoise::NONOISE),
// prints/hiss_floor_codec.h (kind 2, dsp::nohiss::NOHISS) and prints/noise_dictionary_codec.h
// (kind 3, dsp::dnz::DNZ, whose rows hold bins 0 ... N/2 only). The fields are those of
// prints/byte_codec.h.
//
// So B = 16 + 64 + 16C + 24CN + 4N for a noise print, 16 + 44 + 4C + 12CN for a hiss floor and
// 16 + 52 + 4C + 4C·Kn·(N/2 + 1) for a noise dictionary of Kn atoms (Kn follows from B).
// The record's fftSize and channels equal the header's, and its overlap gives a valid frame
// geometry (see OverlapSave): a file that breaks any of this is refused as damaged.
//
// The settings stored in the record (reduction, smoothing, knee, ...) are those of the run that
// saved it; a run that reads the print takes its settings from its own command line and uses the
// stored statistics only. A hiss floor's thresholdRows are recomputed from floorRows with the
// reading run's --sensitivity.
//
// Reading checks, in this order, each refusal one clear line: the magic (not a print file), the
// version (0 is unknown, above 1 is from a newer kesta), the length (truncated, or trailing
// bytes), the checksum (damaged), the kind, the header and record fields, then every value a
// reading run uses: the stretch (from frame 0 on, its end within 64-bit frame positions), the
// stored settings (within the ranges the commands accept), and the statistics of bins 0 ... N/2
// (magnitudes, floors, thresholds finite, 0 or more and at most 1e30). A checksum guards against
// accidents, not edits: a file another program changed is refused here. Whether a print suits
// the audio (kind, channels, FFT size, sample rate) is the command's check: see
// CheckPrintMatches.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "byte_codec.h"
#include "dsp/dnz.h"
#include "dsp/nohiss.h"
#include "dsp/nonoise.h"

namespace kesta {

enum class PrintKind : uint16_t {
    NoisePrint = 1,       // a dsp::nonoise::NONOISE, for denoise
    HissFloor = 2,        // a dsp::nohiss::NOHISS, for dehiss
    NoiseDictionary = 3,  // a dsp::dnz::DNZ, for denoise --method nmf
};

inline constexpr char kPrintMagic[8] = {'K', 'E', 'S', 'T', 'A', '-', 'N', 'P'};
inline constexpr uint16_t kPrintFormatVersion = 1;
inline constexpr int kPrintMaxChannels = dsp::OverlapSave::kMaxChannels;  // the frame engine's limit

// "noise print", "hiss floor", "noise dictionary"
std::string PrintKindName(PrintKind kind);

// Records that free their arrays.
struct NoNoiseDeleter {
    void operator()(dsp::nonoise::NONOISE* record) const;
};
struct NoHissDeleter {
    void operator()(dsp::nohiss::NOHISS* record) const;
};
struct DnzDeleter {
    void operator()(dsp::dnz::DNZ* record) const;
};
using NoNoisePtr = std::unique_ptr<dsp::nonoise::NONOISE, NoNoiseDeleter>;
using NoHissPtr = std::unique_ptr<dsp::nohiss::NOHISS, NoHissDeleter>;
using DnzPtr = std::unique_ptr<dsp::dnz::DNZ, DnzDeleter>;

// Default records of `channels` channels and FFT size `fftSize`, with zeroed arrays.
NoNoisePtr MakeNoNoise(int channels, int fftSize);
NoHissPtr MakeNoHiss(int channels, int fftSize, int sampleRate);
// With `atoms` noise atoms (no arrays when the shape is not one the reducer takes).
DnzPtr MakeDnz(int channels, int fftSize, int atoms);

// Where a print was taken, in frames at its sample rate.
struct PrintSpan {
    int64_t start = 0;
    int64_t frames = 0;
};

struct PrintFile {
    PrintKind kind = PrintKind::NoisePrint;
    int32_t sampleRate = 0;
    int32_t channels = 0;
    int32_t fftSize = 0;
    PrintSpan span;
    NoNoisePtr noise;   // kind NoisePrint
    NoHissPtr hiss;     // kind HissFloor
    DnzPtr dictionary;  // kind NoiseDictionary
};

// The bytes of a print file. The rate of a hiss floor is its record's sampleRate.
std::string EncodeNoisePrint(const dsp::nonoise::NONOISE& record, int32_t sampleRate, PrintSpan span);
std::string EncodeHissFloor(const dsp::nohiss::NOHISS& record, PrintSpan span);
std::string EncodeNoiseDictionary(const dsp::dnz::DNZ& record, int32_t sampleRate, PrintSpan span);

// Reads a print file's bytes; throws an input error naming `displayPath` when they are not a
// valid print of a kind this kesta knows.
PrintFile DecodePrintFile(std::string_view bytes, const std::string& displayPath);
// Reads and decodes the file; throws an input error when it is missing, unreadable or invalid.
PrintFile ReadPrintFile(const std::string& path);

// Refuses (usage error, one line) a print that does not fit the audio: another kind than
// `wanted`, another channel count, another FFT size than `requestedFftSize` (0: any), or another
// sample rate. A print describes frequencies bin by bin, so one taken at another rate would treat
// the wrong frequencies: that is refused, not merely warned about.
void CheckPrintMatches(const PrintFile& print, const std::string& printPath, PrintKind wanted, int channels,
                       int sampleRate, int requestedFftSize, const std::string& audioPath);

}  // namespace kesta
