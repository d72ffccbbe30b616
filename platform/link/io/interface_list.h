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
};

// Every IPv4 address of every interface of this host.
std::vector<SystemInterface> ListSystemInterfaces();

// Those that are up, one address each, ordered by index; of the named ones only, where names are given.
std::vector<LocalInterface> SelectInterfaces(const std::vector<SystemInterface>& all,
                                             const std::vector<std::string>& names);

}  // namespace lumora_link
