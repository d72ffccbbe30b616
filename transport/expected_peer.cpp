#include "transport/expected_peer.h"

#include <arpa/inet.h>

#include <utility>

namespace lumoraAiModule {

namespace {

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
