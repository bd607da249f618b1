#pragma once
// How every command reads its command line, the same way for all: numbers are plain decimal
// (no hexadecimal, no "inf", whole numbers where a count is asked for), and an option kesta does
// not know is named with the nearest one it does.

#include <CLI/CLI.hpp>
#include <cmath>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "command_support.h"

namespace kesta {

// The name among `candidates` that `typed` most likely meant (a letter missing, extra, wrong or
// swapped, or the start of a longer name); empty when none is close.
std::string NearestName(const std::string& typed, const std::vector<std::string>& candidates);

// Throws a usage error for the first argument that looks like an option the chosen command (or
// kesta itself) does not have: "unknown option --nosie; did you mean --noise?". Arguments after
// "--" and negative numbers are values, not options.
void RefuseUnknownOptions(const CLI::App& kesta, int argc, char** argv);

// Adds an option whose value is a number: a decimal for floating-point `value`, a whole number
// for an integer one ("4096.0" is 4096, "4096.5" is refused), within the type's range.
template <class T>
CLI::Option* AddNumberOption(CLI::App& app, const std::string& name, T& value, const std::string& description) {
    static_assert(std::is_arithmetic_v<T>);
    return app.add_option_function<std::string>(
        name,
        [&value, name](const std::string& text) {
            double number = 0.0;
            if (!ParseNumber(text, number))
                throw CLI::ValidationError(name + " " + text + ": not a plain decimal number");
            if constexpr (std::is_integral_v<T>) {
                if (number != std::floor(number))
                    throw CLI::ValidationError(name + " " + text + ": not a whole number");
                if (number < double(std::numeric_limits<T>::lowest()) || number > double(std::numeric_limits<T>::max()))
                    throw CLI::ValidationError(name + " " + text + ": too large");
            }
            value = T(number);
        },
        description);
}

}  // namespace kesta
