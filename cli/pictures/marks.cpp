#include "marks.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "errors.h"
#include "pipeline/command_support.h"

namespace kesta {

namespace {

constexpr const char* kHint = "give a report written by kesta declick --report or kesta declip --report";

CliError NotAReport(const std::string& path, const std::string& why) {
    return InputError(Quoted(path) + " is not a click or clipping report", why, kHint);
}

// A JSON value, as much of it as a report holds.
struct Node {
    enum class Type { Null, Bool, Number, String, Array, Object } type = Type::Null;
    double number = 0.0;
    std::vector<Node> items;
    std::map<std::string, Node> fields;
};

class JsonReader {
public:
    explicit JsonReader(const std::string& text) : mText(text) {}

    // The whole text as one value; false when it is not JSON.
    bool Document(Node& node) {
        if (!Value(node, 0)) return false;
        Space();
        return mAt == mText.size();
    }

private:
    void Space() {
        while (mAt < mText.size() && std::isspace(static_cast<unsigned char>(mText[mAt])))
            ++mAt;
    }
    bool Take(char c) {
        Space();
        if (mAt < mText.size() && mText[mAt] == c) {
            ++mAt;
            return true;
        }
        return false;
    }
    bool Word(const char* word) {
        const std::string w(word);
        if (mText.compare(mAt, w.size(), w) != 0) return false;
        mAt += w.size();
        return true;
    }
    bool String(std::string& out) {
        if (!Take('"')) return false;
        while (mAt < mText.size() && mText[mAt] != '"') {
            if (mText[mAt] == '\\') {
                if (++mAt >= mText.size()) return false;
                const char e = mText[mAt];
                out += e == 'n' ? '\n' : e == 't' ? '\t' : e;
                if (e == 'u') mAt += 4;  // names in reports are plain ASCII; the code point is not needed
            } else {
                out += mText[mAt];
            }
            ++mAt;
        }
        return mAt++ < mText.size();
    }
    bool Value(Node& node, int depth) {
        if (depth > 32) return false;
        Space();
        if (mAt >= mText.size()) return false;
        const char c = mText[mAt];
        if (c == '{') {
            node.type = Node::Type::Object;
            ++mAt;
            if (Take('}')) return true;
            do {
                std::string key;
                if (!String(key) || !Take(':') || !Value(node.fields[key], depth + 1)) return false;
            } while (Take(','));
            return Take('}');
        }
        if (c == '[') {
            node.type = Node::Type::Array;
            ++mAt;
            if (Take(']')) return true;
            do {
                node.items.emplace_back();
                if (!Value(node.items.back(), depth + 1)) return false;
            } while (Take(','));
            return Take(']');
        }
        if (c == '"') {
            node.type = Node::Type::String;
            std::string ignored;
            return String(ignored);
        }
        if (Word("true") || Word("false")) return (node.type = Node::Type::Bool), true;
        if (Word("null")) return true;
        const std::size_t from = mAt;
        while (mAt < mText.size() && std::strchr("+-.eE0123456789", mText[mAt]) != nullptr)
            ++mAt;
        node.type = Node::Type::Number;
        return ParseNumber(mText.substr(from, mAt - from), node.number);
    }

    const std::string& mText;
    std::size_t mAt = 0;
};

// A report's numbers are whole and within bounds: a channel from 1, a start from 0, a length from 1.
bool Whole(double value, double low) {
    return std::isfinite(value) && value == std::floor(value) && value >= low && value < 9.0e15;
}

Mark MakeMark(double channel, double start, double length, const std::string& path, const std::string& where) {
    if (!Whole(channel, 1) || channel > 1024 || !Whole(start, 0) || !Whole(length, 1))
        throw NotAReport(path, where + " has a channel, start or length that is not a whole number in range");
    return {int(channel), int64_t(start), int64_t(length)};
}

void ParseJson(const std::string& text, const std::string& path, Marks& marks) {
    Node root;
    if (!JsonReader(text).Document(root)) throw NotAReport(path, "it is not valid JSON");
    // kesta declick writes {"sample_rate", "clicks": [...]}, kesta declip an array of runs.
    const bool clicks = root.type == Node::Type::Object && root.fields.count("clicks") != 0;
    const Node* list = clicks ? &root.fields.at("clicks") : &root;
    if (list->type != Node::Type::Array) throw NotAReport(path, "it holds no list of clicks or clipped runs");
    const char* startKey = clicks ? "start_frame" : "start";
    const char* lengthKey = clicks ? "length_frames" : "length";
    for (std::size_t i = 0; i < list->items.size(); ++i) {
        const Node& item = list->items[i];
        const std::string where = "entry " + std::to_string(i + 1);
        const auto number = [&](const char* key) {
            const auto found = item.fields.find(key);
            if (item.type != Node::Type::Object || found == item.fields.end() ||
                found->second.type != Node::Type::Number)
                throw NotAReport(path, where + " has no number \"" + key + "\"");
            return found->second.number;
        };
        (clicks ? marks.clicks : marks.clips)
            .push_back(MakeMark(number("channel"), number(startKey), number(lengthKey), path, where));
    }
}

std::vector<std::string> SplitCsv(const std::string& line) {
    std::vector<std::string> cells;
    std::stringstream stream(line);
    for (std::string cell; std::getline(stream, cell, ',');)
        cells.push_back(cell);
    if (!line.empty() && line.back() == ',') cells.emplace_back();
    return cells;
}

void ParseCsv(const std::string& text, const std::string& path, Marks& marks) {
    std::stringstream stream(text);
    std::string line;
    std::getline(stream, line);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const std::vector<std::string> header = SplitCsv(line);
    const auto column = [&](const std::string& name) {
        for (std::size_t i = 0; i < header.size(); ++i)
            if (header[i] == name) return int(i);
        return -1;
    };
    // kesta declick names its columns start_frame and length_frames, kesta declip start and length.
    const bool clicks = column("start_frame") >= 0;
    const int channel = column("channel"), start = column(clicks ? "start_frame" : "start"),
              length = column(clicks ? "length_frames" : "length");
    if (channel < 0 || start < 0 || length < 0)
        throw NotAReport(path, "its first line names no channel, start and length columns");
    for (int number = 2; std::getline(stream, line); ++number) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty()) continue;
        const std::vector<std::string> cells = SplitCsv(line);
        const std::string where = "line " + std::to_string(number);
        if (cells.size() != header.size()) throw NotAReport(path, where + " has another number of fields");
        double values[3] = {};
        const int indices[3] = {channel, start, length};
        for (int k = 0; k < 3; ++k)
            if (!ParseNumber(cells[std::size_t(indices[k])], values[k]))
                throw NotAReport(path, where + " has " + Quoted(cells[std::size_t(indices[k])]) + " for a number");
        (clicks ? marks.clicks : marks.clips).push_back(MakeMark(values[0], values[1], values[2], path, where));
    }
}

}  // namespace

void ParseMarks(const std::string& text, const std::string& path, Marks& marks) {
    std::size_t first = 0;
    while (first < text.size() && std::isspace(static_cast<unsigned char>(text[first])))
        ++first;
    if (first == text.size()) throw NotAReport(path, "it is empty");
    if (text[first] == '{' || text[first] == '[')
        ParseJson(text, path, marks);
    else
        ParseCsv(text, path, marks);
}

void ReadMarks(const std::string& path, Marks& marks) {
    std::error_code error;
    if (std::filesystem::is_directory(path, error))
        throw InputError("cannot read the marks file " + Quoted(path), "it is a directory", "name a report file");
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    if (file) text << file.rdbuf();
    if (!file || file.bad())
        throw InputError("cannot read the marks file " + Quoted(path), SystemReason(errno), "check the name");
    ParseMarks(text.str(), path, marks);
}

}  // namespace kesta
