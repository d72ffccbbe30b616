// What GetLinkSecurity gives out: who sent the request that a thread is handling, and private channels.
#pragma once

#include <optional>

#include "link_security.h"
#include "platform/link/channel/peer_registry.h"
#include "platform/link/core/ports.h"

namespace lumora_link {

// While it lives, GetRequester on this thread tells of the call to that node.
class CurrentCall {
public:
    CurrentCall(const HandlerCall& call, NodeNumber node);
    ~CurrentCall();
    CurrentCall(const CurrentCall&) = delete;
    CurrentCall& operator=(const CurrentCall&) = delete;

private:
    const HandlerCall* mFormer;
    const NodeNumber mFormerNode;
};

// Who sent the call that this thread handles; nothing if it has proven no key that is still accepted.
std::optional<ProvenPeer> CurrentPeer();

const LinkSecurity& SecurityOperations();

}  // namespace lumora_link
