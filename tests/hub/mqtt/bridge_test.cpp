// What a client of the broker sees of devices, and how it reaches them.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "base/json.h"
#include "tests/hub/mqtt/bridge_fixture.h"

namespace lumora_hub_test {
namespace {

using lumora_hub::Outcome;

class BridgeTest : public BridgeFixture {
protected:
    void SetUp() override {
        mBroker = std::make_unique<Broker>();
        StartClient();
    }
};

// The hub is a process of its own. It is forked while this process has one thread:
// ThreadSanitizer lets no other child start threads.
class KilledHubTest : public BridgeFixture {
protected:
    void SetUp() override {
        mBroker = std::make_unique<Broker>();
        mProcess = fork();
        if (mProcess == 0) {
            StartBridge();
            pause();
            _exit(1);
        }
        StartClient();
    }
    void TearDown() override { Kill(); }
    void Kill() {
        if (mProcess > 0) {
            kill(mProcess, SIGKILL);
            waitpid(mProcess, nullptr, 0);
            mProcess = -1;
        }
    }

private:
    pid_t mProcess = -1;
};

TEST_F(KilledHubTest, TheLastWillSaysThatItIsOffline) {
    ASSERT_TRUE(mClient->WaitForLast(HUB_ONLINE, "true"));
    Kill();
    EXPECT_TRUE(mClient->WaitForLast(HUB_ONLINE, "false"));
}

// Every byte value, and more than one segment of them.
std::string ManyBytes(std::size_t length) {
    std::string bytes;
    for (std::size_t i = 0; i < length; ++i) {
        bytes += static_cast<char>(i * 7 + i / 251);
    }
    return bytes;
}

TEST_F(BridgeTest, BlocksArriveByteForByteWithNumberAndTime) {
    StartBridge();
    AddCamera();
    const std::string picture = "\xFF\xD8\xFF" + ManyBytes(1024000);
    mHub.Send(CAMERA, "picture", picture);
    mHub.Send(CAMERA, "picture", "");
    mHub.Send(CAMERA, "faces", R"({"count":1})");
    const std::string topic = "lumora/camera@10.0.0.4/picture";
    ASSERT_TRUE(Eventually([&] { return mClient->At(topic).size() == 2; }));
    const auto pictures = mClient->At(topic);
    EXPECT_EQ(pictures[0].payload, picture);
    EXPECT_EQ(pictures[0].contentType, "image/jpeg");
    EXPECT_FALSE(pictures[0].isRetained);
    EXPECT_EQ(pictures[0].user.at("number"), "1");
    EXPECT_EQ(pictures[0].user.at("time").size(), 27U);
    EXPECT_EQ(pictures[1].payload, "");
    EXPECT_EQ(pictures[1].user.at("number"), "2");
    EXPECT_TRUE(mClient->WaitForLast("lumora/camera@10.0.0.4/faces", R"({"count":1})"));
    EXPECT_EQ(mClient->At("lumora/camera@10.0.0.4/faces")[0].contentType, "application/json");
}

TEST_F(BridgeTest, BlocksKeepTheirOrder) {
    mSettings.queue.blocks = 2000;
    StartBridge();
    AddCamera();
    for (int i = 0; i < 1000; ++i) {
        mHub.Send(CAMERA, "faces", std::to_string(i));
    }
    const std::string topic = "lumora/camera@10.0.0.4/faces";
    ASSERT_TRUE(Eventually([&] { return mClient->At(topic).size() == 1000; }));
    const auto blocks = mClient->At(topic);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(blocks[static_cast<std::size_t>(i)].payload, std::to_string(i));
    }
    EXPECT_TRUE(Eventually([&] { return mBridge->Counts().session.published == 1000; }));
    EXPECT_EQ(mBridge->Counts().lost, 0U);
}

TEST_F(BridgeTest, WithoutAcknowledgementsBlocksArriveToo) {
    mSettings.qos = 0;
    mSettings.queue.blocks = 2000;
    StartBridge();
    AddCamera();
    for (int i = 0; i < 1000; ++i) {
        mHub.Send(CAMERA, "faces", std::to_string(i));
    }
    ASSERT_TRUE(mClient->WaitForLast("lumora/camera@10.0.0.4/faces", "999"));
    EXPECT_EQ(mClient->At("lumora/camera@10.0.0.4/faces").size(), 1000U);
    EXPECT_TRUE(Eventually([&] { return mBridge->Counts().session.published == 1000; }));
}

TEST_F(BridgeTest, StatesAreRetainedForThoseWhoComeLater) {
    StartBridge();
    AddCamera();
    ASSERT_TRUE(mClient->WaitForLast("lumora/camera@10.0.0.4/online", "true"));
    BrokerClient later;
    later.Subscribe("lumora/#");
    ASSERT_TRUE(Eventually([&] { return later.All().size() == 3; }));
    EXPECT_EQ(later.Last(HUB_ONLINE), "true");
    EXPECT_EQ(later.Last("lumora/camera@10.0.0.4/online"), "true");
    const auto description = later.At("lumora/camera@10.0.0.4");
    ASSERT_EQ(description.size(), 1U);
    EXPECT_TRUE(description[0].isRetained);
    const lumora::JsonTree root = lumora::ParseJson(description[0].payload);
    EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetObjectItem(root.get(), "type")), "camera");
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(root.get(), "services")), 2);
}

TEST_F(BridgeTest, ADeviceThatLeavesIsOfflineAndOneThatIsForgottenIsCleared) {
    StartBridge();
    AddCamera();
    ASSERT_TRUE(mClient->WaitForLast("lumora/camera@10.0.0.4/online", "true"));
    mHub.Leave(CAMERA);
    ASSERT_TRUE(mClient->WaitForLast("lumora/camera@10.0.0.4/online", "false"));
    EXPECT_TRUE(Eventually([&] { return mHub.Subscriptions() == 0; }));
    mHub.Appear(MakeDevice("camera", "10.0.0.4", {"picture"}));
    ASSERT_TRUE(mClient->WaitForLast("lumora/camera@10.0.0.4/online", "true"));
    EXPECT_TRUE(Eventually([&] { return mHub.Subscriptions() == 1; }));
    mHub.Forget(CAMERA);
    ASSERT_TRUE(mClient->WaitForLast("lumora/camera@10.0.0.4", ""));
    BrokerClient later;
    later.Subscribe("lumora/#");
    ASSERT_TRUE(later.WaitForLast(HUB_ONLINE, "true"));
    EXPECT_EQ(later.All().size(), 1U);
}

TEST_F(BridgeTest, BlocksThatWaitWhenADeviceLeavesArriveStill) {
    StartBridge();
    AddCamera();
    ASSERT_TRUE(WaitForConnection());
    mBroker->Freeze();
    for (int i = 0; i < 50; ++i) {
        mHub.Send(CAMERA, "faces", std::to_string(i));
    }
    mHub.Leave(CAMERA);
    mHub.Forget(CAMERA);
    ASSERT_TRUE(Eventually([&] { return mHub.Subscriptions() == 0; }));
    mBroker->Thaw();
    EXPECT_TRUE(mClient->WaitForLast("lumora/camera@10.0.0.4/faces", "49"));
    EXPECT_EQ(mClient->At("lumora/camera@10.0.0.4/faces").size(), 50U);
}

TEST_F(BridgeTest, OnlyServicesThatMatchAPatternAreSubscribedTo) {
    mSettings.services = {"*/faces", "reader@*"};
    StartBridge();
    mHub.Appear(MakeDevice("camera", "10.0.0.4", {"picture", "faces"}));
    mHub.Appear(MakeDevice("reader", "10.0.0.5", {"text", "state"}));
    mHub.Appear(MakeDevice("lamp", "10.0.0.6", {"state"}));
    ASSERT_TRUE(mClient->WaitForLast("lumora/lamp@10.0.0.6/online", "true"));
    ASSERT_TRUE(Eventually([&] { return mHub.Subscriptions() == 3; }));
    EXPECT_EQ(mHub.Send(CAMERA, "picture", "x"), 0U);
    EXPECT_EQ(mHub.Send(CAMERA, "faces", "x"), 1U);
    EXPECT_EQ(mHub.Send("reader@10.0.0.5", "state", "x"), 1U);
}

TEST_F(BridgeTest, ServicesThatComeAndGoAreFollowed) {
    StartBridge();
    AddCamera();
    mHub.Change(MakeDevice("camera", "10.0.0.4", {"faces", "sound"}));
    ASSERT_TRUE(Eventually([&] { return mHub.Send(CAMERA, "sound", "x") == 1; }));
    EXPECT_EQ(mHub.Send(CAMERA, "picture", "x"), 0U);
    EXPECT_EQ(mHub.Send(CAMERA, "faces", "x"), 1U);
}

TEST_F(BridgeTest, AFullHubIsAskedAgain) {
    mHub.PermitConsumers(1);
    StartBridge();
    mHub.Appear(MakeDevice("camera", "10.0.0.4", {"picture", "faces"}));
    ASSERT_TRUE(
        WaitForText("the hub has as many consumers as it may have: services of camera@10.0.0.4 wait\n"));
    mHub.PermitConsumers(2);
    EXPECT_TRUE(Eventually([&] { return mHub.Subscriptions() == 2; }));
}

TEST_F(BridgeTest, ACommandReachesTheDeviceAndItsOutcomeTheClient) {
    StartBridge();
    AddCamera();
    ASSERT_TRUE(WaitForConnection());
    mHub.AnswerWith(Outcome::REFUSED);
    mClient->Publish("lumora/camera@10.0.0.4/command/move", "left 3", {false, "lumora/reply/test", "no. 7"});
    ASSERT_TRUE(mClient->WaitForLast("lumora/reply/test", "refused"));
    EXPECT_EQ(mClient->At("lumora/reply/test")[0].correlation, "no. 7");
    ASSERT_EQ(mHub.Requests().size(), 1U);
    EXPECT_EQ(mHub.Requests()[0].device, CAMERA);
    EXPECT_EQ(mHub.Requests()[0].command, "move");
    EXPECT_EQ(mHub.Requests()[0].bytes, "left 3");
}

TEST_F(BridgeTest, ABlockReachesTheDeviceByteForByte) {
    StartBridge();
    ASSERT_TRUE(WaitForConnection());
    const std::string bytes = ManyBytes(5242880);
    mClient->Publish("lumora/camera@10.0.0.4/send", bytes);
    ASSERT_TRUE(Eventually([&] { return mHub.Requests().size() == 1; }));
    EXPECT_EQ(mHub.Requests()[0].bytes, bytes);
}

TEST_F(BridgeTest, AHubThatEndsSaysSoItself) {
    StartBridge();
    ASSERT_TRUE(mClient->WaitForLast(HUB_ONLINE, "true"));
    mBridge.reset();
    EXPECT_TRUE(mClient->WaitForLast(HUB_ONLINE, "false"));
    EXPECT_EQ(mClient->At(HUB_ONLINE).size(), 2U);
    EXPECT_EQ(mLog.Count(3, ""), 0);
}

TEST_F(BridgeTest, WhatAnEarlierRunLeftIsCleared) {
    mClient->Publish("lumora/gone@10.0.0.9", R"({"hub":"gateway"})", {true, "", ""});
    mClient->Publish("lumora/gone@10.0.0.9/online", "true", {true, "", ""});
    mClient->Publish("lumora/other@10.0.0.9", R"({"hub":"attic"})", {true, "", ""});
    ASSERT_TRUE(mClient->WaitForLast("lumora/other@10.0.0.9", R"({"hub":"attic"})"));
    mHub.Appear(MakeDevice("camera", "10.0.0.4", {}));
    StartBridge();
    ASSERT_TRUE(mClient->WaitForLast("lumora/gone@10.0.0.9", ""));
    EXPECT_EQ(mClient->Last("lumora/gone@10.0.0.9/online"), "");
    EXPECT_EQ(mClient->Last("lumora/other@10.0.0.9"), R"({"hub":"attic"})");
    EXPECT_EQ(mClient->Last("lumora/camera@10.0.0.4/online"), "true");
}

TEST_F(BridgeTest, HomeAssistantIsToldOfWhatTheBlocksAre) {
    const std::string topic = "homeassistant/device/lumora_camera_4010_2E0_2E0_2E4/config";
    mSettings.homeAssistant = "homeassistant";
    StartBridge();
    AddCamera();
    mHub.Send(CAMERA, "picture", "\xFF\xD8\xFF");
    mHub.Send(CAMERA, "faces", R"({"count":1})");
    const auto components = [&] {
        const lumora::JsonTree root = lumora::ParseJson(mClient->Last(topic).value_or(""));
        return cJSON_GetArraySize(cJSON_GetObjectItem(root.get(), "components"));
    };
    ASSERT_TRUE(Eventually([&] { return components() == 2; }));
    mHub.Forget(CAMERA);
    EXPECT_TRUE(mClient->WaitForLast(topic, ""));
}

TEST_F(BridgeTest, AHundredClientsGetEachBlock) {
    StartBridge();
    AddCamera();
    std::vector<std::unique_ptr<BrokerClient>> clients;
    for (int i = 0; i < 100; ++i) {
        clients.push_back(std::make_unique<BrokerClient>());
        clients.back()->Subscribe("lumora/camera@10.0.0.4/picture");
    }
    for (int i = 0; i < 20; ++i) {
        mHub.Send(CAMERA, "picture", std::to_string(i));
    }
    for (const auto& client : clients) {
        ASSERT_TRUE(client->WaitForLast("lumora/camera@10.0.0.4/picture", "19"));
        EXPECT_EQ(client->All().size(), 20U);
    }
    EXPECT_EQ(mHub.Subscriptions(), 2U);
}

}  // namespace
}  // namespace lumora_hub_test
