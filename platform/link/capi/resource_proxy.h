// The remote devices of one search, as the application holds them.
#pragma once

#include <memory>
#include <vector>

#include "link_platform.h"
#include "platform/link/capi/node.h"

namespace lumora_link {

// The first element of the chain, in the order given; null where there is none. The elements keep
// the node's remains alive, so that they can be asked, in vain, and freed after it has ended.
AppResourceProxy* MakeProxyChain(const std::shared_ptr<Node>& node,
                                 const std::vector<NodeDescription>& found);

AppResourceProxy* NextOf(AppResourceProxy* proxy);
void FreeProxy(AppResourceProxy* proxy);

}  // namespace lumora_link
