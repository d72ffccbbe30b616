// What the machine does to processes of either side: they are halted, are killed in the middle of a call, and
// run out of descriptors, memory and threads. The examples, as processes over our link platform.
#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "process.h"
#include "tests/support/eventually.h"

namespace lumora_test {
namespace {

using testing::AnyOf;

constexpr int KILLED = 128 + SIGKILL;

const std::string READY = "ready";

// Runs the shell's command first, in the same process.
std::vector<std::string> After(const std::string& command, const std::string& program,
                               const std::string& arguments = "") {
    return {"/bin/sh", "-c", command + "; exec " + program + " " + arguments};
}

// How often what can be repeated for long is repeated.
int Rounds(int usual) {
    const char* const rounds = std::getenv("LUMORA_FAULT_ROUNDS");
    return rounds != nullptr ? std::atoi(rounds) : usual;
}

bool EchoComes(const std::string& text) {
    Process client({CLIENT_PROGRAM, text});
    return client.WaitForEnd() == 0 && client.Output() == "echo: " + text + "\n";
}

bool EndsCleanly(Process& device) {
    device.Signal(SIGTERM);
    return device.WaitForEnd() == 0;
}

// ---- Halted ----

// The kernel ends a wait for data with EINTR when its process goes on.
TEST(HaltedTest, ConnectionOutlastsThatEitherSideIsHalted) {
    Process device({DEVICE_PROGRAM});
    device.WaitForLine(READY);
    Process client({LASTING_CLIENT_PROGRAM});
    client.WriteLine("connect");
    EXPECT_EQ("connect done", client.WaitForLine("connect"));
    for (Process* halted : {&device, &client}) {
        client.WriteLine("before");
        EXPECT_EQ("echo: before", client.WaitForLine("echo: "));
        halted->Halt();
        halted->Signal(SIGCONT);
        client.WriteLine("after");
        EXPECT_EQ("echo: after", client.WaitForLine("echo: "));
    }
}

// ---- Killed at each step ----

// What a client does until data flows, and then.
const std::vector<std::string> STEPS = {"find", "open", "subscribe", "text"};

class KilledAtTest : public testing::TestWithParam<std::size_t> {
protected:
    static std::string Step() { return STEPS[GetParam()]; }

    // A client that has gone all the way to the step, which follows.
    static void GoUpToStep(Process& client) {
        for (std::size_t i = 0; i < GetParam(); ++i) {
            client.WriteLine(STEPS[i]);
            ASSERT_EQ(STEPS[i] + " done", client.WaitForLine(STEPS[i]));
        }
    }
    // The device is stopped meanwhile, so the call does not come to its end.
    static void BeginStep(Process& client, Process& device) {
        device.Halt();
        client.WriteLine(Step());
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
};

TEST_P(KilledAtTest, ClientLeavesItsDeviceToTheNext) {
    Process device({DEVICE_PROGRAM});
    device.WaitForLine(READY);
    for (int round = 1; round <= 2; ++round) {
        {
            Process client({LASTING_CLIENT_PROGRAM});
            ASSERT_NO_FATAL_FAILURE(GoUpToStep(client));
            BeginStep(client, device);
            client.Signal(SIGKILL);
            EXPECT_EQ(KILLED, client.WaitForEnd());
        }
        device.Signal(SIGCONT);
        // The next one may meet what the device still does for the one before.
        EXPECT_TRUE(EchoComes("next") || EchoComes("the one after"));
    }
    EXPECT_TRUE(EndsCleanly(device));
}

TEST_P(KilledAtTest, DeviceLeavesItsClientToTheNext) {
    Process client({LASTING_CLIENT_PROGRAM});
    for (int round = 1; round <= 2; ++round) {
        {
            Process device({DEVICE_PROGRAM});
            device.WaitForLine(READY);
            client.WaitForLog("Remote Device Notify : add device");
            ASSERT_NO_FATAL_FAILURE(GoUpToStep(client));
            BeginStep(client, device);
            device.Signal(SIGKILL);
            EXPECT_EQ(KILLED, device.WaitForEnd());
        }
        // The call comes to an end, whichever.
        client.WaitForLine(Step() + " ");
        client.WaitForLog("Remote Device Notify : remove device");
    }
    Process device({DEVICE_PROGRAM});
    device.WaitForLine(READY);
    client.WriteLine("connect");
    EXPECT_EQ("connect done", client.WaitForLine("connect"));
    client.WriteLine("hello");
    EXPECT_EQ("echo: hello", client.WaitForLine("echo: "));
    client.CloseInput();
    EXPECT_EQ(0, client.WaitForEnd());
    EXPECT_TRUE(EndsCleanly(device));
}

INSTANTIATE_TEST_SUITE_P(Step, KilledAtTest, testing::Range<std::size_t>(0, 4),
                         [](const auto& step) { return STEPS[step.param]; });

TEST(KilledTest, DeviceServesOneClientAfterTheOther) {
    Process device({DEVICE_PROGRAM});
    device.WaitForLine(READY);
    for (int round = Rounds(10); round > 0; --round) {
        Process client({LASTING_CLIENT_PROGRAM});
        client.WriteLine("connect");
        // Anywhere in the call, or soon after it.
        std::this_thread::sleep_for(std::chrono::milliseconds(37 * round % 400));
        client.Signal(SIGKILL);
        EXPECT_EQ(KILLED, client.WaitForEnd());
    }
    EXPECT_TRUE(EchoComes("next") || EchoComes("the one after"));
    EXPECT_TRUE(EndsCleanly(device));
}

// ---- Exhausted ----

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;  // these need memory, descriptors and an allocator of their own
#else
constexpr bool SANITIZED = false;
#endif

// A process under a limit of the shell: it may fail, but it ends in order.
class ExhaustedTest : public testing::Test {
protected:
    void SetUp() override {
        if (SANITIZED) {
            GTEST_SKIP() << "sanitizers fail themselves";
        }
    }

    void ExpectClientEnds(const std::string& limit) {
        Process device({DEVICE_PROGRAM});
        device.WaitForLine(READY);
        Process client(After(limit, CLIENT_PROGRAM, "hello"));
        EXPECT_THAT(client.WaitForEnd(), ENDS_IN_ORDER) << limit;
        EXPECT_TRUE(EchoComes("the next"));
        EXPECT_TRUE(EndsCleanly(device));
    }
    void ExpectDeviceEnds(const std::string& limit) {
        Process device(After(limit, "timeout --preserve-status 1", DEVICE_PROGRAM));
        Process({CLIENT_PROGRAM}).WaitForEnd();
        EXPECT_THAT(device.WaitForEnd(), ENDS_IN_ORDER) << limit;
    }
    void ExpectBothEnd(const std::string& limit) {
        ExpectClientEnds(limit);
        ExpectDeviceEnds(limit);
    }

    // 127: not even loaded.
    const testing::Matcher<int> ENDS_IN_ORDER = AnyOf(0, 1, 127);
};

TEST_F(ExhaustedTest, Descriptors) {
    for (const int most : {5, 9, 13, 17}) {
        ExpectBothEnd("ulimit -n " + std::to_string(most));
    }
}

TEST_F(ExhaustedTest, Memory) {
    for (const int kilobytes : {16000, 36000, 40000, 45000}) {
        ExpectBothEnd("ulimit -v " + std::to_string(kilobytes));
    }
}

// Each gets a stack as large as the limit: none, one, two ... are to be had.
TEST_F(ExhaustedTest, Threads) {
    constexpr int STACK = 1000000;
    for (const int stacks : {0, 1, 2, 3, 4}) {
        ExpectBothEnd("ulimit -s " + std::to_string(STACK) + "; ulimit -v " +
                      std::to_string(STACK * stacks + STACK / 2));
    }
}

// libcoap 4.3.1 over OpenSSL uses an object that OpenSSL could not allocate, when a node starts. OpenSSL
// makes it with four allocations. Nothing of ours can keep the process from ending there.
constexpr int CRASHES_OF_LIBCOAP = LIBCOAP_HAS_OPENSSL ? 4 : 0;
// Between its first and its last allocations a process makes those of OpenSSL's start, if it has OpenSSL:
// about 9,000 of one kind. Of them a sample will do.
constexpr long FIRST_ONES = 400;
constexpr long LAST_ONES = 800;
constexpr long SAMPLE = 25;

// A process whose allocation of this number fails; none for 0.
class ForgetfulProcess : public Process {
public:
    ForgetfulProcess(const std::string& program, long failing) : Process(Prepare(program, failing)) {
        unsetenv("LD_PRELOAD");
        unsetenv("FAIL_ALLOCATION");
    }

    // 255: libcoap ends the process itself if a table of its own finds no memory.
    void ExpectEnd(long failing, int& crashesOfLibcoap) {
        const int exitCode = WaitForEnd();
        if (exitCode == 128 + SIGSEGV && CRASHES_OF_LIBCOAP > 0) {
            ++crashesOfLibcoap;
            return;
        }
        EXPECT_THAT(exitCode, AnyOf(0, 1, 255)) << failing;
    }

    // Known at its end, 0 if that came too early.
    long Allocations() const {
        const std::string mark = "allocations: ";
        const std::size_t at = Errors().rfind(mark);
        return at == std::string::npos ? 0 : std::atol(Errors().c_str() + at + mark.size());
    }

private:
    static std::vector<std::string> Prepare(const std::string& program, long failing) {
        setenv("LD_PRELOAD", FAILING_MALLOC, 1);
        setenv("FAIL_ALLOCATION", std::to_string(failing).c_str(), 1);
        return {program};
    }
};

// Every one of those that are not OpenSSL's, and all of them if many rounds are wanted.
TEST_F(ExhaustedTest, OneAllocationOfAClientWithoutADevice) {
    ForgetfulProcess whole(LASTING_CLIENT_PROGRAM, 0);
    whole.CloseInput();
    int crashes = 0;
    whole.ExpectEnd(0, crashes);
    long all = whole.Allocations();
    EXPECT_LT(50, all);
    for (long failing = 1; failing <= all;) {
        ForgetfulProcess client(LASTING_CLIENT_PROGRAM, failing);
        client.CloseInput();
        client.ExpectEnd(failing, crashes);
        all = std::max(all, client.Allocations());
        const bool ours = failing < FIRST_ONES || failing >= all - LAST_ONES;
        failing += ours || Rounds(0) > 0 ? 1 : SAMPLE;
    }
    EXPECT_LE(crashes, CRASHES_OF_LIBCOAP);
}

// Every 25th, and each of them if many rounds are wanted; of OpenSSL's every 500th.
TEST_F(ExhaustedTest, OneAllocationOfADeviceThatServes) {
    constexpr long SERVING = 150;  // what one client costs
    ForgetfulProcess idle(DEVICE_PROGRAM, 0);
    idle.WaitForLine(READY);
    idle.Signal(SIGTERM);
    int crashes = 0;
    idle.ExpectEnd(0, crashes);
    const long started = idle.Allocations();
    const long step = Rounds(0) > 0 ? 1 : SAMPLE;
    long all = 0;
    for (long failing = 1; failing < started + SERVING;) {
        ForgetfulProcess device(DEVICE_PROGRAM, failing);
        {
            // Killed before its end if its request is among those that the device forgets.
            Process client({CLIENT_PROGRAM});
            Eventually([&] { return client.HasEnded(); }, std::chrono::milliseconds(500));
        }
        device.Signal(SIGTERM);
        device.ExpectEnd(failing, crashes);
        all = std::max(all, device.Allocations());
        const bool ours = failing < FIRST_ONES || failing >= started - LAST_ONES;
        failing += ours ? step : 20 * step;
    }
    EXPECT_LT(100, all);
    EXPECT_LE(crashes, CRASHES_OF_LIBCOAP);
}

TEST_F(ExhaustedTest, DiskUnderTheLog) {
    if (Process({"/usr/bin/unshare", "-m", "/bin/true"}).WaitForEnd() != 0) {
        GTEST_SKIP() << "mounts of its own are not permitted here";
    }
    char folder[] = "/tmp/lumora-full-disk-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(folder));
    const std::string path = folder;
    // A disk of its own, which no other process sees and which ends with the device.
    Process device({"/usr/bin/unshare", "-m", "/bin/sh", "-c",
                    "mount -t tmpfs -o size=64k none " + path + "; cat /dev/zero >" + path +
                        "/other 2>/dev/null; LUMORA_LOG_LEVEL=0 LUMORA_LOG_FILE=" + path + "/log exec " +
                        DEVICE_PROGRAM});
    const bool works = Eventually([] { return EchoComes("over a full disk"); });
    const bool ends = EndsCleanly(device);
    rmdir(folder);
    EXPECT_TRUE(works);
    EXPECT_TRUE(ends);
    EXPECT_THAT(device.Errors(), testing::HasSubstr("No space left on device"));
}

TEST_F(ExhaustedTest, SystemClockThatIsSetForthAndBack) {
    setenv("LD_PRELOAD", JUMPING_CLOCK, 1);
    Process device({DEVICE_PROGRAM});
    Process client({LASTING_CLIENT_PROGRAM});
    unsetenv("LD_PRELOAD");
    device.WaitForLine(READY);
    for (int round = 1; round <= 2; ++round) {
        client.WriteLine("connect");
        EXPECT_EQ("connect done", client.WaitForLine("connect"));
        client.WriteLine("at any time");
        EXPECT_EQ("echo: at any time", client.WaitForLine("echo: "));
    }
    client.CloseInput();
    EXPECT_EQ(0, client.WaitForEnd());
    EXPECT_TRUE(EndsCleanly(device));
}

TEST(ClosedTest, StandardStreamsAreNotMissed) {
    const std::string closed = "exec <&- >&- 2>&-";
    Process device(After(closed, DEVICE_PROGRAM));
    EXPECT_TRUE(Eventually([] { return EchoComes("from a device without them"); }));
    Process client(After(closed, CLIENT_PROGRAM, "hello"));
    EXPECT_EQ(0, client.WaitForEnd());
    EXPECT_TRUE(EndsCleanly(device));
}

}  // namespace
}  // namespace lumora_test
