#pragma once
// Small pieces the commands share: numbers read strictly and shown as typed, range checks that
// say the range, whether two output names lead to the same file, and writing a whole file's bytes
// through a SafeOutput.

#include <string>

namespace kesta {

// A setting's value as typed: "40", "2.5", "-inf".
std::string FormatValue(double value);
// Throws a usage error "OPTION VALUE is out of range (give a value from LOW to HIGH UNIT)" unless
// low <= value <= high.
void CheckSetting(const std::string& option, double value, double low, double high, const std::string& unit);

// The whole of `text` as a plain decimal number: an optional sign, digits with an optional
// fraction, an optional exponent ("-3", "2.5", "1e3", ".5"); finite. No hexadecimal ("0x10"),
// no "inf" or "nan", no spaces.
bool ParseNumber(const std::string& text, double& value);

// Whether two paths, once resolved, name the same file (or would, once created).
bool SameTarget(const std::string& a, const std::string& b);

// Writes all of `bytes` into the descriptor of a SafeOutput; throws an output error naming `target`.
void WriteAll(int fd, const std::string& bytes, const std::string& target);

}  // namespace kesta
