// What lumora doctor finds. Each of these looks at one thing, and adds what it has to say.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "tools/lumora/session/device_address.h"

namespace lumora_cli {

struct Finding {
    enum class Level { GOOD, NOTE, WARNING, FAULT };

    Level level;
    std::string area;
    std::string text;
    std::string advice;
};

using Findings = std::vector<Finding>;

void LookAtVariables(Findings& findings);
void LookAtKeys(Findings& findings);
void LookAtInterfaces(Findings& findings);
void LookAtMulticast(Findings& findings, std::chrono::milliseconds listening);
void LookAtPorts(Findings& findings);
void LookAtFirewall(Findings& findings);
void LookAtLibraries(Findings& findings);
void TryOnLoopback(Findings& findings);
// Searches for the device, asks it, and connects to it.
void WalkTo(Findings& findings, DeviceChoice device, std::chrono::milliseconds wait);

}  // namespace lumora_cli
