#include "transport/expected_peer.h"

#include <arpa/inet.h>

#include <utility>

namespace lumoraAiModule {

namespace {

// The kernel drops packets with such a source from other hosts, so a process of this host made the
// connection.
bool IsLoopback(in_addr address) { return ntohl(address.s_addr) >> 24 == IN_LOOPBACKNET; }

}  // namespace

ExpectedPeer::ExpectedPeer(const std::string& address) {
    if (inet_pton(AF_INET, address.c_str(), &mAddress) != 1) {
        mAddress.s_addr = htonl(INADDR_ANY);
    }
}

void ExpectedPeer::Begin(Clock::time_point now) {
    mFromElsewhere.Close();
    mTakeAnyFrom = now + PATIENCE;
}

// A host that connects and stays silent must not keep the expected peer out, so its connection is only held.
// It must not keep the place when it has left either, so a held connection that was closed makes room for the
// next one. One is held, not a list: a host that connects in a loop costs one descriptor.
Descriptor ExpectedPeer::Choose(Descriptor accepted, in_addr from, Clock::time_point now) {
    if (accepted.IsOpen() && IsExpected(from)) {
        mFromElsewhere.Close();
        return accepted;
    }
    if (mFromElsewhere.IsOpen() && HasPeerLeft(mFromElsewhere)) {
        mFromElsewhere.Close();
    }
    if (accepted.IsOpen() && !mFromElsewhere.IsOpen()) {
        mFromElsewhere = std::move(accepted);
    }
    return now >= mTakeAnyFrom ? std::move(mFromElsewhere) : Descriptor();
}

bool ExpectedPeer::IsExpected(in_addr from) const {
    return mAddress.s_addr == htonl(INADDR_ANY) || from.s_addr == mAddress.s_addr || IsLoopback(from);
}

}  // namespace lumoraAiModule
