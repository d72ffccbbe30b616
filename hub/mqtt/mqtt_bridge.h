// Hands devices to an MQTT broker, and requests of the broker's clients to devices.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "base/mutex.h"
#include "hub/core/device_hub.h"
#include "hub/core/figures.h"
#include "hub/mqtt/broker_session.h"
#include "hub/mqtt/description.h"
#include "hub/mqtt/feeds.h"
#include "hub/mqtt/requests.h"
#include "hub/mqtt/retained_topics.h"
#include "hub/mqtt/topics.h"
#include "hub/mqtt/wakeup.h"

namespace lumora_hub {

struct MqttCounts {
    bool isConnected = false;
    std::uint64_t lost = 0;   // all blocks that did not reach the broker
    std::size_t waiting = 0;  // blocks
    SessionCounts session;
    RequestCounts requests;
};

// Has one thread. Hub and settings are used from there.
class MqttBridge : private BrokerSession::Owner {
public:
    // The counts go to figures each second.
    MqttBridge(DeviceHub& hub, FigureBoard& figures, const MqttSettings& settings);
    // Tells the broker that the hub leaves: a second at most, and the time of the resolver if the thread is
    // looking up the broker's name.
    ~MqttBridge() override;
    MqttBridge(const MqttBridge&) = delete;
    MqttBridge& operator=(const MqttBridge&) = delete;

    // At most a second old. Any thread may call it.
    MqttCounts Counts() const;

private:
    using Clock = std::chrono::steady_clock;
    struct Device {
        DeviceState state;
        std::map<std::string, ServiceContent> contents;  // of services whose blocks were seen
    };

    void OnSessionBegun() override;
    void OnSessionLost() override;
    void OnSessionMessage(MqttMessage message) override;

    void Run();
    void Step();
    void Wait();
    void WarnOfOpenPassword() const;
    void TakeEvents();
    void Apply(const DeviceEvent& event);
    void Forget(const std::string& id);
    void FollowAgain();
    void Publish();
    bool PublishNext();
    void PublishBlock(const BlockPointer& block);
    void Learn(const Block& block, ContentKind kind);
    void ClearStale();
    void SayGoodbye();
    void UpdateCounts();

    std::string HomeAssistantTopic(const std::string& id) const;

    DeviceHub& mHub;
    FigureBoard& mFigures;
    const MqttSettings mSettings;
    const Topics mTopics;
    const std::shared_ptr<Wakeup> mWakeup = std::make_shared<Wakeup>();
    std::atomic<bool> mIsStopping{false};

    // From the hub's threads. The last event of each device is enough.
    lumora::Mutex mEventsMutex;  // a leaf lock
    std::map<std::string, DeviceEvent> mEvents GUARDED_BY(mEventsMutex);

    mutable lumora::Mutex mCountsMutex;  // a leaf lock
    MqttCounts mCounts GUARDED_BY(mCountsMutex);

    // The rest is the thread's.
    Feeds mFeeds;
    Requests mRequests;
    RetainedTopics mRetained;
    BrokerSession mSession;
    std::map<std::string, Device> mDevices;
    std::set<std::string> mIncomplete;  // devices for whose services the hub had no room
    std::set<std::string> mStale;       // devices that the broker has a description of, and this hub has not
    Clock::time_point mNextSecond;
    Clock::time_point mSettled;  // from then on, what is stale is cleared
    std::thread mThread;
};

}  // namespace lumora_hub
