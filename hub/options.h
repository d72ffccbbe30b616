// The command line and the configuration file of lumora-hub.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "hub/core/face.h"
#include "hub/core/settings.h"

namespace CLI {
class App;
}

namespace lumora_hub {

struct CoreOptions {
    Settings settings;
    std::string ports = "6700-6899";
    double idleSeconds = 10;
    double forgetSeconds = 600;
};

void AddCoreOptions(CLI::App& app, CoreOptions& options);

struct ProgramOptions {
    CoreOptions core;
    bool list = false;
};

// Describes the program and all of its options, those of the faces too. The app refers to options and faces.
void AddProgramOptions(CLI::App& app, ProgramOptions& options,
                       const std::vector<std::unique_ptr<Face>>& faces);
// The settings that they mean. Throws OptionError, or std::runtime_error if there is no worker program.
Settings SettingsOf(const CoreOptions& options);

}  // namespace lumora_hub
