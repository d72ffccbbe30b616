// The interfaces that a node uses.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/link/wire/types.h"

namespace lumora_link {

struct SystemInterface {
    LocalInterface local;
    bool up = false;
    in_addr_t mask = INADDR_NONE;  // of the network that the address belongs to
    in_addr_t otherEnd = 0;        // of a point-to-point link
};

// Every IPv4 address of every interface of this host.
std::vector<SystemInterface> ListSystemInterfaces();

// The running interfaces with one address each, ordered by index. If names is not empty, only those in it.
std::vector<LocalInterface> SelectInterfaces(const std::vector<SystemInterface>& all,
                                             const std::vector<std::string>& names);

// The hosts whose datagrams this node accepts: hosts on the networks of the interfaces that it uses, this
// host itself, and configured peers. Other hosts behind a router are ignored.
class LinkScope {
public:
    LinkScope() = default;
    LinkScope(const std::vector<SystemInterface>& all, const std::vector<LocalInterface>& used,
              const std::vector<Endpoint>& peers);

    bool Contains(in_addr_t host) const;

private:
    struct Subnet {
        in_addr_t host;
        in_addr_t mask;
    };
    std::vector<Subnet> mSubnets;
};

// Whether an IPv4 address other than a loopback address is among them. Without one, other hosts cannot find
// us.
bool ReachesOthers(const std::vector<LocalInterface>& used);

}  // namespace lumora_link
