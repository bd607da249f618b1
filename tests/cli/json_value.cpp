#include <algorithm>
#include <cctype>
#include <stdexcept>

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

struct Parser {
    const std::string& s;
    std::size_t i = 0;

    [[noreturn]] void Fail(const std::string& what) const {
        throw std::runtime_error("invalid JSON at offset " + std::to_string(i) + ": " + what);
    }
    char Peek() {
        while (i < s.size() && (s[i] == ' ' || s[i] == '\n' || s[i] == '\t' || s[i] == '\r'))
            ++i;
        return i < s.size() ? s[i] : '\0';
    }
    bool Take(char c) { return Peek() == c && (++i, true); }
    void Expect(char c) {
        if (!Take(c)) Fail(std::string("expected '") + c + "'");
    }
    bool Word(const std::string& w) { return s.compare(i, w.size(), w) == 0 && (i += w.size(), true); }

    JsonValue Value() {
        using T = JsonValue::Type;
        JsonValue v;
        const char c = Peek();
        if (Take('{')) {
            v.type = T::Object;
            if (Take('}')) return v;
            do {
                if (Peek() != '"') Fail("expected a key");
                const std::string key = String();
                Expect(':');
                v.object[key] = Value();
            } while (Take(','));
            Expect('}');
        } else if (Take('[')) {
            v.type = T::Array;
            if (Take(']')) return v;
            do
                v.array.push_back(Value());
            while (Take(','));
            Expect(']');
        } else if (c == '"') {
            v.type = T::String;
            v.string = String();
        } else if (Word("true")) {
            v.type = T::Bool;
            v.boolean = true;
        } else if (Word("false")) {
            v.type = T::Bool;
        } else if (!Word("null")) {
            const std::size_t length = NumberLength(i);
            if (length == 0) Fail("expected a value");
            v.type = T::Number;
            v.number = std::stod(s.substr(i, length));
            i += length;
        }
        return v;
    }

    // Length of the JSON number starting at `at` (-?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)?),
    // 0 when there is none.
    std::size_t NumberLength(std::size_t at) const {
        std::size_t j = at;
        auto digit = [&](std::size_t k) { return k < s.size() && s[k] >= '0' && s[k] <= '9'; };
        auto digits = [&] {
            const std::size_t from = j;
            while (digit(j)) ++j;
            return j > from;
        };
        if (j < s.size() && s[j] == '-') ++j;
        if (j < s.size() && s[j] == '0')
            ++j;
        else if (!digits())
            return 0;
        if (j < s.size() && s[j] == '.') {
            ++j;
            if (!digits()) return 0;
        }
        if (j < s.size() && (s[j] == 'e' || s[j] == 'E')) {
            ++j;
            if (j < s.size() && (s[j] == '+' || s[j] == '-')) ++j;
            if (!digits()) return 0;
        }
        return j - at;
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
                const std::size_t more = c >= 0xF5 ? 9 : c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC2 ? 1 : 9;
                if (more == 9 || i + more > s.size()) Fail("invalid UTF-8");
                out += char(c);
                for (std::size_t k = 0; k < more; ++k, ++i) {
                    if ((static_cast<unsigned char>(s[i]) & 0xC0) != 0x80) Fail("invalid UTF-8");
                    out += s[i];
                }
            } else if (c != '\\') {
                out += char(c);
            } else if (const auto k = std::string("\"\\/bfnrt").find(i < s.size() ? s[i] : 'x');
                       k != std::string::npos) {
                out += "\"\\/\b\f\n\r\t"[k];
                ++i;
            } else if (s.compare(i, 1, "u") == 0 && i + 5 <= s.size() &&
                       std::all_of(s.begin() + long(i) + 1, s.begin() + long(i) + 5, ::isxdigit)) {
                const unsigned long code = std::stoul(s.substr(i + 1, 4), nullptr, 16);
                i += 5;
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
