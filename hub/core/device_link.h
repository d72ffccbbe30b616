// The hub's channel to one device, as long as one is wanted: the worker, its subscriptions, what waits for
// it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "hub/core/back_off.h"
#include "hub/core/device.h"
#include "hub/core/device_hub.h"
#include "hub/core/event_loop.h"
#include "hub/core/port_range.h"
#include "hub/core/quota.h"
#include "hub/core/settings.h"
#include "hub/core/worker_process.h"

namespace lumora_hub {

// Where a device is now.
struct Place {
    std::string type;
    std::string address;
    int port = 0;

    bool operator==(const Place& other) const {
        return port == other.port && address == other.address && type == other.type;
    }
};

// What all channels share. It outlives them.
struct LinkSurroundings {
    EventLoop& loop;
    Reaper& reaper;
    PortRange& ports;
    const Settings& settings;
    // When another node of this host left the network. Devices then close their channels to this host.
    EventLoop::Clock::time_point neighbourLeft;
    // Channels that wait, are being opened or are open.
    Quota channels{ports.Pairs(), ThreeQuarters(ports.Pairs())};
    // Those that are being opened now. Fifty searches at once would keep a small network from answering any
    // of them. A device can keep the hub waiting, so other addresses have half of the places.
    Quota opening{8, 4};
    // How often a device got no channel because its address has its share of them.
    std::atomic<std::uint64_t> refused{0};
};

// For the hub's thread.
class DeviceLink {
public:
    struct Events {
        std::function<void()> onChanged;
        // A block, and its number since the hub knows the device.
        std::function<void(const std::string& service, std::uint64_t number, std::string bytes)> onBlock;
        std::function<void()> onUnreachable;  // the device may have left
    };

    DeviceLink(LinkSurroundings& surroundings, Events events);
    // Calls done of what still waits.
    ~DeviceLink();
    DeviceLink(const DeviceLink&) = delete;
    DeviceLink& operator=(const DeviceLink&) = delete;

    // Nothing: it has left.
    void SetPlace(std::optional<Place> place);
    void SetWanted(std::set<std::string> services);
    // COMMAND or SEND. onDone is called later, or at once.
    void Request(FrameKind kind, const std::string& name, const std::string& body, DeviceHub::Done onDone);

    ChannelState State() const { return mState; }
    const std::string& Trouble() const { return mTrouble; }
    const std::string& Version() const { return mVersion; }
    const std::optional<std::string>& Identity() const { return mIdentity; }
    std::uint64_t Reconnects() const { return mConnections > 1 ? mConnections - 1 : 0; }
    pid_t Process() const { return mWorker != nullptr ? mWorker->Process() : -1; }

private:
    struct Waiting {
        std::string frame;  // empty once it was sent
        std::size_t bytes = 0;
        DeviceHub::Done onDone;
        EventLoop::Timer timer = 0;
    };

    void Update();
    void Start();
    void StartWorker(int port);
    void Stop();
    void Drop();
    void RefuseChannel();
    void UpdateAfter(std::chrono::milliseconds pause);
    void Subscribe();
    void SendRequests();
    void SetDeadline();
    void EndAfter(std::chrono::milliseconds time, const char* trouble);
    void Finish(std::uint64_t request, Outcome outcome);
    void FinishSent();
    void Become(ChannelState state, std::string trouble = {});

    void OnFrame(Frame frame);
    void OnConnected(const Frame& frame);
    void OnBlock(Frame frame);
    void OnEnd(EndReason reason, const std::string& text);
    std::chrono::milliseconds PauseAfter(EndReason reason);
    bool HasStopped(EventLoop::Clock::time_point now) const;
    bool HadStopped(EventLoop::Clock::time_point now) const;

    LinkSurroundings& mSurroundings;
    const Events mEvents;
    std::optional<Place> mPlace;
    std::set<std::string> mWanted;
    std::map<std::uint64_t, Waiting> mRequests;
    std::uint64_t mLastRequest = 0;
    std::size_t mRequestBytes = 0;
    std::set<std::uint64_t> mAtWorker;  // requests that it has not answered

    std::unique_ptr<WorkerProcess> mWorker;
    int mPort = 0;
    Quota::Share mChannel;
    Quota::Share mOpening;
    bool mConnected = false;
    EventLoop::Clock::time_point mConnectedAt;
    EventLoop::Clock::time_point mLastBlock;
    EventLoop::Clock::time_point mWentOnAt;      // blocks came again after a stop
    std::chrono::duration<double> mInterval{0};  // of the blocks, usually
    std::set<std::string> mSubscribed;           // what the worker was told
    // Of each service: the number of the last block, and the one before the first of this worker.
    std::map<std::string, std::pair<std::uint64_t, std::uint64_t>, std::less<>> mNumbers;

    EventLoop::Timer mRetry = 0;
    EventLoop::Timer mIdle = 0;
    EventLoop::Timer mDeadline = 0;  // of the worker, for what it is to do now
    BackOff mBackOff{std::chrono::milliseconds(200), std::chrono::seconds(10)};
    // A device has one client. The hub gives way to another one for longer each time.
    BackOff mGiveWay{std::chrono::seconds(5), std::chrono::minutes(1)};

    ChannelState mState = ChannelState::IDLE;
    std::string mTrouble;
    std::string mVersion;
    std::optional<std::string> mIdentity;
    std::uint64_t mConnections = 0;
};

}  // namespace lumora_hub
