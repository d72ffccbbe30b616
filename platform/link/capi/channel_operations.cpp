#include "platform/link/capi/channel_operations.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "platform/link/capi/security.h"
#include "platform/link/channel/call_scope.h"
#include "platform/link/channel/connection.h"
#include "platform/link/io/system_random.h"

struct LinkChannel {
    lumora_link::Offer own;  // its key is erased when the keys below exist
    std::optional<lumora_link::ProvenPeer> peer;
    std::optional<lumora_link::ChannelKeys> keys;
    lumora_link::TlsContext context;
};

struct LinkConnection {
    LinkConnection(lumora_link::PeerRegistry& registry, lumora_link::Connection::Setup setup)
        : own(registry, std::move(setup)) {}
    lumora_link::Connection own;
};

namespace lumora_link {

namespace {

// No exception reaches C.
template <typename Result, typename Work>
Result Guarded(Result otherwise, const Work& work) noexcept {
    try {
        return work();
    } catch (...) {
        return otherwise;
    }
}

std::optional<Offer> OfferIn(const char* text) {
    const std::size_t length = text == nullptr ? 0 : strnlen(text, LINK_MAX_OFFER);
    return length < LINK_MAX_OFFER ? ReadOffer({text, length}) : std::nullopt;
}

bool CopyOffer(const Offer& offer, char* text, unsigned size) {
    std::string written = WriteOffer(offer);
    const bool fits = text != nullptr && written.size() < size;
    if (fits) {
        std::memcpy(text, written.c_str(), written.size() + 1);
    }
    OPENSSL_cleanse(written.data(), written.size());
    return fits;
}

std::unique_ptr<LinkChannel> NewChannel() {
    SystemRandom random;
    auto channel = std::make_unique<LinkChannel>();
    channel->own = MakeOffer(random);
    return channel;
}

bool Agree(LinkChannel& channel, const Offer& client, const Offer& device) {
    channel.context = MakeTlsContext();
    auto keys = DeriveKeys(client, device);
    if (channel.context == nullptr || !keys) {
        return false;
    }
    channel.keys = std::move(keys);
    channel.own.key.Erase();
    return true;
}

extern "C" {

static LinkChannelMode GetChannelMode(void) {
    return Guarded(LINK_CHANNEL_PLAIN, [] { return PeerRegistry::OfProcess().Mode(); });
}

static LinkChannel* OfferChannel(char* text, unsigned size) {
    return Guarded<LinkChannel*>(nullptr, [=] {
        auto channel = NewChannel();
        return CopyOffer(channel->own, text, size) ? channel.release() : nullptr;
    });
}

static LinkChannel* AnswerChannel(const char* offer, char* text, unsigned size) {
    int error = ENOMEM;  // of everything that fails behind the two checks
    LinkChannel* const answered = Guarded<LinkChannel*>(nullptr, [&]() -> LinkChannel* {
        const CallScope scope;
        const auto peer = CurrentPeer();
        const auto client = OfferIn(offer);
        if (!peer || !client) {
            error = EPROTO;
            return nullptr;
        }
        auto channel = NewChannel();
        channel->peer = peer;
        const Offer device = channel->own;
        return Agree(*channel, *client, device) && CopyOffer(device, text, size) ? channel.release()
                                                                                 : nullptr;
    });
    if (answered == nullptr) {
        errno = error;
    }
    return answered;
}

static int CompleteChannel(LinkChannel* channel, const char* answer, const char* address, int port) {
    return Guarded(0, [=] {
        const CallScope scope;
        const auto device = OfferIn(answer);
        Endpoint endpoint;
        in_addr host = {};
        if (channel == nullptr || channel->keys || !device || address == nullptr ||
            inet_pton(AF_INET, address, &host) != 1 || port <= 0 || port > UINT16_MAX) {
            return 0;
        }
        endpoint = {host.s_addr, static_cast<std::uint16_t>(port)};
        channel->peer = PeerRegistry::OfProcess().DeviceAt(endpoint);
        const Offer client = channel->own;
        return channel->peer && Agree(*channel, client, *device) ? 1 : 0;
    });
}

static void FreeChannel(LinkChannel* channel) {
    const CallScope scope;
    const std::unique_ptr<LinkChannel> owner(channel);
}

static LinkConnection* OpenConnection(LinkChannel* channel, LinkDirection direction, int accepts,
                                      int socket) {
    return Guarded<LinkConnection*>(nullptr, [=]() -> LinkConnection* {
        PeerRegistry& registry = PeerRegistry::OfProcess();
        if (channel == nullptr || !channel->keys || !registry.Accepts(*channel->peer)) {
            return nullptr;
        }
        Connection::Setup setup;
        setup.context = channel->context.get();
        setup.key = channel->keys->Of(direction);
        setup.peer = *channel->peer;
        setup.accepts = accepts != 0;
        setup.socket = socket;
        // FreeConnection deletes it.
        return std::make_unique<LinkConnection>(registry, std::move(setup)).release();
    });
}

static int Handshake(LinkConnection* connection) {
    return Guarded<int>(LINK_FAILED, [=] { return connection->own.Handshake(); });
}

static int Read(LinkConnection* connection, void* bytes, unsigned size) {
    return Guarded<int>(LINK_FAILED, [=] { return connection->own.Read(bytes, size); });
}

static int Write(LinkConnection* connection, const void* bytes, unsigned size) {
    return Guarded<int>(LINK_FAILED, [=] { return connection->own.Write(bytes, size); });
}

static int HasPending(LinkConnection* connection) {
    return Guarded(1, [=] { return connection->own.HasPending() ? 1 : 0; });
}

static void Shutdown(LinkConnection* connection) {
    Guarded(0, [=] {
        connection->own.Shutdown();
        return 0;
    });
}

static void FreeConnection(LinkConnection* connection) {
    const std::unique_ptr<LinkConnection> owner(connection);
}

static int GetChannelPeer(int asDevice, LinkRequester* peer) {
    return Guarded(0, [=] {
        const auto found = PeerRegistry::OfProcess().EstablishedPeer(asDevice != 0);
        if (!found || peer == nullptr) {
            return 0;
        }
        *peer = *found;
        return 1;
    });
}

}  // extern "C"

}  // namespace

void AddChannelOperations(LinkSecurity& operations) {
    operations.size = sizeof operations;
    operations.GetChannelMode = GetChannelMode;
    operations.OfferChannel = OfferChannel;
    operations.AnswerChannel = AnswerChannel;
    operations.CompleteChannel = CompleteChannel;
    operations.FreeChannel = FreeChannel;
    operations.OpenConnection = OpenConnection;
    operations.Handshake = Handshake;
    operations.Read = Read;
    operations.Write = Write;
    operations.HasPending = HasPending;
    operations.Shutdown = Shutdown;
    operations.FreeConnection = FreeConnection;
    operations.GetChannelPeer = GetChannelPeer;
}

}  // namespace lumora_link
