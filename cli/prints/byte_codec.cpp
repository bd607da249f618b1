#include "byte_codec.h"

#include <array>

namespace kesta {

namespace {

constexpr std::array<uint32_t, 256> MakeCrcTable() {
    std::array<uint32_t, 256> table{};
    for (uint32_t n = 0; n < 256; ++n) {
        uint32_t c = n;
        for (int k = 0; k < 8; ++k)
            c = (c & 1u) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        table[n] = c;
    }
    return table;
}
constexpr std::array<uint32_t, 256> kCrcTable = MakeCrcTable();

}  // namespace

void ByteWriter::Put(uint64_t v, int bytes) {
    for (int i = 0; i < bytes; ++i)
        mBytes.push_back(char((v >> (8 * i)) & 0xFF));
}

void ByteWriter::F64s(const double* v, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i)
        F64(v[i]);
}

void ByteWriter::F32s(const float* v, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i)
        F32(v[i]);
}

uint64_t ByteReader::Get(int bytes) {
    if (Remaining() < std::size_t(bytes))
        throw ByteOverrun("a field of " + std::to_string(bytes) + " bytes at offset " + std::to_string(mOffset) +
                          " lies beyond the " + std::to_string(mBytes.size()) + " bytes");
    uint64_t v = 0;
    for (int i = 0; i < bytes; ++i)
        v |= uint64_t(uint8_t(mBytes[mOffset + std::size_t(i)])) << (8 * i);
    mOffset += std::size_t(bytes);
    return v;
}

void ByteReader::F64s(double* v, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i)
        v[i] = F64();
}

void ByteReader::F32s(float* v, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i)
        v[i] = F32();
}

uint32_t Crc32(std::string_view bytes) {
    uint32_t c = 0xFFFFFFFFu;
    for (char byte : bytes)
        c = kCrcTable[(c ^ uint8_t(byte)) & 0xFFu] ^ (c >> 8);
    return c ^ 0xFFFFFFFFu;
}

}  // namespace kesta
