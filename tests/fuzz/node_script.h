// What can happen to a node of the link platform, as records of a script.
#pragma once

#include <cstdint>

namespace lumora_fuzz {

enum NodeStep : std::uint8_t {
    // A datagram: a byte that chooses its source (and says by its highest bit that it answers what the node
    // sent
    // last), then the bytes.
    GROUP_DATAGRAM,
    ANSWER_DATAGRAM,
    REQUEST_DATAGRAM,
    CONVERSATION_DATAGRAM,
    REFUSED,  // the port of the last conversation
    TIME_PASSES,
    SEARCH,   // the device type
    REQUEST,  // the method, the length of the key, key and value
    HANDLED,  // the oldest open call, with the bytes as its answer
    NODE_STEPS
};

constexpr unsigned char AS_ANSWER = 0x80;

}  // namespace lumora_fuzz
