// The hub's look at a network in which nodes do not behave.
#include "hub/core/network_watch.h"

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "tests/support/captured_log.h"
#include "tests/support/eventually.h"

namespace lumora_hub {
namespace {

// A process of silent_node. The constructor returns when it is there.
class SilentNode {
public:
    SilentNode() {
        std::array<int, 2> ends = {};
        EXPECT_EQ(pipe(ends.data()), 0);
        const lumora::UniqueFd output(ends[0]);
        lumora::UniqueFd input(ends[1]);
        posix_spawn_file_actions_t actions = {};
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input.Get(), STDOUT_FILENO);
        std::string program = SILENT_NODE;
        std::array<char*, 2> words = {program.data(), nullptr};
        EXPECT_EQ(posix_spawn(&mProcess, program.c_str(), &actions, nullptr, words.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        input.Close();
        char first = 0;
        EXPECT_EQ(read(output.Get(), &first, 1), 1);
    }
    ~SilentNode() {
        kill(mProcess, SIGKILL);
        waitpid(mProcess, nullptr, 0);
    }
    SilentNode(const SilentNode&) = delete;
    SilentNode& operator=(const SilentNode&) = delete;

private:
    pid_t mProcess = -1;
};

// Two of them hold a thread each for some seconds. The others wait, each found and not asked yet.
TEST(NetworkWatchTest, NodesThatAnswerNoQuestionFillNothing) {
    constexpr std::size_t MOST_NODES = 8;
    constexpr std::size_t MOST_OF_ADDRESS = 6;
    setenv("LUMORA_LINK_INTERFACE", "lo", 1);
    const lumora_test::CapturedLog log;
    std::atomic<int> found{0};
    NetworkWatch::Events events;
    events.onFound = [&](const lumora_nodes::FoundDevice&) { ++found; };
    events.onLeft = [](const lumora_nodes::NodeEvent&) {};
    NetworkWatch watch({}, MOST_NODES, std::move(events));
    const auto isRefused = [&] {
        return log.Dump().find(
                   "A node of type \"camera\" at 127.0.0.1 is not asked: "
                   "too many others at its address are.") != std::string::npos;
    };
    std::vector<std::unique_ptr<SilentNode>> nodes;
    std::size_t most = 0;
    const auto look = [&] {
        for (int times = 0; times < 40; ++times) {
            most = std::max(most, watch.Waiting());
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    };
    // One after the other, so that each is found before the next one comes.
    while (nodes.size() < MOST_OF_ADDRESS + 3) {
        nodes.push_back(std::make_unique<SilentNode>());
        look();
    }
    look();
    EXPECT_EQ(most, MOST_OF_ADDRESS);
    EXPECT_GE(watch.Refused(), 3U);
    EXPECT_TRUE(lumora_test::Eventually(isRefused)) << log.Dump();
    EXPECT_EQ(found, 0);
}

}  // namespace
}  // namespace lumora_hub
