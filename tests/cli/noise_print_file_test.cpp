// The noise print file format: the documented layout, exact round trips of both kinds, and a
// one-line refusal for every way a file can be wrong.

#include "noise_print_file.h"

#include <gtest/gtest.h>

#include <bit>
#include <random>

#include "errors.h"

namespace kesta {
namespace {

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
// Rewrites the trailing checksum, so a changed field still passes it.
void Reseal(std::string& b) {
    PutLe(b, b.size() - 4, 4, Checksum(b));
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
    EXPECT_EQ(Le(b, 48 + 64 + 16 * 2, 8), std::bit_cast<uint64_t>(record->binMin[0][0]));
    EXPECT_EQ(Le(b, b.size() - 4, 4), Checksum(b));

    const NoHissPtr hiss = SampleNoHiss(3, 32, 96000);
    const std::string h = EncodeHissFloor(*hiss, {});
    EXPECT_EQ(Le(h, 10, 2), 2u);  // hiss floor
    EXPECT_EQ(Le(h, 12, 4), 96000u);
    EXPECT_EQ(Le(h, 24, 8), uint64_t(16 + 44 + 4 * 3 + 12 * 3 * 32));
}

TEST(NoisePrintFileTest, BothKindsRoundTripExactly) {
    // Every field of the samples differs from its default: one dropped or swapped on either side
    // changes the bytes encoded again from what was decoded.
    const std::string noise = EncodeNoisePrint(*SampleNoNoise(3, 128), 44100, {7, 8});
    const PrintFile n = DecodePrintFile(noise, "n.knp");
    ASSERT_EQ(n.kind, PrintKind::NoisePrint);
    ASSERT_TRUE(n.noise);
    EXPECT_FALSE(n.hiss);
    EXPECT_EQ(n.sampleRate, 44100);
    EXPECT_EQ(n.channels, 3);
    EXPECT_EQ(n.fftSize, 128);
    EXPECT_EQ(n.span.start, 7);
    EXPECT_EQ(n.span.frames, 8);
    EXPECT_TRUE(EncodeNoisePrint(*n.noise, n.sampleRate, n.span) == noise);

    const std::string hiss = EncodeHissFloor(*SampleNoHiss(1, 256, 22050), {0, 22050});
    const PrintFile h = DecodePrintFile(hiss, "h.khf");
    ASSERT_EQ(h.kind, PrintKind::HissFloor);
    ASSERT_TRUE(h.hiss);
    EXPECT_EQ(h.sampleRate, 22050);
    EXPECT_TRUE(EncodeHissFloor(*h.hiss, h.span) == hiss);
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

    // Fields that are not ones this kesta reads, all but the zero version with a valid checksum.
    const struct {
        std::size_t at;
        uint16_t value;
        std::string message;
    } fields[] = {
        {8, 2, "format version 2, newer than the version 1"},
        {8, 0, "unknown format version 0"},  // found before the checksum
        {10, 9, "kind of print this kesta does not know (kind 9)"},
        {20, 48, "header is inconsistent"},               // an FFT size of 48 is no power of two
        {32 + 16 + 8 + 2, 128, "record does not agree"},  // the record's fftSize against the header's 64
    };
    for (const auto& field : fields) {
        SCOPED_TRACE(field.message);
        std::string bad = good;
        PutLe(bad, field.at, 2, field.value);
        if (field.value != 0) Reseal(bad);
        const std::string message = Refusal(bad, &code);
        EXPECT_EQ(code, 3);
        EXPECT_NE(message.find(field.message), std::string::npos) << message;
        EXPECT_EQ(message.find('\n'), std::string::npos);
        EXPECT_EQ(message.rfind("cannot use 'p.knp' as a noise print: ", 0), 0u) << message;
    }
}

TEST(NoisePrintFileTest, APrintMustFitTheSampleRate) {  // kind, channels, FFT size: in denoise_test
    const PrintFile print = DecodePrintFile(EncodeNoisePrint(*SampleNoNoise(2, 64), 44100, {}), "p.knp");
    EXPECT_NO_THROW(CheckPrintMatches(print, "p.knp", PrintKind::NoisePrint, 2, 44100, 0, "in.wav"));
    try {
        CheckPrintMatches(print, "p.knp", PrintKind::NoisePrint, 2, 48000, 0, "in.wav");
        ADD_FAILURE() << "a print taken at another sample rate was accepted";
    } catch (const CliError& error) {
        EXPECT_EQ(error.Code(), 2);
        EXPECT_NE(error.Message().find("taken at 44100 Hz"), std::string::npos) << error.Message();
    }
}

}  // namespace
}  // namespace kesta
