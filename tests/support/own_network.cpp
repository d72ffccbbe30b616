#include "tests/support/own_network.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace lumora_test {

namespace {

bool BringLoopbackUp() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request = {};
    std::strncpy(request.ifr_name, "lo", sizeof(request.ifr_name) - 1);
    request.ifr_flags = IFF_UP | IFF_RUNNING | IFF_MULTICAST | IFF_LOOPBACK;
    const bool up = fd >= 0 && ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    if (fd >= 0) {
        close(fd);
    }
    return up;
}

// The lock is released when the process ends.
void WaitForSharedNetwork() {
    const char* folder = std::getenv("TMPDIR");
    const std::string path = std::string(folder != nullptr ? folder : "/tmp") + "/lumora-test-ports.lock";
    const int fd = open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0666);
    if (fd < 0 || flock(fd, LOCK_EX) != 0) {
        std::fprintf(stderr, "cannot lock %s: tests on fixed ports may disturb each other\n", path.c_str());
    }
}

}  // namespace

void EnterOwnNetwork() {
    const bool isolated = unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0;
    if (!isolated || !BringLoopbackUp()) {
        WaitForSharedNetwork();
    }
}

}  // namespace lumora_test
