#include "transport/peer_candidates.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "library/log.h"

namespace lumoraAiModule {

namespace {

// A connection that a stranger has reset again while it waited is no failure of the listening socket.
bool IsOfOneConnection(int error) { return error == ECONNABORTED || error == EINTR || error == EPROTO; }

}  // namespace

// A full house takes another connection only if one waits:
//   strangers       hold all places and send nothing
//   peer            waits in the kernel, and its handshake has a limit
//   therefore       the place of the connection that has been silent longest is given away
bool PeerCandidates::Accept(const Descriptor& listenSocket, Clock::time_point now) {
    while (true) {
        Candidate* place = FreePlace();
        if (place == nullptr) {
            place = MostSilent(now);
            if (place == nullptr || !PauseUntilReady(listenSocket.Number(), POLLIN, 0)) {
                return true;
            }
        }
        in_addr from = {};
        Descriptor accepted = AcceptConnection(listenSocket, from);
        if (!accepted.IsOpen()) {
            if (IsOfOneConnection(errno)) {
                continue;
            }
            return errno == EAGAIN;
        }
        *place = {Connection(std::move(accepted)), from, now, now};
    }
}

bool PeerCandidates::FindPeer(const lumora::ChannelKeys& keys, Clock::time_point now, Connection& peer) {
    for (Candidate& candidate : mCandidates) {
        if (!candidate.connection.IsOpen()) {
            continue;
        }
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

// A connection that was accepted before the keys were known has its full time from then on.
Connection::Handshake PeerCandidates::GoOn(const lumora::ChannelKeys& keys, Candidate& candidate,
                                           Clock::time_point now) {
    Connection& connection = candidate.connection;
    if (!connection.IsProtected()) {
        TuneConnection(connection.Socket());
        SetNonBlocking(connection.Socket());
        if (!connection.Protect(keys, mDirection, true, LIMIT)) {
            return Connection::Handshake::FAILED;
        }
    }
    if (PauseUntilReady(connection.Socket().Number(), POLLIN, 0)) {
        candidate.lastCame = now;
    }
    return connection.ShakeHands();
}

Descriptor PeerCandidates::TakeFirst(in_addr& from) {
    Candidate* first = nullptr;
    for (Candidate& candidate : mCandidates) {
        if (candidate.connection.IsOpen() && (first == nullptr || candidate.accepted < first->accepted)) {
            first = &candidate;
        }
    }
    if (first == nullptr) {
        return Descriptor();
    }
    from = first->from;
    return first->connection.TakeSocket();
}

void PeerCandidates::Watch(pollfd* watched) const {
    for (std::size_t i = 0; i < MOST; ++i) {
        const Connection& connection = mCandidates[i].connection;
        const bool isAtWork = connection.IsOpen() && connection.IsProtected();
        watched[i] = {isAtWork ? connection.Socket().Number() : -1, connection.Wanted(), 0};
    }
}

bool PeerCandidates::HasRoom() const {
    return std::any_of(mCandidates.begin(), mCandidates.end(),
                       [](const Candidate& candidate) { return !candidate.connection.IsOpen(); });
}

void PeerCandidates::Close() {
    for (Candidate& candidate : mCandidates) {
        candidate.connection.Close();
    }
}

PeerCandidates::Candidate* PeerCandidates::FreePlace() {
    const auto place = std::find_if(mCandidates.begin(), mCandidates.end(), [](const Candidate& candidate) {
        return !candidate.connection.IsOpen();
    });
    return place != mCandidates.end() ? &*place : nullptr;
}

// All places are taken when this is asked. Before the keys are known nothing is read, so a connection with
// bytes that wait counts for more than one without.
PeerCandidates::Candidate* PeerCandidates::MostSilent(Clock::time_point now) {
    const auto worth = [](const Candidate& candidate) {
        return std::make_pair(PauseUntilReady(candidate.connection.Socket().Number(), POLLIN, 0),
                              candidate.lastCame);
    };
    Candidate* const most = std::min_element(
        mCandidates.begin(), mCandidates.end(),
        [&](const Candidate& one, const Candidate& other) { return worth(one) < worth(other); });
    return now - most->lastCame >= LONGEST_SILENCE ? most : nullptr;
}

}  // namespace lumoraAiModule
