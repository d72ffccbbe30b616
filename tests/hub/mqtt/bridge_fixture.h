// A bridge between a scripted hub and a broker, and a client that looks at the broker.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "hub/mqtt/mqtt_bridge.h"
#include "tests/hub/support/broker.h"
#include "tests/hub/support/scripted_hub.h"
#include "tests/support/captured_log.h"
#include "tests/support/eventually.h"

namespace lumora_hub_test {

using lumora_test::Eventually;

// Retries come quickly, so that tests need not wait for them.
inline lumora_hub::MqttSettings QuickSettings() {
    lumora_hub::MqttSettings settings;
    settings.host = "127.0.0.1";
    settings.name = "gateway";
    settings.version = "1.2";
    settings.firstRetry = std::chrono::milliseconds(20);
    settings.lastRetry = std::chrono::milliseconds(100);
    settings.settleTime = std::chrono::milliseconds(0);
    return settings;
}

class BridgeFixture : public testing::Test {
protected:
    static constexpr const char* CAMERA = "camera@10.0.0.4";
    static constexpr const char* HUB_ONLINE = "lumora/hub/gateway/online";

    void StartBridge() { mBridge = std::make_unique<lumora_hub::MqttBridge>(mHub, mFigures, mSettings); }
    void StartClient(const std::string& filter = "#") {
        mClient = std::make_unique<BrokerClient>();
        mClient->Subscribe(filter);
    }
    void AddCamera() {
        const auto before = mHub.Subscriptions();
        mHub.Appear(MakeDevice("camera", "10.0.0.4", {"picture", "faces"}));
        ASSERT_TRUE(Eventually([&] { return mHub.Subscriptions() == before + 2; }));
    }
    // The log permits some lines once a minute only; the others are of level 1.
    bool WaitForText(const std::string& text) {
        return Eventually([&] { return mLog.Dump().find(text) != std::string::npos; });
    }
    bool WaitForConnection(bool isConnected = true) {
        return Eventually([&] { return mBridge->Counts().isConnected == isConnected; });
    }

    lumora_test::CapturedLog mLog;
    ScriptedHub mHub;
    lumora_hub::FigureBoard mFigures;
    lumora_hub::MqttSettings mSettings = QuickSettings();
    std::unique_ptr<Broker> mBroker;
    std::unique_ptr<BrokerClient> mClient;
    std::unique_ptr<lumora_hub::MqttBridge> mBridge;
};

}  // namespace lumora_hub_test
