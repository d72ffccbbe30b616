#include "platform/link/core/unanswered_peers.h"

#include <algorithm>

namespace lumora_link {

void UnansweredPeers::Add(const Endpoint& peer, TimePoint now) {
    if (mPeers.size() >= MAX_PEERS && mPeers.count(peer) == 0) {
        mPeers.erase(std::min_element(mPeers.begin(), mPeers.end(),
                                      [](const auto& a, const auto& b) { return a.second < b.second; }));
    }
    mPeers[peer] = now;
}

bool UnansweredPeers::Contains(const Endpoint& peer, TimePoint now) const {
    const auto at = mPeers.find(peer);
    return at != mPeers.end() && now - at->second < REMEMBERED;
}

}  // namespace lumora_link
