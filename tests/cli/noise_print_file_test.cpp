// The noise print file format: the documented layout, round trips of every kind, and a one-line
// refusal for every way a file can be wrong. That a saved print of either kind reproduces a run
// bit for bit, and that a print must fit the audio, is checked end to end, in denoise_test.

#include "prints/noise_print_file.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <functional>
#include <tuple>

#include "errors.h"

namespace kesta {
namespace {

using dsp::nohiss::NOHISS;
using dsp::nonoise::NONOISE;

// A default record but for distinct statistics, so a misplaced row or bin shows.
std::string SamplePrint(int channels, int fftSize, int rate, PrintSpan span) {
    NoNoisePtr r = MakeNoNoise(channels, fftSize);
    r->thresholdOffset = 0.75;
    for (int c = 0; c < channels; ++c)
        for (int k = 0; k < fftSize; ++k) {
            r->binMin[c][k] = 1.0 + c * 1000 + k;
            r->binRms[c][k] = 2.0 * r->binMin[c][k];
            r->binMax[c][k] = 3.0 * r->binMin[c][k];
        }
    return EncodeNoisePrint(*r, rate, span);
}

// A noise dictionary of `atoms` atoms with distinct entries (channel c, atom a, bin k holds
// c·10000 + a·1000 + k + 1), so a misplaced row or bin shows.
DnzPtr SampleDictionary(int channels, int fftSize, int atoms) {
    DnzPtr r = MakeDnz(channels, fftSize, atoms);
    r->frameCount = 12;
    const int bins = fftSize / 2 + 1;
    for (int c = 0; c < channels; ++c) {
        r->noiseCeiling[c] = float(c + 1);
        for (int a = 0; a < atoms; ++a)
            for (int k = 0; k < bins; ++k)
                r->noiseDictionary[c][a * bins + k] = float(c * 10000 + a * 1000 + k + 1);
    }
    return r;
}

// The little-endian integer of `bytes` bytes at `at`, and writing one.
uint64_t Le(const std::string& b, std::size_t at, int bytes) {
    uint64_t v = 0;
    for (int k = bytes - 1; k >= 0; --k)
        v = v << 8 | uint8_t(b[at + std::size_t(k)]);
    return v;
}
void PutLe(std::string& b, std::size_t at, int bytes, uint64_t v) {
    for (int k = 0; k < bytes; ++k)
        b[at + std::size_t(k)] = char(v >> (8 * k) & 0xFF);
}
uint32_t Checksum(const std::string& b) {
    return Crc32(std::string_view(b).substr(8, b.size() - 12));
}

// The decoding refusal's message, or "" when the bytes decode.
std::string Refusal(const std::string& bytes, int* code = nullptr) {
    try {
        DecodePrintFile(bytes, "p.knp");
    } catch (const CliError& error) {
        if (code) *code = error.Code();
        return error.Message();
    }
    return "";
}

// Each file is refused with exit status 3 in one line that names it and says what is wrong
// (`expected`), ending in `hint` when one is given.
void ExpectRefusedInOneLine(const std::vector<std::pair<std::string, std::string>>& cases,
                            const std::string& hint = "") {
    for (const auto& [bytes, expected] : cases) {
        SCOPED_TRACE(expected);
        int code = 0;
        const std::string message = Refusal(bytes, &code);
        EXPECT_EQ(code, 3);
        EXPECT_NE(message.find(expected), std::string::npos) << message;
        EXPECT_EQ(message.find('\n'), std::string::npos);
        EXPECT_EQ(message.rfind("cannot use 'p.knp' as a noise print: ", 0), 0u) << message;
        if (!hint.empty()) {
            EXPECT_TRUE(message.ends_with(hint)) << message;
        }
    }
}

TEST(NoisePrintFileTest, LayoutIsTheDocumentedOneAndRoundTrips) {
    EXPECT_EQ(Crc32("123456789"), 0xCBF43926u);  // the catalogued check value of CRC-32/ISO-HDLC
    const std::string b = SamplePrint(2, 64, 48000, {100, 5000});
    EXPECT_EQ(b.substr(0, 8), "KESTA-NP");
    const uint64_t payload = 16 + 64 + 16 * 2 + 24 * 2 * 64 + 4 * 64;
    // version 1, kind 1 (noise print), rate, channels, FFT size, payload bytes, span start and length
    const std::pair<int, uint64_t> header[] = {{2, 1},  {2, 1},       {4, 48000}, {4, 2},
                                               {4, 64}, {8, payload}, {8, 100},   {8, 5000}};
    std::size_t at = 8;
    for (const auto& [bytes, value] : header) {
        EXPECT_EQ(Le(b, at, bytes), value) << "at " << at;
        at += std::size_t(bytes);
    }
    ASSERT_EQ(b.size(), 32 + payload + 4);
    EXPECT_EQ(Le(b, 48, 8), std::bit_cast<uint64_t>(0.75));  // thresholdOffset, the first field
    // binMin[1][5]: after the scalars, dcMin, dcMax and binMin[0]
    EXPECT_EQ(Le(b, 48 + 64 + 16 * 2 + 8 * (64 + 5), 8), std::bit_cast<uint64_t>(1006.0));
    EXPECT_EQ(Le(b, b.size() - 4, 4), Checksum(b));
    const PrintFile n = DecodePrintFile(b, "n.knp");
    ASSERT_TRUE(n.noise);
    EXPECT_EQ(std::tuple(n.kind, n.sampleRate, n.channels, n.fftSize), std::tuple(PrintKind::NoisePrint, 48000, 2, 64));
    EXPECT_TRUE(EncodeNoisePrint(*n.noise, n.sampleRate, n.span) == b);

    const std::string h = EncodeHissFloor(*MakeNoHiss(3, 32, 96000), {});
    EXPECT_EQ(Le(h, 10, 2), 2u);  // hiss floor
    EXPECT_EQ(Le(h, 12, 4), 96000u);
    EXPECT_EQ(Le(h, 24, 8), uint64_t(16 + 44 + 4 * 3 + 12 * 3 * 32));
    const PrintFile f = DecodePrintFile(h, "h.khf");
    ASSERT_TRUE(f.hiss);
    EXPECT_TRUE(EncodeHissFloor(*f.hiss, f.span) == h);

    // A noise dictionary: the atom count follows from the payload's length.
    const std::string d = EncodeNoiseDictionary(*SampleDictionary(2, 256, 3), 22050, {7, 9000});
    const uint64_t bins = 129, dictionaryPayload = 16 + 52 + 4 * 2 + 4 * 2 * 3 * bins;
    EXPECT_EQ(Le(d, 10, 2), 3u);
    EXPECT_EQ(Le(d, 24, 8), dictionaryPayload);
    ASSERT_EQ(d.size(), 32 + dictionaryPayload + 4);
    EXPECT_EQ(Le(d, 48 + 4, 2), 3u);  // noiseAtoms, after fftSize and channels
    // noiseDictionary[1], atom 2, bin 5: after the scalars, the ceilings and channel 0's atoms
    EXPECT_EQ(Le(d, 48 + 52 + 8 + 4 * (3 * bins + 2 * bins + 5), 4), std::bit_cast<uint32_t>(12006.0f));
    const PrintFile g = DecodePrintFile(d, "d.knd");
    ASSERT_TRUE(g.dictionary);
    EXPECT_EQ(std::tuple(g.kind, g.sampleRate, g.channels, g.fftSize, g.dictionary->noiseAtoms),
              std::tuple(PrintKind::NoiseDictionary, 22050, 2, 256, int16_t(3)));
    EXPECT_TRUE(EncodeNoiseDictionary(*g.dictionary, g.sampleRate, g.span) == d);
}

// The field codec under every print kind: two's complement and IEEE bit patterns kept exactly, and a
// read that would cross the end refused before it reads anything.
TEST(NoisePrintFileTest, FieldCodecKeepsBitsAndStopsAtTheEnd) {
    ByteWriter out;
    out.I16(-2);
    out.I64(INT64_MIN);
    out.F32(-0.0f);
    out.F64(std::nan("1"));
    out.Bool(true);
    const std::string b = out.Take();
    ASSERT_EQ(b.size(), 2u + 8 + 4 + 8 + 1);
    EXPECT_EQ(b.substr(0, 2), std::string("\xFE\xFF", 2));
    EXPECT_EQ(Le(b, 2, 8), uint64_t(1) << 63);
    EXPECT_EQ(Le(b, 10, 4), 0x80000000u);

    ByteReader in(b, 0);
    EXPECT_EQ(in.I16(), -2);
    EXPECT_EQ(in.I64(), INT64_MIN);
    EXPECT_EQ(std::bit_cast<uint32_t>(in.F32()), 0x80000000u);
    EXPECT_TRUE(std::isnan(in.F64()));
    EXPECT_TRUE(in.Bool());
    EXPECT_THROW(in.U8(), ByteOverrun);
    ByteReader late(b, b.size() - 3);
    EXPECT_THROW(late.U32(), ByteOverrun);
    EXPECT_EQ(late.Offset(), b.size() - 3);
    EXPECT_THROW(ByteReader(b, b.size() + 5).U8(), ByteOverrun);
}

TEST(NoisePrintFileTest, DamagedOrForeignFilesAreRefusedInOneLine) {
    const std::string good = SamplePrint(2, 64, 44100, {0, 1000});
    ASSERT_EQ(Refusal(good), "");
    std::vector<std::pair<std::string, std::string>> cases = {
        {"RIFF....WAVEfmt and the rest of an audio file", "not a kesta noise print"},
        {"", "empty"},
        {good + "x", "1 bytes after its end"},
    };
    // Truncated inside the magic, the header, the checksum.
    for (const std::size_t length : {std::size_t(5), std::size_t(20), good.size() - 1})
        cases.push_back({good.substr(0, length), "truncated"});
    // One flipped bit in a header field, the payload or the checksum itself.
    for (const std::size_t at : {std::size_t(14), good.size() / 2, good.size() - 1}) {
        cases.push_back({good, "checksum does not match"});
        cases.back().first[at] ^= 0x04;
    }
    // Fields that are not ones this kesta reads, all but the zero version with a valid checksum.
    const std::tuple<std::size_t, uint16_t, std::string> fields[] = {
        {8, 2, "format version 2, newer than the version 1"},
        {8, 0, "unknown format version 0"},  // found before the checksum
        {10, 9, "kind of print this kesta does not know (kind 9)"},
        {20, 48, "header is inconsistent"},               // an FFT size of 48 is no power of two
        {32 + 16 + 8 + 2, 128, "record does not agree"},  // the record's fftSize against the header's 64
    };
    for (const auto& [at, value, message] : fields) {
        std::string bad = good;
        PutLe(bad, at, 2, value);
        if (value != 0) PutLe(bad, bad.size() - 4, 4, Checksum(bad));
        cases.push_back({bad, message});
    }
    // A noise dictionary whose record names another atom count than its length holds, and one cut
    // short by part of an atom with its header and checksum made to match.
    const std::string dictionary = EncodeNoiseDictionary(*SampleDictionary(1, 256, 2), 44100, {});
    std::string atoms = dictionary;
    PutLe(atoms, 48 + 4, 2, 3);
    PutLe(atoms, atoms.size() - 4, 4, Checksum(atoms));
    cases.push_back({atoms, "record does not agree"});
    std::string partial = dictionary.substr(0, dictionary.size() - 4 - 8);
    PutLe(partial, 24, 8, Le(partial, 24, 8) - 8);
    partial += std::string(4, '\0');
    PutLe(partial, partial.size() - 4, 4, Checksum(partial));
    cases.push_back({partial, "header is inconsistent"});
    ExpectRefusedInOneLine(cases);
}

// A print edited by another program with its checksum recomputed: every value a reading run uses
// is checked, and one outside its range (NaN and infinities included) refuses the file.
TEST(NoisePrintFileTest, EditedValuesOutsideTheirRangesAreRefusedInOneLine) {
    const double nan = std::nan(""), inf = HUGE_VAL;
    using Edit = std::function<void(NONOISE&, PrintSpan&)>;
    const std::pair<Edit, std::string> noiseEdits[] = {
        {[&](NONOISE& r, PrintSpan&) { r.binMin[1][7] = nan; }, "binMin of channel 2 holds nan at entry 7"},
        {[&](NONOISE& r, PrintSpan&) { r.binMin[0][0] = -1.0; }, "binMin of channel 1 holds -1 at entry 0"},
        {[&](NONOISE& r, PrintSpan&) { r.binMax[0][32] = inf; }, "binMax of channel 1 holds inf at entry 32"},
        {[&](NONOISE& r, PrintSpan&) { r.binRms[1][3] = 1e300; }, "binRms of channel 2 holds 1e+300"},
        {[&](NONOISE& r, PrintSpan&) { r.dcMax[1] = -0.5; }, "dcMax holds -0.5"},
        // A maximum far below the bin's minimum and RMS made the gain rule overflow to NaN.
        {[&](NONOISE& r, PrintSpan&) {
             r.binMin[1][5] = 0.001;
             r.binRms[1][5] = 0.002;
             r.binMax[1][5] = 7e-312;
         },
         "statistics of channel 2 at entry 5 are out of order"},
        {[&](NONOISE& r, PrintSpan&) {
             r.binRms[0][9] = 0.5;
             r.binMax[0][9] = 0.4;
         },
         "binRms 0.5, binMax 0.4"},
        {[&](NONOISE& r, PrintSpan&) { r.thresholdCurve[5] = float(nan); }, "thresholdCurve holds nan"},
        {[&](NONOISE& r, PrintSpan&) { r.thresholdOffset = -inf; }, "thresholdOffset is -inf"},
        {[&](NONOISE& r, PrintSpan&) { r.precisionExponent = -1.0; }, "precisionExponent is -1"},
        {[&](NONOISE& r, PrintSpan&) { r.reductionDb = nan; }, "reductionDb is nan, outside 0 ... 120"},
        {[&](NONOISE& r, PrintSpan&) { r.smoothingPercent = 100.0; }, "smoothingPercent is 100"},
        {[&](NONOISE& r, PrintSpan&) { r.transitionDb = -3.0; }, "transitionDb is -3"},
        {[&](NONOISE&, PrintSpan& s) {
             s = {INT64_MAX, 1};
         },
         "stretch (frame 9223372036854775807, 1 frames)"},
        {[&](NONOISE&, PrintSpan& s) {
             s = {-1, 100};
         },
         "stretch (frame -1, 100 frames)"},
        {[&](NONOISE&, PrintSpan& s) {
             s = {0, -100};
         },
         "stretch (frame 0, -100 frames)"},
    };
    std::vector<std::pair<std::string, std::string>> cases;
    for (const auto& [edit, expected] : noiseEdits) {
        NoNoisePtr r = MakeNoNoise(2, 64);
        PrintSpan span{10, 1000};
        edit(*r, span);
        cases.push_back({EncodeNoisePrint(*r, 44100, span), expected});
    }
    using HissEdit = std::function<void(NOHISS&)>;
    const std::pair<HissEdit, std::string> hissEdits[] = {
        {[&](NOHISS& r) { r.floorRows[2][9] = nan; }, "floorRows of channel 3 holds nan at entry 9"},
        {[&](NOHISS& r) { r.floorRows[0][4] = -1.0; }, "floorRows of channel 1 holds -1"},
        {[&](NOHISS& r) { r.thresholdRows[1][4] = float(inf); }, "thresholdRows of channel 2 holds inf"},
        {[&](NOHISS& r) { r.floorLevel[0] = float(nan); }, "floorLevel holds nan"},
        {[&](NOHISS& r) { r.kneeDb = 41.0f; }, "kneeDb is 41, outside 0 ... 40"},
        {[&](NOHISS& r) { r.reductionDb = float(-inf); }, "reductionDb is -inf"},
    };
    for (const auto& [edit, expected] : hissEdits) {
        NoHissPtr r = MakeNoHiss(3, 32, 48000);
        edit(*r);
        cases.push_back({EncodeHissFloor(*r, {}), expected});
    }
    using DnzEdit = std::function<void(dsp::dnz::DNZ&)>;
    const std::pair<DnzEdit, std::string> dictionaryEdits[] = {
        {[&](dsp::dnz::DNZ& r) { r.noiseDictionary[1][200] = float(nan); },
         "noiseDictionary of channel 2 holds nan at entry 200"},
        {[&](dsp::dnz::DNZ& r) { r.noiseDictionary[0][3] = -1.0f; }, "noiseDictionary of channel 1 holds -1"},
        {[&](dsp::dnz::DNZ& r) { r.noiseCeiling[1] = float(inf); }, "noiseCeiling holds inf"},
        {[&](dsp::dnz::DNZ& r) { r.frameCount = 0; }, "frameCount is 0"},
        {[&](dsp::dnz::DNZ& r) { r.smoothingPercent = 100.0; }, "smoothingPercent is 100"},
        {[&](dsp::dnz::DNZ& r) { r.signalAtoms = 0; }, "record does not agree"},
    };
    for (const auto& [edit, expected] : dictionaryEdits) {
        DnzPtr r = SampleDictionary(2, 256, 2);
        edit(*r);
        cases.push_back({EncodeNoiseDictionary(*r, 44100, {}), expected});
    }
    ExpectRefusedInOneLine(cases, "(the file is damaged; save the print again)");
    // The ends of each range are accepted: a silent stretch's floor, a span ending at the last frame.
    NoNoisePtr edge = MakeNoNoise(1, 32);
    edge->reductionDb = 120.0;
    edge->smoothingPercent = 99.0;
    edge->binMax[0][1] = 1e30;
    EXPECT_EQ(Refusal(EncodeNoisePrint(*edge, 8000, {INT64_MAX - 5, 5})), "");
    NoHissPtr silent = MakeNoHiss(1, 32, 8000);
    silent->floorLevel[0] = -400.0f;
    EXPECT_EQ(Refusal(EncodeHissFloor(*silent, {})), "");
}

}  // namespace
}  // namespace kesta
