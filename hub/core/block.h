// A block of a device's service. All consumers share one.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace lumora_hub {

struct Block {
    std::string device;   // the id of the device, as DeviceState has it
    std::string service;  // the name of the service
    // Counts the blocks of this service since the hub knows the device. A gap means that blocks were lost
    // between the device and the hub.
    std::uint64_t number = 0;
    std::chrono::system_clock::time_point received;  // by the hub
    std::chrono::steady_clock::time_point arrived;   // the same moment, for measuring
    std::string bytes;
};

using BlockPointer = std::shared_ptr<const Block>;

}  // namespace lumora_hub
