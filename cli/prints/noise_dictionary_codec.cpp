#include "noise_dictionary_codec.h"

#include "print_checks.h"

namespace kesta {

namespace {

using dsp::dnz::DNZ;

constexpr uint64_t kScalarBytes = 52;

// The record's fields in file order, each handed to `field` (a scalar, or an array and its
// length): the encoder and the decoder walk this one list.
template <class Record, class Field>
void NoiseDictionaryFields(Record& r, std::size_t C, std::size_t floats, Field field) {
    field(r.fftSize);
    field(r.channels);
    field(r.noiseAtoms);
    field(r.signalAtoms);
    field(r.maxFrames);
    field(r.learnIterations);
    field(r.iterations);
    field(r.frameCount);
    field(r.outputMode);
    field(r.reductionDb);
    field(r.smoothingPercent);
    field(r.signalMemory);
    field(r.noiseHeadroom);
    field(r.noiseCeiling, C);
    for (std::size_t c = 0; c < C; ++c)
        field(r.noiseDictionary[c], floats);
}

std::size_t DictionaryFloats(const DNZ& r) {
    return std::size_t(r.noiseAtoms) * std::size_t(r.fftSize / 2 + 1);
}

}  // namespace

uint64_t NoiseDictionaryRecordBytes(uint64_t C, uint64_t N, uint64_t atoms) {
    return kScalarBytes + 4 * C + 4 * C * atoms * (N / 2 + 1);
}

int AtomsForRecordBytes(uint64_t C, uint64_t N, uint64_t recordBytes) {
    const uint64_t fixed = kScalarBytes + 4 * C, perAtom = 4 * C * (N / 2 + 1);
    if (recordBytes <= fixed || perAtom == 0 || (recordBytes - fixed) % perAtom != 0) return 0;
    const uint64_t atoms = (recordBytes - fixed) / perAtom;
    return atoms <= uint64_t(dsp::dnz::kMaxAtoms) ? int(atoms) : 0;
}

void EncodeNoiseDictionary(ByteWriter& out, const DNZ& record) {
    NoiseDictionaryFields(record, std::size_t(record.channels), DictionaryFloats(record),
                          [&out](const auto&... field) { out.Field(field...); });
}

DnzPtr DecodeNoiseDictionary(ByteReader& in, int channels, int fftSize, int atoms, const std::string& path) {
    const PrintValueCheck check(path);
    const std::size_t C = std::size_t(channels);
    DnzPtr record = MakeDnz(channels, fftSize, atoms);
    DNZ& r = *record;
    if (r.noiseDictionary == nullptr) check.Fail("its shape is not one the reducer takes");
    NoiseDictionaryFields(r, C, DictionaryFloats(r), [&in](auto&... field) { in.Field(field...); });
    // The arrays were read at the header's shape; the record's own copy of it must agree (and the
    // record keeps the header's, which its arrays were made for).
    const bool agrees = r.fftSize == int16_t(fftSize) && r.channels == int16_t(channels) && r.noiseAtoms == atoms;
    r.fftSize = int16_t(fftSize);
    r.channels = int16_t(channels);
    r.noiseAtoms = int16_t(atoms);
    if (!agrees || !dsp::dnz::IsValidShape(&r)) check.Fail("its record does not agree with its header");

    check.Setting("reductionDb", r.reductionDb, 0.0, 120.0);
    check.Setting("smoothingPercent", r.smoothingPercent, 0.0, 99.0);
    check.Setting("outputMode", r.outputMode, 1.0, 2.0);
    check.Setting("frameCount", r.frameCount, 1.0, 32767.0);
    check.Values("noiseCeiling", -1, r.noiseCeiling, C, 0.0, kLargestPrintMagnitude, "a magnitude");
    check.Magnitudes("noiseDictionary", r.noiseDictionary, C, DictionaryFloats(r));

    // Only the dictionary and its ceilings are the print; the reducer's own fields are today's.
    const int16_t frames = r.frameCount;
    dsp::dnz::SetDefaultParameter(&r);
    r.fftSize = int16_t(fftSize);
    r.channels = int16_t(channels);
    r.noiseAtoms = int16_t(atoms);
    r.frameCount = frames;
    return record;
}

}  // namespace kesta
