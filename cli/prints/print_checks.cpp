#include "print_checks.h"

#include <cstdint>
#include <cstdio>

#include "errors.h"
#include "noise_print_file.h"

namespace kesta {

void RefusePrint(const std::string& path, const std::string& why, const std::string& hint) {
    throw InputError("cannot use " + Quoted(path) + " as a noise print", why, hint);
}

void DamagedPrint(const std::string& path, const std::string& why) {
    RefusePrint(path, why, "the file is damaged; save the print again");
}

std::string PrintNumber(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", v);
    return text;
}

void PrintValueCheck::Setting(const char* name, double v, double lo, double hi) const {
    if (!(v >= lo && v <= hi))
        Fail(std::string("its ") + name + " is " + PrintNumber(v) + ", outside " + PrintNumber(lo) + " ... " +
             PrintNumber(hi));
}

void PrintValueCheck::OutOfRange(const char* name, int channel, std::size_t entry, double x, double lo, double hi,
                                 const char* unit) const {
    const std::string where = channel >= 0 ? " of channel " + std::to_string(channel + 1) : "";
    Fail(std::string("its ") + name + where + " holds " + PrintNumber(x) + " at entry " + std::to_string(entry) +
         ", where " + unit + " lies within " + PrintNumber(lo) + " ... " + PrintNumber(hi));
}

void PrintValueCheck::Span(const PrintSpan& span) const {
    if (span.start < 0 || span.frames < 0 || span.start > INT64_MAX - span.frames)
        Fail("its stretch (frame " + std::to_string(span.start) + ", " + std::to_string(span.frames) +
             " frames) is not one an audio file can hold");
}

}  // namespace kesta
