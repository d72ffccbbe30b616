// Who sent the request that a thread is handling, where the platform library holds keys.
#pragma once

#include <array>
#include <optional>
#include <string>

namespace lumora {

struct Requester {
    std::string identity;                // the name of its key
    std::array<unsigned char, 16> node;  // the same for all requests of one node
};

// To be called by the handler of a request, on its thread. Nothing if the requester has proven no identity,
// or if the platform library holds no keys.
std::optional<Requester> CurrentRequester();

}  // namespace lumora
