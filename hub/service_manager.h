// What a service manager is told.
#pragma once

namespace lumora_hub {

// Sends a line such as "READY=1" to $NOTIFY_SOCKET. Does nothing if there is none.
void TellServiceManager(const char* state);

}  // namespace lumora_hub
