#include "hiss_floor_codec.h"

#include "print_checks.h"

namespace kesta {

using dsp::nohiss::NOHISS;

namespace {

// The record's fields in file order, each handed to `field` (a scalar, or an array and its
// length): the encoder and the decoder walk this one list.
template <class Record, class Field>
void NoHissFields(Record& r, std::size_t C, std::size_t N, Field field) {
    field(r.tuningA);
    field(r.fftSize);
    field(r.tuningB);
    field(r.overlap);
    field(r.sampleRate);
    field(r.channels);
    field(r.frameCount);
    field(r.kneeDb);
    field(r.outputMode);
    field(r.reductionDb);
    field(r.smoothingPercent);
    field(r.tuningC);
    field(r.floorLevel, C);
    for (std::size_t c = 0; c < C; ++c)
        field(r.floorRows[c], N);
    for (std::size_t c = 0; c < C; ++c)
        field(r.thresholdRows[c], N);
}

}  // namespace

uint64_t NoHissRecordBytes(uint64_t C, uint64_t N) {
    constexpr uint64_t kScalarBytes = 44;
    return kScalarBytes + 4 * C + 12 * C * N;
}

void EncodeNoHiss(ByteWriter& out, const NOHISS& record) {
    NoHissFields(record, std::size_t(record.channels), std::size_t(record.fftSize),
                 [&out](const auto&... field) { out.Field(field...); });
}

NoHissPtr DecodeNoHiss(ByteReader& in, int channels, int fftSize, int sampleRate, const std::string& path) {
    const std::size_t C = std::size_t(channels), N = std::size_t(fftSize);
    NoHissPtr record = MakeNoHiss(channels, fftSize, sampleRate);
    NOHISS& r = *record;
    NoHissFields(r, C, N, [&in](auto&... field) { in.Field(field...); });
    // The arrays were read at the header's shape; the record's own copy of it must agree.
    const bool agrees = r.fftSize == int32_t(N) && r.channels == int32_t(C) && r.sampleRate == sampleRate;
    r.fftSize = int32_t(N);
    r.channels = int32_t(C);
    r.sampleRate = sampleRate;
    const PrintValueCheck check(path);
    if (!agrees || !dsp::OverlapSave::IsValidOverlap(int(N), r.overlap))
        check.Fail("its record does not agree with its header");

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
