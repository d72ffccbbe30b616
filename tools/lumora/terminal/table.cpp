#include "tools/lumora/terminal/table.h"

#include <unistd.h>

#include <algorithm>

#include "tools/lumora/terminal/terminal.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

constexpr std::size_t GAP = 2;

// Characters, not bytes.
std::size_t Columns(const std::string& text) {
    // Counts the bytes that begin a UTF-8 character. Wide characters count as one.
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
        return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U;
    }));
}

}  // namespace

std::string Table::Text() const {
    std::vector<std::size_t> widths(mRows.front().size());
    for (const std::vector<std::string>& row : mRows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], Columns(OneLine(row[i])));
        }
    }
    std::string text;
    for (const std::vector<std::string>& row : mRows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            const std::string cell = OneLine(row[i]);
            // No blanks at the end of a line.
            const bool last = i + 1 == row.size();
            line += cell + (last ? "" : std::string(widths[i] + GAP - Columns(cell), ' '));
        }
        text += (&row == &mRows.front() ? Coloured(line, Colour::BOLD, STDOUT_FILENO) : line) + '\n';
    }
    return text;
}

}  // namespace lumora_cli
