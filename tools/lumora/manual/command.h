// One description of each command, for the parser, --help, the manual pages and the completions.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace lumora_cli {

struct Option {
    // What a shell can offer for it.
    enum class Offer { NOTHING, FILES, FOLDERS, INTERFACES, TYPES, SERVICES };

    std::string name;        // "--count"; of an argument that stands alone, the word for it: "TYPE"
    std::string value;       // the word for what follows; empty for a flag
    char letter = 0;         // 'c' for -c; 0: none
    std::string formerName;  // understood, but not shown
    std::string text;
    bool required = false;
    bool repeated = false;
    std::vector<std::string> choices;
    Offer offer = Offer::NOTHING;
    // Takes a value, or says what is wrong with it.
    std::function<std::string(const std::string&)> take;

    bool IsArgument() const { return name[0] != '-'; }
    bool IsFlag() const { return !IsArgument() && value.empty(); }
};

// Words and what they mean, in the order of the page.
using Terms = std::vector<std::pair<std::string, std::string>>;

class Command {
public:
    Command(std::string commandName, std::string commandSummary)
        : name(std::move(commandName)), summary(std::move(commandSummary)) {}

    Command& Describe(std::string paragraph);
    Command& Show(std::string line, std::string what);
    // The fields of what --json prints: paths, such as "services[].name", and their meaning.
    Command& Prints(Terms jsonFields);

    // The variables must live as long as the command. Each returns what it added, for more to be said of it.
    Option& Argument(const std::string& word, std::string& variable, const std::string& text) {
        return Text(word, word, variable, text);
    }
    Option& Arguments(const std::string& word, std::vector<std::string>& variable, const std::string& text) {
        return Texts(word, word, variable, text);
    }
    Option& Flag(const std::string& option, bool& variable, const std::string& text);
    Option& Text(const std::string& option, const std::string& word, std::string& variable,
                 const std::string& text);
    Option& Texts(const std::string& option, const std::string& word, std::vector<std::string>& variable,
                  const std::string& text);
    Option& Choice(const std::string& option, std::string& variable, std::vector<std::string> choices,
                   const std::string& text);
    Option& Number(const std::string& option, const std::string& word, unsigned& variable, unsigned least,
                   unsigned most, const std::string& text);
    // A number that may have a fraction.
    Option& Factor(const std::string& option, const std::string& word, double& variable, unsigned most,
                   const std::string& text);
    // Seconds with a fraction.
    Option& Seconds(const std::string& option, std::chrono::milliseconds& variable,
                    std::chrono::milliseconds most, const std::string& text);
    // Bytes, as ParseSize takes them.
    Option& Size(const std::string& option, unsigned& variable, unsigned least, unsigned most,
                 const std::string& text);

    std::string name;
    std::string summary;
    std::vector<std::string> paragraphs;
    std::vector<Option> options;
    Terms fields;
    Terms examples;
    std::function<int()> run;

private:
    using Take = std::function<std::string(const std::string&)>;
    Option& Add(const std::string& option, const std::string& word, const std::string& text, Take take);
};

// A number of bytes: 1500, 64K or 64KiB (1,024 bytes each), 1.5M or 1.5MiB. Nothing for other texts.
std::optional<unsigned long long> ParseSize(const std::string& text);

// Those that a user can name, in the order of the manual.
std::vector<Command> AllCommands();

// The words before a command, which it may also stand behind.
Command GlobalOptions();

// Looks for the command's other options and values in its own variables.
Command FindCommand();
Command InfoCommand();
Command VersionCommand();
Command CmdCommand();
Command SubscribeCommand();
Command SendCommand();
Command PingCommand();
Command ShellCommand();
Command ServeCommand();
Command RecordCommand();
Command ReplayCommand();
Command KeyCommand();
Command DoctorCommand();

}  // namespace lumora_cli
