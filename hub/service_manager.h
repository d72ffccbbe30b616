// What a service manager is told.
#pragma once

namespace lumora_hub {

// Sends a line such as "READY=1" to $NOTIFY_SOCKET. Does nothing if there is none.
void TellServiceManager(const char* state);

// Before the end of a program that cannot start. A service manager starts it again at once, because it must
// do so after a crash: it is told the reason, and this waits ten seconds or for a signal that ends the
// program. Returns at once if there is no service manager.
void DelayNextStart(const char* reason);

}  // namespace lumora_hub
