// lumora doctor TYPE: each step on the way to one device.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <optional>

#include "base/unique_fd.h"
#include "tools/lumora/commands/findings.h"
#include "tools/lumora/os/ports.h"
#include "tools/lumora/os/signals.h"
#include "tools/lumora/session/client_session.h"
#include "tools/lumora/session/link_node.h"
#include "tools/lumora/terminal/failure.h"

namespace lumora_cli {

namespace {

using Level = Finding::Level;

const char DEVICE[] = "device";

// 0 or the error of an attempt to connect. A device listens on its data port only while a channel is set up,
// so ECONNREFUSED means that the way is open.
int ConnectError(const std::string& host, int port) {
    constexpr int PATIENCE_MS = 2000;
    const lumora::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(port));
    inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    if (connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
        return 0;
    }
    pollfd watched[] = {{fd.Get(), POLLOUT, 0}, {StopFd(), POLLIN, 0}};
    // A non-blocking connect reports at once only what this host knows, such as a missing route.
    if (errno != EINPROGRESS) {
        return errno;
    }
    // A packet filter that drops gives no answer at all. Without this limit the kernel would try for two
    // minutes.
    if (poll(watched, 2, PATIENCE_MS) == 0) {
        return ETIMEDOUT;
    }
    ThrowWhenStopped();
    int error = 0;
    // When the socket becomes writable, SO_ERROR tells how the attempt ended.
    socklen_t length = sizeof(error);
    getsockopt(fd.Get(), SOL_SOCKET, SO_ERROR, &error, &length);
    return error;
}

// Without a key, the findings on keys tell enough.
Finding DescribeChannel(const lumora::Peer& peer) {
    if (peer.isPrivate) {
        return {Level::GOOD, DEVICE,
                "the data channel is private, by the key \"" + OneLine(peer.identity) + '"', ""};
    }
    return {Level::WARNING, DEVICE,
            "the data channel is plain: hosts on the way can read and change the data",
            "the device is of an earlier version, or LUMORA_LINK_CHANNEL is plain here or there"};
}

void ReportChannel(Findings& findings, const DeviceChoice& device, const FoundDevice& found) {
    try {
        // A session connects in both directions: ours to port 6666 there, and the device's to port 6667 here.
        const ClientSession session({device, std::chrono::milliseconds(2000), false}, {});
        findings.push_back(
            {Level::GOOD, DEVICE, "connected: TCP port 6666 is reached there, and 6667 from there", ""});
        if (std::getenv("LUMORA_LINK_PSK_FILE") != nullptr) {
            findings.push_back(DescribeChannel(session.Peer()));
        }
    } catch (const Failure& failure) {
        // Only after a failure: tells which of the two directions is blocked.
        const int error = ConnectError(found.address, DEVICE_PORT);
        const bool open = error == 0 || error == ECONNREFUSED;
        findings.push_back({Level::FAULT, DEVICE, std::string("cannot be connected: ") + failure.what(),
                            open ? "TCP port 6666 is reached there, so look at the way back: a firewall on "
                                   "this host has to let "
                                   "TCP to port 6667 pass"
                                 : "TCP port 6666 is not reached there (" + SystemError(error) +
                                       "): a firewall there, or on the way, has to let it pass"});
    }
}

// While another client of this host is connected, it has the port that the device sends to. A connection
// cannot be tried then: not even to port 6666 alone, because the device might take it for that client's.
Finding NotConnected(const std::optional<PortHolder>& holder) {
    const std::string text = "found and asked only. Not checked: TCP port 6666 there, and 6667 from there. ";
    if (!holder) {
        return {Level::WARNING, DEVICE, text + "TCP port 6667 of this host is taken",
                "ss -tlnp 'sport = :6667' as root names the program. End it and repeat"};
    }
    if (!holder->usesLumora) {
        return {Level::FAULT, DEVICE,
                "cannot be connected: TCP port 6667 of this host belongs to " + holder->Text(),
                "no client can be connected on this host until that program ends"};
    }
    return {Level::NOTE, DEVICE,
            text + "TCP port 6667 is used by a running client of this host: " + holder->Text(),
            "end that client and repeat, to check the rest of the way"};
}

}  // namespace

void WalkTo(Findings& findings, DeviceChoice device, std::chrono::milliseconds wait) {
    CheckName("TYPE", device.type);
    std::vector<FoundDevice> all;
    {
        // The node leaves the network before the client joins. Both in one process would be two nodes with
        // one configured port.
        LinkNode node;
        all = FindDevices(node, device.type, wait);
    }
    if (all.empty()) {
        findings.push_back(
            {Level::FAULT, DEVICE, "no device of type " + device.Text() + " was found",
             "is it running, in this network, and with this type? lumora find lists those that are there; "
             "LUMORA_LINK_PEERS names devices that multicast does not reach"});
        return;
    }
    const FoundDevice& found = all.front();
    const std::string place = found.address + ", UDP port " + std::to_string(found.port);
    findings.push_back({Level::GOOD, DEVICE, "found at " + place, ""});
    if (all.size() > 1) {
        findings.push_back({Level::NOTE, DEVICE, std::to_string(all.size()) + " devices have this type",
                            device.type + "@ADDRESS names one of them"});
    }
    if (!found.answers) {
        findings.push_back(
            {Level::FAULT, DEVICE, "it does not tell its services",
             std::getenv("LUMORA_LINK_PSK_FILE") != nullptr
                 ? "a client, or a device that is not ready or hangs, or this device has a key that is "
                   "not in the file of LUMORA_LINK_PSK_FILE"
                 : "a client, or a device that is not ready or hangs, or this device has a key and "
                   "LUMORA_LINK_PSK_FILE names none here"});
        return;
    }
    findings.push_back(
        {Level::GOOD, DEVICE,
         "answers: " + Count(found.services.size(), "service", "services") + ", version " + found.version,
         ""});
    // From here on only this device, also if another one of the type answers sooner.
    device.address = found.address + ':' + std::to_string(found.port);
    device.Take();
    if (TcpPortState(CLIENT_PORT) == PortState::TAKEN) {
        findings.push_back(NotConnected(TcpPortHolder(CLIENT_PORT)));
    } else {
        ReportChannel(findings, device, found);
    }
}

}  // namespace lumora_cli
