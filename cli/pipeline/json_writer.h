#pragma once
// A small streaming JSON writer for --json reports: indented, strings escaped (bytes that are not
// valid UTF-8, as in some file names, become U+FFFD), and numbers that JSON cannot hold (inf, nan)
// written as null.
//
//   JsonWriter json(std::cout);
//   json.BeginObject().Key("channels").Int(2).Key("peak_dbfs").Number(-6.02).EndObject();

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace kesta {

class JsonWriter {
public:
    explicit JsonWriter(std::ostream& out) : mOut(out) {}
    ~JsonWriter();  // ends the document with a newline once the outermost value is closed

    JsonWriter& BeginObject();
    JsonWriter& EndObject();
    JsonWriter& BeginArray();
    JsonWriter& EndArray();
    JsonWriter& Key(std::string_view key);

    JsonWriter& String(std::string_view value);
    JsonWriter& Number(double value);
    JsonWriter& Int(int64_t value);
    JsonWriter& Bool(bool value);
    JsonWriter& Null();
    // A whole JSON value written by another JsonWriter, as it stands.
    JsonWriter& Raw(std::string_view json);

    static std::string Escape(std::string_view text);  // with the quotes

private:
    void BeforeValue();
    void NewLine();

    struct Level {
        bool object;
        int count;
    };
    std::ostream& mOut;
    std::vector<Level> mLevels;
    bool mAfterKey = false;
    bool mDone = false;
};

}  // namespace kesta
