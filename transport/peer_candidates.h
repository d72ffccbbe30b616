// Connections to a data port of which one may be the peer's: it is the one that proves the channel's key.
#pragma once

#include <netinet/in.h>

#include <array>
#include <chrono>
#include <cstddef>

#include "transport/connection.h"
#include "transport/socket.h"

struct pollfd;

namespace lumoraAiModule {

// Any host can connect. A few connections are held at a time, so that one that stays silent does not keep the
// peer's out; the others wait in the kernel. Used by the receive thread alone.
class PeerCandidates {
public:
    using Clock = Connection::Clock;
    static constexpr std::size_t MOST = 4;
    // A peer proves its key within two round trips.
    static constexpr std::chrono::milliseconds LIMIT{2000};
    // If more connections wait than there is room for, one on which nothing has come for so long is closed.
    static constexpr std::chrono::milliseconds LONGEST_SILENCE{100};

    explicit PeerCandidates(lumora::ChannelKeys::Direction direction) : mDirection(direction) {}

    // Takes over the connections that wait at the listening socket. False with errno if it fails for good.
    bool Accept(const Descriptor& listenSocket, Clock::time_point now);
    // Goes on with the handshakes. Moves the first connection whose handshake is done into peer, and closes
    // those whose handshake failed. True if there is a peer.
    bool FindPeer(const lumora::ChannelKeys& keys, Clock::time_point now, Connection& peer);
    // Takes out the connection that was accepted first; none if there is none.
    Descriptor TakeFirst(in_addr& from);
    // Fills in what FindPeer waits for: MOST places, with a negative descriptor if there is nothing.
    void Watch(pollfd* watched) const;
    // Whether the listening socket is to be watched, too.
    bool HasRoom() const;
    void Close();

private:
    struct Candidate {
        Connection connection;
        in_addr from = {};
        Clock::time_point accepted;
        Clock::time_point lastCame;  // when something last came
    };

    Candidate* FreePlace();
    Candidate* MostSilent(Clock::time_point now);
    Connection::Handshake GoOn(const lumora::ChannelKeys& keys, Candidate& candidate, Clock::time_point now);

    const lumora::ChannelKeys::Direction mDirection;
    std::array<Candidate, MOST> mCandidates;
};

}  // namespace lumoraAiModule
