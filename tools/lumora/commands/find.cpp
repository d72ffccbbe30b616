// lumora find: the devices of the network, once, or as they come and go.
#include <unistd.h>

#include <memory>

#include "tools/lumora/manual/command.h"
#include "tools/lumora/os/signals.h"
#include "tools/lumora/session/client_session.h"
#include "tools/lumora/session/link_node.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/json.h"
#include "tools/lumora/terminal/output.h"
#include "tools/lumora/terminal/table.h"
#include "tools/lumora/terminal/terminal.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

struct Options {
    DeviceChoice device;
    bool watch = false;
    std::chrono::milliseconds wait{2000};
};

// A length of 0 means any length.
std::string OutputOf(const Service& service) {
    return service.outputBytes == 0 ? "-" : Grouped(service.outputBytes);
}

void PrintTable(const std::vector<FoundDevice>& devices) {
    Table table({"ADDRESS", "PORT", "TYPE", "SERVICE", "TRANSPORT", "OUTPUT BYTES"});
    for (const FoundDevice& device : devices) {
        const std::string port = std::to_string(device.port);
        for (const Service& service : device.services) {
            table.AddRow({device.address, port, device.type, service.name, TransportName(service.transport),
                          OutputOf(service)});
        }
        if (device.services.empty()) {
            table.AddRow({device.address, port, device.type, "-", "-", "-"});
        }
    }
    Print(table.Text());
}

// Searches by type if one is given. Without a type the link platform cannot search, so FindAllDevices listens
// for events.
int Once(const Options& options) {
    LinkNode node;
    const std::string& type = options.device.type;
    const std::vector<FoundDevice> devices =
        type.empty() ? FindAllDevices(node, options.wait) : FindDevices(node, type, options.wait);
    if (IsJson()) {
        PrintLine(ToJson(devices));
    } else if (!devices.empty()) {
        PrintTable(devices);
    }
    if (devices.empty()) {
        const std::string what = type.empty() ? "no device" : "no device of type " + options.device.Text();
        throw Failure(EXIT_NO_DEVICE, what + " was found",
                      "is one running in this network? --wait searches longer, lumora doctor looks for what "
                      "is in the way");
    }
    return EXIT_OK;
}

// "name (transport, bytes), ...", or "-" for a device without services.
std::string ServicesText(const FoundDevice& device) {
    std::string text;
    for (const Service& service : device.services) {
        text += (text.empty() ? "" : ", ") + service.name + " (" + TransportName(service.transport) + ", " +
                OutputOf(service) + ')';
    }
    return text.empty() ? "-" : text;
}

// A device that has just come registers its services a moment later.
FoundDevice DescribeNewcomer(LinkNode& node, const NodeEvent& event) {
    constexpr int TRIES = 3;
    constexpr int PAUSE_MS = 200;
    FoundDevice found = {event.address, event.port, event.type, false, {}, ""};
    for (int i = 0; i < TRIES && !found.answers && PauseUnlessStopped(i == 0 ? 0 : PAUSE_MS); ++i) {
        for (const RemoteDevice& device : node.Find(event.type)) {
            // Several devices may have this type. The event belongs to one address and port.
            if (device.Address() == event.address && device.Port() == event.port) {
                found = Describe(device, event.type);
            }
        }
    }
    return found;
}

void PrintEvent(bool added, const FoundDevice& device) {
    const WallTime now = std::chrono::system_clock::now();
    if (IsJson()) {
        PrintLine(JsonObject()
                      .Add("time", StampedTime(now))
                      .Add("event", added ? "added" : "removed")
                      .AddRaw("device", ToJson(device))
                      .Text());
        return;
    }
    const std::string place = device.address + ':' + std::to_string(device.port) + "  " + device.type;
    const std::string line =
        (added ? "+ " : "- ") + OneLine(place + (added ? "  " + ServicesText(device) : ""));
    PrintLine(ClockTime(now) + "  " + Coloured(line, added ? Colour::GREEN : Colour::RED, STDOUT_FILENO));
}

// Nodes without a type only look round, as this one does.
int Watch(const Options& options) {
    LinkNode node;
    // Ends when Take returns nothing: without a deadline that is a signal only, so the exit code is 0.
    while (const std::optional<NodeEvent> event = node.Events().Take(Never())) {
        if (event->type.empty() || (!options.device.type.empty() && event->type != options.device.type)) {
            continue;
        }
        PrintEvent(event->added, event->added
                                     ? DescribeNewcomer(node, *event)
                                     : FoundDevice{event->address, event->port, event->type, false, {}, ""});
    }
    return EXIT_OK;
}

}  // namespace

Command FindCommand() {
    const auto options = std::make_shared<Options>();
    Command command("find", "lists the devices of the network and their services");
    command.Describe(
        "Without TYPE every device is listed that makes itself heard. Clients are nodes with a type, too, "
        "and are listed without services.");
    command
        .Argument("TYPE", options->device.type,
                  "the type of the devices, or TYPE@ADDRESS for one of several; without it, every device")
        .offer = Option::Offer::TYPES;
    AddAddress(command, options->device);
    command
        .Flag("--watch", options->watch,
              "goes on, and prints a line for each device that comes (+) or goes (-)")
        .letter = 'W';
    AddWait(command, options->wait,
            "how long to search for a TYPE that is not found at once, and how long to listen without a TYPE "
            "(2)");
    command.Prints({
        {"[].address", "the IPv4 address"},
        {"[].port", "the UDP port of the link platform"},
        {"[].type", "the device type"},
        {"[].answers", "false: the node did not describe any services"},
        {"[].version", "of the device's library"},
        {"[].services[].name", "the name of a service"},
        {"[].services[].transport", "none, udp, tcp, rtp, 4 or 5"},
        {"[].services[].outputBytes", "the length of its output; 0: any"},
        {"time", "with --watch: when the device came or went"},
        {"event", "with --watch: added or removed"},
        {"device.address", "the IPv4 address"},
        {"device.port", "the UDP port of the link platform"},
        {"device.type", "the device type"},
        {"device.answers", "false: the node did not describe any services"},
        {"device.version", "of the device's library"},
        {"device.services[].name", "the name of a service"},
        {"device.services[].transport", "none, udp, tcp, rtp, 4 or 5"},
        {"device.services[].outputBytes", "the length of its output; 0: any"},
    });
    command.Show("lumora find", "every device");
    command.Show("lumora find camera --watch", "cameras as they come and go");
    command.Show("lumora --json find | jq -r '.[].type'", "the types alone");
    command.run = [options] {
        options->device.Take();
        return options->watch ? Watch(*options) : Once(*options);
    };
    return command;
}

}  // namespace lumora_cli
