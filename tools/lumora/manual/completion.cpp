// Completions for the two common shells. Device types and services come from "lumora --print": it asks as a
// node that only looks, which no device and no client notices.
#include "tools/lumora/manual/pages.h"

#include <algorithm>

namespace lumora_cli {

namespace {

std::vector<Option> OptionsOf(const Manual& manual, const Command* command) {
    std::vector<Option> options = manual.globals.options;
    if (command != nullptr) {
        options.insert(options.end(), command->options.begin(), command->options.end());
    }
    return options;
}

std::string Words(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

// "-c | --count"
std::string Spellings(const Option& option, const std::string& between) {
    return (option.letter != 0 ? std::string("-") + option.letter + between : "") + option.name;
}

// Every option that a value follows.
std::string ValuedOptions(const Manual& manual) {
    std::string names;
    for (const Option& option : manual.globals.options) {
        names += option.IsFlag() ? "" : (names.empty() ? "" : " | ") + Spellings(option, " | ");
    }
    for (const Command& command : manual.commands) {
        for (const Option& option : command.options) {
            const std::string spellings = Spellings(option, " | ");
            // A name of several commands stands once in the pattern.
            const bool known = (" | " + names + " | ").find(" | " + spellings + " | ") != std::string::npos;
            names += option.IsArgument() || option.IsFlag() || known ? "" : " | " + spellings;
        }
    }
    return names;
}

std::vector<std::string> CommandNames(const Manual& manual) {
    std::vector<std::string> names;
    for (const Command& command : manual.commands) {
        names.push_back(command.name);
    }
    return names;
}

// ---- bash

std::string BashAnswer(const Option& option) {
    if (!option.choices.empty()) {
        return "mapfile -t COMPREPLY < <(compgen -W '" + Words(option.choices) + "' -- \"$word\")";
    }
    // What cannot be known when the script is written is asked for when TAB is pressed.
    switch (option.offer) {
        case Option::Offer::FILES:
            return "compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- \"$word\")";
        case Option::Offer::FOLDERS:
            return "compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- \"$word\")";
        case Option::Offer::INTERFACES:
            return "mapfile -t COMPREPLY < <(compgen -W \"$(ls /sys/class/net 2>/dev/null)\" -- \"$word\")";
        case Option::Offer::TYPES:
            return "mapfile -t COMPREPLY < <(compgen -W \"$(lumora --print types 2>/dev/null)\" -- "
                   "\"$word\")";
        case Option::Offer::SERVICES:
            return "mapfile -t COMPREPLY < <(compgen -W \"$(lumora --print services \"$type\" 2>/dev/null)\" "
                   "-- \"$word\")";
        case Option::Offer::NOTHING:
            break;
    }
    return "COMPREPLY=()";
}

// What may follow an option, and what an option may be.
std::string BashCase(const Manual& manual, const Command* command) {
    std::vector<std::string> names = {"--help"};
    std::string values;
    std::string arguments;
    int position = 0;
    for (const Option& option : OptionsOf(manual, command)) {
        if (option.IsArgument()) {
            const std::string place = option.repeated ? "*" : std::to_string(position++);
            // A repeated argument takes all further positions.
            arguments += "                " + place + ") " + BashAnswer(option) + " ;;\n";
            continue;
        }
        names.push_back(option.name);
        if (!option.IsFlag()) {
            values += "            " + Spellings(option, " | ") + ") " + BashAnswer(option) + "; return ;;\n";
        }
    }
    return "        case $before in\n" + values + "        esac\n" + "        case $word in\n" +
           "            -*) mapfile -t COMPREPLY < <(compgen -W '" + Words(names) + "' -- \"$word\") ;;\n" +
           "            *) case $position in\n" + arguments + "            esac ;;\n        esac\n";
}

// ---- zsh

std::string ZshQuoted(const std::string& text) {
    std::string quoted;
    for (const char character : text) {
        switch (character) {
            case '\'':
                quoted += "'\\''";
                break;
            // These characters separate the parts of an option in _arguments.
            case '[':
            case ']':
            case ':':
            case '\\':
                quoted += '\\';
                quoted += character;
                break;
            default:
                quoted += character;
        }
    }
    return quoted;
}

std::string ZshAction(const Option& option) {
    if (!option.choices.empty()) {
        return '(' + Words(option.choices) + ')';
    }
    switch (option.offer) {
        case Option::Offer::FILES:
            return "_files";
        case Option::Offer::FOLDERS:
            return "_files -/";
        case Option::Offer::INTERFACES:
            return "_net_interfaces";
        case Option::Offer::TYPES:
            return "{compadd -- ${(f)\"$(lumora --print types 2>/dev/null)\"}}";
        case Option::Offer::SERVICES:
            return "{compadd -- ${(f)\"$(lumora --print services ${words[2]} 2>/dev/null)\"}}";
        case Option::Offer::NOTHING:
            break;
    }
    return " ";
}

// A list has room for the beginning of what there is to say.
std::string Beginning(const std::string& text) {
    std::size_t end = text.size();
    for (const char* const pause : {"; ", ". ", ": "}) {
        end = std::min(end, text.find(pause));
    }
    return text.substr(0, end);
}

std::string ZshSpec(const Option& option) {
    const std::string follows = ':' + option.value + ':' + ZshAction(option);
    if (option.IsArgument()) {
        return '\'' + std::string(option.repeated ? "*" : option.required ? "" : ":") + follows + '\'';
    }
    const std::string about =
        '[' + ZshQuoted(Beginning(option.text)) + ']' + (option.IsFlag() ? "" : follows) + '\'';
    if (option.letter != 0 && !option.repeated) {
        const std::string letter = std::string("-") + option.letter;
        return "'(" + letter + ' ' + option.name + ")'{" + letter + ',' + option.name + "}'" + about;
    }
    return '\'' + std::string(option.repeated ? "*" : "") + option.name + about;
}

std::string ZshArguments(const Manual& manual, const Command* command, const std::string& indent) {
    std::string arguments;
    for (const Option& option : OptionsOf(manual, command)) {
        arguments += " \\\n" + indent + ZshSpec(option);
    }
    return "'(- *)--help[show how it is used]'" + arguments;
}

}  // namespace

std::string BashCompletion(const Manual& manual) {
    std::string script =
        "# bash completion for lumora\n"
        "_lumora() {\n"
        "    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}\n"
        "    local command='' type='' position=-1 i\n"
        "    COMPREPLY=()\n"
        "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
        "        case ${COMP_WORDS[i]} in\n"
        "            " +
        ValuedOptions(manual) +
        ") i=$((i + 1)) ;;\n"
        "            -?*) ;;\n"
        "            *)\n"
        "                case $position in\n"
        "                    -1) command=${COMP_WORDS[i]} ;;\n"
        "                    0) type=${COMP_WORDS[i]} ;;\n"
        "                esac\n"
        "                position=$((position + 1)) ;;\n"
        "        esac\n"
        "    done\n"
        "    case $command in\n"
        "    '')\n" +
        BashCase(manual, nullptr) + "        [[ $word == -* ]] || mapfile -t COMPREPLY < <(compgen -W '" +
        Words(CommandNames(manual)) + "' -- \"$word\")\n        ;;\n";
    for (const Command& command : manual.commands) {
        script += "    " + command.name + ")\n" + BashCase(manual, &command) + "        ;;\n";
    }
    return script + "    esac\n}\ncomplete -F _lumora lumora\n";
}

std::string ZshCompletion(const Manual& manual) {
    std::string script =
        "#compdef lumora\n"
        "_lumora() {\n"
        "    local context state state_descr line\n"
        "    typeset -A opt_args\n"
        "    _arguments -C " +
        ZshArguments(manual, nullptr, "        ") +
        " \\\n        '1:command:->command' '*::argument:->argument'\n"
        "    case $state in\n"
        "    command)\n"
        "        local -a commands\n"
        "        commands=(";
    for (const Command& command : manual.commands) {
        script += "\n            '" + command.name + ':' + ZshQuoted(command.summary) + '\'';
    }
    script +=
        ")\n"
        "        _describe command commands ;;\n"
        "    argument)\n"
        "        case ${line[1]} in\n";
    for (const Command& command : manual.commands) {
        script += "        " + command.name + ")\n            _arguments " +
                  ZshArguments(manual, &command, "                ") + " ;;\n";
    }
    return script + "        esac ;;\n    esac\n}\n_lumora \"$@\"\n";
}

}  // namespace lumora_cli
