#include "fake_network.h"

#include <algorithm>

namespace lumora_link::test {

namespace {

// The port of an interface's own socket, by which searches are answered.
constexpr std::uint16_t kSocketPort = 30000;
constexpr std::uint16_t kConversationPort = 50000;
constexpr Milliseconds kUsualDelay{1};

}  // namespace

FakeNode::FakeNode(FakeNetwork& network, NodeIdentity identity, std::vector<LocalInterface> interfaces,
                   std::uint16_t port, std::optional<std::string> deviceType, std::vector<Endpoint> peers)
    : network_(network),
      identity_(identity),
      interfaces_(std::move(interfaces)),
      port_(port),
      random_(identity.id * 31 + identity.instance),
      core_(identity, network.secured, std::move(peers), random_, *this, *this) {
    handler = [](const HandlerCall& call) { return Outcome{code::kContent, call.value}; };
    core_.SetDeviceType(std::move(deviceType), network_.Now());
    core_.SetInterfaces(interfaces_, port_, network_.Now());
}

std::uint64_t FakeNode::Ask(const Endpoint& to, std::uint8_t method, const std::string& key,
                            const std::string& value) {
    core_.StartRequest({++lastTicket_, to, method, key, value}, network_.Now());
    return lastTicket_;
}

std::uint64_t FakeNode::Find(const std::string& deviceType) {
    core_.StartSearch(++lastTicket_, deviceType, network_.Now());
    return lastTicket_;
}

void FakeNode::Exit() {
    core_.Close(network_.Now());
    alive_ = false;
}

void FakeNode::Send(const LocalInterface& via, const Endpoint& to, const CoapMessage& message) {
    const Endpoint source{via.host, kSocketPort};
    if (to != MulticastGroup()) {
        FakeNode* listener = network_.ListenerAt(to);
        if (listener == nullptr) {
            return;
        }
        if (to.port == kSocketPort) {
            network_.Carry(*this, *listener, message, [this, listener, message, source] {
                listener->core_.OnSearchAnswer(message, source, network_.Now());
            });
            return;
        }
        network_.Carry(*this, *listener, message, [this, listener, message, source, to] {
            const ReplyPath path = ++listener->lastPath_;
            listener->ways_[path] = {this, std::nullopt, to};
            listener->core_.OnRequest(message, source, to.host, path, network_.Now());
        });
        return;
    }
    if (network_.multicastBlocked) {
        return;
    }
    for (const std::unique_ptr<FakeNode>& node : network_.nodes_) {
        for (const LocalInterface& local : node->interfaces_) {
            if (local.name == via.name) {
                network_.Carry(*this, *node, message, [this, to = node.get(), message, source, local] {
                    to->core_.OnGroupMessage(message, source, local.index, network_.Now());
                });
            }
        }
    }
}

void FakeNode::Transmit(ConversationId conversation, const Endpoint& to, const CoapMessage& message) {
    FakeNode* listener = network_.ListenerAt(to);
    const Endpoint source{interfaces_.front().host,
                          static_cast<std::uint16_t>(kConversationPort + conversation % 10000)};
    if (listener == nullptr || !listener->reachable_ || !reachable_) {
        return;
    }
    if (!listener->alive_) {
        network_.At(network_.Now() + kUsualDelay, [this, conversation] {
            if (alive_ && hung_.count(conversation) == 0) {
                core_.OnRefused(conversation, network_.Now());
            }
        });
        return;
    }
    network_.Carry(*this, *listener, message, [this, listener, message, source, to, conversation] {
        const ReplyPath path = ++listener->lastPath_;
        listener->ways_[path] = {this, conversation, to};
        listener->core_.OnRequest(message, source, to.host, path, network_.Now());
    });
}

void FakeNode::Hang(ConversationId conversation) { hung_.insert(conversation); }

void FakeNode::Reply(ReplyPath path, const CoapMessage& message) {
    const Way way = ways_.at(path);
    if (message.code == code::kEmpty) {
        ++datagrams_;
        return;
    }
    const auto deliver = [this, way, message] {
        if (way.conversation && way.asker->hung_.count(*way.conversation) == 0) {
            way.asker->core_.OnAnswer(*way.conversation, message, network_.Now());
        } else if (!way.conversation) {
            way.asker->core_.OnSearchAnswer(message, way.from, network_.Now());
        }
    };
    network_.Carry(*this, *way.asker, message, deliver);
    if (message.type == MessageType::Confirmable) {
        // libcoap repeats a separate answer until it is acknowledged.
        for (const Milliseconds pause : {Milliseconds(1000), Milliseconds(3000), Milliseconds(7000)}) {
            network_.At(network_.Now() + pause, [this, way, message, deliver] {
                network_.Carry(*this, *way.asker, message, deliver);
            });
        }
    }
}

void FakeNode::Forget(ReplyPath path) { ways_.erase(path); }

bool FakeNode::Handle(HandlerCall call) {
    if (queueFull) {
        return false;
    }
    calls_.handled.push_back(call);
    network_.At(network_.Now() + handlerTime, [this, call] {
        if (alive_) {
            core_.OnHandled(call.ticket, handler(call), network_.Now());
        }
    });
    return true;
}

void FakeNode::Notify(DeviceEvent event) { calls_.events.push_back(std::move(event)); }

void FakeNode::RequestEnded(std::uint64_t ticket, Outcome outcome) {
    calls_.outcomes[ticket] = std::move(outcome);
    calls_.ended[ticket] = network_.Now();
}

void FakeNode::SearchEnded(std::uint64_t ticket, std::vector<NodeDescription> found) {
    calls_.found[ticket] = std::move(found);
    calls_.ended[ticket] = network_.Now();
}

FakeNode& FakeNetwork::Add(std::optional<std::string> deviceType, std::vector<Endpoint> peers) {
    const auto number = static_cast<std::uint32_t>(nodes_.size() + 1);
    const LocalInterface local{2, "eth0", htonl(0x0a000000 + number)};
    return AddAt({0x1000ULL + number, 1}, {local}, static_cast<std::uint16_t>(40000 + number),
                 std::move(deviceType), std::move(peers));
}

FakeNode& FakeNetwork::AddAt(NodeIdentity identity, std::vector<LocalInterface> interfaces,
                             std::uint16_t port, std::optional<std::string> deviceType,
                             std::vector<Endpoint> peers) {
    nodes_.push_back(std::make_unique<FakeNode>(*this, identity, std::move(interfaces), port,
                                                std::move(deviceType), std::move(peers)));
    return *nodes_.back();
}

void FakeNetwork::Run(Milliseconds time) {
    const TimePoint end = now_ + time;
    while (Step(end)) {
    }
    now_ = end;
}

bool FakeNetwork::RunUntil(const std::function<bool()>& condition, Milliseconds limit) {
    const TimePoint end = now_ + limit;
    while (!condition()) {
        if (!Step(end)) {
            return condition();
        }
    }
    return true;
}

// One event or one node's deadline, whichever comes first; false where nothing is due by the end.
bool FakeNetwork::Step(TimePoint end) {
    TimePoint next = events_.empty() ? TimePoint::max() : events_.begin()->first;
    FakeNode* due = nullptr;
    for (const std::unique_ptr<FakeNode>& node : nodes_) {
        const TimePoint deadline = node->alive_ ? node->core_.NextDeadline(now_) : TimePoint::max();
        if (deadline < next) {
            next = deadline;
            due = node.get();
        }
    }
    if (next > end) {
        return false;
    }
    now_ = std::max(now_, next);
    if (due != nullptr) {
        due->core_.Tick(now_);
        return true;
    }
    const std::function<void()> event = std::move(events_.begin()->second);
    events_.erase(events_.begin());
    event();
    return true;
}

void FakeNetwork::Carry(FakeNode& from, FakeNode& to, const CoapMessage& message,
                        std::function<void()> deliver) {
    ++from.datagrams_;
    if (filter && !filter(message)) {
        return;
    }
    const int copies = Chance(duplicatePercent) ? 2 : 1;
    for (int copy = 0; copy < copies; ++copy) {
        if (Chance(lossPercent)) {
            continue;
        }
        const auto range = static_cast<std::uint64_t>(longestDelay.count()) + 1;
        const TimePoint arrival = now_ + kUsualDelay + Milliseconds(generator_() % range);
        At(arrival, [&from, &to, deliver] {
            if (to.alive_ && to.reachable_ && from.reachable_) {
                deliver();
            }
        });
    }
}

FakeNode* FakeNetwork::ListenerAt(const Endpoint& endpoint) {
    // The latest, where several had the address one after the other.
    for (auto node = nodes_.rbegin(); node != nodes_.rend(); ++node) {
        for (const LocalInterface& local : (*node)->interfaces_) {
            const bool port = endpoint.port == (*node)->port_ || endpoint.port == kSocketPort;
            if (local.host == endpoint.host && port) {
                return node->get();
            }
        }
    }
    return nullptr;
}

}  // namespace lumora_link::test
