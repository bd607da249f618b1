#pragma once
// Columns of text lined up for a terminal: each column as wide as its widest cell, left- or
// right-aligned, two spaces apart, no trailing spaces.

#include <ostream>
#include <string>
#include <vector>

namespace kesta {

class TextTable {
public:
    enum class Align { Left, Right };

    void AddColumn(std::string heading, Align align = Align::Left);
    void AddRow(std::vector<std::string> cells);
    void Print(std::ostream& out) const;

private:
    std::vector<std::string> mHeadings;
    std::vector<Align> mAligns;
    std::vector<std::vector<std::string>> mRows;
};

}  // namespace kesta
