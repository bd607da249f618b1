// The tool's audio reader on hostile files: the bytes become a file (in memory, reached through its
// /proc path, so the reader opens, stats and inspects it as it does any regular file), which is
// opened, asked for its metadata and read to the end as a command reads it. A file the reader
// refuses must be refused with one line; one it accepts must read back the same after a rewind,
// and its length warning must agree with what was read.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "errors.h"
#include "io/block_reader.h"

namespace {

// Enough to pass every header and reach the decoders many times over; a hostile header may
// announce any length, and the reader only stops where the bytes end.
constexpr int64_t kMostFrames = 1 << 18;

void Check(bool ok) {
    if (!ok) std::abort();
}

int MemoryFile() {
    static const int fd = ::memfd_create("fuzz-audio", 0);
    Check(fd >= 0);
    return fd;
}

void Replace(int fd, const uint8_t* data, std::size_t size) {
    Check(::ftruncate(fd, 0) == 0);
    for (std::size_t done = 0; done < size;) {
        const ssize_t n = ::pwrite(fd, data + done, size - done, off_t(done));
        Check(n > 0);
        done += std::size_t(n);
    }
}

void OneLine(const std::string& line) {
    Check(!line.empty() && line.find('\n') == std::string::npos);
}

// The reader's frames up to kMostFrames; a sum of the first block's samples' bits in `first`.
int64_t ReadAll(kesta::BlockReader& reader, uint64_t& first) {
    kesta::AudioBlock block = reader.MakeBlock();
    first = 0;
    bool firstBlock = true;
    while (reader.FramesRead() < kMostFrames && reader.Read(block)) {
        Check(block.Frames() > 0 && block.Frames() <= block.Capacity());
        if (firstBlock)
            for (int c = 0; c < block.Channels(); ++c)
                for (std::size_t i = 0; i < block.Frames(); ++i) {
                    uint32_t bits;
                    std::memcpy(&bits, block.Channel(c) + i, sizeof bits);
                    first = first * 1000003u + bits;
                }
        firstBlock = false;
    }
    return reader.FramesRead();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const int fd = MemoryFile();
    Replace(fd, data, size);
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    try {
        kesta::BlockReader reader(path);
        Check(reader.Format().channels >= 1 && reader.Format().sampleRate >= 1);
        (void)reader.Metadata();
        uint64_t first = 0;
        const int64_t frames = ReadAll(reader, first);
        if (frames < kMostFrames) {
            const auto warning = reader.LengthWarning();
            if (warning) OneLine(*warning);
            const auto announced = reader.HeaderFrames();
            Check(warning.has_value() || !announced || *announced == frames);
        }
        if (reader.Seekable()) {
            reader.Rewind();
            uint64_t again = 0;
            Check(ReadAll(reader, again) == frames && again == first);
        }
    } catch (const kesta::CliError& refused) {
        OneLine(refused.Message());
    }
    return 0;
}
