// Names in topics, and what the topics of requests say.
#include "hub/mqtt/topics.h"

#include <gtest/gtest.h>
#include <mosquitto.h>

#include <string>

namespace lumora_hub {
namespace {

TEST(TopicsTest, UsualNamesStandAsTheyAre) {
    const Topics topics("lumora", "gateway");
    EXPECT_EQ(topics.Device("camera@192.168.1.4:5684"), "lumora/camera@192.168.1.4:5684");
    EXPECT_EQ(topics.Service("camera@192.168.1.4", "picture"), "lumora/camera@192.168.1.4/picture");
    EXPECT_EQ(topics.Online("camera@192.168.1.4"), "lumora/camera@192.168.1.4/online");
    EXPECT_EQ(topics.HubOnline(), "lumora/hub/gateway/online");
}

TEST(TopicsTest, WhatATopicCannotHoldIsEscaped) {
    EXPECT_EQ(EncodeLevel("a/b+c#d%e"), "a%2Fb%2Bc%23d%25e");
    EXPECT_EQ(EncodeLevel(std::string("\0\n\x7F", 3)), "%00%0A%7F");
    EXPECT_EQ(EncodeLevel("K\u00fcche"), "K\u00fcche");
    EXPECT_EQ(EncodeLevel("K\xFC"
                          "che"),
              "K%FCche");
}

TEST(TopicsTest, EachByteComesBackFromItsTopic) {
    std::string name;
    for (int byte = 0; byte < 256; ++byte) {
        name += static_cast<char>(byte);
        const std::string one(1, static_cast<char>(byte));
        EXPECT_EQ(DecodeLevel(EncodeLevel(one)), one) << byte;
        EXPECT_EQ(mosquitto_pub_topic_check(EncodeLevel(one).c_str()), MOSQ_ERR_SUCCESS) << byte;
    }
    EXPECT_EQ(DecodeLevel(EncodeLevel(name)), name);
    EXPECT_TRUE(IsMqttText(EncodeLevel(name)));
}

TEST(TopicsTest, ServicesCannotTakeTheTopicsOfRequests) {
    const Topics topics("lumora", "command");
    for (const char* name : {"command", "send", "online"}) {
        const std::string topic = topics.Service("a@1.2.3.4", name);
        EXPECT_FALSE(topics.Request(topic)) << topic;
        EXPECT_NE(topic, topics.Online("a@1.2.3.4"));
        EXPECT_EQ(DecodeLevel(topic.substr(topic.rfind('/') + 1)), name);
    }
    EXPECT_FALSE(topics.Request(topics.HubOnline()));
    EXPECT_FALSE(topics.Request(topics.Service("a@1.2.3.4", "command/reboot")));
}

TEST(TopicsTest, RequestsAreDecoded) {
    const Topics topics("home/lumora", "gateway");
    const auto command = topics.Request("home/lumora/a%2Fb@1.2.3.4/command/turn%2Fleft");
    ASSERT_TRUE(command);
    EXPECT_TRUE(command->isCommand);
    EXPECT_EQ(command->device, "a/b@1.2.3.4");
    EXPECT_EQ(command->command, "turn/left");
    const auto block = topics.Request("home/lumora/a@1.2.3.4/send");
    ASSERT_TRUE(block);
    EXPECT_FALSE(block->isCommand);
}

TEST(TopicsTest, OtherTopicsAreNoRequests) {
    const Topics topics("lumora", "gateway");
    for (const char* topic :
         {"", "lumora", "lumora/", "lumora/a@1", "lumora/a@1/", "lumora/a@1/command", "lumora/a@1/picture",
          "lumora//send", "lumora/a%2/send", "lumora/a%zz/send", "lumora/a@1/command/%", "lumorb/a@1/send",
          "x/lumora/a@1/send", "lumora/a@1/send/more", "lumora/a@1/SEND"}) {
        EXPECT_FALSE(topics.Request(topic)) << topic;
    }
}

TEST(TopicsTest, RepliesGoNowhereElse) {
    const Topics topics("lumora", "gateway");
    EXPECT_TRUE(topics.IsReply("lumora/reply/me"));
    EXPECT_TRUE(topics.IsReply("lumora/reply/me/7"));
    for (const char* topic : {"", "lumora/reply", "lumora/reply/", "lumora/a@1/command/reboot",
                              "lumora/reply/+", "lumora/reply/#", "$SYS/x", "other/lumora/reply/x"}) {
        EXPECT_FALSE(topics.IsReply(topic)) << topic;
    }
}

TEST(TopicsTest, ADescriptionTellsItsDevice) {
    const Topics topics("lumora", "gateway");
    EXPECT_EQ(topics.Described(topics.Device("a/b@1.2.3.4")), "a/b@1.2.3.4");
    EXPECT_FALSE(topics.Described("lumora/a@1.2.3.4/online"));
    EXPECT_FALSE(topics.Described("other/a@1.2.3.4"));
}

}  // namespace
}  // namespace lumora_hub
