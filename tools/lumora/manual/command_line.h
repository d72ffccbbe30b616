// From the words of the command line to the variables of a command.
#pragma once

#include <vector>

#include "tools/lumora/manual/command.h"

namespace lumora_cli {

enum class Page { NONE, HELP, VERSION };

struct Choice {
    const Command* command = nullptr;  // null: none was named
    Page page = Page::NONE;            // what is asked for instead of running it
};

// Throws a Failure for words that mean nothing.
Choice ParseCommandLine(int count, const char* const* words, Command& globals,
                        std::vector<Command>& commands);

}  // namespace lumora_cli
