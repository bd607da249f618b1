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

}  // namespace

uint64_t NoNoiseRecordBytes(uint64_t C, uint64_t N) {
    return kScalarBytes + 16 * C + 24 * C * N + 4 * N;
}

void EncodeNoNoise(ByteWriter& out, const NONOISE& record) {
    const std::size_t C = std::size_t(record.channels), N = std::size_t(record.fftSize);
    out.F64(record.thresholdOffset);
    out.I16(record.auxIndex);
    out.I16(record.fftSize);
    out.I32(record.maxSnapshots);
    out.I16(record.overlap);
    out.I32(record.optionInt);
    out.I16(record.channels);
    out.I16(record.frameCount);
    out.F64(record.transitionDb);
    out.F64(record.precisionExponent);
    out.I16(record.outputMode);
    out.Bool(record.optionFlagA);
    out.Bool(record.optionFlagB);
    out.Bool(record.optionFlagC);
    out.F64(record.reductionDb);
    out.F64(record.smoothingPercent);
    out.Bool(record.printFlag);
    out.F64s(record.dcMin, C);
    out.F64s(record.dcMax, C);
    for (std::size_t c = 0; c < C; ++c)
        out.F64s(record.binMin[c], N);
    for (std::size_t c = 0; c < C; ++c)
        out.F64s(record.binMax[c], N);
    for (std::size_t c = 0; c < C; ++c)
        out.F64s(record.binRms[c], N);
    out.F32s(record.thresholdCurve, N);
}

NoNoisePtr DecodeNoNoise(ByteReader& in, int channels, int fftSize, const std::string& path) {
    const std::size_t C = std::size_t(channels), N = std::size_t(fftSize);
    NoNoisePtr record = MakeNoNoise(channels, fftSize);
    NONOISE& r = *record;
    r.thresholdOffset = in.F64();
    r.auxIndex = in.I16();
    const int16_t recordFft = in.I16();
    r.maxSnapshots = in.I32();
    r.overlap = in.I16();
    r.optionInt = in.I32();
    const int16_t recordChannels = in.I16();
    r.frameCount = in.I16();
    r.transitionDb = in.F64();
    r.precisionExponent = in.F64();
    r.outputMode = in.I16();
    r.optionFlagA = in.Bool();
    r.optionFlagB = in.Bool();
    r.optionFlagC = in.Bool();
    r.reductionDb = in.F64();
    r.smoothingPercent = in.F64();
    r.printFlag = in.Bool();
    const PrintValueCheck check(path);
    if (recordFft != int16_t(N) || recordChannels != int16_t(C) || !dsp::OverlapSave::IsValidOverlap(int(N), r.overlap))
        check.Fail("its record does not agree with its header");
    in.F64s(r.dcMin, C);
    in.F64s(r.dcMax, C);
    for (std::size_t c = 0; c < C; ++c)
        in.F64s(r.binMin[c], N);
    for (std::size_t c = 0; c < C; ++c)
        in.F64s(r.binMax[c], N);
    for (std::size_t c = 0; c < C; ++c)
        in.F64s(r.binRms[c], N);
    in.F32s(r.thresholdCurve, N);

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
