#include "platform/link/io/config.h"

#include <net/if.h>

#include <charconv>

#include "platform/link/log.h"

namespace lumora_link {

namespace {

std::vector<std::string> SplitList(const char* text) {
    std::vector<std::string> items;
    std::string item;
    // The terminator counts as a separator, so the last item needs no code of its own.
    for (const char* at = text; at != nullptr; ++at) {
        const bool end = *at == '\0';
        if (!end && *at != ',' && *at != ' ') {
            item.push_back(*at);
            continue;
        }
        if (!item.empty()) {
            items.push_back(std::move(item));
        }
        item.clear();
        if (end) {
            break;
        }
    }
    return items;
}

std::uint16_t ReadPort(const char* text) {
    if (text == nullptr || *text == '\0') {
        return 0;
    }
    const std::string value = text;
    std::uint16_t port = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), port);
    if (error != std::errc() || *end != '\0' || port == 0) {
        LINK_LOG(LEVEL_ERROR, "LUMORA_LINK_PORT: \"%s\" is not a port from 1 to 65535, ignored\n", text);
        return 0;
    }
    return port;
}

std::vector<std::string> ReadInterfaces(const char* text) {
    std::vector<std::string> names = SplitList(text);
    for (const std::string& name : names) {
        // The name stays in the list. An empty list would mean every interface.
        if (name.size() >= IF_NAMESIZE) {
            LINK_LOG(LEVEL_ERROR, "LUMORA_LINK_INTERFACE: \"%s\" is no name of an interface\n", name.c_str());
        }
    }
    return names;
}

// A value that cannot be read counts as a wish for safety.
bool ReadRequireKey(const char* text) {
    const std::string value = text == nullptr ? "" : text;
    if (!value.empty() && value != "0" && value != "1") {
        LINK_LOG(LEVEL_ERROR, "LUMORA_LINK_REQUIRE_KEY: \"%s\" is neither 0 nor 1; using 1\n", text);
    }
    return LUMORA_LINK_REQUIRE_KEY != 0 || (!value.empty() && value != "0");
}

// A value that cannot be read counts as a wish for safety.
LinkChannelMode ReadChannelMode(const char* text) {
    const std::string value = text == nullptr ? "" : text;
    if (value.empty() || value == "prefer") {
        return LINK_CHANNEL_PREFER;
    }
    if (value == "plain") {
        return LINK_CHANNEL_PLAIN;
    }
    if (value != "require") {
        LINK_LOG(LEVEL_ERROR, "LUMORA_LINK_CHANNEL: \"%s\" is not plain, prefer or require; using require\n",
                 text);
    }
    return LINK_CHANNEL_REQUIRE;
}

std::vector<Endpoint> ReadPeers(const char* text, std::uint16_t defaultPort) {
    std::vector<Endpoint> peers;
    for (const std::string& item : SplitList(text)) {
        if (const auto peer = ParseEndpoint(item, defaultPort)) {
            peers.push_back(*peer);
        } else {
            LINK_LOG(LEVEL_ERROR, "LUMORA_LINK_PEERS: \"%s\" is not address[:port], ignored\n", item.c_str());
        }
    }
    return peers;
}

}  // namespace

Config ReadConfig(const Environment& environment) {
    Config config;
    config.port = ReadPort(environment("LUMORA_LINK_PORT"));
    config.interfaces = ReadInterfaces(environment("LUMORA_LINK_INTERFACE"));
    // A peer without a port is assumed to use our own fixed port: a firewall usually opens one port for all.
    const std::uint16_t peerPort = config.port != 0 ? config.port : MulticastGroup().port;
    config.peers = ReadPeers(environment("LUMORA_LINK_PEERS"), peerPort);
    if (const char* pskFile = environment("LUMORA_LINK_PSK_FILE")) {
        config.pskFile = pskFile;
    }
    config.requireKey = ReadRequireKey(environment("LUMORA_LINK_REQUIRE_KEY"));
    config.channelMode = ReadChannelMode(environment("LUMORA_LINK_CHANNEL"));
    return config;
}

}  // namespace lumora_link
