#include "tools/lumora/manual/pages.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

std::string Upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::toupper(letter)); });
    return text;
}

// A summary stands in lists; at the head of a text it is a sentence.
std::string Sentence(std::string summary) {
    summary[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(summary[0])));
    return summary + '.';
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
    for (const Option& option : (command == nullptr ? manual.globals : *command).options) {
        if (option.IsArgument()) {
            const std::string word = option.name + (option.repeated ? "..." : "");
            usage += option.required ? ' ' + word : " [" + word + ']';
        }
    }
    return usage;
}

std::string TermOf(const Option& option) {
    const std::string letter = option.letter != 0 ? std::string("-") + option.letter + ", " : "";
    return letter + (option.IsArgument() || option.IsFlag() ? option.name : option.name + ' ' + option.value);
}

Terms TermsOf(const Command& command, bool arguments) {
    Terms terms;
    for (const Option& option : command.options) {
        if (option.IsArgument() == arguments) {
            terms.emplace_back(TermOf(option), option.text);
        }
    }
    return terms;
}

Terms FieldsOf(const Command& command) {
    Terms terms;
    for (const Field& field : command.fields) {
        terms.emplace_back(field.path, field.text);
    }
    return terms;
}

Terms TermsOf(const std::vector<Command>& commands) {
    Terms terms;
    for (const Command& command : commands) {
        terms.emplace_back(command.name, command.summary);
    }
    return terms;
}

// What a page says of its options: titles and terms, of which there may be none.
std::vector<std::pair<std::string, Terms>> OptionSections(const Manual& manual, const Command* command) {
    if (manual.commands.empty()) {
        return {{"Arguments", TermsOf(manual.globals, true)}, {"Options", TermsOf(manual.globals, false)}};
    }
    const std::pair<std::string, Terms> everywhere = {"Options everywhere", TermsOf(manual.globals, false)};
    if (command == nullptr) {
        return {{"Commands", TermsOf(manual.commands)}, everywhere};
    }
    return {{"Arguments", TermsOf(*command, true)}, {"Options", TermsOf(*command, false)}, everywhere};
}

// ---- For --help

std::string Section(const std::string& title, const Terms& terms, std::size_t width) {
    constexpr std::size_t LEAST = 12;
    constexpr std::size_t MARGIN = 2;
    if (terms.empty()) {
        return "";
    }
    // All texts of a section begin in one column.
    std::size_t column = LEAST;
    for (const auto& [term, text] : terms) {
        column = std::max(column, term.size());
    }
    const std::size_t indent = column + 2 * MARGIN;
    std::string section = '\n' + title + ":\n";
    for (const auto& [term, text] : terms) {
        section += std::string(MARGIN, ' ') + term + std::string(indent - MARGIN - term.size(), ' ') +
                   Wrapped(text, indent, width) + '\n';
    }
    return section;
}

std::string ExamplesOf(const Command& command) {
    std::string section;
    for (const Example& example : command.examples) {
        section +=
            (section.empty() ? "\nExamples:\n  " : "  ") + example.line + "\n      " + example.text + '\n';
    }
    return section;
}

// ---- For man

std::string Roff(const std::string& text) {
    std::string escaped;
    for (const char character : text) {
        if (character == '\\') {
            escaped += "\\e";
            // roff prints a plain hyphen as a typographic one, which cannot be copied into a shell.
        } else if (character == '-') {
            escaped += "\\-";
        } else {
            escaped += character;
        }
    }
    // A line that begins with one of these two characters would be a request to roff. "\&" is an empty
    // character.
    const bool command = !escaped.empty() && (escaped[0] == '.' || escaped[0] == '\'');
    return (command ? "\\&" : "") + escaped;
}

std::string RoffSection(const std::string& title, const Terms& terms) {
    std::string section = terms.empty() ? "" : ".SH " + Upper(title) + '\n';
    for (const auto& [term, text] : terms) {
        section += ".TP\n\\fB" + Roff(term) + "\\fR\n" + Roff(text) + '\n';
    }
    return section;
}

std::string RoffExamples(const Command& command) {
    std::string section = command.examples.empty() ? "" : ".SH EXAMPLES\n";
    for (const Example& example : command.examples) {
        section += ".TP\n\\fB" + Roff(example.line) + "\\fR\n" + Roff(example.text) + '\n';
    }
    return section;
}

std::string SeeAlso(const Manual& manual, const Command* command) {
    std::string section = ".SH SEE ALSO\n";
    if (command != nullptr) {
        return section + ".BR " + Roff(manual.globals.name) + " (1)\n";
    }
    for (const Command& other : manual.commands) {
        section += ".BR " + Roff(NameOf(manual, &other, '-')) + " (1)\n";
    }
    for (const std::string& page : manual.related) {
        section += ".BR " + Roff(page) + " (1)\n";
    }
    return section;
}

// ---- For docs/

constexpr std::size_t PAGE_WIDTH = 110;

std::string MarkdownText(const std::string& text) {
    std::string escaped;
    for (const char character : text) {
        escaped += character == '|' ? "\\|" : std::string(1, character);
    }
    return escaped;
}

std::string MarkdownTable(const std::string& head, const Terms& terms) {
    if (terms.empty()) {
        return "";
    }
    std::string table = "| " + head + " | |\n|---|---|\n";
    for (const auto& [term, text] : terms) {
        table += "| `" + MarkdownText(term) + "` | " + MarkdownText(text) + " |\n";
    }
    return table + '\n';
}

// Heading, summary and paragraphs, arguments, options and examples.
std::string MarkdownSection(const Manual& manual, const Command* command) {
    const Command& described = command == nullptr ? manual.globals : *command;
    std::string section = "## " + NameOf(manual, command, ' ') + "\n\n    " + UsageOf(manual, command) +
                          "\n\n" + Wrapped(Sentence(described.summary), 0, PAGE_WIDTH) + "\n\n";
    for (const std::string& paragraph : described.paragraphs) {
        section += Wrapped(paragraph, 0, PAGE_WIDTH) + "\n\n";
    }
    section += MarkdownTable("argument", TermsOf(described, true));
    section += MarkdownTable("option", TermsOf(described, false));
    section += MarkdownTable("field of --json", FieldsOf(described));
    for (const Example& example : described.examples) {
        section += "    " + example.line + "\n\n" + Wrapped(example.text, 0, PAGE_WIDTH) + "\n\n";
    }
    return section;
}

}  // namespace

const Command* CommandNamed(const Manual& manual, const std::string& name) {
    const auto found = std::find_if(manual.commands.begin(), manual.commands.end(),
                                    [&](const Command& command) { return command.name == name; });
    return found != manual.commands.end() ? &*found : nullptr;
}

std::string HelpPage(const Manual& manual, const Command* command, std::size_t width) {
    constexpr std::size_t READABLE = 100;
    width = std::min(width, READABLE);
    const Command& described = command == nullptr ? manual.globals : *command;
    std::string page =
        "Usage: " + UsageOf(manual, command) + "\n\n" + Wrapped(Sentence(described.summary), 0, width) + '\n';
    for (const std::string& paragraph : described.paragraphs) {
        page += '\n' + Wrapped(paragraph, 0, width) + '\n';
    }
    for (const auto& [title, terms] : OptionSections(manual, command)) {
        page += Section(title, terms, width);
    }
    page += Section("Fields of --json", FieldsOf(described), width);
    page += ExamplesOf(described);
    return page + Section("Exit codes", manual.exitCodes, width);
}

std::string ManPage(const Manual& manual, const Command* command) {
    const Command& described = command == nullptr ? manual.globals : *command;
    const std::string name = NameOf(manual, command, '-');
    std::string page =
        ".TH " + Upper(Roff(name)) + " 1 \"\" \"Lumora " LUMORA_VERSION "\" \"User Commands\"\n";
    page += ".SH NAME\n" + Roff(name) + " \\- " + Roff(described.summary) + '\n';
    page += ".SH SYNOPSIS\n\\fB" + Roff(UsageOf(manual, command)) + "\\fR\n.SH DESCRIPTION\n";
    page += Roff(Sentence(described.summary)) + '\n';
    for (const std::string& paragraph : described.paragraphs) {
        page += ".PP\n" + Roff(paragraph) + '\n';
    }
    for (const auto& [title, terms] : OptionSections(manual, command)) {
        page += RoffSection(title, terms);
    }
    page += RoffSection("FIELDS OF --JSON", FieldsOf(described));
    page += RoffExamples(described);
    page += RoffSection("EXIT STATUS", manual.exitCodes);
    return page + RoffSection("ENVIRONMENT", manual.variables) + SeeAlso(manual, command);
}

std::string MarkdownPage(const Manual& manual) {
    std::string page =
        "# The command line\n\n"
        "<!-- Made by the target lumora_pages, from what --help says; a test compares them. -->\n\n" +
        Wrapped(Sentence(manual.globals.summary), 0, PAGE_WIDTH) + "\n\n    " + UsageOf(manual, nullptr) +
        "\n\n";
    for (const std::string& paragraph : manual.globals.paragraphs) {
        page += Wrapped(paragraph, 0, PAGE_WIDTH) + "\n\n";
    }
    page += MarkdownTable("command", TermsOf(manual.commands));
    page += MarkdownTable("option, before or behind the command", TermsOf(manual.globals, false));
    page += MarkdownTable("exit code", manual.exitCodes);
    page += MarkdownTable("variable", manual.variables);
    for (const Command& command : manual.commands) {
        page += MarkdownSection(manual, &command);
    }
    page.pop_back();  // one line end is enough
    return page;
}

std::string MarkdownSection(const Manual& manual) {
    std::string section = '\n' + MarkdownSection(manual, nullptr);
    section += MarkdownTable("exit code", manual.exitCodes);
    section += MarkdownTable("variable", manual.variables);
    section.pop_back();
    return section;
}

}  // namespace lumora_cli
