#include "platform/link/core/discovery.h"

#include <algorithm>

#include "platform/link/wire/link_format.h"

namespace lumora_link {

namespace {

constexpr std::size_t TOKEN_BYTES = 7;  // one byte is left for the number of the probe

// Answers of many nodes are spread over this time; few nodes need not wait.
constexpr Milliseconds LEISURE_PER_NODE{1};
constexpr Milliseconds LONGEST_LEISURE{50};
constexpr Milliseconds SECOND_COPY{15};

// A search sends nine probes; who asks much more often is not answered.
constexpr unsigned ANSWERS_PER_SECOND = 40;
constexpr std::size_t MAX_ASKERS = 1024;
constexpr std::size_t MAX_DELAYED_ANSWERS = 4096;

// A node that spoke within two hello intervals counts as found though its answers were lost.
constexpr Milliseconds FRESH{1600};

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
    std::set<std::uint64_t> expected;
    for (const Peer* peer : mPresence.Directory().OfType(deviceType)) {
        if (mPresence.Directory().IsCredible(*peer)) {
            expected.insert(peer->node.identity.id);
        }
    }
    mSearches.push_back(
        {ticket, mIdSource.NextToken().substr(0, TOKEN_BYTES), Search(deviceType, std::move(expected), now)});
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
    const Milliseconds leisure = mPresence.Directory().ForAll(LEISURE_PER_NODE);
    const TimePoint at = now + mIdSource.Jitter(std::min(LONGEST_LEISURE, leisure));
    Schedule(probe, source, via.index, at);
    if (!known.empty()) {
        // The asker has found others but not us: datagrams get lost here.
        Schedule(probe, source, via.index, at + SECOND_COPY);
    }
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
            running.search.OnAnswer(static_cast<unsigned char>(answer.token.back()), *node, now);
        }
    }
}

void Discovery::Tick(TimePoint now) {
    SendDueAnswers(now);
    for (auto running = mSearches.begin(); running != mSearches.end();) {
        SendDueProbes(*running, now);
        DismissRemoved(running->search);
        const bool over = running->search.IsOver(now);
        if (over) {
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

void Discovery::Schedule(const CoapMessage& probe, const Endpoint& to, unsigned interface, TimePoint at) {
    const LocalInterface* local = mLocalNode.InterfaceOf(interface);
    CoapMessage answer = MakeLinkAnswer(probe, FormatLink(mLocalNode.DescribedAt(local->host)));
    answer.messageId = mIdSource.NextMessageId();
    mAnswers.emplace(at, DelayedAnswer{to, interface, std::move(answer)});
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
        Probe(running, *number);
        if (running.search.IsReminder(*number)) {
            // A ping finds out at once where nobody listens any more; a device that is gone is no result.
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

void Discovery::Probe(const Running& running, unsigned number) {
    const bool rescue = running.search.IsRescue(number);
    const std::string token = running.token + static_cast<char>(number);
    CoapMessage probe = MakeProbe(running.search.DeviceType(), token,
                                  rescue ? running.search.Known() : std::vector<NodeHint>());
    std::vector<Endpoint> targets = mPresence.UnicastTargets();
    if (rescue) {
        for (const std::uint64_t id : running.search.Missing()) {
            if (const Peer* peer = mPresence.Directory().Find(id)) {
                targets.push_back(peer->node.endpoint);
            }
        }
    }
    for (const LocalInterface& local : mLocalNode.interfaces) {
        probe.messageId = mIdSource.NextMessageId();
        mNetwork.Send(local, MulticastGroup(), probe);
        for (const Endpoint& target : targets) {
            if (local.Reaches(target)) {
                mNetwork.Send(local, target, probe);
            }
        }
    }
}

// The directory decides under which address a node is named, here as in events. An application asks one node
// after the other, so those that left a request unanswered come last.
std::vector<NodeDescription> Discovery::ResultOf(const Search& search, TimePoint now) const {
    std::vector<NodeDescription> result;
    for (const Peer* peer : mPresence.Directory().OfType(search.DeviceType())) {
        const bool fresh = mPresence.Directory().IsCredible(*peer) && now - peer->heard < FRESH;
        if (fresh || search.Found().count(peer->node.identity.id) != 0) {
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
