// The settings of this library, all from the environment; a bad value is logged and left out.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/link/wire/types.h"

namespace lumora_link {

struct Config {
    std::vector<std::string> interfaces;  // LUMORA_LINK_INTERFACE; all where empty
    std::vector<Endpoint> peers;          // LUMORA_LINK_PEERS
    std::uint16_t port = 0;               // LUMORA_LINK_PORT; the system's choice where 0
    // LUMORA_LINK_PSK_FILE; an empty name counts, so that nobody is unsecured by mistake.
    std::optional<std::string> pskFile;
    bool requireKey = false;  // LUMORA_LINK_REQUIRE_KEY, or the build says so
};

using Environment = std::function<const char*(const char* name)>;

Config ReadConfig(const Environment& environment);

}  // namespace lumora_link
