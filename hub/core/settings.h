// What the command line and the configuration file say about the core.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "hub/core/port_range.h"

namespace lumora_hub {

struct Settings {
    std::vector<std::string> types;  // only devices of these; empty: of all
    PortLimits ports;
    std::string worker;                                            // the program
    std::chrono::milliseconds idle = std::chrono::seconds(10);     // a channel without consumers lives on
    std::chrono::milliseconds forget = std::chrono::minutes(10);   // a device that left, if consumers wait
    std::chrono::milliseconds connect = std::chrono::seconds(10);  // a request waits for its turn
    std::chrono::milliseconds open = std::chrono::seconds(90);     // a worker opens its channel
    // A worker answers a request. Longer than the library waits for a device that does not return from its
    // handler.
    std::chrono::milliseconds answer = std::chrono::seconds(70);
    std::size_t consumers = 1000;
    std::size_t devices = 1000;
};

}  // namespace lumora_hub
