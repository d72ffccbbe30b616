// What clients of the broker may ask of the hub at a time. Any of them can publish a request.
#pragma once

#include <cstddef>

#include "lumora.h"

namespace lumora_hub {

// The limits of the library for what a client sends to a device.
constexpr std::size_t MOST_BLOCK_BYTES = LUM_MAX_CLIENT_DATA_LENGTH;
constexpr std::size_t MOST_COMMAND_BYTES = LUM_MAX_CMD_LENGTH;  // name and parameter together

constexpr std::size_t MOST_OVERHEAD_BYTES = std::size_t{64} << 10;  // topic and properties of a packet
constexpr std::size_t MOST_REQUESTS = 64;                           // whose end is not known yet
constexpr std::size_t MOST_REQUESTS_OF_DEVICE = 48;  // so that a slow device leaves some to others
constexpr std::size_t MOST_REQUEST_BYTES = std::size_t{16} << 20;  // of their blocks
constexpr std::size_t MOST_REPLIES = 256;                          // that wait for the broker

}  // namespace lumora_hub
