#include "link/channel_security.h"

#include <cerrno>
#include <cstddef>
#include <new>

#include "link/security_table.h"

namespace lumora {

namespace {

static_assert(ProtectedConnection::WANTS_READ == static_cast<int>(LINK_WANTS_READ) &&
                  ProtectedConnection::WANTS_WRITE == static_cast<int>(LINK_WANTS_WRITE) &&
                  ProtectedConnection::FAILED == static_cast<int>(LINK_FAILED),
              "results pass through as they are");

// Null if the platform library has no operations on channels: a record of an earlier version ends before
// them.
const LinkSecurity* ChannelOperations() {
    const LinkSecurity* security = SecurityTable();
    const bool hasThem = security != nullptr && security->size >= offsetof(LinkSecurity, GetChannelPeer);
    return hasThem ? security : nullptr;
}

// An allocation that fails frees the channel.
std::shared_ptr<ChannelKeys> Own(const LinkSecurity& security, LinkChannel* channel) {
    if (channel == nullptr) {
        return nullptr;
    }
    try {
        return std::make_shared<ChannelKeys>(security, channel);
    } catch (const std::bad_alloc&) {
        security.FreeChannel(channel);
        return nullptr;
    }
}

}  // namespace

ChannelMode CurrentChannelMode() {
    const LinkSecurity* security = ChannelOperations();
    switch (security != nullptr ? security->GetChannelMode() : LINK_CHANNEL_PLAIN) {
        case LINK_CHANNEL_PREFER:
            return ChannelMode::PREFER;
        case LINK_CHANNEL_REQUIRE:
            return ChannelMode::REQUIRE;
        default:
            return ChannelMode::PLAIN;
    }
}

ProtectedConnection::~ProtectedConnection() { mSecurity.FreeConnection(mConnection); }

// The state changes under the same lock as the peer learns of it. So a thread that hears of the peer's
// success by another way finds the connection established.
int ProtectedConnection::Handshake() {
    const MutexLock lock(mMutex);
    if (mIsEstablished) {
        return 1;
    }
    const int result = mSecurity.Handshake(mConnection);
    mIsEstablished = result == 1;
    return result;
}

bool ProtectedConnection::IsEstablished() {
    const MutexLock lock(mMutex);
    return mIsEstablished;
}

int ProtectedConnection::Read(void* bytes, unsigned int size) {
    const MutexLock lock(mMutex);
    return mIsEstablished ? mSecurity.Read(mConnection, bytes, size) : FAILED;
}

int ProtectedConnection::Write(const void* bytes, unsigned int size) {
    const MutexLock lock(mMutex);
    return mIsEstablished ? mSecurity.Write(mConnection, bytes, size) : FAILED;
}

bool ProtectedConnection::HasPending() {
    const MutexLock lock(mMutex);
    return mIsEstablished && mSecurity.HasPending(mConnection) != 0;
}

void ProtectedConnection::Shutdown() {
    const MutexLock lock(mMutex);
    if (mIsEstablished) {
        mSecurity.Shutdown(mConnection);
    }
}

ChannelKeys::~ChannelKeys() { mSecurity.FreeChannel(mChannel); }

std::shared_ptr<ChannelKeys> ChannelKeys::Offer(std::string& offer) {
    const LinkSecurity* security = ChannelOperations();
    if (security == nullptr) {
        return nullptr;
    }
    char text[LINK_MAX_OFFER] = {};
    std::shared_ptr<ChannelKeys> keys = Own(*security, security->OfferChannel(text, sizeof(text)));
    offer = text;
    return keys;
}

std::shared_ptr<ChannelKeys> ChannelKeys::Answer(const std::string& offer, std::string& answer,
                                                 bool* lacksMemory) {
    const LinkSecurity* security = ChannelOperations();
    if (security == nullptr) {
        return nullptr;
    }
    char text[LINK_MAX_OFFER] = {};
    errno = 0;  // a platform library need not set it
    LinkChannel* const channel = security->AnswerChannel(offer.c_str(), text, sizeof(text));
    const bool isAnswered = channel != nullptr || errno != ENOMEM;
    std::shared_ptr<ChannelKeys> keys = Own(*security, channel);
    if (lacksMemory != nullptr) {
        *lacksMemory = !isAnswered || (channel != nullptr && keys == nullptr);
    }
    answer = text;
    return keys;
}

bool ChannelKeys::Complete(const std::string& answer, const std::string& address, int port) {
    return mSecurity.CompleteChannel(mChannel, answer.c_str(), address.c_str(), port) == 1;
}

std::unique_ptr<ProtectedConnection> ChannelKeys::Open(Direction direction, bool accepts, int socket) const {
    LinkConnection* const connection = mSecurity.OpenConnection(
        mChannel, direction == Direction::TO_DEVICE ? LINK_TO_DEVICE : LINK_TO_CLIENT, accepts ? 1 : 0,
        socket);
    if (connection == nullptr) {
        return nullptr;
    }
    try {
        return std::make_unique<ProtectedConnection>(mSecurity, connection);
    } catch (const std::bad_alloc&) {
        mSecurity.FreeConnection(connection);
        return nullptr;
    }
}

}  // namespace lumora
