// How a command becomes a device.
#pragma once

#include <lumora.hpp>

namespace lumora_cli {

// Throws a Failure if another device on this host has the data port, or if the network cannot be joined.
void StartDevice(lumora::Device& device);

}  // namespace lumora_cli
