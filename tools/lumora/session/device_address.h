// Which of several devices of one type is meant: TYPE@ADDRESS, or --address ADDRESS.
#pragma once

#include <string>

#include "nodes/device_address.h"
#include "tools/lumora/manual/command.h"

namespace lumora_cli {

struct DeviceChoice {
    std::string type;     // as the user wrote it, until Take; then without an address
    std::string address;  // of --address

    // Splits the type, and has searches of this process find only devices with the address, if there is one.
    void Take();
    // "camera", "camera at 192.168.1.7"
    std::string Text() const;
};

// Adds --address. The commands add TYPE themselves.
void AddAddress(Command& command, DeviceChoice& choice);

}  // namespace lumora_cli
