// Requests of clients of the broker: which are carried out, and how many at a time.
#include "hub/mqtt/requests.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "tests/hub/support/scripted_hub.h"

namespace lumora_hub {
namespace {

class RequestsTest : public testing::Test {
protected:
    RequestsTest() { mHub.Appear(lumora_hub_test::MakeDevice("a", "1.2.3.4", {})); }

    void Take(const std::string& topic, std::string payload, bool isRetained = false) {
        MqttMessage message;
        message.topic = topic;
        message.payload = std::move(payload);
        message.isRetained = isRetained;
        message.replyTopic = "lumora/reply/me";
        message.correlation = "7";
        mRequests->Take(std::move(message));
    }
    std::string Answer() {
        const auto reply = mRequests->NextReply();
        return reply ? reply->topic + " " + reply->correlation + " " + reply->text : "";
    }

    const Topics mTopics{"lumora", "gateway"};
    lumora_hub_test::ScriptedHub mHub;
    std::unique_ptr<Requests> mRequests =
        std::make_unique<Requests>(mHub, mTopics, std::make_shared<Wakeup>());
};

TEST_F(RequestsTest, ACommandGoesToTheHubAndItsOutcomeBack) {
    Take("lumora/a@1.2.3.4/command/move", "left 3");
    ASSERT_EQ(mHub.Requests().size(), 1U);
    EXPECT_TRUE(mHub.Requests()[0].isCommand);
    EXPECT_EQ(mHub.Requests()[0].device, "a@1.2.3.4");
    EXPECT_EQ(mHub.Requests()[0].command, "move");
    EXPECT_EQ(mHub.Requests()[0].bytes, "left 3");
    EXPECT_EQ(Answer(), "lumora/reply/me 7 done");
    EXPECT_EQ(Answer(), "");
}

TEST_F(RequestsTest, ABlockGoesToTheHubByteForByte) {
    const std::string bytes("\0\xFF\n", 3);
    Take("lumora/a@1.2.3.4/send", bytes);
    ASSERT_EQ(mHub.Requests().size(), 1U);
    EXPECT_FALSE(mHub.Requests()[0].isCommand);
    EXPECT_EQ(mHub.Requests()[0].bytes, bytes);
}

TEST_F(RequestsTest, EachOutcomeHasItsWord) {
    const std::pair<Outcome, const char*> words[] = {{Outcome::DONE, "done"},
                                                     {Outcome::NO_DEVICE, "no device"},
                                                     {Outcome::UNREACHABLE, "unreachable"},
                                                     {Outcome::REFUSED, "refused"},
                                                     {Outcome::BAD_REQUEST, "bad request"},
                                                     {Outcome::BUSY, "busy"}};
    for (const auto& [outcome, word] : words) {
        mHub.AnswerWith(outcome);
        Take("lumora/a@1.2.3.4/command/move", "");
        EXPECT_EQ(Answer(), std::string("lumora/reply/me 7 ") + word);
    }
}

TEST_F(RequestsTest, ARetainedRequestIsNotCarriedOut) {
    Take("lumora/a@1.2.3.4/command/move", "left", true);
    Take("lumora/a@1.2.3.4/send", "left", true);
    EXPECT_TRUE(mHub.Requests().empty());
    EXPECT_EQ(mRequests->Counts().refused, 2U);
    EXPECT_EQ(Answer(), "lumora/reply/me 7 bad request");
}

TEST_F(RequestsTest, WhatTheLibraryCannotTakeIsRefusedAtOnce) {
    Take("lumora/a@1.2.3.4/command/", "");
    Take("lumora/a@1.2.3.4/command/move", std::string(397, 'x'));
    Take("lumora/a@1.2.3.4/command/move", std::string("a\0b", 3));
    Take("lumora/a@1.2.3.4/command/a%00b", "");
    Take("lumora/a@1.2.3.4/send", "");
    Take("lumora/a@1.2.3.4/send", std::string(5242881, 'x'));
    EXPECT_TRUE(mHub.Requests().empty());
    EXPECT_EQ(mRequests->Counts().refused, 6U);
    Take("lumora/a@1.2.3.4/command/move", std::string(396, 'x'));
    Take("lumora/a@1.2.3.4/send", std::string(5242880, 'x'));
    EXPECT_EQ(mHub.Requests().size(), 2U);
}

TEST_F(RequestsTest, TheHubsSubscriptionsAreOutOfReach) {
    Take("lumora/a@1.2.3.4/command/subscribe", "picture");
    Take("lumora/a@1.2.3.4/command/unsubscribe", "picture");
    EXPECT_TRUE(mHub.Requests().empty());
}

TEST_F(RequestsTest, SoManyWaitAndNoMore) {
    mHub.HoldAnswers();
    for (int i = 0; i < 50; ++i) {
        Take("lumora/a@1.2.3.4/command/move", "left");
        Take("lumora/a/command/move", "left");
    }
    EXPECT_EQ(mHub.Requests().size(), 64U);
    EXPECT_EQ(mRequests->Counts().refused, 36U);
    EXPECT_EQ(Answer(), "lumora/reply/me 7 busy");
    mHub.ReleaseAnswers();
    Take("lumora/a@1.2.3.4/command/move", "left");
    EXPECT_EQ(mHub.Requests().size(), 65U);
}

TEST_F(RequestsTest, ADeviceThatDoesNotAnswerLeavesSomeToOthers) {
    mHub.Appear(lumora_hub_test::MakeDevice("b", "1.2.3.5", {}));
    mHub.HoldAnswers();
    for (int i = 0; i < 100; ++i) {
        Take("lumora/a@1.2.3.4/command/move", "left");
    }
    EXPECT_EQ(mHub.Requests().size(), 48U);
    Take("lumora/b@1.2.3.5/command/move", "left");
    EXPECT_EQ(mHub.Requests().size(), 49U);
    mHub.ReleaseAnswers();
    EXPECT_EQ(mRequests->Counts().waiting, 0U);
}

TEST_F(RequestsTest, SoManyBytesWaitAndNoMore) {
    mHub.HoldAnswers();
    for (int i = 0; i < 5; ++i) {
        Take("lumora/a@1.2.3.4/send", std::string(5000000, 'x'));
    }
    EXPECT_EQ(mHub.Requests().size(), 3U);
}

TEST_F(RequestsTest, RepliesThatAreNotFetchedAreBounded) {
    for (int i = 0; i < 1000; ++i) {
        Take("lumora/a@1.2.3.4/command/move", "left");
    }
    int replies = 0;
    while (!Answer().empty()) {
        ++replies;
    }
    EXPECT_EQ(replies, 256);
}

TEST_F(RequestsTest, AnOutcomeAfterTheEndIsHarmless) {
    mHub.HoldAnswers();
    Take("lumora/a@1.2.3.4/command/move", "left");
    mRequests.reset();
    mHub.ReleaseAnswers();
    EXPECT_EQ(mHub.Requests().size(), 1U);
}

}  // namespace
}  // namespace lumora_hub
