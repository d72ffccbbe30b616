// The same sections for --help and man(1).
#include <algorithm>
#include <cctype>
#include <utility>

#include "tools/lumora/manual/manual.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

constexpr std::size_t READABLE = 100;
constexpr char EXIT_CODES[] = "Exit codes";

std::string Upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::toupper(letter)); });
    return text;
}

const Command& Described(const Manual& manual, const Command* command) {
    return command == nullptr ? manual.globals : *command;
}

// "lumora", "lumora find": as it is called, and joined by '-' as its page is.
std::string NameOf(const Manual& manual, const Command* command, char between) {
    const std::string& program = manual.globals.name;
    return command == nullptr ? program : program + between + command->name;
}

std::string UsageOf(const Manual& manual, const Command* command) {
    std::string usage = NameOf(manual, command, ' ') + " [OPTION...]";
    if (command == nullptr && !manual.commands.empty()) {
        return usage + " COMMAND [...]";
    }
    for (const Option& option : Described(manual, command).options) {
        if (option.IsArgument()) {
            const std::string word = option.name + (option.repeated ? "..." : "");
            usage += option.required ? ' ' + word : " [" + word + ']';
        }
    }
    return usage;
}

// The summary stands in lists; at the head of a text it is a sentence.
std::vector<std::string> ParagraphsOf(const Command& command) {
    std::vector<std::string> paragraphs = command.paragraphs;
    paragraphs.insert(paragraphs.begin(),
                      Upper(command.summary.substr(0, 1)) + command.summary.substr(1) + '.');
    return paragraphs;
}

Terms TermsOf(const Command& command, bool arguments) {
    Terms terms;
    for (const Option& option : command.options) {
        if (option.IsArgument() == arguments) {
            const std::string letter = option.letter != 0 ? std::string("-") + option.letter + ", " : "";
            const bool valued = !option.IsArgument() && !option.IsFlag();
            terms.emplace_back(letter + option.name + (valued ? ' ' + option.value : ""), option.text);
        }
    }
    return terms;
}

// Titles and terms.
std::vector<std::pair<std::string, Terms>> SectionsOf(const Manual& manual, const Command* command) {
    const Command& described = Described(manual, command);
    const bool everywhere = command != nullptr || !manual.commands.empty();
    Terms commands;
    for (const Command& one : command == nullptr ? manual.commands : std::vector<Command>()) {
        commands.emplace_back(one.name, one.summary);
    }
    std::vector<std::pair<std::string, Terms>> sections = {
        {"Commands", commands},
        {"Arguments", TermsOf(described, true)},
        {"Options", command == nullptr && everywhere ? Terms() : TermsOf(described, false)},
        {"Options everywhere", everywhere ? TermsOf(manual.globals, false) : Terms()},
        {"Fields of --json", described.fields},
        {"Examples", described.examples},
        {EXIT_CODES, manual.exitCodes},
        {"Environment", manual.variables}};
    sections.erase(std::remove_if(sections.begin(), sections.end(),
                                  [](const auto& section) { return section.second.empty(); }),
                   sections.end());
    return sections;
}

std::string HelpSection(const Terms& terms, std::size_t width) {
    constexpr std::size_t LEAST = 12;
    constexpr std::size_t MOST = 32;
    constexpr std::size_t MARGIN = 2;
    // All texts of a section begin in one column, beside their terms or below them.
    std::size_t column = LEAST;
    for (const auto& [term, text] : terms) {
        column = std::max(column, term.size());
    }
    const bool below = column > MOST;
    const std::size_t indent = below ? 3 * MARGIN : column + 2 * MARGIN;
    std::string section;
    for (const auto& [term, text] : terms) {
        section += std::string(MARGIN, ' ') + term;
        section += below ? '\n' + std::string(indent, ' ') : std::string(indent - MARGIN - term.size(), ' ');
        section += Wrapped(text, indent, width) + '\n';
    }
    return section;
}

std::string Roff(const std::string& text) {
    // A line that begins with one of these two characters would be a request to roff. "\&" is an empty
    // character.
    std::string escaped = text[0] == '.' || text[0] == '\'' ? "\\&" : "";
    for (const char character : text) {
        // roff prints a plain hyphen as a typographic one, which cannot be copied into a shell.
        escaped += character == '\\' ? "\\e" : character == '-' ? "\\-" : std::string(1, character);
    }
    return escaped;
}

}  // namespace

const Command* CommandNamed(const Manual& manual, const std::string& name) {
    const auto found = std::find_if(manual.commands.begin(), manual.commands.end(),
                                    [&](const Command& command) { return command.name == name; });
    return found != manual.commands.end() ? &*found : nullptr;
}

std::vector<const Option*> OptionsOf(const Manual& manual, const Command* command) {
    std::vector<const Option*> options;
    for (const Command* const one : {&manual.globals, command}) {
        for (std::size_t i = 0; one != nullptr && i < one->options.size(); ++i) {
            options.push_back(&one->options[i]);
        }
    }
    return options;
}

std::string HelpPage(const Manual& manual, const Command* command, std::size_t width) {
    width = std::min(width, READABLE);
    std::string page = "Usage: " + UsageOf(manual, command) + '\n';
    for (const std::string& paragraph : ParagraphsOf(Described(manual, command))) {
        page += '\n' + Wrapped(paragraph, 0, width) + '\n';
    }
    for (const auto& [title, terms] : SectionsOf(manual, command)) {
        page += '\n' + title + ":\n" + HelpSection(terms, width);
    }
    return page;
}

std::string ManPage(const Manual& manual, const Command* command) {
    const std::string name = Roff(NameOf(manual, command, '-'));
    std::string page = ".TH " + Upper(name) + " 1 \"\" \"Lumora " LUMORA_VERSION "\" \"User Commands\"\n";
    page += ".SH NAME\n" + name + " \\- " + Roff(Described(manual, command).summary) + '\n';
    page += ".SH SYNOPSIS\n\\fB" + Roff(UsageOf(manual, command)) + "\\fR\n";
    const char* before = ".SH DESCRIPTION\n";
    for (const std::string& paragraph : ParagraphsOf(Described(manual, command))) {
        page += before + Roff(paragraph) + '\n';
        before = ".PP\n";
    }
    for (const auto& [title, terms] : SectionsOf(manual, command)) {
        page += ".SH " + (title == EXIT_CODES ? "EXIT STATUS" : Upper(title)) + '\n';
        for (const auto& [term, text] : terms) {
            page += ".TP\n\\fB" + Roff(term) + "\\fR\n" + Roff(text) + '\n';
        }
    }
    std::vector<std::string> others = {manual.globals.name};
    if (command == nullptr) {
        others = manual.related;
        for (auto other = manual.commands.rbegin(); other != manual.commands.rend(); ++other) {
            others.insert(others.begin(), NameOf(manual, &*other, '-'));
        }
    }
    page += ".SH SEE ALSO\n";
    for (const std::string& other : others) {
        page += ".BR " + Roff(other) + " (1)\n";
    }
    return page;
}

std::string MarkdownPage(const Manual& manual) {
    const auto section = [&manual](const Command* command) {
        return "\n## " + NameOf(manual, command, ' ') + "\n\n```\n" + HelpPage(manual, command, READABLE) +
               "```\n";
    };
    std::string page = manual.commands.empty() ? ""
                                               : "# The command line\n\n"
                                                 "<!-- Made by the target lumora_pages, from what --help "
                                                 "says; a test compares them. -->\n";
    page += section(nullptr);
    for (const Command& command : manual.commands) {
        page += section(&command);
    }
    return page;
}

}  // namespace lumora_cli
