// lumora info: all that a device says of itself.
#include <memory>

#include "tools/lumora/manual/command.h"
#include "tools/lumora/session/client_session.h"
#include "tools/lumora/session/link_node.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/json.h"
#include "tools/lumora/terminal/output.h"
#include "tools/lumora/terminal/table.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

struct Options {
    DeviceChoice device;
    std::chrono::milliseconds wait{2000};
};

std::string Page(const FoundDevice& device) {
    std::string page = OneLine(device.type) + "\n  address  " + device.address + ", UDP port " +
                       std::to_string(device.port) + '\n';
    // A node with a type that does not describe services is usually a client.
    if (!device.answers) {
        return page +
               "  It offers no services: a client, or a device that is not ready or does not answer.\n";
    }
    page += "  version  " + (device.version.empty() ? "-" : OneLine(device.version)) + '\n';
    for (const Service& service : device.services) {
        page += "  service  " + OneLine(service.name) + ", " + TransportName(service.transport) + ", " +
                (service.outputBytes == 0 ? "output of any length"
                                          : "output of " + Grouped(service.outputBytes) + " bytes") +
                '\n';
    }
    return page;
}

int Run(Options options) {
    options.device.Take();
    LinkNode node;
    const std::string& type = options.device.type;
    const std::vector<FoundDevice> devices =
        // Without a type, all devices that send a hello in this time.
        type.empty() ? FindAllDevices(node, options.wait) : FindDevices(node, type, options.wait);
    if (devices.empty()) {
        throw Failure(EXIT_NO_DEVICE,
                      type.empty() ? "no device was found"
                                   : "no device of type " + options.device.Text() + " was found",
                      "lumora find lists those that are there, --wait searches longer");
    }
    std::string pages;
    for (const FoundDevice& device : devices) {
        pages += (pages.empty() ? "" : "\n") + Page(device);
    }
    // All pages in one write, so that a reader that leaves early sees whole devices.
    Print(IsJson() ? ToJson(devices) + '\n' : pages);
    return EXIT_OK;
}

}  // namespace

Command InfoCommand() {
    const auto options = std::make_shared<Options>();
    Command command("info", "tells all that a device says of itself");
    command.Describe("It only asks: a device that serves a client of another host is not disturbed.");
    command
        .Argument("TYPE", options->device.type,
                  "the type of the device, or TYPE@ADDRESS for one of several; without it, every device")
        .offer = Option::Offer::TYPES;
    AddAddress(command, options->device);
    AddWait(command, options->wait, "how long to search (2)");
    command.Prints({{"[].address", "the IPv4 address"},
                    {"[].port", "the UDP port of the link platform"},
                    {"[].type", "the device type"},
                    {"[].answers", "false: the node did not describe any services"},
                    {"[].version", "of the device's library"},
                    {"[].services[].name", "the name of a service"},
                    {"[].services[].transport", "none, udp, tcp, rtp, 4 or 5"},
                    {"[].services[].outputBytes", "the length of its output; 0: any"}});
    command.Show("lumora info camera", "every camera with its services and its version");
    command.run = [options] { return Run(*options); };
    return command;
}

}  // namespace lumora_cli
