// lumora-hub: lets any number of programs use the devices of a network.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include "hub/core/face.h"
#include "hub/core/hub.h"
#include "hub/options.h"
#include "hub/service_manager.h"

namespace lumora_hub {

namespace {

// One line for each change, so that the program is of use without a face, too.
void PrintChange(const DeviceEvent& event) {
    const DeviceState& device = event.device;
    std::string services;
    for (const ServiceState& service : device.services) {
        services += (services.empty() ? "  " : ", ") + service.name;
    }
    if (event.kind == DeviceEvent::Kind::APPEARED) {
        std::printf("+ %s%s\n", device.id.c_str(), services.c_str());
    } else if (event.kind == DeviceEvent::Kind::LEFT) {
        std::printf("- %s\n", device.id.c_str());
    }
    std::fflush(stdout);
}

sigset_t EndSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

int Serve(const Settings& settings, std::vector<std::unique_ptr<Face>> idle, bool list) {
    // Threads inherit the mask, so only this one gets the signals.
    const sigset_t signals = EndSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    Hub hub(settings);
    const std::unique_ptr<Registration> printing = list ? hub.Watch(PrintChange) : nullptr;
    // The faces end before the hub.
    const std::vector<std::unique_ptr<Face>> faces = std::move(idle);
    for (const std::unique_ptr<Face>& face : faces) {
        face->Start(hub);
    }
    TellServiceManager("READY=1");
    int signal = 0;
    sigwait(&signals, &signal);
    TellServiceManager("STOPPING=1");
    return 0;
}

int Main(int count, char** words) {
    CLI::App app(
        "Lets any number of programs use the devices of a network: it holds a channel to each device that "
        "is wanted, and hands out what the device sends.",
        "lumora-hub");
    CoreOptions options;
    bool list = false;
    std::vector<std::unique_ptr<Face>> faces = MakeFaces();
    app.set_version_flag("--version", "lumora-hub " LUMORA_VERSION);
    app.set_config("--config", "", "reads options from this file: lines as idle = 30, see docs/hub.md");
    app.add_flag("--list", list, "prints a line for each device that comes or goes");
    AddCoreOptions(app, options);
    for (const std::unique_ptr<Face>& face : faces) {
        face->AddOptions(app);
    }
    CLI11_PARSE(app, count, words);
    list = list || faces.empty();
    try {
        return Serve(SettingsOf(options), std::move(faces), list);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "lumora-hub: %s\n", error.what());
        return 1;
    }
}

}  // namespace

}  // namespace lumora_hub

int main(int count, char** words) { return lumora_hub::Main(count, words); }
