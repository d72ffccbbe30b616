#include "discovery.h"

#include <algorithm>

#include "link_format.h"

namespace lumora_link {

namespace {

constexpr std::size_t kTokenBytes = 7;  // one byte is left for the number of the probe

// Answers of many nodes are spread over this time; few nodes need not wait.
constexpr Milliseconds kLeisurePerNode{1};
constexpr Milliseconds kLongestLeisure{50};
constexpr Milliseconds kSecondCopy{15};

// A search sends nine probes; who asks much more often is not answered.
constexpr unsigned kAnswersPerSecond = 40;
constexpr std::size_t kMaxAskers = 1024;
constexpr std::size_t kMaxDelayedAnswers = 4096;

// A node that spoke within two hello intervals counts as found though its answers were lost.
constexpr Milliseconds kFresh{1600};

}  // namespace

Discovery::Discovery(const Self& self, Labels& labels, Network& network, Application& application,
                     Presence& presence)
    : self_(self), labels_(labels), network_(network), application_(application), presence_(presence) {}

void Discovery::StartSearch(std::uint64_t ticket, const std::string& deviceType, TimePoint now) {
    std::set<std::uint64_t> expected;
    for (const Peer* peer : presence_.Directory().OfType(deviceType)) {
        expected.insert(peer->node.identity.id);
    }
    searches_.push_back(
        {ticket, labels_.NextToken().substr(0, kTokenBytes), Search(deviceType, std::move(expected), now)});
    Tick(now);
}

void Discovery::OnProbe(const CoapMessage& probe, const Endpoint& source, const LocalInterface& via,
                        TimePoint now) {
    const std::set<NodeHint> known = KnownNodes(probe);
    const bool alreadyKnown = known.count(HintOf(self_.identity.id)) != 0;
    if (!self_.deviceType || !IsAskedFor(probe, self_.deviceType) || alreadyKnown ||
        !MayAnswer(source, now)) {
        return;
    }
    const auto peers = static_cast<Milliseconds::rep>(presence_.Directory().Peers().size());
    const TimePoint at = now + labels_.Jitter(std::min(kLongestLeisure, kLeisurePerNode * peers));
    Schedule(probe, source, via.index, at);
    if (!known.empty()) {
        // The asker has found others but not us: datagrams get lost here.
        Schedule(probe, source, via.index, at + kSecondCopy);
    }
}

void Discovery::OnAnswer(const CoapMessage& answer, const Endpoint& source, TimePoint now) {
    auto node = ParseLink(answer.payload);
    if (!node || !code::IsSuccess(answer.code) || answer.token.size() != kTokenBytes + 1 ||
        node->identity.id == self_.identity.id || node->secured != self_.secured) {
        return;
    }
    node->endpoint.host = source.host;
    for (Running& running : searches_) {
        if (answer.token.compare(0, kTokenBytes, running.token) == 0) {
            presence_.Hear(*node, false, now);
            running.search.OnAnswer(static_cast<unsigned char>(answer.token.back()), *node, now);
        }
    }
}

void Discovery::Tick(TimePoint now) {
    SendDueAnswers(now);
    for (auto running = searches_.begin(); running != searches_.end();) {
        SendDueProbes(*running, now);
        DismissRemoved(running->search);
        const bool over = running->search.IsOver(now);
        if (over) {
            application_.SearchEnded(running->ticket, ResultOf(running->search, now));
        }
        running = over ? searches_.erase(running) : std::next(running);
    }
}

TimePoint Discovery::NextDeadline(TimePoint now) const {
    TimePoint next = answers_.empty() ? TimePoint::max() : answers_.begin()->first;
    for (const Running& running : searches_) {
        next = std::min(next, running.search.NextDeadline(now));
    }
    return next;
}

void Discovery::Close() {
    for (const Running& running : searches_) {
        application_.SearchEnded(running.ticket, {});
    }
    searches_.clear();
    answers_.clear();
}

bool Discovery::MayAnswer(const Endpoint& asker, TimePoint now) {
    if (askers_.size() >= kMaxAskers && askers_.count(asker) == 0) {
        askers_.clear();
    }
    const auto [at, isNew] = askers_.try_emplace(asker);
    Allowance& allowance = at->second;
    if (isNew || now - allowance.since >= std::chrono::seconds(1)) {
        allowance = {now, 0};
    }
    return ++allowance.used <= kAnswersPerSecond && answers_.size() < kMaxDelayedAnswers;
}

void Discovery::Schedule(const CoapMessage& probe, const Endpoint& to, unsigned interface, TimePoint at) {
    const LocalInterface* local = self_.InterfaceOf(interface);
    CoapMessage answer = MakeLinkAnswer(probe, FormatLink(self_.DescribedAt(local->host)));
    answer.messageId = labels_.NextMessageId();
    answers_.emplace(at, DelayedAnswer{to, interface, std::move(answer)});
}

void Discovery::SendDueAnswers(TimePoint now) {
    while (!answers_.empty() && answers_.begin()->first <= now) {
        const DelayedAnswer& answer = answers_.begin()->second;
        if (const LocalInterface* local = self_.InterfaceOf(answer.interface)) {
            network_.Send(*local, answer.to, answer.message);
        }
        answers_.erase(answers_.begin());
    }
}

void Discovery::SendDueProbes(Running& running, TimePoint now) {
    while (const auto number = running.search.TakeDueProbe(now)) {
        Probe(running, *number);
        if (running.search.IsReminder(*number)) {
            // A ping finds out at once where nobody listens any more; a device that is gone is no result.
            for (const std::uint64_t id : running.search.Missing()) {
                presence_.Directory().Suspect(id, now);
            }
        }
    }
}

void Discovery::DismissRemoved(Search& search) {
    for (const std::uint64_t id : search.Missing()) {
        if (presence_.Directory().Find(id) == nullptr) {
            search.Dismiss(id);
        }
    }
}

void Discovery::Probe(const Running& running, unsigned number) {
    const bool rescue = running.search.IsRescue(number);
    const std::string token = running.token + static_cast<char>(number);
    CoapMessage probe = MakeProbe(running.search.DeviceType(), token,
                                  rescue ? running.search.Known() : std::vector<NodeHint>());
    std::vector<Endpoint> targets = presence_.UnicastTargets();
    if (rescue) {
        for (const std::uint64_t id : running.search.Missing()) {
            if (const Peer* peer = presence_.Directory().Find(id)) {
                targets.push_back(peer->node.endpoint);
            }
        }
    }
    for (const LocalInterface& local : self_.interfaces) {
        probe.messageId = labels_.NextMessageId();
        network_.Send(local, MulticastGroup(), probe);
        for (const Endpoint& target : targets) {
            if (local.Reaches(target)) {
                network_.Send(local, target, probe);
            }
        }
    }
}

// The directory decides under which address a node is named, here as in events.
std::vector<NodeDescription> Discovery::ResultOf(const Search& search, TimePoint now) const {
    std::vector<NodeDescription> result;
    for (const Peer* peer : presence_.Directory().OfType(search.DeviceType())) {
        if (search.Found().count(peer->node.identity.id) != 0 || now - peer->heard < kFresh) {
            result.push_back(peer->node);
        }
    }
    std::sort(result.begin(), result.end(),
              [](const NodeDescription& a, const NodeDescription& b) { return a.endpoint < b.endpoint; });
    return result;
}

}  // namespace lumora_link
