#include "tools/lumora/manual/command_line.h"

#include <CLI/CLI.hpp>
#include <string>

#include "tools/lumora/terminal/failure.h"

namespace lumora_cli {

namespace {

// What a command is called where somebody is told to read more.
std::string HelpOf(const CLI::App& app, const Command& globals) {
    const std::vector<CLI::App*> chosen = app.get_subcommands();
    return globals.name + (chosen.empty() ? "" : ' ' + chosen.front()->get_name()) + " --help";
}

bool TakeAll(const Option& option, const CLI::results_t& values) {
    for (const std::string& value : values) {
        const std::string fault = option.take(value);
        if (!fault.empty()) {
            std::string what = "\"";
            what.append(value).append("\" ").append(fault);
            throw CLI::ValidationError(option.name, what);
        }
    }
    return true;
}

void AddOption(CLI::App& app, const Option& option) {
    if (option.IsFlag()) {
        app.add_flag_callback(option.name, [take = option.take] { take(""); });
        return;
    }
    CLI::Option* added = app.add_option(
        option.name, [option](const CLI::results_t& values) { return TakeAll(option, values); });
    added->required(option.required);
    if (option.repeated && option.IsArgument()) {
        added->expected(1, CLI::detail::expected_max_vector_size)->allow_extra_args();
    } else if (option.repeated) {
        added->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)->allow_extra_args(false);
    } else {
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
        sub->fallthrough();
        AddOptions(*sub, command);
        sub->preparse_callback([&choice, &command](std::size_t) { choice.command = &command; });
    }
    try {
        app.parse(count, words);
    } catch (const CLI::CallForHelp&) {
        choice.page = Page::HELP;
    } catch (const CLI::CallForVersion&) {
        choice.page = Page::VERSION;
    } catch (const CLI::ParseError& error) {
        throw Failure(EXIT_USAGE, error.what(), "see " + HelpOf(app, globals));
    }
    return choice;
}

}  // namespace lumora_cli
