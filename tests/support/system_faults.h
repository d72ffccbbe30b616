// System calls of the code under test that fail on demand. The tests are linked with --wrap for each of
// them, so the calls of the whole program are caught; only those of the raw peers are left alone.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace lumora_test {

enum class SystemCall {
    SOCKET,
    SETSOCKOPT,
    BIND,
    LISTEN,
    ACCEPT4,
    CONNECT,
    SELECT,
    READ,
    SEND,  // sendmsg as well
    MALLOC,
    COUNT
};

constexpr int ALWAYS = -1;

// Makes the next so many calls of any thread fail with this errno, after letting some pass. A read of a
// socket first waits for data as the socket would, and is judged and counted when it would return.
void FailSystemCall(SystemCall call, int error, int times = 1, int passBefore = 0);
// Makes fail calls fail with this errno, lets pass calls pass, and so on in turns.
void FailSystemCallInTurns(SystemCall call, int error, int fail, int pass);
// The next so many calls that make a descriptor give it this number, if it is free, after letting some
// pass.
void GiveDescriptorNumber(int number, int times = 1, int passBefore = 0);
// No single READ or SEND moves more bytes than this.
void LimitTransfer(SystemCall call, std::size_t bytes);
// The next reads return these pieces, one each, so that a test knows where the stream is cut. A read that
// asks for less gets the beginning of its piece, and the next read the rest. Each piece takes one byte out of
// the connection: the peer has to send one for every piece.
void FeedReads(std::vector<std::string> pieces);
// Lets select, and the reads of sockets that are made from now on, wait for data alone: who is not woken by
// their descriptor waits for ever.
void IgnoreReceiveTimeouts();
// Calls hook before every such call, on the thread that makes it: so a test can hold a thread at a known
// place. Set it while no thread makes such calls.
void BeforeSystemCall(SystemCall call, std::function<void()> hook);
// How often a call was made since the reset.
int SystemCallCount(SystemCall call);
// How many reads have begun since the reset: one more than were made, while one waits.
int ReadsBegun();
void ResetSystemFaults();

// While one lives, the calls of this thread neither fail nor count: peers of the code under test wrap theirs.
class SystemFaultsPaused {
public:
    SystemFaultsPaused();
    ~SystemFaultsPaused();
    SystemFaultsPaused(const SystemFaultsPaused&) = delete;
    SystemFaultsPaused& operator=(const SystemFaultsPaused&) = delete;
};

// Makes the n-th allocation by operator new from now on (1 is the next) of this thread fail, once, and all of
// them with times ALWAYS. Nothrow allocations give null, others throw std::bad_alloc.
void FailAllocation(int n = 1, int times = 1);
void ResetAllocationFaults();
// The same for allocations of at least so many bytes, of any thread.
void FailLargeAllocation(std::size_t atLeast, int n = 1, int times = 1);
// How many allocations of at least 64 KiB any thread made since the reset.
int LargeAllocationCount();
// Whether the failure that this thread asked for is still to come.
bool AllocationFailurePending();

// While one lives, the allocations of this thread neither fail nor count: fakes wrap their own in it.
class AllocationFaultsPaused {
public:
    AllocationFaultsPaused();
    ~AllocationFaultsPaused();
    AllocationFaultsPaused(const AllocationFaultsPaused&) = delete;
    AllocationFaultsPaused& operator=(const AllocationFaultsPaused&) = delete;
};

}  // namespace lumora_test
