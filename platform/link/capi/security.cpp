#include "platform/link/capi/security.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "platform/link/capi/channel_operations.h"
#include "platform/link/wire/key_file.h"

namespace lumora_link {

namespace {

thread_local const HandlerCall* currentCall = nullptr;
thread_local NodeNumber currentNode = 0;

static_assert(sizeof LinkRequester::identity == MAX_PSK_PART_BYTES + 1, "an identity and its NUL fit");
static_assert(sizeof LinkRequester::node == sizeof(HandlerCall::Node::host) + sizeof(HandlerCall::Node::id) +
                                                sizeof(HandlerCall::Node::instance),
              "a node's numbers fit");

extern "C" {

static int GetRequester(LinkRequester* requester) {
    if (requester == nullptr || currentCall == nullptr || currentCall->identity.empty()) {
        return 0;
    }
    *requester = {};
    const std::string& identity = currentCall->identity;
    std::memcpy(requester->identity, identity.data(), std::min(identity.size(), MAX_PSK_PART_BYTES));
    const HandlerCall::Node& node = currentCall->node;
    unsigned char* at = requester->node;
    std::memcpy(at, &node.host, sizeof node.host);
    std::memcpy(at + sizeof node.host, &node.id, sizeof node.id);
    std::memcpy(at + sizeof node.host + sizeof node.id, &node.instance, sizeof node.instance);
    return 1;
}

}  // extern "C"

}  // namespace

CurrentCall::CurrentCall(const HandlerCall& call, NodeNumber node)
    : mFormer(currentCall), mFormerNode(currentNode) {
    currentCall = &call;
    currentNode = node;
}

CurrentCall::~CurrentCall() {
    currentCall = mFormer;
    currentNode = mFormerNode;
}

std::optional<ProvenPeer> CurrentPeer() {
    LinkRequester requester = {};
    return GetRequester(&requester) == 1 ? PeerRegistry::OfProcess().PeerOf(currentNode, requester)
                                         : std::nullopt;
}

const LinkSecurity& SecurityOperations() {
    static const LinkSecurity operations = [] {
        LinkSecurity known = {};
        known.size = offsetof(LinkSecurity, GetChannelMode);
        known.GetRequester = GetRequester;
#if LUMORA_LINK_HAS_CHANNELS
        AddChannelOperations(known);
#endif
        return known;
    }();
    return operations;
}

}  // namespace lumora_link
