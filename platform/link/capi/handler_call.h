// Calls the handlers of a registered resource.
#pragma once

#include "platform/link/capi/node.h"

namespace lumora_link {

// Calls the handler for the request and turns its result into an answer. Runs on the node's handler thread;
// blocks as long as the handler does.
Outcome CallHandler(const Registration& registration, const HandlerCall& call);
void CallDeviceEvent(const Registration& registration, const DeviceEvent& event);

}  // namespace lumora_link
