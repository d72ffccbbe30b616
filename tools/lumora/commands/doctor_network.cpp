// lumora doctor: what the network lets through, as far as one host can see.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <set>

#include "base/socket_option.h"
#include "base/unique_fd.h"
#include "tools/lumora/commands/findings.h"
#include "tools/lumora/os/interfaces.h"
#include "tools/lumora/os/ports.h"
#include "tools/lumora/os/program.h"
#include "tools/lumora/os/signals.h"
#include "tools/lumora/os/waiting.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

using Level = Finding::Level;

const char GROUP[] = "224.0.1.187";
constexpr int GROUP_PORT = 5683;

// ---- Multicast

sockaddr_in AddressOf(const char* host, int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(port));
    inet_pton(AF_INET, host, &address.sin_addr);
    return address;
}

ip_mreqn MembershipOn(const Interface& entry) {
    ip_mreqn membership = {};
    inet_pton(AF_INET, GROUP, &membership.imr_multiaddr);
    membership.imr_ifindex = entry.index;
    return membership;
}

// A socket that hears the group on this interface alone; closed, and errno set, when there can be none.
lumora::UniqueFd Join(const Interface& entry, int port) {
    lumora::UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_in address = AddressOf(GROUP, port);
    const bool joined = fd && lumora::SetSocketOption(fd.Get(), SOL_SOCKET, SO_REUSEADDR, 1) &&
                        bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
                        lumora::SetSocketOption(fd.Get(), IPPROTO_IP, IP_MULTICAST_ALL, 0) &&
                        lumora::SetSocketOption(fd.Get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, MembershipOn(entry));
    if (!joined) {
        // Close may change errno, and the caller reports it.
        const int error = errno;
        fd.Close();
        errno = error;
    }
    return fd;
}

// The port that the kernel chose for a socket bound to port 0.
int PortOf(const lumora::UniqueFd& fd) {
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

// Sends to the group on a port of our own, with TTL 0, so that the datagram never leaves this host.
bool HearsItself(const Interface& entry) {
    constexpr std::chrono::milliseconds PATIENCE(500);
    constexpr char TEXT[] = "lumora doctor";
    // Port 0: the real port of the group would also deliver messages of other nodes, and they would count as
    // an echo.
    const lumora::UniqueFd ear = Join(entry, 0);
    const lumora::UniqueFd mouth(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!ear || !mouth ||
        !lumora::SetSocketOption(mouth.Get(), IPPROTO_IP, IP_MULTICAST_IF, MembershipOn(entry)) ||
        !lumora::SetSocketOption(mouth.Get(), IPPROTO_IP, IP_MULTICAST_TTL, 0)) {
        return false;
    }
    const sockaddr_in group = AddressOf(GROUP, PortOf(ear));
    return sendto(mouth.Get(), TEXT, sizeof(TEXT), 0, reinterpret_cast<const sockaddr*>(&group),
                  sizeof(group)) == sizeof(TEXT) &&
           Wait(ear.Get(), In(PATIENCE)) == Woken::READY;
}

// A socket that listens to the group on one interface.
struct Ear {
    Interface entry;
    lumora::UniqueFd socket;
    std::set<std::string> heard;  // address and port of who spoke
};

void HearOne(Ear& ear) {
    char bytes[1500];
    sockaddr_in sender = {};
    socklen_t length = sizeof(sender);
    if (recvfrom(ear.socket.Get(), bytes, sizeof(bytes), 0, reinterpret_cast<sockaddr*>(&sender), &length) >=
        0) {
        char host[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &sender.sin_addr, host, sizeof(host));
        ear.heard.insert(std::string(host) + ':' + std::to_string(ntohs(sender.sin_port)));
    }
}

// All at once.
void Listen(std::vector<Ear>& ears, std::chrono::milliseconds time) {
    const Deadline end = In(time);
    // poll may wake early, so the loop checks the time itself.
    while (Clock::now() < end && StopSignal() == 0) {
        std::vector<pollfd> watched = {{StopFd(), POLLIN, 0}};
        for (const Ear& ear : ears) {
            watched.push_back({ear.socket.Get(), POLLIN, 0});
        }
        poll(watched.data(), watched.size(), PollTime(end));
        for (std::size_t i = 0; i < ears.size(); ++i) {
            if (watched[i + 1].revents != 0) {
                HearOne(ears[i]);
            }
        }
    }
    ThrowWhenStopped();
}

void TellJoinFault(Findings& findings, const Interface& entry, int error) {
    findings.push_back({Level::FAULT, "multicast",
                        entry.name + ": " + GROUP + " port 5683 cannot be joined: " + SystemError(error),
                        error == EADDRINUSE
                            ? "ss -ulnp 'sport = :5683' names the program that does not share "
                              "the port: end it"
                            : "ip link set " + entry.name + " multicast on may help"});
}

// ---- Firewalls

// What nft says. A rough reading of its text: it recognises common rules and warns rather than proves.
struct Rules {
    bool known = false;
    int dropping = 0;  // that drop something
    int inTheWay = 0;  // of these, the ones that may drop what Lumora sends
};

bool Has(const std::string& line, const std::string& part) { return line.find(part) != std::string::npos; }

// Whether it names a port of Lumora's.
bool NamesOurPort(const std::string& line) {
    const char* link = std::getenv("LUMORA_LINK_PORT");
    const bool fixed = link != nullptr && *link != '\0';
    return Has(line, "5683") || Has(line, "6666") || Has(line, "6667") || (fixed && Has(line, link));
}

bool Drops(const std::string& line) { return Has(line, " drop") || Has(line, " reject"); }

// Of rules that leave a network alone ("saddr != ..."), name the ports of others, or drop what belongs to no
// connection, Lumora notices nothing. A chain that drops by itself is no obstacle if its rules accept our
// ports.
bool IsInTheWay(const std::string& line, bool acceptsOurs) {
    if (Has(line, "policy drop")) {
        return (Has(line, "hook input") || Has(line, "hook output")) && !acceptsOurs;
    }
    if (Has(line, "saddr !=") || Has(line, "ct state invalid") || Has(line, "iifname !=")) {
        return false;
    }
    return !Has(line, "dport") || NamesOurPort(line);
}

std::vector<std::string> LinesOf(Child& program, std::chrono::milliseconds patience) {
    std::vector<std::string> lines;
    for (std::string line = program.NextLine(patience); !line.empty(); line = program.NextLine(patience)) {
        lines.push_back(line);
    }
    return lines;
}

Rules ReadRules() {
    constexpr std::chrono::milliseconds PATIENCE(3000);
    Rules rules;
    // Listing rules needs root. The tool is not installed on every host.
    if (geteuid() != 0 || access("/usr/sbin/nft", X_OK) != 0) {
        return rules;
    }
    Child nft({"/usr/sbin/nft", "list", "ruleset"});
    std::string accepted;
    const std::vector<std::string> lines = LinesOf(nft, PATIENCE);
    for (const std::string& line : lines) {
        accepted += Has(line, " accept") && !Has(line, "policy") ? line : "";
    }
    // A chain with the policy "drop" is harmless if it accepts our ports elsewhere.
    const bool acceptsOurs = Has(accepted, "5683") && (Has(accepted, "6666") || Has(accepted, "6667"));
    for (const std::string& line : lines) {
        rules.dropping += Drops(line) ? 1 : 0;
        rules.inTheWay += Drops(line) && IsInTheWay(line, acceptsOurs) ? 1 : 0;
    }
    rules.known = nft.Wait(PATIENCE) == 0;
    return rules;
}

std::string WhatMustPass() {
    const char* port = std::getenv("LUMORA_LINK_PORT");
    const bool fixed = port != nullptr && *port != '\0';
    return std::string("let pass: IGMP, UDP to 224.0.1.187 port 5683, UDP to ") +
           (fixed ? "port " + std::string(port) : "the port that LUMORA_LINK_PORT sets") +
           ", TCP to 6666 (device) and 6667 (client)";
}

// ---- Variables

// The items of a list, as the link platform splits it.
std::vector<std::string> WordsOf(const char* variable) {
    const char* value = std::getenv(variable);
    // The platform takes commas and blanks as separators.
    std::string text = value != nullptr ? value : "";
    std::replace(text.begin(), text.end(), ' ', ',');
    std::vector<std::string> words = Split(text, ',');
    words.erase(std::remove(words.begin(), words.end(), ""), words.end());
    return words;
}

// 0: not set, -1: no port.
int LinkPort() {
    constexpr int LAST_PORT = 65535;
    const char* value = std::getenv("LUMORA_LINK_PORT");
    if (value == nullptr || *value == '\0') {
        return 0;
    }
    char* end = nullptr;
    const long port = std::strtol(value, &end, 10);
    return *value >= '0' && *value <= '9' && *end == '\0' && port >= 1 && port <= LAST_PORT
               ? static_cast<int>(port)
               : -1;
}

void LookAtPortVariable(Findings& findings) {
    const char* const port = std::getenv("LUMORA_LINK_PORT");
    if (port != nullptr && LinkPort() < 0) {
        findings.push_back(
            {Level::FAULT, "variables",
             "LUMORA_LINK_PORT: \"" + std::string(port) +
                 "\" is no port; it is ignored, and a firewall that lets one port pass is of no use",
             "set it to a number from 1 to 65535"});
    }
}

void LookAtLinkPort(Findings& findings) {
    const int port = LinkPort();
    if (port <= 0) {
        return;
    }
    const bool taken = UdpPortState(port) == PortState::TAKEN;
    const std::string name = "UDP port " + std::to_string(port) + " of LUMORA_LINK_PORT";
    findings.push_back(
        {taken ? Level::WARNING : Level::GOOD, "ports", name + (taken ? " is taken" : " is free"),
         taken ? "another node has it, or another program: ss -ulnp 'sport = :" + std::to_string(port) +
                     "' names it. Two nodes on one host need two ports"
               : ""});
}

Finding TakenPort(int port, const std::string& whose) {
    const std::string name = "TCP port " + std::to_string(port);
    const std::string limit = "No other " + whose + " can be connected on this host";
    const std::optional<PortHolder> holder = TcpPortHolder(port);
    if (!holder) {
        return {Level::WARNING, "ports", name + " is taken",
                "a " + whose + " that is connected has it, or another program: ss -tlnp 'sport = :" +
                    std::to_string(port) + "' names it. " + limit};
    }
    if (!holder->usesLumora) {
        return {Level::WARNING, "ports", name + " is taken", holder->Text() + ", has it. " + limit};
    }
    return {Level::NOTE, "ports",
            name + " is used by a running " + whose + " of this host: " + holder->Text(),
            limit + " meanwhile"};
}

}  // namespace

void LookAtVariables(Findings& findings) {
    LookAtPortVariable(findings);
    for (const std::string& name : WordsOf("LUMORA_LINK_INTERFACE")) {
        if (if_nametoindex(name.c_str()) == 0) {
            findings.push_back({Level::FAULT, "variables",
                                "LUMORA_LINK_INTERFACE: this host has no interface \"" + name + '"',
                                "ip link lists the interfaces"});
        }
    }
    for (const std::string& peer : WordsOf("LUMORA_LINK_PEERS")) {
        if (!lumora_nodes::ParseAddress(peer)) {
            findings.push_back({Level::FAULT, "variables",
                                "LUMORA_LINK_PEERS: \"" + peer +
                                    "\" is no IPv4 address with or without a port; it is ignored",
                                "name peers as 192.168.1.7 or 192.168.1.7:7000, separated by commas"});
        }
    }
    if (findings.empty()) {
        findings.push_back({Level::GOOD, "variables", "those that are set can be used", ""});
    }
}

void LookAtInterfaces(Findings& findings) {
    bool usable = false;
    bool others = false;
    for (const Interface& entry : ChosenInterfaces()) {
        if (entry.running && !entry.address.empty()) {
            usable = true;
            others = others || !entry.loopback;
            findings.push_back({Level::GOOD, "interfaces", entry.name + ", " + entry.address, ""});
        } else {
            findings.push_back(
                {Level::NOTE, "interfaces",
                 entry.name + (entry.running ? " has no IPv4 address" : " is down") + ": it is not used",
                 ""});
        }
    }
    if (!usable) {
        findings.push_back({Level::FAULT, "interfaces", "no interface is up and has an IPv4 address",
                            "ip address shows what is there; --interface must name one that can be used"});
    } else if (!others) {
        findings.push_back({Level::NOTE, "interfaces",
                            "only the loopback interface is used: no other host is reached",
                            "--interface names others, ip link set NAME up starts one"});
    }
}

void LookAtMulticast(Findings& findings, std::chrono::milliseconds listening) {
    std::vector<Ear> ears;
    for (const Interface& entry : ChosenInterfaces()) {
        if (!entry.running || entry.address.empty()) {
            continue;
        }
        lumora::UniqueFd socket = Join(entry, GROUP_PORT);
        if (!socket) {
            TellJoinFault(findings, entry, errno);
            continue;
        }
        if (!HearsItself(entry)) {
            findings.push_back({Level::FAULT, "multicast",
                                entry.name + ": what this host sends does not come back",
                                "a packet filter drops it: " + WhatMustPass()});
        }
        ears.push_back({entry, std::move(socket), {}});
    }
    Listen(ears, listening);
    for (const Ear& ear : ears) {
        const bool alone = ear.heard.empty();
        findings.push_back({alone ? Level::NOTE : Level::GOOD, "multicast",
                            ear.entry.name + ": joined, " +
                                (alone ? "no other node was heard"
                                       : Count(ear.heard.size(), "node was heard", "nodes were heard")),
                            alone && !ear.entry.loopback
                                ? "if devices run in this network, multicast is blocked on the way: a switch "
                                  "with IGMP snooping "
                                  "needs a querier; LUMORA_LINK_PEERS names devices that are asked directly"
                                : ""});
    }
}

void LookAtPorts(Findings& findings) {
    LookAtLinkPort(findings);
    for (const auto& [port, whose] : {std::pair(DEVICE_PORT, "device"), std::pair(CLIENT_PORT, "client")}) {
        const std::string name = "TCP port " + std::to_string(port);
        switch (TcpPortState(port)) {
            case PortState::FREE:
                findings.push_back({Level::GOOD, "ports", name + " is free", ""});
                break;
            case PortState::TAKEN:
                findings.push_back(TakenPort(port, whose));
                break;
            case PortState::UNKNOWN:
                findings.push_back({Level::FAULT, "ports",
                                    name + " cannot be listened on: " + SystemError(errno),
                                    "may this user open sockets?"});
        }
    }
}

void LookAtFirewall(Findings& findings) {
    const Rules rules = ReadRules();
    if (!rules.known) {
        findings.push_back({Level::NOTE, "firewall", "its rules cannot be read: that needs root and nft",
                            "if there is one, " + WhatMustPass()});
    } else if (rules.inTheWay > 0) {
        findings.push_back({Level::WARNING, "firewall",
                            Count(static_cast<unsigned long long>(rules.inTheWay), "rule of nft drops",
                                  "rules of nft drop") +
                                " something",
                            WhatMustPass()});
    } else if (rules.dropping > 0) {
        findings.push_back(
            {Level::GOOD, "firewall", "the rules of nft drop something, but not what Lumora needs", ""});
    } else {
        findings.push_back({Level::GOOD, "firewall", "no rule of nft on this host drops anything", ""});
    }
}

}  // namespace lumora_cli
