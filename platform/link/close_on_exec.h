// libcoap opens its descriptors without close-on-exec and tells none but its epoll's. The system tells
// what that one watches.
#pragma once

namespace lumora_link {

// For the epoll itself, and everything that it watches now. Where /proc is missing, for the epoll only.
void CloseOnExec(int epoll);

}  // namespace lumora_link
