#include "text_table.h"

#include <algorithm>

namespace kesta {

void TextTable::AddColumn(std::string heading, Align align) {
    mHeadings.push_back(std::move(heading));
    mAligns.push_back(align);
}

void TextTable::AddRow(std::vector<std::string> cells) {
    cells.resize(mHeadings.size());
    mRows.push_back(std::move(cells));
}

void TextTable::Print(std::ostream& out) const {
    std::vector<std::size_t> widths(mHeadings.size());
    for (std::size_t c = 0; c < mHeadings.size(); ++c) {
        widths[c] = mHeadings[c].size();
        for (const auto& row : mRows)
            widths[c] = std::max(widths[c], row[c].size());
    }
    const auto printRow = [&](const std::vector<std::string>& cells) {
        std::string line;
        for (std::size_t c = 0; c < cells.size(); ++c) {
            const std::string pad(widths[c] - cells[c].size(), ' ');
            if (c > 0) line += "  ";
            line += mAligns[c] == Align::Right ? pad + cells[c] : cells[c] + pad;
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out << line << '\n';
    };
    printRow(mHeadings);
    for (const auto& row : mRows)
        printRow(row);
}

}  // namespace kesta
