#include "tests/transport/tcp_fixture.h"

#include <dirent.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>

#include "tests/support/fake_securec.h"

namespace lumora_test {

std::set<int> OpenDescriptors() {
    std::set<int> descriptors;
    DIR* const folder = opendir("/proc/self/fd");
    while (const dirent* entry = readdir(folder)) {
        if (entry->d_name[0] != '.') {
            descriptors.insert(std::atoi(entry->d_name));
        }
    }
    descriptors.erase(dirfd(folder));
    closedir(folder);
    return descriptors;
}

std::set<int> OpenSockets() {
    std::set<int> sockets;
    for (const int fd : OpenDescriptors()) {
        struct stat status = {};
        if (fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode)) {
            sockets.insert(fd);
        }
    }
    return sockets;
}

void ForgetAllFaults() {
    ResetSystemFaults();
    ResetAllocationFaults();
    ResetBoundedCalls();
}

void WithinSeconds(const std::function<void()>& action) {
    std::future<void> done = std::async(std::launch::async, action);
    if (done.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
        std::fprintf(stderr, "this never ends\n");
        std::abort();
    }
    done.get();
}

}  // namespace lumora_test
