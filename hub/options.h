// The command line and the configuration file of lumora-hub.
#pragma once

#include <string>

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
// The settings that they mean. Throws std::runtime_error with a sentence for people.
Settings SettingsOf(const CoreOptions& options);

}  // namespace lumora_hub
