// lumora version: of this program, of the library that it runs with, of a device.
#include <memory>

#include "nodes/platform_front.h"
#include "tools/lumora/manual/command.h"
#include "tools/lumora/session/client_session.h"
#include "tools/lumora/session/link_node.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/json.h"
#include "tools/lumora/terminal/output.h"

namespace lumora_cli {

namespace {

// The library tells its version to a client only, and a client joins the network: this one stays at home.
std::string LibraryVersion() {
    lumora_nodes::StayOffline();
    return lumora::Client("lumora-cli").LibraryVersion();
}

// Asks as a node that only looks: a client that is connected to the device is not disturbed.
std::string DeviceVersion(SessionOptions options) {
    options.device.Take();
    CheckName("TYPE", options.device.type);
    LinkNode node;
    for (const FoundDevice& device : FindDevices(node, options.device.type, options.wait)) {
        if (!device.version.empty()) {
            return device.version;
        }
    }
    throw Failure(EXIT_NO_DEVICE, "no device of type " + options.device.Text() + " was found",
                  "lumora find lists those that are there, --wait searches longer");
}

int Run(const SessionOptions& options) {
    const std::string device = options.device.type.empty() ? "" : DeviceVersion(options);
    const std::string library = LibraryVersion();
    if (IsJson()) {
        JsonObject versions;
        versions.Add("program", LUMORA_VERSION).Add("library", library);
        if (!device.empty()) {
            versions.Add("device", device);
        }
        PrintLine(versions.Text());
        return EXIT_OK;
    }
    Print("program  " LUMORA_VERSION "\nlibrary  " + library + '\n' +
          (device.empty() ? "" : "device   " + OneLine(device) + '\n'));
    return EXIT_OK;
}

}  // namespace

Command VersionCommand() {
    const auto options = std::make_shared<SessionOptions>();
    Command command("version", "tells the versions of program, library and device");
    AddSessionOptions(command, *options);
    // AddSessionOptions makes TYPE required. This command alone works without it.
    command.options.front().required = false;
    command.options.front().text = "a device that is asked, too; without it, nothing touches the network";
    command.Prints({{"program", "the version of this program"},
                    {"library", "the version of the library that it runs with"},
                    {"device", "with TYPE, the version of the device's library"}});
    command.Show("lumora version camera", "three lines: program, library, device");
    command.run = [options] { return Run(*options); };
    return command;
}

}  // namespace lumora_cli
