#pragma once
// Little-endian fixed-width fields, the building blocks of the files kesta keeps (noise prints,
// hiss floors): i16/i32/i64 two's complement, u16/u32/u64 unsigned, f32/f64 IEEE 754, u8 for a
// bool (0 or 1); and the CRC-32 that guards such a file.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kesta {

class ByteWriter {
public:
    void Raw(std::string_view bytes) { mBytes.append(bytes); }
    void U8(uint8_t v) { mBytes.push_back(char(v)); }
    void U16(uint16_t v) { Put(v, 2); }
    void U32(uint32_t v) { Put(v, 4); }
    void U64(uint64_t v) { Put(v, 8); }
    void I16(int16_t v) { U16(uint16_t(v)); }
    void I32(int32_t v) { U32(uint32_t(v)); }
    void I64(int64_t v) { U64(uint64_t(v)); }
    void F32(float v) { U32(std::bit_cast<uint32_t>(v)); }
    void F64(double v) { U64(std::bit_cast<uint64_t>(v)); }
    void Bool(bool v) { U8(v ? 1 : 0); }
    void F64s(const double* v, std::size_t n);
    void F32s(const float* v, std::size_t n);

    // A record field by its type (the field lists of the print codecs walk these, in both directions).
    void Field(int16_t v) { I16(v); }
    void Field(int32_t v) { I32(v); }
    void Field(float v) { F32(v); }
    void Field(double v) { F64(v); }
    void Field(bool v) { Bool(v); }
    void Field(const float* v, std::size_t n) { F32s(v, n); }
    void Field(const double* v, std::size_t n) { F64s(v, n); }

    const std::string& Bytes() const { return mBytes; }
    std::string Take() { return std::move(mBytes); }

private:
    void Put(uint64_t v, int bytes);
    std::string mBytes;
};

// A read past the end of a ByteReader's bytes. Decoders check a file's length against its header
// before reading its fields, so this stops a decoder's own mistake; nothing outside the bytes is read.
class ByteOverrun : public std::out_of_range {
public:
    using std::out_of_range::out_of_range;
};

// Fields of `bytes` from `offset` on; every read is checked against the end (ByteOverrun).
class ByteReader {
public:
    ByteReader(std::string_view bytes, std::size_t offset) : mBytes(bytes), mOffset(offset) {}

    uint8_t U8() { return uint8_t(Get(1)); }
    uint16_t U16() { return uint16_t(Get(2)); }
    uint32_t U32() { return uint32_t(Get(4)); }
    uint64_t U64() { return Get(8); }
    int16_t I16() { return int16_t(U16()); }
    int32_t I32() { return int32_t(U32()); }
    int64_t I64() { return int64_t(U64()); }
    float F32() { return std::bit_cast<float>(U32()); }
    double F64() { return std::bit_cast<double>(U64()); }
    bool Bool() { return U8() != 0; }
    void F64s(double* v, std::size_t n);
    void F32s(float* v, std::size_t n);

    // A record field by its type, as ByteWriter::Field wrote it.
    void Field(int16_t& v) { v = I16(); }
    void Field(int32_t& v) { v = I32(); }
    void Field(float& v) { v = F32(); }
    void Field(double& v) { v = F64(); }
    void Field(bool& v) { v = Bool(); }
    void Field(float* v, std::size_t n) { F32s(v, n); }
    void Field(double* v, std::size_t n) { F64s(v, n); }

    std::size_t Offset() const { return mOffset; }
    std::size_t Remaining() const { return mOffset <= mBytes.size() ? mBytes.size() - mOffset : 0; }

private:
    uint64_t Get(int bytes);
    std::string_view mBytes;
    std::size_t mOffset;
};

// CRC-32 (IEEE 802.3: reflected polynomial 0xEDB88320, initial value and final xor 0xFFFFFFFF) of
// `bytes`, as zlib's crc32(0, bytes, size).
uint32_t Crc32(std::string_view bytes);

}  // namespace kesta
