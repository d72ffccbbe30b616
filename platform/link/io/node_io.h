// A node's I/O thread. Sockets, libcoap and the protocol are used by this thread only.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/link/channel/peer_registry.h"
#include "platform/link/core/node_core.h"
#include "platform/link/io/coap_port.h"
#include "platform/link/io/config.h"
#include "platform/link/io/event_loop.h"
#include "platform/link/io/group_sockets.h"
#include "platform/link/io/interface_list.h"
#include "platform/link/io/port_guard.h"
#include "platform/link/io/psk.h"
#include "platform/link/io/system_random.h"

namespace lumora_link {

class NodeIo : private Network {
public:
    using Work = std::function<void(NodeCore& core, TimePoint now)>;

    NodeIo(Config config, NodeIdentity identity, std::optional<std::string> deviceType,
           Application& application);
    ~NodeIo() override;
    NodeIo(const NodeIo&) = delete;
    NodeIo& operator=(const NodeIo&) = delete;

    // Starts the thread and blocks until the node can be found. False, with a log line, if it cannot run.
    bool Start();
    // Sends a goodbye and joins the thread. Must not be called by posted work.
    void Stop();
    // By which PeerRegistry knows the node.
    NodeNumber Number() const { return mNumber; }
    // Runs the work on the I/O thread later. False once the node has stopped. Throws std::bad_alloc.
    bool Post(Work work);

private:
    bool Open();
    bool ReadKeys(std::optional<KeyRing>& keys);
    std::size_t DescriptorsOfAnInterface() const;
    std::size_t DescriptorsOfANode() const;
    bool OpenPorts();
    void Run();
    void Turn();
    bool FollowInterfaces();
    void FollowKeys(TimePoint now);
    bool IsHeeded(const Endpoint& source) const;
    void WarnIfUnreachable(const std::vector<LocalInterface>& used);
    void OpenRouteSocket();
    void WarnOfMissing(const std::vector<LocalInterface>& used) const;

    void Send(const LocalInterface& via, const Endpoint& to, const CoapMessage& message) override;
    void Transmit(ConversationId conversation, const Endpoint& to, const CoapMessage& message) override;
    void CloseConversation(ConversationId conversation) override;
    void OnPeerGone(const Endpoint& endpoint) override;
    void Reply(ReplyPath path, const CoapMessage& message) override;
    void Forget(ReplyPath path) override;
    bool IsClogged() const override;

    const NodeNumber mNumber = PeerRegistry::NewNode();
    const Config mConfig;
    std::optional<PskFile> mKeyFile;
    TimePoint mLookAtKeys = TimePoint::max();
    SystemRandom mRandom;
    NodeCore mCore;
    EventLoop mLoop;
    PortGuard mPort;
    PortGuard mSecuredPort;
    lumora::UniqueFd mRoutes;
    LinkScope mScope;
    TimePoint mTryAgain = TimePoint::max();
    bool mWarnedOfAddress = false;
    std::unique_ptr<GroupSockets> mGroup;
    std::unique_ptr<CoapPort> mCoap;
    std::atomic<bool> mRunning{true};
    std::thread mThread;
};

}  // namespace lumora_link
