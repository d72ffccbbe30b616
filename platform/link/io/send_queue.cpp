#include "platform/link/io/send_queue.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace lumora_link {

bool IsHalfFull(int socket) {
    int held = 0;
    int most = 0;
    socklen_t size = sizeof most;
    return ioctl(socket, SIOCOUTQ, &held) == 0 &&
           getsockopt(socket, SOL_SOCKET, SO_SNDBUF, &most, &size) == 0 && held >= most / 2;
}

}  // namespace lumora_link
