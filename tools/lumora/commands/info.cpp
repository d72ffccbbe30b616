// lumora info: all that a device says of itself.
#include <memory>

#include "tools/lumora/manual/command.h"
#include "tools/lumora/session/link_node.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/json.h"
#include "tools/lumora/terminal/output.h"
#include "tools/lumora/terminal/table.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

struct Options {
    std::string type;
    std::chrono::milliseconds wait{1500};
};

std::string Page(const FoundDevice& device) {
    std::string page = OneLine(device.type) + "\n  address  " + device.address + ", UDP port " +
                       std::to_string(device.port) + '\n';
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

int Run(const Options& options) {
    LinkNode node;
    const std::vector<FoundDevice> devices = options.type.empty()
                                                 ? FindAllDevices(node, options.wait)
                                                 : FindDevices(node, options.type, options.wait);
    if (devices.empty()) {
        throw Failure(EXIT_NO_DEVICE, "no such device was found", "lumora find lists those that are there");
    }
    std::string pages;
    for (const FoundDevice& device : devices) {
        pages += (pages.empty() ? "" : "\n") + Page(device);
    }
    Print(IsJson() ? ToJson(devices) + '\n' : pages);
    return EXIT_OK;
}

}  // namespace

Command InfoCommand() {
    const auto options = std::make_shared<Options>();
    Command command("info", "tells all that a device says of itself");
    command.Describe("It only asks: a device that serves a client of another host is not disturbed.");
    command.Argument("TYPE", options->type, "the type of the device; without it, every device");
    command.Seconds("--wait", options->wait, std::chrono::hours(24), "how long to search (1.5)");
    command.Show("lumora info camera", "every camera with its services and its version");
    command.run = [options] { return Run(*options); };
    return command;
}

}  // namespace lumora_cli
