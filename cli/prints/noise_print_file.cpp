#include "noise_print_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "errors.h"

namespace kesta {

namespace {

using dsp::nohiss::NOHISS;
using dsp::nonoise::NONOISE;

constexpr std::size_t kHeaderBytes = 32;
constexpr std::size_t kChecksumBytes = 4;
constexpr std::size_t kSpanBytes = 16;
constexpr std::size_t kNoNoiseScalarBytes = 64;
constexpr std::size_t kNoHissScalarBytes = 44;
constexpr std::size_t kLargestFile = std::size_t(64) << 20;  // far above any valid print

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

uint64_t ExpectedPayload(PrintKind kind, uint64_t C, uint64_t N) {
    if (kind == PrintKind::NoisePrint) return kSpanBytes + kNoNoiseScalarBytes + 16 * C + 24 * C * N + 4 * N;
    return kSpanBytes + kNoHissScalarBytes + 4 * C + 12 * C * N;
}

// Little-endian output of fixed-width values.
class Encoder {
public:
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
    void F64s(const double* v, std::size_t n) {
        for (std::size_t i = 0; i < n; ++i)
            F64(v[i]);
    }
    void F32s(const float* v, std::size_t n) {
        for (std::size_t i = 0; i < n; ++i)
            F32(v[i]);
    }
    std::string& Bytes() { return mBytes; }

private:
    void Put(uint64_t v, int bytes) {
        for (int i = 0; i < bytes; ++i)
            mBytes.push_back(char((v >> (8 * i)) & 0xFF));
    }
    std::string mBytes;
};

// Little-endian input; the caller has checked the length beforehand.
class Decoder {
public:
    Decoder(std::string_view bytes, std::size_t offset) : mBytes(bytes), mOffset(offset) {}
    uint8_t U8() { return uint8_t(mBytes[mOffset++]); }
    uint16_t U16() { return uint16_t(Get(2)); }
    uint32_t U32() { return uint32_t(Get(4)); }
    uint64_t U64() { return Get(8); }
    int16_t I16() { return int16_t(U16()); }
    int32_t I32() { return int32_t(U32()); }
    int64_t I64() { return int64_t(U64()); }
    float F32() { return std::bit_cast<float>(U32()); }
    double F64() { return std::bit_cast<double>(U64()); }
    bool Bool() { return U8() != 0; }
    void F64s(double* v, std::size_t n) {
        for (std::size_t i = 0; i < n; ++i)
            v[i] = F64();
    }
    void F32s(float* v, std::size_t n) {
        for (std::size_t i = 0; i < n; ++i)
            v[i] = F32();
    }
    std::size_t Offset() const { return mOffset; }

private:
    uint64_t Get(int bytes) {
        uint64_t v = 0;
        for (int i = 0; i < bytes; ++i)
            v |= uint64_t(uint8_t(mBytes[mOffset + std::size_t(i)])) << (8 * i);
        mOffset += std::size_t(bytes);
        return v;
    }
    std::string_view mBytes;
    std::size_t mOffset;
};

void WriteHeader(Encoder& out, PrintKind kind, uint32_t rate, uint32_t channels, uint32_t fftSize) {
    out.Bytes().append(kPrintMagic, sizeof(kPrintMagic));
    out.U16(kPrintFormatVersion);
    out.U16(uint16_t(kind));
    out.U32(rate);
    out.U32(channels);
    out.U32(fftSize);
    out.U64(ExpectedPayload(kind, channels, fftSize));
}

std::string Finish(Encoder& out) {
    std::string& bytes = out.Bytes();
    const uint32_t crc = Crc32(std::string_view(bytes).substr(sizeof(kPrintMagic)));
    out.U32(crc);
    return std::move(bytes);
}

bool IsPowerOfTwo(uint64_t n) {
    return n != 0 && (n & (n - 1)) == 0;
}

[[noreturn]] void Refuse(const std::string& path, const std::string& why, const std::string& hint) {
    throw InputError("cannot use " + Quoted(path) + " as a noise print", why, hint);
}

[[noreturn]] void Damaged(const std::string& path, const std::string& why) {
    Refuse(path, why, "the file is damaged; save the print again");
}

// The largest statistic a print may hold: far above any magnitude audio gives, and far enough
// below the largest double that the sums and squares of the gain rules stay finite.
constexpr double kLargestMagnitude = 1e30;
// How far a noise print's threshold position (offset plus curve) may reach either way, and its
// largest precision exponent: well beyond anything the capture writes, small enough to keep the
// threshold parabola and the knee finite.
constexpr double kLargestPosition = 1000.0;
constexpr double kLargestExponent = 100.0;

std::string Number(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", v);
    return text;
}

// The decoded values a reading run uses: a value outside its range (NaN included) refuses the
// file, naming the field, where and what it holds.
class ValueCheck {
public:
    explicit ValueCheck(const std::string& path) : mPath(path) {}

    void Setting(const char* name, double v, double lo, double hi) const {
        if (!(v >= lo && v <= hi))
            Damaged(mPath,
                    std::string("its ") + name + " is " + Number(v) + ", outside " + Number(lo) + " ... " + Number(hi));
    }

    // `count` values of a per-channel (channel >= 0) or shared array, each within [lo, hi].
    template <typename T>
    void Values(const char* name, int channel, const T* v, std::size_t count, double lo, double hi,
                const char* unit) const {
        for (std::size_t i = 0; i < count; ++i) {
            const double x = double(v[i]);
            if (x >= lo && x <= hi) continue;
            const std::string where = channel >= 0 ? " of channel " + std::to_string(channel + 1) : "";
            Damaged(mPath, std::string("its ") + name + where + " holds " + Number(x) + " at entry " +
                               std::to_string(i) + ", where " + unit + " lies within " + Number(lo) + " ... " +
                               Number(hi));
        }
    }

    // Magnitudes: finite and not negative.
    template <typename T>
    void Magnitudes(const char* name, T* const* rows, std::size_t channels, std::size_t count) const {
        for (std::size_t c = 0; c < channels; ++c)
            Values(name, int(c), rows[c], count, 0.0, kLargestMagnitude, "a magnitude");
    }

    // Each bin's minimum, RMS and maximum rise in that order (the RMS within rounding of either
    // end), as any capture gives them. The gain rule scales the knee by RMS/maximum and the
    // ceiling by minimum/maximum, so a maximum far below the others overflows both.
    void Ordered(const NONOISE& r, std::size_t channels, std::size_t count) const {
        constexpr double kRounding = 1e-9;
        for (std::size_t c = 0; c < channels; ++c)
            for (std::size_t k = 0; k < count; ++k) {
                const double mn = r.binMin[c][k], avg = r.binRms[c][k], mx = r.binMax[c][k];
                if (mn <= mx && avg <= mx * (1.0 + kRounding) && avg >= mn * (1.0 - kRounding)) continue;
                Damaged(mPath, "its statistics of channel " + std::to_string(c + 1) + " at entry " + std::to_string(k) +
                                   " are out of order (binMin " + Number(mn) + ", binRms " + Number(avg) + ", binMax " +
                                   Number(mx) + "; a bin's minimum, RMS and maximum rise in that order)");
            }
    }

    // Where the print was taken: frames from 0 on, its end within 64-bit frame positions.
    void Span(const PrintSpan& span) const {
        if (span.start < 0 || span.frames < 0 || span.start > INT64_MAX - span.frames)
            Damaged(mPath, "its stretch (frame " + std::to_string(span.start) + ", " + std::to_string(span.frames) +
                               " frames) is not one an audio file can hold");
    }

private:
    const std::string& mPath;
};

}  // namespace

std::string PrintKindName(PrintKind kind) {
    return kind == PrintKind::NoisePrint ? "noise print" : "hiss floor";
}

void NoNoiseDeleter::operator()(NONOISE* record) const {
    dsp::nonoise::FreeArrays(record);
    delete record;
}

void NoHissDeleter::operator()(NOHISS* record) const {
    dsp::nohiss::FreeArrays(record);
    delete record;
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

uint32_t Crc32(std::string_view bytes) {
    uint32_t c = 0xFFFFFFFFu;
    for (char byte : bytes)
        c = kCrcTable[(c ^ uint8_t(byte)) & 0xFFu] ^ (c >> 8);
    return c ^ 0xFFFFFFFFu;
}

std::string EncodeNoisePrint(const NONOISE& record, int32_t sampleRate, PrintSpan span) {
    const std::size_t C = std::size_t(record.channels), N = std::size_t(record.fftSize);
    Encoder out;
    WriteHeader(out, PrintKind::NoisePrint, uint32_t(sampleRate), uint32_t(C), uint32_t(N));
    out.I64(span.start);
    out.I64(span.frames);
    out.F64(record.thresholdOffset);
    out.I16(record.auxIndex);
    out.I16(record.fftSize);
    out.I32(record.maxSnapshots);
    out.I16(record.overlap);
    out.I32(record.optionInt);
    out.I16(record.channels);
    out.I16(record.frameCount);
    out.F64(record.transitionDb);
    out.F64(record.precisionExponent);
    out.I16(record.outputMode);
    out.Bool(record.optionFlagA);
    out.Bool(record.optionFlagB);
    out.Bool(record.optionFlagC);
    out.F64(record.reductionDb);
    out.F64(record.smoothingPercent);
    out.Bool(record.printFlag);
    out.F64s(record.dcMin, C);
    out.F64s(record.dcMax, C);
    for (std::size_t c = 0; c < C; ++c)
        out.F64s(record.binMin[c], N);
    for (std::size_t c = 0; c < C; ++c)
        out.F64s(record.binMax[c], N);
    for (std::size_t c = 0; c < C; ++c)
        out.F64s(record.binRms[c], N);
    out.F32s(record.thresholdCurve, N);
    return Finish(out);
}

std::string EncodeHissFloor(const NOHISS& record, PrintSpan span) {
    const std::size_t C = std::size_t(record.channels), N = std::size_t(record.fftSize);
    Encoder out;
    WriteHeader(out, PrintKind::HissFloor, uint32_t(record.sampleRate), uint32_t(C), uint32_t(N));
    out.I64(span.start);
    out.I64(span.frames);
    out.F32(record.tuningA);
    out.I32(record.fftSize);
    out.I32(record.tuningB);
    out.I16(record.overlap);
    out.I32(record.sampleRate);
    out.I32(record.channels);
    out.I16(record.frameCount);
    out.F32(record.kneeDb);
    out.I32(record.outputMode);
    out.F32(record.reductionDb);
    out.F32(record.smoothingPercent);
    out.I32(record.tuningC);
    out.F32s(record.floorLevel, C);
    for (std::size_t c = 0; c < C; ++c)
        out.F64s(record.floorRows[c], N);
    for (std::size_t c = 0; c < C; ++c)
        out.F32s(record.thresholdRows[c], N);
    return Finish(out);
}

PrintFile DecodePrintFile(std::string_view bytes, const std::string& path) {
    const std::string_view magic(kPrintMagic, sizeof(kPrintMagic));
    if (bytes.size() < magic.size()) {
        if (!bytes.empty() && magic.substr(0, bytes.size()) == bytes)
            Damaged(path, "it is truncated (" + std::to_string(bytes.size()) + " bytes)");
        Refuse(path, bytes.empty() ? "the file is empty" : "it is not a kesta noise print file",
               "give a file saved with --save-print");
    }
    if (bytes.substr(0, magic.size()) != magic)
        Refuse(path, "it is not a kesta noise print file", "give a file saved with --save-print");
    if (bytes.size() < kHeaderBytes)
        Damaged(path, "it is truncated (" + std::to_string(bytes.size()) + " bytes, shorter than its header)");

    Decoder header(bytes, magic.size());
    const uint16_t version = header.U16();
    const uint16_t kindCode = header.U16();
    const uint32_t rate = header.U32();
    const uint32_t channels = header.U32();
    const uint32_t fftSize = header.U32();
    const uint64_t payload = header.U64();
    if (version == 0) Damaged(path, "it has the unknown format version 0");
    if (version > kPrintFormatVersion)
        Refuse(path,
               "it has format version " + std::to_string(version) + ", newer than the version " +
                   std::to_string(kPrintFormatVersion) + " this kesta reads",
               "use a newer kesta, or take the print again with this one");
    if (payload > kLargestFile || bytes.size() < kHeaderBytes + payload + kChecksumBytes) {
        const std::string expected =
            payload > kLargestFile ? "" : " of " + std::to_string(kHeaderBytes + payload + kChecksumBytes);
        Damaged(path, "it is truncated (" + std::to_string(bytes.size()) + expected + " bytes)");
    }
    const std::size_t end = kHeaderBytes + std::size_t(payload);
    if (bytes.size() > end + kChecksumBytes)
        Damaged(path, "it has " + std::to_string(bytes.size() - end - kChecksumBytes) + " bytes after its end");
    const uint32_t stored = Decoder(bytes, end).U32();
    if (stored != Crc32(bytes.substr(magic.size(), end - magic.size())))
        Damaged(path, "its checksum does not match its contents");

    if (kindCode != uint16_t(PrintKind::NoisePrint) && kindCode != uint16_t(PrintKind::HissFloor))
        Refuse(path, "it holds a kind of print this kesta does not know (kind " + std::to_string(kindCode) + ")",
               "use a newer kesta");
    const PrintKind kind = PrintKind(kindCode);
    const uint32_t largestFft = kind == PrintKind::NoisePrint ? 16384 : 65536;
    if (rate < 1 || rate > 10'000'000 || channels < 1 || channels > uint32_t(kPrintMaxChannels) ||
        !IsPowerOfTwo(fftSize) || fftSize < 16 || fftSize > largestFft ||
        payload != ExpectedPayload(kind, channels, fftSize))
        Damaged(path, "its header is inconsistent");

    PrintFile file;
    file.kind = kind;
    file.sampleRate = int32_t(rate);
    file.channels = int32_t(channels);
    file.fftSize = int32_t(fftSize);
    const std::size_t C = channels, N = fftSize;
    // Bins 0 ... N/2 carry the statistics; the rest of each row is never read (a capture leaves
    // its start values there).
    const std::size_t bins = N / 2 + 1;
    Decoder in(bytes, kHeaderBytes);
    file.span.start = in.I64();
    file.span.frames = in.I64();
    ValueCheck(path).Span(file.span);

    if (kind == PrintKind::NoisePrint) {
        NoNoisePtr record = MakeNoNoise(int(C), int(N));
        NONOISE& r = *record;
        r.thresholdOffset = in.F64();
        r.auxIndex = in.I16();
        const int16_t recordFft = in.I16();
        r.maxSnapshots = in.I32();
        r.overlap = in.I16();
        r.optionInt = in.I32();
        const int16_t recordChannels = in.I16();
        r.frameCount = in.I16();
        r.transitionDb = in.F64();
        r.precisionExponent = in.F64();
        r.outputMode = in.I16();
        r.optionFlagA = in.Bool();
        r.optionFlagB = in.Bool();
        r.optionFlagC = in.Bool();
        r.reductionDb = in.F64();
        r.smoothingPercent = in.F64();
        r.printFlag = in.Bool();
        if (recordFft != int16_t(N) || recordChannels != int16_t(C) ||
            !dsp::OverlapSave::IsValidOverlap(int(N), r.overlap))
            Damaged(path, "its record does not agree with its header");
        in.F64s(r.dcMin, C);
        in.F64s(r.dcMax, C);
        for (std::size_t c = 0; c < C; ++c)
            in.F64s(r.binMin[c], N);
        for (std::size_t c = 0; c < C; ++c)
            in.F64s(r.binMax[c], N);
        for (std::size_t c = 0; c < C; ++c)
            in.F64s(r.binRms[c], N);
        in.F32s(r.thresholdCurve, N);
        const ValueCheck check(path);
        check.Setting("reductionDb", r.reductionDb, 0.0, 120.0);
        check.Setting("smoothingPercent", r.smoothingPercent, 0.0, 99.0);
        check.Setting("transitionDb", r.transitionDb, 0.0, 40.0);
        check.Setting("outputMode", r.outputMode, 1.0, 2.0);
        check.Setting("thresholdOffset", r.thresholdOffset, -kLargestPosition, kLargestPosition);
        check.Setting("precisionExponent", r.precisionExponent, 0.0, kLargestExponent);
        check.Values("dcMin", -1, r.dcMin, C, 0.0, kLargestMagnitude, "a magnitude");
        check.Values("dcMax", -1, r.dcMax, C, 0.0, kLargestMagnitude, "a magnitude");
        check.Magnitudes("binMin", r.binMin, C, bins);
        check.Magnitudes("binMax", r.binMax, C, bins);
        check.Magnitudes("binRms", r.binRms, C, bins);
        check.Ordered(r, C, bins);
        check.Values("thresholdCurve", -1, r.thresholdCurve, bins, -kLargestPosition, kLargestPosition, "a position");
        file.noise = std::move(record);
    } else {
        NoHissPtr record = MakeNoHiss(int(C), int(N), int(rate));
        NOHISS& r = *record;
        r.tuningA = in.F32();
        const int32_t recordFft = in.I32();
        r.tuningB = in.I32();
        r.overlap = in.I16();
        const int32_t recordRate = in.I32();
        const int32_t recordChannels = in.I32();
        r.frameCount = in.I16();
        r.kneeDb = in.F32();
        r.outputMode = in.I32();
        r.reductionDb = in.F32();
        r.smoothingPercent = in.F32();
        r.tuningC = in.I32();
        if (recordFft != int32_t(N) || recordChannels != int32_t(C) || recordRate != int32_t(rate) ||
            !dsp::OverlapSave::IsValidOverlap(int(N), r.overlap))
            Damaged(path, "its record does not agree with its header");
        in.F32s(r.floorLevel, C);
        for (std::size_t c = 0; c < C; ++c)
            in.F64s(r.floorRows[c], N);
        for (std::size_t c = 0; c < C; ++c)
            in.F32s(r.thresholdRows[c], N);
        const ValueCheck check(path);
        check.Setting("reductionDb", r.reductionDb, 0.0, 120.0);
        check.Setting("kneeDb", r.kneeDb, 0.0, 40.0);
        check.Setting("smoothingPercent", r.smoothingPercent, 0.0, 99.0);
        check.Setting("outputMode", r.outputMode, 1.0, 2.0);
        // A silent stretch measures -400 dB; no audio kesta reads comes near +1000 dB.
        check.Values("floorLevel", -1, r.floorLevel, C, -400.0, 1000.0, "a level in dB");
        check.Magnitudes("floorRows", r.floorRows, C, bins);
        check.Magnitudes("thresholdRows", r.thresholdRows, C, bins);
        file.hiss = std::move(record);
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
            Refuse(path, "it is far too large to be a noise print", "give a file saved with --save-print");
        }
    }
    ::close(fd);
    return DecodePrintFile(bytes, path);
}

void CheckPrintMatches(const PrintFile& print, const std::string& printPath, PrintKind wanted, int channels,
                       int sampleRate, int requestedFftSize, const std::string& audioPath) {
    const std::string what = "cannot use " + Quoted(printPath);
    if (print.kind != wanted) {
        const std::string saver = print.kind == PrintKind::NoisePrint ? "denoise" : "dehiss";
        const std::string user = wanted == PrintKind::NoisePrint ? "denoise" : "dehiss";
        throw UsageError(what, "it holds a " + PrintKindName(print.kind) + ", not a " + PrintKindName(wanted),
                         "it was saved by 'kesta " + saver + "'; give 'kesta " + user + "' a print saved by 'kesta " +
                             user + " --save-print'");
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
