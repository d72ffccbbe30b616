// What GetLinkSecurity gives out: who sent the request that a thread is handling.
#pragma once

#include "link_security.h"
#include "platform/link/core/ports.h"

namespace lumora_link {

// While it lives, GetRequester on this thread tells of the call.
class CurrentCall {
public:
    explicit CurrentCall(const HandlerCall& call);
    ~CurrentCall();
    CurrentCall(const CurrentCall&) = delete;
    CurrentCall& operator=(const CurrentCall&) = delete;

private:
    const HandlerCall* mFormer;
};

const LinkSecurity& SecurityOperations();

}  // namespace lumora_link
