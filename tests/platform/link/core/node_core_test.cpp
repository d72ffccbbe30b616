// The whole protocol between two to fifty nodes, in no time.
#include "platform/link/core/node_core.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <set>

#include "platform/link/wire/link_format.h"
#include "tests/platform/link/core/fake_network.h"

namespace lumora_link::test {

namespace {

using std::chrono::hours;
using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

std::vector<Endpoint> EndpointsOf(const std::vector<NodeDescription>& nodes) {
    std::vector<Endpoint> endpoints;
    for (const NodeDescription& node : nodes) {
        endpoints.push_back(node.endpoint);
    }
    return endpoints;
}

// "+2" for the addition, "-2" for the removal of the device that was counted second.
std::vector<std::string> EventsOf(const FakeNode& node) {
    std::vector<std::string> texts;
    for (const DeviceEvent& event : node.Seen().events) {
        texts.push_back((event.added ? "+" : "-") + std::to_string(event.number));
    }
    return texts;
}

struct NodeCoreTest : testing::Test {
    std::vector<Endpoint> Search(FakeNode& node, const std::string& deviceType) {
        const TimePoint start = network.Now();
        const std::uint64_t ticket = node.Find(deviceType);
        EXPECT_TRUE(network.RunUntil([&] { return node.Seen().found.count(ticket) != 0; }, seconds(2)));
        searchTime = std::chrono::duration_cast<Milliseconds>(network.Now() - start);
        return EndpointsOf(node.Seen().found.at(ticket));
    }

    Outcome Ask(FakeNode& node, const Endpoint& to, std::uint8_t method, const std::string& key,
                const std::string& value) {
        const TimePoint start = network.Now();
        const std::uint64_t ticket = node.Ask(to, method, key, value);
        EXPECT_TRUE(network.RunUntil([&] { return node.Seen().outcomes.count(ticket) != 0; }, seconds(70)));
        requestTime = std::chrono::duration_cast<Milliseconds>(network.Now() - start);
        return node.Seen().outcomes.at(ticket);
    }

    // What a stranger sends to that node alone, with that sender.
    void Tell(FakeNode& node, const char* path, const NodeDescription& claimed, const Endpoint& sender) {
        node.Core().OnGroupMessage(MakeNotice(path, FormatLink(claimed)), sender, 2, network.Now());
    }

    FakeNetwork network;
    Milliseconds searchTime{};
    Milliseconds requestTime{};
};

}  // namespace

TEST_F(NodeCoreTest, FindsTheNodesOfThatTypeInOrderOfTheirAddresses) {
    FakeNode& asker = network.Add("camera");
    FakeNode& first = network.Add("camera");
    network.Add("came");
    network.Add("camera2");
    network.Add(std::nullopt);
    FakeNode& last = network.Add("camera");

    EXPECT_THAT(Search(asker, "camera"), ElementsAre(first.At(), last.At()));
    EXPECT_LE(searchTime, Milliseconds(300));
}

TEST_F(NodeCoreTest, FindsNothingWithinTheLongestSearch) {
    FakeNode& asker = network.Add("camera");
    network.Run(seconds(1));
    EXPECT_THAT(Search(asker, "camera"), IsEmpty());
    EXPECT_LE(searchTime, Milliseconds(600));
}

TEST_F(NodeCoreTest, FindsTypesThatDoNotFitIntoOneOption) {
    const std::string type(MAX_TEXT_BYTES, 't');
    FakeNode& asker = network.Add("camera");
    FakeNode& device = network.Add(type);
    network.Add(type.substr(1));
    EXPECT_THAT(Search(asker, type), ElementsAre(device.At()));
}

TEST_F(NodeCoreTest, FindsTypesOfAnyBytes) {
    std::string type;
    for (int byte = 1; byte < 256; ++byte) {
        type.push_back(static_cast<char>(byte));
    }
    FakeNode& asker = network.Add("");
    FakeNode& device = network.Add(type);
    EXPECT_THAT(Search(asker, type), ElementsAre(device.At()));
}

TEST_F(NodeCoreTest, FindsFiftyNodesThroughLossRightAfterTheStart) {
    for (std::uint64_t seed = 1; seed <= 4; ++seed) {
        FakeNetwork lossy(seed);
        lossy.lossPercent = 20;
        lossy.duplicatePercent = 10;
        lossy.longestDelay = Milliseconds(10);
        FakeNode& asker = lossy.Add("reader");
        for (int count = 0; count < 49; ++count) {
            lossy.Add("camera");
        }
        const std::uint64_t ticket = asker.Find("camera");
        ASSERT_TRUE(lossy.RunUntil([&] { return asker.Seen().found.count(ticket) != 0; }, Milliseconds(610)));
        EXPECT_THAT(asker.Seen().found.at(ticket), SizeIs(49)) << "seed " << seed;
    }
}

TEST_F(NodeCoreTest, NodesOnTwoCommonNetworksAreFoundOnceAndNamedAlikeEverywhere) {
    const std::vector<LocalInterface> left{{2, "eth0", htonl(0x0a000001)}, {3, "wlan0", htonl(0x0b000001)}};
    const std::vector<LocalInterface> right{{2, "eth0", htonl(0x0a000002)}, {3, "wlan0", htonl(0x0b000002)}};
    FakeNode& asker = network.AddAt({1, 1}, left, 4001, "reader");
    FakeNode& device = network.AddAt({2, 1}, right, 4002, "camera");

    const std::vector<Endpoint> found = Search(asker, "camera");
    ASSERT_THAT(found, SizeIs(1));
    ASSERT_THAT(asker.Seen().events, SizeIs(1));
    EXPECT_EQ(asker.Seen().events.front().node.endpoint, found.front());

    Ask(asker, found.front(), code::GET, "key", "");
    ASSERT_THAT(device.Seen().handled, SizeIs(1));
    ASSERT_THAT(device.Seen().events, SizeIs(1));
    EXPECT_EQ(device.Seen().handled.front().requester, device.Seen().events.front().node.endpoint);
}

TEST_F(NodeCoreTest, AnnouncesNodesOnceAndTheirGoodbyeAtOnce) {
    FakeNode& watcher = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    network.Run(seconds(5));
    EXPECT_THAT(EventsOf(watcher), ElementsAre("+1"));
    EXPECT_EQ(watcher.Seen().events.front().node.deviceType, "camera");

    device.Exit();
    network.Run(Milliseconds(5));
    EXPECT_THAT(EventsOf(watcher), ElementsAre("+1", "-1"));
}

// A device ends the channel of an address that a removal names. A client that starts again must not lose its
// new channel to the late removal of its former process.
TEST_F(NodeCoreTest, AGoodbyeIsToldAsSoonAsThePortIsClosed) {
    FakeNode& watcher = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    network.Run(seconds(5));
    network.Cut(device);  // it answers nothing any more
    Tell(watcher, GOODBYE_PATH, {device.Identity(), device.At(), "camera"}, device.At());
    network.Run(Milliseconds(8));
    EXPECT_THAT(EventsOf(watcher), ElementsAre("+1"));
    network.Restore(device);
    network.Kill(device);
    network.Run(Milliseconds(12));
    EXPECT_THAT(EventsOf(watcher), ElementsAre("+1", "-1"));
}

TEST_F(NodeCoreTest, NoticesWithinThreeSecondsThatANodeWasKilled) {
    FakeNode& watcher = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    network.Run(seconds(5));
    network.Kill(device);
    EXPECT_TRUE(network.RunUntil([&] { return watcher.Seen().events.size() == 2; }, seconds(3)));
}

TEST_F(NodeCoreTest, NoticesWithinThreeSecondsThatALinkWasCutAndThatItIsBack) {
    FakeNode& watcher = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    network.Run(seconds(5));
    for (int round = 0; round < 2; ++round) {
        watcher.ForgetEvents();
        network.Cut(device);
        EXPECT_TRUE(network.RunUntil([&] { return watcher.Seen().events.size() == 1; }, seconds(3)));
        network.Restore(device);
        EXPECT_TRUE(network.RunUntil([&] { return watcher.Seen().events.size() == 2; }, seconds(2)));
        EXPECT_FALSE(watcher.Seen().events[0].added);
        EXPECT_TRUE(watcher.Seen().events[1].added);
    }
}

// In each period one node wakes up for its own hello. The others say theirs when they hear it. A hello comes
// back to its sender by the group's own loop, which this network counts as a wake-up.
TEST_F(NodeCoreTest, IdleNodesSayHelloTogetherAndTakeTurnsInWakingUp) {
    constexpr unsigned PERIODS = 100;
    const Milliseconds period = Presence::HELLO_INTERVAL - Presence::TURN;
    std::vector<FakeNode*> nodes;
    for (const std::size_t count : {2U, 10U}) {
        while (nodes.size() < count) {
            nodes.push_back(&network.Add("camera"));
            network.Run(Milliseconds(400));
        }
        network.Run(seconds(30));
        std::vector<unsigned> before;
        std::transform(nodes.begin(), nodes.end(), std::back_inserter(before),
                       [](const FakeNode* node) { return node->WakeUps(); });
        network.Run(PERIODS * period);
        for (std::size_t at = 0; at < count; ++at) {
            EXPECT_LE(nodes[at]->WakeUps() - before[at], PERIODS * 5 / 2 + 10) << at << " of " << count;
        }
    }
}

TEST_F(NodeCoreTest, NodesThatSaidHelloTogetherAreSpreadWhenTheyBecomeMany) {
    std::map<TimePoint, unsigned> hellos;
    for (std::size_t count = 0; count <= PeerDirectory::CROWD + 1; ++count) {
        network.Add("camera");
    }
    network.Run(seconds(3));
    std::set<std::uint16_t> seen;
    network.filter = [&](const CoapMessage& message) {
        if (PathOf(message) == HELLO_PATH && seen.insert(message.messageId).second) {
            ++hellos[network.Now()];
        }
        return true;
    };
    network.Run(seconds(1));
    for (const auto& [time, count] : hellos) {
        EXPECT_LE(count, PeerDirectory::CROWD / 4);
    }
}

TEST_F(NodeCoreTest, ANodeWithoutATypeSleepsWhileNothingHappens) {
    FakeNode& looker = network.Add(std::nullopt);
    network.Run(seconds(1));
    const unsigned before = looker.WakeUps();
    network.Run(seconds(60));
    EXPECT_EQ(looker.WakeUps(), before);
}

TEST_F(NodeCoreTest, LossRemovesNoNodeInAnHour) {
    network.lossPercent = 20;
    FakeNode& watcher = network.Add(std::nullopt);
    network.Add("camera");
    network.Add("camera");
    network.Run(hours(1));
    EXPECT_THAT(EventsOf(watcher), ElementsAre("+1", "+2"));
}

TEST_F(NodeCoreTest, ANewInstanceIsRemovedAndAdded) {
    FakeNode& watcher = network.Add(std::nullopt);
    const LocalInterface local{2, "eth0", htonl(0x0a000063)};
    FakeNode& before = network.AddAt({99, 1}, {local}, 4001, "camera");
    network.Run(seconds(2));
    network.Kill(before);
    network.AddAt({99, 2}, {local}, 4002, "camera");
    network.Run(seconds(10));
    EXPECT_THAT(EventsOf(watcher), ElementsAre("+1", "-1", "+2"));
}

TEST_F(NodeCoreTest, ANodeInThePlaceOfAnotherEndsTheOther) {
    FakeNode& watcher = network.Add(std::nullopt);
    const LocalInterface local{2, "eth0", htonl(0x0a000063)};
    FakeNode& before = network.AddAt({98, 1}, {local}, 4001, "camera");
    network.Run(seconds(2));
    network.Kill(before);
    network.AddAt({99, 1}, {local}, 4001, "camera");
    network.Run(seconds(10));
    EXPECT_THAT(EventsOf(watcher), ElementsAre("+1", "-1", "+2"));
}

TEST_F(NodeCoreTest, AKilledNodeIsRemovedBeforeItsSuccessorOnTheHostHasSearched) {
    FakeNode& device = network.Add("camera");
    const LocalInterface local{2, "eth0", htonl(0x0a000063)};
    for (std::uint64_t start = 1; start <= 20; ++start) {
        const auto port = static_cast<std::uint16_t>(5000 + start);
        FakeNode& client = network.AddAt({100 + start, 1}, {local}, port, "reader");
        EXPECT_THAT(Search(client, "camera"), ElementsAre(device.At()));
        EXPECT_EQ(device.Seen().events.back().node.endpoint, client.At());
        EXPECT_THAT(device.Seen().events, SizeIs(2 * start - 1)) << "-old +new";
        network.Run(Milliseconds(37 * start));
        network.Kill(client);
    }
}

TEST_F(NodeCoreTest, NeighboursThatAreAliveAreAskedOnceAndStay) {
    std::vector<FakeNode*> nodes;
    for (std::uint16_t number = 1; number <= 8; ++number) {
        const LocalInterface local{2, "eth0", htonl(0x0a000063)};
        nodes.push_back(&network.AddAt({100U + number, 1}, {local}, number, "camera"));
    }
    FakeNode& watcher = network.Add("reader");
    network.Run(seconds(3));
    EXPECT_THAT(watcher.Seen().events, SizeIs(8));

    int pings = 0;
    network.filter = [&pings](const CoapMessage& message) {
        pings += message.type == MessageType::Confirmable && PathOf(message) == WELL_KNOWN_PATH;
        return true;
    };
    network.AddAt({200, 1}, {LocalInterface{2, "eth0", htonl(0x0a000063)}}, 9, "camera");
    network.Run(seconds(3));
    // The watcher asks 8, each neighbour the 7 others; the newcomer asks each, in either order.
    EXPECT_LE(pings, 8 + 8 * 7 + 2 * 8);
    EXPECT_GE(pings, 8 + 8 * 7);
    for (const FakeNode* node : nodes) {
        EXPECT_THAT(node->Seen().events, SizeIs(9));
    }
    EXPECT_THAT(watcher.Seen().events, SizeIs(9));
}

TEST_F(NodeCoreTest, ARequestThatIsRefusedRemovesTheNodeAtOnce) {
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    network.Run(seconds(2));
    network.Kill(device);
    Ask(asker, device.At(), code::POST, "key", "");
    network.Run(Milliseconds(10));
    EXPECT_THAT(EventsOf(asker), ElementsAre("+1", "-1"));
}

TEST_F(NodeCoreTest, ASearchLeavesOutTheNodeThatRefuses) {
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& gone = network.Add("camera");
    FakeNode& device = network.Add("camera");
    network.Run(seconds(2));
    network.Kill(gone);
    EXPECT_THAT(Search(asker, "camera"), ElementsAre(device.At()));
    EXPECT_LE(searchTime, Milliseconds(300)) << "no node is missing any more";
    EXPECT_THAT(EventsOf(asker), ElementsAre("+1", "+2", "-1"));
}

TEST_F(NodeCoreTest, SecuredNodesAreNoticedAndRemovedLikeOthers) {
    network.secured = true;
    FakeNode& watcher = network.Add(std::nullopt);
    const LocalInterface local{2, "eth0", htonl(0x0a000063)};
    FakeNode& before = network.AddAt({99, 1}, {local}, 4001, "camera");
    network.Run(seconds(2));
    EXPECT_THAT(Search(watcher, "camera"), ElementsAre(before.At()));
    network.Kill(before);
    FakeNode& after = network.AddAt({99, 2}, {local}, 4003, "camera");
    network.Run(seconds(3));
    EXPECT_THAT(EventsOf(watcher), ElementsAre("+1", "-1", "+2"));
    after.Exit();
    network.Run(Milliseconds(10));
    EXPECT_THAT(EventsOf(watcher), ElementsAre("+1", "-1", "+2", "-2"));
}

TEST_F(NodeCoreTest, ForgedGoodbyesAndHellosRemoveAndReplaceNoNode) {
    FakeNode& watcher = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    network.Run(seconds(2));
    NodeDescription forged = {device.Identity(), device.At(), "camera"};
    NodeDescription restarted = forged;
    ++restarted.identity.instance;
    NodeDescription other = forged;
    other.deviceType = "printer";
    NodeDescription squatter = forged;
    squatter.identity.id = 4711;
    const Endpoint elsewhere{htonl(0x0a0000fe), 5};
    for (int round = 0; round < 1000; ++round) {
        Tell(watcher, GOODBYE_PATH, forged, device.At());
        for (const NodeDescription& node : {forged, restarted, other, squatter}) {
            Tell(watcher, HELLO_PATH, node, device.At());
            Tell(watcher, HELLO_PATH, node, elsewhere);
            Tell(watcher, GOODBYE_PATH, node, elsewhere);
        }
        network.Run(Milliseconds(10));
        // The squatter's own endpoint is elsewhere: it is a node like any other, until it answers no ping.
        std::vector<DeviceEvent> events = watcher.Seen().events;
        for (const DeviceEvent& event : events) {
            ASSERT_TRUE(event.added || event.node.identity.id != device.Identity().id) << round;
        }
    }
    EXPECT_THAT(Search(watcher, "camera"), Contains(device.At()));
    EXPECT_LE(searchTime, Milliseconds(600));
}

TEST_F(NodeCoreTest, AStrangerWithManyEndpointsKeepsNoNewcomerFromADevice) {
    FakeNode& newcomer = network.Add("reader");
    const NodeIdentity identity{99, 1};
    const in_addr_t strangersHost = htonl(0x0a0000fe);
    FakeNode* device = nullptr;
    for (std::uint16_t round = 0; round < 1000; ++round) {
        for (std::uint16_t count = 0; count < 10; ++count) {
            const Endpoint claimed{strangersHost, static_cast<std::uint16_t>(1000 + 10 * round + count)};
            Tell(newcomer, HELLO_PATH, {identity, claimed, "camera"}, claimed);
        }
        network.Run(Milliseconds(5));
        if (round == 1) {
            device = &network.AddAt(identity, {LocalInterface{2, "eth0", htonl(0x0a000063)}}, 4001, "camera");
        }
    }
    EXPECT_THAT(Search(newcomer, "camera"), ElementsAre(device->At()));
    EXPECT_LE(newcomer.MostOpenConversations(), 40U);
}

TEST_F(NodeCoreTest, AForgedGoodbyeRemovesNoNodeForWhichThereIsNoPing) {
    FakeNode& watcher = network.Add(std::nullopt);
    const in_addr_t strangersHost = htonl(0x0a0000fe);
    std::uint64_t id = 1000;
    // Silent nodes that are known longer take all pings, over and over.
    const auto invent = [&] {
        for (std::uint16_t count = 0; count < 100; ++count) {
            const Endpoint invented{strangersHost, static_cast<std::uint16_t>(++id)};
            Tell(watcher, HELLO_PATH, {{id, 1}, invented, "printer"}, invented);
        }
    };
    for (int round = 0; round < 20; ++round) {
        invent();
        network.Run(Milliseconds(100));
    }
    FakeNode& device = network.Add("camera");
    network.Run(Milliseconds(100));
    const NodeDescription forged = {device.Identity(), device.At(), "camera"};
    for (int round = 0; round < 20; ++round) {
        invent();
        Tell(watcher, GOODBYE_PATH, forged, device.At());
        network.Run(Milliseconds(100));
    }
    for (const DeviceEvent& event : watcher.Seen().events) {
        ASSERT_TRUE(event.added || event.node.identity.id != device.Identity().id);
    }
}

TEST_F(NodeCoreTest, AnAnswerToAPingMovesNoOtherNode) {
    FakeNode& watcher = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    network.Run(seconds(2));
    // The stranger answers pings as if it were the device, under its own address and another instance.
    NodeIdentity forged = device.Identity();
    ++forged.instance;
    network.AddAt(forged, {LocalInterface{2, "eth0", htonl(0x0a0000fe)}}, 5, "camera");
    network.Run(seconds(20));
    EXPECT_THAT(EventsOf(watcher), ElementsAre("+1"));
    EXPECT_THAT(Search(watcher, "camera"), ElementsAre(device.At()));
}

TEST_F(NodeCoreTest, AnAddressThatChangesIsFollowedWithinFiveSeconds) {
    FakeNode& watcher = network.Add(std::nullopt);
    const LocalInterface before{2, "eth0", htonl(0x0a000063)};
    const LocalInterface after{2, "eth0", htonl(0x0a000064)};
    FakeNode& device = network.AddAt({99, 1}, {before}, 4001, "camera");
    network.Run(seconds(2));
    network.Cut(device);
    FakeNode& moved = network.AddAt({99, 1}, {after}, 4001, "camera");
    EXPECT_TRUE(network.RunUntil([&] { return watcher.Seen().events.size() == 3; }, Milliseconds(5200)));
    EXPECT_EQ(watcher.Seen().events.back().node.endpoint, moved.At());
}

TEST_F(NodeCoreTest, AGoodbyeIsToldWithinASecondThoughTheHostDropsPings) {
    FakeNode& watcher = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    network.Run(seconds(2));
    device.Exit();
    network.Run(Milliseconds(1));  // the goodbyes are on their way
    network.Cut(device);
    EXPECT_TRUE(network.RunUntil([&] { return watcher.Seen().events.size() == 2; }, Milliseconds(700)));
}

TEST_F(NodeCoreTest, InventedNodesTakeFewPingsAndHinderNoSearch) {
    FakeNode& asker = network.Add("reader");
    FakeNode& device = network.Add("camera");
    network.Run(seconds(2));
    std::uint64_t id = 1000000;
    for (int round = 0; round < 500; ++round) {
        for (int count = 0; count < 20; ++count, ++id) {
            const auto port = static_cast<std::uint16_t>(1 + id % 60000);
            const Endpoint source{htonl(0x0a0000fe), port};
            Tell(asker, HELLO_PATH, {{id, 1}, source, "camera"}, source);
        }
        network.Run(Milliseconds(10));
        ASSERT_LE(asker.OpenConversations(), Presence::MAX_PINGS);
        if (round % 100 == 99) {
            EXPECT_THAT(Search(asker, "camera"), ElementsAre(device.At()));
            EXPECT_LE(searchTime, Milliseconds(300));
            EXPECT_EQ(Ask(asker, device.At(), code::GET, "key", "value").payload, "value");
            EXPECT_LE(requestTime, Milliseconds(10));
        }
    }
    network.Run(seconds(5));
    EXPECT_THAT(Search(asker, "camera"), ElementsAre(device.At()));
    EXPECT_EQ(asker.OpenConversations(), 0U);
    EXPECT_LE(asker.MostOpenConversations(), Presence::MAX_PINGS + 1) << "and a request";
}

TEST_F(NodeCoreTest, ANewcomerAmongManyIsGreetedByAFew) {
    constexpr unsigned NODES = 80;
    for (unsigned count = 0; count < NODES; ++count) {
        network.Add("camera");
    }
    network.Run(seconds(5));
    std::set<std::uint16_t> hellos;
    network.filter = [&hellos](const CoapMessage& message) {
        if (PathOf(message) == HELLO_PATH) {
            hellos.insert(message.messageId);
        }
        return true;
    };
    network.Add("camera");
    constexpr Milliseconds MOMENT{300};
    network.Run(MOMENT);
    const auto regular = NODES * MOMENT.count() / Presence::HELLO_INTERVAL_IN_CROWD.count();
    EXPECT_LE(hellos.size(), static_cast<std::size_t>(regular) + 3 * Presence::GREETERS);
}

TEST_F(NodeCoreTest, ANodeWhoseSocketsAreCloggedAnswersThoseThatReceive) {
    FakeNode& asker = network.Add("reader");
    FakeNode& device = network.Add("camera");
    network.Run(seconds(2));
    device.clogged = true;
    const std::size_t before = device.BytesToStrangers();
    CoapMessage ping = MakePing();
    ping.token = "12345678";
    device.OnDatagram(ping, {htonl(0x0a0000fe), 1000});
    device.Core().OnGroupMessage(MakeProbe("camera", "12345678", {}), {htonl(0x0a0000fe), 1000}, 2,
                                 network.Now());
    network.Run(Milliseconds(10));
    EXPECT_EQ(device.BytesToStrangers(), before);
    EXPECT_EQ(Ask(asker, device.At(), code::GET, "key", "").code, code::CONTENT);
    EXPECT_THAT(Search(asker, "camera"), ElementsAre(device.At()));
}

TEST_F(NodeCoreTest, AFloodInTheNameOfAnotherHostReachesItHardlyAtAll) {
    FakeNode& device = network.Add("camera");
    device.handler = [](const HandlerCall&) { return Outcome{code::CONTENT, std::string(1000, 's')}; };
    network.Run(seconds(2));
    std::size_t received = 0;
    CoapMessage request = MakePing();
    CoapMessage get;
    get.type = MessageType::Confirmable;
    get.code = code::GET;
    AddKey(get, "ServiceInfo");
    CoapMessage probe = MakeProbe("camera", "12345678", {});
    for (std::uint16_t number = 0; number < 10000; ++number) {
        const Endpoint victim{htonl(0x0a0000fe), static_cast<std::uint16_t>(1000 + number)};
        for (CoapMessage* message : {&request, &get}) {
            message->messageId = number;
            message->token = std::to_string(number);
            received += SerializeMessage(*message).size();
            device.OnDatagram(*message, victim);
        }
        received += SerializeMessage(probe).size();
        device.Core().OnGroupMessage(probe, victim, 2, network.Now());
        network.Run(Milliseconds(1));
    }
    RecordProperty("received", static_cast<int>(received));
    RecordProperty("sent", static_cast<int>(device.BytesToStrangers()));
    EXPECT_GT(device.BytesToStrangers(), 0U) << "a client that is no node is served";
    EXPECT_LT(device.BytesToStrangers(), received / 10);
}

TEST_F(NodeCoreTest, AHelloInTheNameOfAnotherHostBringsItFewPings) {
    constexpr std::size_t NODES = 30;
    std::vector<FakeNode*> nodes;
    for (std::size_t count = 0; count < NODES; ++count) {
        nodes.push_back(&network.Add("camera"));
    }
    network.Run(seconds(3));
    const Endpoint victim{htonl(0x0a0000fe), 5};
    for (FakeNode* node : nodes) {
        Tell(*node, HELLO_PATH, {{4711, 1}, victim, "camera"}, victim);
    }
    network.Run(seconds(10));
    std::size_t sent = 0;
    for (const FakeNode* node : nodes) {
        sent += node->BytesToStrangers();
    }
    RecordProperty("sent", static_cast<int>(sent));
    EXPECT_LE(sent, NODES * 4 * 40);
}

TEST_F(NodeCoreTest, HellosByUnicastGoOnlyToNodesThatHaveAnsweredAPing) {
    FakeNode& device = network.Add("camera");
    const Endpoint victim{htonl(0x0a0000fe), 5};
    network.Run(seconds(2));
    for (std::uint64_t id = 0; id < 100; ++id) {
        const NodeDescription claimed{
            {1000 + id, 1}, {victim.host, static_cast<std::uint16_t>(100 + id)}, "camera"};
        device.OnDatagram(MakeNotice(HELLO_PATH, FormatLink(claimed)), victim);
    }
    const std::size_t before = device.BytesToStrangers();
    network.Run(seconds(2));
    EXPECT_LT(device.BytesToStrangers() - before, 100U * 4 * 40) << "a few pings each";
}

TEST_F(NodeCoreTest, ANodeThatAsksMuchIsServedWithoutALimit) {
    FakeNode& asker = network.Add("reader");
    FakeNode& device = network.Add("camera");
    network.Run(seconds(2));
    const std::string value(1000, 'v');
    for (int count = 0; count < 500; ++count) {
        ASSERT_EQ(Ask(asker, device.At(), code::GET, "key", value).payload, value) << count;
        ASSERT_LE(requestTime, Milliseconds(50));
    }
}

TEST_F(NodeCoreTest, ANodeThatOnlyLooksIsNeitherAddedNorRemoved) {
    FakeNode& device = network.Add("camera");
    network.Run(seconds(2));
    for (const bool crashes : {false, true}) {
        FakeNode& looker = network.Add(std::nullopt);
        EXPECT_THAT(Search(looker, "camera"), ElementsAre(device.At()));
        EXPECT_EQ(Ask(looker, device.At(), code::GET, "key", "value").payload, "value");
        network.Run(seconds(2));
        EXPECT_THAT(EventsOf(looker), ElementsAre("+1")) << "it is told of devices";
        if (crashes) {
            network.Kill(looker);
        } else {
            looker.Exit();
        }
        network.Run(seconds(5));
    }
    EXPECT_THAT(EventsOf(device), IsEmpty());
}

TEST_F(NodeCoreTest, RequestsOfANodeThatOnlyLooksRunOnceThroughLoss) {
    network.lossPercent = 20;
    network.duplicatePercent = 10;
    FakeNode& looker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    for (int number = 0; number < 100; ++number) {
        EXPECT_EQ(Ask(looker, device.At(), code::POST, std::to_string(number), "value").payload, "value");
    }
    EXPECT_THAT(device.Seen().handled, SizeIs(100));
}

TEST_F(NodeCoreTest, SecuredAndOtherNodesDoNotSeeEachOther) {
    FakeNode& open = network.Add("camera");
    network.secured = true;
    FakeNode& closed = network.Add("camera");
    EXPECT_THAT(Search(open, "camera"), IsEmpty());
    EXPECT_THAT(Search(closed, "camera"), IsEmpty());
    EXPECT_THAT(EventsOf(open), IsEmpty());
    EXPECT_THAT(EventsOf(closed), IsEmpty());
}

TEST_F(NodeCoreTest, AHelloThatComesAfterTheGoodbyeRevivesNoNode) {
    network.longestDelay = Milliseconds(200);
    for (int round = 0; round < 20; ++round) {
        FakeNode& watcher = network.Add(std::nullopt);
        FakeNode& device = network.Add("camera");
        network.Run(Milliseconds(2000 + 37 * round));
        watcher.ForgetEvents();
        device.Exit();
        network.Run(seconds(5));
        EXPECT_THAT(watcher.Seen().events, SizeIs(1));
        watcher.Exit();
    }
}

TEST_F(NodeCoreTest, MulticastBlockedStaticPeersFindAndNoticeEachOther) {
    network.multicastBlocked = true;
    FakeNode& device = network.Add("camera");
    FakeNode& asker = network.Add("reader", {device.At()});

    EXPECT_THAT(Search(asker, "camera"), ElementsAre(device.At()));
    network.Run(seconds(1));
    EXPECT_THAT(EventsOf(device), ElementsAre("+1"));
    network.Kill(device);
    EXPECT_TRUE(network.RunUntil([&] { return asker.Seen().events.size() == 2; }, seconds(3)));
}

TEST_F(NodeCoreTest, CarriesKeysAndValuesOfEveryLengthUpToTheLimit) {
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    for (const std::size_t keyBytes : {0U, 1U, 255U, 256U, 510U, 1022U, 1023U}) {
        for (const std::size_t valueBytes : {0U, 1U, 255U, 256U, 257U, 1022U, 1023U}) {
            const std::string key(keyBytes, '\xfe');
            const std::string value(valueBytes, '\x01');
            const Outcome outcome = Ask(asker, device.At(), code::PUT, key, value);
            EXPECT_EQ(outcome.code, code::CONTENT);
            EXPECT_EQ(outcome.payload, value);
            EXPECT_EQ(device.Seen().handled.back().key, key);
        }
    }
    EXPECT_THAT(device.Seen().handled, SizeIs(49));
}

TEST_F(NodeCoreTest, EveryPostRunsOnceThoughDatagramsAreLostAndDoubled) {
    network.lossPercent = 20;
    network.duplicatePercent = 10;
    network.longestDelay = Milliseconds(30);
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    int succeeded = 0;
    for (int number = 0; number < 2000; ++number) {
        const Outcome outcome = Ask(asker, device.At(), code::POST, std::to_string(number), "");
        succeeded += outcome.code == code::CONTENT;
    }
    std::multiset<std::string> run;
    for (const HandlerCall& call : device.Seen().handled) {
        run.insert(call.key);
        EXPECT_EQ(run.count(call.key), 1U) << call.key;
    }
    EXPECT_GE(run.size(), static_cast<std::size_t>(succeeded));
    EXPECT_GE(succeeded, 1998);
}

TEST_F(NodeCoreTest, LongRequestsRunOnceThroughLossToo) {
    network.lossPercent = 20;
    network.duplicatePercent = 10;
    network.longestDelay = Milliseconds(30);
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    const std::string key(MAX_TEXT_BYTES, 'k');
    const std::string value(MAX_TEXT_BYTES, 'v');
    int succeeded = 0;
    for (int number = 0; number < 100; ++number) {
        succeeded += Ask(asker, device.At(), code::POST, key, value).payload == value;
    }
    EXPECT_GE(succeeded, 99);
    EXPECT_LE(device.Seen().handled.size(), 100U);
}

TEST_F(NodeCoreTest, ASlowHandlerIsWaitedForThroughLoss) {
    network.lossPercent = 20;
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    device.handlerTime = seconds(10);
    for (int round = 0; round < 20; ++round) {
        EXPECT_EQ(Ask(asker, device.At(), code::POST, "key", "value").payload, "value");
    }
    EXPECT_THAT(device.Seen().handled, SizeIs(20));
}

TEST_F(NodeCoreTest, AHandlerThatNeverEndsIsGivenUp) {
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    device.handlerTime = hours(2);
    EXPECT_EQ(Ask(asker, device.At(), code::POST, "key", "").code, code::EMPTY);
    EXPECT_LE(requestTime, seconds(60));
}

TEST_F(NodeCoreTest, APeerThatAnswersPingsButNeverAcknowledgesTheRequestIsGivenUpWithinFourSeconds) {
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    network.filter = [](const CoapMessage& message) {
        return PathOf(message) != RESOURCE_PATH || message.code == code::EMPTY;
    };
    for (const std::uint8_t method : {code::POST, code::PUT, code::DELETE, code::GET}) {
        const Endpoint stranger = network.Add("camera").At();
        EXPECT_EQ(Ask(asker, stranger, method, "key", "").code, code::EMPTY);
        EXPECT_EQ(requestTime, Network::UNACKNOWLEDGED);
        EXPECT_LE(requestTime, seconds(4));
    }
    EXPECT_THAT(device.Seen().handled, IsEmpty());
}

TEST_F(NodeCoreTest, AGetThatIsAcknowledgedButNotAnsweredEndsAfterEightSecondsAndAPostGoesOn) {
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    device.handlerTime = seconds(20);
    EXPECT_EQ(Ask(asker, device.At(), code::POST, "key", "value").payload, "value");
    EXPECT_EQ(Ask(asker, device.At(), code::GET, "key", "value").code, code::EMPTY);
    EXPECT_EQ(requestTime, seconds(8));
    EXPECT_EQ(Ask(asker, device.At(), code::POST, "key", "value").payload, "value");
}

TEST_F(NodeCoreTest, NodesThatLeaveRequestsUnansweredCostEachCallLittleAfterwards) {
    FakeNode& asker = network.Add(std::nullopt);
    std::vector<const FakeNode*> strangers;
    for (int count = 0; count < 3; ++count) {
        strangers.push_back(&network.Add("camera"));
    }
    FakeNode& device = network.Add("camera");
    network.ignoring = [&](const FakeNode& node) {
        return std::find(strangers.begin(), strangers.end(), &node) != strangers.end();
    };
    // As an application lists devices: one request after the other, in the order of the search.
    const auto list = [&](Milliseconds& untilAnswered, Milliseconds& whole) {
        const TimePoint start = network.Now();
        for (const Endpoint& endpoint : Search(asker, "camera")) {
            if (Ask(asker, endpoint, code::GET, "ServiceInfo", "{}").code == code::CONTENT) {
                untilAnswered = std::chrono::duration_cast<Milliseconds>(network.Now() - start);
            }
        }
        whole = std::chrono::duration_cast<Milliseconds>(network.Now() - start);
    };
    Milliseconds untilAnswered{};
    Milliseconds whole{};
    list(untilAnswered, whole);
    EXPECT_GT(untilAnswered, Milliseconds(0));
    EXPECT_LE(whole, seconds(12)) << "3.7 seconds each";
    list(untilAnswered, whole);
    EXPECT_LE(untilAnswered, Milliseconds(700)) << "it comes first";
    EXPECT_LE(whole, seconds(3));
    EXPECT_EQ(Search(asker, "camera").front(), device.At());
    network.Run(seconds(121));
    EXPECT_EQ(Search(asker, "camera").back(), device.At()) << "it is forgotten after two minutes";
}

TEST_F(NodeCoreTest, ManyNodesOfOneHostThatLeaveRequestsUnansweredCostTheTimeOfOne) {
    FakeNode& asker = network.Add(std::nullopt);
    const LocalInterface host{2, "eth0", htonl(0x0a0000c8)};
    std::vector<FakeNode*> nodes;
    for (std::uint16_t port = 1; port <= 4; ++port) {
        nodes.push_back(&network.AddAt({1000U + port, 1}, {host}, port, "camera"));
    }
    network.Run(seconds(1));
    network.ignoring = [&](const FakeNode& node) { return &node != nodes[3] && &node != &asker; };
    const auto ask = [&](std::size_t at) {
        return Ask(asker, nodes[at]->At(), code::GET, "key", "yes").payload;
    };
    EXPECT_EQ(ask(0), "");
    EXPECT_EQ(requestTime, Network::UNACKNOWLEDGED);
    EXPECT_EQ(ask(1), "");
    EXPECT_EQ(requestTime, RequestClient::LONGEST_GET_AFTER_SILENCE);
    EXPECT_EQ(ask(3), "yes");
    EXPECT_EQ(ask(2), "");
    EXPECT_EQ(requestTime, Network::UNACKNOWLEDGED) << "the host has answered meanwhile";
}

TEST_F(NodeCoreTest, AGetToANodeThatWasRemovedTakesLittleTime) {
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    FakeNode& other = network.AddAt({1000, 1}, {{2, "eth0", device.At().host}}, 7, "camera");
    network.Run(seconds(2));
    network.Cut(device);
    EXPECT_EQ(Ask(asker, device.At(), code::GET, "key", "").code, code::EMPTY);
    EXPECT_LE(requestTime, seconds(3) + RequestClient::LONGEST_GET_AFTER_SILENCE) << "removed meanwhile";
    const auto ask = [&](FakeNode& node) { return Ask(asker, node.At(), code::GET, "key", "yes").payload; };
    EXPECT_EQ(ask(other), "yes") << "it has the same address";
    EXPECT_EQ(ask(device), "");
    EXPECT_EQ(requestTime, RequestClient::LONGEST_GET_AFTER_SILENCE);
}

TEST_F(NodeCoreTest, AGetToANodeThatWasRemovedBeforeItBeganTakesLittleTime) {
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    network.Run(seconds(2));
    network.Cut(device);
    network.Run(seconds(5));
    ASSERT_EQ(asker.Seen().events.size(), 2U) << "added, removed";
    EXPECT_EQ(Ask(asker, device.At(), code::GET, "key", "yes").code, code::EMPTY);
    EXPECT_EQ(requestTime, RequestClient::LONGEST_GET_AFTER_SILENCE);
}

TEST_F(NodeCoreTest, AGetToANodeThatIsBackHasItsWholeTime) {
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    network.Run(seconds(2));
    network.Cut(device);
    network.Run(seconds(5));
    network.Restore(device);
    network.Run(seconds(5));
    ASSERT_EQ(asker.Seen().events.size(), 3U) << "added, removed, added";
    device.handlerTime = seconds(2);
    EXPECT_EQ(Ask(asker, device.At(), code::GET, "key", "yes").payload, "yes");
}

TEST_F(NodeCoreTest, ANodeThatAnswersAgainHasItsPlaceAndItsTimeAgain) {
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    FakeNode& other = network.Add("camera");
    network.Run(seconds(1));
    network.ignoring = [&](const FakeNode& node) { return &node == &device; };
    Ask(asker, device.At(), code::GET, "key", "");
    EXPECT_THAT(Search(asker, "camera"), ElementsAre(other.At(), device.At()));
    network.ignoring = nullptr;
    device.handlerTime = seconds(2);
    EXPECT_EQ(Ask(asker, device.At(), code::POST, "key", "value").payload, "value") << "only a GET is hasty";
    EXPECT_THAT(Search(asker, "camera"), ElementsAre(device.At(), other.At()));
    EXPECT_EQ(Ask(asker, device.At(), code::GET, "key", "value").payload, "value");
}

TEST_F(NodeCoreTest, AStrangerThatNumbersMessagesInTheNameOfAClientDoesNotStopIt) {
    FakeNode& client = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    FakeNode& stranger = network.Add(std::nullopt);
    EXPECT_EQ(Ask(client, device.At(), code::PUT, "key", "before").payload, "before");

    CoapMessage attack;
    attack.type = MessageType::Confirmable;
    attack.code = code::DELETE;
    attack.token = "x";
    AddKey(attack, "key");
    attack.Add(option::BLOCK1, EncodeBlock({0, true, 4}));
    attack.Add(option::REQUESTER,
               EncodeRequester({client.Identity(), client.At().port, 0x7fffffff, 0x7fffffff, 0x7fffffff}));
    stranger.Say(device.At(), attack);
    stranger.Say(device.At(), attack, client.At());
    network.Run(Milliseconds(10));
    EXPECT_EQ(Ask(client, device.At(), code::PUT, "key", "after").payload, "after");
    EXPECT_LE(requestTime, Milliseconds(2)) << "there and back";
}

TEST_F(NodeCoreTest, ARequestWhoseNumberIsTakenForClosedIsAskedAgainWithAnotherSecret) {
    FakeNode& client = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    std::set<std::uint64_t> secrets;
    bool spied = false;
    network.filter = [&](const CoapMessage& message) {
        const auto requester = DecodeRequester(message);
        if (requester) {
            secrets.insert(requester->secret);
        }
        if (requester && !spied) {
            spied = true;
            CoapMessage attack = message;
            attack.token = "x";
            Requester forged = *requester;
            forged.sequence = forged.oldestOpen = requester->sequence + 1000;
            attack.options.clear();
            AddKey(attack, "forged");
            attack.Add(option::REQUESTER, EncodeRequester(forged));
            client.Say(device.At(), attack);
        }
        return true;
    };
    const std::string value(MAX_TEXT_BYTES, 'v');
    EXPECT_EQ(Ask(client, device.At(), code::PUT, std::string(400, 'k'), value).payload, value);
    EXPECT_THAT(secrets, SizeIs(2));
    EXPECT_LE(requestTime, Milliseconds(30));
    network.filter = nullptr;
    EXPECT_EQ(Ask(client, device.At(), code::PUT, "key", "value").payload, "value");
}

TEST_F(NodeCoreTest, APeerThatAlwaysAnswersConflictIsNotAskedForEver) {
    FakeNode& client = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    device.handler = [](const HandlerCall&) { return Outcome{code::CONFLICT, ""}; };
    EXPECT_EQ(Ask(client, device.At(), code::PUT, "key", "value").code, code::CONFLICT);
    EXPECT_THAT(device.Seen().handled, SizeIs(3));
}

TEST_F(NodeCoreTest, ARequestUnderTheIdOfAnotherNodeIsTheSendersOwn) {
    FakeNode& victim = network.Add("reader");
    FakeNode& device = network.Add("camera");
    FakeNode& stranger = network.Add(std::nullopt);
    network.Run(seconds(1));
    CoapMessage attack;
    attack.code = code::GET;
    AddKey(attack, "key");
    attack.Add(option::REQUESTER, EncodeRequester({victim.Identity(), 22, 1, 1, 1}));
    stranger.Say(device.At(), attack);
    network.Run(Milliseconds(10));
    ASSERT_THAT(device.Seen().handled, SizeIs(1));
    EXPECT_EQ(device.Seen().handled.front().requester, (Endpoint{stranger.At().host, 22}));
    Ask(victim, device.At(), code::GET, "key", "");
    EXPECT_EQ(device.Seen().handled.back().requester, victim.At());
}

TEST_F(NodeCoreTest, AFloodOfUnfinishedValuesLeavesOtherAddressesTheirs) {
    FakeNode& client = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    FakeNode& stranger = network.Add(std::nullopt);
    for (std::uint32_t number = 1; number <= 200; ++number) {
        CoapMessage first;
        first.code = code::PUT;
        first.messageId = static_cast<std::uint16_t>(number);
        AddKey(first, "key");
        first.Add(option::BLOCK1, EncodeBlock({0, true, 4}));
        first.Add(option::REQUESTER, EncodeRequester({{5000 + number, 1}, 22, 1, 1, number}));
        stranger.Say(device.At(), first);
    }
    network.Run(Milliseconds(10));
    const std::string value(MAX_TEXT_BYTES, 'v');
    EXPECT_EQ(Ask(client, device.At(), code::PUT, std::string(400, 'k'), value).payload, value);
}

TEST_F(NodeCoreTest, ASearchAnswerWithSeveralLinksIsReadForTheOneWithTheType) {
    FakeNode& asker = network.Add("reader");
    FakeNode& device = network.Add("camera");
    // A hello alone would make the device known.
    network.filter = [](const CoapMessage& message) { return PathOf(message) != HELLO_PATH; };
    network.rewrite = [&](CoapMessage& message, const FakeNode&) {
        if (message.code == code::CONTENT && message.payload.find("camera") != std::string::npos) {
            message.payload = "</sensors/t>;rt=\"a,b\";ct=40," + message.payload + ",</other>";
        }
    };
    EXPECT_THAT(Search(asker, "camera"), ElementsAre(device.At()));
}

TEST_F(NodeCoreTest, AnAbsentPeerFailsInSevenSecondsAndARefusedPortAtOnce) {
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    network.Cut(device);
    EXPECT_EQ(Ask(asker, device.At(), code::POST, "key", "").code, code::EMPTY);
    EXPECT_LE(requestTime, seconds(7));
    network.Restore(device);
    network.Kill(device);
    EXPECT_EQ(Ask(asker, device.At(), code::POST, "key", "").code, code::EMPTY);
    EXPECT_LE(requestTime, Milliseconds(10));
}

TEST_F(NodeCoreTest, APeerThatGoesWhileItHandlesFailsInSevenSeconds) {
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    device.handlerTime = seconds(30);
    const std::uint64_t ticket = asker.Ask(device.At(), code::POST, "key", "");
    network.Run(seconds(10));
    EXPECT_THAT(asker.Seen().outcomes, IsEmpty());
    network.Cut(device);
    EXPECT_TRUE(network.RunUntil([&] { return asker.Seen().outcomes.count(ticket) != 0; }, seconds(7)));
}

TEST_F(NodeCoreTest, AnAnswerWhoseDatagramsAreLostIsAskedForWithTheSameId) {
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    int lost = 0;
    network.filter = [&lost](const CoapMessage& message) {
        const bool answer = message.type == MessageType::Acknowledgement && message.payload == "value";
        return !answer || ++lost > 3;
    };
    EXPECT_EQ(Ask(asker, device.At(), code::POST, "key", "value").payload, "value");
    EXPECT_THAT(device.Seen().handled, SizeIs(1));
    EXPECT_EQ(lost, 4);
}

TEST_F(NodeCoreTest, AFullQueueIsAnsweredAsUnavailable) {
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    device.queueFull = true;
    EXPECT_EQ(Ask(asker, device.At(), code::POST, "key", "").code, code::UNAVAILABLE);
}

TEST_F(NodeCoreTest, AnEndingNodeAnswersWhatItDoesNotHandleAnyMore) {
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    device.handlerTime = seconds(5);
    const std::uint64_t ticket = asker.Ask(device.At(), code::POST, "key", "");
    network.Run(Milliseconds(50));
    device.Core().RefuseRequests();
    EXPECT_EQ(Ask(asker, device.At(), code::POST, "other", "").code, code::UNAVAILABLE);
    device.Exit();
    network.Run(Milliseconds(50));
    EXPECT_EQ(asker.Seen().outcomes.at(ticket).code, code::UNAVAILABLE);
    EXPECT_THAT(device.Seen().handled, SizeIs(1));
}

TEST_F(NodeCoreTest, ClosingEndsTheNodesOwnRequestsAndSearches) {
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    device.handlerTime = seconds(5);
    const std::uint64_t request = asker.Ask(device.At(), code::POST, "key", "");
    const std::uint64_t search = asker.Find("camera");
    asker.Exit();
    EXPECT_EQ(asker.Seen().outcomes.at(request).code, code::EMPTY);
    EXPECT_THAT(asker.Seen().found.at(search), IsEmpty());
}

TEST_F(NodeCoreTest, RequestsOfOneRequesterAreHandledInTheirOrder) {
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    for (int number = 0; number < 50; ++number) {
        asker.Ask(device.At(), code::POST, std::to_string(number), "");
    }
    network.Run(seconds(1));
    ASSERT_THAT(device.Seen().handled, SizeIs(50));
    for (std::size_t number = 0; number < 50; ++number) {
        EXPECT_EQ(device.Seen().handled[number].key, std::to_string(number));
    }
}

TEST_F(NodeCoreTest, WhoAsksWithoutAnEndIsNotAnsweredWithoutAnEnd) {
    FakeNode& asker = network.Add(std::nullopt);
    FakeNode& device = network.Add("camera");
    network.Run(seconds(1));
    const unsigned before = device.Datagrams();
    for (int count = 0; count < 100; ++count) {
        asker.Find("camera");
    }
    network.Run(seconds(1));
    EXPECT_LT(device.Datagrams() - before, 200U) << "of 400 probes in the first second alone";
}

TEST_F(NodeCoreTest, FiftyNodesPingLittleThroughLossAndRemoveNoNode) {
    std::vector<FakeNode*> nodes;
    for (int count = 0; count < 50; ++count) {
        nodes.push_back(&network.Add("camera"));
    }
    network.Run(seconds(2));
    network.lossPercent = 20;
    unsigned pings = 0;
    network.filter = [&pings](const CoapMessage& message) {
        pings += message.type == MessageType::Confirmable && PathOf(message) == WELL_KNOWN_PATH;
        return true;
    };
    network.Run(seconds(10));
    EXPECT_LT(pings, 10 * 50 * 10U) << "ten per node and second";
    for (const FakeNode* node : nodes) {
        EXPECT_THAT(node->Seen().events, SizeIs(49));
    }
}

TEST_F(NodeCoreTest, AmongManyNodesHellosAreSpreadWhenOneComesAndAfterwards) {
    constexpr std::size_t NODES = 80;
    constexpr Milliseconds MOMENT{50};
    for (std::size_t count = 0; count < NODES; ++count) {
        network.Add("camera");
    }
    network.Run(seconds(1));
    std::map<std::uint16_t, TimePoint> hellos;  // each is delivered to all nodes
    network.filter = [&](const CoapMessage& message) {
        if (PathOf(message) == HELLO_PATH) {
            hellos.try_emplace(message.messageId, network.Now());
        }
        return true;
    };
    network.Add("camera");
    network.Run(seconds(2));
    std::multiset<TimePoint> times;
    for (const auto& [messageId, time] : hellos) {
        times.insert(time);
    }
    for (const TimePoint first : times) {
        const auto together = std::distance(times.lower_bound(first), times.upper_bound(first + MOMENT));
        ASSERT_LT(together, static_cast<std::ptrdiff_t>(NODES) / 2);
    }
}

TEST_F(NodeCoreTest, FiftyNodesKnowEachOther) {
    std::vector<FakeNode*> nodes;
    for (int count = 0; count < 50; ++count) {
        nodes.push_back(&network.Add("camera"));
    }
    network.Run(seconds(2));
    for (const FakeNode* node : nodes) {
        EXPECT_THAT(node->Seen().events, SizeIs(49));
    }
}

}  // namespace lumora_link::test
