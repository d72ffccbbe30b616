// The requests of others to this node: each reaches the handlers once, and is answered.
//
// A quick handler's answer rides on the acknowledgement. When it takes longer, the request is
// acknowledged first and answered separately (RFC 7252, section 5.2.2).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "platform/link/core/local_node.h"
#include "platform/link/core/peer_directory.h"
#include "platform/link/core/ports.h"
#include "platform/link/core/request_table.h"

namespace lumora_link {

class RequestServer {
public:
    // Shorter than the requester's first pause, so a slow handler causes no second datagram.
    static constexpr Milliseconds ACKNOWLEDGE_AFTER{150};

    RequestServer(const PeerDirectory& directory, Network& network, Application& application);

    // `localHost` is this node's address to which the request came.
    void OnRequest(const CoapMessage& request, const Endpoint& source, in_addr_t localHost, ReplyPath path,
                   TimePoint now, const std::string& identity);
    void OnHandled(std::uint64_t ticket, const Outcome& outcome, TimePoint now);
    // From here on every new request is refused.
    void Refuse() { mClosed = true; }
    // Answers what the handlers have not got to.
    void Close(TimePoint now);

    void Tick(TimePoint now);
    TimePoint NextDeadline() const;

private:
    struct Open {
        RequestKey key;
        CoapMessage request;  // without its payload
        ReplyPath path = 0;
        bool acknowledged = false;
        TimePoint acknowledgeAt;
    };
    struct Body {
        std::string text;
        std::uint32_t blocks = 0;
        TimePoint since;
    };
    using BodyKey = std::pair<RequesterKey, std::uint32_t>;  // and the message with the first block
    using Bodies = std::map<BodyKey, Body>;

    void Run(const RequestKey& key, const CoapMessage& request, HandlerCall call,
             const std::optional<Requester>& requester, ReplyPath path, TimePoint now);
    std::uint8_t Assemble(const CoapMessage& request, const BodyKey& key, std::string& value, TimePoint now);
    void MakeRoomForBody(in_addr_t source);
    Bodies::iterator Erase(Bodies::iterator body);
    void Repeat(const RequestKey& key, const CoapMessage& request, ReplyPath path);
    void Acknowledge(Open& open);
    void Reply(ReplyPath path, const CoapMessage& request, bool separate, const Outcome& outcome);
    Endpoint EndpointOf(const std::optional<Requester>& requester, const Endpoint& source) const;

    const PeerDirectory& mDirectory;
    Network& mNetwork;
    Application& mApplication;
    RequestTable mTable;
    std::uint64_t mLastTicket = 0;
    std::map<std::uint64_t, Open> mOpen;  // by ticket
    Bodies mBodies;
    SourceQuota mBodyQuota;
    bool mClosed = false;
};

}  // namespace lumora_link
