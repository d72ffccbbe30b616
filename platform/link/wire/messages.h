// The messages that nodes exchange: what stands in which option, and what is read from it.
//
//   probe     NON GET  /.well-known/core?rt=TYPE   multicast; asks which nodes offer TYPE
//   answer    NON 2.05 the link of one node        unicast, with the probe's token
//   hello     NON POST /lumora/hello               multicast; the link of the sender
//   goodbye   NON POST /lumora/goodbye             multicast; the link of the sender
//   ping      CON GET  /.well-known/core           unicast; asks for the link of one node
//   request   CON any  /lumora?KEY                 unicast; the payload is the value
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "platform/link/wire/coap_message.h"
#include "platform/link/wire/types.h"

namespace lumora_link {

extern const char* const RESOURCE_PATH;    // the resource that a node offers
extern const char* const HELLO_PATH;       // for hellos of other nodes
extern const char* const GOODBYE_PATH;     // for their goodbyes
extern const char* const WELL_KNOWN_PATH;  // for its own description

// Tells the served node which node asks and which of its requests are still open. See RequestTable.
struct Requester {
    NodeIdentity identity;
    std::uint16_t port = 0;         // of the asking node's own endpoint, not of this datagram
    std::uint32_t sequence = 0;     // counts this node's messages
    std::uint32_t oldestOpen = 0;   // every earlier one has ended
    std::uint32_t firstOfBody = 0;  // the message with the first block of this request's body
    // Known to this client and this device only. Ids are in every hello: without the secret, any host could
    // number messages in the name of another client. 0 in messages of older nodes, which send none.
    std::uint64_t secret = 0;
};
std::string EncodeRequester(const Requester& requester);
std::optional<Requester> DecodeRequester(const CoapMessage& message);

// Block1 of RFC 7959.
struct Block {
    std::uint32_t number = 0;
    bool more = false;
    unsigned sizeExponent = 0;
};
std::string EncodeBlock(const Block& block);
std::optional<Block> FindBlock(const CoapMessage& message);

// A part of a node's id. The asker names the nodes that it has found by it, to save bytes.
using NodeHint = std::uint32_t;
NodeHint HintOf(std::uint64_t nodeId);

// Keeps a probe within one Ethernet frame.
constexpr std::size_t MAX_KNOWN_NODES = 250;
CoapMessage MakeProbe(const std::string& deviceType, const std::string& token,
                      const std::vector<NodeHint>& known);
std::set<NodeHint> KnownNodes(const CoapMessage& probe);
// Whether a node with that device type is asked for by this GET of /.well-known/core.
bool IsAskedFor(const CoapMessage& probe, const std::optional<std::string>& deviceType);
// False if nodes of other types are asked for too.
bool IsAskedForExactly(const CoapMessage& probe, const std::string& deviceType);

// A node that has just started looks round. It needs the answers of a few nodes only. Older nodes pass over
// the option.
void MarkAsLookRound(CoapMessage& probe);
bool IsLookRound(const CoapMessage& probe);

CoapMessage MakeLinkAnswer(const CoapMessage& request, const std::string& link);
// How many nodes of the type asked for the sender of an answer knows, itself included. Only nodes that have
// been there for a while, or have looked round, tell it. Older nodes pass over the option.
void AddCount(CoapMessage& answer, std::size_t count);
std::optional<std::uint32_t> CountIn(const CoapMessage& answer);

CoapMessage MakeNotice(const char* path, const std::string& link);
CoapMessage MakePing();

// A key of any bytes is cut into Uri-Query options, which carry at most 255 each.
void AddKey(CoapMessage& message, const std::string& key);
std::string KeyOf(const CoapMessage& message);
std::string PathOf(const CoapMessage& message);

}  // namespace lumora_link
