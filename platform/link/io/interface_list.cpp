#include "platform/link/io/interface_list.h"

#include <algorithm>

#include "base/interface_addresses.h"

namespace lumora_link {

std::vector<SystemInterface> ListSystemInterfaces() {
    std::vector<SystemInterface> all;
    for (const lumora::InterfaceAddress& entry : lumora::ListInterfaceAddresses()) {
        if (entry.hasIpv4) {
            all.push_back({{entry.index, entry.name, entry.host}, entry.running, entry.mask, entry.otherEnd});
        }
    }
    return all;
}

std::vector<LocalInterface> SelectInterfaces(const std::vector<SystemInterface>& all,
                                             const std::vector<std::string>& names) {
    std::vector<LocalInterface> selected;
    for (const SystemInterface& candidate : all) {
        const bool named =
            names.empty() || std::find(names.begin(), names.end(), candidate.local.name) != names.end();
        const auto place = std::find_if(selected.begin(), selected.end(), [&](const LocalInterface& other) {
            return other.index >= candidate.local.index;
        });
        // The first address of an interface is its primary one; further ones are not used.
        const bool taken = place != selected.end() && place->index == candidate.local.index;
        if (candidate.up && candidate.local.index != 0 && named && !taken) {
            selected.insert(place, candidate.local);
        }
    }
    return selected;
}

LinkScope::LinkScope(const std::vector<SystemInterface>& all, const std::vector<LocalInterface>& used,
                     const std::vector<Endpoint>& peers) {
    for (const SystemInterface& own : all) {
        const bool isUsed = std::any_of(used.begin(), used.end(), [&own](const LocalInterface& local) {
            return local.index == own.local.index;
        });
        // Each address of this host may talk to the node. A network may if the node uses its interface.
        mSubnets.push_back({own.local.host, isUsed ? own.mask : INADDR_NONE});
        if (isUsed && own.otherEnd != 0) {
            mSubnets.push_back({own.otherEnd, INADDR_NONE});
        }
    }
    for (const Endpoint& peer : peers) {
        mSubnets.push_back({peer.host, INADDR_NONE});
    }
}

bool LinkScope::Contains(in_addr_t host) const {
    return std::any_of(mSubnets.begin(), mSubnets.end(), [host](const Subnet& subnet) {
        return (host & subnet.mask) == (subnet.host & subnet.mask);
    });
}

bool ReachesOthers(const std::vector<LocalInterface>& used) {
    return std::any_of(used.begin(), used.end(),
                       [](const LocalInterface& local) { return !LocalInterface::IsLoopback(local.host); });
}

}  // namespace lumora_link
