#include "hiss_floor_codec.h"

#include "print_checks.h"

namespace kesta {

using dsp::nohiss::NOHISS;

uint64_t NoHissRecordBytes(uint64_t C, uint64_t N) {
    constexpr uint64_t kScalarBytes = 44;
    return kScalarBytes + 4 * C + 12 * C * N;
}

void EncodeNoHiss(ByteWriter& out, const NOHISS& record) {
    const std::size_t C = std::size_t(record.channels), N = std::size_t(record.fftSize);
    out.F32(record.tuningA);
    out.I32(record.fftSize);
    out.I32(record.tuningB);
    out.I16(record.overlap);
    out.I32(record.sampleRate);
    out.I32(record.channels);
    out.I16(record.frameCount);
    out.F32(record.kneeDb);
    out.I32(record.outputMode);
    out.F32(record.reductionDb);
    out.F32(record.smoothingPercent);
    out.I32(record.tuningC);
    out.F32s(record.floorLevel, C);
    for (std::size_t c = 0; c < C; ++c)
        out.F64s(record.floorRows[c], N);
    for (std::size_t c = 0; c < C; ++c)
        out.F32s(record.thresholdRows[c], N);
}

NoHissPtr DecodeNoHiss(ByteReader& in, int channels, int fftSize, int sampleRate, const std::string& path) {
    const std::size_t C = std::size_t(channels), N = std::size_t(fftSize);
    NoHissPtr record = MakeNoHiss(channels, fftSize, sampleRate);
    NOHISS& r = *record;
    r.tuningA = in.F32();
    const int32_t recordFft = in.I32();
    r.tuningB = in.I32();
    r.overlap = in.I16();
    const int32_t recordRate = in.I32();
    const int32_t recordChannels = in.I32();
    r.frameCount = in.I16();
    r.kneeDb = in.F32();
    r.outputMode = in.I32();
    r.reductionDb = in.F32();
    r.smoothingPercent = in.F32();
    r.tuningC = in.I32();
    const PrintValueCheck check(path);
    if (recordFft != int32_t(N) || recordChannels != int32_t(C) || recordRate != sampleRate ||
        !dsp::OverlapSave::IsValidOverlap(int(N), r.overlap))
        check.Fail("its record does not agree with its header");
    in.F32s(r.floorLevel, C);
    for (std::size_t c = 0; c < C; ++c)
        in.F64s(r.floorRows[c], N);
    for (std::size_t c = 0; c < C; ++c)
        in.F32s(r.thresholdRows[c], N);

    // Bins 0 ... N/2 carry the floor; the rest of each row is never read.
    const std::size_t bins = N / 2 + 1;
    check.Setting("reductionDb", r.reductionDb, 0.0, 120.0);
    check.Setting("kneeDb", r.kneeDb, 0.0, 40.0);
    check.Setting("smoothingPercent", r.smoothingPercent, 0.0, 99.0);
    check.Setting("outputMode", r.outputMode, 1.0, 2.0);
    // A silent stretch measures -400 dB; no audio kesta reads comes near +1000 dB.
    check.Values("floorLevel", -1, r.floorLevel, C, -400.0, 1000.0, "a level in dB");
    check.Magnitudes("floorRows", r.floorRows, C, bins);
    check.Magnitudes("thresholdRows", r.thresholdRows, C, bins);
    return record;
}

}  // namespace kesta
