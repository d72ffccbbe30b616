#include "platform/link/io/config.h"

#include <gmock/gmock.h>

#include <map>

namespace lumora_link::test {

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

Config Read(const std::map<std::string, std::string>& variables) {
    return ReadConfig([&](const char* name) {
        const auto at = variables.find(name);
        return at == variables.end() ? nullptr : at->second.c_str();
    });
}

}  // namespace

TEST(ConfigTest, NothingSetMeansEveryInterfaceAndAnyPort) {
    const Config config = Read({});
    EXPECT_THAT(config.interfaces, IsEmpty());
    EXPECT_THAT(config.peers, IsEmpty());
    EXPECT_EQ(config.port, 0);
}

TEST(ConfigTest, AnEmptyNameOfTheKeyFileIsNotTakenForNone) {
    EXPECT_FALSE(Read({}).pskFile);
    EXPECT_EQ(Read({{"LUMORA_LINK_PSK_FILE", "/key"}}).pskFile, "/key");
    EXPECT_EQ(Read({{"LUMORA_LINK_PSK_FILE", ""}}).pskFile, "");
}

TEST(ConfigTest, AKeyIsRequiredWhereTheSettingSaysSoOrCannotBeRead) {
    for (const char* value : {"1", "yes", "2", " "}) {
        EXPECT_TRUE(Read({{"LUMORA_LINK_REQUIRE_KEY", value}}).requireKey) << value;
    }
    testing::internal::CaptureStderr();
    EXPECT_TRUE(Read({{"LUMORA_LINK_REQUIRE_KEY", "no"}}).requireKey);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::HasSubstr("LUMORA_LINK_REQUIRE_KEY: \"no\" is neither 0 nor 1; using 1"));
}

TEST(ConfigTest, PrivateChannelsAreRequiredWhereTheSettingCannotBeRead) {
    EXPECT_EQ(Read({}).channelMode, LINK_CHANNEL_PREFER);
    EXPECT_EQ(Read({{"LUMORA_LINK_CHANNEL", ""}}).channelMode, LINK_CHANNEL_PREFER);
    EXPECT_EQ(Read({{"LUMORA_LINK_CHANNEL", "prefer"}}).channelMode, LINK_CHANNEL_PREFER);
    EXPECT_EQ(Read({{"LUMORA_LINK_CHANNEL", "plain"}}).channelMode, LINK_CHANNEL_PLAIN);
    EXPECT_EQ(Read({{"LUMORA_LINK_CHANNEL", "require"}}).channelMode, LINK_CHANNEL_REQUIRE);
    testing::internal::CaptureStderr();
    EXPECT_EQ(Read({{"LUMORA_LINK_CHANNEL", "Plain"}}).channelMode, LINK_CHANNEL_REQUIRE);
    EXPECT_THAT(
        testing::internal::GetCapturedStderr(),
        testing::HasSubstr("LUMORA_LINK_CHANNEL: \"Plain\" is not plain, prefer or require; using require"));
}

TEST(ConfigTest, ReadsListsWithCommasAndBlanks) {
    const Config config = Read({{"LUMORA_LINK_INTERFACE", "eth0, wlan0,,lo"},
                                {"LUMORA_LINK_PEERS", "192.0.2.1,192.0.2.2:7000"},
                                {"LUMORA_LINK_PORT", "6000"}});
    EXPECT_THAT(config.interfaces, ElementsAre("eth0", "wlan0", "lo"));
    ASSERT_EQ(config.peers.size(), 2U);
    EXPECT_EQ(EndpointText(config.peers[0]), "192.0.2.1:6000");
    EXPECT_EQ(EndpointText(config.peers[1]), "192.0.2.2:7000");
    EXPECT_EQ(config.port, 6000);
}

TEST(ConfigTest, PeersWithoutAnyPortAreAskedAtTheRegisteredOne) {
    EXPECT_EQ(Read({{"LUMORA_LINK_PEERS", "192.0.2.1"}}).peers.at(0).port, 5683);
}

TEST(ConfigTest, BadPortsAreLeftOut) {
    for (const char* port : {"0", "65536", "-1", "12x", "x", " 12"}) {
        EXPECT_EQ(Read({{"LUMORA_LINK_PORT", port}}).port, 0) << port;
    }
    EXPECT_EQ(Read({{"LUMORA_LINK_PORT", "65535"}}).port, 65535);
}

TEST(ConfigTest, BadPeersAreLeftOut) {
    for (const char* peer : {"host", "1.2.3", "1.2.3.4:", "1.2.3.4:0", "1.2.3.4:x", "1.2.3.4:70000", "::1"}) {
        EXPECT_THAT(Read({{"LUMORA_LINK_PEERS", peer}}).peers, IsEmpty()) << peer;
    }
}

TEST(ConfigTest, AnImpossibleInterfaceDoesNotMeanEveryInterface) {
    EXPECT_THAT(Read({{"LUMORA_LINK_INTERFACE", std::string(100, 'x')}}).interfaces,
                ElementsAre(std::string(100, 'x')));
}

}  // namespace lumora_link::test
