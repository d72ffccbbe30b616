// Reads a request out of libwebsockets, and writes the head of a reply.
#pragma once

#include <string>

#include "hub/web/site.h"

struct lws;

namespace lumora_hub::web {

Request ReadRequest(lws* wsi, bool wantsWebSocket);

// size: of the body; empty for a stream, which ends with its connection. False if the connection must end.
bool WriteHead(lws* wsi, const Reply& reply, std::optional<std::size_t> size, bool isLast);

// The numeric address of the peer.
std::string PeerAddress(int socket);

}  // namespace lumora_hub::web
