// Calls the handlers of a registered resource.
#pragma once

#include "platform/link/capi/node.h"

namespace lumora_link {

// On the application's thread: the handler's result as an answer.
Outcome CallHandler(const Registration& registration, const HandlerCall& call);
void CallDeviceEvent(const Registration& registration, const DeviceEvent& event);

}  // namespace lumora_link
