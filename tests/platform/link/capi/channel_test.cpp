// Private channels between running nodes, by the operations of LinkSecurity alone.
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "base/unique_fd.h"
#include "link_security.h"
#include "tests/platform/link/capi/test_node.h"
#include "tests/support/eventually.h"

namespace lumora_link::test {

namespace {

using lumora_test::Eventually;
using testing::HasSubstr;

const LinkSecurity& Table() { return *GetLinkSecurity(); }

struct FreeOfC {
    void operator()(LinkChannel* channel) const { Table().FreeChannel(channel); }
    void operator()(LinkConnection* connection) const { Table().FreeConnection(connection); }
};
using Channel = std::unique_ptr<LinkChannel, FreeOfC>;
using TestConnection = std::unique_ptr<LinkConnection, FreeOfC>;

struct ChannelTest : testing::Test {
    void SetUp() override {
        std::string pattern = testing::TempDir() + "channel.XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder = pattern;
        device.handler = [this](const Request& request, std::string& reply) {
            std::array<char, LINK_MAX_OFFER> answer{};
            answered.reset(Table().AnswerChannel(request.value.c_str(), answer.data(), answer.size()));
            reply = answer.data();
            return answered == nullptr ? -1 : 0;
        };
        std::array<int, 2> both{};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, both.data()), 0);
        clientSocket = lumora::UniqueFd(both[0]);
        deviceSocket = lumora::UniqueFd(both[1]);
    }
    void TearDown() override {
        unsetenv("LUMORA_LINK_PSK_FILE");
        unsetenv("LUMORA_LINK_CHANNEL");
        std::filesystem::remove_all(folder);
    }
    void Write(const std::string& name, const std::string& keys) const {
        const std::string path = folder + "/" + name;
        std::ofstream(path + ".new") << keys;
        EXPECT_EQ(chmod((path + ".new").c_str(), 0600), 0);
        std::filesystem::rename(path + ".new", path);
    }
    bool StartWith(TestNode& node, const std::string& name, const std::string& keys) const {
        Write(name, keys);
        setenv("LUMORA_LINK_PSK_FILE", (folder + "/" + name).c_str(), 1);
        return node.Start();
    }
    // The whole agreement; the channels stay empty where a step fails.
    void Agree(AppResourceProxy* proxy) {
        std::array<char, LINK_MAX_OFFER> offer{};
        Channel made(Table().OfferChannel(offer.data(), offer.size()));
        ASSERT_NE(made, nullptr);
        const GetResult answer = Get(proxy, "setup", offer.data());
        answerText = answer.text;
        if (answer.result == 0 &&
            Table().CompleteChannel(made.get(), answer.text.c_str(), proxy->GetAddress(proxy),
                                    proxy->GetPort(proxy)) == 1) {
            offered = std::move(made);
        }
    }
    std::pair<int, int> ShakeHands(LinkDirection direction) {
        ofClient.reset(Table().OpenConnection(offered.get(), direction, 0, clientSocket.Get()));
        ofDevice.reset(Table().OpenConnection(answered.get(), direction, 1, deviceSocket.Get()));
        std::pair<int, int> results;
        for (int round = 0; round < 5; ++round) {
            results = {Table().Handshake(ofClient.get()), Table().Handshake(ofDevice.get())};
        }
        return results;
    }

    std::string folder;
    std::string answerText;
    TestNode asker{"reader"};
    TestNode device{"camera"};
    lumora::UniqueFd clientSocket;
    lumora::UniqueFd deviceSocket;
    Channel offered;
    Channel answered;
    TestConnection ofClient;
    TestConnection ofDevice;
};

TEST_F(ChannelTest, NodesWithAKeyAgreeAndKnowEachOther) {
    ASSERT_TRUE(StartWith(device, "device", "camera-1:1\nclient-7:7\n"));
    ASSERT_TRUE(StartWith(asker, "asker", "client-7:7\n"));
    EXPECT_EQ(Table().GetChannelMode(), LINK_CHANNEL_PREFER);
    Found found(asker, "camera");
    ASSERT_EQ(found.Size(), 1U);
    Agree(found.At(0));
    ASSERT_NE(offered, nullptr);
    LinkRequester peer = {};
    EXPECT_EQ(Table().GetChannelPeer(0, &peer), 0);
    for (const LinkDirection direction : {LINK_TO_DEVICE, LINK_TO_CLIENT}) {
        ASSERT_EQ(ShakeHands(direction), std::make_pair(1, 1));
        std::array<char, 10> bytes{};
        EXPECT_EQ(Table().Write(ofClient.get(), "private", 7), 7);
        EXPECT_EQ(Table().Read(ofDevice.get(), bytes.data(), bytes.size()), 7);
        EXPECT_STREQ(bytes.data(), "private");
    }
    for (const int asDevice : {0, 1}) {
        ASSERT_EQ(Table().GetChannelPeer(asDevice, &peer), 1);
        EXPECT_STREQ(peer.identity, "client-7");
    }
    ofClient.reset();
    ofDevice.reset();
    EXPECT_EQ(Table().GetChannelPeer(0, &peer), 0);
}

TEST_F(ChannelTest, TheDirectionsHaveDifferentKeys) {
    ASSERT_TRUE(StartWith(device, "device", "lumora:1\n"));
    ASSERT_TRUE(StartWith(asker, "asker", "lumora:1\n"));
    Found found(asker, "camera");
    ASSERT_EQ(found.Size(), 1U);
    Agree(found.At(0));
    ASSERT_NE(offered, nullptr);
    ofClient.reset(Table().OpenConnection(offered.get(), LINK_TO_CLIENT, 0, clientSocket.Get()));
    ofDevice.reset(Table().OpenConnection(answered.get(), LINK_TO_DEVICE, 1, deviceSocket.Get()));
    EXPECT_EQ(Table().Handshake(ofClient.get()), LINK_WANTS_READ);
    EXPECT_EQ(Table().Handshake(ofDevice.get()), LINK_FAILED);
    EXPECT_EQ(Table().Handshake(ofClient.get()), LINK_FAILED);
}

TEST_F(ChannelTest, AnAnswerToAnotherOfferIsOfNoUse) {
    ASSERT_TRUE(StartWith(device, "device", "lumora:1\n"));
    ASSERT_TRUE(StartWith(asker, "asker", "lumora:1\n"));
    Found found(asker, "camera");
    ASSERT_EQ(found.Size(), 1U);
    Agree(found.At(0));
    const std::string recorded = answerText;
    Agree(found.At(0));
    std::array<char, LINK_MAX_OFFER> offer{};
    offered.reset(Table().OfferChannel(offer.data(), offer.size()));
    ASSERT_EQ(Table().CompleteChannel(offered.get(), recorded.c_str(), found.At(0)->GetAddress(found.At(0)),
                                      found.At(0)->GetPort(found.At(0))),
              1);
    EXPECT_EQ(ShakeHands(LINK_TO_DEVICE), std::make_pair(int{LINK_FAILED}, int{LINK_FAILED}));
}

TEST_F(ChannelTest, WhatIsNoAgreementGivesNoChannel) {
    ASSERT_TRUE(StartWith(device, "device", "lumora:1\n"));
    ASSERT_TRUE(StartWith(asker, "asker", "lumora:1\n"));
    Found found(asker, "camera");
    ASSERT_EQ(found.Size(), 1U);
    AppResourceProxy* proxy = found.At(0);
    EXPECT_NE(Get(proxy, "setup", "{\"v\":2}").result, 0);

    std::array<char, LINK_MAX_OFFER> offer{};
    EXPECT_EQ(Table().OfferChannel(offer.data(), 20), nullptr);
    EXPECT_EQ(Table().OfferChannel(nullptr, 0), nullptr);
    offered.reset(Table().OfferChannel(offer.data(), offer.size()));
    errno = 0;
    EXPECT_EQ(Table().AnswerChannel(offer.data(), offer.data(), offer.size()), nullptr) << "no handler runs";
    EXPECT_EQ(errno, EPROTO);
    EXPECT_EQ(Table().OpenConnection(offered.get(), LINK_TO_DEVICE, 0, clientSocket.Get()), nullptr);
    const char* address = proxy->GetAddress(proxy);
    const int port = proxy->GetPort(proxy);
    EXPECT_EQ(Table().CompleteChannel(offered.get(), offer.data(), address, port), 1);
    EXPECT_EQ(Table().CompleteChannel(offered.get(), offer.data(), address, port), 0) << "twice";
    offered.reset(Table().OfferChannel(offer.data(), offer.size()));
    EXPECT_EQ(Table().CompleteChannel(offered.get(), offer.data(), "192.0.2.1", port), 0);
    EXPECT_EQ(Table().CompleteChannel(offered.get(), offer.data(), address, port + 1), 0);
    EXPECT_EQ(Table().CompleteChannel(offered.get(), offer.data(), "nowhere", port), 0);
    EXPECT_EQ(Table().CompleteChannel(offered.get(), "{}", address, port), 0);
    EXPECT_EQ(Table().CompleteChannel(offered.get(), nullptr, address, port), 0);
    Table().FreeChannel(nullptr);
    Table().FreeConnection(nullptr);
}

// One end's file loses the key of the channel.
struct RevokedKeyTest : ChannelTest, testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Ends, RevokedKeyTest, testing::Values("device", "asker"));

TEST_P(RevokedKeyTest, TheChannelEndsAtBothEnds) {
    ASSERT_TRUE(StartWith(device, "device", "lumora:1\nspare:2\n"));
    ASSERT_TRUE(StartWith(asker, "asker", "lumora:1\nspare:2\n"));
    Found found(asker, "camera");
    ASSERT_EQ(found.Size(), 1U);
    Agree(found.At(0));
    ASSERT_EQ(ShakeHands(LINK_TO_DEVICE), std::make_pair(1, 1));
    Write(GetParam(), "spare:2\n");
    const auto writes = [&] { return Table().Write(ofClient.get(), "x", 1) != LINK_FAILED; };
    EXPECT_TRUE(Eventually([&] { return !writes(); }));
    std::array<char, 10000> bytes{};
    while (Table().Read(ofDevice.get(), bytes.data(), bytes.size()) > 0) {
    }
    EXPECT_EQ(Table().Read(ofDevice.get(), bytes.data(), bytes.size()), LINK_FAILED);
    const bool atDevice = GetParam() == std::string("device");
    LinkChannel* channel = atDevice ? answered.get() : offered.get();
    EXPECT_EQ(Table().OpenConnection(channel, LINK_TO_CLIENT, 1, deviceSocket.Get()), nullptr);
}

TEST_F(ChannelTest, TheModeIsThatOfTheSetting) {
    EXPECT_EQ(Table().GetChannelMode(), LINK_CHANNEL_PLAIN) << "no node runs";
    ASSERT_TRUE(TestNode("lamp").Start());
    EXPECT_EQ(Table().GetChannelMode(), LINK_CHANNEL_PLAIN) << "no key";
    setenv("LUMORA_LINK_CHANNEL", "plain", 1);
    ASSERT_TRUE(StartWith(device, "device", "lumora:1\n"));
    EXPECT_EQ(Table().GetChannelMode(), LINK_CHANNEL_PLAIN);
    setenv("LUMORA_LINK_CHANNEL", "require", 1);
    ASSERT_TRUE(StartWith(asker, "asker", "lumora:1\n"));
    EXPECT_EQ(Table().GetChannelMode(), LINK_CHANNEL_REQUIRE);
}

TEST_F(ChannelTest, ANodeThatMustHavePrivateChannelsAndHasNoKeyDoesNotRun) {
    setenv("LUMORA_LINK_CHANNEL", "require", 1);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(device.Start());
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("private channels are required, and LUMORA_LINK_PSK_FILE is not set"));
}

}  // namespace

}  // namespace lumora_link::test
