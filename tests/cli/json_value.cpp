#include "json_value.h"

#include <cctype>
#include <cstdlib>
#include <stdexcept>

namespace kesta_test {

const JsonValue& JsonValue::operator[](const std::string& key) const {
    if (type != Type::Object) throw std::runtime_error("not an object, looking for '" + key + "'");
    const auto it = object.find(key);
    if (it == object.end()) throw std::runtime_error("no key '" + key + "'");
    return it->second;
}

const JsonValue& JsonValue::operator[](std::size_t index) const {
    if (type != Type::Array || index >= array.size()) throw std::runtime_error("no element " + std::to_string(index));
    return array[index];
}

namespace {

class Parser {
public:
    explicit Parser(const std::string& text) : mText(text) {}

    JsonValue Document() {
        JsonValue value = Value();
        Space();
        if (mPos != mText.size()) Fail("text after the document");
        return value;
    }

private:
    [[noreturn]] void Fail(const std::string& what) const {
        throw std::runtime_error("invalid JSON at offset " + std::to_string(mPos) + ": " + what);
    }
    void Space() {
        while (mPos < mText.size() && (mText[mPos] == ' ' || mText[mPos] == '\n' || mText[mPos] == '\t' || mText[mPos] == '\r'))
            ++mPos;
    }
    bool Take(char c) {
        Space();
        if (mPos < mText.size() && mText[mPos] == c) return ++mPos, true;
        return false;
    }
    void Expect(char c) {
        if (!Take(c)) Fail(std::string("expected '") + c + "'");
    }
    bool Word(const char* word) {
        const std::string w = word;
        if (mText.compare(mPos, w.size(), w) != 0) return false;
        mPos += w.size();
        return true;
    }

    JsonValue Value() {
        Space();
        if (mPos >= mText.size()) Fail("unexpected end");
        JsonValue value;
        const char c = mText[mPos];
        if (c == '{') {
            value.type = JsonValue::Type::Object;
            ++mPos;
            if (Take('}')) return value;
            do {
                Space();
                const std::string key = String();
                Expect(':');
                value.object[key] = Value();
            } while (Take(','));
            Expect('}');
        } else if (c == '[') {
            value.type = JsonValue::Type::Array;
            ++mPos;
            if (Take(']')) return value;
            do value.array.push_back(Value());
            while (Take(','));
            Expect(']');
        } else if (c == '"') {
            value.type = JsonValue::Type::String;
            value.string = String();
        } else if (Word("true")) {
            value.type = JsonValue::Type::Bool;
            value.boolean = true;
        } else if (Word("false")) {
            value.type = JsonValue::Type::Bool;
        } else if (Word("null")) {
            value.type = JsonValue::Type::Null;
        } else {
            value.type = JsonValue::Type::Number;
            value.number = Number();
        }
        return value;
    }

    double Number() {
        const std::size_t start = mPos;
        if (mText[mPos] == '-') ++mPos;
        const auto digits = [&] {
            const std::size_t from = mPos;
            while (mPos < mText.size() && std::isdigit(static_cast<unsigned char>(mText[mPos]))) ++mPos;
            return mPos - from;
        };
        if (digits() == 0) Fail("expected a value");
        if (mPos < mText.size() && mText[mPos] == '.') {
            ++mPos;
            if (digits() == 0) Fail("digits expected after '.'");
        }
        if (mPos < mText.size() && (mText[mPos] == 'e' || mText[mPos] == 'E')) {
            ++mPos;
            if (mPos < mText.size() && (mText[mPos] == '+' || mText[mPos] == '-')) ++mPos;
            if (digits() == 0) Fail("digits expected in exponent");
        }
        return std::strtod(mText.substr(start, mPos - start).c_str(), nullptr);
    }

    std::string String() {
        if (mPos >= mText.size() || mText[mPos] != '"') Fail("expected a string");
        ++mPos;
        std::string out;
        while (true) {
            if (mPos >= mText.size()) Fail("unterminated string");
            const unsigned char c = static_cast<unsigned char>(mText[mPos++]);
            if (c == '"') return out;
            if (c < 0x20) Fail("control character in string");
            if (c == '\\') {
                if (mPos >= mText.size()) Fail("unterminated escape");
                const char e = mText[mPos++];
                switch (e) {
                    case '"': out += '"'; break;
                    case '\\': out += '\\'; break;
                    case '/': out += '/'; break;
                    case 'b': out += '\b'; break;
                    case 'f': out += '\f'; break;
                    case 'n': out += '\n'; break;
                    case 'r': out += '\r'; break;
                    case 't': out += '\t'; break;
                    case 'u': {
                        if (mPos + 4 > mText.size()) Fail("short \\u escape");
                        const unsigned long code = std::strtoul(mText.substr(mPos, 4).c_str(), nullptr, 16);
                        mPos += 4;
                        AppendUtf8(out, code);
                        break;
                    }
                    default: Fail("unknown escape");
                }
            } else if (c >= 0x80) {
                const std::size_t length = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 ? 2 : 0;
                if (length == 0 || mPos - 1 + length > mText.size()) Fail("invalid UTF-8");
                for (std::size_t k = 1; k < length; ++k)
                    if ((static_cast<unsigned char>(mText[mPos - 1 + k]) & 0xC0) != 0x80) Fail("invalid UTF-8");
                out.append(mText, mPos - 1, length);
                mPos += length - 1;
            } else {
                out += char(c);
            }
        }
    }

    static void AppendUtf8(std::string& out, unsigned long code) {
        if (code < 0x80) {
            out += char(code);
        } else if (code < 0x800) {
            out += char(0xC0 | (code >> 6));
            out += char(0x80 | (code & 0x3F));
        } else {
            out += char(0xE0 | (code >> 12));
            out += char(0x80 | ((code >> 6) & 0x3F));
            out += char(0x80 | (code & 0x3F));
        }
    }

    const std::string& mText;
    std::size_t mPos = 0;
};

}  // namespace

JsonValue ParseJson(const std::string& text) { return Parser(text).Document(); }

}  // namespace kesta_test
