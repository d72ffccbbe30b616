#include "link/requester.h"

#include <algorithm>

#include "link_security.h"

// A vendor's platform library need not have it.
#pragma weak GetLinkSecurity

namespace lumora {

std::optional<Requester> CurrentRequester() {
    const LinkSecurity* security = GetLinkSecurity != nullptr ? GetLinkSecurity() : nullptr;
    LinkRequester record = {};
    if (security == nullptr || security->GetRequester(&record) != 1) {
        return std::nullopt;
    }
    Requester requester{record.identity, {}};
    std::copy(std::begin(record.node), std::end(record.node), requester.node.begin());
    return requester;
}

}  // namespace lumora
