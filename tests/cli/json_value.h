#pragma once
// A strict little JSON parser, so the tests can check that --json reports are valid JSON and read
// values out of them. Parse throws std::runtime_error, with the offset, on anything invalid
// (trailing commas, bare NaN, unescaped control characters, bad UTF-8, trailing text).

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kesta_test {

struct JsonValue {
    enum class Type { Null, Bool, Number, String, Array, Object } type = Type::Null;
    bool boolean = false;
    double number = 0.0;
    std::string string;
    std::vector<JsonValue> array;
    std::map<std::string, JsonValue> object;

    bool IsNull() const { return type == Type::Null; }
    bool Has(const std::string& key) const { return object.count(key) != 0; }
    // Throws if the key is missing or this is not an object.
    const JsonValue& operator[](const std::string& key) const;
    const JsonValue& operator[](std::size_t index) const;
};

JsonValue ParseJson(const std::string& text);

}  // namespace kesta_test
