#include "noise_print_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "errors.h"
#include "hiss_floor_codec.h"
#include "noise_dictionary_codec.h"
#include "noise_print_codec.h"
#include "print_checks.h"

namespace kesta {

namespace {

using dsp::nohiss::NOHISS;
using dsp::nonoise::NONOISE;

constexpr std::size_t kHeaderBytes = 32;
constexpr std::size_t kChecksumBytes = 4;
constexpr std::size_t kSpanBytes = 16;
constexpr std::size_t kLargestFile = std::size_t(64) << 20;  // far above any valid print

// `atoms` counts only for a noise dictionary.
uint64_t ExpectedPayload(PrintKind kind, uint64_t C, uint64_t N, uint64_t atoms) {
    switch (kind) {
        case PrintKind::NoisePrint:
            return kSpanBytes + NoNoiseRecordBytes(C, N);
        case PrintKind::HissFloor:
            return kSpanBytes + NoHissRecordBytes(C, N);
        case PrintKind::NoiseDictionary:
            return kSpanBytes + NoiseDictionaryRecordBytes(C, N, atoms);
    }
    return 0;
}

// The header and where the print was taken; the record follows.
void WriteStart(ByteWriter& out, PrintKind kind, uint32_t rate, uint32_t channels, uint32_t fftSize, PrintSpan span,
                uint32_t atoms = 0) {
    out.Raw(std::string_view(kPrintMagic, sizeof(kPrintMagic)));
    out.U16(kPrintFormatVersion);
    out.U16(uint16_t(kind));
    out.U32(rate);
    out.U32(channels);
    out.U32(fftSize);
    out.U64(ExpectedPayload(kind, channels, fftSize, atoms));
    out.I64(span.start);
    out.I64(span.frames);
}

std::string Finish(ByteWriter& out) {
    out.U32(Crc32(std::string_view(out.Bytes()).substr(sizeof(kPrintMagic))));
    return out.Take();
}

bool IsPowerOfTwo(uint64_t n) {
    return n != 0 && (n & (n - 1)) == 0;
}

}  // namespace

std::string PrintKindName(PrintKind kind) {
    switch (kind) {
        case PrintKind::NoisePrint:
            return "noise print";
        case PrintKind::HissFloor:
            return "hiss floor";
        case PrintKind::NoiseDictionary:
            return "noise dictionary";
    }
    return "print";
}

void NoNoiseDeleter::operator()(NONOISE* record) const {
    dsp::nonoise::FreeArrays(record);
    delete record;
}

void NoHissDeleter::operator()(NOHISS* record) const {
    dsp::nohiss::FreeArrays(record);
    delete record;
}

void DnzDeleter::operator()(dsp::dnz::DNZ* record) const {
    dsp::dnz::FreeArrays(record);
    delete record;
}

DnzPtr MakeDnz(int channels, int fftSize, int atoms) {
    DnzPtr record(new dsp::dnz::DNZ{});
    dsp::dnz::SetDefaultParameter(record.get());
    record->channels = int16_t(channels);
    record->fftSize = int16_t(fftSize);
    record->noiseAtoms = int16_t(atoms);
    dsp::dnz::AllocateArrays(record.get());
    return record;
}

NoNoisePtr MakeNoNoise(int channels, int fftSize) {
    NoNoisePtr record(new NONOISE{});
    dsp::nonoise::SetDefaultParameter(record.get());
    record->channels = int16_t(channels);
    record->fftSize = int16_t(fftSize);
    dsp::nonoise::AllocateArrays(record.get());
    return record;
}

NoHissPtr MakeNoHiss(int channels, int fftSize, int sampleRate) {
    NoHissPtr record(new NOHISS{});
    dsp::nohiss::SetDefaultParameter(record.get());
    record->channels = channels;
    record->fftSize = fftSize;
    record->sampleRate = sampleRate;
    dsp::nohiss::AllocateArrays(record.get());
    return record;
}

std::string EncodeNoisePrint(const NONOISE& record, int32_t sampleRate, PrintSpan span) {
    ByteWriter out;
    WriteStart(out, PrintKind::NoisePrint, uint32_t(sampleRate), uint32_t(record.channels), uint32_t(record.fftSize),
               span);
    EncodeNoNoise(out, record);
    return Finish(out);
}

std::string EncodeHissFloor(const NOHISS& record, PrintSpan span) {
    ByteWriter out;
    WriteStart(out, PrintKind::HissFloor, uint32_t(record.sampleRate), uint32_t(record.channels),
               uint32_t(record.fftSize), span);
    EncodeNoHiss(out, record);
    return Finish(out);
}

std::string EncodeNoiseDictionary(const dsp::dnz::DNZ& record, int32_t sampleRate, PrintSpan span) {
    ByteWriter out;
    WriteStart(out, PrintKind::NoiseDictionary, uint32_t(sampleRate), uint32_t(record.channels),
               uint32_t(record.fftSize), span, uint32_t(record.noiseAtoms));
    EncodeNoiseDictionary(out, record);
    return Finish(out);
}

PrintFile DecodePrintFile(std::string_view bytes, const std::string& path) {
    const std::string_view magic(kPrintMagic, sizeof(kPrintMagic));
    if (bytes.size() < magic.size()) {
        if (!bytes.empty() && magic.substr(0, bytes.size()) == bytes)
            DamagedPrint(path, "it is truncated (" + std::to_string(bytes.size()) + " bytes)");
        RefusePrint(path, bytes.empty() ? "the file is empty" : "it is not a kesta noise print file",
                    "give a file saved with --save-print");
    }
    if (bytes.substr(0, magic.size()) != magic)
        RefusePrint(path, "it is not a kesta noise print file", "give a file saved with --save-print");
    if (bytes.size() < kHeaderBytes)
        DamagedPrint(path, "it is truncated (" + std::to_string(bytes.size()) + " bytes, shorter than its header)");

    ByteReader header(bytes, magic.size());
    const uint16_t version = header.U16();
    const uint16_t kindCode = header.U16();
    const uint32_t rate = header.U32();
    const uint32_t channels = header.U32();
    const uint32_t fftSize = header.U32();
    const uint64_t payload = header.U64();
    if (version == 0) DamagedPrint(path, "it has the unknown format version 0");
    if (version > kPrintFormatVersion)
        RefusePrint(path,
                    "it has format version " + std::to_string(version) + ", newer than the version " +
                        std::to_string(kPrintFormatVersion) + " this kesta reads",
                    "use a newer kesta, or take the print again with this one");
    if (payload > kLargestFile || bytes.size() < kHeaderBytes + payload + kChecksumBytes) {
        const std::string expected =
            payload > kLargestFile ? "" : " of " + std::to_string(kHeaderBytes + payload + kChecksumBytes);
        DamagedPrint(path, "it is truncated (" + std::to_string(bytes.size()) + expected + " bytes)");
    }
    const std::size_t end = kHeaderBytes + std::size_t(payload);
    if (bytes.size() > end + kChecksumBytes)
        DamagedPrint(path, "it has " + std::to_string(bytes.size() - end - kChecksumBytes) + " bytes after its end");
    const uint32_t stored = ByteReader(bytes, end).U32();
    if (stored != Crc32(bytes.substr(magic.size(), end - magic.size())))
        DamagedPrint(path, "its checksum does not match its contents");

    if (kindCode != uint16_t(PrintKind::NoisePrint) && kindCode != uint16_t(PrintKind::HissFloor) &&
        kindCode != uint16_t(PrintKind::NoiseDictionary))
        RefusePrint(path, "it holds a kind of print this kesta does not know (kind " + std::to_string(kindCode) + ")",
                    "use a newer kesta");
    const PrintKind kind = PrintKind(kindCode);
    const uint32_t largestFft = kind == PrintKind::HissFloor ? 65536 : 16384;
    const int atoms = kind == PrintKind::NoiseDictionary && payload > kSpanBytes
                          ? AtomsForRecordBytes(channels, fftSize, payload - kSpanBytes)
                          : 0;
    if (rate < 1 || rate > 10'000'000 || channels < 1 || channels > uint32_t(kPrintMaxChannels) ||
        !IsPowerOfTwo(fftSize) || fftSize < 16 || fftSize > largestFft ||
        payload != ExpectedPayload(kind, channels, fftSize, uint64_t(atoms)))
        DamagedPrint(path, "its header is inconsistent");

    PrintFile file;
    file.kind = kind;
    file.sampleRate = int32_t(rate);
    file.channels = int32_t(channels);
    file.fftSize = int32_t(fftSize);
    ByteReader in(bytes.substr(0, end), kHeaderBytes);
    try {
        file.span.start = in.I64();
        file.span.frames = in.I64();
        PrintValueCheck(path).Span(file.span);
        if (kind == PrintKind::NoisePrint)
            file.noise = DecodeNoNoise(in, file.channels, file.fftSize, path);
        else if (kind == PrintKind::HissFloor)
            file.hiss = DecodeNoHiss(in, file.channels, file.fftSize, file.sampleRate, path);
        else
            file.dictionary = DecodeNoiseDictionary(in, file.channels, file.fftSize, atoms, path);
    } catch (const ByteOverrun&) {
        DamagedPrint(path, "its record is shorter than its header says");
    }
    return file;
}

PrintFile ReadPrintFile(const std::string& path) {
    const std::string what = "cannot open noise print " + Quoted(path);
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        if (error == ENOENT) throw InputError(what, "no such file", "check the name and the current directory");
        if (error == EACCES) throw InputError(what, "permission denied", "check the file's permissions");
        throw InputError(what, SystemReason(error), "check the path");
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0) {
        const int error = errno;
        ::close(fd);
        throw InputError(what, SystemReason(error), "check the path");
    }
    if (S_ISDIR(info.st_mode)) {
        ::close(fd);
        throw InputError(what, "it is a directory", "give a file saved with --save-print");
    }
    std::string bytes;
    char buffer[65536];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            const int error = errno;
            ::close(fd);
            throw InputError("cannot read noise print " + Quoted(path), SystemReason(error), "check the file");
        }
        if (got == 0) break;
        bytes.append(buffer, std::size_t(got));
        if (bytes.size() > kLargestFile + kHeaderBytes + kChecksumBytes) {
            ::close(fd);
            RefusePrint(path, "it is far too large to be a noise print", "give a file saved with --save-print");
        }
    }
    ::close(fd);
    return DecodePrintFile(bytes, path);
}

void CheckPrintMatches(const PrintFile& print, const std::string& printPath, PrintKind wanted, int channels,
                       int sampleRate, int requestedFftSize, const std::string& audioPath) {
    const std::string what = "cannot use " + Quoted(printPath);
    if (print.kind != wanted) {
        const auto command = [](PrintKind kind) {
            return kind == PrintKind::HissFloor         ? std::string("kesta dehiss")
                   : kind == PrintKind::NoiseDictionary ? std::string("kesta denoise --method nmf")
                                                        : std::string("kesta denoise --method print");
        };
        throw UsageError(what, "it holds a " + PrintKindName(print.kind) + ", not a " + PrintKindName(wanted),
                         "it was saved by '" + command(print.kind) + "' and works there; here give a " +
                             PrintKindName(wanted) + " saved by '" + command(wanted) + " --save-print'");
    }
    if (print.channels != channels)
        throw UsageError(what,
                         "it was taken from " + std::to_string(print.channels) + " channel(s), and " +
                             Quoted(audioPath) + " has " + std::to_string(channels),
                         "take a print from audio with " + std::to_string(channels) + " channel(s)");
    if (requestedFftSize != 0 && print.fftSize != requestedFftSize)
        throw UsageError(what,
                         "it was taken with FFT size " + std::to_string(print.fftSize) + ", not the " +
                             std::to_string(requestedFftSize) + " asked for with --fft-size",
                         "leave out --fft-size to use the print's, or take a new print");
    if (print.sampleRate != sampleRate)
        throw UsageError(what,
                         "it was taken at " + std::to_string(print.sampleRate) + " Hz, and " + Quoted(audioPath) +
                             " is at " + std::to_string(sampleRate) + " Hz",
                         "a print describes frequencies: take one from audio at " + std::to_string(sampleRate) + " Hz");
}

}  // namespace kesta
