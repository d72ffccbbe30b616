// Which requests have been seen, so that each runs once however often its datagram comes.
//
// A requester of our own kind numbers its messages and tells, with each, from which number on they
// are still open. Answers below that are dropped, and so is a datagram that turns up below it: the
// table stays as small as what is under way. Foreign requesters tell nothing; theirs age out.
//
// Any host can send requests, so every source address has a quota of entries and of requesters. The entries
// of one address make room for new ones of that address; a full table takes room from the address that has
// most.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

#include "platform/link/core/ports.h"
#include "platform/link/core/source_quota.h"
#include "platform/link/wire/messages.h"
#include "platform/link/wire/types.h"

namespace lumora_link {

// One start of one node as it asks us, or one socket of a foreign program. What comes from another address is
// another requester: an address that only listens to hellos cannot speak for the node that says them.
struct RequesterKey {
    in_addr_t host = 0;
    bool numbered = false;   // of our own kind
    std::uint64_t node = 0;  // the id, or the foreign program's port
    std::uint32_t instance = 0;
    std::uint64_t secret = 0;

    bool operator<(const RequesterKey& other) const {
        return std::tie(host, numbered, node, instance, secret) <
               std::tie(other.host, other.numbered, other.node, other.instance, other.secret);
    }
};
RequesterKey KeyOfRequester(const std::optional<Requester>& requester, const Endpoint& source);

struct RequestKey {
    RequesterKey requester;
    std::uint16_t messageId = 0;
    std::string token;

    bool operator<(const RequestKey& other) const {
        return std::tie(requester, messageId, token) <
               std::tie(other.requester, other.messageId, other.token);
    }
};

RequestKey KeyFor(const CoapMessage& message, const std::optional<Requester>& requester,
                  const Endpoint& source);

class RequestTable {
public:
    enum class Verdict { NEW, PENDING, ANSWERED, STALE, FULL };

    struct Limits {
        std::size_t entries = 8192;
        std::size_t entriesPerSource = 1024;
        std::size_t bytes = 4U << 20;
        std::size_t requesters = 4096;
        std::size_t requestersPerSource = 256;
        // Longer than any requester repeats a message (RFC 7252's EXCHANGE_LIFETIME on a LAN).
        Milliseconds age{60000};
    };

    RequestTable() : RequestTable(Limits()) {}
    explicit RequestTable(const Limits& limits);

    // NEW enters the request as pending. FULL: this address has its share, and all of it is pending.
    Verdict Admit(const RequestKey& key, const std::optional<Requester>& requester, TimePoint now);
    void Answer(const RequestKey& key, const Outcome& outcome, TimePoint now);
    // The stored answer of a request that Admit found answered.
    const Outcome& StoredAnswer(const RequestKey& key) const;

    std::size_t Entries() const { return mEntries.size(); }
    std::size_t Bytes() const { return mBytes; }
    std::size_t Requesters() const { return mProgress.size(); }
    // How often a quota refused or dropped something.
    std::size_t Bites() const { return mEntryQuota.Bites() + mRequesterQuota.Bites(); }

private:
    struct Entry {
        std::uint32_t sequence = 0;
        TimePoint since;
        std::optional<Outcome> answer;
        std::uint64_t place = 0;  // in mAnswered
    };
    struct Progress {
        std::uint32_t oldestOpen = 0;
        TimePoint heard;
        std::uint64_t place = 0;  // in mHeard
    };
    using Entries_t = std::map<RequestKey, Entry>;
    using Progress_t = std::map<RequesterKey, Progress>;

    void Advance(const RequesterKey& requester, std::uint32_t oldestOpen, TimePoint now);
    void Touch(const RequesterKey& requester, Progress& progress, TimePoint now);
    bool IsClosed(const RequestKey& key, std::uint32_t sequence) const;
    void DropClosed(const RequesterKey& requester);
    bool MakeRoom(in_addr_t source);
    void MakeRoomForRequester(in_addr_t source);
    void Sweep(TimePoint now);
    Entries_t::iterator Erase(Entries_t::iterator entry);
    Progress_t::iterator Erase(Progress_t::iterator progress);

    const Limits mLimits;
    Entries_t mEntries;
    std::size_t mBytes = 0;
    Progress_t mProgress;
    SourceQuota mEntryQuota;
    SourceQuota mRequesterQuota;
    OldestFirst<RequestKey> mAnswered;
    OldestFirst<RequesterKey> mHeard;
    TimePoint mLastSweep{};
};

}  // namespace lumora_link
