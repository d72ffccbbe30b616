#include "hub/mqtt/mqtt_bridge.h"

#include <poll.h>

#include <algorithm>
#include <exception>
#include <utility>
#include <vector>

#include "base/thread.h"
#include "hub/mqtt/figures.h"
#include "hub/mqtt/log.h"

namespace lumora_hub {

namespace {

constexpr std::chrono::seconds SECOND{1};
// How many are published before the socket is read again.
constexpr int MOST_AT_A_TIME = 64;
constexpr std::size_t MOST_STALE = 4096;
constexpr std::size_t MOST_DESCRIPTION_BYTES = std::size_t{64} << 10;

int MillisecondsUntil(std::chrono::steady_clock::time_point time) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(time - std::chrono::steady_clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, 1000));
}

MqttProperties PropertiesOf(const Block& block, ContentKind kind) {
    MqttProperties properties;
    properties.contentType = MediaType(kind);
    properties.isText = kind == ContentKind::TEXT || kind == ContentKind::NUMBER || kind == ContentKind::JSON;
    properties.user = {{"number", std::to_string(block.number)}, {"time", TimeText(block.received)}};
    return properties;
}

}  // namespace

MqttBridge::MqttBridge(DeviceHub& hub, FigureBoard& figures, const MqttSettings& settings)
    : mHub(hub),
      mFigures(figures),
      mSettings(settings),
      mTopics(settings.prefix, settings.name),
      mFeeds(hub, settings, mWakeup),
      mRequests(hub, mTopics, mWakeup),
      mSession(settings, mTopics, *this),
      mSettled(Clock::now() + settings.settleTime) {
    mThread = lumora::StartThread("mqtt", [this] { Run(); });
}

MqttBridge::~MqttBridge() {
    mIsStopping = true;
    mWakeup->Set();
    mThread.join();
}

MqttCounts MqttBridge::Counts() const {
    const lumora::MutexLock lock(mCountsMutex);
    return mCounts;
}

void MqttBridge::OnSessionBegun() {
    mRetained.Set(mTopics.HubOnline(), "true");
    mRetained.Connected();
}

// Replies are for those who wait now.
void MqttBridge::OnSessionLost() {
    mRetained.Lost();
    mRequests.DropReplies();
    mStale.clear();
}

void MqttBridge::OnSessionMessage(MqttMessage message) {
    const auto id = mTopics.Described(message.topic);
    if (!id) {
        mRequests.Take(std::move(message));
        return;
    }
    const bool isOurs = message.isRetained && message.payload.size() <= MOST_DESCRIPTION_BYTES &&
                        HubOfDescription(message.payload) == mSettings.name;
    if (isOurs && mStale.size() < MOST_STALE) {
        mStale.insert(*id);
    }
}

void MqttBridge::Run() {
    WarnOfOpenPassword();
    const auto watch = mHub.Watch([this](const DeviceEvent& event) {
        const lumora::MutexLock lock(mEventsMutex);
        mEvents.insert_or_assign(event.device.id, event);
        mWakeup->Set();
    });
    while (!mIsStopping) {
        try {
            Step();
        } catch (const std::exception& problem) {
            MQTT_LOG_LIMITED(MQTT_ERROR, "something is left out: %s\n", problem.what());
        }
    }
    SayGoodbye();
    UpdateCounts();
}

void MqttBridge::Step() {
    Wait();
    TakeEvents();
    mSession.CheckTimes();
    Publish();
    if (Clock::now() >= mNextSecond) {
        mNextSecond = Clock::now() + SECOND;
        FollowAgain();
        ClearStale();
        UpdateCounts();
    }
}

// Until a block, an event of the hub, a reply, the broker or a time.
void MqttBridge::Wait() {
    pollfd waits[] = {{mWakeup->Get(), POLLIN, 0}, {mSession.Socket(), mSession.Events(), 0}};
    poll(waits, 2, MillisecondsUntil(std::min(mSession.NextTime(), mNextSecond)));
    mWakeup->Clear();
    mSession.OnSocket(waits[1].revents);
}

void MqttBridge::WarnOfOpenPassword() const {
    const std::string& host = mSettings.host;
    const bool isHere = host == "localhost" || host == "::1" || host.compare(0, 4, "127.") == 0;
    if (!mSettings.tls && !mSettings.passwordFile.empty() && !isHere) {
        MQTT_LOG(MQTT_WARNING, "the password goes to the broker %s unencrypted: there is no TLS\n",
                 host.c_str());
    }
}

void MqttBridge::TakeEvents() {
    std::map<std::string, DeviceEvent> events;
    {
        const lumora::MutexLock lock(mEventsMutex);
        events.swap(mEvents);
    }
    for (const auto& entry : events) {
        Apply(entry.second);
    }
}

void MqttBridge::Apply(const DeviceEvent& event) {
    const DeviceState& state = event.device;
    if (event.kind == DeviceEvent::Kind::FORGOTTEN) {
        Forget(state.id);
        return;
    }
    Device& device = mDevices[state.id];
    device.state = state;
    mRetained.Set(mTopics.Device(state.id), DescriptionOf(state, mSettings.name, mTopics));
    mRetained.Set(mTopics.Online(state.id), state.isPresent ? "true" : "false");
    mIncomplete.erase(state.id);
    if (!state.isPresent) {
        mFeeds.Leave(state.id);
    } else if (!mFeeds.Follow(state)) {
        mIncomplete.insert(state.id);
        MQTT_LOG_LIMITED(MQTT_WARNING, "the hub has as many consumers as it may have: services of %s wait\n",
                         ReadableText(state.id).c_str());
    }
}

// The description goes last: a later connection finds by it what is left.
void MqttBridge::Forget(const std::string& id) {
    if (!mSettings.homeAssistant.empty()) {
        mRetained.Clear(HomeAssistantTopic(id));
    }
    mRetained.Clear(mTopics.Online(id));
    mRetained.Clear(mTopics.Device(id));
    mFeeds.Leave(id);
    mIncomplete.erase(id);
    mDevices.erase(id);
}

void MqttBridge::FollowAgain() {
    for (auto id = mIncomplete.begin(); id != mIncomplete.end();) {
        const auto current = id++;
        const auto device = mDevices.find(*current);
        if (device == mDevices.end() || mFeeds.Follow(device->second.state)) {
            mIncomplete.erase(current);
        }
    }
}

void MqttBridge::Publish() {
    for (int count = 0; count < MOST_AT_A_TIME && mSession.HasRoom(); ++count) {
        if (!PublishNext()) {
            return;
        }
    }
    if (mSession.HasRoom()) {
        mWakeup->Set();
    }
}

// States first, so that a client that sees a block finds the device's description.
bool MqttBridge::PublishNext() {
    if (auto state = mRetained.Next()) {
        mSession.PublishText(state->topic, state->payload, true);
        return true;
    }
    if (auto reply = mRequests.NextReply()) {
        MqttProperties properties;
        properties.isText = true;
        properties.correlation = reply->correlation;
        mSession.PublishText(reply->topic, reply->text, false, std::move(properties));
        return true;
    }
    BlockPointer block = mSession.NextAgain();
    if (block == nullptr) {
        block = mFeeds.Next();
    }
    if (block != nullptr) {
        PublishBlock(block);
    }
    return block != nullptr;
}

void MqttBridge::PublishBlock(const BlockPointer& block) {
    const ContentKind kind = KindOf(block->bytes);
    if (!mSettings.homeAssistant.empty()) {
        Learn(*block, kind);
    }
    mSession.PublishBlock(block, mTopics.Service(block->device, block->service), PropertiesOf(*block, kind));
}

// The first block of a service whose kind can be told decides what Home Assistant shows.
void MqttBridge::Learn(const Block& block, ContentKind kind) {
    const auto place = mDevices.find(block.device);
    if (place == mDevices.end() || kind == ContentKind::UNKNOWN ||
        place->second.contents.count(block.service) != 0) {
        return;
    }
    Device& device = place->second;
    device.contents[block.service] = {
        kind, kind == ContentKind::JSON ? FieldsOf(block.bytes) : std::vector<JsonField>()};
    mRetained.Set(HomeAssistantTopic(block.device),
                  HomeAssistantDevice(device.state, device.contents, mSettings.version, mTopics));
}

// Descriptions that an earlier run of this hub left, or that could not be cleared while there was no
// connection. The devices of the network need a moment to be found after the start.
void MqttBridge::ClearStale() {
    if (mStale.empty() || Clock::now() < mSettled) {
        return;
    }
    for (const std::string& id : std::exchange(mStale, {})) {
        if (mDevices.count(id) == 0) {
            Forget(id);
        }
    }
}

void MqttBridge::SayGoodbye() try {
    const auto end = Clock::now() + SECOND;
    const auto pump = [&] {
        pollfd wait = {mSession.Socket(), mSession.Events(), 0};
        poll(&wait, 1, MillisecondsUntil(end));
        mSession.OnSocket(wait.revents);
    };
    bool isSaid = false;
    while (mSession.IsConnected() && Clock::now() < end && !(isSaid && mSession.IsAllAnswered())) {
        if (!isSaid && mSession.HasRoom()) {
            mSession.PublishText(mTopics.HubOnline(), "false", true);
            isSaid = true;
        } else {
            pump();
        }
    }
    mSession.Disconnect();
} catch (const std::exception& problem) {
    MQTT_LOG(MQTT_ERROR, "the broker is not told that the hub leaves: %s\n", problem.what());
}

void MqttBridge::UpdateCounts() {
    MqttCounts counts;
    counts.isConnected = mSession.IsConnected();
    counts.session = mSession.Counts();
    counts.requests = mRequests.Counts();
    counts.lost = counts.session.lost + mFeeds.Lost();
    counts.waiting = mFeeds.Waiting() + mSession.Waiting();
    mFigures.Put("mqtt", FiguresOf(counts));
    const lumora::MutexLock lock(mCountsMutex);
    mCounts = counts;
}

std::string MqttBridge::HomeAssistantTopic(const std::string& id) const {
    return mSettings.homeAssistant + "/device/lumora_" + HomeAssistantId(id) + "/config";
}

}  // namespace lumora_hub
