// The node of this handle, and the numbers by which its messages are told apart.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "platform/link/core/ports.h"
#include "platform/link/wire/byte_reader.h"
#include "platform/link/wire/types.h"

namespace lumora_link {

struct LocalNode {
    NodeIdentity identity;
    std::optional<std::string> deviceType;
    std::vector<LocalInterface> interfaces;
    std::uint16_t port = 0;
    // The node holds a key. It speaks only with nodes that hold the same one.
    bool secured = false;

    // As nodes see it that reach it through that address of this host.
    NodeDescription DescribedAt(in_addr_t host) const {
        return {identity, {host, port}, deviceType, secured};
    }

    // No other host can send from these addresses.
    bool IsOwn(in_addr_t host) const {
        return LocalInterface::IsLoopback(host) ||
               std::any_of(interfaces.begin(), interfaces.end(),
                           [host](const LocalInterface& local) { return local.host == host; });
    }

    const LocalInterface* InterfaceOf(unsigned index) const {
        for (const LocalInterface& local : interfaces) {
            if (local.index == index) {
                return &local;
            }
        }
        return nullptr;
    }
};

class IdSource {
public:
    explicit IdSource(RandomSource& random)
        : mRandom(random), mMessageId(static_cast<std::uint16_t>(random.Next())) {}

    ConversationId NextConversation() { return ++mConversation; }
    std::uint16_t NextMessageId() { return ++mMessageId; }
    // A host that does not see the request cannot guess its token.
    std::string NextToken() {
        std::string token;
        AppendBigEndian(token, mRandom.Next(), 8);
        return token;
    }
    // Tells this node's requests to one device from those that strangers send under its id.
    std::uint64_t NextSecret() { return std::max<std::uint64_t>(mRandom.Next(), 1); }
    // Spreads what many nodes would otherwise send at the same moment.
    Milliseconds Jitter(Milliseconds upTo) {
        const auto range = static_cast<std::uint64_t>(upTo.count()) + 1;
        return Milliseconds(mRandom.Next() % range);
    }

private:
    RandomSource& mRandom;
    ConversationId mConversation = 0;
    std::uint16_t mMessageId;
};

}  // namespace lumora_link
