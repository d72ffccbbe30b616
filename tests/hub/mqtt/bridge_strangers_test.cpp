// Devices with odd names, and clients of the broker that mean no good.
#include <algorithm>

#include "base/json.h"
#include "tests/hub/mqtt/bridge_fixture.h"

namespace lumora_hub_test {
namespace {

class BridgeStrangersTest : public BridgeFixture {
protected:
    void SetUp() override {
        mBroker = std::make_unique<Broker>();
        StartClient();
    }
};

TEST_F(BridgeStrangersTest, OddNamesHaveTopicsOfTheirOwn) {
    const std::vector<std::string> services = {"",  "online", "send",     "command", "a/b",
                                               "+", "#",      "\xFF\x01", "$x",      "%2F"};
    const lumora_hub::DeviceState device = MakeDevice("od/d+#%\x7F\xC3", "10.0.0.4:5684", services);
    StartBridge();
    mHub.Appear(device);
    ASSERT_TRUE(Eventually([&] { return mHub.Subscriptions() == services.size(); }));
    for (const std::string& service : services) {
        ASSERT_EQ(mHub.Send(device.id, service, "block of " + service), 1U);
    }
    const lumora_hub::Topics topics("lumora", "gateway");
    for (const std::string& service : services) {
        EXPECT_TRUE(mClient->WaitForLast(topics.Service(device.id, service), "block of " + service))
            << service;
    }
    EXPECT_EQ(mClient->Last(topics.Online(device.id)), "true");
    mClient->Publish(topics.Device(device.id) + "/command/go", "");
    ASSERT_TRUE(Eventually([&] { return mHub.Requests().size() == 1; }));
    EXPECT_EQ(mHub.Requests()[0].device, device.id);
}

TEST_F(BridgeStrangersTest, ARetainedCommandIsNeverCarriedOut) {
    mClient->Publish("lumora/camera@10.0.0.4/command/early", "", {true, "", ""});
    mClient->Publish("lumora/camera@10.0.0.4/command/early2", "x", {true, "", ""});
    ASSERT_TRUE(mClient->WaitForLast("lumora/camera@10.0.0.4/command/early2", "x"));
    StartBridge();
    ASSERT_TRUE(WaitForConnection());
    mClient->Publish("lumora/camera@10.0.0.4/command/late", "x", {true, "", ""});
    mClient->Publish("lumora/camera@10.0.0.4/command/good", "x");
    ASSERT_TRUE(Eventually([&] { return !mHub.Requests().empty(); }));
    ASSERT_EQ(mHub.Requests().size(), 1U);
    EXPECT_EQ(mHub.Requests()[0].command, "good");
}

TEST_F(BridgeStrangersTest, PayloadsOfAnySizeDoNoHarm) {
    StartBridge();
    ASSERT_TRUE(WaitForConnection());
    mClient->Publish("lumora/camera@10.0.0.4/send", std::string(20000000, 'x'));  // the broker keeps it back
    mClient->Publish("lumora/camera@10.0.0.4/send", std::string(5242881, 'x'));
    mClient->Publish("lumora/camera@10.0.0.4/send", "");
    mClient->Publish("lumora/camera@10.0.0.4/command/x", std::string(100000, 'x'));
    mClient->Publish("lumora/camera@10.0.0.4", std::string(100000, '['), {true, "", ""});
    mClient->Publish("lumora/%zz/send", "x");
    mClient->Publish("lumora/camera@10.0.0.4/send", "good");
    ASSERT_TRUE(Eventually([&] { return !mHub.Requests().empty(); }));
    ASSERT_EQ(mHub.Requests().size(), 1U);
    EXPECT_EQ(mHub.Requests()[0].bytes, "good");
    EXPECT_TRUE(Eventually([&] { return mBridge->Counts().requests.refused == 3; }));
    EXPECT_EQ(mBridge->Counts().session.connections, 1U);
}

TEST_F(BridgeStrangersTest, AFloodOfCommandsIsBounded) {
    mClient.reset();
    mBroker.reset();
    // By itself it would drop some of them.
    mBroker = std::make_unique<Broker>("allow_anonymous true\nmax_queued_messages 5000\n");
    StartClient();
    mHub.HoldAnswers();
    StartBridge();
    AddCamera();
    ASSERT_TRUE(WaitForConnection());
    for (int i = 0; i < 2000; ++i) {
        mClient->Publish("lumora/camera@10.0.0.4/command/x", "", {false, "lumora/reply/x", ""});
    }
    ASSERT_TRUE(Eventually([&] { return mBridge->Counts().requests.refused == 2000 - 48; }));
    EXPECT_EQ(mHub.Requests().size(), 48U);
    mHub.ReleaseAnswers();
    EXPECT_TRUE(mClient->WaitForLast("lumora/reply/x", "done"));
    EXPECT_EQ(mBridge->Counts().session.connections, 1U);
}

TEST_F(BridgeStrangersTest, AnAnswerGoesToNoTopicOfAnother) {
    StartBridge();
    AddCamera();
    ASSERT_TRUE(WaitForConnection());
    for (const char* topic :
         {"lumora/lamp@10.0.0.5/command/off", "elsewhere", "lumora/camera@10.0.0.4/online"}) {
        mClient->Publish("lumora/camera@10.0.0.4/command/x", "", {false, topic, ""});
    }
    mClient->Publish("lumora/camera@10.0.0.4/command/x", "", {false, "lumora/reply/x", ""});
    ASSERT_TRUE(mClient->WaitForLast("lumora/reply/x", "done"));
    const auto all = mClient->All();
    EXPECT_EQ(std::count_if(all.begin(), all.end(),
                            [](const Received& message) { return message.payload == "done"; }),
              1);
}

TEST_F(BridgeStrangersTest, BlocksThatTheBrokerDoesNotTakeAreCounted) {
    mClient.reset();
    mBroker.reset();
    mBroker = std::make_unique<Broker>("allow_anonymous true\nmax_packet_size 100000\n");
    StartBridge();
    StartClient();
    AddCamera();
    ASSERT_TRUE(WaitForConnection());
    mHub.Send(CAMERA, "picture", std::string(200000, 'x'));
    mHub.Send(CAMERA, "picture", "small");
    ASSERT_TRUE(mClient->WaitForLast("lumora/camera@10.0.0.4/picture", "small"));
    EXPECT_TRUE(Eventually([&] { return mBridge->Counts().lost == 1; }));
    EXPECT_EQ(mClient->At("lumora/camera@10.0.0.4/picture").size(), 1U);
}

TEST_F(BridgeStrangersTest, WhatTheBrokerForbidsIsSaid) {
    mClient.reset();
    mBroker.reset();
    const TemporaryFolder folder;
    const std::string rules = folder.Write("rules",
                                           "topic readwrite lumora/#\n"
                                           "topic deny lumora/camera@10.0.0.4/picture\n"
                                           "topic deny lumora/+/send\n");
    mBroker = std::make_unique<Broker>("allow_anonymous true\nacl_file " + rules + "\n");
    StartBridge();
    AddCamera();
    ASSERT_TRUE(WaitForConnection());
    mHub.Send(CAMERA, "picture", "x");
    EXPECT_TRUE(Eventually([&] { return mBridge->Counts().lost == 1; }));
    EXPECT_TRUE(WaitForText("the broker 127.0.0.1 does not take camera@10.0.0.4/picture: Not authorized\n"))
        << mLog.Dump();
}

}  // namespace
}  // namespace lumora_hub_test
