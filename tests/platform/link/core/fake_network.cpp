#include "tests/platform/link/core/fake_network.h"

#include <algorithm>

namespace lumora_link::test {

namespace {

// The port of an interface's own socket, by which searches are answered.
constexpr std::uint16_t SOCKET_PORT = 30000;
constexpr std::uint16_t CONVERSATION_PORT = 50000;
constexpr Milliseconds USUAL_DELAY{1};

}  // namespace

FakeNode::FakeNode(FakeNetwork& network, NodeIdentity identity, std::vector<LocalInterface> interfaces,
                   std::uint16_t port, std::optional<std::string> deviceType, std::vector<Endpoint> peers)
    : mNetwork(network),
      mIdentity(identity),
      mInterfaces(std::move(interfaces)),
      mPort(port),
      mRandom(identity.id * 31 + identity.instance),
      mCore(identity, network.secured, std::move(peers), mRandom, *this, *this) {
    handler = [](const HandlerCall& call) { return Outcome{code::CONTENT, call.value}; };
    mCore.SetDeviceType(std::move(deviceType), mNetwork.Now());
    mCore.SetInterfaces(mInterfaces, mPort, mNetwork.Now());
}

std::uint64_t FakeNode::Ask(const Endpoint& to, std::uint8_t method, const std::string& key,
                            const std::string& value) {
    mCore.StartRequest({++mLastTicket, to, method, key, value}, mNetwork.Now());
    return mLastTicket;
}

std::uint64_t FakeNode::Find(const std::string& deviceType) {
    mCore.StartSearch(++mLastTicket, deviceType, mNetwork.Now());
    return mLastTicket;
}

void FakeNode::Exit() {
    mCore.Close(mNetwork.Now());
    mAlive = false;
}

void FakeNode::Say(const Endpoint& to, const CoapMessage& message, std::optional<Endpoint> sender) {
    FakeNode* listener = mNetwork.ListenerAt(to);
    const Endpoint source = sender.value_or(Endpoint{mInterfaces.front().host, CONVERSATION_PORT - 1});
    mNetwork.At(mNetwork.Now(), [this, listener, message, source, to] {
        const ReplyPath path = ++listener->mLastPath;
        listener->mWays[path] = {this, std::nullopt, to};
        listener->mCore.OnRequest(message, source, to.host, path, mNetwork.Now());
    });
}

void FakeNode::OnDatagram(const CoapMessage& message, const Endpoint& source) {
    const ReplyPath path = ++mLastPath;
    mWays[path] = {};
    mCore.OnRequest(message, source, mInterfaces.front().host, path, mNetwork.Now());
}

void FakeNode::Send(const LocalInterface& via, const Endpoint& to, const CoapMessage& message) {
    const Endpoint source{via.host, SOCKET_PORT};
    if (to != MulticastGroup()) {
        FakeNode* listener = mNetwork.ListenerAt(to);
        if (listener == nullptr) {
            mBytesToStrangers += SerializeMessage(message).size();
            return;
        }
        if (to.port == SOCKET_PORT) {
            mNetwork.Carry(*this, *listener, message, [this, listener, message = Rewritten(message), source] {
                listener->mCore.OnSearchAnswer(message, source, mNetwork.Now());
            });
            return;
        }
        mNetwork.Carry(*this, *listener, message, [this, listener, message, source, to] {
            const ReplyPath path = ++listener->mLastPath;
            listener->mWays[path] = {this, std::nullopt, to};
            listener->mCore.OnRequest(message, source, to.host, path, mNetwork.Now());
        });
        return;
    }
    if (mNetwork.multicastBlocked) {
        return;
    }
    for (const std::unique_ptr<FakeNode>& node : mNetwork.mNodes) {
        for (const LocalInterface& local : node->mInterfaces) {
            if (local.name == via.name) {
                mNetwork.Carry(*this, *node, message, [this, to = node.get(), message, source, local] {
                    to->mCore.OnGroupMessage(message, source, local.index, mNetwork.Now());
                });
            }
        }
    }
}

void FakeNode::Transmit(ConversationId conversation, const Endpoint& to, const CoapMessage& message) {
    Watch(conversation, message);
    mOpen.insert(conversation);
    mMostOpen = std::max(mMostOpen, mOpen.size());
    FakeNode* listener = mNetwork.ListenerAt(to);
    const Endpoint source{mInterfaces.front().host,
                          static_cast<std::uint16_t>(CONVERSATION_PORT + conversation % 10000)};
    if (listener == nullptr) {
        mBytesToStrangers += SerializeMessage(message).size();
    }
    if (listener == nullptr || !listener->mReachable || !mReachable) {
        return;
    }
    if (!listener->mAlive) {
        mNetwork.At(mNetwork.Now() + USUAL_DELAY, [this, conversation] {
            if (mAlive && mClosed.count(conversation) == 0) {
                mCore.OnRefused(conversation, mNetwork.Now());
            }
        });
        return;
    }
    if (mNetwork.ignoring && mNetwork.ignoring(*listener) && PathOf(message) == RESOURCE_PATH) {
        return;
    }
    mNetwork.Carry(*this, *listener, message, [this, listener, message, source, to, conversation] {
        const ReplyPath path = ++listener->mLastPath;
        listener->mWays[path] = {this, conversation, to};
        listener->mCore.OnRequest(message, source, to.host, path, mNetwork.Now());
    });
}

void FakeNode::WakeUp() {
    mWakeUps += mNetwork.Now() != mAwake;
    mAwake = mNetwork.Now();
}

CoapMessage FakeNode::Rewritten(CoapMessage message) const {
    if (mNetwork.rewrite) {
        mNetwork.rewrite(message, *this);
    }
    return message;
}

// As libcoap does: tells once that no copy was acknowledged.
void FakeNode::Watch(ConversationId conversation, const CoapMessage& message) {
    const bool request = PathOf(message) == RESOURCE_PATH;
    const auto [watched, isNew] = mWatched.try_emplace(conversation);
    if (!request || (!isNew && watched->second.first == message.messageId)) {
        return;
    }
    watched->second = {message.messageId, false};
    mNetwork.At(mNetwork.Now() + UNACKNOWLEDGED, [this, conversation, messageId = message.messageId] {
        const auto& [latest, acknowledged] = mWatched.at(conversation);
        if (mAlive && latest == messageId && !acknowledged && mClosed.count(conversation) == 0) {
            mCore.OnUnacknowledged(conversation, messageId, mNetwork.Now());
        }
    });
}

void FakeNode::CloseConversation(ConversationId conversation) {
    mClosed.insert(conversation);
    // A real socket is closed when the node has done what is due now.
    mNetwork.At(mNetwork.Now(), [this, conversation] { mOpen.erase(conversation); });
}

void FakeNode::Reply(ReplyPath path, const CoapMessage& message) {
    const Way way = mWays.at(path);
    if (way.asker == nullptr) {
        mBytesToStrangers += SerializeMessage(message).size();
        return;
    }
    const auto deliver = [this, way, message] {
        if (way.conversation && way.asker->mWatched[*way.conversation].first == message.messageId) {
            way.asker->mWatched[*way.conversation].second = true;
        }
        if (message.code == code::EMPTY) {
            return;
        }
        if (way.conversation && way.asker->mClosed.count(*way.conversation) == 0) {
            way.asker->mCore.OnAnswer(*way.conversation, message, mNetwork.Now());
        } else if (!way.conversation) {
            way.asker->mCore.OnSearchAnswer(Rewritten(message), way.from, mNetwork.Now());
        }
    };
    mNetwork.Carry(*this, *way.asker, message, deliver);
    if (message.type == MessageType::Confirmable) {
        // libcoap repeats a separate answer until it is acknowledged.
        for (const Milliseconds pause : {Milliseconds(1000), Milliseconds(3000), Milliseconds(7000)}) {
            mNetwork.At(mNetwork.Now() + pause, [this, way, message, deliver] {
                mNetwork.Carry(*this, *way.asker, message, deliver);
            });
        }
    }
}

void FakeNode::Forget(ReplyPath path) { mWays.erase(path); }

bool FakeNode::Handle(HandlerCall call) {
    if (queueFull) {
        return false;
    }
    mCalls.handled.push_back(call);
    mNetwork.At(mNetwork.Now() + handlerTime, [this, call] {
        if (mAlive) {
            mCore.OnHandled(call.ticket, handler(call), mNetwork.Now());
        }
    });
    return true;
}

void FakeNode::Notify(DeviceEvent event) { mCalls.events.push_back(std::move(event)); }

void FakeNode::RequestEnded(std::uint64_t ticket, Outcome outcome) {
    mCalls.outcomes[ticket] = std::move(outcome);
    mCalls.ended[ticket] = mNetwork.Now();
}

void FakeNode::SearchEnded(std::uint64_t ticket, std::vector<NodeDescription> found) {
    mCalls.found[ticket] = std::move(found);
    mCalls.ended[ticket] = mNetwork.Now();
}

FakeNode& FakeNetwork::Add(std::optional<std::string> deviceType, std::vector<Endpoint> peers) {
    const auto number = static_cast<std::uint32_t>(mNodes.size() + 1);
    const LocalInterface local{2, "eth0", htonl(0x0a000000 + number)};
    return AddAt({0x1000ULL + number, 1}, {local}, static_cast<std::uint16_t>(40000 + number),
                 std::move(deviceType), std::move(peers));
}

FakeNode& FakeNetwork::AddAt(NodeIdentity identity, std::vector<LocalInterface> interfaces,
                             std::uint16_t port, std::optional<std::string> deviceType,
                             std::vector<Endpoint> peers) {
    mNodes.push_back(std::make_unique<FakeNode>(*this, identity, std::move(interfaces), port,
                                                std::move(deviceType), std::move(peers)));
    return *mNodes.back();
}

void FakeNetwork::Run(Milliseconds time) {
    const TimePoint end = mNow + time;
    while (Step(end)) {
    }
    mNow = end;
}

bool FakeNetwork::RunUntil(const std::function<bool()>& condition, Milliseconds limit) {
    const TimePoint end = mNow + limit;
    while (!condition()) {
        if (!Step(end)) {
            return condition();
        }
    }
    return true;
}

// The events of one moment or one node's deadline, whichever comes first; false if nothing is due by the end.
bool FakeNetwork::Step(TimePoint end) {
    TimePoint next = mEvents.empty() ? TimePoint::max() : mEvents.begin()->first;
    FakeNode* due = nullptr;
    for (const std::unique_ptr<FakeNode>& node : mNodes) {
        const TimePoint deadline = node->mAlive ? node->mCore.NextDeadline(mNow) : TimePoint::max();
        if (deadline < next) {
            next = deadline;
            due = node.get();
        }
    }
    if (next > end) {
        return false;
    }
    mNow = std::max(mNow, next);
    if (due != nullptr) {
        // As NodeIo does: a deadline that is later than now, once it is reached, is slept past.
        if (due->mCore.NextDeadline(mNow) <= mNow) {
            due->WakeUp();
            due->mCore.Tick(mNow);
        }
        return true;
    }
    // A datagram to the group is one moment's event for each node, and asking all nodes after each would take
    // most of the time.
    while (!mEvents.empty() && mEvents.begin()->first == next) {
        const std::function<void()> event = std::move(mEvents.begin()->second);
        mEvents.erase(mEvents.begin());
        event();
    }
    return true;
}

void FakeNetwork::Carry(FakeNode& from, FakeNode& to, const CoapMessage& message,
                        const std::function<void()>& deliver) {
    ++from.mDatagrams;
    if (filter && !filter(message)) {
        return;
    }
    const int copies = Chance(duplicatePercent) ? 2 : 1;
    for (int copy = 0; copy < copies; ++copy) {
        if (Chance(lossPercent)) {
            continue;
        }
        const auto range = static_cast<std::uint64_t>(longestDelay.count()) + 1;
        const TimePoint arrival = mNow + USUAL_DELAY + Milliseconds(mGenerator() % range);
        At(arrival, [&from, &to, deliver] {
            if (to.mAlive && to.mReachable && from.mReachable) {
                to.WakeUp();
                deliver();
            }
        });
    }
}

FakeNode* FakeNetwork::ListenerAt(const Endpoint& endpoint) {
    // The latest, if several had the address one after the other.
    for (auto node = mNodes.rbegin(); node != mNodes.rend(); ++node) {
        for (const LocalInterface& local : (*node)->mInterfaces) {
            const bool port = endpoint.port == (*node)->mPort || endpoint.port == SOCKET_PORT;
            if (local.host == endpoint.host && port) {
                return node->get();
            }
        }
    }
    return nullptr;
}

}  // namespace lumora_link::test
