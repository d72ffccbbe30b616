#include "platform/link/channel/peer_registry.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "base/never_destroyed.h"
#include "platform/link/log.h"

namespace lumora_link {

namespace {

// A device's node numbers are not known to its client, but its endpoint is.
LinkRequester DescribeDevice(const Endpoint& device, const std::string& identity) {
    LinkRequester record = {};
    std::memcpy(record.identity, identity.data(), std::min(identity.size(), sizeof record.identity - 1));
    std::memcpy(record.node, &device.host, sizeof device.host);
    std::memcpy(record.node + sizeof device.host, &device.port, sizeof device.port);
    return record;
}

}  // namespace

PeerRegistry::Watch::Watch(PeerRegistry& registry, const ProvenPeer& peer, int socket)
    : mRegistry(registry), mPeer(peer), mSocket(socket) {
    lumora::MutexLock lock(mRegistry.mMutex);
    mWithdrawn = !mRegistry.IsAccepted(peer);
    mRegistry.mWatches.push_back(this);
}

PeerRegistry::Watch::~Watch() {
    lumora::MutexLock lock(mRegistry.mMutex);
    auto& watches = mRegistry.mWatches;
    watches.erase(std::find(watches.begin(), watches.end(), this));
}

void PeerRegistry::Watch::SetEstablished() {
    lumora::MutexLock lock(mRegistry.mMutex);
    mEstablished = true;
}

// Nodes may still run at the end of the process. No member allocates before it is used, so a thread can ask
// for the registry when memory has run out.
PeerRegistry& PeerRegistry::OfProcess() {
    static lumora::NeverDestroyed<PeerRegistry> registry;
    return *registry;
}

NodeNumber PeerRegistry::NewNode() {
    static std::atomic<NodeNumber> last{0};
    return ++last;
}

void PeerRegistry::Begin(NodeNumber node, LinkChannelMode mode, const KeyRing& keys) {
    lumora::MutexLock lock(mMutex);
    Node made;
    made.mode = mode;
    for (const Psk& psk : keys.All()) {
        made.serials[psk.identity] = ++mLastSerial;
    }
    mNodes[node] = std::move(made);
}

void PeerRegistry::UseKeys(NodeNumber node, const KeyRing& former, const KeyRing& now) {
    std::set<std::string> ended;
    {
        lumora::MutexLock lock(mMutex);
        Replace(node, former, now);
        ended = ShutWithdrawn(node);
    }
    for (const std::string& identity : ended) {
        LINK_LOG(LEVEL_WARNING, "the key \"%s\" is not valid any more: its private connections end\n",
                 identity.c_str());
    }
}

void PeerRegistry::Replace(NodeNumber node, const KeyRing& former, const KeyRing& now) {
    const auto known = mNodes.find(node);
    if (known == mNodes.end()) {
        return;
    }
    std::map<std::string_view, std::string_view> formerKeys;
    for (const Psk& psk : former.All()) {
        formerKeys[psk.identity] = psk.key;
    }
    std::map<std::string, std::uint64_t> serials;
    for (const Psk& psk : now.All()) {
        const auto serial = known->second.serials.find(psk.identity);
        const bool same = serial != known->second.serials.end() && formerKeys[psk.identity] == psk.key;
        serials[psk.identity] = same ? serial->second : ++mLastSerial;
    }
    known->second.serials = std::move(serials);
}

void PeerRegistry::End(NodeNumber node) {
    lumora::MutexLock lock(mMutex);
    mNodes.erase(node);
}

void PeerRegistry::OnAnswer(NodeNumber node, const Endpoint& device, const std::string& identity) {
    lumora::MutexLock lock(mMutex);
    const auto known = mNodes.find(node);
    if (known == mNodes.end()) {
        return;
    }
    std::deque<Answer>& answers = known->second.answers;
    if (!answers.empty() && answers.front().device == device && answers.front().identity == identity) {
        return;
    }
    answers.erase(std::remove_if(answers.begin(), answers.end(),
                                 [&](const Answer& answer) { return answer.device == device; }),
                  answers.end());
    answers.push_front({device, identity});
    if (answers.size() > MAX_ANSWERS) {
        answers.pop_back();
    }
}

LinkChannelMode PeerRegistry::Mode() {
    lumora::MutexLock lock(mMutex);
    LinkChannelMode strictest = LINK_CHANNEL_PLAIN;
    for (const auto& [number, node] : mNodes) {
        strictest = std::max(strictest, node.mode);
    }
    return strictest;
}

std::optional<ProvenPeer> PeerRegistry::PeerOf(NodeNumber node, const LinkRequester& requester) {
    lumora::MutexLock lock(mMutex);
    const auto known = mNodes.find(node);
    if (known == mNodes.end()) {
        return std::nullopt;
    }
    const auto serial = known->second.serials.find(requester.identity);
    if (serial == known->second.serials.end()) {
        return std::nullopt;
    }
    return ProvenPeer{node, serial->second, true, requester};
}

bool PeerRegistry::Accepts(const ProvenPeer& peer) {
    lumora::MutexLock lock(mMutex);
    return IsAccepted(peer);
}

std::optional<ProvenPeer> PeerRegistry::DeviceAt(const Endpoint& device) {
    lumora::MutexLock lock(mMutex);
    for (const auto& [number, node] : mNodes) {
        for (const Answer& answer : node.answers) {
            const auto serial = node.serials.find(answer.identity);
            if (answer.device == device && serial != node.serials.end()) {
                return ProvenPeer{number, serial->second, false, DescribeDevice(device, answer.identity)};
            }
        }
    }
    return std::nullopt;
}

std::optional<LinkRequester> PeerRegistry::EstablishedPeer(bool asDevice) {
    lumora::MutexLock lock(mMutex);
    for (auto at = mWatches.rbegin(); at != mWatches.rend(); ++at) {
        const Watch& watch = **at;
        if (watch.mEstablished && !watch.mWithdrawn && watch.mPeer.asDevice == asDevice) {
            return watch.mPeer.requester;
        }
    }
    return std::nullopt;
}

bool PeerRegistry::IsAccepted(const ProvenPeer& peer) const {
    const auto node = mNodes.find(peer.node);
    if (node == mNodes.end()) {
        return false;
    }
    const auto serial = node->second.serials.find(peer.requester.identity);
    return serial != node->second.serials.end() && serial->second == peer.keySerial;
}

// Wakes the threads that wait for the socket. It is open: FreeConnection ends the watch before the owner
// closes it.
std::set<std::string> PeerRegistry::ShutWithdrawn(NodeNumber node) {
    std::set<std::string> ended;
    for (Watch* watch : mWatches) {
        if (watch->mPeer.node == node && !watch->mWithdrawn && !IsAccepted(watch->mPeer)) {
            watch->mWithdrawn = true;
            shutdown(watch->mSocket, SHUT_RDWR);
            ended.insert(watch->mPeer.requester.identity);
        }
    }
    return ended;
}

}  // namespace lumora_link
