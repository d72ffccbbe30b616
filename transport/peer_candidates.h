// Connections to a data port of which one may be the peer's: it is the one that proves the channel's key.
#pragma once

#include <netinet/in.h>

#include <array>
#include <chrono>
#include <cstddef>

#include "transport/connection.h"
#include "transport/expected_peer.h"
#include "transport/socket.h"

namespace lumoraAiModule {

// Any host can connect. A few connections are held at a time, so that one that stays silent does not keep the
// peer's out. If there are more, those that show least signs of being the peer's are closed. Used by the
// receive thread alone.
class PeerCandidates {
public:
    using Clock = Connection::Clock;
    static constexpr std::size_t MOST = 4;
    // A peer proves its key within two round trips. The time of a connection that was accepted before the
    // keys were known begins with them.
    static constexpr std::chrono::milliseconds LIMIT{2000};
    // If there are too many, so long is the first word of a connection waited for, and each later one.
    static constexpr std::chrono::milliseconds FIRST_WORD{50};
    static constexpr std::chrono::milliseconds NEXT_WORD{100};

    PeerCandidates(lumora::ChannelKeys::Direction direction, const ExpectedPeer& expected)
        : mDirection(direction), mExpected(expected) {}

    // Takes over the connections that wait at the listening socket. False with errno if it fails for good.
    bool Accept(const Descriptor& listenSocket, Clock::time_point now);
    // Goes on with the handshakes. Moves the first connection whose handshake is done into peer, and closes
    // those whose handshake failed. True if there is a peer.
    bool FindPeer(const lumora::ChannelKeys& keys, Clock::time_point now, Connection& peer);
    // Takes out a connection, as it was accepted; none if there is none.
    Descriptor TakeOne(in_addr& from);
    // Fills in what to wait for: MOST places and one for the listening socket, with negative descriptors for
    // what is not to be waited for.
    void Watch(const Descriptor& listenSocket, pollfd* watched) const;
    void Close();

private:
    struct Candidate {
        Connection connection;
        in_addr from = {};
        Clock::time_point begin;     // of its time to prove the key
        bool hasSpoken = false;      // something has come
        Clock::time_point lastCame;  // or when it was accepted
    };

    Candidate* PlaceFor(in_addr from, Clock::time_point now);
    bool MayGiveAway(const Candidate& candidate, Clock::time_point now) const;
    static void Listen(Candidate& candidate, Clock::time_point now);
    Connection::Handshake GoOn(const lumora::ChannelKeys& keys, Candidate& candidate, Clock::time_point now);

    const lumora::ChannelKeys::Direction mDirection;
    const ExpectedPeer& mExpected;
    bool mKeysAreKnown = false;
    std::array<Candidate, MOST> mCandidates;
    // Accepted, and there is no place for it yet.
    Descriptor mNext;
    in_addr mNextFrom = {};
};

}  // namespace lumoraAiModule
