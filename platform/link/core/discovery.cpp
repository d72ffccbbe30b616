#include "platform/link/core/discovery.h"

#include <algorithm>

#include "platform/link/wire/link_format.h"

namespace lumora_link {

namespace {

// A token has 8 bytes. The last one is the number of the probe.
constexpr std::size_t TOKEN_BYTES = 7;

// Answers of some 100 bytes: together 1 MB/s, which a wireless network carries too.
constexpr std::size_t ANSWERS_PER_MILLISECOND = 10;
constexpr Milliseconds LONGEST_LEISURE{30};
constexpr Milliseconds SECOND_COPY{15};

// A search sends nine probes. An asker that sends many more gets no answers until the second is over.
constexpr unsigned ANSWERS_PER_SECOND = 40;
constexpr std::size_t MAX_ASKERS = 1024;
constexpr std::size_t MAX_DELAYED_ANSWERS = 4096;

}  // namespace

Discovery::Discovery(const LocalNode& localNode, IdSource& idSource, Network& network,
                     Application& application, Presence& presence, const UnansweredPeers& unanswered)
    : mLocalNode(localNode),
      mIdSource(idSource),
      mNetwork(network),
      mApplication(application),
      mPresence(presence),
      mUnanswered(unanswered) {}

void Discovery::StartSearch(std::uint64_t ticket, const std::string& deviceType, TimePoint now) {
    Search::Knowledge knowledge;
    for (const Peer* peer : mPresence.Directory().OfType(deviceType)) {
        if (mPresence.Directory().IsCredible(*peer)) {
            knowledge.nodes.insert(peer->node.identity.id);
        }
    }
    knowledge.complete = mPresence.KnowsEveryNode(now);
    knowledge.counted = mLocalNode.deviceType == deviceType;
    mSearches.push_back(
        {ticket, mIdSource.NextToken().substr(0, TOKEN_BYTES), Search(deviceType, knowledge, now)});
    Tick(now);
}

void Discovery::OnProbe(const CoapMessage& probe, const Endpoint& source, const LocalInterface& via,
                        TimePoint now) {
    const std::set<NodeHint> known = KnownNodes(probe);
    const bool alreadyKnown = known.count(HintOf(mLocalNode.identity.id)) != 0;
    if (!mLocalNode.deviceType || !IsAskedFor(probe, mLocalNode.deviceType) || alreadyKnown ||
        !MayAnswer(source, now)) {
        return;
    }
    CoapMessage answer = AnswerTo(probe, via.host, now);
    const TimePoint at = now + mIdSource.Jitter(LongestDelay(probe));
    answer.messageId = mIdSource.NextMessageId();
    mAnswers.emplace(at, DelayedAnswer{source, via.index, answer});
    if (!known.empty()) {
        // The asker has found other nodes but not this one: datagrams get lost here.
        answer.messageId = mIdSource.NextMessageId();
        mAnswers.emplace(at + SECOND_COPY, DelayedAnswer{source, via.index, answer});
    }
}

// The nodes that answer the same probe share the time. A probe without the exact type may be for all nodes.
Milliseconds Discovery::LongestDelay(const CoapMessage& probe) const {
    const bool exact = IsAskedForExactly(probe, *mLocalNode.deviceType);
    const std::size_t answering = exact ? NodesLikeThis() : mPresence.Directory().Peers().size() + 1;
    if (answering <= Search::FEW) {
        return Milliseconds(0);
    }
    return std::min(LONGEST_LEISURE, Milliseconds(answering / ANSWERS_PER_MILLISECOND));
}

// This node included.
std::size_t Discovery::NodesLikeThis() const {
    const std::vector<const Peer*> others = mPresence.Directory().OfType(*mLocalNode.deviceType);
    return 1 + static_cast<std::size_t>(std::count_if(others.begin(), others.end(), [this](const Peer* peer) {
               return mPresence.Directory().IsCredible(*peer);
           }));
}

CoapMessage Discovery::AnswerTo(const CoapMessage& probe, in_addr_t localHost, TimePoint now) const {
    CoapMessage answer = MakeLinkAnswer(probe, FormatLink(mLocalNode.DescribedAt(localHost)));
    const bool ping = probe.type == MessageType::Confirmable;
    if (!ping && mLocalNode.deviceType && mPresence.KnowsEveryNode(now)) {
        AddCount(answer, NodesLikeThis());
    }
    return answer;
}

void Discovery::OnAnswer(const CoapMessage& answer, const Endpoint& source, TimePoint now) {
    if (!code::IsSuccess(answer.code) || answer.token.size() != TOKEN_BYTES + 1) {
        return;
    }
    for (Running& running : mSearches) {
        if (answer.token.compare(0, TOKEN_BYTES, running.token) != 0) {
            continue;
        }
        auto node = ParseLinkOfType(answer.payload, running.search.DeviceType());
        if (node && node->identity.id != mLocalNode.identity.id && node->secured == mLocalNode.secured) {
            node->endpoint.host = source.host;
            mPresence.OnHello(*node, false, now);
            running.search.OnAnswer(static_cast<unsigned char>(answer.token.back()), *node, CountIn(answer),
                                    now);
        }
    }
}

void Discovery::OnRemoved(std::uint64_t nodeId) {
    for (Running& running : mSearches) {
        running.search.Dismiss(nodeId);
    }
}

void Discovery::Tick(TimePoint now) {
    SendDueAnswers(now);
    for (auto running = mSearches.begin(); running != mSearches.end();) {
        DismissRemoved(running->search);
        const bool over = running->search.IsOver(now);
        if (!over) {
            SendDueProbes(*running, now);
        } else {
            mApplication.SearchEnded(running->ticket, ResultOf(running->search, now));
        }
        running = over ? mSearches.erase(running) : std::next(running);
    }
}

TimePoint Discovery::NextDeadline(TimePoint now) const {
    TimePoint next = mAnswers.empty() ? TimePoint::max() : mAnswers.begin()->first;
    for (const Running& running : mSearches) {
        next = std::min(next, running.search.NextDeadline(now));
    }
    return next;
}

void Discovery::Close() {
    for (const Running& running : mSearches) {
        mApplication.SearchEnded(running.ticket, {});
    }
    mSearches.clear();
    mAnswers.clear();
}

bool Discovery::MayAnswer(const Endpoint& asker, TimePoint now) {
    if (!mPresence.MaySendTo(asker.host, now)) {
        return false;
    }
    if (mAskers.size() >= MAX_ASKERS && mAskers.count(asker) == 0) {
        mAskers.clear();
    }
    const auto [at, isNew] = mAskers.try_emplace(asker);
    Allowance& allowance = at->second;
    if (isNew || now - allowance.since >= std::chrono::seconds(1)) {
        allowance = {now, 0};
    }
    return ++allowance.used <= ANSWERS_PER_SECOND && mAnswers.size() < MAX_DELAYED_ANSWERS;
}

void Discovery::SendDueAnswers(TimePoint now) {
    while (!mAnswers.empty() && mAnswers.begin()->first <= now) {
        const DelayedAnswer& answer = mAnswers.begin()->second;
        if (const LocalInterface* local = mLocalNode.InterfaceOf(answer.interface)) {
            mNetwork.Send(*local, answer.to, answer.message);
            mPresence.OnSentTo(answer.to.host, answer.message);
        }
        mAnswers.erase(mAnswers.begin());
    }
}

void Discovery::SendDueProbes(Running& running, TimePoint now) {
    while (const auto number = running.search.TakeDueProbe(now)) {
        Probe(running, *number, now);
        if (running.search.IsReminder(*number)) {
            // The host of a device that is gone refuses a ping at once. The search then need not wait for it.
            for (const std::uint64_t id : running.search.Missing()) {
                mPresence.Directory().Suspect(id, now);
            }
        }
    }
}

void Discovery::DismissRemoved(Search& search) {
    for (const std::uint64_t id : search.Missing()) {
        if (mPresence.Directory().Find(id) == nullptr) {
            search.Dismiss(id);
        }
    }
}

void Discovery::Probe(const Running& running, unsigned number, TimePoint now) {
    const Search& search = running.search;
    const std::string token = running.token + static_cast<char>(number);
    CoapMessage toGroup = MakeProbe(search.DeviceType(), token, search.Named(number));
    CoapMessage toNode = MakeProbe(search.DeviceType(), token, {});
    std::vector<Endpoint> targets = mPresence.UnicastTargets();
    for (const std::uint64_t id : search.AskedDirectly(number)) {
        const Peer* peer = mPresence.Directory().Find(id);
        if (peer != nullptr && mPresence.MaySendTo(peer->node.endpoint.host, now)) {
            targets.push_back(peer->node.endpoint);
            mPresence.OnSentTo(peer->node.endpoint.host, toNode);
        }
    }
    for (const LocalInterface& local : mLocalNode.interfaces) {
        toGroup.messageId = toNode.messageId = mIdSource.NextMessageId();
        mNetwork.Send(local, MulticastGroup(), toGroup);
        for (const Endpoint& target : targets) {
            if (local.Reaches(target)) {
                mNetwork.Send(local, target, toNode);
            }
        }
    }
}

// Nodes are listed under the address that the directory and the device events use. An application asks one
// node after the other, so nodes that left a request unanswered come last.
std::vector<NodeDescription> Discovery::ResultOf(const Search& search, TimePoint now) const {
    std::vector<NodeDescription> result;
    for (const Peer* peer : mPresence.Directory().OfType(search.DeviceType())) {
        // A live node has said hello lately. It counts as found although its answers were lost.
        const bool fresh = mPresence.Directory().IsCredible(*peer) && now - peer->heard < Presence::LATELY;
        if (fresh || search.HasFound(peer->node.identity.id)) {
            result.push_back(peer->node);
        }
    }
    std::sort(result.begin(), result.end(), [this, now](const NodeDescription& a, const NodeDescription& b) {
        const bool last = mUnanswered.Contains(a.endpoint, now);
        const bool otherLast = mUnanswered.Contains(b.endpoint, now);
        return last != otherLast ? otherLast : a.endpoint < b.endpoint;
    });
    return result;
}

}  // namespace lumora_link
