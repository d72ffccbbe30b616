#include "platform/link/core/call_queue.h"

#include <gmock/gmock.h>

#include <functional>

namespace lumora_link::test {

namespace {

using std::chrono::seconds;
using testing::ElementsAre;

const std::string SETUP = ".sys.mediaservice.setup";

// One thread of handlers in a time of the test's own: runs what the queue gives it.
struct CallQueueTest : testing::Test {
    // The ticket, or 0 if the call is refused.
    std::uint64_t Push(unsigned host, const std::string& key, bool sameHost = false) {
        HandlerCall call;
        call.ticket = ++lastTicket;
        call.method = code::GET;
        call.requester = {htonl(0x0a000000 + host), 4000};
        call.sameHost = sameHost;
        call.key = key;
        const CallQueue::Admission admission = queue.Push(call, now);
        if (admission.dropped) {
            dropped.push_back(*admission.dropped);
        }
        return admission.accepted ? lastTicket : 0;
    }
    // Until the ticket's call has ended, or a minute has passed.
    Milliseconds RunUntilEnded(std::uint64_t ticket, const std::function<void()>& meanwhile = {}) {
        const TimePoint start = now;
        while (now - start < seconds(60)) {
            if (meanwhile) {
                meanwhile();
            }
            const auto call = queue.Pop(now);
            if (!call) {
                now += Milliseconds(10);
                continue;
            }
            ran.push_back(call->ticket);
            const TimePoint began = now;
            now += TimeOf(*call);
            if (const auto late = queue.OnEnded(*call, began, now)) {
                dropped.push_back(*late);
            }
            if (call->ticket == ticket) {
                break;
            }
        }
        return std::chrono::duration_cast<Milliseconds>(now - start);
    }
    // Connecting back to these addresses meets silence.
    Milliseconds TimeOf(const HandlerCall& call) const {
        const unsigned host = ntohl(call.requester.host) & 0xff;
        return Milliseconds(call.key == SETUP && host >= SILENT ? 5100 : 1);
    }

    static constexpr unsigned HONEST = 1;
    static constexpr unsigned SILENT = 100;
    CallQueue queue;
    TimePoint now{std::chrono::hours(1)};
    std::uint64_t lastTicket = 0;
    std::vector<std::uint64_t> dropped;
    std::vector<std::uint64_t> ran;
};

}  // namespace

TEST_F(CallQueueTest, AddressesTakeTurnsAndEachKeepsItsOrder) {
    const auto a1 = Push(1, "a");
    const auto a2 = Push(1, "b");
    const auto a3 = Push(1, "c");
    const auto b1 = Push(2, "a");
    const auto b2 = Push(2, "b");
    RunUntilEnded(a3);
    EXPECT_THAT(ran, ElementsAre(a1, b1, a2, b2, a3));
}

TEST_F(CallQueueTest, AtMostFourRequestsOfAnAddressWait) {
    for (int count = 1; count <= 1000; ++count) {
        EXPECT_EQ(Push(2, "key") != 0, count <= 4);
    }
    EXPECT_NE(Push(HONEST, "key"), 0U);
    EXPECT_TRUE(dropped.empty());
}

TEST_F(CallQueueTest, TheOwnHostIsNoStranger) {
    for (int count = 1; count <= 65; ++count) {
        EXPECT_EQ(Push(2, SETUP, true) != 0, count <= 64);
    }
    EXPECT_TRUE(dropped.empty()) << "its setups are several clients'";
}

TEST_F(CallQueueTest, AFullQueueTakesTheRoomFromTheAddressThatHasMost) {
    for (unsigned host = 2; host < 66; ++host) {
        for (int count = 0; count < 4; ++count) {
            ASSERT_NE(Push(host, "key"), 0U);
        }
    }
    EXPECT_NE(Push(HONEST, "key"), 0U);
    EXPECT_EQ(dropped.size(), 1U);
}

TEST_F(CallQueueTest, ALaterSetupTakesThePlaceOfTheWaitingOneOfItsAddress) {
    const auto first = Push(2, SETUP);
    const auto other = Push(3, SETUP);
    const auto second = Push(2, SETUP);
    EXPECT_THAT(dropped, ElementsAre(first));
    RunUntilEnded(other);
    EXPECT_THAT(ran, ElementsAre(second, other));
}

TEST_F(CallQueueTest, SetupsThatMeetSilenceDelayAnHonestConnectByOneOfThemAtMost) {
    for (const int flood : {20, 256}) {
        for (int count = 0; count < flood; ++count) {
            Push(SILENT, SETUP);
        }
        const auto going = queue.Pop(now);
        ASSERT_TRUE(going);
        const TimePoint began = now;
        now += Milliseconds(5100);
        // What the client sends while the first one is connecting back.
        const auto search = Push(HONEST, "ServiceInfo");
        queue.OnEnded(*going, began, now);
        const auto flooding = [&] { Push(SILENT, SETUP); };
        EXPECT_LE(RunUntilEnded(search, flooding), Milliseconds(10));
        EXPECT_LE(RunUntilEnded(Push(HONEST, SETUP), flooding), Milliseconds(10));
        EXPECT_LE(RunUntilEnded(Push(HONEST, "Connect"), flooding), Milliseconds(10));
        now += seconds(200);
        while (const auto left = queue.Pop(now)) {
            queue.OnEnded(*left, now, now);
        }
    }
}

TEST_F(CallQueueTest, SeveralSilentAddressesThatAreKnownDelayAnHonestConnectByOneOfThemAtMost) {
    const auto flooding = [&] {
        for (unsigned host = SILENT; host < SILENT + 20; ++host) {
            Push(host, SETUP);
        }
    };
    RunUntilEnded(0, flooding);
    for (int round = 0; round < 10; ++round) {
        RunUntilEnded(Push(HONEST, "ServiceInfo"), flooding);
        const TimePoint start = now;
        EXPECT_LE(RunUntilEnded(Push(HONEST, "ServiceInfo"), flooding), Milliseconds(5110));
        RunUntilEnded(Push(HONEST, SETUP), flooding);
        RunUntilEnded(Push(HONEST, "Connect"), flooding);
        EXPECT_LE(now - start, seconds(6));
        now += Milliseconds(700);
    }
}

TEST_F(CallQueueTest, ASlowSourceIsServedThoughOthersAreNeverQuiet) {
    RunUntilEnded(Push(SILENT, SETUP));
    const auto again = Push(SILENT, SETUP);
    EXPECT_LE(RunUntilEnded(again, [&] { Push(HONEST, "key"); }), seconds(5 + 6));
    EXPECT_EQ(ran.back(), again);
}

TEST_F(CallQueueTest, AfterTheSecondSlowSetupTheAddressRestsAndItsOtherRequestsDoNot) {
    RunUntilEnded(Push(SILENT, SETUP));
    RunUntilEnded(Push(SILENT, SETUP));
    EXPECT_EQ(Push(SILENT, SETUP), 0U);
    EXPECT_LE(RunUntilEnded(Push(SILENT, "key")), Milliseconds(10));
    now += CallQueue::REFUSED;
    EXPECT_NE(Push(SILENT, SETUP), 0U);
}

TEST_F(CallQueueTest, ASetupThatWaitsWhenItsAddressBeginsToRestIsAnswered) {
    RunUntilEnded(Push(SILENT, SETUP));
    const auto second = Push(SILENT, SETUP);
    now += seconds(2);
    const auto running = queue.Pop(now);
    ASSERT_TRUE(running);
    EXPECT_EQ(running->ticket, second);
    const auto waiting = Push(SILENT, SETUP);
    EXPECT_EQ(queue.OnEnded(*running, now, now + seconds(5)), waiting);
}

TEST_F(CallQueueTest, ASlowSourceThatConnectsQuicklyIsLikeAnyOther) {
    RunUntilEnded(Push(SILENT, SETUP));
    auto call = (Push(SILENT, SETUP), now += seconds(2), queue.Pop(now));
    ASSERT_TRUE(call);
    queue.OnEnded(*call, now, now + Milliseconds(3));
    Push(HONEST, "key");
    const auto again = Push(SILENT, SETUP);
    RunUntilEnded(again);
    EXPECT_LE(ran.size(), 3U);
    EXPECT_EQ(ran.back(), again);
}

TEST_F(CallQueueTest, TheThreadIsWokenWhenASlowSourcesTurnComes) {
    RunUntilEnded(Push(SILENT, SETUP));
    EXPECT_EQ(queue.NextStart(now), TimePoint::max());
    Push(SILENT, SETUP);
    const TimePoint next = queue.NextStart(now);
    EXPECT_GT(next, now - seconds(6));
    EXPECT_LE(next, now + CallQueue::LONGEST_DELAY);
    EXPECT_TRUE(queue.Pop(next));
}

}  // namespace lumora_link::test
