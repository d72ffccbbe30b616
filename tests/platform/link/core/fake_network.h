// Nodes, the network between them and the time, all inside one test and one thread.
//
// Datagrams can be lost, doubled, delayed and thus reordered; nodes can be cut off or killed. The
// random numbers are seeded, so a run that fails fails again.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "platform/link/core/node_core.h"

namespace lumora_link::test {

class FakeNetwork;

class FakeNode : private Network, private Application {
public:
    FakeNode(FakeNetwork& network, NodeIdentity identity, std::vector<LocalInterface> interfaces,
             std::uint16_t port, std::optional<std::string> deviceType, std::vector<Endpoint> peers);

    // What the application saw.
    struct Calls {
        std::vector<HandlerCall> handled;
        std::vector<DeviceEvent> events;
        std::map<std::uint64_t, Outcome> outcomes;
        std::map<std::uint64_t, TimePoint> ended;
        std::map<std::uint64_t, std::vector<NodeDescription>> found;
    };
    const Calls& Seen() const { return mCalls; }
    void ForgetEvents() { mCalls.events.clear(); }

    std::uint64_t Ask(const Endpoint& to, std::uint8_t method, const std::string& key,
                      const std::string& value);
    std::uint64_t Find(const std::string& deviceType);
    void Exit();
    // A datagram of the test's own, from any sender that it names; without an answer.
    void Say(const Endpoint& to, const CoapMessage& message, std::optional<Endpoint> sender = std::nullopt);
    // A datagram from an address at which no node of this network is.
    void OnDatagram(const CoapMessage& message, const Endpoint& source);
    // What went to such addresses.
    std::size_t BytesToStrangers() const { return mBytesToStrangers; }

    // How a handler answers and how long it takes; at once with the value itself by default.
    std::function<Outcome(const HandlerCall&)> handler;
    Milliseconds handlerTime{0};
    bool queueFull = false;
    bool clogged = false;  // what leaves by the sockets that all share would wait

    Endpoint At(std::size_t interface = 0) const { return {mInterfaces.at(interface).host, mPort}; }
    NodeCore& Core() { return mCore; }
    NodeIdentity Identity() const { return mIdentity; }
    unsigned Datagrams() const { return mDatagrams; }
    // How often its thread would have left its wait: for a deadline, or for datagrams of one moment.
    unsigned WakeUps() const { return mWakeUps; }
    // Each takes a socket on a real host.
    std::size_t OpenConversations() const { return mOpen.size(); }
    std::size_t MostOpenConversations() const { return mMostOpen; }

private:
    friend class FakeNetwork;

    class Random : public RandomSource {
    public:
        explicit Random(std::uint64_t seed) : mGenerator(seed) {}
        std::uint64_t Next() override { return mGenerator(); }

    private:
        std::mt19937_64 mGenerator;
    };
    struct Way {
        FakeNode* asker = nullptr;
        std::optional<ConversationId> conversation;  // else the socket of an interface asked
        Endpoint from;
    };

    void Send(const LocalInterface& via, const Endpoint& to, const CoapMessage& message) override;
    void Transmit(ConversationId conversation, const Endpoint& to, const CoapMessage& message) override;
    CoapMessage Rewritten(CoapMessage message) const;
    void Watch(ConversationId conversation, const CoapMessage& message);
    void CloseConversation(ConversationId conversation) override;
    void OnPeerGone(const Endpoint&) override {}
    void Reply(ReplyPath path, const CoapMessage& message) override;
    void Forget(ReplyPath path) override;
    bool IsClogged() const override { return clogged; }
    bool Handle(HandlerCall call) override;
    void Notify(DeviceEvent event) override;
    void RequestEnded(std::uint64_t ticket, Outcome outcome) override;
    void SearchEnded(std::uint64_t ticket, std::vector<NodeDescription> found) override;

    void WakeUp();

    FakeNetwork& mNetwork;
    const NodeIdentity mIdentity;
    const std::vector<LocalInterface> mInterfaces;
    const std::uint16_t mPort;
    Random mRandom;
    Calls mCalls;
    std::map<ReplyPath, Way> mWays;
    ReplyPath mLastPath = 0;
    std::set<ConversationId> mClosed;
    // Of each conversation: its latest request, and whether anything came back for it.
    std::map<ConversationId, std::pair<std::uint16_t, bool>> mWatched;
    std::set<ConversationId> mOpen;
    std::size_t mMostOpen = 0;
    std::uint64_t mLastTicket = 0;
    unsigned mDatagrams = 0;
    unsigned mWakeUps = 0;
    TimePoint mAwake{};
    std::size_t mBytesToStrangers = 0;
    bool mAlive = true;
    bool mReachable = true;
    NodeCore mCore;
};

class FakeNetwork {
public:
    explicit FakeNetwork(std::uint64_t seed = 1) : mGenerator(seed) {}

    // A node on one segment, with an address of its own there.
    FakeNode& Add(std::optional<std::string> deviceType, std::vector<Endpoint> peers = {});
    // A node with these addresses; interfaces of one name hear each other.
    FakeNode& AddAt(NodeIdentity identity, std::vector<LocalInterface> interfaces, std::uint16_t port,
                    std::optional<std::string> deviceType, std::vector<Endpoint> peers = {});

    void Run(Milliseconds time);
    // Until the condition holds; false after the limit.
    bool RunUntil(const std::function<bool()>& condition, Milliseconds limit);
    TimePoint Now() const { return mNow; }

    // To be set before nodes are added: all conversations count as secured.
    bool secured = false;
    unsigned lossPercent = 0;
    unsigned duplicatePercent = 0;
    Milliseconds longestDelay{0};
    bool multicastBlocked = false;
    // For one message in particular; true lets it pass.
    std::function<bool(const CoapMessage&)> filter;
    // What the receiver of a search answer sees instead, and who sent it.
    std::function<void(CoapMessage&, const FakeNode&)> rewrite;
    // Nodes that answer searches and pings, but no request.
    std::function<bool(const FakeNode&)> ignoring;

    // The process is gone, its host refuses.
    void Kill(FakeNode& node) { node.mAlive = false; }
    // The host is cut off, nothing comes back.
    void Cut(FakeNode& node) { node.mReachable = false; }
    void Restore(FakeNode& node) { node.mReachable = true; }

private:
    friend class FakeNode;

    bool Chance(unsigned percent) { return mGenerator() % 100 < percent; }
    // Delivers never, once or twice, as the settings and chance will have it.
    void Carry(FakeNode& from, FakeNode& to, const CoapMessage& message,
               const std::function<void()>& deliver);
    void At(TimePoint time, std::function<void()> event) { mEvents.emplace(time, std::move(event)); }
    FakeNode* ListenerAt(const Endpoint& endpoint);
    bool Step(TimePoint end);

    TimePoint mNow{std::chrono::hours(1)};
    std::mt19937_64 mGenerator;
    std::multimap<TimePoint, std::function<void()>> mEvents;
    std::vector<std::unique_ptr<FakeNode>> mNodes;
};

}  // namespace lumora_link::test
