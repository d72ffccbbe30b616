// Help texts, manual pages and Markdown, made from the descriptions of the commands.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tools/lumora/manual/command.h"

namespace lumora_cli {

// Words and what they mean, in the order of the page.
using Terms = std::vector<std::pair<std::string, std::string>>;

struct Manual {
    Command globals;                // of a program without commands, all that there is
    std::vector<Command> commands;  // may be none
    Terms exitCodes;
    Terms variables;
    std::vector<std::string> related;  // other pages
};

// Null if there is none of that name.
const Command* CommandNamed(const Manual& manual, const std::string& name);

// --help. A null command means the whole program.
std::string HelpPage(const Manual& manual, const Command* command, std::size_t width);

// Pages for man(1): lumora.1, and one lumora-COMMAND.1 for each command.
std::string ManPage(const Manual& manual, const Command* command);

// docs/generated/cli.md: its page, and a section for a program without commands.
std::string MarkdownPage(const Manual& manual);
std::string MarkdownSection(const Manual& manual);

}  // namespace lumora_cli
