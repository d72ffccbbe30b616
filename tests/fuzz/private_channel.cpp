// What a stranger sends: an offer of a private channel, and bytes at either end of a connection before and
// after the handshake.
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

#include "base/unique_fd.h"
#include "platform/link/channel/connection.h"
#include "platform/link/io/system_random.h"
#include "tests/fuzz/mutation.h"
#include "tests/fuzz/require.h"

using lumora_fuzz::Require;
using namespace lumora_link;

namespace {

struct SocketEnds {
    SocketEnds() {
        std::array<int, 2> both{};
        Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, both.data()) == 0,
                "sockets");
        own = lumora::UniqueFd(both[0]);
        others = lumora::UniqueFd(both[1]);
    }
    lumora::UniqueFd own;
    lumora::UniqueFd others;
};

// The keys and the peer of every connection.
struct Agreement {
    Agreement() {
        registry.Begin(1, LINK_CHANNEL_PREFER, KeyRing(std::vector<Psk>{{"lamp", "key", {}}}));
        SystemRandom random;
        const Offer client = MakeOffer(random);
        keys = DeriveKeys(client, MakeOffer(random));
        Require(keys && context != nullptr, "OpenSSL has what is needed");
    }
    std::unique_ptr<Connection> Open(bool accepts, int socket) {
        LinkRequester requester = {};
        std::strcpy(requester.identity, "lamp");
        return std::make_unique<Connection>(
            registry, Connection::Setup{context.get(), keys->toDevice, *registry.PeerOf(1, requester),
                                        accepts, socket, Connection::RECORDS_PER_KEY});
    }
    PeerRegistry registry;
    const TlsContext context = MakeTlsContext();
    std::optional<ChannelKeys> keys;
};

void PlayOffer(const std::string& text) {
    const auto offer = ReadOffer(text);
    if (offer) {
        const auto again = ReadOffer(WriteOffer(*offer));
        Require(again && again->id == offer->id && again->key == offer->key,
                "an offer is read as it was written");
    }
}

void PlayHandshake(Agreement& agreement, bool accepts, const std::uint8_t* data, std::size_t size) {
    const SocketEnds sockets;
    const auto connection = agreement.Open(accepts, sockets.own.Get());
    connection->Handshake();
    send(sockets.others.Get(), data, size, MSG_NOSIGNAL);
    for (int round = 0; round < 4; ++round) {
        Require(connection->Handshake() != 1, "no handshake succeeds without the key");
    }
}

void PlayRecords(Agreement& agreement, const std::uint8_t* data, std::size_t size) {
    const SocketEnds sockets;
    const auto reader = agreement.Open(true, sockets.own.Get());
    const auto writer = agreement.Open(false, sockets.others.Get());
    for (int round = 0; round < 4; ++round) {
        writer->Handshake();
        reader->Handshake();
    }
    Require(reader->Handshake() == 1, "both ends have the key");
    send(sockets.others.Get(), data, size, MSG_NOSIGNAL);
    std::array<char, 100> bytes{};
    for (int round = 0; round < 4; ++round) {
        reader->HasPending();
        Require(reader->Read(bytes.data(), bytes.size()) < 0,
                "no bytes and no end are taken from a stranger");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static auto* const agreement = std::make_unique<Agreement>().release();
    PlayOffer(std::string(data, data + size));
    PlayHandshake(*agreement, true, data, size);
    PlayHandshake(*agreement, false, data, size);
    PlayRecords(*agreement, data, size);
    return 0;
}

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most, unsigned int) {
    return LLVMFuzzerMutate(data, size, most);
}
