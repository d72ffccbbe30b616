// The addresses that the web face answers, as a table.
#pragma once

#include <string>
#include <vector>

#include "hub/web/request.h"

namespace lumora_hub::web {

enum class Action {
    PAGE,  // a file of the page
    LOGIN,
    LOGOUT,
    HEALTH,
    METRICS,
    DESCRIPTION,
    DEVICES,
    DEVICE,
    DEVICE_EVENTS,
    COMMAND,
    DATA,
    LATEST,
    BLOCK_EVENTS,
    BLOCK_STREAM
};

struct Route {
    Method method;
    const char* pattern;  // {device} and {service} stand for a name
    Action action;
    bool isOpen;          // needs no token
    bool mayBeWebSocket;  // answers a WebSocket, too
    bool mustBeWebSocket;
};

const std::vector<Route>& Routes();

struct Match {
    const Route* route = nullptr;  // null if there is none of this path and method
    bool hasPath = false;          // there is one of this path with another method
    std::string device;
    std::string service;
};

// path has been decoded once. A name in it is decoded once more, so that a name may hold what a path cannot:
// "/" is written as %252F.
Match FindRoute(Method method, const std::string& path);

}  // namespace lumora_hub::web
