// libcoap opens its descriptors without close-on-exec, and it only reveals its epoll descriptor. /proc lists
// the descriptors that this epoll watches.
#pragma once

#include "platform/link/wire/types.h"

namespace lumora_link {

// Sets close-on-exec for the epoll and for each descriptor that it watches now. Without /proc, for the epoll
// only.
void CloseOnExec(int epoll);

// The same for one new socket, without reading /proc. NextDescriptor returns the number that the kernel gives
// out next; any is an open descriptor. Another thread may take that number first, so CloseOnExecIfConnected
// checks that the descriptor is a socket connected to that endpoint, and returns false if it is not.
int NextDescriptor(int any);
bool CloseOnExecIfConnected(int socket, const Endpoint& to);
// The same check for a socket that listens.
bool IsBoundTo(int socket, const Endpoint& endpoint);

// Whether the process can open so many more descriptors. If not, errno tells why.
bool DescriptorsAreLeft(std::size_t count);

}  // namespace lumora_link
