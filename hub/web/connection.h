// A connection to the web face, as the service thread keeps it.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "hub/core/quota.h"
#include "hub/web/flow.h"
#include "hub/web/request.h"
#include "hub/web/site.h"

struct lws;

namespace lumora_hub::web {

struct Connection {
    using Clock = std::chrono::steady_clock;

    enum class Phase {
        HEAD,     // the head of a request is awaited
        BODY,     // its body is received
        WAITING,  // for the hub
        REPLY,    // is sent
        STREAM,   // is sent, without an end
        DRAIN     // refused before its body came: the body is read, and the connection closed
    };

    std::uint64_t number = 0;
    lws* wsi = nullptr;
    std::string address;  // of the peer
    Quota::Share share;   // of the connections that an address may have
    Phase phase = Phase::HEAD;
    Clock::time_point deadline;  // the connection is closed then; each phase has its own

    Request request;
    std::string body;
    std::size_t bodyBytes = 0;  // announced
    Quota::Share bodyShare;
    std::size_t drained = 0;
    bool isWebSocket = false;
    bool waitsForRoom = false;   // in the socket's buffer
    std::optional<Reply> reply;  // whose head was not sent yet
    std::unique_ptr<Flow> flow;
};

}  // namespace lumora_hub::web
