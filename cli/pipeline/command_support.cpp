#include "command_support.h"

#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "errors.h"

namespace kesta {

std::string FormatValue(double value) {
    char text[48];
    std::snprintf(text, sizeof(text), "%g", value);
    return text;
}

void CheckSetting(const std::string& option, double value, double low, double high, const std::string& unit) {
    if (!std::isfinite(value) || value < low || value > high)
        throw UsageError(option + " " + FormatValue(value) + " is out of range", "",
                         "give a value from " + FormatValue(low) + " to " + FormatValue(high) + " " + unit);
}

bool ParseNumber(const std::string& text, double& value) {
    std::size_t i = 0;
    const auto digits = [&] {
        const std::size_t from = i;
        while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])))
            ++i;
        return i - from;
    };
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
    std::size_t mantissa = digits();
    if (i < text.size() && text[i] == '.') {
        ++i;
        mantissa += digits();
    }
    if (mantissa == 0) return false;
    if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
        ++i;
        if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
        if (digits() == 0) return false;
    }
    if (i != text.size()) return false;
    value = std::strtod(text.c_str(), nullptr);
    return std::isfinite(value);
}

bool SameTarget(const std::string& a, const std::string& b) {
    std::error_code error;
    const auto pa = std::filesystem::weakly_canonical(a, error);
    if (error) return a == b;
    const auto pb = std::filesystem::weakly_canonical(b, error);
    if (error) return a == b;
    return pa == pb;
}

void WriteAll(int fd, const std::string& bytes, const std::string& target) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t wrote = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote < 0) {
            const int error = errno;
            const bool full = error == ENOSPC || error == EDQUOT;
            throw OutputError("cannot write " + Quoted(target),
                              full ? "no space left on the device" : SystemReason(error),
                              full ? "free some space or choose another place" : "check the disk and the path");
        }
        done += std::size_t(wrote);
    }
}

}  // namespace kesta
