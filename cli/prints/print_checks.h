#pragma once
// The refusals a print file may meet, shared by the file's frame and the codec of each kind: one
// input error each, naming the file, what is wrong and what to do.

#include <cstddef>
#include <string>

namespace kesta {

struct PrintSpan;

[[noreturn]] void RefusePrint(const std::string& path, const std::string& why, const std::string& hint);
// Refuses a file whose bytes cannot be what kesta wrote.
[[noreturn]] void DamagedPrint(const std::string& path, const std::string& why);

// The largest statistic a print may hold: far above any magnitude audio gives, and far enough
// below the largest double that the sums and squares of the gain rules stay finite.
inline constexpr double kLargestPrintMagnitude = 1e30;

// The decoded values a reading run uses: a value outside its range (NaN included) refuses the
// file, naming the field, where and what it holds.
class PrintValueCheck {
public:
    explicit PrintValueCheck(const std::string& path) : mPath(path) {}

    [[noreturn]] void Fail(const std::string& why) const { DamagedPrint(mPath, why); }

    void Setting(const char* name, double v, double lo, double hi) const;

    // `count` values of a per-channel (channel >= 0) or shared array, each within [lo, hi].
    template <typename T>
    void Values(const char* name, int channel, const T* v, std::size_t count, double lo, double hi,
                const char* unit) const {
        for (std::size_t i = 0; i < count; ++i) {
            const double x = double(v[i]);
            if (!(x >= lo && x <= hi)) OutOfRange(name, channel, i, x, lo, hi, unit);
        }
    }

    // Magnitudes: finite and not negative.
    template <typename T>
    void Magnitudes(const char* name, T* const* rows, std::size_t channels, std::size_t count) const {
        for (std::size_t c = 0; c < channels; ++c)
            Values(name, int(c), rows[c], count, 0.0, kLargestPrintMagnitude, "a magnitude");
    }

    // Where the print was taken: frames from 0 on, its end within 64-bit frame positions.
    void Span(const PrintSpan& span) const;

private:
    [[noreturn]] void OutOfRange(const char* name, int channel, std::size_t entry, double x, double lo, double hi,
                                 const char* unit) const;
    const std::string& mPath;
};

// "%g" of a value, as the refusals show it.
std::string PrintNumber(double v);

}  // namespace kesta
