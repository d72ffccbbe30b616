// The interfaces by which a node's protocol logic reaches the network, the application and the random
// numbers. Tests implement them with a network in the process and a clock of their own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/link/wire/coap_message.h"
#include "platform/link/wire/types.h"

namespace lumora_link {

// One conversation with one peer: its datagrams leave from one socket, which hears the answers.
using ConversationId = std::uint64_t;
// Identifies the sender of one request for the reply.
using ReplyPath = std::uint64_t;

class Network {
public:
    virtual ~Network() = default;

    // From the interface's own socket, to the group or to one node.
    virtual void Send(const LocalInterface& via, const Endpoint& to, const CoapMessage& message) = 0;

    // How long no copy of a request may go without an acknowledgement before NodeCore::OnUnacknowledged is
    // told. Without a key only; nothing is told of pings.
    static constexpr Milliseconds UNACKNOWLEDGED{3700};

    // Opens the conversation when it is new. A request may leave once more than it was given, with the same
    // id.
    virtual void Transmit(ConversationId conversation, const Endpoint& to, const CoapMessage& message) = 0;
    virtual void CloseConversation(ConversationId conversation) = 0;
    // The node at that endpoint was removed. State kept for it must not be used for another node.
    virtual void OnPeerGone(const Endpoint& endpoint) = 0;

    // Confirmable replies are repeated until they are acknowledged.
    virtual void Reply(ReplyPath path, const CoapMessage& message) = 0;
    virtual void Forget(ReplyPath path) = 0;

    // Whether much of what Send and Reply were given waits in the host. More of it would hold up all that
    // follows.
    virtual bool IsClogged() const = 0;
};

struct Outcome {
    std::uint8_t code = code::EMPTY;  // stays empty if no answer came
    std::string payload;
};

// A request for the application's handlers.
struct HandlerCall {
    std::uint64_t ticket = 0;
    std::uint8_t method = code::EMPTY;
    Endpoint requester;
    bool sameHost = false;  // the requester runs on this node's host
    std::string key;
    std::string value;
    std::string identity;  // of the requester's key; empty if it proved none
    // Which node it is. Holders of the key on one host could take each other's place, and no others.
    struct Node {
        in_addr_t host = 0;
        std::uint64_t id = 0;  // of a foreign program the port
        std::uint32_t instance = 0;
    } node;
};

struct DeviceEvent {
    bool added = false;
    unsigned number = 0;  // the same for every event of one appearance
    NodeDescription node;
};

class Application {
public:
    virtual ~Application() = default;

    // All are called on the I/O thread and must only queue. Handle returns false if the queue is full.
    virtual bool Handle(HandlerCall call) = 0;
    virtual void Notify(DeviceEvent event) = 0;
    virtual void RequestEnded(std::uint64_t ticket, Outcome outcome) = 0;
    virtual void SearchEnded(std::uint64_t ticket, std::vector<NodeDescription> found) = 0;
};

// Numbers that must differ from those of other nodes and earlier starts.
class RandomSource {
public:
    virtual ~RandomSource() = default;
    virtual std::uint64_t Next() = 0;
};

}  // namespace lumora_link
