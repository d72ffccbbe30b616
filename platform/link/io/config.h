// The settings of this library, all from the environment. A bad value is logged and ignored.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "link_security.h"
#include "platform/link/wire/types.h"

namespace lumora_link {

struct Config {
    std::vector<std::string> interfaces;  // LUMORA_LINK_INTERFACE; empty: all
    std::vector<Endpoint> peers;          // LUMORA_LINK_PEERS
    std::uint16_t port = 0;               // LUMORA_LINK_PORT; 0: the system chooses
    // LUMORA_LINK_PSK_FILE. An empty name counts as set and fails: otherwise a mistake in a script would
    // leave the node without security.
    std::optional<std::string> pskFile;
    bool requireKey = false;                            // LUMORA_LINK_REQUIRE_KEY, or the build says so
    LinkChannelMode channelMode = LINK_CHANNEL_PREFER;  // LUMORA_LINK_CHANNEL; means nothing without a key
};

using Environment = std::function<const char*(const char* name)>;

Config ReadConfig(const Environment& environment);

}  // namespace lumora_link
