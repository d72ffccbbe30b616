#include "platform/link/core/unanswered_peers.h"

#include <algorithm>

namespace lumora_link {

namespace {

template <typename Key>
void Remember(std::map<Key, TimePoint>& times, const Key& key, TimePoint now) {
    if (times.size() >= UnansweredPeers::MAX_PEERS && times.count(key) == 0) {
        times.erase(std::min_element(times.begin(), times.end(),
                                     [](const auto& a, const auto& b) { return a.second < b.second; }));
    }
    times[key] = now;
}

template <typename Key>
bool IsRemembered(const std::map<Key, TimePoint>& times, const Key& key, TimePoint now) {
    const auto at = times.find(key);
    return at != times.end() && now - at->second < UnansweredPeers::REMEMBERED;
}

}  // namespace

void UnansweredPeers::Add(const Endpoint& peer, TimePoint now) {
    Remember(mPeers, peer, now);
    Remember(mHosts, peer.host, now);
}

void UnansweredPeers::OnGone(const Endpoint& peer, TimePoint now) { Remember(mPeers, peer, now); }

void UnansweredPeers::OnBack(const Endpoint& peer) { mPeers.erase(peer); }

void UnansweredPeers::Remove(const Endpoint& peer) {
    mPeers.erase(peer);
    mHosts.erase(peer.host);
}

bool UnansweredPeers::Contains(const Endpoint& peer, TimePoint now) const {
    return IsRemembered(mPeers, peer, now) || IsRemembered(mHosts, peer.host, now);
}

}  // namespace lumora_link
