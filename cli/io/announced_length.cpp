#include "announced_length.h"

#include <sndfile.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>

namespace kesta {

namespace {

bool ReadAt(int fd, off_t offset, void* bytes, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t got = ::pread(fd, static_cast<char*>(bytes) + done, size - done, offset + off_t(done));
        if (got <= 0) return false;
        done += std::size_t(got);
    }
    return true;
}

uint64_t Little(const unsigned char* p, int bytes) {
    uint64_t value = 0;
    for (int i = bytes - 1; i >= 0; --i)
        value = value << 8 | p[i];
    return value;
}

uint64_t Big(const unsigned char* p, int bytes) {
    uint64_t value = 0;
    for (int i = 0; i < bytes; ++i)
        value = value << 8 | p[i];
    return value;
}

bool Is(const unsigned char* p, const char* id) {
    return std::memcmp(p, id, 4) == 0;
}

// Chunks are walked up to this many, so a damaged size field cannot keep kesta busy.
constexpr int kMostChunks = 4096;

// RIFF and RF64: the "data" chunk's size (RF64 keeps the real one in "ds64"), in frames.
std::optional<int64_t> WaveFrames(int fd, off_t fileSize, const AudioFormat& format) {
    const int bytesPerFrame = BytesPerSample(format.sndfileFormat) * format.channels;
    if (bytesPerFrame <= 0) return std::nullopt;
    unsigned char header[12];
    if (!ReadAt(fd, 0, header, sizeof(header)) || !Is(header + 8, "WAVE")) return std::nullopt;
    const bool rf64 = Is(header, "RF64");
    if (!rf64 && !Is(header, "RIFF")) return std::nullopt;

    std::optional<uint64_t> ds64Data;
    off_t offset = 12;
    for (int chunk = 0; chunk < kMostChunks && offset + 8 <= fileSize; ++chunk) {
        unsigned char head[8];
        if (!ReadAt(fd, offset, head, sizeof(head))) return std::nullopt;
        const uint64_t size = Little(head + 4, 4);
        if (Is(head, "ds64")) {
            unsigned char sizes[16];
            if (!ReadAt(fd, offset + 8, sizes, sizeof(sizes))) return std::nullopt;
            ds64Data = Little(sizes + 8, 8);
        }
        if (Is(head, "data")) {
            uint64_t bytes = size;
            if (rf64 && size == 0xFFFFFFFFu) {
                if (!ds64Data) return std::nullopt;
                bytes = *ds64Data;
            }
            if (bytes == 0 || bytes == 0xFFFFFFFFu) return std::nullopt;  // left open by a streaming writer
            return int64_t(bytes / uint64_t(bytesPerFrame));
        }
        offset += off_t(8 + size + (size & 1));
    }
    return std::nullopt;
}

// AIFF and AIFC: the frame count of the "COMM" chunk.
std::optional<int64_t> AiffFrames(int fd, off_t fileSize) {
    unsigned char header[12];
    if (!ReadAt(fd, 0, header, sizeof(header)) || !Is(header, "FORM")) return std::nullopt;
    if (!Is(header + 8, "AIFF") && !Is(header + 8, "AIFC")) return std::nullopt;
    off_t offset = 12;
    for (int chunk = 0; chunk < kMostChunks && offset + 8 <= fileSize; ++chunk) {
        unsigned char head[14];
        if (!ReadAt(fd, offset, head, 8)) return std::nullopt;
        const uint64_t size = Big(head + 4, 4);
        if (Is(head, "COMM")) {
            if (size < 6 || !ReadAt(fd, offset + 8, head + 8, 6)) return std::nullopt;
            return int64_t(Big(head + 10, 4));
        }
        offset += off_t(8 + size + (size & 1));
    }
    return std::nullopt;
}

// An Ogg stream is whole when its last page ends exactly at the end of the file and carries the
// end-of-stream flag. Pages are at most 65307 bytes, so the last one lies in the file's tail.
bool OggEndMissing(int fd, off_t fileSize) {
    constexpr off_t kLargestPage = 27 + 255 + 255 * 255;
    const off_t start = fileSize > kLargestPage ? fileSize - kLargestPage : 0;
    std::string tail(std::size_t(fileSize - start), '\0');
    if (!ReadAt(fd, start, tail.data(), tail.size())) return false;  // unreadable: the decoder will say so
    const auto* bytes = reinterpret_cast<const unsigned char*>(tail.data());
    for (std::size_t at = tail.rfind("OggS"); at != std::string::npos;
         at = at == 0 ? std::string::npos : tail.rfind("OggS", at - 1)) {
        if (at + 27 > tail.size() || bytes[at + 4] != 0) continue;
        const std::size_t segments = bytes[at + 26];
        if (at + 27 + segments > tail.size()) continue;
        std::size_t length = 27 + segments;
        for (std::size_t s = 0; s < segments; ++s)
            length += bytes[at + 27 + s];
        if (at + length == tail.size()) return (bytes[at + 5] & 0x04) == 0;  // the last whole page
    }
    return true;  // no page ends where the file does: cut inside a page
}

// The AU header is 24 bytes: magic, data offset, data size, encoding, rate, channels, big-endian
// (".snd") or little-endian ("dns.").
std::optional<uint32_t> AuDataOffsetInsideHeader(int fd) {
    constexpr uint32_t kHeaderBytes = 24;
    unsigned char header[8];
    if (!ReadAt(fd, 0, header, sizeof(header))) return std::nullopt;
    uint32_t offset = 0;
    if (std::memcmp(header, ".snd", 4) == 0)
        for (int i = 4; i < 8; ++i)
            offset = offset << 8 | header[i];
    else if (std::memcmp(header, "dns.", 4) == 0)
        offset = uint32_t(Little(header + 4, 4));
    else
        return std::nullopt;
    if (offset >= kHeaderBytes) return std::nullopt;
    return offset;
}

}  // namespace

AnnouncedLength ReadAnnouncedLength(int fd, off_t fileSize, const AudioFormat& format) {
    AnnouncedLength announced;
    switch (format.Container()) {
        case SF_FORMAT_WAV:
        case SF_FORMAT_WAVEX:
        case SF_FORMAT_RF64:
            announced.frames = WaveFrames(fd, fileSize, format);
            break;
        case SF_FORMAT_AIFF:
            announced.frames = AiffFrames(fd, fileSize);
            break;
        case SF_FORMAT_OGG:
            announced.endMissing = OggEndMissing(fd, fileSize);
            break;
        case SF_FORMAT_AU:
            announced.dataOffsetInsideHeader = AuDataOffsetInsideHeader(fd);
            break;
        default:
            break;
    }
    return announced;
}

}  // namespace kesta
