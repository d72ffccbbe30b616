#include "link/requester.h"

#include <algorithm>

#include "link/security_table.h"

namespace lumora {

std::optional<Requester> CurrentRequester() {
    const LinkSecurity* security = SecurityTable();
    LinkRequester record = {};
    if (security == nullptr || security->GetRequester(&record) != 1) {
        return std::nullopt;
    }
    Requester requester{record.identity, {}};
    std::copy(std::begin(record.node), std::end(record.node), requester.node.begin());
    return requester;
}

}  // namespace lumora
