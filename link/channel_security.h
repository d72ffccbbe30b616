// Private data channels: the keys and the protected connections of the platform library, with their owners.
#pragma once

#include <memory>
#include <string>

#include "base/mutex.h"

struct LinkChannel;
struct LinkConnection;
struct LinkSecurity;

namespace lumora {

enum class ChannelMode { PLAIN, PREFER, REQUIRE };

// How data channels are to be protected now. PLAIN if the platform library cannot protect any.
ChannelMode CurrentChannelMode();

// One protected connection on a socket that it does not own, and that has to outlive it. Any thread may call
// its operations; one runs at a time. None waits if the socket does not block.
class ProtectedConnection {
public:
    // What an operation returns if it moved no bytes: it is to be repeated when the socket is readable or
    // writable, or the connection is of no more use.
    static constexpr int WANTS_READ = -1;
    static constexpr int WANTS_WRITE = -2;
    static constexpr int FAILED = -3;

    // Takes over connection.
    ProtectedConnection(const LinkSecurity& security, LinkConnection* connection)
        : mSecurity(security), mConnection(connection) {}
    ~ProtectedConnection();
    ProtectedConnection(const ProtectedConnection&) = delete;
    ProtectedConnection& operator=(const ProtectedConnection&) = delete;

    // Goes on with the handshake. 1 when it is done.
    int Handshake();
    bool IsEstablished();
    // As read and write. Both fail before the handshake is done. A write that took less is repeated from the
    // first byte that was not taken on.
    int Read(void* bytes, unsigned int size);
    int Write(const void* bytes, unsigned int size);
    // Whether a read has something to return although the socket may be empty.
    bool HasPending();
    // Tells the peer that nothing follows, unless the handshake is not done.
    void Shutdown();

private:
    const LinkSecurity& mSecurity;
    Mutex mMutex;  // a leaf lock
    LinkConnection* const mConnection GUARDED_BY(mMutex);
    bool mIsEstablished GUARDED_BY(mMutex) = false;
};

// The keys of one data channel. They are erased with this object; connections that were opened live on.
class ChannelKeys {
public:
    enum class Direction { TO_DEVICE, TO_CLIENT };

    // Takes over channel.
    ChannelKeys(const LinkSecurity& security, LinkChannel* channel)
        : mSecurity(security), mChannel(channel) {}
    ~ChannelKeys();
    ChannelKeys(const ChannelKeys&) = delete;
    ChannelKeys& operator=(const ChannelKeys&) = delete;

    // The client's first step; offer receives what the device is to be sent. Null if memory ran out.
    static std::shared_ptr<ChannelKeys> Offer(std::string& offer);
    // The device's step, on the thread of the request that brought the offer. Null if the requester has
    // proven no key, if the offer is not understood, or without memory; *lacksMemory receives whether it is
    // the last.
    static std::shared_ptr<ChannelKeys> Answer(const std::string& offer, std::string& answer,
                                               bool* lacksMemory = nullptr);
    // The client's second step, with the answer of the device at that address and UDP port. False if the
    // answer is not understood.
    bool Complete(const std::string& answer, const std::string& address, int port);

    // Begins a connection. accepts tells whether this end has accepted it. Null if the keys are not complete
    // or not valid any more, or if memory ran out.
    std::unique_ptr<ProtectedConnection> Open(Direction direction, bool accepts, int socket) const;

private:
    const LinkSecurity& mSecurity;
    LinkChannel* const mChannel;
};

}  // namespace lumora
