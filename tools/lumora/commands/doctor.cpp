// lumora doctor: what keeps clients and devices from each other, and what to do about it.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>
#include <utility>

#include "tools/lumora/commands/findings.h"
#include "tools/lumora/manual/command.h"
#include "tools/lumora/os/interfaces.h"
#include "tools/lumora/os/ports.h"
#include "tools/lumora/os/program.h"
#include "tools/lumora/os/signals.h"
#include "tools/lumora/session/client_session.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/json.h"
#include "tools/lumora/terminal/output.h"
#include "tools/lumora/terminal/terminal.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

using Level = Finding::Level;

// The word in the text output and in the field "level" of --json.
const char* WordOf(Level level) {
    switch (level) {
        case Level::GOOD:
            return "ok";
        case Level::NOTE:
            return "note";
        case Level::WARNING:
            return "warning";
        case Level::FAULT:
            return "fault";
    }
    return "";
}

Colour ColourOf(Level level) {
    switch (level) {
        case Level::GOOD:
            return Colour::GREEN;
        case Level::NOTE:
            return Colour::BOLD;
        case Level::WARNING:
            return Colour::YELLOW;
        case Level::FAULT:
            break;
    }
    return Colour::RED;
}

void PrintFinding(const Finding& finding) {
    constexpr std::size_t WORD = 9;
    // Longer lines are hard to read even on a wide terminal.
    constexpr std::size_t READABLE = 110;
    const std::size_t width = std::min(Width(STDOUT_FILENO), READABLE);
    const std::string word = WordOf(finding.level);
    const std::string margin = std::string(WORD + 2, ' ');
    std::string text = "  " + Coloured(word, ColourOf(finding.level), STDOUT_FILENO) +
                       std::string(WORD - word.size(), ' ') + Wrapped(finding.text, margin.size(), width) +
                       '\n';
    if (!finding.advice.empty()) {
        text += margin + "-> " + Wrapped(finding.advice, margin.size() + 3, width) + '\n';
    }
    Print(text);
}

std::string ToJson(const Finding& finding) {
    JsonObject object;
    object.Add("level", WordOf(finding.level)).Add("area", finding.area).Add("text", finding.text);
    return finding.advice.empty() ? object.Text() : object.Add("advice", finding.advice).Text();
}

// "1 fault, 2 warnings", or that there is none.
std::string Verdict(std::size_t faults, std::size_t warnings) {
    if (faults + warnings == 0) {
        return "Nothing is wrong on this host.";
    }
    return Count(faults, "fault", "faults") + ", " + Count(warnings, "warning", "warnings") + '.';
}

std::size_t CountOf(const Findings& findings, Level level) {
    std::size_t count = 0;
    for (const Finding& finding : findings) {
        count += finding.level == level ? 1 : 0;
    }
    return count;
}

struct Options {
    // Somewhat longer than two of the messages that every node repeats.
    std::chrono::milliseconds listen{1700};
    DeviceChoice device;  // no type: none
    std::chrono::milliseconds wait{2000};
};

// Runs each check and prints its findings at once, because some checks take seconds.
Findings LookRound(const Options& options) {
    std::vector<std::pair<std::string, std::function<void(Findings&)>>> areas = {
        {"Variables", LookAtVariables},
        {"Keys", LookAtKeys},
        {"Interfaces", LookAtInterfaces},
        {"Multicast", [&options](Findings& findings) { LookAtMulticast(findings, options.listen); }},
        {"Ports", LookAtPorts},
        {"Firewall", LookAtFirewall},
        {"Libraries", LookAtLibraries},
        {"Self-test over lo", TryOnLoopback},
    };
    if (!options.device.type.empty()) {
        areas.emplace_back("The way to " + options.device.type, [&options](Findings& findings) {
            WalkTo(findings, options.device, options.wait);
        });
    }
    Findings all;
    for (const auto& [title, look] : areas) {
        if (!IsJson()) {
            PrintLine(Coloured(title, Colour::BOLD, STDOUT_FILENO));
        }
        Findings findings;
        look(findings);
        // A check that a signal interrupted may report wrong findings, so the program ends before they are
        // printed.
        ThrowWhenStopped();
        for (Finding& finding : findings) {
            if (!IsJson()) {
                PrintFinding(finding);
            }
            all.push_back(std::move(finding));
        }
    }
    return all;
}

int Run(const Options& options) {
    const Findings all = LookRound(options);
    const std::size_t faults = CountOf(all, Level::FAULT);
    const std::size_t warnings = CountOf(all, Level::WARNING);
    if (IsJson()) {
        PrintLine(JsonObject()
                      .Add("faults", faults)
                      .Add("warnings", warnings)
                      .AddRaw("findings", JsonArray(all, ToJson))
                      .Text());
    } else {
        PrintLine(Verdict(faults, warnings));
    }
    return faults == 0 ? EXIT_OK : EXIT_FAILED;
}

}  // namespace

namespace {

bool IsLoopbackUp() {
    const std::vector<Interface> interfaces = ListInterfaces();
    return std::any_of(interfaces.begin(), interfaces.end(),
                       [](const Interface& one) { return one.loopback && one.running; });
}

}  // namespace

// Two processes, as in earnest: this program as a device and as a client.
void TryOnLoopback(Findings& findings) {
    constexpr std::chrono::milliseconds PATIENCE(15000);
    const char area[] = "self-test";
    if (TcpPortState(DEVICE_PORT) != PortState::FREE || TcpPortState(CLIENT_PORT) != PortState::FREE) {
        findings.push_back({Level::NOTE, area, "left out: it needs the TCP ports 6666 and 6667",
                            "end what is connected and repeat"});
        return;
    }
    if (!IsLoopbackUp()) {
        findings.push_back({Level::NOTE, area, "left out: lo is down", "ip link set lo up"});
        return;
    }
    // The device has the port that is configured, unless another node has it. The client cannot have the
    // same.
    const char* port = std::getenv("LUMORA_LINK_PORT");
    if (port != nullptr && UdpPortState(std::atoi(port)) != PortState::FREE) {
        // Two nodes on one host cannot have the same fixed port.
        unsetenv("LUMORA_LINK_PORT");
    }
    // This very file, also if the program was replaced on disk or is not on PATH.
    const std::string program = "/proc/self/exe";
    // The process number keeps two doctors on one host apart.
    const std::string type = "lumora-doctor-" + std::to_string(getpid());
    Child device({program, "--interface", "lo", "serve", type, "--echo"});
    // Waits for the first line, which the device prints when it can be found.
    if (device.NextLine(PATIENCE).empty()) {
        findings.push_back({Level::FAULT, area, "a device does not start",
                            "lumora --interface lo --log error serve test --echo tells why"});
        return;
    }
    unsetenv("LUMORA_LINK_PORT");
    Child client({program, "--interface", "lo", "ping", type, "--count", "3", "--interval", "0"});
    std::string last;
    // Reads to the end; the last line is the summary of ping.
    for (std::string line = client.NextLine(PATIENCE); !line.empty(); line = client.NextLine(PATIENCE)) {
        last = line;
    }
    const int result = client.Wait(PATIENCE);
    device.End();
    const bool ended = device.Wait(PATIENCE) == EXIT_OK;
    if (result == EXIT_OK && ended) {
        findings.push_back(
            {Level::GOOD, area, "found, connected, and sent blocks there and back: " + last, ""});
        return;
    }
    findings.push_back({Level::FAULT, area,
                        result == EXIT_NO_DEVICE ? "a device on lo is not found"
                        : result != EXIT_OK      ? "a device on lo is found, but blocks do not come back"
                                                 : "a device does not end",
                        "lumora --interface lo --log error serve test --echo, and in another terminal lumora "
                        "--interface lo --log error ping test, tell more"});
}

Command DoctorCommand() {
    const auto options = std::make_shared<Options>();
    Command command("doctor", "looks for what keeps clients and devices from each other");
    command.Describe(
        "Looks at the variables of the link platform, at the network interfaces, at multicast, at the ports, "
        "at the firewall, at the libraries that are loaded, and runs a device and a client against each "
        "other over the loopback interface. Says what is wrong and what to do. Without TYPE nothing that it "
        "sends leaves this host.");
    command.Describe(
        "With TYPE it also walks to that device: found, answers, TCP port 6666 reached there, 6667 reached "
        "back. For the last two it connects, and so takes the place of a client that is connected from "
        "another "
        "host. While a client runs on this host, it uses port 6667: the walk then ends after the answer.");
    command.Describe(
        "A fault keeps Lumora from working, a warning may; the exit code is 1 when there is a fault.");
    command.Argument("TYPE", options->device.type, "a device to walk to, or TYPE@ADDRESS for one of several")
        .offer = Option::Offer::TYPES;
    AddAddress(command, options->device);
    AddWait(command, options->wait, "how long to search for the device (2)");
    command.Seconds("--listen", options->listen, std::chrono::hours(1),
                    "how long to listen for other nodes (1.7)");
    command.Prints({{"faults", "how many faults there are"},
                    {"warnings", "how many warnings there are"},
                    {"findings[].level", "ok, note, warning or fault"},
                    {"findings[].area",
                     "variables, interfaces, multicast, ports, firewall, libraries, self-test or device"},
                    {"findings[].text", "what was found"},
                    {"findings[].advice", "what to do about it; missing if there is nothing to do"}});
    command.Show("lumora doctor camera", "why can this host not use that camera?");
    command.Show("lumora doctor --interface eth0", "only with an eye on this interface");
    command.run = [options] {
        options->device.Take();
        return Run(*options);
    };
    return command;
}

}  // namespace lumora_cli
