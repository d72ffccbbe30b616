// Writes what is made from the options of lumora-hub: its manual page, its completions, an example of its
// file.
//
//   lumora_hub_pages man TEMPLATE|bash TEMPLATE|zsh TEMPLATE|toml
//
// A line "@OPTIONS@" of TEMPLATE stands for the options.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "hub/core/face.h"
#include "hub/options.h"

namespace lumora_hub {

namespace {

const char MARK[] = "@OPTIONS@";

struct Word {
    std::string name;      // "--idle"
    std::string value;     // "SECONDS"; empty for a flag
    std::string standard;  // the default, empty if there is none to show
    std::string text;
    std::string group;
    bool repeated = false;
};

std::string Lower(const std::string& text) { return CLI::detail::to_lower(text); }

// CLI11 shows its own words for -h, and appends what it checks to the type: "SECONDS:FLOAT in [0 - 86400]".
Word WordOf(const CLI::Option& option) {
    Word word;
    word.name = "--" + option.get_lnames().front();
    word.text = word.name == "--help"      ? "shows the options"
                : word.name == "--version" ? "shows the version"
                                           : option.get_description();
    word.text.front() = Lower(word.text.substr(0, 1)).front();
    word.group = option.get_group();
    if (option.get_items_expected_max() == 0 || word.name == "--help" || word.name == "--version") {
        return word;
    }
    const std::string type = option.get_type_name();
    const std::size_t checks = std::min(type.find(":INT in"), type.find(":FLOAT in"));
    word.value = word.name == "--config" ? "FILE" : type.substr(0, checks);
    // The name of this host is no part of a document.
    word.standard = word.name == "--mqtt-name" ? "the host's name" : option.get_default_str();
    word.repeated = option.get_items_expected_max() > 1;
    if (word.repeated && word.standard.size() > 1) {
        word.standard = word.standard.substr(1, word.standard.size() - 2);  // CLI11 adds brackets
    }
    return word;
}

std::vector<Word> WordsOf(const CLI::App& app) {
    std::vector<Word> words;
    for (const CLI::Option* const option : app.get_options()) {
        words.push_back(WordOf(*option));
    }
    // The order of the faces is that in which they start.
    std::stable_sort(words.begin(), words.end(), [](const Word& one, const Word& other) {
        return one.group == "Options" && other.group != "Options";
    });
    return words;
}

std::string Escaped(const std::string& text, const std::string& characters) {
    std::string escaped;
    for (const char character : text) {
        escaped += characters.find(character) != std::string::npos ? std::string("\\") + character
                                                                   : std::string(1, character);
    }
    return escaped;
}

// roff prints a plain hyphen as a typographic one, which cannot be copied into a shell.
std::string Roff(const std::string& text) { return Escaped(text, "-"); }

std::string RoffOptions(const std::vector<Word>& words) {
    std::string page;
    std::string group;
    for (const Word& word : words) {
        if (word.group != group) {
            group = word.group;
            page += group == "Options" ? "" : ".SS " + group + '\n';
        }
        page += ".TP\n\\fB" + Roff(word.name) + "\\fR" +
                (word.value.empty() ? "" : " \\fI" + Roff(word.value) + "\\fR") + '\n' + Roff(word.text) +
                (word.standard.empty() ? "" : " (" + Roff(word.standard) + ')') + '\n';
    }
    return page;
}

std::string BashOptions(const std::vector<Word>& words) {
    std::string names;
    std::string files;
    std::string valued;
    for (const Word& word : words) {
        names += ' ' + word.name;
        if (!word.value.empty()) {
            (word.value == "FILE" ? files : valued) +=
                (word.value == "FILE" && files.empty()) || (word.value != "FILE" && valued.empty())
                    ? word.name
                    : " | " + word.name;
        }
    }
    return "    case $before in\n        " + files +
           ") compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- \"$word\") ;;\n        " + valued +
           ") ;;\n        *) mapfile -t COMPREPLY < <(compgen -W '" + names.substr(1) +
           "' -- \"$word\") ;;\n    esac\n";
}

std::string ZshOptions(const std::vector<Word>& words) {
    std::string lines;
    for (const Word& word : words) {
        std::string line = (word.repeated ? "'*" : "'") + word.name + '[' + Escaped(word.text, "[]:\\") + ']';
        line += word.value.empty() ? "" : ':' + Escaped(word.value, "[]:\\") + ':';
        line += word.value == "FILE" ? "_files" : "";
        lines += " \\\n        " + line + '\'';
    }
    return "    _arguments -s" + lines + '\n';
}

// What every option is unless the file says otherwise.
std::string Example(const std::vector<Word>& words) {
    std::string file =
        "# Options of lumora-hub, for /etc/lumora/hub.toml. Remove a # to set one. The values are the "
        "defaults, or\n"
        "# examples. See lumora-hub(1).\n";
    for (const Word& word : words) {
        const std::string name = word.name.substr(2);
        if (name == "help" || name == "version" || name == "config") {
            continue;
        }
        const bool isNumber =
            !word.standard.empty() && word.standard.find_first_not_of("0123456789") == std::string::npos;
        const std::string quoted = '"' + (word.standard.empty() ? word.value : word.standard) + '"';
        const std::string value = word.value.empty() ? "true" : isNumber ? word.standard : quoted;
        file +=
            "\n# " + word.text + "\n#" + name + " = " + (word.repeated ? "[" + value + "]" : value) + '\n';
    }
    return file;
}

std::string Filled(const char* path, const std::string& options) {
    std::ifstream file(path);
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const std::string line = std::string(MARK) + '\n';
    const std::size_t at = text.find(line);
    if (at == std::string::npos) {
        throw std::runtime_error(std::string(path) + " has no line " + MARK);
    }
    return text.replace(at, line.size(), options);
}

std::string PageOf(const std::string& what, const char* path) {
    CLI::App app;
    ProgramOptions options;
    const std::vector<std::unique_ptr<Face>> faces = MakeFaces();
    AddProgramOptions(app, options, faces);
    const std::vector<Word> words = WordsOf(app);
    if (what == "toml") {
        return Example(words);
    }
    if (path != nullptr && what == "man") {
        return Filled(path, RoffOptions(words));
    }
    if (path != nullptr && what == "bash") {
        return Filled(path, BashOptions(words));
    }
    if (path != nullptr && what == "zsh") {
        return Filled(path, ZshOptions(words));
    }
    throw std::runtime_error("man, bash and zsh with a template, or toml");
}

}  // namespace

}  // namespace lumora_hub

int main(int count, char** words) {
    try {
        const std::string page =
            lumora_hub::PageOf(count > 1 ? words[1] : "", count > 2 ? words[2] : nullptr);
        std::fputs(page.c_str(), stdout);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "lumora_hub_pages: %s\n", error.what());
    }
    return 1;
}
