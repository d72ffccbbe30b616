// The keys of a channel's two connections, made of what both ends offered.
#pragma once

#include <optional>
#include <vector>

#include "link_security.h"
#include "platform/link/channel/offer.h"

namespace lumora_link {

constexpr std::size_t CONNECTION_KEY_BYTES = 32;

// A pre-shared key of TLS and its name, which travels in clear text.
struct ConnectionKey {
    std::vector<unsigned char> name;
    Secret<CONNECTION_KEY_BYTES> secret;
};

struct ChannelKeys {
    ConnectionKey toDevice;
    ConnectionKey toClient;
    const ConnectionKey& Of(LinkDirection direction) const {
        return direction == LINK_TO_DEVICE ? toDevice : toClient;
    }
};

// Nothing if OpenSSL cannot compute them.
std::optional<ChannelKeys> DeriveKeys(const Offer& client, const Offer& device);

}  // namespace lumora_link
