// libcoap opens its descriptors without close-on-exec and tells none but its epoll's. The system tells
// what that one watches.
#pragma once

#include "platform/link/wire/types.h"

namespace lumora_link {

// For the epoll itself, and everything that it watches now. Where /proc is missing, for the epoll only.
void CloseOnExec(int epoll);

// The same for one new socket, without the long way through /proc: the number that the system gives out
// next, and whether what has it afterwards is the socket that is connected there. It is another's where
// another thread was faster.
int NextDescriptor(int any);
bool CloseOnExecIfConnected(int socket, const Endpoint& to);

// Whether so many more can be had. If not, errno tells why.
bool DescriptorsAreLeft(std::size_t count);

}  // namespace lumora_link
