// Which keys are accepted, and which connections end when a key is withdrawn.
#include "platform/link/channel/peer_registry.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <array>
#include <cstring>

#include "base/unique_fd.h"

namespace lumora_link::test {

namespace {

KeyRing RingOf(std::vector<Psk> keys) { return KeyRing(std::move(keys)); }

LinkRequester RequesterOf(const std::string& identity) {
    LinkRequester requester = {};
    identity.copy(requester.identity, sizeof requester.identity - 1);
    return requester;
}

constexpr Endpoint LAMP{0x0100007f, 40000};
constexpr Endpoint DOOR{0x0200007f, 40000};

struct PeerRegistryTest : testing::Test {
    void SetUp() override { registry.Begin(1, LINK_CHANNEL_PREFER, both); }

    PeerRegistry registry;
    const KeyRing both = RingOf({{"lamp", "first", {}}, {"door", "second", {}}});
    const KeyRing doorOnly = RingOf({{"door", "second", {}}});
    const KeyRing changed = RingOf({{"lamp", "third", {}}, {"door", "second", {}}});
};

struct SocketPair {
    SocketPair() {
        std::array<int, 2> both{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, both.data()), 0);
        own = lumora::UniqueFd(both[0]);
        peers = lumora::UniqueFd(both[1]);
    }
    bool IsShut() const {
        char byte = 0;
        return recv(own.Get(), &byte, 1, MSG_DONTWAIT) == 0;
    }
    lumora::UniqueFd own;
    lumora::UniqueFd peers;
};

TEST_F(PeerRegistryTest, TheModeIsTheStrictestOfTheNodesWithKeys) {
    EXPECT_EQ(registry.Mode(), LINK_CHANNEL_PREFER);
    registry.Begin(2, LINK_CHANNEL_REQUIRE, both);
    EXPECT_EQ(registry.Mode(), LINK_CHANNEL_REQUIRE);
    registry.End(2);
    registry.End(1);
    EXPECT_EQ(registry.Mode(), LINK_CHANNEL_PLAIN);
}

TEST_F(PeerRegistryTest, ARequesterCountsAsLongAsItsKeyIsAccepted) {
    const auto peer = registry.PeerOf(1, RequesterOf("lamp"));
    ASSERT_TRUE(peer);
    EXPECT_TRUE(peer->asDevice);
    EXPECT_TRUE(registry.Accepts(*peer));
    EXPECT_FALSE(registry.PeerOf(1, RequesterOf("other")));
    EXPECT_FALSE(registry.PeerOf(2, RequesterOf("lamp")));
    registry.UseKeys(1, both, doorOnly);
    EXPECT_FALSE(registry.Accepts(*peer));
    EXPECT_FALSE(registry.PeerOf(1, RequesterOf("lamp")));
}

TEST_F(PeerRegistryTest, ADeviceIsKnownByItsLatestAnswer) {
    EXPECT_FALSE(registry.DeviceAt(LAMP));
    registry.OnAnswer(1, LAMP, "door");
    registry.OnAnswer(1, LAMP, "lamp");
    registry.OnAnswer(1, DOOR, "door");
    const auto lamp = registry.DeviceAt(LAMP);
    ASSERT_TRUE(lamp);
    EXPECT_STREQ(lamp->requester.identity, "lamp");
    EXPECT_FALSE(lamp->asDevice);
    const auto door = registry.DeviceAt(DOOR);
    ASSERT_TRUE(door);
    EXPECT_STREQ(door->requester.identity, "door");
    EXPECT_NE(std::memcmp(lamp->requester.node, door->requester.node, sizeof lamp->requester.node), 0);
}

TEST_F(PeerRegistryTest, AnswersAreBounded) {
    registry.OnAnswer(1, LAMP, "lamp");
    for (std::uint16_t port = 1; port <= 200; ++port) {
        registry.OnAnswer(1, {DOOR.host, port}, "door");
    }
    EXPECT_FALSE(registry.DeviceAt(LAMP));
    EXPECT_TRUE(registry.DeviceAt({DOOR.host, 200}));
}

TEST_F(PeerRegistryTest, AConnectionByAKeyThatIsRemovedIsShutDown) {
    const SocketPair ofLamp;
    const SocketPair ofDoor;
    const PeerRegistry::Watch lamp(registry, *registry.PeerOf(1, RequesterOf("lamp")), ofLamp.own.Get());
    const PeerRegistry::Watch door(registry, *registry.PeerOf(1, RequesterOf("door")), ofDoor.own.Get());
    EXPECT_FALSE(lamp.IsWithdrawn());
    registry.UseKeys(1, both, doorOnly);
    EXPECT_TRUE(lamp.IsWithdrawn());
    EXPECT_TRUE(ofLamp.IsShut());
    EXPECT_FALSE(door.IsWithdrawn());
    EXPECT_FALSE(ofDoor.IsShut());
}

TEST_F(PeerRegistryTest, AnotherKeyOfTheSameNameIsAnotherKey) {
    const SocketPair sockets;
    const auto peer = registry.PeerOf(1, RequesterOf("lamp"));
    const PeerRegistry::Watch lamp(registry, *peer, sockets.own.Get());
    registry.UseKeys(1, both, changed);
    EXPECT_TRUE(lamp.IsWithdrawn());
    const PeerRegistry::Watch late(registry, *peer, sockets.own.Get());
    EXPECT_TRUE(late.IsWithdrawn());
    EXPECT_TRUE(registry.Accepts(*registry.PeerOf(1, RequesterOf("lamp"))));
}

TEST_F(PeerRegistryTest, TheEndOfANodeEndsNoConnection) {
    const SocketPair sockets;
    const auto peer = registry.PeerOf(1, RequesterOf("lamp"));
    const PeerRegistry::Watch lamp(registry, *peer, sockets.own.Get());
    registry.End(1);
    EXPECT_FALSE(lamp.IsWithdrawn());
    EXPECT_FALSE(registry.Accepts(*peer));
}

TEST_F(PeerRegistryTest, TheEstablishedPeerIsToldForEachRole) {
    const SocketPair sockets;
    registry.OnAnswer(1, LAMP, "lamp");
    {
        PeerRegistry::Watch asClient(registry, *registry.DeviceAt(LAMP), sockets.own.Get());
        EXPECT_FALSE(registry.EstablishedPeer(false));
        asClient.SetEstablished();
        ASSERT_TRUE(registry.EstablishedPeer(false));
        EXPECT_STREQ(registry.EstablishedPeer(false)->identity, "lamp");
        EXPECT_FALSE(registry.EstablishedPeer(true));
        registry.UseKeys(1, both, doorOnly);
        EXPECT_FALSE(registry.EstablishedPeer(false));
        registry.UseKeys(1, doorOnly, both);
    }
    PeerRegistry::Watch first(registry, *registry.PeerOf(1, RequesterOf("lamp")), sockets.own.Get());
    PeerRegistry::Watch second(registry, *registry.PeerOf(1, RequesterOf("door")), sockets.own.Get());
    first.SetEstablished();
    second.SetEstablished();
    EXPECT_STREQ(registry.EstablishedPeer(true)->identity, "door");
    EXPECT_FALSE(registry.EstablishedPeer(false));
}

}  // namespace

}  // namespace lumora_link::test
