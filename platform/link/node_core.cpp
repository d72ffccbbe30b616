#include "node_core.h"

#include <algorithm>

#include "link_format.h"

namespace lumora_link {

namespace {

Self SelfOf(NodeIdentity identity, bool secured) {
    Self self;
    self.secured = secured;
    self.identity = identity;
    return self;
}

}  // namespace

NodeCore::NodeCore(NodeIdentity identity, bool secured, std::vector<Endpoint> peers, RandomSource& random,
                   Network& network, Application& application)
    : application_(application),
      network_(network),
      self_(SelfOf(identity, secured)),
      labels_(random),
      presence_(self_, labels_, network, std::move(peers)),
      discovery_(self_, labels_, network, application, presence_),
      client_(self_, labels_, network, application),
      server_(presence_.Directory(), network, application) {}

void NodeCore::SetDeviceType(std::optional<std::string> deviceType, TimePoint now) {
    self_.deviceType = std::move(deviceType);
    presence_.HelloSoon(now);
}

void NodeCore::SetInterfaces(std::vector<LocalInterface> interfaces, std::uint16_t port, TimePoint now) {
    self_.interfaces = std::move(interfaces);
    self_.port = port;
    presence_.HelloSoon(now);
}

void NodeCore::StartSearch(std::uint64_t ticket, const std::string& deviceType, TimePoint now) {
    discovery_.StartSearch(ticket, deviceType, now);
}

void NodeCore::StartRequest(OutgoingRequest request, TimePoint now) {
    client_.Start(std::move(request), now);
}

void NodeCore::OnHandled(std::uint64_t ticket, const Outcome& outcome, TimePoint now) {
    server_.OnHandled(ticket, outcome, now);
}

void NodeCore::Close(TimePoint now) {
    server_.Close(now);
    client_.Close();
    discovery_.Close();
    presence_.SayGoodbye();
}

void NodeCore::OnGroupMessage(const CoapMessage& message, const Endpoint& source, unsigned interface,
                              TimePoint now) {
    const LocalInterface* local = self_.InterfaceOf(interface);
    if (local == nullptr || message.type != MessageType::NonConfirmable) {
        return;
    }
    const std::string path = PathOf(message);
    if (message.code == code::kGet && path == kWellKnownPath) {
        discovery_.OnProbe(message, source, *local, now);
    } else if (message.code == code::kPost && (path == kHelloPath || path == kGoodbyePath)) {
        presence_.OnNotice(message, source, false, now);
    }
    PassEvents();
}

void NodeCore::OnSearchAnswer(const CoapMessage& message, const Endpoint& source, TimePoint now) {
    discovery_.OnAnswer(message, source, now);
    PassEvents();
}

void NodeCore::OnRequest(const CoapMessage& message, const Endpoint& source, in_addr_t localHost,
                         ReplyPath path, TimePoint now) {
    const std::string uri = PathOf(message);
    if (uri == kResourcePath) {
        server_.OnRequest(message, source, path, now);
    } else if (uri == kWellKnownPath && message.code == code::kGet) {
        Describe(message, localHost, path);
    } else {
        if (message.code == code::kPost) {
            presence_.OnNotice(message, source, true, now);
        }
        network_.Forget(path);
    }
    PassEvents();
}

// Asked directly, a node without the wanted type still answers: with no links, so that the asker
// need not wait.
void NodeCore::Describe(const CoapMessage& request, in_addr_t localHost, ReplyPath path) {
    const bool asked = IsAskedFor(request, self_.deviceType);
    if (asked || request.type == MessageType::Confirmable) {
        network_.Reply(path, MakeLinkAnswer(request, asked ? FormatLink(self_.DescribedAt(localHost)) : ""));
    }
    network_.Forget(path);
}

void NodeCore::OnAnswer(ConversationId conversation, const CoapMessage& answer, TimePoint now) {
    if (!client_.OnAnswer(conversation, answer, now)) {
        presence_.OnAnswer(conversation, answer, now);
    }
    PassEvents();
}

void NodeCore::OnRefused(ConversationId conversation, TimePoint now) {
    if (const auto refusing = client_.OnRefused(conversation)) {
        presence_.Directory().SuspectAt(*refusing, now);
    } else {
        presence_.OnRefused(conversation, now);
    }
    PassEvents();
}

void NodeCore::Tick(TimePoint now) {
    presence_.Tick(now);
    discovery_.Tick(now);
    client_.Tick(now);
    server_.Tick(now);
    PassEvents();
}

TimePoint NodeCore::NextDeadline(TimePoint now) const {
    return std::min({presence_.NextDeadline(), discovery_.NextDeadline(now), client_.NextDeadline(),
                     server_.NextDeadline()});
}

void NodeCore::PassEvents() {
    for (DeviceEvent& event : presence_.Directory().TakeEvents()) {
        if (!event.added) {
            network_.OnPeerGone(event.node.endpoint);
        }
        application_.Notify(std::move(event));
    }
}

}  // namespace lumora_link
