#include "platform/link/core/node_core.h"

#include <algorithm>

#include "platform/link/wire/link_format.h"

namespace lumora_link {

namespace {

LocalNode LocalNodeOf(NodeIdentity identity, bool secured) {
    LocalNode localNode;
    localNode.secured = secured;
    localNode.identity = identity;
    return localNode;
}

}  // namespace

NodeCore::NodeCore(NodeIdentity identity, bool secured, std::vector<Endpoint> peers, RandomSource& random,
                   Network& network, Application& application)
    : mApplication(application),
      mNetwork(network),
      mLocalNode(LocalNodeOf(identity, secured)),
      mIdSource(random),
      mPresence(mLocalNode, mIdSource, network, std::move(peers)),
      mReplies(network, mPresence),
      mDiscovery(mLocalNode, mIdSource, network, application, mPresence, mUnanswered),
      mClient(mLocalNode, mIdSource, network, application, mUnanswered),
      mServer(mPresence.Directory(), mReplies, application) {}

void NodeCore::MeteredNetwork::Reply(ReplyPath path, const CoapMessage& message) {
    mNetwork.Reply(path, message);
    const auto asker = mPaths.find(path);
    if (asker != mPaths.end()) {
        mPresence.OnSentTo(asker->second, message);
    }
}

void NodeCore::MeteredNetwork::Forget(ReplyPath path) {
    mPaths.erase(path);
    mNetwork.Forget(path);
}

void NodeCore::SetDeviceType(std::optional<std::string> deviceType, TimePoint now) {
    mLocalNode.deviceType = std::move(deviceType);
    mPresence.HelloSoon(now);
    mDiscovery.BeginLookRound(now);
}

void NodeCore::SetInterfaces(std::vector<LocalInterface> interfaces, std::uint16_t port, TimePoint now) {
    const bool changed = mLocalNode.interfaces != interfaces;
    mLocalNode.interfaces = std::move(interfaces);
    mLocalNode.port = port;
    mPresence.HelloSoon(now);
    if (changed) {
        mPresence.OnNetworkChanged(now);
        mDiscovery.BeginLookRound(now);
    }
}

void NodeCore::StartSearch(std::uint64_t ticket, const std::string& deviceType, TimePoint now) {
    mDiscovery.StartSearch(ticket, deviceType, now);
}

void NodeCore::StartRequest(OutgoingRequest request, TimePoint now) {
    mClient.Start(std::move(request), now);
}

void NodeCore::OnHandled(std::uint64_t ticket, const Outcome& outcome, TimePoint now) {
    mServer.OnHandled(ticket, outcome, now);
}

void NodeCore::Close(TimePoint now) {
    mServer.Close(now);
    mClient.Close();
    mDiscovery.Close();
    mPresence.SayGoodbye();
}

void NodeCore::OnGroupMessage(const CoapMessage& message, const Endpoint& source, unsigned interface,
                              TimePoint now) {
    const LocalInterface* local = mLocalNode.InterfaceOf(interface);
    if (local == nullptr || message.type != MessageType::NonConfirmable) {
        return;
    }
    const std::string path = PathOf(message);
    if (message.code == code::GET && path == WELL_KNOWN_PATH) {
        mDiscovery.OnProbe(message, source, *local, now);
    } else if (message.code == code::POST && (path == HELLO_PATH || path == GOODBYE_PATH)) {
        mPresence.OnNotice(message, source, false, now);
    }
    PassEvents(now);
}

void NodeCore::OnSearchAnswer(const CoapMessage& message, const Endpoint& source, TimePoint now) {
    mDiscovery.OnAnswer(message, source, now);
    PassEvents(now);
}

void NodeCore::OnRequest(const CoapMessage& message, const Endpoint& source, in_addr_t localHost,
                         ReplyPath path, TimePoint now, const std::string& identity) {
    const std::string uri = PathOf(message);
    // A DTLS handshake proves that the sender receives at its address, so no budget is needed.
    const bool secured = mLocalNode.secured && uri == RESOURCE_PATH;
    if (!secured && !mPresence.MaySendTo(source.host, now)) {
        mNetwork.Forget(path);
        return;
    }
    if (!secured) {
        mReplies.Begin(path, source.host);
    }
    if (uri == RESOURCE_PATH) {
        mServer.OnRequest(message, source, localHost, path, now, identity);
    } else if (uri == WELL_KNOWN_PATH && message.code == code::GET) {
        Describe(message, localHost, path, now);
    } else {
        if (message.code == code::POST) {
            mPresence.OnNotice(message, source, true, now);
        }
        mReplies.Forget(path);
    }
    PassEvents(now);
}

// A node without the wanted type answers a confirmable request with an empty list. The asker then need not
// wait.
void NodeCore::Describe(const CoapMessage& request, in_addr_t localHost, ReplyPath path, TimePoint now) {
    const bool asked = IsAskedFor(request, mLocalNode.deviceType);
    if (asked || request.type == MessageType::Confirmable) {
        mReplies.Reply(path,
                       asked ? mDiscovery.AnswerTo(request, localHost, now) : MakeLinkAnswer(request, ""));
    }
    mReplies.Forget(path);
}

void NodeCore::OnAnswer(ConversationId conversation, const CoapMessage& answer, TimePoint now) {
    if (!mClient.OnAnswer(conversation, answer, now)) {
        mPresence.OnAnswer(conversation, answer, now);
    }
    PassEvents(now);
}

void NodeCore::OnRefused(ConversationId conversation, TimePoint now) {
    if (const auto refusing = mClient.OnRefused(conversation)) {
        mPresence.Directory().SuspectAt(*refusing, now);
    } else {
        mPresence.OnRefused(conversation, now);
    }
    PassEvents(now);
}

void NodeCore::Tick(TimePoint now) {
    mPresence.Tick(now);
    mDiscovery.Tick(now);
    mClient.Tick(now);
    mServer.Tick(now);
    PassEvents(now);
}

TimePoint NodeCore::NextDeadline(TimePoint now) const {
    return std::min({mPresence.NextDeadline(), mDiscovery.NextDeadline(now), mClient.NextDeadline(),
                     mServer.NextDeadline()});
}

// Called after each input, so that the application hears of a change at once.
void NodeCore::PassEvents(TimePoint now) {
    for (DeviceEvent& event : mPresence.Directory().TakeEvents()) {
        if (!event.added) {
            mNetwork.OnPeerGone(event.node.endpoint);
            mClient.OnPeerGone(event.node.endpoint, now);
            mDiscovery.OnRemoved(event.node.identity.id);
        } else {
            mUnanswered.OnBack(event.node.endpoint);
        }
        mApplication.Notify(std::move(event));
    }
}

}  // namespace lumora_link
