// The remote devices of one search, as the application holds them.
#pragma once

#include <memory>
#include <vector>

#include "link_platform.h"
#include "platform/link/capi/node.h"

namespace lumora_link {

// Returns the first element of the chain, in the order given, or null if found is empty. The caller frees
// each element with FreeProxy. The elements keep the node object alive: after the node was stopped, requests
// through them fail, and they can still be freed.
AppResourceProxy* MakeProxyChain(const std::shared_ptr<Node>& node,
                                 const std::vector<NodeDescription>& found);

// The next element that is not freed yet, or null.
AppResourceProxy* NextOf(AppResourceProxy* proxy);
void FreeProxy(AppResourceProxy* proxy);

}  // namespace lumora_link
