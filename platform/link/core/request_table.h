// Which requests have been seen, so that each runs once however often its datagram comes.
//
// A requester of our own kind numbers its messages and tells, with each, from which number on they
// are still open. Answers below that are dropped, and so is a datagram that turns up below it: the
// table stays as small as what is under way. Foreign requesters tell nothing; theirs age out.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

#include "platform/link/core/surroundings.h"
#include "platform/link/wire/messages.h"
#include "platform/link/wire/types.h"

namespace lumora_link {

struct RequestKey {
    std::uint64_t node = 0;
    std::uint32_t instance = 0;
    std::uint16_t messageId = 0;
    std::string token;

    bool operator<(const RequestKey& other) const {
        return std::tie(node, instance, messageId, token) <
               std::tie(other.node, other.instance, other.messageId, other.token);
    }
};

RequestKey KeyFor(const CoapMessage& message, const std::optional<Requester>& requester,
                  const Endpoint& source);

class RequestTable {
public:
    enum class Verdict { NEW, PENDING, ANSWERED, STALE, FULL };

    struct Limits {
        std::size_t entries = 8192;
        std::size_t bytes = 4U << 20;
        std::size_t requesters = 4096;
        // Foreign requesters cannot tell what has ended; the oldest of theirs make room for new ones.
        std::size_t foreign = 1024;
        // Longer than any requester repeats a message (RFC 7252's EXCHANGE_LIFETIME on a LAN).
        Milliseconds age{60000};
    };

    RequestTable() : RequestTable(Limits()) {}
    explicit RequestTable(const Limits& limits) : mLimits(limits) {}

    // NEW enters the request as pending.
    Verdict Admit(const RequestKey& key, const std::optional<Requester>& requester, TimePoint now);
    void Answer(const RequestKey& key, const Outcome& outcome, TimePoint now);
    // The stored answer of a request that Admit found answered.
    const Outcome& StoredAnswer(const RequestKey& key) const;

    std::size_t Entries() const { return mEntries.size(); }
    std::size_t Bytes() const { return mBytes; }
    std::size_t Requesters() const { return mProgress.size(); }

private:
    struct Entry {
        std::uint32_t sequence = 0;
        bool numbered = false;
        TimePoint since;
        std::optional<Outcome> answer;
    };
    struct Progress {
        std::uint32_t oldestOpen = 0;
        TimePoint heard;
    };
    using Entries_t = std::map<RequestKey, Entry>;
    using Start = std::pair<std::uint64_t, std::uint32_t>;  // one start of one node: id and instance

    bool Advance(const Start& start, std::uint32_t oldestOpen, TimePoint now);
    bool IsClosed(const RequestKey& key, std::uint32_t sequence) const;
    void DropClosed(const Start& start);
    void MakeRoomForForeign();
    void Sweep(TimePoint now);
    Entries_t::iterator Erase(Entries_t::iterator entry);

    const Limits mLimits;
    Entries_t mEntries;
    std::size_t mBytes = 0;
    std::map<Start, Progress> mProgress;
    std::deque<RequestKey> mForeign;  // those answered, oldest first
    TimePoint mLastSweep{};
};

}  // namespace lumora_link
