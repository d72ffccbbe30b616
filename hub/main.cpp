// lumora-hub: lets any number of programs use the devices of a network.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>

#include "hub/core/face.h"
#include "hub/core/hub.h"
#include "hub/options.h"
#include "hub/service_manager.h"

namespace lumora_hub {

namespace {

// lumora-hub.service knows this number.
constexpr int WRONG_OPTIONS = 2;

// A type comes from the network, and must not steer the terminal.
std::string Harmless(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char character) { return std::iscntrl(character) != 0; }, '?');
    return text;
}

// One line for each change, so that the program is of use without a face, too.
void PrintChange(const DeviceEvent& event) {
    const DeviceState& device = event.device;
    std::string services;
    for (const ServiceState& service : device.services) {
        services += (services.empty() ? "  " : ", ") + service.name;
    }
    if (event.kind == DeviceEvent::Kind::APPEARED) {
        std::printf("+ %s\n", Harmless(device.id + services).c_str());
    } else if (event.kind == DeviceEvent::Kind::LEFT) {
        std::printf("- %s\n", Harmless(device.id).c_str());
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

// Before there are threads. The libraries log each step of a channel as a state.
void ChooseLogLevel() { setenv("LUMORA_LOG_LEVEL", "3", 0); }

int Serve(const Settings& settings, std::vector<std::unique_ptr<Face>> idle, bool list) {
    // Threads inherit the mask, so only this one gets the signals.
    const sigset_t signals = EndSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    Hub hub(settings);
    const std::unique_ptr<Registration> printing = list ? hub.Watch(PrintChange) : nullptr;
    FigureBoard figures;
    // The faces end before the hub.
    const std::vector<std::unique_ptr<Face>> faces = std::move(idle);
    for (const std::unique_ptr<Face>& face : faces) {
        face->Start(hub, figures);
    }
    TellServiceManager("READY=1");
    int signal = 0;
    sigwait(&signals, &signal);
    TellServiceManager("STOPPING=1");
    return 0;
}

int Main(int count, char** words) {
    CLI::App app;
    ProgramOptions options;
    std::vector<std::unique_ptr<Face>> faces = MakeFaces();
    AddProgramOptions(app, options, faces);
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return "lumora-hub: " + std::string(error.what()) + "; see lumora-hub --help\n";
    });
    try {
        app.parse(count, words);
    } catch (const CLI::ParseError& error) {
        // CLI11 has a number for each mistake; a service manager needs one for all of them.
        return app.exit(error) == 0 ? 0 : WRONG_OPTIONS;
    }
    ChooseLogLevel();
    const bool list = options.list || faces.empty();
    return Serve(SettingsOf(options.core), std::move(faces), list);
}

}  // namespace

}  // namespace lumora_hub

int main(int count, char** words) {
    try {
        return lumora_hub::Main(count, words);
    } catch (const lumora_hub::OptionError& error) {
        std::fprintf(stderr, "lumora-hub: %s; see lumora-hub --help\n", error.what());
        return lumora_hub::WRONG_OPTIONS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "lumora-hub: %s\n", error.what());
        lumora_hub::DelayNextStart(error.what());
    } catch (...) {
        std::fputs("lumora-hub: an unknown exception\n", stderr);
    }
    return 1;
}
