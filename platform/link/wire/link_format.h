// How a node describes itself in the link format of RFC 6690:
//
//     <coap://192.0.2.7:40001/lumora>;rt="camera";ep="00c0ffee00c0ffee";ins=1720000000
//
// The URI names the node's own unicast address and port; ep is its id, ins its instance number; rt
// is left out if it offers no resource. In rt, '"' and '\' are escaped by '\'; every other byte
// of a device type stands as it is. The URI of a secured node begins with coaps:// and has the port
// for DTLS, which is the node's own plus one.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/link/wire/types.h"

namespace lumora_link {

std::string FormatLink(const NodeDescription& description);

// Empty if the text is not a description of this kind, such as a link of a foreign node.
std::optional<NodeDescription> ParseLink(std::string_view text);
// The description of a node with that type among the links of a list. A foreign node may list others beside
// it. If there is none, the first description, so that the node is known by what it is.
std::optional<NodeDescription> ParseLinkOfType(std::string_view links, const std::string& deviceType);

}  // namespace lumora_link
