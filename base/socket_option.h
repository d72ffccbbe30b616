// One way to set an option of a socket.
#pragma once

#include <sys/socket.h>

namespace lumora {

// False, with errno, if the kernel refuses the option.
template <typename Value>
bool SetSocketOption(int socket, int level, int option, const Value& value) {
    return setsockopt(socket, level, option, &value, sizeof(value)) == 0;
}

}  // namespace lumora
