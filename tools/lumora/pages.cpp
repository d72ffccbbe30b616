#include "pages.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "text.h"

namespace lumora_cli {

namespace {

const std::pair<const char*, const char*> EXIT_CODES[] = {
    {"0", "it was done; also when an endless command (find --watch, subscribe, serve) was ended by a signal"},
    {"1", "something failed that no other number stands for; of doctor: something is wrong"},
    {"2", "the command line means nothing, or asks for what cannot be"},
    {"3", "no such device was found, or none with that service"},
    {"4", "the device or the network refused, or the device has left"},
    {"5", "what was waited for did not come in time"},
    {"6", "a file or standard output could not be read or written"},
    {"128+N", "signal N ended it early: 130 is Ctrl-C, 141 that the reader of its output has left"},
};

const std::pair<const char*, const char*> VARIABLES[] = {
    {"LUMORA_LINK_INTERFACE", "the network interfaces; --interface sets it"},
    {"LUMORA_LOG_LEVEL", "what the libraries log; --log sets it, and nothing is logged where neither does"},
    {"NO_COLOR", "not empty: no colours on a terminal either"},
};

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

std::string UsageOf(const Command* command) {
    if (command == nullptr) {
        return "lumora [OPTION...] COMMAND [...]";
    }
    std::string usage = "lumora " + command->name + " [OPTION...]";
    for (const Option& option : command->options) {
        if (option.IsArgument()) {
            const std::string word = option.name + (option.repeated ? "..." : "");
            usage += option.required ? ' ' + word : " [" + word + ']';
        }
    }
    return usage;
}

std::string TermOf(const Option& option) {
    return option.IsArgument() || option.IsFlag() ? option.name : option.name + ' ' + option.value;
}

using Terms = std::vector<std::pair<std::string, std::string>>;

Terms TermsOf(const Command& command, bool arguments) {
    Terms terms;
    for (const Option& option : command.options) {
        if (option.IsArgument() == arguments) {
            terms.emplace_back(TermOf(option), option.text);
        }
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

template <std::size_t COUNT>
Terms TermsOf(const std::pair<const char*, const char*> (&table)[COUNT]) {
    return Terms(std::begin(table), std::end(table));
}

// ---- For --help

std::string Section(const std::string& title, const Terms& terms, std::size_t width) {
    constexpr std::size_t LEAST = 12;
    constexpr std::size_t MARGIN = 2;
    if (terms.empty()) {
        return "";
    }
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
        } else if (character == '-') {
            escaped += "\\-";
        } else {
            escaped += character;
        }
    }
    const bool command = !escaped.empty() && (escaped[0] == '.' || escaped[0] == '\'');
    return (command ? "\\&" : "") + escaped;
}

std::string RoffSection(const std::string& title, const Terms& terms) {
    std::string section = terms.empty() ? "" : ".SH " + title + '\n';
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
        return section + ".BR lumora (1)\n";
    }
    for (const Command& other : manual.commands) {
        section += ".BR " + Roff("lumora-" + other.name) + " (1)\n";
    }
    return section;
}

// ---- For docs/

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

std::string MarkdownSection(const Command& command) {
    constexpr std::size_t WIDTH = 110;
    std::string section = "## lumora " + command.name + "\n\n    " + UsageOf(&command) + "\n\n" +
                          Wrapped(Sentence(command.summary), 0, WIDTH) + "\n\n";
    for (const std::string& paragraph : command.paragraphs) {
        section += Wrapped(paragraph, 0, WIDTH) + "\n\n";
    }
    section += MarkdownTable("argument", TermsOf(command, true));
    section += MarkdownTable("option", TermsOf(command, false));
    for (const Example& example : command.examples) {
        section += "    " + example.line + "\n\n" + Wrapped(example.text, 0, WIDTH) + "\n\n";
    }
    return section;
}

}  // namespace

std::string HelpPage(const Manual& manual, const Command* command, std::size_t width) {
    constexpr std::size_t READABLE = 100;
    width = std::min(width, READABLE);
    const Command& described = command == nullptr ? manual.globals : *command;
    std::string page =
        "Usage: " + UsageOf(command) + "\n\n" + Wrapped(Sentence(described.summary), 0, width) + '\n';
    for (const std::string& paragraph : described.paragraphs) {
        page += '\n' + Wrapped(paragraph, 0, width) + '\n';
    }
    if (command == nullptr) {
        page += Section("Commands", TermsOf(manual.commands), width);
    } else {
        page += Section("Arguments", TermsOf(*command, true), width);
        page += Section("Options", TermsOf(*command, false), width);
    }
    page += Section("Everywhere", TermsOf(manual.globals, false), width);
    page += ExamplesOf(described);
    return page + Section("Exit codes", TermsOf(EXIT_CODES), width);
}

std::string ManPage(const Manual& manual, const Command* command) {
    const Command& described = command == nullptr ? manual.globals : *command;
    const std::string name = command == nullptr ? "lumora" : "lumora-" + command->name;
    std::string page =
        ".TH " + Upper(Roff(name)) + " 1 \"\" \"Lumora " LUMORA_VERSION "\" \"User Commands\"\n";
    page += ".SH NAME\n" + Roff(name) + " \\- " + Roff(described.summary) + '\n';
    page += ".SH SYNOPSIS\n\\fB" + Roff(UsageOf(command)) + "\\fR\n.SH DESCRIPTION\n";
    page += Roff(Sentence(described.summary)) + '\n';
    for (const std::string& paragraph : described.paragraphs) {
        page += ".PP\n" + Roff(paragraph) + '\n';
    }
    if (command == nullptr) {
        page += RoffSection("COMMANDS", TermsOf(manual.commands));
    } else {
        page += RoffSection("ARGUMENTS", TermsOf(*command, true));
        page += RoffSection("OPTIONS", TermsOf(*command, false));
    }
    page += RoffSection("OPTIONS EVERYWHERE", TermsOf(manual.globals, false));
    page += RoffExamples(described);
    page += RoffSection("EXIT STATUS", TermsOf(EXIT_CODES));
    return page + RoffSection("ENVIRONMENT", TermsOf(VARIABLES)) + SeeAlso(manual, command);
}

std::string MarkdownPage(const Manual& manual) {
    constexpr std::size_t WIDTH = 110;
    std::string page =
        "# The command line\n\n"
        "<!-- Made by the target lumora_pages, from what --help says; a test compares them. -->\n\n" +
        Wrapped(Sentence(manual.globals.summary), 0, WIDTH) + "\n\n    " + UsageOf(nullptr) + "\n\n";
    for (const std::string& paragraph : manual.globals.paragraphs) {
        page += Wrapped(paragraph, 0, WIDTH) + "\n\n";
    }
    page += MarkdownTable("command", TermsOf(manual.commands));
    page += MarkdownTable("option, before or behind the command", TermsOf(manual.globals, false));
    page += MarkdownTable("exit code", TermsOf(EXIT_CODES));
    page += MarkdownTable("variable", TermsOf(VARIABLES));
    for (const Command& command : manual.commands) {
        page += MarkdownSection(command);
    }
    page.pop_back();  // one line end is enough
    return page;
}

}  // namespace lumora_cli
