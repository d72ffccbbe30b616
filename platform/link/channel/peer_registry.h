// Which keys the nodes of this process accept, and with whom they have private connections. LinkSecurity has
// no handle, so there is one registry for the process. Every function is safe to call on any thread.
#pragma once

#include <atomic>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "base/mutex.h"
#include "link_security.h"
#include "platform/link/wire/key_ring.h"
#include "platform/link/wire/types.h"

namespace lumora_link {

using NodeNumber = std::uint64_t;

// Who is at the other end of a channel, and by which key.
struct ProvenPeer {
    NodeNumber node = 0;          // of this process
    std::uint64_t keySerial = 0;  // another one if the same identity gets another key
    bool asDevice = false;        // this process is the device
    LinkRequester requester = {};
};

class PeerRegistry {
public:
    // While it lives, a connection is shut down if its peer's key is withdrawn.
    class Watch {
    public:
        Watch(PeerRegistry& registry, const ProvenPeer& peer, int socket);
        ~Watch();
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;

        bool IsWithdrawn() const { return mWithdrawn.load(std::memory_order_relaxed); }
        // From now on GetChannelPeer tells of the peer.
        void SetEstablished();

    private:
        friend class PeerRegistry;
        PeerRegistry& mRegistry;
        const ProvenPeer mPeer;
        const int mSocket;
        std::atomic<bool> mWithdrawn{false};
        bool mEstablished = false;  // guarded by the registry's mutex
    };

    static PeerRegistry& OfProcess();
    static NodeNumber NewNode();

    // A node with keys starts, reads other keys, and ends. Its connections outlive it.
    void Begin(NodeNumber node, LinkChannelMode mode, const KeyRing& keys);
    void UseKeys(NodeNumber node, const KeyRing& former, const KeyRing& now);
    void End(NodeNumber node);
    // A device has answered the node by that key.
    void OnAnswer(NodeNumber node, const Endpoint& device, const std::string& identity);

    // The strictest one of the nodes that have keys; PLAIN if none has.
    LinkChannelMode Mode();
    // Nothing if the node does not accept that identity any more.
    std::optional<ProvenPeer> PeerOf(NodeNumber node, const LinkRequester& requester);
    // Whether the key of the peer is still accepted.
    bool Accepts(const ProvenPeer& peer);
    // Nothing if no device at that endpoint has answered by a key that is still accepted.
    std::optional<ProvenPeer> DeviceAt(const Endpoint& device);
    // The peer of the newest established connection.
    std::optional<LinkRequester> EstablishedPeer(bool asDevice);

private:
    struct Answer {
        Endpoint device;
        std::string identity;
    };
    struct Node {
        LinkChannelMode mode = LINK_CHANNEL_PLAIN;
        std::map<std::string, std::uint64_t> serials;  // by identity
        std::deque<Answer> answers;                    // the latest one first
    };

    // As many as there are sessions to other nodes.
    static constexpr std::size_t MAX_ANSWERS = 128;

    bool IsAccepted(const ProvenPeer& peer) const REQUIRES(mMutex);
    void Replace(NodeNumber node, const KeyRing& former, const KeyRing& now) REQUIRES(mMutex);
    // The identities whose connections were shut down.
    std::set<std::string> ShutWithdrawn(NodeNumber node) REQUIRES(mMutex);

    lumora::Mutex mMutex;
    std::uint64_t mLastSerial GUARDED_BY(mMutex) = 0;
    std::map<NodeNumber, Node> mNodes GUARDED_BY(mMutex);
    std::list<Watch*> mWatches GUARDED_BY(mMutex);  // the oldest one first
};

}  // namespace lumora_link
