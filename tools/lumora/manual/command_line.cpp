#include "tools/lumora/manual/command_line.h"

#include <CLI/CLI.hpp>
#include <string>

#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

// The command line that shows more about these words.
std::string HelpOf(const CLI::App& app, const Command& globals) {
    const std::vector<CLI::App*> chosen = app.get_subcommands();
    return globals.name + (chosen.empty() ? "" : ' ' + chosen.front()->get_name()) + " --help";
}

// All names of an option, as CLI11 takes them.
std::string NamesOf(const Option& option) {
    const std::string letter = option.letter != 0 ? std::string("-") + option.letter + ',' : "";
    return letter + option.name + (option.formerName.empty() ? "" : ',' + option.formerName);
}

std::vector<std::string> OptionNames(const Command& globals, const Command* command) {
    std::vector<std::string> names = {"--help"};
    for (const Command* one : {&globals, command}) {
        for (const Option& option : one != nullptr ? one->options : std::vector<Option>()) {
            if (!option.IsArgument()) {
                names.push_back(option.name);
            }
        }
    }
    return names;
}

std::string DidYouMean(const std::string& word, const std::vector<std::string>& known) {
    const std::string nearest = Nearest(word, known);
    return nearest.empty() ? "" : "did you mean " + nearest + "? ";
}

// What is wrong with words that no option and no argument takes.
Failure UnknownWords(const CLI::App& app, const std::string& otherwise, const Command& globals,
                     const std::vector<Command>& commands, const Command* command) {
    const std::string more = "see " + HelpOf(app, globals);
    std::vector<std::string> names;
    names.reserve(commands.size());
    for (const Command& one : commands) {
        names.push_back(one.name);
    }
    // true: also those that a subcommand left over.
    for (const std::string& word : app.remaining(true)) {
        if (word.size() > 1 && word[0] == '-') {
            return {EXIT_USAGE, "unknown option " + word,
                    DidYouMean(word.substr(0, word.find('=')), OptionNames(globals, command)) + more};
        }
        if (command == nullptr && !commands.empty()) {
            return {EXIT_USAGE, "unknown command " + word, DidYouMean(word, names) + more};
        }
    }
    return {EXIT_USAGE, otherwise, more};
}

bool TakeAll(const Option& option, const CLI::results_t& values) {
    for (const std::string& value : values) {
        const std::string fault = option.take(value);
        if (!fault.empty()) {
            std::string what = "\"";
            what.append(value).append("\" ").append(fault);
            // CLI11 adds the option's name to the message.
            throw CLI::ValidationError(option.name, what);
        }
    }
    return true;
}

void AddOption(CLI::App& app, const Option& option) {
    if (option.IsFlag()) {
        app.add_flag_callback(NamesOf(option), [take = option.take] { take(""); });
        return;
    }
    CLI::Option* added =
        app.add_option(option.IsArgument() ? option.name : NamesOf(option),
                       [option](const CLI::results_t& values) { return TakeAll(option, values); });
    added->required(option.required);
    if (option.repeated && option.IsArgument()) {
        added->expected(1, CLI::detail::expected_max_vector_size)->allow_extra_args();
    } else if (option.repeated) {
        // One value for each use: by default CLI11 would take the following words as well.
        added->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)->allow_extra_args(false);
    } else {
        // The last one counts, so that an alias with an option can be overruled.
        added->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    }
}

void AddOptions(CLI::App& app, const Command& command) {
    app.set_help_flag("-h,--help");
    for (const Option& option : command.options) {
        AddOption(app, option);
    }
}

}  // namespace

Choice ParseCommandLine(int count, const char* const* words, Command& globals,
                        std::vector<Command>& commands) {
    CLI::App app;
    AddOptions(app, globals);
    app.set_version_flag("--version", "");
    app.require_subcommand(0, 1);
    Choice choice;
    for (const Command& command : commands) {
        CLI::App* const sub = app.add_subcommand(command.name);
        // Global options may also stand after the command.
        sub->fallthrough();
        AddOptions(*sub, command);
        // Remembers the command before its words are parsed, so that a failure can be told with its options.
        sub->preparse_callback([&choice, &command](std::size_t) { choice.command = &command; });
    }
    try {
        app.parse(count, words);
        // Thrown as soon as parsing is done, also if a required word is missing.
    } catch (const CLI::CallForHelp&) {
        choice.page = Page::HELP;
    } catch (const CLI::CallForVersion&) {
        choice.page = Page::VERSION;
    } catch (const CLI::ExtrasError& error) {
        throw UnknownWords(app, error.what(), globals, commands, choice.command);
    } catch (const CLI::ParseError& error) {
        throw Failure(EXIT_USAGE, error.what(), "see " + HelpOf(app, globals));
    }
    return choice;
}

}  // namespace lumora_cli
