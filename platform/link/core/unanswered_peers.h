// The nodes that left a request unanswered. A stranger that answers searches and pings, but no request, must
// not cost every later call its whole time: these nodes come last in a search, and a GET to them gets little
// time.
//
// One host can pretend to be many nodes. So all nodes of an address that left a request unanswered are
// treated like that one, until a node of the address answers a request.
#pragma once

#include <map>

#include "platform/link/wire/types.h"

namespace lumora_link {

class UnansweredPeers {
public:
    static constexpr Milliseconds REMEMBERED{120000};
    static constexpr std::size_t MAX_PEERS = 1024;

    void Add(const Endpoint& peer, TimePoint now);
    // It was removed from the network. This says nothing about the others of its address.
    void OnGone(const Endpoint& peer, TimePoint now);
    // It is in the network again. If another request to its address stays unanswered, that still counts.
    void OnBack(const Endpoint& peer);
    // It has answered.
    void Remove(const Endpoint& peer);
    // Whether that node is gone, or it or another of its address left its latest request unanswered.
    bool Contains(const Endpoint& peer, TimePoint now) const;

private:
    std::map<Endpoint, TimePoint> mPeers;  // and when the request ended
    std::map<in_addr_t, TimePoint> mHosts;
};

}  // namespace lumora_link
