#include "noise_print_codec.h"

#include "print_checks.h"

namespace kesta {

namespace {

using dsp::nonoise::NONOISE;

constexpr uint64_t kScalarBytes = 64;
// How far the threshold position (offset plus curve) may reach either way, and the largest
// precision exponent: well beyond anything the capture writes, small enough to keep the threshold
// parabola and the knee finite.
constexpr double kLargestPosition = 1000.0;
constexpr double kLargestExponent = 100.0;

// Each bin's minimum, RMS and maximum rise in that order (the RMS within rounding of either end),
// as any capture gives them. The gain rule scales the knee by RMS/maximum and the ceiling by
// minimum/maximum, so a maximum far below the others overflows both.
void CheckOrdered(const PrintValueCheck& check, const NONOISE& r, std::size_t channels, std::size_t count) {
    constexpr double kRounding = 1e-9;
    for (std::size_t c = 0; c < channels; ++c)
        for (std::size_t k = 0; k < count; ++k) {
            const double mn = r.binMin[c][k], avg = r.binRms[c][k], mx = r.binMax[c][k];
            if (mn <= mx && avg <= mx * (1.0 + kRounding) && avg >= mn * (1.0 - kRounding)) continue;
            check.Fail("its statistics of channel " + std::to_string(c + 1) + " at entry " + std::to_string(k) +
                       " are out of order (binMin " + PrintNumber(mn) + ", binRms " + PrintNumber(avg) + ", binMax " +
                       PrintNumber(mx) + "; a bin's minimum, RMS and maximum rise in that order)");
        }
}

// The record's fields in file order, each handed to `field` (a scalar, or an array and its
// length): the encoder and the decoder walk this one list.
template <class Record, class Field>
void NoNoiseFields(Record& r, std::size_t C, std::size_t N, Field field) {
    field(r.thresholdOffset);
    field(r.auxIndex);
    field(r.fftSize);
    field(r.maxSnapshots);
    field(r.overlap);
    field(r.optionInt);
    field(r.channels);
    field(r.frameCount);
    field(r.transitionDb);
    field(r.precisionExponent);
    field(r.outputMode);
    field(r.optionFlagA);
    field(r.optionFlagB);
    field(r.optionFlagC);
    field(r.reductionDb);
    field(r.smoothingPercent);
    field(r.printFlag);
    field(r.dcMin, C);
    field(r.dcMax, C);
    for (double* const* rows : {r.binMin, r.binMax, r.binRms})
        for (std::size_t c = 0; c < C; ++c)
            field(rows[c], N);
    field(r.thresholdCurve, N);
}

}  // namespace

uint64_t NoNoiseRecordBytes(uint64_t C, uint64_t N) {
    return kScalarBytes + 16 * C + 24 * C * N + 4 * N;
}

void EncodeNoNoise(ByteWriter& out, const NONOISE& record) {
    NoNoiseFields(record, std::size_t(record.channels), std::size_t(record.fftSize),
                  [&out](const auto&... field) { out.Field(field...); });
}

NoNoisePtr DecodeNoNoise(ByteReader& in, int channels, int fftSize, const std::string& path) {
    const std::size_t C = std::size_t(channels), N = std::size_t(fftSize);
    NoNoisePtr record = MakeNoNoise(channels, fftSize);
    NONOISE& r = *record;
    NoNoiseFields(r, C, N, [&in](auto&... field) { in.Field(field...); });
    // The arrays were read at the header's shape; the record's own copy of it must agree (and the
    // record keeps the header's, which its arrays were made for).
    const bool agrees = r.fftSize == int16_t(N) && r.channels == int16_t(C);
    r.fftSize = int16_t(N);
    r.channels = int16_t(C);
    const PrintValueCheck check(path);
    if (!agrees || !dsp::OverlapSave::IsValidOverlap(int(N), r.overlap))
        check.Fail("its record does not agree with its header");

    // Bins 0 ... N/2 carry the statistics; the rest of each row is never read (a capture leaves
    // its start values there).
    const std::size_t bins = N / 2 + 1;
    check.Setting("reductionDb", r.reductionDb, 0.0, 120.0);
    check.Setting("smoothingPercent", r.smoothingPercent, 0.0, 99.0);
    check.Setting("transitionDb", r.transitionDb, 0.0, 40.0);
    check.Setting("outputMode", r.outputMode, 1.0, 2.0);
    check.Setting("thresholdOffset", r.thresholdOffset, -kLargestPosition, kLargestPosition);
    check.Setting("precisionExponent", r.precisionExponent, 0.0, kLargestExponent);
    check.Values("dcMin", -1, r.dcMin, C, 0.0, kLargestPrintMagnitude, "a magnitude");
    check.Values("dcMax", -1, r.dcMax, C, 0.0, kLargestPrintMagnitude, "a magnitude");
    check.Magnitudes("binMin", r.binMin, C, bins);
    check.Magnitudes("binMax", r.binMax, C, bins);
    check.Magnitudes("binRms", r.binRms, C, bins);
    CheckOrdered(check, r, C, bins);
    check.Values("thresholdCurve", -1, r.thresholdCurve, bins, -kLargestPosition, kLargestPosition, "a position");
    return record;
}

}  // namespace kesta
