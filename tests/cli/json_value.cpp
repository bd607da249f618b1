#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "cli_test.h"

namespace kesta_test {

const JsonValue& JsonValue::operator[](const std::string& key) const {
    const auto it = object.find(key);
    if (type != Type::Object || it == object.end()) throw std::runtime_error("no key '" + key + "'");
    return it->second;
}

const JsonValue& JsonValue::operator[](std::size_t index) const {
    if (type != Type::Array || index >= array.size()) throw std::runtime_error("no element " + std::to_string(index));
    return array[index];
}

namespace {

// Strict where a writer can go wrong (the structure; strings: escapes, control characters, UTF-8;
// inf and nan are no numbers), lenient about the finer points of number syntax.
struct Parser {
    const std::string& s;
    std::size_t i = 0;

    [[noreturn]] void Fail(const std::string& what) const {
        throw std::runtime_error("invalid JSON at offset " + std::to_string(i) + ": " + what);
    }
    bool At(std::string_view chars) const { return i < s.size() && chars.find(s[i]) != std::string_view::npos; }
    char Peek() {
        while (At(" \n\t\r"))
            ++i;
        return i < s.size() ? s[i] : '\0';
    }
    bool Take(char c) { return Peek() == c && (++i, true); }
    bool Word(const std::string& w) { return s.compare(i, w.size(), w) == 0 && (i += w.size(), true); }
    // The items of an object or array up to `close`, each read by `item`.
    template <typename Item>
    void Items(char close, Item item) {
        if (Take(close)) return;
        do
            item();
        while (Take(','));
        if (!Take(close)) Fail(std::string("expected '") + close + "'");
    }

    JsonValue Value() {
        using T = JsonValue::Type;
        JsonValue v;
        const char c = Peek();
        if (Take('{')) {
            v.type = T::Object;
            Items('}', [&] {
                if (Peek() != '"') Fail("expected a key");
                const std::string key = String();
                if (!Take(':')) Fail("expected ':'");
                v.object[key] = Value();
            });
        } else if (Take('[')) {
            v.type = T::Array;
            Items(']', [&] { v.array.push_back(Value()); });
        } else if (c == '"') {
            v.type = T::String;
            v.string = String();
        } else if (const bool yes = Word("true"); yes || Word("false")) {
            v.type = T::Bool;
            v.boolean = yes;
        } else if (!Word("null")) {
            char* end = nullptr;
            v.type = T::Number;
            v.number = std::strtod(s.c_str() + i, &end);
            const std::string number = s.substr(i, std::size_t(end - (s.c_str() + i)));
            if (number.empty() || number.find_first_not_of("0123456789+-.eE") != std::string::npos)
                Fail("expected a value");  // inf and nan included
            i += number.size();
        }
        return v;
    }

    std::string String() {
        ++i;  // the opening quote
        std::string out;
        for (;;) {
            if (i >= s.size()) Fail("unterminated string");
            const auto c = static_cast<unsigned char>(s[i++]);
            if (c == '"') return out;
            if (c < 0x20) Fail("control character in a string");
            if (c >= 0x80) {  // a whole UTF-8 sequence
                const std::size_t more = c >= 0xF5 || c < 0xC2 ? 9 : c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : 1;
                if (more == 9 || s.size() - i < more) Fail("invalid UTF-8");
                out += char(c);
                for (std::size_t end = i + more; i < end; ++i) {
                    if ((static_cast<unsigned char>(s[i]) & 0xC0) != 0x80) Fail("invalid UTF-8");
                    out += s[i];
                }
            } else if (c != '\\') {
                out += char(c);
            } else if (const auto k = std::string_view("\"\\/bfnrt").find(i < s.size() ? s[i] : 'x');
                       k != std::string_view::npos) {
                out += "\"\\/\b\f\n\r\t"[k];
                ++i;
            } else if (Word("u") && s.size() - i >= 4 &&
                       s.substr(i, 4).find_first_not_of("0123456789abcdefABCDEF") == std::string::npos) {
                const unsigned long code = std::stoul(s.substr(i, 4), nullptr, 16);  // UTF-8 of up to 3 bytes
                i += 4;
                if (code < 0x80)
                    out += char(code);
                else if (code < 0x800)
                    out += {char(0xC0 | code >> 6), char(0x80 | (code & 0x3F))};
                else
                    out += {char(0xE0 | code >> 12), char(0x80 | (code >> 6 & 0x3F)), char(0x80 | (code & 0x3F))};
            } else {
                Fail("unknown escape");
            }
        }
    }
};

}  // namespace

JsonValue ParseJson(const std::string& text) {
    Parser parser{text};
    JsonValue value = parser.Value();
    parser.Peek();
    if (parser.i != text.size()) parser.Fail("text after the document");
    return value;
}

}  // namespace kesta_test
