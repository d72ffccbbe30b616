#include "tests/support/system_faults.h"

#include <fcntl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>

namespace lumora_test {

namespace {

constexpr std::size_t NO_LIMIT = ~std::size_t{0};
constexpr std::size_t LARGE = 65536;

struct Fault {
    std::atomic<int> error{0};
    std::atomic<int> times{0};
    std::atomic<int> passBefore{0};
    std::atomic<int> calls{0};
    std::atomic<int> failInTurn{0};
    std::atomic<int> passInTurn{0};
    std::atomic<int> turns{0};
    std::atomic<std::size_t> transferLimit{NO_LIMIT};
    std::atomic<bool> hooked{false};
    std::function<void()> hook;
};

Fault g_faults[static_cast<int>(SystemCall::COUNT)];
std::atomic<int> g_number{0};
std::atomic<int> g_numberTimes{0};
std::atomic<int> g_numberPassBefore{0};
std::atomic<bool> g_ignoreReceiveTimeouts{false};
std::atomic<int> g_readsBegun{0};
std::mutex g_readMutex;
std::deque<std::string> g_reads;
std::atomic<std::size_t> g_failingSize{NO_LIMIT};
std::atomic<int> g_largeBeforeFailure{0};
std::atomic<int> g_largeFailures{0};
std::atomic<int> g_largeAllocations{0};

thread_local int t_systemFaultsPaused = 0;

bool TakeOne(std::atomic<int>& counter) {
    int left = counter;
    while (left != 0 && left != ALWAYS && !counter.compare_exchange_weak(left, left - 1)) {
    }
    return left != 0;
}

// Whether this call fails; errno is set then.
bool FailsNow(SystemCall call) {
    if (t_systemFaultsPaused != 0) {
        return false;
    }
    Fault& fault = g_faults[static_cast<int>(call)];
    ++fault.calls;
    if (fault.hooked) {
        fault.hook();
    }
    const int failInTurn = fault.failInTurn;
    if (failInTurn != 0) {
        if (fault.turns++ % (failInTurn + fault.passInTurn) >= failInTurn) {
            return false;
        }
    } else if (TakeOne(fault.passBefore) || !TakeOne(fault.times)) {
        return false;
    }
    errno = fault.error;
    return true;
}

int Renumbered(int fd) {
    if (t_systemFaultsPaused != 0 || fd < 0 || fd == g_number || TakeOne(g_numberPassBefore) ||
        !TakeOne(g_numberTimes)) {
        return fd;
    }
    const int moved = dup2(fd, g_number);
    close(fd);
    return moved;
}

thread_local int t_allocationsUntilFailure = 0;
thread_local int t_allocationFailures = 0;
thread_local int t_allocationFaultsPaused = 0;

std::size_t Limited(SystemCall call, std::size_t size) {
    return t_systemFaultsPaused != 0
               ? size
               : std::min<std::size_t>(size, g_faults[static_cast<int>(call)].transferLimit);
}

// False with errno when a read of the socket would fail. Whatever is no socket needs no waiting.
bool WaitForData(int fd) {
    const int before = errno;
    char first = 0;
    if (recv(fd, &first, sizeof(first), MSG_PEEK) >= 0 || errno == ENOTSOCK) {
        errno = before;
        return true;
    }
    return false;
}

// At most size bytes; the rest of the piece is left for the next read. isWhole tells whether nothing is left
// of it.
bool TakeFedRead(std::string& piece, std::size_t size, bool& isWhole) {
    const AllocationFaultsPaused paused;
    const std::lock_guard<std::mutex> lock(g_readMutex);
    if (g_reads.empty()) {
        return false;
    }
    std::string& front = g_reads.front();
    piece = front.substr(0, size);
    front.erase(0, piece.size());
    isWhole = front.empty();
    if (isWhole) {
        g_reads.pop_front();
    }
    return true;
}

bool LargeAllocationFailsNow(std::size_t size) {
    if (t_allocationFaultsPaused != 0) {
        return false;
    }
    g_largeAllocations += size >= LARGE ? 1 : 0;
    return size >= g_failingSize && !TakeOne(g_largeBeforeFailure) && TakeOne(g_largeFailures);
}

bool AllocationFailsNow() {
    if (t_allocationFaultsPaused != 0 || t_allocationFailures == 0 || --t_allocationsUntilFailure > 0) {
        return false;
    }
    t_allocationsUntilFailure = 1;
    if (t_allocationFailures != ALWAYS) {
        --t_allocationFailures;
    }
    return true;
}

}  // namespace

void FailSystemCall(SystemCall call, int error, int times, int passBefore) {
    Fault& fault = g_faults[static_cast<int>(call)];
    fault.error = error;
    fault.passBefore = passBefore;
    fault.times = times;
}

void FailSystemCallInTurns(SystemCall call, int error, int fail, int pass) {
    Fault& fault = g_faults[static_cast<int>(call)];
    fault.error = error;
    fault.turns = 0;
    fault.passInTurn = pass;
    fault.failInTurn = fail;
}

void GiveDescriptorNumber(int number, int times, int passBefore) {
    g_number = number;
    g_numberPassBefore = passBefore;
    g_numberTimes = times;
}

void LimitTransfer(SystemCall call, std::size_t bytes) {
    g_faults[static_cast<int>(call)].transferLimit = bytes;
}

void FeedReads(std::vector<std::string> pieces) {
    const std::lock_guard<std::mutex> lock(g_readMutex);
    g_reads.assign(pieces.begin(), pieces.end());
}

void IgnoreReceiveTimeouts() { g_ignoreReceiveTimeouts = true; }

void BeforeSystemCall(SystemCall call, std::function<void()> hook) {
    Fault& fault = g_faults[static_cast<int>(call)];
    fault.hooked = false;
    fault.hook = std::move(hook);
    fault.hooked = true;
}

int SystemCallCount(SystemCall call) { return g_faults[static_cast<int>(call)].calls; }

int ReadsBegun() { return g_readsBegun; }

void ResetSystemFaults() {
    for (Fault& fault : g_faults) {
        fault.times = 0;
        fault.passBefore = 0;
        fault.calls = 0;
        fault.hooked = false;
        fault.failInTurn = 0;
        fault.transferLimit = NO_LIMIT;
    }
    g_readsBegun = 0;
    g_numberTimes = 0;
    g_numberPassBefore = 0;
    g_ignoreReceiveTimeouts = false;
    FeedReads({});
}

SystemFaultsPaused::SystemFaultsPaused() { ++t_systemFaultsPaused; }
SystemFaultsPaused::~SystemFaultsPaused() { --t_systemFaultsPaused; }

void FailAllocation(int n, int times) {
    t_allocationsUntilFailure = n;
    t_allocationFailures = times;
}

void ResetAllocationFaults() {
    t_allocationFailures = 0;
    g_largeFailures = 0;
    g_failingSize = NO_LIMIT;
    g_largeAllocations = 0;
}

void FailLargeAllocation(std::size_t atLeast, int n, int times) {
    g_largeBeforeFailure = n - 1;
    g_largeFailures = times;
    g_failingSize = atLeast;
}

int LargeAllocationCount() { return g_largeAllocations; }

bool AllocationFailurePending() { return t_allocationFailures != 0; }

AllocationFaultsPaused::AllocationFaultsPaused() { ++t_allocationFaultsPaused; }
AllocationFaultsPaused::~AllocationFaultsPaused() { --t_allocationFaultsPaused; }

}  // namespace lumora_test

using lumora_test::FailsNow;
using lumora_test::SystemCall;

namespace {

// The first bytes of what message holds, as many as one call may move.
std::string LimitedText(const msghdr& message) {
    std::string text;
    for (std::size_t i = 0; i < message.msg_iovlen; ++i) {
        text.append(static_cast<const char*>(message.msg_iov[i].iov_base), message.msg_iov[i].iov_len);
    }
    text.resize(lumora_test::Limited(SystemCall::SEND, text.size()));
    return text;
}

}  // namespace

// The linker gives every call of f to __wrap_f, and the real f the name __real_f.
extern "C" {

int __real_socket(int, int, int);
int __wrap_socket(int domain, int type, int protocol) {
    return FailsNow(SystemCall::SOCKET) ? -1 : lumora_test::Renumbered(__real_socket(domain, type, protocol));
}

int __real_setsockopt(int, int, int, const void*, socklen_t);
int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t size) {
    if (FailsNow(SystemCall::SETSOCKOPT)) {
        return -1;
    }
    const bool ignored = level == SOL_SOCKET && name == SO_RCVTIMEO && lumora_test::g_ignoreReceiveTimeouts &&
                         lumora_test::t_systemFaultsPaused == 0;
    return ignored ? 0 : __real_setsockopt(fd, level, name, value, size);
}

int __real_bind(int, const sockaddr*, socklen_t);
int __wrap_bind(int fd, const sockaddr* address, socklen_t size) {
    return FailsNow(SystemCall::BIND) ? -1 : __real_bind(fd, address, size);
}

int __real_listen(int, int);
int __wrap_listen(int fd, int backlog) {
    return FailsNow(SystemCall::LISTEN) ? -1 : __real_listen(fd, backlog);
}

int __real_accept4(int, sockaddr*, socklen_t*, int);
int __wrap_accept4(int fd, sockaddr* address, socklen_t* size, int flags) {
    return FailsNow(SystemCall::ACCEPT4) ? -1
                                         : lumora_test::Renumbered(__real_accept4(fd, address, size, flags));
}

int __real_connect(int, const sockaddr*, socklen_t);
int __wrap_connect(int fd, const sockaddr* address, socklen_t size) {
    return FailsNow(SystemCall::CONNECT) ? -1 : __real_connect(fd, address, size);
}

int __real_select(int, fd_set*, fd_set*, fd_set*, timeval*);
int __wrap_select(int count, fd_set* readable, fd_set* writable, fd_set* failed, timeval* timeout) {
    timeval* const limit = lumora_test::g_ignoreReceiveTimeouts ? nullptr : timeout;
    return FailsNow(SystemCall::SELECT) ? -1 : __real_select(count, readable, writable, failed, limit);
}

ssize_t __real_read(int, void*, size_t);
ssize_t __wrap_read(int fd, void* buffer, size_t size) {
    lumora_test::g_readsBegun += lumora_test::t_systemFaultsPaused == 0 ? 1 : 0;
    if (!lumora_test::WaitForData(fd) || FailsNow(SystemCall::READ)) {
        return -1;
    }
    std::string piece;
    bool isWhole = false;
    char triggered = 0;
    if (!lumora_test::TakeFedRead(piece, size, isWhole) || (isWhole && __real_read(fd, &triggered, 1) != 1)) {
        return __real_read(fd, buffer, lumora_test::Limited(SystemCall::READ, size));
    }
    std::memcpy(buffer, piece.data(), piece.size());
    return static_cast<ssize_t>(piece.size());
}

ssize_t __real_send(int, const void*, size_t, int);
ssize_t __wrap_send(int fd, const void* data, size_t size, int flags) {
    return FailsNow(SystemCall::SEND)
               ? -1
               : __real_send(fd, data, lumora_test::Limited(SystemCall::SEND, size), flags);
}

// A send of several pieces.
ssize_t __wrap_sendmsg(int fd, const msghdr* message, int flags) {
    if (FailsNow(SystemCall::SEND)) {
        return -1;
    }
    const lumora_test::AllocationFaultsPaused paused;
    const std::string text = LimitedText(*message);
    return __real_send(fd, text.data(), text.size(), flags);
}

void* __real_malloc(size_t);
void* __wrap_malloc(size_t size) { return FailsNow(SystemCall::MALLOC) ? nullptr : __real_malloc(size); }

}  // extern "C"

// Replacements for the whole test program: allocation by operator new can be made to fail.
static bool AllocationFails(std::size_t size) {
    return lumora_test::AllocationFailsNow() || lumora_test::LargeAllocationFailsNow(size);
}
void* operator new(std::size_t size) {
    void* memory = AllocationFails(size) ? nullptr : std::malloc(size != 0 ? size : 1);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return AllocationFails(size) ? nullptr : std::malloc(size != 0 ? size : 1);
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept { return operator new(size, tag); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
