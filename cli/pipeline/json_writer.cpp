#include "json_writer.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace kesta {

namespace {

// Length of the valid UTF-8 sequence starting at text[i], or 0 if it is not one.
std::size_t Utf8SequenceLength(std::string_view text, std::size_t i) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    std::size_t length = 0;
    uint32_t code = 0;
    if (lead < 0x80) return 1;
    if (lead >= 0xC2 && lead <= 0xDF)
        length = 2, code = lead & 0x1F;
    else if (lead >= 0xE0 && lead <= 0xEF)
        length = 3, code = lead & 0x0F;
    else if (lead >= 0xF0 && lead <= 0xF4)
        length = 4, code = lead & 0x07;
    else
        return 0;
    if (i + length > text.size()) return 0;
    for (std::size_t k = 1; k < length; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) return 0;
        code = (code << 6) | (byte(i + k) & 0x3F);
    }
    const uint32_t minimum[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < minimum[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
    return length;
}

}  // namespace

std::string JsonWriter::Escape(std::string_view text) {
    std::string out = "\"";
    for (std::size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        const std::size_t length = Utf8SequenceLength(text, i);
        if (length == 0) {
            out += "\\ufffd";
            ++i;
            continue;
        }
        if (length > 1) {
            out.append(text.substr(i, length));
        } else if (c == '"' || c == '\\') {
            out += '\\';
            out += char(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c < 0x20 || c == 0x7F) {
            char code[8];
            std::snprintf(code, sizeof(code), "\\u%04x", c);
            out += code;
        } else {
            out += char(c);
        }
        i += length;
    }
    return out + "\"";
}

JsonWriter::~JsonWriter() {
    if (mDone) mOut << '\n';
}

void JsonWriter::NewLine() {
    mOut << '\n' << std::string(2 * mLevels.size(), ' ');
}

void JsonWriter::BeforeValue() {
    if (mAfterKey) {
        mAfterKey = false;
        return;
    }
    if (!mLevels.empty()) {
        if (mLevels.back().count++ > 0) mOut << ',';
        NewLine();
    }
}

JsonWriter& JsonWriter::Key(std::string_view key) {
    if (mLevels.back().count++ > 0) mOut << ',';
    NewLine();
    mOut << Escape(key) << ": ";
    mAfterKey = true;
    return *this;
}

JsonWriter& JsonWriter::BeginObject() {
    BeforeValue();
    mOut << '{';
    mLevels.push_back({true, 0});
    return *this;
}

JsonWriter& JsonWriter::BeginArray() {
    BeforeValue();
    mOut << '[';
    mLevels.push_back({false, 0});
    return *this;
}

JsonWriter& JsonWriter::EndObject() {
    const bool empty = mLevels.back().count == 0;
    mLevels.pop_back();
    if (!empty) NewLine();
    mOut << '}';
    mDone = mLevels.empty();
    return *this;
}

JsonWriter& JsonWriter::EndArray() {
    const bool empty = mLevels.back().count == 0;
    mLevels.pop_back();
    if (!empty) NewLine();
    mOut << ']';
    mDone = mLevels.empty();
    return *this;
}

JsonWriter& JsonWriter::String(std::string_view value) {
    BeforeValue();
    mOut << Escape(value);
    return *this;
}

JsonWriter& JsonWriter::Number(double value) {
    if (!std::isfinite(value)) return Null();
    BeforeValue();
    char text[32];
    const auto result = std::to_chars(text, text + sizeof(text), value);  // shortest exact form
    mOut.write(text, result.ptr - text);
    return *this;
}

JsonWriter& JsonWriter::Int(int64_t value) {
    BeforeValue();
    mOut << value;
    return *this;
}

JsonWriter& JsonWriter::Bool(bool value) {
    BeforeValue();
    mOut << (value ? "true" : "false");
    return *this;
}

JsonWriter& JsonWriter::Raw(std::string_view json) {
    BeforeValue();
    while (!json.empty() && (json.back() == '\n' || json.back() == ' '))
        json.remove_suffix(1);
    mOut << json;
    return *this;
}

JsonWriter& JsonWriter::Null() {
    BeforeValue();
    mOut << "null";
    return *this;
}

}  // namespace kesta
