#include "transport/peer_candidates.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <tuple>
#include <utility>

#include "library/log.h"

namespace lumoraAiModule {

namespace {

// In one go, so that a flood of connections does not keep the receive thread from the handshakes.
constexpr int MOST_AT_ONCE = 64;

// A connection that a stranger has reset again while it waited is no failure of the listening socket.
bool IsOfOneConnection(int error) { return error == ECONNABORTED || error == EINTR || error == EPROTO; }

bool HasCome(const Connection& connection) {
    return PauseUntilReady(connection.Socket().Number(), POLLIN, 0);
}

}  // namespace

// A connection from elsewhere than expected is closed if there is no place. One from the expected address may
// be the peer's, so it waits for the next place:
//   stranger        on the peer's host holds all places and sends nothing
//   peer            has connected, and its handshake has a limit
//   therefore       places of silent connections are given away after FIRST_WORD
bool PeerCandidates::Accept(const Descriptor& listenSocket, Clock::time_point now) {
    for (int i = 0; i < MOST_AT_ONCE; ++i) {
        if (!mNext.IsOpen()) {
            mNext = AcceptConnection(listenSocket, mNextFrom);
        }
        if (!mNext.IsOpen()) {
            if (IsOfOneConnection(errno)) {
                continue;
            }
            return errno == EAGAIN;
        }
        Candidate* const place = PlaceFor(mNextFrom, now);
        if (place != nullptr) {
            *place = {Connection(std::exchange(mNext, Descriptor())), mNextFrom, now, false, now};
        } else if (mExpected.IsExpected(mNextFrom)) {
            return true;
        } else {
            mNext.Close();
        }
    }
    return true;
}

// The least worth a place are connections from elsewhere, then silent ones, then those that came first. One
// from elsewhere gives way to one from the expected address at once, and never the other way round.
PeerCandidates::Candidate* PeerCandidates::PlaceFor(in_addr from, Clock::time_point now) {
    Candidate* least = nullptr;
    const bool comesFromExpected = mExpected.IsExpected(from);
    const auto worth = [this](const Candidate& candidate) {
        return std::make_tuple(mExpected.IsExpected(candidate.from), candidate.hasSpoken, candidate.lastCame);
    };
    for (Candidate& candidate : mCandidates) {
        if (!candidate.connection.IsOpen()) {
            return &candidate;
        }
        Listen(candidate, now);
        const bool isExpected = mExpected.IsExpected(candidate.from);
        const bool mayGoOn = comesFromExpected ? isExpected && !MayGiveAway(candidate, now)
                                               : isExpected || !MayGiveAway(candidate, now);
        if (!mayGoOn && (least == nullptr || worth(candidate) < worth(*least))) {
            least = &candidate;
        }
    }
    return least;
}

bool PeerCandidates::MayGiveAway(const Candidate& candidate, Clock::time_point now) const {
    return now - candidate.lastCame >= (candidate.hasSpoken ? NEXT_WORD : FIRST_WORD);
}

// Before the keys are known nothing is read, so what has come once stays there to be seen.
void PeerCandidates::Listen(Candidate& candidate, Clock::time_point now) {
    if (!candidate.hasSpoken && HasCome(candidate.connection)) {
        candidate.hasSpoken = true;
        candidate.lastCame = now;
    }
}

bool PeerCandidates::FindPeer(const lumora::ChannelKeys& keys, Clock::time_point now, Connection& peer) {
    const bool wereKnown = std::exchange(mKeysAreKnown, true);
    for (Candidate& candidate : mCandidates) {
        if (!candidate.connection.IsOpen()) {
            continue;
        }
        candidate.begin = wereKnown ? candidate.begin : now;
        const Connection::Handshake result = GoOn(keys, candidate, now);
        if (result == Connection::Handshake::DONE) {
            peer = std::move(candidate.connection);
            return true;
        }
        if (result == Connection::Handshake::FAILED) {
            LUMORA_LOG_AS(lumora::LOG_WARNING, "WaitForConnect",
                          "A connection to the data port has not proven the key and is closed.\n");
            candidate.connection.Close();
        }
    }
    return false;
}

// Nothing is spent on a connection before its first word.
Connection::Handshake PeerCandidates::GoOn(const lumora::ChannelKeys& keys, Candidate& candidate,
                                           Clock::time_point now) {
    Connection& connection = candidate.connection;
    if (!connection.IsProtected()) {
        Listen(candidate, now);
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(candidate.begin + LIMIT - now);
        if (!candidate.hasSpoken) {
            return left.count() > 0 ? Connection::Handshake::GOES_ON : Connection::Handshake::FAILED;
        }
        TuneConnection(connection.Socket());
        SetNonBlocking(connection.Socket());
        if (!connection.Protect(keys, mDirection, true, left)) {
            return Connection::Handshake::FAILED;
        }
    }
    if (HasCome(connection)) {
        candidate.lastCame = now;
    }
    return connection.ShakeHands();
}

Descriptor PeerCandidates::TakeOne(in_addr& from) {
    for (Candidate& candidate : mCandidates) {
        if (candidate.connection.IsOpen()) {
            from = candidate.from;
            return candidate.connection.TakeSocket();
        }
    }
    from = mNextFrom;
    return std::move(mNext);
}

void PeerCandidates::Watch(const Descriptor& listenSocket, pollfd* watched) const {
    for (std::size_t i = 0; i < MOST; ++i) {
        const Candidate& candidate = mCandidates[i];
        const bool isWaitedFor = candidate.connection.IsOpen() && (mKeysAreKnown || !candidate.hasSpoken);
        const short events =
            candidate.connection.IsProtected() ? candidate.connection.Wanted() : short{POLLIN};
        watched[i] = {isWaitedFor ? candidate.connection.Socket().Number() : -1, events, 0};
    }
    watched[MOST] = {mNext.IsOpen() ? -1 : listenSocket.Number(), POLLIN, 0};
}

void PeerCandidates::Close() {
    for (Candidate& candidate : mCandidates) {
        candidate.connection.Close();
    }
    mNext.Close();
}

}  // namespace lumoraAiModule
