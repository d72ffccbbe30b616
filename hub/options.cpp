#include "hub/options.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <climits>
#include <stdexcept>

namespace lumora_hub {

namespace {

const char WORKER[] = "lumora-hub-worker";

// Beside the hub in a build folder, and in libexec of the same prefix once it is installed.
std::string FindWorker() {
    std::array<char, PATH_MAX> self = {};
    const ssize_t length = readlink("/proc/self/exe", self.data(), self.size() - 1);
    const std::string path(self.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    const std::string folder = path.substr(0, path.rfind('/') + 1);
    for (const std::string& candidate : {folder + WORKER, folder + LUMORA_HUB_LIBEXEC "/" + WORKER}) {
        if (access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    throw std::runtime_error(std::string(WORKER) +
                             " is neither beside this program nor where it is installed to");
}

std::chrono::milliseconds Seconds(double seconds) {
    return std::chrono::milliseconds(static_cast<std::chrono::milliseconds::rep>(seconds * 1000));
}

}  // namespace

void AddCoreOptions(CLI::App& app, CoreOptions& options) {
    constexpr double LONGEST_SECONDS = 24 * 3600;
    app.add_option("--type", options.settings.types,
                   "only devices of this type; may be repeated. All types otherwise")
        ->type_name("TYPE");
    app.add_option("--ports", options.ports, "the ports of the data channels, two for each device")
        ->type_name("FIRST-LAST")
        ->capture_default_str();
    app.add_option("--idle", options.idleSeconds, "how long a channel stays open after its last consumer")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, LONGEST_SECONDS))
        ->capture_default_str();
    app.add_option("--forget", options.forgetSeconds,
                   "how long a device that left stays known to its consumers")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, LONGEST_SECONDS))
        ->capture_default_str();
    app.add_option("--consumers", options.settings.consumers, "how many consumers there may be")
        ->type_name("NUMBER")
        ->check(CLI::Range(1, 100000))
        ->capture_default_str();
    app.add_option("--devices", options.settings.devices, "how many devices are remembered")
        ->type_name("NUMBER")
        ->check(CLI::Range(1, 100000))
        ->capture_default_str();
}

void AddProgramOptions(CLI::App& app, ProgramOptions& options,
                       const std::vector<std::unique_ptr<Face>>& faces) {
    app.name("lumora-hub");
    app.description(
        "Lets any number of programs use the devices of a network: it holds a channel to each device that "
        "is wanted, and hands out what the device sends.");
    app.set_version_flag("--version", "lumora-hub " LUMORA_VERSION);
    app.set_config("--config", "/etc/lumora/hub.toml",
                   "reads options from this file: lines as idle = 30, if it is there");
    // A misspelt name is an error in the file as well.
    app.allow_config_extras(CLI::config_extras_mode::error);
    app.add_flag("--list", options.list, "prints a line for each device that comes or goes");
    AddCoreOptions(app, options.core);
    for (const std::unique_ptr<Face>& face : faces) {
        face->AddOptions(app);
    }
}

Settings SettingsOf(const CoreOptions& options) {
    Settings settings = options.settings;
    const std::optional<PortLimits> ports = ParsePorts(options.ports);
    if (!ports) {
        throw OptionError("--ports takes two numbers from 1024 to 65535 as 6700-6899, not \"" +
                          options.ports + '"');
    }
    settings.ports = *ports;
    settings.idle = Seconds(options.idleSeconds);
    settings.forget = Seconds(options.forgetSeconds);
    settings.worker = FindWorker();
    return settings;
}

}  // namespace lumora_hub
