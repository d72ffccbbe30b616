// What is made from the descriptions of the commands: parser, help texts, manual pages, completions.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tools/lumora/manual/command.h"

namespace lumora_cli {

struct Manual {
    Command globals;                // of a program without commands, all that there is
    std::vector<Command> commands;  // may be none
    Terms exitCodes;
    Terms variables;
    std::vector<std::string> related;  // other pages
};

// Null if there is none of that name.
const Command* CommandNamed(const Manual& manual, const std::string& name);

// The global ones, and those of a command unless it is null.
std::vector<const Option*> OptionsOf(const Manual& manual, const Command* command);

// --help. A null command means the whole program.
std::string HelpPage(const Manual& manual, const Command* command, std::size_t width);

// Pages for man(1): lumora.1, and one lumora-COMMAND.1 for each command.
std::string ManPage(const Manual& manual, const Command* command);

// docs/generated/cli.md: what --help shows. A program without commands is a section at its end.
std::string MarkdownPage(const Manual& manual);

// Looks up names that are known only when TAB is pressed. The type is that of the device whose services are
// asked for.
using LookUp = std::function<std::vector<std::string>(Option::Offer offer, const std::string& type)>;

// What the scripts lumora.bash and _lumora offer. The words are those behind the program's name, up to the
// one to complete. The first line of the result is "words", "files" or "folders". After "words" each line has
// a word, a tab and its meaning. The shell leaves out words with another beginning.
std::string Completions(const Manual& manual, const std::vector<std::string>& words, const LookUp& lookUp);

enum class Page { NONE, HELP, VERSION };

struct Choice {
    const Command* command = nullptr;  // null: none was named
    Page page = Page::NONE;            // what is asked for instead of running it
};

// From the words of the command line to the variables of a command. Throws a Failure for words that mean
// nothing.
Choice ParseCommandLine(const Manual& manual, int count, const char* const* words);

}  // namespace lumora_cli
