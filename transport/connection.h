// One TCP connection of a data channel: plain, or protected by keys of the platform library.
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <utility>

#include "link/channel_security.h"
#include "transport/socket.h"
#include "transport/transport_manager.h"

namespace lumoraAiModule {

// Owns its socket. On a plain connection each operation is one system call on that socket. The socket of a
// protected connection must not block.
class Connection {
public:
    using Clock = std::chrono::steady_clock;
    enum class Handshake { DONE, GOES_ON, FAILED };

    Connection() = default;
    explicit Connection(Descriptor socket) : mSocket(std::move(socket)) {}
    ~Connection() { Close(); }
    Connection(Connection&& other) noexcept = default;
    Connection& operator=(Connection&& other) noexcept;

    const Descriptor& Socket() const { return mSocket; }
    bool IsOpen() const { return mSocket.IsOpen(); }
    bool IsProtected() const { return mProtection != nullptr; }
    // Tells the peer of a protected connection that nothing follows, then closes the socket.
    void Close();
    // The first half of that. Any thread may call it.
    void SayEnd();
    // Gives up the socket of a plain connection.
    Descriptor TakeSocket() { return std::move(mSocket); }

    // Makes a plain connection a protected one, whose handshake fails after limit. False if the keys allow no
    // connection, or if memory ran out. To be called before other threads know of the connection.
    bool Protect(const lumora::ChannelKeys& keys, lumora::ChannelKeys::Direction direction, bool accepts,
                 std::chrono::milliseconds limit);
    // Goes on with the handshake without waiting. A plain connection is DONE.
    Handshake ShakeHands();
    // Any thread may ask. If the peer has learned that the handshake is done, this is true.
    bool IsReady() const { return !IsProtected() || mProtection->IsEstablished(); }

    // As read; -1 with EAGAIN also stands for a protected piece that is not yet whole, and EPROTO for a
    // connection that did not end in order.
    ssize_t Read(void* bytes, unsigned int size);
    // The same, and never waits.
    ssize_t ReadAtOnce(void* bytes, unsigned int size);
    // Whether a read has something to return although the socket may be empty.
    bool HasPending() const { return IsProtected() && mProtection->HasPending(); }
    // Writes what is left of the frame behind offset. As send; flags are for plain connections.
    ssize_t Send(const FrameParts& frame, unsigned int offset, int flags);

    // What to wait for before the operation that was last not done is repeated: POLLIN or POLLOUT.
    short Wanted() const { return mWanted; }

private:
    ssize_t SendPlain(const FrameParts& frame, unsigned int offset, int flags) const;
    int WriteProtected(const FrameParts& frame, unsigned int offset);
    ssize_t ResultOf(int result);

    Descriptor mSocket;
    std::unique_ptr<lumora::ProtectedConnection> mProtection;
    Clock::time_point mHandshakeEnds;
    short mWanted = POLLOUT;
};

}  // namespace lumoraAiModule
