// Everything that is written about the commands, made from what they say of themselves.
#pragma once

#include <string>
#include <vector>

#include "command.h"

namespace lumora_cli {

struct Manual {
    Command globals;
    std::vector<Command> commands;
};

// --help; of the whole program where command is null.
std::string HelpPage(const Manual& manual, const Command* command, std::size_t width);

// Pages for man(1): lumora.1, and one lumora-COMMAND.1 for each command.
std::string ManPage(const Manual& manual, const Command* command);

// docs/cli.md
std::string MarkdownPage(const Manual& manual);

std::string BashCompletion(const Manual& manual);
std::string ZshCompletion(const Manual& manual);

}  // namespace lumora_cli
