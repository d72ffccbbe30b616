#include "platform/link/core/peer_directory.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

namespace lumora_link::test {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr std::uint64_t OWN_ID = 7;

NodeDescription Node(std::uint64_t id, std::uint32_t instance, const char* endpoint,
                     const char* type = "camera") {
    return {{id, instance}, *ParseEndpoint(endpoint, 0), type};
}

struct PeerDirectoryTest : testing::Test {
    bool Hear(const NodeDescription& node) { return directory.Hear(node, false, now); }
    void Wait(Milliseconds time) {
        now += time;
        directory.Tick(now);
    }
    std::vector<std::string> Events() {
        std::vector<std::string> texts;
        for (const DeviceEvent& event : directory.TakeEvents()) {
            texts.push_back((event.added ? "+" : "-") + std::to_string(event.number) + " " +
                            EndpointText(event.node.endpoint));
        }
        return texts;
    }

    TimePoint now{std::chrono::hours(1)};
    PeerDirectory directory{OWN_ID};
};

}  // namespace

TEST_F(PeerDirectoryTest, AddsANodeAtFirstSightOnly) {
    EXPECT_TRUE(Hear(Node(1, 1, "10.0.0.1:1")));
    EXPECT_FALSE(Hear(Node(1, 1, "10.0.0.1:1")));
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1"));
}

TEST_F(PeerDirectoryTest, DoesNotKnowItself) {
    EXPECT_FALSE(Hear(Node(OWN_ID, 1, "10.0.0.1:1")));
    EXPECT_THAT(Events(), IsEmpty());
}

TEST_F(PeerDirectoryTest, DoubtsASilentNodeBeforeItRemovesIt) {
    Hear(Node(1, 1, "10.0.0.1:1"));
    Wait(PeerDirectory::DOUBT_AFTER - Milliseconds(1));
    EXPECT_FALSE(directory.Find(1)->doubtedSince);
    Wait(Milliseconds(1));
    EXPECT_TRUE(directory.Find(1)->doubtedSince);
    Wait(PeerDirectory::GIVE_UP_AFTER - Milliseconds(1));
    EXPECT_NE(directory.Find(1), nullptr);
    Wait(Milliseconds(1));
    EXPECT_EQ(directory.Find(1), nullptr);
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1", "-1 10.0.0.1:1"));
    EXPECT_LE(PeerDirectory::DOUBT_AFTER + PeerDirectory::GIVE_UP_AFTER, Milliseconds(3000));
}

TEST_F(PeerDirectoryTest, InACrowdNobodyIsDoubtedForOneLostHello) {
    constexpr std::size_t NODES = PeerDirectory::CROWD + 1;
    const auto hearAll = [this] {
        for (std::uint64_t id = 0; id < NODES; ++id) {
            Hear(Node(101 + id, 1, ("10.0.0.1:" + std::to_string(101 + id)).c_str()));
        }
    };
    hearAll();
    Wait(PeerDirectory::SUSPICION);
    hearAll();
    Wait(PeerDirectory::DOUBT_IN_CROWD_AFTER - Milliseconds(1));
    EXPECT_THAT(directory.Doubted(), IsEmpty());
    Wait(Milliseconds(1));
    EXPECT_EQ(directory.Doubted().size(), NODES);
    Wait(PeerDirectory::GIVE_UP_IN_CROWD_AFTER - Milliseconds(1));
    EXPECT_EQ(directory.Peers().size(), NODES);
    Wait(Milliseconds(1));
    EXPECT_EQ(directory.Peers().size(), 0U);
    EXPECT_LT(PeerDirectory::DOUBT_IN_CROWD_AFTER + PeerDirectory::GIVE_UP_IN_CROWD_AFTER,
              Milliseconds(3000));
}

TEST_F(PeerDirectoryTest, AWordEndsTheDoubt) {
    Hear(Node(1, 1, "10.0.0.1:1"));
    Wait(PeerDirectory::DOUBT_AFTER);
    Hear(Node(1, 1, "10.0.0.1:1"));
    EXPECT_FALSE(directory.Find(1)->doubtedSince);
    Wait(PeerDirectory::GIVE_UP_AFTER - Milliseconds(1));
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1"));
}

TEST_F(PeerDirectoryTest, TellsWhenItWantsToBeAskedNext) {
    EXPECT_EQ(directory.NextDeadline(), TimePoint::max());
    Hear(Node(1, 1, "10.0.0.1:1"));
    EXPECT_EQ(directory.NextDeadline(), now + PeerDirectory::DOUBT_AFTER);
    Wait(PeerDirectory::DOUBT_AFTER);
    EXPECT_EQ(directory.NextDeadline(), now + PeerDirectory::GIVE_UP_AFTER);
}

TEST_F(PeerDirectoryTest, AGoodbyeRemovesAndItsInstanceStaysAway) {
    Hear(Node(1, 1, "10.0.0.1:1"));
    directory.Leave({1, 1}, inet_addr("10.0.0.1"), now);
    EXPECT_FALSE(Hear(Node(1, 1, "10.0.0.1:1")));
    EXPECT_TRUE(Hear(Node(1, 2, "10.0.0.1:1")));
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1", "-1 10.0.0.1:1", "+2 10.0.0.1:1"));
}

TEST_F(PeerDirectoryTest, AGoodbyeOfAnotherInstanceOrFromElsewhereIsNotBelieved) {
    Hear(Node(1, 2, "10.0.0.1:1"));
    directory.Leave({1, 1}, inet_addr("10.0.0.1"), now);
    directory.Leave({1, 2}, inet_addr("10.0.0.9"), now);
    EXPECT_NE(directory.Find(1), nullptr);
}

TEST_F(PeerDirectoryTest, ALateHelloOfTheInstanceBeforeChangesNothing) {
    Hear(Node(1, 1, "10.0.0.1:1"));
    Hear(Node(1, 2, "10.0.0.1:1"));
    EXPECT_FALSE(Hear(Node(1, 1, "10.0.0.1:1")));
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1", "-1 10.0.0.1:1", "+2 10.0.0.1:1"));
}

TEST_F(PeerDirectoryTest, ARefusedNodeIsRemovedButMayComeBack) {
    Hear(Node(1, 1, "10.0.0.1:1"));
    directory.Refuse(1, now);
    EXPECT_TRUE(Hear(Node(1, 1, "10.0.0.2:1")));
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1", "-1 10.0.0.1:1", "+2 10.0.0.2:1"));
}

TEST_F(PeerDirectoryTest, ANodeKeepsItsFirstAddressWhileThatIsAlive) {
    for (int round = 0; round < 10; ++round) {
        Hear(Node(1, 1, "10.0.0.1:1"));
        Hear(Node(1, 1, "11.0.0.1:1"));
        Wait(Milliseconds(750));
    }
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1"));
}

TEST_F(PeerDirectoryTest, ANodeWhoseAddressDiesMovesToTheOther) {
    Hear(Node(1, 1, "10.0.0.1:1"));
    for (int round = 0; round < 10; ++round) {
        Hear(Node(1, 1, "11.0.0.1:1"));
        Wait(Milliseconds(300));
    }
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1", "-1 10.0.0.1:1", "+2 11.0.0.1:1"));
}

TEST_F(PeerDirectoryTest, ANodeThatOffersSomethingElseIsAnotherDevice) {
    Hear(Node(1, 1, "10.0.0.1:1", "camera"));
    Hear(Node(1, 1, "10.0.0.1:1", "reader"));
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1", "-1 10.0.0.1:1", "+2 10.0.0.1:1"));
    EXPECT_THAT(directory.OfType("reader"), SizeIs(1));
    EXPECT_THAT(directory.OfType("camera"), IsEmpty());
}

TEST_F(PeerDirectoryTest, ANewcomerIsAnnouncedWhenItsNeighboursHaveAnswered) {
    Hear(Node(1, 1, "10.0.0.1:1"));
    Hear(Node(2, 1, "10.0.0.2:1"));
    Events();
    Hear(Node(3, 1, "10.0.0.1:2"));
    Wait(Milliseconds(1));
    EXPECT_THAT(directory.Doubted(), ElementsAre(1));
    EXPECT_THAT(Events(), IsEmpty());
    Hear(Node(1, 1, "10.0.0.1:1"));
    EXPECT_THAT(directory.Doubted(), IsEmpty());
    EXPECT_THAT(Events(), ElementsAre("+3 10.0.0.1:2"));
}

TEST_F(PeerDirectoryTest, ANeighbourThatRefusesIsRemovedBeforeTheNewcomerIsAdded) {
    Hear(Node(1, 1, "10.0.0.1:1"));
    Hear(Node(2, 1, "10.0.0.1:2"));
    Wait(Milliseconds(1));
    Hear(Node(1, 1, "10.0.0.1:1"));
    Events();
    Hear(Node(3, 1, "10.0.0.1:3"));
    Wait(Milliseconds(1));
    directory.Refuse(1, now);
    Hear(Node(2, 1, "10.0.0.1:2"));
    EXPECT_THAT(Events(), ElementsAre("-1 10.0.0.1:1", "+3 10.0.0.1:3"));
}

TEST_F(PeerDirectoryTest, ANeighbourOnAnyOfItsAddressesIsSuspected) {
    Hear(Node(1, 1, "10.0.0.1:1"));
    Hear(Node(1, 1, "11.0.0.1:1"));
    Hear(Node(2, 1, "11.0.0.1:2"));
    Wait(Milliseconds(1));
    EXPECT_THAT(directory.Doubted(), ElementsAre(1));
}

TEST_F(PeerDirectoryTest, ANewcomerIsNotHeldBackForLong) {
    Hear(Node(1, 1, "10.0.0.1:1"));
    Hear(Node(2, 1, "10.0.0.1:2"));
    EXPECT_EQ(directory.NextDeadline(), now);
    Wait(PeerDirectory::HOLD_BACK - Milliseconds(1));
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1"));
    EXPECT_LE(directory.NextDeadline(), now + Milliseconds(1));
    Wait(Milliseconds(1));
    EXPECT_THAT(Events(), ElementsAre("+2 10.0.0.1:2"));
}

TEST_F(PeerDirectoryTest, ANewcomerThatGoesBeforeItIsAnnouncedIsNeverMentioned) {
    Hear(Node(1, 1, "10.0.0.1:1"));
    Hear(Node(2, 1, "10.0.0.1:2"));
    directory.Leave({2, 1}, inet_addr("10.0.0.1"), now);
    Wait(PeerDirectory::HOLD_BACK);
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1"));
}

TEST_F(PeerDirectoryTest, ASuspectThatDoesNotAnswerGetsAsLongAsAnySilentNode) {
    Hear(Node(1, 1, "10.0.0.1:1"));
    directory.Suspect(1, now);
    Wait(Milliseconds(0));
    EXPECT_THAT(directory.Doubted(), ElementsAre(1));
    Wait(PeerDirectory::DOUBT_AFTER + PeerDirectory::GIVE_UP_AFTER - Milliseconds(1));
    EXPECT_NE(directory.Find(1), nullptr);
    Wait(Milliseconds(1));
    EXPECT_EQ(directory.Find(1), nullptr);
}

TEST_F(PeerDirectoryTest, OfManyNeighboursThoseThatWereSilentLongestAreAskedFirst) {
    for (std::uint64_t id = 100; id < 120; ++id) {
        Hear(Node(id, 1, ("10.0.0.1:" + std::to_string(id)).c_str()));
    }
    for (std::uint64_t id = 119; id >= 100; --id) {
        Wait(Milliseconds(30));
        Hear(Node(id, 1, ("10.0.0.1:" + std::to_string(id)).c_str()));
    }
    Wait(PeerDirectory::ASK_AGAIN_AFTER);
    EXPECT_THAT(directory.Doubted(), IsEmpty());
    Hear(Node(200, 1, "10.0.0.1:200"));
    Wait(Milliseconds(0));
    EXPECT_THAT(directory.Doubted(), SizeIs(PeerDirectory::ASKED_AT_ONCE));
    EXPECT_EQ(directory.Doubted().count(103), 0U) << "heard after the sixteenth";
    EXPECT_EQ(directory.Doubted().count(104), 1U);
    Wait(PeerDirectory::ASK_AGAIN_AFTER);
    EXPECT_THAT(directory.Doubted(), SizeIs(20));
}

namespace {

struct SecuredDirectoryTest : PeerDirectoryTest {
    SecuredDirectoryTest() { Hello(Node(1, 1, "10.0.0.1:1")); }
    bool Hello(const NodeDescription& node) { return secured.Hear(node, false, now); }
    bool Ping(const NodeDescription& node) {
        return secured.Hear(node, false, now, PeerDirectory::Source::PING);
    }
    bool IsInDoubt() {
        secured.Tick(now);
        return secured.Doubted().count(1) != 0;
    }
    PeerDirectory secured{OWN_ID, true};
};

}  // namespace

TEST_F(SecuredDirectoryTest, AGoodbyeIsBelievedOnlyWhenThePortRefuses) {
    secured.Leave({1, 1}, inet_addr("10.0.0.1"), now);
    EXPECT_TRUE(IsInDoubt());
    EXPECT_NE(secured.Find(1), nullptr);
    secured.Refuse(1, now);
    EXPECT_EQ(secured.Find(1), nullptr);
    EXPECT_FALSE(Hello(Node(1, 1, "10.0.0.1:1"))) << "a hello that was late";
}

TEST_F(SecuredDirectoryTest, ANodeThatAnswersAfterItsGoodbyeStays) {
    secured.Leave({1, 1}, inet_addr("10.0.0.1"), now);
    EXPECT_TRUE(IsInDoubt());
    Ping(Node(1, 1, "10.0.0.1:1"));
    EXPECT_FALSE(IsInDoubt());
    EXPECT_THAT(secured.TakeEvents(), SizeIs(1));
}

TEST_F(SecuredDirectoryTest, AHelloOfAnotherInstanceIsBelievedOnlyFromAPing) {
    EXPECT_FALSE(Hello(Node(1, 2, "10.0.0.1:1")));
    EXPECT_TRUE(IsInDoubt());
    EXPECT_EQ(secured.Find(1)->node.identity.instance, 1U);
    EXPECT_TRUE(Ping(Node(1, 2, "10.0.0.1:1")));
    EXPECT_EQ(secured.Find(1)->node.identity.instance, 2U);
}

TEST_F(SecuredDirectoryTest, AHelloThatOffersSomethingElseIsBelievedOnlyFromAPing) {
    EXPECT_FALSE(Hello(Node(1, 1, "10.0.0.1:1", "printer")));
    EXPECT_TRUE(IsInDoubt());
    EXPECT_EQ(secured.Find(1)->node.deviceType, "camera");
    EXPECT_TRUE(Ping(Node(1, 1, "10.0.0.1:1", "printer")));
    EXPECT_EQ(secured.Find(1)->node.deviceType, "printer");
}

TEST_F(SecuredDirectoryTest, WhoClaimsTheEndpointOfAnotherMustProveIt) {
    EXPECT_FALSE(Hello(Node(2, 1, "10.0.0.1:1")));
    EXPECT_TRUE(IsInDoubt());
    EXPECT_NE(secured.Find(1), nullptr);
    EXPECT_TRUE(Ping(Node(2, 1, "10.0.0.1:1")));
    EXPECT_EQ(secured.Find(1), nullptr);
}

TEST_F(PeerDirectoryTest, AFloodOfNodesIsBounded) {
    for (std::uint64_t id = 100; id < 6000; ++id) {
        const auto port = std::to_string(id);
        Hear(Node(id, 1, ("10.0.0.1:" + port).c_str()));
    }
    EXPECT_THAT(directory.Peers(), SizeIs(4096));
}

}  // namespace lumora_link::test
