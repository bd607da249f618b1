// The noise print file format: the documented layout, exact round trips of both kinds of record,
// and a one-line refusal for every way a file can be wrong.

#include "noise_print_file.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <random>

#include "errors.h"

namespace kesta {
namespace {

using dsp::nohiss::NOHISS;
using dsp::nonoise::NONOISE;

// Arrays of random values, scalars unlike the defaults: a field dropped or swapped shows.
NoNoisePtr SampleNoNoise(int channels, int fftSize) {
    NoNoisePtr r = MakeNoNoise(channels, fftSize);
    std::mt19937_64 random(7);
    auto value = [&] { return std::bit_cast<double>(random() >> 2); };  // finite, any exponent
    r->thresholdOffset = 0.75;
    r->auxIndex = 3;
    r->maxSnapshots = 1234;
    r->overlap = 5;
    r->optionInt = -77;
    r->frameCount = 321;
    r->transitionDb = 2.5;
    r->precisionExponent = 0.5;
    r->outputMode = 2;
    r->optionFlagA = true;
    r->optionFlagB = false;
    r->optionFlagC = true;
    r->reductionDb = 33.0;
    r->smoothingPercent = 12.0;
    r->printFlag = true;
    for (int c = 0; c < channels; ++c) {
        r->dcMin[c] = value();
        r->dcMax[c] = value();
        for (int k = 0; k < fftSize; ++k) {
            r->binMin[c][k] = value();
            r->binMax[c][k] = value();
            r->binRms[c][k] = value();
        }
    }
    for (int k = 0; k < fftSize; ++k)
        r->thresholdCurve[k] = float(k) * 0.25f - 3.0f;
    return r;
}

NoHissPtr SampleNoHiss(int channels, int fftSize, int rate) {
    NoHissPtr r = MakeNoHiss(channels, fftSize, rate);
    std::mt19937_64 random(11);
    r->tuningA = 1.5f;
    r->tuningB = -4;
    r->overlap = 4;
    r->frameCount = -2;  // the count wraps as an int16: kept as it is
    r->kneeDb = 3.25f;
    r->outputMode = 2;
    r->reductionDb = 18.0f;
    r->smoothingPercent = 40.0f;
    r->tuningC = 99;
    for (int c = 0; c < channels; ++c) {
        r->floorLevel[c] = -60.0f - float(c);
        for (int k = 0; k < fftSize; ++k) {
            r->floorRows[c][k] = std::bit_cast<double>(random() >> 2);
            r->thresholdRows[c][k] = float(random() % 100000) / 7.0f;
        }
    }
    return r;
}

uint16_t U16At(const std::string& b, std::size_t at) {
    return uint16_t(uint8_t(b[at]) | uint8_t(b[at + 1]) << 8);
}
uint32_t U32At(const std::string& b, std::size_t at) {
    return uint32_t(U16At(b, at)) | uint32_t(U16At(b, at + 2)) << 16;
}
uint64_t U64At(const std::string& b, std::size_t at) {
    return uint64_t(U32At(b, at)) | uint64_t(U32At(b, at + 4)) << 32;
}
void PutU16(std::string& b, std::size_t at, uint16_t v) {
    b[at] = char(v & 0xFF);
    b[at + 1] = char(v >> 8);
}
// Rewrites the trailing checksum, so a test can change a field and still pass the checksum.
void Reseal(std::string& b) {
    const uint32_t crc = Crc32(std::string_view(b).substr(8, b.size() - 12));
    for (int i = 0; i < 4; ++i)
        b[b.size() - 4 + std::size_t(i)] = char((crc >> (8 * i)) & 0xFF);
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

TEST(NoisePrintFileTest, Crc32IsTheStandardOne) {
    EXPECT_EQ(Crc32("123456789"), 0xCBF43926u);  // the catalogued check value of CRC-32/ISO-HDLC
    EXPECT_EQ(Crc32(""), 0u);
}

TEST(NoisePrintFileTest, LayoutIsTheDocumentedOne) {
    const NoNoisePtr record = SampleNoNoise(2, 64);
    const std::string b = EncodeNoisePrint(*record, 48000, {100, 5000});
    EXPECT_EQ(b.substr(0, 8), "KESTA-NP");
    EXPECT_EQ(U16At(b, 8), 1);   // version
    EXPECT_EQ(U16At(b, 10), 1);  // noise print
    EXPECT_EQ(U32At(b, 12), 48000u);
    EXPECT_EQ(U32At(b, 16), 2u);
    EXPECT_EQ(U32At(b, 20), 64u);
    const uint64_t payload = 16 + 64 + 16 * 2 + 24 * 2 * 64 + 4 * 64;
    EXPECT_EQ(U64At(b, 24), payload);
    ASSERT_EQ(b.size(), 32 + payload + 4);
    EXPECT_EQ(U64At(b, 32), 100u);
    EXPECT_EQ(U64At(b, 40), 5000u);
    EXPECT_EQ(U64At(b, 48), std::bit_cast<uint64_t>(0.75));  // thresholdOffset, the first field
    EXPECT_EQ(U64At(b, 48 + 64 + 16 * 2), std::bit_cast<uint64_t>(record->binMin[0][0]));
    EXPECT_EQ(U32At(b, b.size() - 4), Crc32(std::string_view(b).substr(8, b.size() - 12)));

    const NoHissPtr hiss = SampleNoHiss(3, 32, 96000);
    const std::string h = EncodeHissFloor(*hiss, {});
    EXPECT_EQ(U16At(h, 10), 2);  // hiss floor
    EXPECT_EQ(U32At(h, 12), 96000u);
    EXPECT_EQ(U64At(h, 24), uint64_t(16 + 44 + 4 * 3 + 12 * 3 * 32));
}

TEST(NoisePrintFileTest, BothKindsRoundTripExactly) {
    const NoNoisePtr noise = SampleNoNoise(3, 128);
    const PrintFile n = DecodePrintFile(EncodeNoisePrint(*noise, 44100, {7, 8}), "n.knp");
    ASSERT_EQ(n.kind, PrintKind::NoisePrint);
    ASSERT_TRUE(n.noise);
    EXPECT_FALSE(n.hiss);
    EXPECT_EQ(n.sampleRate, 44100);
    EXPECT_EQ(n.channels, 3);
    EXPECT_EQ(n.fftSize, 128);
    EXPECT_EQ(n.span.start, 7);
    EXPECT_EQ(n.span.frames, 8);
    const NONOISE& a = *noise;
    const NONOISE& b = *n.noise;
    EXPECT_EQ(b.thresholdOffset, a.thresholdOffset);
    EXPECT_EQ(b.auxIndex, a.auxIndex);
    EXPECT_EQ(b.fftSize, a.fftSize);
    EXPECT_EQ(b.maxSnapshots, a.maxSnapshots);
    EXPECT_EQ(b.overlap, a.overlap);
    EXPECT_EQ(b.optionInt, a.optionInt);
    EXPECT_EQ(b.channels, a.channels);
    EXPECT_EQ(b.frameCount, a.frameCount);
    EXPECT_EQ(b.transitionDb, a.transitionDb);
    EXPECT_EQ(b.precisionExponent, a.precisionExponent);
    EXPECT_EQ(b.outputMode, a.outputMode);
    EXPECT_EQ(b.optionFlagA, a.optionFlagA);
    EXPECT_EQ(b.optionFlagB, a.optionFlagB);
    EXPECT_EQ(b.optionFlagC, a.optionFlagC);
    EXPECT_EQ(b.reductionDb, a.reductionDb);
    EXPECT_EQ(b.smoothingPercent, a.smoothingPercent);
    EXPECT_EQ(b.printFlag, a.printFlag);
    for (int c = 0; c < 3; ++c) {
        EXPECT_EQ(b.dcMin[c], a.dcMin[c]);
        EXPECT_EQ(b.dcMax[c], a.dcMax[c]);
        EXPECT_EQ(0, std::memcmp(b.binMin[c], a.binMin[c], 128 * sizeof(double)));
        EXPECT_EQ(0, std::memcmp(b.binMax[c], a.binMax[c], 128 * sizeof(double)));
        EXPECT_EQ(0, std::memcmp(b.binRms[c], a.binRms[c], 128 * sizeof(double)));
    }
    EXPECT_EQ(0, std::memcmp(b.thresholdCurve, a.thresholdCurve, 128 * sizeof(float)));

    const NoHissPtr hiss = SampleNoHiss(1, 256, 22050);
    const PrintFile h = DecodePrintFile(EncodeHissFloor(*hiss, {0, 22050}), "h.khf");
    ASSERT_EQ(h.kind, PrintKind::HissFloor);
    ASSERT_TRUE(h.hiss);
    const NOHISS& x = *hiss;
    const NOHISS& y = *h.hiss;
    EXPECT_EQ(h.sampleRate, 22050);
    EXPECT_EQ(y.tuningA, x.tuningA);
    EXPECT_EQ(y.fftSize, x.fftSize);
    EXPECT_EQ(y.tuningB, x.tuningB);
    EXPECT_EQ(y.overlap, x.overlap);
    EXPECT_EQ(y.sampleRate, x.sampleRate);
    EXPECT_EQ(y.channels, x.channels);
    EXPECT_EQ(y.frameCount, x.frameCount);
    EXPECT_EQ(y.kneeDb, x.kneeDb);
    EXPECT_EQ(y.outputMode, x.outputMode);
    EXPECT_EQ(y.reductionDb, x.reductionDb);
    EXPECT_EQ(y.smoothingPercent, x.smoothingPercent);
    EXPECT_EQ(y.tuningC, x.tuningC);
    EXPECT_EQ(y.floorLevel[0], x.floorLevel[0]);
    EXPECT_EQ(0, std::memcmp(y.floorRows[0], x.floorRows[0], 256 * sizeof(double)));
    EXPECT_EQ(0, std::memcmp(y.thresholdRows[0], x.thresholdRows[0], 256 * sizeof(float)));
}

TEST(NoisePrintFileTest, DamagedOrForeignFilesAreRefusedInOneLine) {
    const std::string good = EncodeNoisePrint(*SampleNoNoise(2, 64), 44100, {0, 1000});
    ASSERT_EQ(Refusal(good), "");

    int code = 0;
    EXPECT_NE(Refusal("RIFF....WAVEfmt and the rest of an audio file", &code).find("not a kesta noise print"),
              std::string::npos);
    EXPECT_EQ(code, 3);
    EXPECT_NE(Refusal("").find("empty"), std::string::npos);

    // Truncated anywhere: inside the magic, the header, the payload, the checksum.
    for (std::size_t length : {std::size_t(5), std::size_t(20), std::size_t(200), good.size() - 1}) {
        SCOPED_TRACE(length);
        EXPECT_NE(Refusal(good.substr(0, length)).find("truncated"), std::string::npos);
    }
    EXPECT_NE(Refusal(good + "x").find("1 bytes after its end"), std::string::npos);

    // One flipped bit in the header's fields, the payload or the checksum itself.
    for (std::size_t at : {std::size_t(14), std::size_t(17), std::size_t(60), good.size() / 2, good.size() - 1}) {
        SCOPED_TRACE(at);
        std::string bad = good;
        bad[at] ^= 0x04;
        EXPECT_NE(Refusal(bad).find("checksum does not match"), std::string::npos) << Refusal(bad);
    }

    // Fields that pass the checksum but are not ones this kesta reads.
    std::string newer = good;
    PutU16(newer, 8, 2);
    Reseal(newer);
    EXPECT_NE(Refusal(newer).find("format version 2, newer than the version 1"), std::string::npos);
    std::string zero = good;
    PutU16(zero, 8, 0);
    EXPECT_NE(Refusal(zero).find("unknown format version 0"), std::string::npos);  // before the checksum
    std::string kind = good;
    PutU16(kind, 10, 9);
    Reseal(kind);
    EXPECT_NE(Refusal(kind).find("kind of print this kesta does not know (kind 9)"), std::string::npos);
    std::string fft = good;
    fft[20] = 48;  // 48 is no power of two
    Reseal(fft);
    EXPECT_NE(Refusal(fft).find("header is inconsistent"), std::string::npos);
    std::string record = good;
    PutU16(record, 32 + 16 + 8 + 2, 128);  // the record's fftSize against the header's 64
    Reseal(record);
    EXPECT_NE(Refusal(record).find("record does not agree"), std::string::npos);

    for (const std::string& bytes : {newer, zero, kind, fft, record}) {
        const std::string message = Refusal(bytes, &code);
        EXPECT_EQ(code, 3);
        EXPECT_EQ(message.find('\n'), std::string::npos);
        EXPECT_EQ(message.rfind("cannot use 'p.knp' as a noise print: ", 0), 0u) << message;
    }
}

TEST(NoisePrintFileTest, APrintMustFitTheAudio) {
    const PrintFile print = DecodePrintFile(EncodeNoisePrint(*SampleNoNoise(2, 64), 44100, {}), "p.knp");
    auto refusal = [&](PrintKind kind, int channels, int rate, int fft) -> std::string {
        try {
            CheckPrintMatches(print, "p.knp", kind, channels, rate, fft, "in.wav");
        } catch (const CliError& error) {
            EXPECT_EQ(error.Code(), 2);
            return error.Message();
        }
        return "";
    };
    EXPECT_EQ(refusal(PrintKind::NoisePrint, 2, 44100, 0), "");
    EXPECT_EQ(refusal(PrintKind::NoisePrint, 2, 44100, 64), "");
    EXPECT_NE(refusal(PrintKind::HissFloor, 2, 44100, 0).find("noise print, not a hiss floor"), std::string::npos);
    EXPECT_NE(refusal(PrintKind::NoisePrint, 6, 44100, 0).find("'in.wav' has 6"), std::string::npos);
    EXPECT_NE(refusal(PrintKind::NoisePrint, 2, 44100, 4096).find("FFT size 64, not the 4096"), std::string::npos);
    EXPECT_NE(refusal(PrintKind::NoisePrint, 2, 48000, 0).find("taken at 44100 Hz"), std::string::npos);
}

}  // namespace
}  // namespace kesta
