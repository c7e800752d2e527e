#include "cli/Table.h"

#include "cli/Console.h"
#include "cli/TerminalText.h"

#include <algorithm>

namespace velmora::Table {

namespace {

std::string padded(const std::string& text, std::size_t width) {
    const std::size_t cells = TerminalText::width(text);
    return text + std::string(cells < width ? width - cells : 0, ' ');
}

} // namespace

void print(std::vector<std::vector<std::string>> rows, Console& console) {
    std::vector<std::size_t> widths(rows.front().size());
    for (auto& row : rows)
        for (std::size_t c = 0; c < row.size(); ++c) {
            row[c] = TerminalText::printable(row[c]);
            widths[c] = std::max(widths[c], TerminalText::width(row[c]));
        }
    for (std::size_t r = 0; r < rows.size(); ++r) {
        std::string line;
        for (std::size_t c = 0; c + 1 < rows[r].size(); ++c)
            line += padded(rows[r][c], widths[c] + 2);
        line += rows[r].back();
        line.erase(line.find_last_not_of(' ') + 1);
        console.print(r == 0 ? console.toned(line, Console::Tone::bold) : line);
    }
}

} // namespace velmora::Table
