// lumora doctor: what keeps clients and devices from each other, and what to do about it.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>
#include <utility>

#include "tools/lumora/commands/findings.h"
#include "tools/lumora/manual/command.h"
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
    constexpr std::size_t READABLE = 110;
    const std::size_t width = std::min(Width(STDOUT_FILENO), READABLE);
    const std::string word = WordOf(finding.level);
    const std::string margin = std::string(WORD + 2, ' ');
    std::string text = "  " + Coloured(word, ColourOf(finding.level), STDOUT_FILENO) +
                       std::string(WORD - word.size(), ' ') + Wrapped(finding.text, margin.size(), width) +
                       '\n';
    if (!finding.wayOut.empty()) {
        text += margin + "-> " + Wrapped(finding.wayOut, margin.size() + 3, width) + '\n';
    }
    Print(text);
}

std::string ToJson(const Finding& finding) {
    JsonObject object;
    object.Add("level", WordOf(finding.level)).Add("area", finding.area).Add("text", finding.text);
    return finding.wayOut.empty() ? object.Text() : object.Add("wayOut", finding.wayOut).Text();
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
};

Findings LookRound(const Options& options) {
    const std::pair<const char*, std::function<void(Findings&)>> areas[] = {
        {"Interfaces", LookAtInterfaces},
        {"Multicast", [&options](Findings& findings) { LookAtMulticast(findings, options.listen); }},
        {"Ports", LookAtPorts},
        {"Firewall", LookAtFirewall},
        {"Libraries", LookAtLibraries},
        {"Self-test over lo", TryOnLoopback},
    };
    Findings all;
    for (const auto& [title, look] : areas) {
        if (!IsJson()) {
            PrintLine(Coloured(title, Colour::BOLD, STDOUT_FILENO));
        }
        Findings findings;
        look(findings);
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

// Two processes, as in earnest: this program as a device and as a client.
void TryOnLoopback(Findings& findings) {
    constexpr std::chrono::milliseconds PATIENCE(15000);
    const char area[] = "self-test";
    if (TcpPortState(DEVICE_PORT) != PortState::FREE || TcpPortState(CLIENT_PORT) != PortState::FREE) {
        findings.push_back({Level::NOTE, area, "left out: it needs the TCP ports 6666 and 6667",
                            "end what is connected and repeat"});
        return;
    }
    unsetenv("LUMORA_LINK_PORT");  // two nodes on one host cannot have the same
    const std::string program = "/proc/self/exe";
    const std::string type = "lumora-doctor-" + std::to_string(getpid());
    Child device({program, "--interface", "lo", "serve", type, "--echo"});
    if (device.NextLine(PATIENCE).empty()) {
        findings.push_back({Level::FAULT, area, "a device does not start",
                            "lumora --interface lo --log error serve test --echo tells why"});
        return;
    }
    Child client({program, "--interface", "lo", "ping", type, "--count", "3", "--interval", "0"});
    std::string last;
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
        "Looks at the network interfaces, at multicast, at the TCP ports 6666 and 6667, at the firewall, at "
        "the "
        "libraries that are loaded, and runs a device and a client against each other over the loopback "
        "interface. "
        "Says what is wrong and what to do. Nothing that it sends leaves this host.");
    command.Describe(
        "A fault keeps Lumora from working, a warning may; the exit code is 1 when there is a fault.");
    command.Seconds("--listen", options->listen, std::chrono::hours(1),
                    "how long to listen for other nodes (1.7)");
    command.Show("lumora doctor --interface eth0", "only with an eye on this interface");
    command.run = [options] { return Run(*options); };
    return command;
}

}  // namespace lumora_cli
