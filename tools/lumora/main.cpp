// The program: which command, what holds for all of them, and how it ends.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>

#include "tools/lumora/manual/command.h"
#include "tools/lumora/manual/manual.h"
#include "tools/lumora/os/interfaces.h"
#include "tools/lumora/os/signals.h"
#include "tools/lumora/session/link_node.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/json.h"
#include "tools/lumora/terminal/output.h"
#include "tools/lumora/terminal/terminal.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

struct Globals {
    bool json = false;
    std::string interfaces;
    std::string logLevel;
};

Globals g_globals;

Terms ExitCodes() {
    return {
        {"0",
         "it was done; also when an endless command (find --watch, subscribe, serve, record, replay) was "
         "ended by "
         "a signal"},
        {"1", "something failed that no other number stands for; of doctor: something is wrong"},
        {"2", "the command line means nothing, or asks for what cannot be"},
        {"3", "no such device was found, or none with that service"},
        {"4", "the device or the network refused, or the device has left"},
        {"5", "what was waited for did not come in time"},
        {"6", "a file or standard output could not be read or written"},
        {"128+N", "signal N ended it early: 130 is Ctrl-C, 141 that the reader of its output has left"},
    };
}

Terms Variables() {
    return {
        {"LUMORA_LINK_INTERFACE", "the network interfaces; --interface sets it"},
        {"LUMORA_LINK_PSK_FILE", "the file with the keys of this node; lumora key makes one"},
        {"LUMORA_LINK_CHANNEL",
         "whether data channels are private: plain, prefer (as without it) or require"},
        {"LUMORA_LOG_LEVEL", "what the libraries log; --log sets it, and nothing is logged without either"},
        {"NO_COLOR", "not empty: no colours on a terminal either"},
    };
}

const std::vector<std::string> LOG_LEVELS = {"trace", "detail", "state", "warning", "error", "off"};

// The libraries read the environment when they start; no thread runs yet.
void Apply(const Globals& globals) {
    if (globals.json) {
        UseJson();
    }
    // Checked here, because the platform only logs an unknown name and then finds no device.
    if (!globals.interfaces.empty()) {
        CheckInterfaceNames(globals.interfaces);
        setenv("LUMORA_LINK_INTERFACE", globals.interfaces.c_str(), 1);
    }
    // A failure is printed in one line. The libraries' log is off unless the user asks for it.
    std::string level = "5";
    for (std::size_t i = 0; i < LOG_LEVELS.size(); ++i) {
        if (globals.logLevel == LOG_LEVELS[i]) {
            level = std::to_string(i);
        }
    }
    // Without --log a value that the user has set in the environment stays.
    setenv("LUMORA_LOG_LEVEL", level.c_str(), globals.logLevel.empty() ? 0 : 1);
}

// The documented fields of each command, for the test that compares them with what is printed.
std::string FieldsPage(const Manual& manual) {
    JsonObject page;
    for (const Command& command : manual.commands) {
        page.AddRaw(command.name.c_str(),
                    JsonArray(command.fields, [](const auto& field) { return JsonText(field.first); }));
    }
    return page.Text() + '\n';
}

// For a shell. Nothing on the network notices a node that only looks.
std::vector<std::string> Offered(Option::Offer offer, const std::string& type) {
    // Each node says hello every 1.5 s.
    constexpr std::chrono::milliseconds LISTEN(1700);
    Apply(g_globals);
    std::set<std::string> names;
    if (offer == Option::Offer::INTERFACES) {
        for (const Interface& interface : ListInterfaces()) {
            names.insert(interface.name);
        }
        return {names.begin(), names.end()};
    }
    LinkNode node;
    for (const FoundDevice& device :
         offer == Option::Offer::TYPES ? FindAllDevices(node, LISTEN) : FindDevices(node, type, LISTEN)) {
        // Clients have a type as well but describe no services. They are not offered.
        if (offer == Option::Offer::TYPES && device.answers) {
            names.insert(OneLine(device.type));
        }
        for (const Service& service :
             offer == Option::Offer::SERVICES ? device.services : std::vector<Service>()) {
            names.insert(OneLine(service.name));
        }
    }
    return {names.begin(), names.end()};
}

// --print PAGE [COMMAND]: what is installed or checked when the program is built.
int PrintPage(const Manual& manual, int count, const char* const* words) {
    const std::string page = count > 2 ? words[2] : "";
    const Command* const about = count > 3 ? CommandNamed(manual, words[3]) : nullptr;
    const bool found = count < 4 || about != nullptr;
    if (page == "man" && found) {
        Print(ManPage(manual, about));
    } else if (page == "markdown") {
        Print(MarkdownPage(manual));
    } else if (page == "completions" && count > 3) {
        // The word before them is "--".
        Print(Completions(manual, {words + 4, words + count}, Offered));
    } else if (page == "fields") {
        Print(FieldsPage(manual));
    } else {
        throw Failure(EXIT_USAGE, "--print takes man [COMMAND], markdown, fields or completions -- WORD...");
    }
    return EXIT_OK;
}

// Also for words that cannot be parsed.
bool WantsJson(int count, const char* const* words) {
    return std::any_of(words, words + count, [](const char* word) {
        return std::strcmp(word, "--json") == 0 || std::strcmp(word, "-j") == 0;
    });
}

Command HelpCommand(const Manual& manual) {
    const auto about = std::make_shared<std::string>();
    Command command("help", "shows how a command is used");
    Option& argument = command.Argument("COMMAND", *about, "one of the commands; without it, all are listed");
    for (const Command& one : manual.commands) {
        argument.choices.push_back(one.name);
    }
    command.Show("lumora help send", "as lumora send --help");
    command.run = [about, &manual, names = argument.choices] {
        const Command* const chosen = CommandNamed(manual, *about);
        if (chosen == nullptr && !about->empty()) {
            const std::string nearest = Nearest(*about, names);
            throw Failure(
                EXIT_USAGE, "unknown command " + *about,
                nearest.empty() ? "lumora help lists the commands" : "did you mean " + nearest + '?');
        }
        Print(HelpPage(manual, chosen, Width(STDOUT_FILENO)));
        return EXIT_OK;
    };
    return command;
}

int Run(int count, const char* const* words) {
    // Before parsing, so that a parser failure is printed as JSON too.
    if (WantsJson(count, words)) {
        UseJson();
    }
    Manual manual = {GlobalOptions(), AllCommands(), ExitCodes(), Variables(), {"lumora-platform-check"}};
    // Last, because it lists the names of the others.
    manual.commands.push_back(HelpCommand(manual));
    // Not an option of the parser: users have no need for it, so --help does not show it.
    if (count > 1 && std::strcmp(words[1], "--print") == 0) {
        return PrintPage(manual, count, words);
    }
    const Choice choice = ParseCommandLine(manual, count, words);
    if (choice.page == Page::HELP) {
        Print(HelpPage(manual, choice.command, Width(STDOUT_FILENO)));
        return EXIT_OK;
    }
    if (choice.page == Page::VERSION) {
        PrintLine("lumora " LUMORA_VERSION);
        return EXIT_OK;
    }
    if (choice.command == nullptr) {
        throw Failure(EXIT_USAGE, "no command is named", "lumora --help lists them");
    }
    Apply(g_globals);
    // Before any thread starts: threads inherit the signal mask.
    const StopSignals signals;
    return choice.command->run();
}

}  // namespace

std::vector<Command> AllCommands() {
    return {FindCommand(),   InfoCommand(), VersionCommand(), CmdCommand(),   SubscribeCommand(),
            SendCommand(),   PingCommand(), ShellCommand(),   ServeCommand(), RecordCommand(),
            ReplayCommand(), KeyCommand(),  DoctorCommand()};
}

Command GlobalOptions() {
    Command command("lumora",
                    "finds devices on the local network, exchanges commands and data with them, or is one");
    command
        .Flag("--json", g_globals.json,
              "results as JSON, one document, or one to a line if they come one after the other; the message "
              "of a failure too, on standard error, as the fields error and exit")
        .letter = 'j';
    command
        .Text(
            "--interface", "NAMES", g_globals.interfaces,
            "uses only these network interfaces, separated by commas. Sets LUMORA_LINK_INTERFACE, which our "
            "link platform reads; a vendor's may not, and then goes on using what it uses")
        .offer = Option::Offer::INTERFACES;
    command.Choice("--log", g_globals.logLevel, LOG_LEVELS,
                   "what the libraries log to standard error. Sets LUMORA_LOG_LEVEL");
    command.Show("lumora find", "lists the devices");
    command.Show("lumora serve echo-device --echo", "is a device to try things on");
    command.Show("lumora ping echo-device", "measures the way there and back");
    command.Show("lumora doctor", "looks for what is in the way");
    return command;
}

}  // namespace lumora_cli

int main(int count, char** words) {
    return lumora_cli::RunToTheEnd([&] { return lumora_cli::Run(count, words); });
}
