// lumora version: of this program, of the library that it runs with, of a device.
#include <memory>

#include "tools/lumora/manual/command.h"
#include "tools/lumora/session/client_session.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/json.h"
#include "tools/lumora/terminal/output.h"

namespace lumora_cli {

namespace {

int Run(const SessionOptions& options) {
    ClientSession session;
    const std::string library = session.LibraryVersion();
    std::string device;
    if (!options.type.empty()) {
        session.Find(options);
        device = session.DeviceVersion();
    }
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
    command.options.front().required = false;
    command.options.front().text = "a device that is asked, too";
    command.Show("lumora version camera", "three lines: program, library, device");
    command.run = [options] { return Run(*options); };
    return command;
}

}  // namespace lumora_cli
