// How long a search takes and what it finds: among nodes that count each other, among nodes that do not,
// through loss, and with strangers that count wrongly.
#include "platform/link/core/discovery.h"

#include <gmock/gmock.h>

#include <set>

#include "platform/link/wire/link_format.h"
#include "tests/platform/link/core/fake_network.h"

namespace lumora_link::test {

namespace {

using std::chrono::seconds;

constexpr Milliseconds TODAY{230};  // of a search without counts
constexpr std::size_t CROWD = 200;

struct DiscoveryTest : testing::Test {
    void AddCameras(std::size_t count) {
        for (std::size_t added = 0; added < count; ++added) {
            cameras.push_back(&network.Add("camera"));
        }
    }
    // How many cameras a node finds that has just been started.
    std::size_t FindAsNewcomer() { return Find(network.Add(std::nullopt)); }
    std::size_t Find(FakeNode& node) {
        const TimePoint start = network.Now();
        const unsigned before = Datagrams();
        const std::uint64_t ticket = node.Find("camera");
        EXPECT_TRUE(network.RunUntil([&] { return node.Seen().found.count(ticket) != 0; }, seconds(2)));
        searchTime = std::chrono::duration_cast<Milliseconds>(network.Now() - start);
        datagrams = Datagrams() - before;
        std::set<std::uint64_t> ids;
        for (const NodeDescription& found : node.Seen().found.at(ticket)) {
            ids.insert(found.identity.id);
        }
        return ids.size();
    }
    unsigned Datagrams() const {
        unsigned sum = 0;
        for (const FakeNode* camera : cameras) {
            sum += camera->Datagrams();
        }
        return sum;
    }
    void LetThemCount(const FakeNode& liar, std::optional<std::size_t> count) {
        network.rewrite = [&liar, count](CoapMessage& message, const FakeNode& sender) {
            if (&sender == &liar) {
                Strip(message);
                if (count) {
                    AddCount(message, *count);
                }
            }
        };
    }
    void ListCounting() {
        network.rewrite = [this](CoapMessage& message, const FakeNode& sender) {
            if (CountIn(message)) {
                counting.insert(&sender);
            }
        };
    }
    static void Strip(CoapMessage& message) {
        CoapMessage bare = message;
        bare.options.clear();
        for (const CoapOption& option : message.options) {
            if (option.number != option::NODE_COUNT) {
                bare.Add(option.number, option.value);
            }
        }
        message = bare;
    }

    FakeNetwork network;
    std::vector<FakeNode*> cameras;
    Milliseconds searchTime{};
    std::set<const FakeNode*> counting;
    unsigned datagrams = 0;  // that the cameras sent meanwhile, each to each receiver
};

}  // namespace

TEST_F(DiscoveryTest, ANewcomerFindsTheOnlyNodeInFifteenMilliseconds) {
    AddCameras(1);
    network.Run(seconds(2));
    EXPECT_EQ(FindAsNewcomer(), 1U);
    EXPECT_EQ(searchTime, Search::SHORTEST);
    EXPECT_LE(datagrams, 3U) << "the probe, its copy, and perhaps a hello";
}

TEST_F(DiscoveryTest, ANewcomerFindsTwoHundredNodesWithinSixtyMilliseconds) {
    AddCameras(CROWD);
    network.Run(seconds(2));
    EXPECT_EQ(FindAsNewcomer(), CROWD);
    EXPECT_LE(searchTime, Milliseconds(60));
}

TEST_F(DiscoveryTest, TwoHundredAnswersAreSpread) {
    AddCameras(CROWD);
    network.Run(seconds(2));
    std::map<TimePoint, unsigned> answers;
    network.filter = [&](const CoapMessage& message) {
        answers[network.Now()] += message.code == code::CONTENT;
        return true;
    };
    FindAsNewcomer();
    for (const auto& [time, count] : answers) {
        EXPECT_LE(count, 20U);
    }
}

TEST_F(DiscoveryTest, ANodeThatHasBeenThereForAWhileNeedsAFewMilliseconds) {
    FakeNode& asker = network.Add(std::nullopt);
    for (const std::size_t count : {std::size_t{1}, std::size_t{4}, CROWD}) {
        AddCameras(count - cameras.size());
        network.Run(seconds(2));
        EXPECT_EQ(Find(asker), count);
        EXPECT_EQ(searchTime, Search::SHORTEST_DIRECTED) << count;
    }
}

TEST_F(DiscoveryTest, ANodeOfTheTypeSearchesAsFast) {
    AddCameras(5);
    network.Run(seconds(2));
    EXPECT_EQ(Find(*cameras.front()), 4U);
    EXPECT_EQ(searchTime, Search::SHORTEST_DIRECTED);
}

TEST_F(DiscoveryTest, FindsTwoHundredThroughLossOfAFifthBothWays) {
    for (std::uint64_t seed = 1; seed <= 3; ++seed) {
        FakeNetwork lossy(seed);
        lossy.longestDelay = Milliseconds(10);
        for (std::size_t count = 0; count < CROWD; ++count) {
            lossy.Add("camera");
        }
        FakeNode& settled = lossy.Add(std::nullopt);
        lossy.Run(seconds(2));
        lossy.lossPercent = 20;
        lossy.duplicatePercent = 10;
        for (FakeNode* asker : {&settled, &lossy.Add(std::nullopt)}) {
            const std::uint64_t ticket = asker->Find("camera");
            ASSERT_TRUE(
                lossy.RunUntil([&] { return asker->Seen().found.count(ticket) != 0; }, Milliseconds(1010)));
            EXPECT_THAT(asker->Seen().found.at(ticket), testing::SizeIs(CROWD)) << "seed " << seed;
        }
    }
}

TEST_F(DiscoveryTest, FindsAFewThroughLossOfAFifthBothWays) {
    std::size_t searches = 0;
    std::size_t missed = 0;
    for (std::uint64_t seed = 1; seed <= 200; ++seed) {
        FakeNetwork lossy(seed);
        lossy.lossPercent = 20;
        for (int count = 0; count < 3; ++count) {
            lossy.Add("camera");
        }
        // The last one may have been there for a moment only, so that others may have missed its hello.
        lossy.Run(seconds(2));
        lossy.Add("camera");
        lossy.Run(Milliseconds(10 * seed));
        FakeNode& asker = lossy.Add(std::nullopt);
        const std::uint64_t ticket = asker.Find("camera");
        lossy.RunUntil([&] { return asker.Seen().found.count(ticket) != 0; }, seconds(2));
        ++searches;
        missed += asker.Seen().found.at(ticket).size() != 4;
    }
    EXPECT_EQ(missed, 0U) << "of " << searches;
}

TEST_F(DiscoveryTest, ANewNodeThatNoOtherCountsYetIsFound) {
    AddCameras(3);
    network.Run(seconds(2));
    FakeNode& asker = network.Add(std::nullopt);
    network.filter = [](const CoapMessage& message) { return PathOf(message) != HELLO_PATH; };
    AddCameras(1);
    EXPECT_EQ(Find(asker), 4U);
    EXPECT_LE(searchTime, TODAY);
}

TEST_F(DiscoveryTest, ANewNodeIsFoundByOneThatHasBeenThereForAWhile) {
    AddCameras(3);
    FakeNode& asker = network.Add(std::nullopt);
    network.Run(seconds(2));
    network.filter = [](const CoapMessage& message) { return PathOf(message) != HELLO_PATH; };
    AddCameras(1);
    EXPECT_EQ(Find(asker), 4U);
    EXPECT_LE(searchTime, TODAY);
}

TEST_F(DiscoveryTest, NodesThatHaveJustStartedDoNotCountAndAreAllFound) {
    AddCameras(20);
    EXPECT_EQ(FindAsNewcomer(), 20U);
    EXPECT_EQ(searchTime, TODAY);
}

TEST_F(DiscoveryTest, AFewNewNodesThatHaveLookedRoundCount) {
    for (const std::size_t count : {std::size_t{1}, std::size_t{3}, Search::FEW}) {
        FakeNetwork young;
        for (std::size_t added = 0; added < count; ++added) {
            young.Add("camera");
        }
        young.Run(Milliseconds(50));
        FakeNode& asker = young.Add(std::nullopt);
        const TimePoint start = young.Now();
        const std::uint64_t ticket = asker.Find("camera");
        ASSERT_TRUE(young.RunUntil([&] { return asker.Seen().found.count(ticket) != 0; }, seconds(2)));
        EXPECT_THAT(asker.Seen().found.at(ticket), testing::SizeIs(count));
        EXPECT_EQ(young.Now() - start, Search::SHORTEST) << count;
    }
}

TEST_F(DiscoveryTest, ANewNodeAmongOthersLeavesTheCountToThem) {
    AddCameras(2);
    network.Run(seconds(2));
    AddCameras(1);
    network.Run(Milliseconds(60));
    ListCounting();
    EXPECT_EQ(FindAsNewcomer(), 3U);
    EXPECT_EQ(searchTime, Search::SHORTEST);
    EXPECT_THAT(counting, testing::UnorderedElementsAre(cameras[0], cameras[1]));
}

TEST_F(DiscoveryTest, NodesThatAwaitTheHelloOfANewOneDoNotCount) {
    AddCameras(2);
    network.Run(seconds(2));
    network.filter = [](const CoapMessage& message) { return PathOf(message) != HELLO_PATH; };
    AddCameras(1);
    network.Run(Milliseconds(50));
    ListCounting();
    EXPECT_EQ(FindAsNewcomer(), 3U);
    EXPECT_THAT(counting, testing::IsSubsetOf({cameras[2]})) << "only the new one knows all";
    network.Run(Presence::LATELY);
    EXPECT_EQ(FindAsNewcomer(), 3U);
    EXPECT_THAT(counting, testing::SizeIs(3)) << "they await it no longer";
}

TEST_F(DiscoveryTest, FindsAFewNewNodesThroughLossOfAFifthBothWays) {
    std::size_t missed = 0;
    for (std::uint64_t seed = 1; seed <= 400; ++seed) {
        FakeNetwork lossy(seed);
        lossy.lossPercent = 20;
        const std::size_t count = 2 + seed % 3;
        for (std::size_t added = 0; added < count; ++added) {
            lossy.Add("camera");
            lossy.Run(Milliseconds(seed % 50));
        }
        lossy.Run(Milliseconds(30));
        FakeNode& asker = lossy.Add(std::nullopt);
        const std::uint64_t ticket = asker.Find("camera");
        lossy.RunUntil([&] { return asker.Seen().found.count(ticket) != 0; }, seconds(2));
        missed += asker.Seen().found.at(ticket).size() != count;
    }
    EXPECT_EQ(missed, 0U);
}

TEST_F(DiscoveryTest, TwoHundredNodesThatStartAtOnceAnswerSomeOfTheOthersAndAreAllFound) {
    AddCameras(CROWD);
    unsigned answers = 0;
    network.filter = [&](const CoapMessage& message) {
        answers += message.code == code::CONTENT && message.type == MessageType::NonConfirmable;
        return true;
    };
    network.Run(Milliseconds(60));
    EXPECT_GT(answers, 0U);
    EXPECT_LE(answers, 32U * CROWD);
    EXPECT_EQ(FindAsNewcomer(), CROWD);
}

TEST_F(DiscoveryTest, ANewcomerAmongManyIsAnsweredByAFewWhenItLooksRound) {
    AddCameras(CROWD);
    network.Run(seconds(2));
    unsigned answers = 0;
    network.filter = [&](const CoapMessage& message) {
        answers += message.code == code::CONTENT && message.type == MessageType::NonConfirmable;
        return true;
    };
    AddCameras(1);
    network.Run(Milliseconds(100));
    EXPECT_GT(answers, 0U);
    EXPECT_LE(answers, 3 * Presence::GREETERS) << "and the first one with a count ends the look";
}

TEST_F(DiscoveryTest, CountsThatDifferCostTheTimeOfToday) {
    AddCameras(5);
    network.Run(seconds(2));
    LetThemCount(*cameras[2], 4);
    EXPECT_EQ(FindAsNewcomer(), 5U);
    EXPECT_EQ(searchTime, TODAY);
}

TEST_F(DiscoveryTest, ACountThatIsTooHighCostsTheTimeOfToday) {
    AddCameras(5);
    FakeNode& settled = network.Add(std::nullopt);
    network.Run(seconds(2));
    for (const std::size_t count : {std::size_t{6}, std::size_t{1000}, std::size_t{0xffffffff}}) {
        LetThemCount(*cameras[2], count);
        EXPECT_EQ(FindAsNewcomer(), 5U);
        EXPECT_EQ(searchTime, TODAY);
        EXPECT_EQ(Find(settled), 5U);
        EXPECT_EQ(searchTime, TODAY);
    }
}

TEST_F(DiscoveryTest, ACountThatIsTooLowHidesNoNodeThatAnswersWithinFifteenMilliseconds) {
    AddCameras(5);
    network.Run(seconds(2));
    network.longestDelay = Milliseconds(6);  // there and back
    for (std::size_t count = 0; count < 5; ++count) {
        network.rewrite = [count](CoapMessage& message, const FakeNode&) {
            Strip(message);
            AddCount(message, count);
        };
        EXPECT_EQ(FindAsNewcomer(), 5U);
        EXPECT_LE(searchTime, TODAY);
    }
}

TEST_F(DiscoveryTest, ACountOfMoreBytesThanANumberHasIsNone) {
    AddCameras(2);
    network.Run(seconds(2));
    network.rewrite = [](CoapMessage& message, const FakeNode&) {
        Strip(message);
        message.Add(option::NODE_COUNT, std::string(5, '\0') + '\2');
    };
    EXPECT_EQ(FindAsNewcomer(), 2U);
    EXPECT_EQ(searchTime, TODAY);
}

TEST_F(DiscoveryTest, OlderNodesThatDoNotCountAreFound) {
    AddCameras(4);
    network.Run(seconds(2));
    LetThemCount(*cameras[0], std::nullopt);
    EXPECT_EQ(FindAsNewcomer(), 4U);
    EXPECT_EQ(searchTime, Search::SHORTEST) << "the others count it";
    network.rewrite = [](CoapMessage& message, const FakeNode&) { Strip(message); };
    EXPECT_EQ(FindAsNewcomer(), 4U);
    EXPECT_EQ(searchTime, TODAY);
}

TEST_F(DiscoveryTest, ANodeThatSaidGoodbyeIsCountedNoMore) {
    AddCameras(5);
    FakeNode& settled = network.Add(std::nullopt);
    network.Run(seconds(2));
    cameras.back()->Exit();
    network.Run(Milliseconds(20));
    EXPECT_EQ(FindAsNewcomer(), 4U);
    EXPECT_EQ(searchTime, Search::SHORTEST);
    EXPECT_EQ(Find(settled), 4U);
    EXPECT_EQ(searchTime, Search::SHORTEST_DIRECTED);
}

TEST_F(DiscoveryTest, ANodeThatWasKilledIsNoResultAndTakesTheTimeOfTodayAtMost) {
    AddCameras(5);
    FakeNode& settled = network.Add(std::nullopt);
    network.Run(seconds(2));
    network.Kill(*cameras.back());
    EXPECT_EQ(FindAsNewcomer(), 4U);
    EXPECT_LE(searchTime, TODAY) << "others still count it";
    EXPECT_EQ(Find(settled), 4U);
    EXPECT_LE(searchTime, Milliseconds(30)) << "its host refused";
}

TEST_F(DiscoveryTest, NodesOfTwoNetworksAreAllFound) {
    for (std::uint32_t number = 0; number < 3; ++number) {
        const auto port = static_cast<std::uint16_t>(4000 + number);
        const LocalInterface wired{2, "eth0", htonl(0x0a000010 + number)};
        const LocalInterface wireless{3, "wlan0", htonl(0x0b000010 + number)};
        network.AddAt({10 + number, 1}, {wired}, port, "camera");
        network.AddAt({20 + number, 1}, {wireless}, port, "camera");
        network.AddAt({30 + number, 1}, {wired, wireless}, static_cast<std::uint16_t>(port + 100), "camera");
    }
    const std::vector<LocalInterface> both{{2, "eth0", htonl(0x0a000001)}, {3, "wlan0", htonl(0x0b000001)}};
    FakeNode& settled = network.AddAt({1, 1}, both, 4001, std::nullopt);
    network.Run(seconds(2));
    EXPECT_EQ(Find(settled), 9U);
    EXPECT_LE(searchTime, TODAY);
    EXPECT_EQ(Find(network.AddAt({2, 1}, both, 4002, std::nullopt)), 9U);
    EXPECT_LE(searchTime, TODAY) << "no node counts those of both networks";
    EXPECT_EQ(Find(network.AddAt({3, 1}, {{2, "eth0", htonl(0x0a000002)}}, 4002, std::nullopt)), 6U);
    EXPECT_LE(searchTime, TODAY);
}

TEST_F(DiscoveryTest, ASearchEndsWhenItIsOverAndNotWithTheNextProbe) {
    AddCameras(2);
    network.filter = [](const CoapMessage& message) { return PathOf(message) != HELLO_PATH; };
    network.rewrite = [](CoapMessage& message, const FakeNode&) { Strip(message); };
    EXPECT_EQ(FindAsNewcomer(), 2U);
    EXPECT_EQ(searchTime, TODAY) << "with no hello of another node to wake it";
}

}  // namespace lumora_link::test
