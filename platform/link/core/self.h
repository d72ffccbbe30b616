// What a node knows of itself, and the labels that it puts on its messages.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "platform/link/core/surroundings.h"
#include "platform/link/wire/byte_reader.h"
#include "platform/link/wire/types.h"

namespace lumora_link {

struct Self {
    NodeIdentity identity;
    std::optional<std::string> deviceType;
    std::vector<LocalInterface> interfaces;
    std::uint16_t port = 0;
    // Holds a key: speaks with those who hold it too, and with nobody else.
    bool secured = false;

    // As seen by those who reach it through that address of this host.
    NodeDescription DescribedAt(in_addr_t host) const {
        return {identity, {host, port}, deviceType, secured};
    }

    // Other hosts cannot send in the name of these.
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

class Labels {
public:
    explicit Labels(RandomSource& random)
        : mRandom(random), mMessageId(static_cast<std::uint16_t>(random.Next())) {}

    ConversationId NextConversation() { return ++mConversation; }
    std::uint16_t NextMessageId() { return ++mMessageId; }
    // Not to be guessed by those who do not see the request.
    std::string NextToken() {
        std::string token;
        AppendBigEndian(token, mRandom.Next(), 8);
        return token;
    }
    // Tells this node's requests to one device from those that others send in its name.
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
