#include "platform/link/core/discovery.h"

#include <algorithm>
#include <map>
#include <utility>

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
constexpr std::size_t MAX_NEWCOMERS = 64;
// When a site is switched on, all of its nodes look round. Each answers some of the others.
constexpr unsigned LOOK_ROUND_ANSWERS_PER_SECOND = 32;
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

void Discovery::BeginLookRound(TimePoint now) {
    mLookRound = LookRound();
    if (mLocalNode.deviceType && !mLocalNode.interfaces.empty()) {
        mLookRound.Begin(mIdSource.NextToken().substr(0, TOKEN_BYTES), now);
        Tick(now);
    }
}

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
    if (!mLocalNode.deviceType || !IsAskedFor(probe, mLocalNode.deviceType)) {
        return;
    }
    const std::set<NodeHint> known = KnownNodes(probe);
    const bool alreadyKnown = known.count(HintOf(mLocalNode.identity.id)) != 0;
    if (IsLookRound(probe)) {
        OnLookRound(probe, source, now);
    }
    if (alreadyKnown || !MayAnswer(source, now) || (IsLookRound(probe) && !MayAnswerLookRound(now))) {
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
    return 1 + mPresence.Directory().CountOfType(*mLocalNode.deviceType);
}

CoapMessage Discovery::AnswerTo(const CoapMessage& probe, in_addr_t localHost, TimePoint now) const {
    CoapMessage answer = MakeLinkAnswer(probe, FormatLink(mLocalNode.DescribedAt(localHost)));
    const bool ping = probe.type == MessageType::Confirmable;
    if (!ping && mLocalNode.deviceType && CanCount(now)) {
        AddCount(answer, NodesLikeThis());
    }
    return answer;
}

// A look round is enough for a few nodes. In a crowd not all answer it, and one node more or less is noticed
// by the other counts.
bool Discovery::CanCount(TimePoint now) const {
    const bool isFew = NodesLikeThis() <= Search::FEW;
    const bool knowsAll = mPresence.KnowsEveryNode(now) || (isFew && mLookRound.HasSeenAll(now));
    return knowsAll && !(isFew && AwaitsHello(now));
}

// There is a new node of this type. It says hello within 50 ms, by which it is known, unless the hello is
// lost.
void Discovery::OnLookRound(const CoapMessage& probe, const Endpoint& source, TimePoint now) {
    for (auto at = mNewcomers.begin(); at != mNewcomers.end();) {
        at = at->second <= now ? mNewcomers.erase(at) : std::next(at);
    }
    const bool isOwn = probe.token.compare(0, TOKEN_BYTES, mLookRound.Token()) == 0;
    if (!isOwn && mNewcomers.size() < MAX_NEWCOMERS) {
        mNewcomers[source] = now + Presence::LATELY;
    }
}

// Whether a new node has not said hello yet, so that this one cannot count it.
bool Discovery::AwaitsHello(TimePoint now) const {
    return std::any_of(mNewcomers.begin(), mNewcomers.end(), [this, now](const auto& newcomer) {
        return now < newcomer.second && !mPresence.HasHeard(newcomer.first);
    });
}

void Discovery::OnAnswer(const CoapMessage& answer, const Endpoint& source, TimePoint now) {
    if (!code::IsSuccess(answer.code) || answer.token.size() != TOKEN_BYTES + 1) {
        return;
    }
    const std::string token = answer.token.substr(0, TOKEN_BYTES);
    if (token == mLookRound.Token() && mLocalNode.deviceType) {
        if (const auto node = NodeIn(answer, source, *mLocalNode.deviceType)) {
            mPresence.OnHello(*node, false, now);
            if (CountIn(answer) || NodesLikeThis() > Search::FEW) {
                mLookRound.End();
            }
        }
    }
    for (Running& running : mSearches) {
        if (token != running.token) {
            continue;
        }
        if (const auto node = NodeIn(answer, source, running.search.DeviceType())) {
            mPresence.OnHello(*node, false, now);
            running.search.OnAnswer(static_cast<unsigned char>(answer.token.back()), *node, CountIn(answer),
                                    now);
        }
    }
}

// Another node of that type that this one may speak with.
std::optional<NodeDescription> Discovery::NodeIn(const CoapMessage& answer, const Endpoint& source,
                                                 const std::string& deviceType) const {
    auto node = ParseLinkOfType(answer.payload, deviceType);
    if (!node || node->identity.id == mLocalNode.identity.id || node->secured != mLocalNode.secured) {
        return std::nullopt;
    }
    node->endpoint.host = source.host;
    return node;
}

void Discovery::OnRemoved(std::uint64_t nodeId) {
    for (Running& running : mSearches) {
        running.search.Dismiss(nodeId);
    }
}

void Discovery::Tick(TimePoint now) {
    SendDueAnswers(now);
    SendDueLooks(now);
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
    TimePoint next = MayLookRound() ? mLookRound.NextProbe() : TimePoint::max();
    if (!mAnswers.empty()) {
        next = std::min(next, mAnswers.begin()->first);
    }
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
    return mAskers[asker].Take(ANSWERS_PER_SECOND, now) && mAnswers.size() < MAX_DELAYED_ANSWERS;
}

// Hundreds of answers to each new node would be a burden, and a reflector.
bool Discovery::MayAnswerLookRound(TimePoint now) {
    return mPresence.IsChosen() && mLookRoundAnswers.Take(LOOK_ROUND_ANSWERS_PER_SECOND, now);
}

bool Discovery::Allowance::Take(unsigned most, TimePoint now) {
    if (now - since >= std::chrono::seconds(1)) {
        since = now;
        used = 0;
    }
    return ++used <= most;
}

void Discovery::SendDueAnswers(TimePoint now) {
    while (!mAnswers.empty() && mAnswers.begin()->first <= now) {
        const DelayedAnswer& answer = mAnswers.begin()->second;
        const LocalInterface* local = mLocalNode.InterfaceOf(answer.interface);
        if (local != nullptr && mPresence.MaySendTo(answer.to.host, now)) {
            mNetwork.Send(*local, answer.to, answer.message);
            mPresence.OnSentTo(answer.to.host, answer.message);
        }
        mAnswers.erase(mAnswers.begin());
    }
}

void Discovery::SendDueLooks(TimePoint now) {
    while (MayLookRound()) {
        const auto number = mLookRound.TakeDueProbe(now);
        if (!number) {
            return;
        }
        CoapMessage probe =
            MakeProbe(*mLocalNode.deviceType, mLookRound.Token() + static_cast<char>(*number), {});
        MarkAsLookRound(probe);
        CoapMessage toNode = probe;
        SendProbe(probe, toNode, mPresence.UnicastTargets());
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
    SendProbe(toGroup, toNode, targets);
}

void Discovery::SendProbe(CoapMessage& toGroup, CoapMessage& toNode, const std::vector<Endpoint>& targets) {
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
    std::multimap<std::pair<bool, Endpoint>, const Peer*> found;  // in the order of the result
    for (const Peer* peer : mPresence.Directory().OfType(search.DeviceType())) {
        // A live node has said hello lately. It counts as found although its answers were lost.
        const bool fresh = mPresence.Directory().IsCredible(*peer) && now - peer->heard < Presence::LATELY;
        if (fresh || search.HasFound(peer->node.identity.id)) {
            const Endpoint& endpoint = peer->node.endpoint;
            found.emplace(std::make_pair(mUnanswered.Contains(endpoint, now), endpoint), peer);
        }
    }
    std::vector<NodeDescription> result;
    for (const auto& [order, peer] : found) {
        result.push_back(peer->node);
    }
    return result;
}

}  // namespace lumora_link
