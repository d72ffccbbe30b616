// A request as the platform hands it to a handler, and its form in an input.
#pragma once

#include <cstdint>
#include <string>

#include "link_platform.h"
#include "tests/fuzz/mutation.h"

namespace lumora_fuzz {

// The four requests, the descriptor, a device that leaves (its address as the value), a block that the
// application sends (the service as the key).
enum class RequestKind : std::uint8_t { GET, PUT, POST, DELETE, DESCRIBE, REMOVED, SEND, COUNT };

struct Request {
    RemoteEndpoint requester = {};
    unsigned int size = 0;
    std::string key;  // neither has a 0 in it
    std::string value;
};

// Four bytes of address, two of the port, two of the size, the key, a 0, the value.
Request ReadRequest(const std::string& bytes);
std::string WriteRequest(const Request& request);
std::string MutateRequest(const std::string& bytes, Dice& dice);

}  // namespace lumora_fuzz
