// What may be set.
#include "hub/mqtt/settings.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace lumora_hub {
namespace {

TEST(MqttSettingsTest, ABrokerIsAHostAndPerhapsAPort) {
    MqttSettings settings;
    EXPECT_TRUE(SetBroker("broker.example", settings));
    EXPECT_EQ(settings.host, "broker.example");
    EXPECT_EQ(settings.port, 0);
    EXPECT_TRUE(SetBroker("10.0.0.1:1884", settings));
    EXPECT_EQ(settings.host, "10.0.0.1");
    EXPECT_EQ(settings.port, 1884);
    EXPECT_TRUE(SetBroker("[fd00::1]:8883", settings));
    EXPECT_EQ(settings.host, "fd00::1");
    EXPECT_EQ(settings.port, 8883);
    EXPECT_TRUE(SetBroker("[fd00::1]", settings));
    EXPECT_EQ(settings.port, 0);
}

TEST(MqttSettingsTest, OtherTextsAreNoBroker) {
    MqttSettings settings;
    for (const char* text : {"", ":1883", "host:", "host:0", "host:65536", "host:18a", "host:-1", "[fd00::1",
                             "[]:1", "[fd00::1]1883", "fd00::1"}) {
        EXPECT_FALSE(SetBroker(text, settings)) << text;
    }
    EXPECT_EQ(settings.host, "");
}

TEST(MqttSettingsTest, WhatDoesNotFitTogetherIsSaid) {
    MqttSettings good;
    good.name = "gateway";
    EXPECT_EQ(ProblemOf(good), "");
    const auto isProblem = [&](const std::function<void(MqttSettings&)>& change) {
        MqttSettings settings = good;
        change(settings);
        return !ProblemOf(settings).empty();
    };
    for (const char* prefix : {"", "/a", "a/", "a/+", "#", "$SYS/a", "a\n", "\xFF"}) {
        EXPECT_TRUE(isProblem([&](MqttSettings& s) { s.prefix = prefix; })) << prefix;
    }
    EXPECT_TRUE(isProblem([](MqttSettings& s) { s.homeAssistant = "a/#"; }));
    EXPECT_TRUE(isProblem([](MqttSettings& s) { s.name = ""; }));
    EXPECT_TRUE(isProblem([](MqttSettings& s) { s.name = "a\nb"; }));
    EXPECT_TRUE(isProblem([](MqttSettings& s) { s.qos = 2; }));
    EXPECT_TRUE(isProblem([](MqttSettings& s) { s.certificate = "a.pem"; }));
    EXPECT_TRUE(isProblem([](MqttSettings& s) { s.key = "a.key"; }));
    EXPECT_TRUE(isProblem([](MqttSettings& s) { s.passwordFile = "a"; }));
    EXPECT_FALSE(isProblem([](MqttSettings& s) { s.prefix = "home/lumora"; }));
}

}  // namespace
}  // namespace lumora_hub
