// What the broker shall keep, over connections.
#include "hub/mqtt/retained_topics.h"

#include <gtest/gtest.h>

namespace lumora_hub {
namespace {

std::string NextOf(RetainedTopics& topics) {
    const auto message = topics.Next();
    return message ? message->topic + "=" + message->payload : "";
}

TEST(RetainedTopicsTest, NothingIsSentWithoutAConnection) {
    RetainedTopics topics;
    topics.Set("a", "1");
    EXPECT_EQ(NextOf(topics), "");
}

TEST(RetainedTopicsTest, EachConnectionGetsAll) {
    RetainedTopics topics;
    topics.Set("a", "1");
    topics.Set("b", "2");
    for (int connection = 0; connection < 2; ++connection) {
        topics.Connected();
        EXPECT_EQ(NextOf(topics), "a=1");
        EXPECT_EQ(NextOf(topics), "b=2");
        EXPECT_EQ(NextOf(topics), "");
        topics.Lost();
    }
}

TEST(RetainedTopicsTest, OnlyChangesAreSentAgain) {
    RetainedTopics topics;
    topics.Connected();
    topics.Set("a", "1");
    EXPECT_EQ(NextOf(topics), "a=1");
    topics.Set("a", "1");
    EXPECT_EQ(NextOf(topics), "");
    topics.Set("a", "2");
    EXPECT_EQ(NextOf(topics), "a=2");
}

TEST(RetainedTopicsTest, WhatIsClearedIsSentEmptyOnce) {
    RetainedTopics topics;
    topics.Connected();
    topics.Set("a", "1");
    NextOf(topics);
    topics.Clear("a");
    EXPECT_FALSE(topics.Has("a"));
    EXPECT_EQ(NextOf(topics), "a=");
    topics.Lost();
    topics.Connected();
    EXPECT_EQ(NextOf(topics), "");
}

TEST(RetainedTopicsTest, ATopicWaitsOnceAndAtTheEnd) {
    RetainedTopics topics;
    topics.Connected();
    for (int change = 0; change < 1000; ++change) {
        topics.Set("a", std::to_string(change));
        topics.Set("b", std::to_string(change));
    }
    topics.Clear("a");
    EXPECT_EQ(NextOf(topics), "b=999");
    EXPECT_EQ(NextOf(topics), "a=");
    EXPECT_EQ(NextOf(topics), "");
}

TEST(RetainedTopicsTest, ClearingWithoutAConnectionKeepsNothing) {
    RetainedTopics topics;
    topics.Set("a", "1");
    topics.Clear("a");
    topics.Connected();
    EXPECT_EQ(NextOf(topics), "");
}

}  // namespace
}  // namespace lumora_hub
