// Columns for people.
#pragma once

#include <string>
#include <vector>

namespace lumora_cli {

class Table {
public:
    explicit Table(std::vector<std::string> head) { mRows.push_back(std::move(head)); }

    void AddRow(std::vector<std::string> cells) { mRows.push_back(std::move(cells)); }
    // The head is bold on a terminal.
    std::string Text() const;

private:
    std::vector<std::vector<std::string>> mRows;
};

}  // namespace lumora_cli
