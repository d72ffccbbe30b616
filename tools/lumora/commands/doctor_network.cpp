// lumora doctor: what the network lets through, as far as one host can see.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <set>

#include "tools/lumora/commands/findings.h"
#include "tools/lumora/os/interfaces.h"
#include "tools/lumora/os/ports.h"
#include "tools/lumora/os/program.h"
#include "tools/lumora/os/signals.h"
#include "tools/lumora/os/unique_fd.h"
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

template <typename Value>
bool SetOption(const UniqueFd& fd, int level, int option, const Value& value) {
    return setsockopt(fd.Get(), level, option, &value, sizeof(value)) == 0;
}

// A socket that hears the group on this interface alone; closed, and errno set, when there can be none.
UniqueFd Join(const Interface& entry, int port) {
    UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_in address = AddressOf(GROUP, port);
    const bool joined = fd.IsOpen() && SetOption(fd, SOL_SOCKET, SO_REUSEADDR, 1) &&
                        bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
                        SetOption(fd, IPPROTO_IP, IP_MULTICAST_ALL, 0) &&
                        SetOption(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, MembershipOn(entry));
    if (!joined) {
        const int error = errno;
        fd.Close();
        errno = error;
    }
    return fd;
}

int PortOf(const UniqueFd& fd) {
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

// To the group, on a port of our own and never beyond this host: nobody else is to hear it.
bool HearsItself(const Interface& entry) {
    constexpr std::chrono::milliseconds PATIENCE(500);
    constexpr char TEXT[] = "lumora doctor";
    const UniqueFd ear = Join(entry, 0);
    const UniqueFd mouth(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!ear.IsOpen() || !mouth.IsOpen() ||
        !SetOption(mouth, IPPROTO_IP, IP_MULTICAST_IF, MembershipOn(entry)) ||
        !SetOption(mouth, IPPROTO_IP, IP_MULTICAST_TTL, 0)) {
        return false;
    }
    const sockaddr_in group = AddressOf(GROUP, PortOf(ear));
    return sendto(mouth.Get(), TEXT, sizeof(TEXT), 0, reinterpret_cast<const sockaddr*>(&group),
                  sizeof(group)) == sizeof(TEXT) &&
           Wait(ear.Get(), In(PATIENCE)) == Woken::READY;
}

struct Ear {
    Interface entry;
    UniqueFd socket;
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
    while (Clock::now() < end && StopSignal() == 0) {
        std::vector<pollfd> watched = {{StopFd(), POLLIN, 0}};
        for (const Ear& ear : ears) {
            watched.push_back({ear.socket.Get(), POLLIN, 0});
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        poll(watched.data(), watched.size(),
             static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0)));
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

// What the rules of this host drop, counted; -1 where they cannot be read.
int DroppingRules() {
    constexpr std::chrono::milliseconds PATIENCE(3000);
    if (geteuid() != 0 || access("/usr/sbin/nft", X_OK) != 0) {
        return -1;
    }
    Child nft({"/usr/sbin/nft", "list", "ruleset"});
    int dropping = 0;
    for (std::string line = nft.NextLine(PATIENCE); !line.empty(); line = nft.NextLine(PATIENCE)) {
        for (const char* word : {"policy drop", " drop", " reject"}) {
            if (line.find(word) != std::string::npos) {
                ++dropping;
                break;
            }
        }
    }
    return nft.Wait(PATIENCE) == 0 ? dropping : -1;
}

std::string WhatMustPass() {
    const char* port = std::getenv("LUMORA_LINK_PORT");
    const bool fixed = port != nullptr && *port != '\0';
    return std::string("let pass: IGMP, UDP to 224.0.1.187 port 5683, UDP to ") +
           (fixed ? "port " + std::string(port) : "the port that LUMORA_LINK_PORT sets") +
           ", TCP to 6666 (device) and 6667 (client)";
}

}  // namespace

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
        UniqueFd socket = Join(entry, GROUP_PORT);
        if (!socket.IsOpen()) {
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
                                (alone ? "nobody else was heard"
                                       : Count(ear.heard.size(), "node was heard", "nodes were heard")),
                            alone && !ear.entry.loopback
                                ? "if devices run in this network, multicast is blocked on the way: a switch "
                                  "with IGMP snooping "
                                  "needs a querier; LUMORA_LINK_PEERS names devices that are asked directly"
                                : ""});
    }
}

void LookAtPorts(Findings& findings) {
    for (const auto& [port, whose] : {std::pair(DEVICE_PORT, "device"), std::pair(CLIENT_PORT, "client")}) {
        const std::string name = "TCP port " + std::to_string(port);
        switch (TcpPortState(port)) {
            case PortState::FREE:
                findings.push_back({Level::GOOD, "ports", name + " is free", ""});
                break;
            case PortState::TAKEN:
                findings.push_back({Level::WARNING, "ports", name + " is taken",
                                    "a " + std::string(whose) +
                                        " that is connected has it, or another program: ss "
                                        "-tlnp 'sport = :" +
                                        std::to_string(port) + "' names it. No other " + whose +
                                        " can be connected on this host"});
                break;
            case PortState::UNKNOWN:
                findings.push_back({Level::FAULT, "ports",
                                    name + " cannot be listened on: " + SystemError(errno),
                                    "may this user open sockets?"});
        }
    }
}

void LookAtFirewall(Findings& findings) {
    const int dropping = DroppingRules();
    if (dropping < 0) {
        findings.push_back({Level::NOTE, "firewall", "its rules cannot be read: that needs root and nft",
                            "if there is one, " + WhatMustPass()});
    } else if (dropping > 0) {
        findings.push_back(
            {Level::WARNING, "firewall",
             Count(static_cast<std::size_t>(dropping), "rule of nft drops", "rules of nft drop") +
                 " something",
             WhatMustPass()});
    } else {
        findings.push_back({Level::GOOD, "firewall", "no rule of nft on this host drops anything", ""});
    }
}

}  // namespace lumora_cli
