// Words for the parser of CLI11, and what is said of words that it does not take.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <string>

#include "tools/lumora/manual/manual.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

// What is wrong with words that no option and no argument takes.
Failure UnknownWords(const std::vector<std::string>& words, const std::string& otherwise,
                     const std::string& more, const Manual& manual, const Command* command) {
    std::vector<std::string> known = {"--help"};
    for (const Option* const option : OptionsOf(manual, command)) {
        known.push_back(option->IsArgument() ? "" : option->name);
    }
    for (const Command& one : command == nullptr ? manual.commands : std::vector<Command>()) {
        known.push_back(one.name);
    }
    const auto isOption = [](const std::string& word) { return word.size() > 1 && word[0] == '-'; };
    const bool wantsCommand = command == nullptr && !manual.commands.empty();
    const auto word = std::find_if(words.begin(), words.end(),
                                   [&](const std::string& one) { return wantsCommand || isOption(one); });
    if (word == words.end()) {
        return {EXIT_USAGE, otherwise, more};
    }
    const std::string nearest = Nearest(word->substr(0, word->find('=')), known);
    return {EXIT_USAGE, (isOption(*word) ? "unknown option " : "unknown command ") + *word,
            (nearest.empty() ? "" : "did you mean " + nearest + "? ") + more};
}

void AddOptions(CLI::App& app, const Command& command) {
    app.set_help_flag("-h,--help");
    for (const Option& option : command.options) {
        const std::string letter = option.letter != 0 ? std::string("-") + option.letter + ',' : "";
        const std::string names =
            letter + option.name + (option.formerName.empty() ? "" : ',' + option.formerName);
        if (option.IsFlag()) {
            app.add_flag_callback(names, [&option] { option.take(""); });
            continue;
        }
        CLI::Option* const added = app.add_option(names, [&option](const CLI::results_t& values) {
            for (const std::string& value : values) {
                const std::string fault = option.take(value);
                if (!fault.empty()) {
                    // CLI11 adds the option's name to the message.
                    throw CLI::ValidationError(option.name,
                                               std::string("\"").append(value).append("\" ").append(fault));
                }
            }
            return true;
        });
        added->required(option.required);
        // The last one counts, so that an alias with an option can be overruled.
        added->multi_option_policy(option.repeated ? CLI::MultiOptionPolicy::TakeAll
                                                   : CLI::MultiOptionPolicy::TakeLast);
        if (option.repeated) {
            // An option has one value for each use: by default CLI11 would take the following words as well.
            added->expected(1, option.IsArgument() ? CLI::detail::expected_max_vector_size : 1);
            added->allow_extra_args(option.IsArgument());
        }
    }
}

}  // namespace

Choice ParseCommandLine(const Manual& manual, int count, const char* const* words) {
    CLI::App app;
    AddOptions(app, manual.globals);
    app.set_version_flag("--version", "");
    app.require_subcommand(0, 1);
    Choice choice;
    for (const Command& command : manual.commands) {
        CLI::App* const sub = app.add_subcommand(command.name);
        // Global options may also stand after the command.
        sub->fallthrough();
        AddOptions(*sub, command);
        // Remembers the command before its words are parsed, so that a failure can be told with its options.
        sub->preparse_callback([&choice, &command](std::size_t) { choice.command = &command; });
    }
    const auto more = [&] {
        const std::string command = choice.command != nullptr ? choice.command->name + ' ' : "";
        return "see " + manual.globals.name + ' ' + command + "--help";
    };
    try {
        app.parse(count, words);
        // Thrown as soon as parsing is done, also if a required word is missing.
    } catch (const CLI::CallForHelp&) {
        choice.page = Page::HELP;
    } catch (const CLI::CallForVersion&) {
        choice.page = Page::VERSION;
    } catch (const CLI::ExtrasError& error) {
        // true: also those that a subcommand left over.
        throw UnknownWords(app.remaining(true), error.what(), more(), manual, choice.command);
    } catch (const CLI::ParseError& error) {
        throw Failure(EXIT_USAGE, error.what(), more());
    }
    return choice;
}

}  // namespace lumora_cli
