// Nodes of several processes on one host.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <vector>

#include "base/unique_fd.h"
#include "tests/platform/link/capi/test_node.h"
#include "tests/support/eventually.h"

namespace lumora_link::test {

namespace {

using lumora_test::Eventually;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::SizeIs;

// Another process that serves devices of a type, or does what else the command says; it ends with
// this object.
class ServingProcess {
public:
    explicit ServingProcess(const std::string& deviceType, const char* command = "serve") {
        std::array<int, 2> input = {};
        std::array<int, 2> output = {};
        EXPECT_EQ(pipe2(input.data(), O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(output.data(), O_CLOEXEC), 0);
        lumora::UniqueFd childInput(input[0]);
        lumora::UniqueFd childOutput(output[1]);
        lumora::UniqueFd ready(output[0]);
        mInput = lumora::UniqueFd(input[1]);
        mPid = fork();
        if (mPid == 0) {
            dup2(childInput.Get(), STDIN_FILENO);
            dup2(childOutput.Get(), STDOUT_FILENO);
            execl(LINK_TEST_TOOL, LINK_TEST_TOOL, command, deviceType.c_str(), nullptr);
            _exit(127);
        }
        childOutput = lumora::UniqueFd();
        char word[6] = {};
        EXPECT_EQ(read(ready.Get(), word, sizeof word), 6) << "the process does not start";
    }
    ~ServingProcess() {
        mInput = lumora::UniqueFd();
        Reap();
    }
    ServingProcess(const ServingProcess&) = delete;
    ServingProcess& operator=(const ServingProcess&) = delete;

    void Kill() {
        kill(mPid, SIGKILL);
        Reap();
    }
    // Lets it end by itself. Returns its status, as waitpid tells it.
    int End() {
        mInput = lumora::UniqueFd();
        return Reap();
    }

private:
    int Reap() {
        int status = -1;
        if (mPid > 0) {
            waitpid(mPid, &status, 0);
            mPid = -1;
        }
        return status;
    }
    pid_t mPid = -1;
    lumora::UniqueFd mInput;
};

bool HasEvents(TestNode& node, std::size_t count) {
    return Eventually([&] { return node.Events().size() >= count; });
}

}  // namespace

TEST(LinkProcessTest, FindsAndAsksADeviceOfAnotherProcess) {
    ServingProcess process("camera");
    TestNode asker("reader");
    ASSERT_TRUE(asker.Start());
    Found found(asker, "camera");
    ASSERT_THAT(found.Endpoints(), SizeIs(1));
    EXPECT_EQ(Get(found.At(0), "key", "value").text, "value");
    for (int posts = 0; posts < 20; ++posts) {
        EXPECT_EQ(Post(found.At(0), "key", "value"), 0);
    }
    EXPECT_EQ(Get(found.At(0), "count", "").text, "20");
}

TEST(LinkProcessTest, ProcessesShareThePortOfTheGroup) {
    std::vector<std::unique_ptr<ServingProcess>> processes;
    for (int count = 0; count < 5; ++count) {
        processes.push_back(std::make_unique<ServingProcess>("camera"));
    }
    TestNode asker("camera");
    ASSERT_TRUE(asker.Start());
    EXPECT_THAT(Found(asker, "camera").Endpoints(), SizeIs(5));
    ServingProcess late("camera");
    EXPECT_THAT(Found(asker, "camera").Endpoints(), SizeIs(6));
}

TEST(LinkProcessTest, AKilledProcessIsNoticedAndRefusesAtOnce) {
    TestNode watcher("reader");
    ASSERT_TRUE(watcher.Start());
    ServingProcess process("camera");
    ASSERT_TRUE(HasEvents(watcher, 1));
    Found found(watcher, "camera");
    ASSERT_THAT(found.Endpoints(), SizeIs(1));

    process.Kill();
    const auto killed = steady_clock::now();
    EXPECT_NE(Put(found.At(0), "key", "value"), 0);
    EXPECT_LT(steady_clock::now() - killed, seconds(2));
    ASSERT_TRUE(HasEvents(watcher, 2));
    EXPECT_LT(steady_clock::now() - killed, seconds(4)) << "3 s, and what a busy machine adds";
    EXPECT_FALSE(watcher.Events()[1].added);
    EXPECT_EQ(watcher.Events()[0].endpoint, watcher.Events()[1].endpoint);
}

TEST(LinkProcessTest, AProcessThatEndsIsGoneAtOnce) {
    TestNode watcher("reader");
    ASSERT_TRUE(watcher.Start());
    ServingProcess process("camera");
    ASSERT_TRUE(HasEvents(watcher, 1));
    process.End();
    EXPECT_TRUE(Eventually([&] { return watcher.Events().size() == 2; }, std::chrono::milliseconds(1100)))
        << "before a hello was missed";
    EXPECT_THAT(Found(watcher, "camera").Endpoints(), SizeIs(0));
}

TEST(LinkProcessTest, AProcessMayEndWhileItsNodesRun) {
    for (int round = 0; round < 12; ++round) {
        EXPECT_EQ(ServingProcess("camera", "leave").End(), 0);
    }
}

TEST(LinkProcessTest, AProcessThatIsStartedAgainIsAnotherDevice) {
    TestNode watcher("reader");
    ASSERT_TRUE(watcher.Start());
    auto process = std::make_unique<ServingProcess>("camera");
    ASSERT_TRUE(HasEvents(watcher, 1));
    process->Kill();
    process = std::make_unique<ServingProcess>("camera");
    ASSERT_TRUE(HasEvents(watcher, 3));
    EXPECT_THAT(Found(watcher, "camera").Endpoints(), SizeIs(1));
}

TEST(LinkProcessTest, AKilledProcessIsGoneBeforeTheOneStartedInItsPlaceHasSearched) {
    TestNode device("camera");
    ASSERT_TRUE(device.Start());
    auto client = std::make_unique<ServingProcess>("reader");
    ASSERT_TRUE(HasEvents(device, 1));
    client->Kill();
    client = std::make_unique<ServingProcess>("camera", "find");
    // Its search has ended now.
    const std::vector<Event> events = device.Events();
    ASSERT_GE(events.size(), 3U);
    EXPECT_FALSE(events[1].added);
    EXPECT_EQ(events[1].id, events[0].id);
    EXPECT_TRUE(events[2].added);
    EXPECT_NE(events[2].id, events[0].id);
}

TEST(LinkProcessTest, AHandlerOfFiveSecondsInAnotherProcessIsAnswered) {
    ServingProcess process("camera");
    TestNode asker("reader");
    ASSERT_TRUE(asker.Start());
    Found found(asker, "camera");
    ASSERT_THAT(found.Endpoints(), SizeIs(1));
    EXPECT_EQ(Put(found.At(0), "sleep", "5000"), 0);
}

}  // namespace lumora_link::test
