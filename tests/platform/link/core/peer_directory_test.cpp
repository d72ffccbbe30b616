#include "platform/link/core/peer_directory.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include "platform/link/core/presence.h"

namespace lumora_link::test {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

constexpr std::uint64_t OWN_ID = 7;

NodeDescription Node(std::uint64_t id, std::uint32_t instance, const char* endpoint,
                     const char* type = "camera") {
    return {{id, instance}, *ParseEndpoint(endpoint, 0), type};
}

struct PeerDirectoryTest : testing::Test {
    bool OnHello(const NodeDescription& node) { return directory.OnHello(node, false, now); }
    // Nodes in doubt have been pinged before.
    void Wait(Milliseconds time) {
        directory.Tick(now);
        for (const std::uint64_t id : Doubted()) {
            directory.OnPinged(id, now);
        }
        WaitWithoutPings(time);
    }
    void WaitWithoutPings(Milliseconds time) {
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

    void OnGoodbye(const NodeIdentity& identity, const char* source) {
        directory.OnGoodbye(identity, inet_addr(source), now);
    }
    bool Pong(std::uint64_t pinged, const NodeDescription& node) {
        return directory.OnPong(pinged, node, now);
    }
    std::vector<std::uint64_t> Doubted() const { return directory.Doubted(1000); }

    TimePoint now{std::chrono::hours(1)};
    PeerDirectory directory{OWN_ID};
};

}  // namespace

TEST_F(PeerDirectoryTest, AddsANodeAtFirstSightOnly) {
    EXPECT_TRUE(OnHello(Node(1, 1, "10.0.0.1:1")));
    EXPECT_FALSE(OnHello(Node(1, 1, "10.0.0.1:1")));
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1"));
}

TEST_F(PeerDirectoryTest, DoesNotKnowItself) {
    EXPECT_FALSE(OnHello(Node(OWN_ID, 1, "10.0.0.1:1")));
    EXPECT_THAT(Events(), IsEmpty());
}

TEST_F(PeerDirectoryTest, DoubtsASilentNodeBeforeItRemovesIt) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    Wait(PeerDirectory::DOUBT_AFTER - Milliseconds(1));
    EXPECT_FALSE(directory.Find(1)->doubtedSince);
    Wait(Milliseconds(1));
    ASSERT_TRUE(directory.Find(1)->doubtedSince);
    Wait(PeerDirectory::GIVE_UP_AFTER - Milliseconds(1));
    EXPECT_NE(directory.Find(1), nullptr);
    Wait(Milliseconds(1));
    EXPECT_EQ(directory.Find(1), nullptr);
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1", "-1 10.0.0.1:1"));
    EXPECT_LE(PeerDirectory::DOUBT_AFTER + PeerDirectory::GIVE_UP_AFTER, Milliseconds(3000));
}

TEST_F(PeerDirectoryTest, AmongManyNodesOneLostHelloCausesNoProbe) {
    constexpr std::size_t NODES = PeerDirectory::CROWD + 1;
    const auto hearAll = [this] {
        for (std::uint64_t id = 0; id < NODES; ++id) {
            OnHello(Node(101 + id, 1, ("10.0.0.1:" + std::to_string(101 + id)).c_str()));
        }
    };
    hearAll();
    Wait(PeerDirectory::SUSPICION);
    hearAll();
    Wait(PeerDirectory::DOUBT_AFTER - Milliseconds(1));
    EXPECT_THAT(Doubted(), IsEmpty());
    Wait(Milliseconds(1));
    EXPECT_THAT(Doubted(), SizeIs(NODES));
    Wait(PeerDirectory::GIVE_UP_AFTER - Milliseconds(1));
    EXPECT_EQ(directory.Peers().size(), NODES);
    Wait(Milliseconds(1));
    EXPECT_EQ(directory.Peers().size(), 0U);
    EXPECT_LT(2 * Presence::HELLO_INTERVAL_IN_CROWD, PeerDirectory::DOUBT_AFTER);
}

TEST_F(PeerDirectoryTest, AWordEndsTheDoubt) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    Wait(PeerDirectory::DOUBT_AFTER);
    OnHello(Node(1, 1, "10.0.0.1:1"));
    EXPECT_FALSE(directory.Find(1)->doubtedSince);
    Wait(PeerDirectory::GIVE_UP_AFTER - Milliseconds(1));
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1"));
}

TEST_F(PeerDirectoryTest, TellsWhenItWantsToBeAskedNext) {
    EXPECT_EQ(directory.NextDeadline(), TimePoint::max());
    OnHello(Node(1, 1, "10.0.0.1:1"));
    EXPECT_EQ(directory.NextDeadline(), now + PeerDirectory::DOUBT_AFTER);
    Wait(PeerDirectory::DOUBT_AFTER);
    EXPECT_EQ(directory.NextDeadline(), now + PeerDirectory::GIVE_UP_AFTER);
}

TEST_F(PeerDirectoryTest, AGoodbyeIsBelievedWhenThePortRefusesAndItsInstanceStaysAway) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    OnGoodbye({1, 1}, "10.0.0.1");
    EXPECT_THAT(Doubted(), ElementsAre(1)) << "to be pinged at once";
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1"));
    directory.OnPortUnreachable(1, now);
    EXPECT_FALSE(OnHello(Node(1, 1, "10.0.0.1:1")));
    EXPECT_TRUE(OnHello(Node(1, 2, "10.0.0.1:1")));
    EXPECT_THAT(Events(), ElementsAre("-1 10.0.0.1:1", "+2 10.0.0.1:1"));
}

TEST_F(PeerDirectoryTest, AGoodbyeIsBelievedSoonWhenThePingIsNotAnswered) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    OnGoodbye({1, 1}, "10.0.0.1");
    OnHello(Node(1, 1, "10.0.0.1:1"));  // one that was delayed on its way
    Wait(PeerDirectory::GIVE_UP_AFTER_GOODBYE - Milliseconds(1));
    EXPECT_NE(directory.Find(1), nullptr);
    Wait(Milliseconds(1));
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1", "-1 10.0.0.1:1"));
    EXPECT_FALSE(OnHello(Node(1, 1, "10.0.0.1:1")));
    EXPECT_LE(PeerDirectory::GIVE_UP_AFTER_GOODBYE, Milliseconds(700));
}

TEST_F(PeerDirectoryTest, AGoodbyeIsNotBelievedBeforeAPingHasLeft) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    OnGoodbye({1, 1}, "10.0.0.1");
    WaitWithoutPings(PeerDirectory::LONGEST_WITHOUT_PING - Milliseconds(1000));
    EXPECT_NE(directory.Find(1), nullptr);
    Wait(PeerDirectory::GIVE_UP_AFTER_GOODBYE);
    EXPECT_EQ(directory.Find(1), nullptr);

    OnHello(Node(2, 1, "10.0.0.2:1"));
    OnGoodbye({2, 1}, "10.0.0.2");
    WaitWithoutPings(PeerDirectory::LONGEST_WITHOUT_PING);
    EXPECT_EQ(directory.Find(2), nullptr) << "there is an end";
}

TEST_F(PeerDirectoryTest, AGoodbyeOfAStrangersNodeDoesNotHideTheDeviceWithTheSameIdentity) {
    OnHello(Node(1, 1, "10.0.0.9:1"));
    OnGoodbye({1, 1}, "10.0.0.9");
    directory.OnPortUnreachable(1, now);
    EXPECT_TRUE(OnHello(Node(1, 1, "10.0.0.1:1")));
    EXPECT_FALSE(OnHello(Node(1, 1, "10.0.0.9:1")));
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.9:1", "-1 10.0.0.9:1", "+2 10.0.0.1:1"));
}

TEST_F(PeerDirectoryTest, AStrangersNodeThatAnsweredPingsDoesNotHideTheDeviceWhenItGoes) {
    OnHello(Node(1, 1, "10.0.0.9:1"));
    Pong(1, Node(1, 1, "10.0.0.9:1"));
    OnGoodbye({1, 1}, "10.0.0.9");
    directory.OnPortUnreachable(1, now);
    EXPECT_TRUE(OnHello(Node(1, 1, "10.0.0.1:1")));
}

TEST_F(PeerDirectoryTest, AnEndpointThatRefusedItsFirstPingIsIgnoredForAWhile) {
    OnHello(Node(1, 1, "10.0.0.9:1"));
    directory.OnPortUnreachable(1, now);
    EXPECT_FALSE(OnHello(Node(1, 1, "10.0.0.9:1")));
    Wait(Milliseconds(10000));
    EXPECT_TRUE(OnHello(Node(1, 1, "10.0.0.9:1")));
}

TEST_F(PeerDirectoryTest, AnUnconfirmedNodeThatIsHeardFromAnotherEndpointIsPingedAtOnce) {
    OnHello(Node(1, 1, "10.0.0.9:1"));
    OnHello(Node(1, 1, "10.0.0.1:1"));
    Wait(Milliseconds(0));
    EXPECT_THAT(Doubted(), ElementsAre(1));
    Pong(1, Node(1, 1, "10.0.0.9:1"));
    Wait(PeerDirectory::ASK_AGAIN_AFTER);
    OnHello(Node(1, 1, "10.0.0.1:1"));
    Wait(Milliseconds(0));
    EXPECT_THAT(Doubted(), IsEmpty()) << "a confirmed node is not";
}

TEST_F(PeerDirectoryTest, AGoodbyeOnEveryNetworkKeepsTheNodeAwayOnEach) {
    for (const char* endpoint : {"10.0.0.1:1", "11.0.0.1:1"}) {
        OnHello(Node(1, 1, endpoint));
    }
    OnGoodbye({1, 1}, "10.0.0.1");
    OnGoodbye({1, 1}, "11.0.0.1");
    directory.OnPortUnreachable(1, now);
    for (const char* endpoint : {"10.0.0.1:1", "11.0.0.1:1"}) {
        EXPECT_FALSE(OnHello(Node(1, 1, endpoint)));
    }
}

TEST_F(PeerDirectoryTest, ANodeThatAnswersAfterItsGoodbyeStaysAndIsNotGivenUpSoonAfterAnother) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    OnGoodbye({1, 1}, "10.0.0.1");
    Pong(1, Node(1, 1, "10.0.0.1:1"));
    EXPECT_THAT(Doubted(), IsEmpty());
    OnGoodbye({1, 1}, "10.0.0.1");
    Wait(PeerDirectory::DOUBT_AFTER + PeerDirectory::GIVE_UP_AFTER - Milliseconds(1));
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1"));
}

TEST_F(PeerDirectoryTest, ForgedClaimsDoNotMakeANodeAskedWithoutAnEnd) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    int asked = 0;
    for (int count = 0; count < 1000; ++count) {
        OnGoodbye({1, 1}, "10.0.0.1");
        OnHello(Node(1, 9, "10.0.0.9:1"));
        Wait(Milliseconds(1));
        if (!Doubted().empty()) {
            ++asked;
            Pong(1, Node(1, 1, "10.0.0.1:1"));
        }
    }
    EXPECT_LE(asked, 4);
}

TEST_F(PeerDirectoryTest, AGoodbyeOfAnotherInstanceOrFromElsewhereIsNotBelieved) {
    OnHello(Node(1, 2, "10.0.0.1:1"));
    OnGoodbye({1, 1}, "10.0.0.1");
    OnGoodbye({1, 2}, "10.0.0.9");
    EXPECT_NE(directory.Find(1), nullptr);
    EXPECT_THAT(Doubted(), IsEmpty());
}

TEST_F(PeerDirectoryTest, ALateHelloOfTheInstanceBeforeChangesNothing) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    Pong(1, Node(1, 2, "10.0.0.1:1"));
    EXPECT_FALSE(OnHello(Node(1, 1, "10.0.0.1:1")));
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1", "-1 10.0.0.1:1", "+2 10.0.0.1:1"));
}

TEST_F(PeerDirectoryTest, ARefusedNodeIsRemovedButMayComeBack) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    directory.OnPortUnreachable(1, now);
    EXPECT_TRUE(OnHello(Node(1, 1, "10.0.0.2:1")));
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1", "-1 10.0.0.1:1", "+2 10.0.0.2:1"));
}

TEST_F(PeerDirectoryTest, ANodeKeepsItsFirstAddressWhileThatIsAlive) {
    for (int round = 0; round < 10; ++round) {
        OnHello(Node(1, 1, "10.0.0.1:1"));
        OnHello(Node(1, 1, "11.0.0.1:1"));
        Wait(Milliseconds(0));
        if (!Doubted().empty()) {
            Pong(1, Node(1, 1, "10.0.0.1:1"));
        }
        Wait(Milliseconds(750));
    }
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1"));
}

TEST_F(PeerDirectoryTest, ANodeWhoseAddressDiesMovesToTheOther) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    for (int round = 0; round < 11; ++round) {
        OnHello(Node(1, 1, "11.0.0.1:1"));
        Wait(Milliseconds(300));
    }
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1", "-1 10.0.0.1:1", "+2 11.0.0.1:1"));
}

TEST_F(PeerDirectoryTest, ANodeThatOffersSomethingElseIsAnotherDevice) {
    OnHello(Node(1, 1, "10.0.0.1:1", "camera"));
    Pong(1, Node(1, 1, "10.0.0.1:1", "reader"));
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1", "-1 10.0.0.1:1", "+2 10.0.0.1:1"));
    EXPECT_THAT(directory.OfType("reader"), SizeIs(1));
    EXPECT_THAT(directory.OfType("camera"), IsEmpty());
}

TEST_F(PeerDirectoryTest, ANewcomerIsAnnouncedWhenItsNeighboursHaveAnswered) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    OnHello(Node(2, 1, "10.0.0.2:1"));
    Events();
    OnHello(Node(3, 1, "10.0.0.1:2"));
    Wait(Milliseconds(1));
    EXPECT_THAT(Doubted(), ElementsAre(1));
    EXPECT_THAT(Events(), IsEmpty());
    OnHello(Node(1, 1, "10.0.0.1:1"));
    EXPECT_THAT(Doubted(), IsEmpty());
    EXPECT_THAT(Events(), ElementsAre("+3 10.0.0.1:2"));
}

TEST_F(PeerDirectoryTest, ANeighbourThatRefusesIsRemovedBeforeTheNewcomerIsAdded) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    OnHello(Node(2, 1, "10.0.0.1:2"));
    Wait(Milliseconds(1));
    OnHello(Node(1, 1, "10.0.0.1:1"));
    Events();
    OnHello(Node(3, 1, "10.0.0.1:3"));
    Wait(Milliseconds(1));
    directory.OnPortUnreachable(1, now);
    OnHello(Node(2, 1, "10.0.0.1:2"));
    EXPECT_THAT(Events(), ElementsAre("-1 10.0.0.1:1", "+3 10.0.0.1:3"));
}

TEST_F(PeerDirectoryTest, ANeighbourOnAnyOfItsAddressesIsSuspected) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    OnHello(Node(1, 1, "11.0.0.1:1"));
    OnHello(Node(2, 1, "11.0.0.1:2"));
    Wait(Milliseconds(1));
    EXPECT_THAT(Doubted(), ElementsAre(1));
}

TEST_F(PeerDirectoryTest, ANewcomerIsNotHeldBackForLong) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    OnHello(Node(2, 1, "10.0.0.1:2"));
    EXPECT_EQ(directory.NextDeadline(), now);
    Wait(PeerDirectory::HOLD_BACK - Milliseconds(1));
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1"));
    EXPECT_LE(directory.NextDeadline(), now + Milliseconds(1));
    Wait(Milliseconds(1));
    EXPECT_THAT(Events(), ElementsAre("+2 10.0.0.1:2"));
}

TEST_F(PeerDirectoryTest, ANewcomerThatGoesBeforeItIsAnnouncedIsNeverMentioned) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    OnHello(Node(2, 1, "10.0.0.1:2"));
    directory.OnPortUnreachable(2, now);
    Wait(PeerDirectory::HOLD_BACK);
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1"));
}

TEST_F(PeerDirectoryTest, ASuspectThatDoesNotAnswerGetsAsLongAsAnySilentNode) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    directory.Suspect(1, now);
    Wait(Milliseconds(0));
    EXPECT_THAT(Doubted(), ElementsAre(1));
    Wait(PeerDirectory::DOUBT_AFTER + PeerDirectory::GIVE_UP_AFTER - Milliseconds(1));
    EXPECT_NE(directory.Find(1), nullptr);
    Wait(Milliseconds(1));
    EXPECT_EQ(directory.Find(1), nullptr);
}

TEST_F(PeerDirectoryTest, OfManyNeighboursThoseThatWereSilentLongestAreAskedFirst) {
    for (std::uint64_t id = 100; id < 120; ++id) {
        OnHello(Node(id, 1, ("10.0.0.1:" + std::to_string(id)).c_str()));
    }
    for (std::uint64_t id = 119; id >= 100; --id) {
        Wait(Milliseconds(30));
        OnHello(Node(id, 1, ("10.0.0.1:" + std::to_string(id)).c_str()));
    }
    Wait(PeerDirectory::ASK_AGAIN_AFTER);
    EXPECT_THAT(Doubted(), IsEmpty());
    OnHello(Node(200, 1, "10.0.0.1:200"));
    Wait(Milliseconds(0));
    EXPECT_THAT(Doubted(), SizeIs(PeerDirectory::ASKED_AT_ONCE));
    EXPECT_THAT(Doubted(), Not(Contains(103))) << "heard after the sixteenth";
    EXPECT_THAT(Doubted(), Contains(104));
    Wait(PeerDirectory::ASK_AGAIN_AFTER);
    EXPECT_THAT(Doubted(), SizeIs(20));
}

TEST_F(PeerDirectoryTest, AHelloOfAnotherInstanceIsBelievedOnlyFromAPing) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    EXPECT_FALSE(OnHello(Node(1, 2, "10.0.0.1:1")));
    Wait(Milliseconds(0));
    EXPECT_THAT(Doubted(), ElementsAre(1));
    EXPECT_EQ(directory.Find(1)->node.identity.instance, 1U);
    EXPECT_TRUE(Pong(1, Node(1, 2, "10.0.0.1:1")));
    EXPECT_EQ(directory.Find(1)->node.identity.instance, 2U);
}

TEST_F(PeerDirectoryTest, AHelloThatOffersSomethingElseIsBelievedOnlyFromAPing) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    EXPECT_FALSE(OnHello(Node(1, 1, "10.0.0.1:1", "printer")));
    Wait(Milliseconds(0));
    EXPECT_THAT(Doubted(), ElementsAre(1));
    EXPECT_EQ(directory.Find(1)->node.deviceType, "camera");
    EXPECT_TRUE(Pong(1, Node(1, 1, "10.0.0.1:1", "printer")));
    EXPECT_EQ(directory.Find(1)->node.deviceType, "printer");
}

TEST_F(PeerDirectoryTest, WhoClaimsTheEndpointOfAnotherMustProveIt) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    EXPECT_FALSE(OnHello(Node(2, 1, "10.0.0.1:1")));
    Wait(Milliseconds(0));
    EXPECT_THAT(Doubted(), ElementsAre(1));
    EXPECT_NE(directory.Find(1), nullptr);
    EXPECT_TRUE(Pong(1, Node(2, 1, "10.0.0.1:1")));
    EXPECT_EQ(directory.Find(1), nullptr);
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1", "-1 10.0.0.1:1", "+2 10.0.0.1:1"));
}

TEST_F(PeerDirectoryTest, AnAnswerSaysNothingAboutNodesAtOtherEndpoints) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    OnHello(Node(9, 1, "10.0.0.9:1"));
    for (const std::uint32_t instance : {1U, 2U}) {
        EXPECT_FALSE(Pong(9, Node(1, instance, "10.0.0.1:1")));
        EXPECT_EQ(directory.Find(1)->node.identity.instance, 1U);
        EXPECT_EQ(EndpointText(directory.Find(1)->node.endpoint), "10.0.0.1:1");
        OnHello(Node(9, 1, "10.0.0.9:1"));
    }
}

TEST_F(PeerDirectoryTest, HellosWithoutAnAnswerDoNotKeepThePlaceOfANodeThatClaimsIt) {
    OnHello(Node(1, 100, "10.0.0.9:1"));
    OnHello(Node(1, 1, "10.0.0.1:1"));
    for (std::uint32_t time = 0; time < 1300; time += 50) {
        OnHello(Node(1, 100, "10.0.0.9:1"));
        OnHello(Node(1, 101 + time, "10.0.0.9:1"));
        OnHello(Node(1, 1, "10.0.0.1:1"));
        Wait(Milliseconds(50));
    }
    EXPECT_EQ(EndpointText(directory.Find(1)->node.endpoint), "10.0.0.1:1");
    OnHello(Node(1, 100, "10.0.0.9:1"));
    Pong(1, Node(1, 1, "10.0.0.1:1"));
    for (std::uint32_t time = 0; time < 5000; time += 50) {
        OnHello(Node(1, 101 + time, "10.0.0.9:1"));
        if (time % 1500 == 0) {
            OnHello(Node(1, 1, "10.0.0.1:1"));
        }
        Wait(Milliseconds(50));
    }
    EXPECT_EQ(EndpointText(directory.Find(1)->node.endpoint), "10.0.0.1:1");
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.9:1", "-1 10.0.0.9:1", "+2 10.0.0.1:1"));
}

TEST_F(PeerDirectoryTest, HellosFromElsewhereKeepNoNodeAlive) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    Pong(1, Node(1, 1, "10.0.0.1:1"));
    for (int count = 0; count < 30; ++count) {
        Wait(Milliseconds(100));
        if (count < 20) {
            OnHello(Node(1, 1, "10.0.0.9:1"));
        }
    }
    EXPECT_THAT(Events(), ElementsAre("+1 10.0.0.1:1", "-1 10.0.0.1:1"));
}

TEST_F(PeerDirectoryTest, ConfirmedNodesAndThenThoseKnownLongestArePingedFirst) {
    for (std::uint64_t id = 1; id <= 5; ++id) {
        OnHello(Node(10 - id, 1, ("10.0.0.1:" + std::to_string(id)).c_str()));
    }
    Pong(6, Node(6, 1, "10.0.0.1:4"));
    Wait(PeerDirectory::DOUBT_AFTER);
    EXPECT_THAT(directory.Doubted(3), ElementsAre(6, 9, 8));
}

TEST_F(PeerDirectoryTest, AFullTableMakesRoomAtTheExpenseOfTheAddressWithTheMostNodes) {
    OnHello(Node(1, 1, "10.0.0.1:1"));
    Pong(1, Node(1, 1, "10.0.0.1:1"));
    OnHello(Node(2, 1, "10.0.0.2:1"));
    for (std::uint64_t id = 100; id < 6000; ++id) {
        OnHello(Node(id, 1, ("10.0.0.9:" + std::to_string(id)).c_str()));
    }
    EXPECT_NE(directory.Find(1), nullptr);
    EXPECT_NE(directory.Find(2), nullptr);
    EXPECT_EQ(directory.Find(100), nullptr) << "the oldest of the flood";
    EXPECT_TRUE(OnHello(Node(3, 1, "10.0.0.3:1"))) << "a newcomer of another address";
    EXPECT_THAT(directory.Peers(), SizeIs(PeerDirectory::MAX_PEERS));
    EXPECT_EQ(directory.QuotaBites(), 2 + 5900 + 1 - PeerDirectory::MAX_PEERS);
}

TEST_F(PeerDirectoryTest, ConfirmedNodesAreNotPushedOut) {
    for (std::uint64_t id = 101; id <= 4196; ++id) {
        const NodeDescription node = Node(id, 1, ("10.0.0.1:" + std::to_string(id)).c_str());
        OnHello(node);
        Pong(id, node);
    }
    EXPECT_FALSE(OnHello(Node(5000, 1, "10.0.0.9:1")));
    EXPECT_NE(directory.Find(101), nullptr);
}

TEST_F(PeerDirectoryTest, AFloodOfNodesIsBounded) {
    for (std::uint64_t id = 100; id < 6000; ++id) {
        const auto port = std::to_string(id);
        OnHello(Node(id, 1, ("10.0.0.1:" + port).c_str()));
    }
    EXPECT_THAT(directory.Peers(), SizeIs(4096));
}

}  // namespace lumora_link::test
