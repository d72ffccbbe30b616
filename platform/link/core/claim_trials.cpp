#include "platform/link/core/claim_trials.h"

#include <algorithm>
#include <iterator>

#include "platform/link/wire/link_format.h"
#include "platform/link/wire/messages.h"

namespace lumora_link {

namespace {

// Each open trial has a descriptor, and with a key a handshake.
constexpr std::size_t MAX_OPEN = 16;
constexpr std::size_t MAX_OPEN_SECURED = 4;
constexpr Milliseconds ROUND{25};
constexpr Milliseconds ROUND_SECURED{500};
constexpr Milliseconds ANSWER_WITHIN{400};
constexpr Milliseconds ANSWER_WITHIN_SECURED{2000};

}  // namespace

// The latest of each address. Of too many addresses any one yields, so that a stranger cannot choose which.
void ClaimTrials::Propose(const NodeDescription& claim) {
    const in_addr_t host = claim.endpoint.host;
    if (mWaiting.size() >= MAX_WAITING && mWaiting.count(host) == 0) {
        const auto any = static_cast<int>(mIdSource.Jitter(Milliseconds(MAX_WAITING - 1)).count());
        mWaiting.erase(std::next(mWaiting.begin(), any));
    }
    mWaiting[host] = claim.endpoint;
}

bool ClaimTrials::OnAnswer(ConversationId conversation, const CoapMessage& answer,
                           std::optional<NodeDescription>& proven) {
    const auto trial = Find(conversation);
    if (trial == mTrials.end()) {
        return false;
    }
    auto node = ParseLink(answer.payload);
    if (node && node->secured == mLocalNode.secured && answer.token == trial->token) {
        node->endpoint = trial->to;
        proven = std::move(node);
    }
    End(trial);
    return true;
}

bool ClaimTrials::OnRefused(ConversationId conversation) {
    const auto trial = Find(conversation);
    if (trial == mTrials.end()) {
        return false;
    }
    End(trial);
    return true;
}

void ClaimTrials::Tick(TimePoint now, const Send& send) {
    while (!mTrials.empty() && mTrials.front().end <= now) {
        End(mTrials.begin());
    }
    if (mWaiting.empty() || now < mNextRound) {
        return;
    }
    mNextRound = now + (mLocalNode.secured ? ROUND_SECURED : ROUND);
    std::map<in_addr_t, Endpoint> round;
    round.swap(mWaiting);
    for (const auto& [host, endpoint] : round) {
        if (mTrials.size() >= (mLocalNode.secured ? MAX_OPEN_SECURED : MAX_OPEN)) {
            End(mTrials.begin());
        }
        CoapMessage ping = MakePing();
        ping.token = mIdSource.NextToken();
        ping.messageId = mIdSource.NextMessageId();
        mTrials.push_back({mIdSource.NextConversation(), ping.token, endpoint,
                           now + (mLocalNode.secured ? ANSWER_WITHIN_SECURED : ANSWER_WITHIN)});
        send(mTrials.back().conversation, endpoint, ping);
    }
}

TimePoint ClaimTrials::NextDeadline() const {
    const TimePoint end = mTrials.empty() ? TimePoint::max() : mTrials.front().end;
    return mWaiting.empty() ? end : std::min(end, mNextRound);
}

ClaimTrials::Trials::iterator ClaimTrials::Find(ConversationId conversation) {
    return std::find_if(mTrials.begin(), mTrials.end(),
                        [conversation](const Trial& trial) { return trial.conversation == conversation; });
}

ClaimTrials::Trials::iterator ClaimTrials::End(Trials::iterator trial) {
    mNetwork.CloseConversation(trial->conversation);
    return mTrials.erase(trial);
}

}  // namespace lumora_link
